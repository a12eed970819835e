// Structures whose parts wait: which do, until when, what is kept for them, and that a structure put together from parts is none that
// OpenSSL would have refused.
#include "openssl/LazyPkcs7.h"

#include <norvcmsg/BytesInMemory.h>

#include <authority/Authority.h>

#include <openssl/err.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>

using namespace Norvane::Crypto::openssl;
using norvauthority::Bytes;
namespace der = norvauthority::der;

namespace {

int s_sources = 0; ///< that live

class LentInImpl : public Norvane::MediaInImpl, public Norvane::BytesInMemory {
public:
    explicit LentInImpl(Bytes content) : m_content(std::move(content)) { ++s_sources; }
    LentInImpl(const LentInImpl&) = delete;
    LentInImpl& operator=(const LentInImpl&) = delete;
    ~LentInImpl() override { --s_sources; }
    using MediaInImpl::read;
    [[nodiscard]] bool atEnd() const override { return left() == 0; }
    [[nodiscard]] int peek() const override { return atEnd() ? -1 : *rest(); }
    int read(unsigned char* out, unsigned int length) override {
        const std::size_t count = std::min<std::size_t>(length, left());
        std::copy_n(rest(), count, out);
        skip(count);
        return static_cast<int>(count);
    }
    [[nodiscard]] const unsigned char* rest() const noexcept override { return m_content.data() + m_at; }
    [[nodiscard]] unsigned long left() const noexcept override { return m_content.size() - m_at; }
    void skip(unsigned long count) noexcept override { m_at += count; }

private:
    Bytes m_content;
    std::size_t m_at = 0;
};

std::unique_ptr<LazyPkcs7> decoded(const Bytes& structure) {
    Norvane::MediaIn source(Norvane::makeReference<LentInImpl, Norvane::MediaInImpl>(structure));
    StructureOctets octets(source);
    EXPECT_TRUE(octets.isWhole());
    return LazyPkcs7::decode(std::move(octets));
}

Bytes encoded(const PKCS7* structure) {
    unsigned char* out = nullptr;
    const int length = i2d_PKCS7(structure, &out);
    const OwnedMemory<unsigned char> owner(out);
    return {out, out + std::max(length, 0)};
}

/// As OpenSSL's decoder sees it, which is what ours decodes to in the end.
bool expectAsOpensslSees(const Bytes& structure) {
    SCOPED_TRACE(norvauthority::toHex(structure));
    const unsigned char* at = structure.data();
    const Pkcs7Ptr theirs(d2i_PKCS7(nullptr, &at, static_cast<long>(structure.size())));
    ERR_clear_error();
    const auto ours = decoded(structure);
    EXPECT_EQ(ours != nullptr, theirs != nullptr);
    EXPECT_EQ(ERR_peek_error() == 0, ours != nullptr);
    ERR_clear_error();
    if (ours != nullptr && theirs != nullptr) {
        ours->decodeAll();
        EXPECT_EQ(encoded(ours->structure()), encoded(theirs.get()));
    }
    return theirs != nullptr;
}

const Bytes s_data = der::oid("1.2.840.113549.1.7.1");
const Bytes s_signed = der::oid("1.2.840.113549.1.7.2");
const Bytes s_enveloped = der::oid("1.2.840.113549.1.7.3");
const Bytes s_timeStamp = der::oid("1.2.840.113549.1.9.16.1.4");
const Bytes s_sha256 = der::sequence({der::oid("2.16.840.1.101.3.4.2.1")});
const Bytes s_rsa = der::sequence({der::oid("1.2.840.113549.1.1.1"), der::null()});
const Bytes s_octets = der::octetString({1, 2, 3});
const Bytes s_end{0, 0};

Bytes context(unsigned int number, const std::vector<Bytes>& inside) {
    return der::element(der::contextConstructed(number), der::concat(inside));
}
Bytes structure(const Bytes& type, const std::vector<Bytes>& parts) {
    return der::sequence({type, context(0, {der::sequence(parts)})});
}

const norvauthority::Identity& authority() {
    static const auto made =
        norvauthority::issue({.subject = {{"CN", "Authority"}}, .key = norvauthority::Key::ec(), .ca = true});
    return made;
}
Bytes list(const std::string& number) {
    return norvauthority::issueList({.issuer = &authority(), .crlNumber = number}).der;
}
Bytes certificate(const std::string& serial) {
    return norvauthority::issue(
               {.subject = {{"CN", "Someone"}}, .key = authority().key, .issuer = &authority(), .serial = serial})
        .certificate.der;
}

Bytes signedOver(const Bytes& content, const std::vector<Bytes>& more = {}) {
    std::vector<Bytes> parts{der::integer("1"), der::set({s_sha256}), content};
    parts.insert(parts.end(), more.begin(), more.end());
    parts.push_back(der::set({}));
    return structure(s_signed, parts);
}
const Bytes s_detached = der::sequence({s_data});
Bytes attached(const Bytes& content) {
    return der::sequence({s_data, context(0, {content})});
}

Bytes recipient(const std::string& serial) {
    return der::sequence({der::integer("0"), der::sequence({authority().name.der(), der::integer(serial)}), s_rsa,
                          der::octetString(Bytes(16, 9))});
}
const Bytes s_cipher = der::sequence({der::oid("2.16.840.1.101.3.4.1.2"), der::octetString(Bytes(16, 5))});
const Bytes s_encrypted = der::element(der::context(0), Bytes(32, 7));

Bytes enveloped(const std::vector<Bytes>& recipients, const std::vector<Bytes>& content = {s_encrypted}) {
    std::vector<Bytes> info{s_data, s_cipher};
    info.insert(info.end(), content.begin(), content.end());
    return structure(s_enveloped, {der::integer("0"), der::set(recipients), der::sequence(info)});
}

/// A recipient that is decoded at once: one that says more than OpenSSL is certain to understand.
const Bytes& strangeRecipient() {
    static const Bytes made = [] {
        Bytes name = recipient("7");
        return der::concat({{0x30, 0x80}, Bytes(name.begin() + 2, name.end()), s_end});
    }();
    return made;
}

} // namespace

TEST(LazyPkcs7, CertificatesAndListsWait) {
    const std::vector<Bytes> certificates{certificate("1"), certificate("2"), certificate("3")};
    const std::vector<Bytes> lists{list("1"), list("2")};
    for (const Bytes& content :
         {s_detached, attached(s_octets), der::sequence({s_timeStamp, context(0, {s_octets})}),
          der::sequence({s_timeStamp}), attached(der::concat({{0x24, 0x80}, s_octets, s_octets, s_end}))}) {
        const Bytes both = signedOver(content, {context(0, certificates), context(1, lists)});
        EXPECT_TRUE(expectAsOpensslSees(both));
        const auto lazy = decoded(both);
        ASSERT_NE(lazy, nullptr);
        EXPECT_EQ(s_sources, 0) << "what waits was kept, and the source is let go";
        const PKCS7_SIGNED* inside = lazy->structure()->d.sign;
        EXPECT_EQ(lazy->waitingCertificates(), 3U);
        EXPECT_EQ(inside->cert, nullptr);
        EXPECT_EQ(inside->crl, nullptr);
        const X509* second = lazy->certificate(1);
        EXPECT_EQ(ASN1_INTEGER_get(X509_get0_serialNumber(second)), 2);
        lazy->decodeLists();
        EXPECT_EQ(sk_X509_CRL_num(inside->crl), 2);
        EXPECT_EQ(inside->cert, nullptr);
        lazy->decodeCertificates();
        EXPECT_EQ(lazy->waitingCertificates(), 0U);
        ASSERT_EQ(sk_X509_num(inside->cert), 3);
        EXPECT_EQ(sk_X509_value(inside->cert, 1), second) << "the one that was decoded alone";
        EXPECT_EQ(ASN1_INTEGER_get(X509_get0_serialNumber(sk_X509_value(inside->cert, 2))), 3);
        EXPECT_EQ(lazy->recipients(), 0U);
        EXPECT_FALSE(lazy->encryptedOctets().isThere());
    }
    const auto onlyLists = decoded(signedOver(s_detached, {context(1, lists)}));
    ASSERT_NE(onlyLists, nullptr);
    EXPECT_EQ(onlyLists->structure()->d.sign->crl, nullptr);
    onlyLists->decodeAll();
    EXPECT_EQ(sk_X509_CRL_num(onlyLists->structure()->d.sign->crl), 2);
    const auto onlyCertificates = decoded(signedOver(s_detached, {context(0, certificates)}));
    ASSERT_NE(onlyCertificates, nullptr);
    EXPECT_EQ(onlyCertificates->waitingCertificates(), 3U);
    onlyCertificates->decodeAll();
    EXPECT_EQ(sk_X509_num(onlyCertificates->structure()->d.sign->cert), 3);
}

TEST(LazyPkcs7, RecipientsAndTheContentWait) {
    const auto lazy = decoded(enveloped({recipient("5"), recipient("6")}));
    ASSERT_NE(lazy, nullptr);
    EXPECT_EQ(s_sources, 1) << "they lie in the source";
    const PKCS7_ENVELOPE* inside = lazy->structure()->d.enveloped;
    EXPECT_EQ(lazy->recipients(), 2U);
    ASSERT_NE(lazy->nameOfRecipient(1), nullptr);
    EXPECT_EQ(sk_PKCS7_RECIP_INFO_num(inside->recipientinfo), 0);
    EXPECT_EQ(inside->enc_data->enc_data, nullptr);
    EXPECT_TRUE(lazy->encryptedOctets().isThere());
    const PKCS7_RECIP_INFO* second = lazy->recipient(1);
    lazy->decodeRecipients();
    ASSERT_EQ(sk_PKCS7_RECIP_INFO_num(inside->recipientinfo), 2);
    EXPECT_EQ(sk_PKCS7_RECIP_INFO_value(inside->recipientinfo, 1), second);
    EXPECT_EQ(lazy->nameOfRecipient(1), nullptr);
    EXPECT_EQ(lazy->recipient(1), second);
    EXPECT_EQ(inside->enc_data->enc_data, nullptr);
    lazy->decodeContent();
    const ASN1_OCTET_STRING* content = inside->enc_data->enc_data;
    ASSERT_NE(content, nullptr);
    EXPECT_EQ(ASN1_STRING_length(content), 32);
    lazy->decodeContent();
    lazy->decodeAll();
    EXPECT_EQ(inside->enc_data->enc_data, content) << "once";
}

TEST(LazyPkcs7, TheSourceIsKeptAsLongAsAnythingLiesInIt) {
    struct Case {
        Bytes structure;
        int sources;
    };
    for (const auto& [octets, sources] : std::vector<Case>{{enveloped({recipient("5")}), 1},
                                                           {enveloped({recipient("5")}, {}), 1},
                                                           {enveloped({strangeRecipient()}), 1},
                                                           {enveloped({strangeRecipient()}, {}), 0},
                                                           {signedOver(s_detached), 0},
                                                           {signedOver(attached(s_octets)), 0}}) {
        const auto lazy = decoded(octets);
        ASSERT_NE(lazy, nullptr);
        EXPECT_EQ(s_sources, sources);
        const Bytes before = octets;
        lazy->decodeAll();
        const unsigned char* at = before.data();
        const Pkcs7Ptr theirs(d2i_PKCS7(nullptr, &at, static_cast<long>(before.size())));
        EXPECT_EQ(encoded(lazy->structure()), encoded(theirs.get()));
    }
    EXPECT_EQ(s_sources, 0);
}

// What is put together again from its parts gets the tags that these should have had: what had others must be refused before.
TEST(LazyPkcs7, OtherTagsAreRefusedAsOpensslRefusesThem) {
    const Bytes sound = signedOver(attached(s_octets), {context(0, {certificate("1")}), context(1, {list("1")})});
    ASSERT_TRUE(expectAsOpensslSees(sound));
    ASSERT_TRUE(expectAsOpensslSees(enveloped({recipient("5")})));
    const auto refused = [](const Bytes& octets) { EXPECT_FALSE(expectAsOpensslSees(octets)); };
    const Bytes inside = der::sequence({der::integer("1"), der::set({s_sha256}), s_detached, der::set({})});
    refused(der::set({s_signed, context(0, {inside})}));
    refused(der::sequence({s_signed, context(1, {inside})}));
    refused(der::sequence({s_signed, inside}));
    refused(
        der::sequence({s_signed, context(0, {der::element(der::setTag, Bytes(inside.begin() + 2, inside.end()))})}));
    refused(der::sequence({s_signed, context(0, {inside, inside})}));
    refused(der::sequence({s_signed, context(0, {inside}), der::null()}));
    refused(signedOver(der::set({s_data, context(0, {s_octets})})));
    refused(signedOver(der::sequence({s_data, context(1, {s_octets})})));
    refused(signedOver(attached(der::element(0x0C, {1, 2, 3}))));
    refused(signedOver(attached(der::concat({s_octets, s_octets}))));
    refused(signedOver(der::sequence({s_data, context(0, {s_octets}), der::null()})));
    refused(signedOver(der::sequence({s_data, s_octets})));
    refused(signedOver(der::sequence({})));
    refused(signedOver(attached(s_octets), {context(2, {})}));
    refused(structure(s_signed, {der::integer("1"), der::set({s_sha256}), s_detached}));
    refused(structure(s_signed, {der::integer("1"), der::set({s_sha256})}));
    const Bytes info = der::sequence({s_data, s_cipher, s_encrypted});
    const Bytes recipients = der::set({recipient("5")});
    const auto withEnvelope = [&](const Bytes& first, const Bytes& second) {
        return structure(s_enveloped, {der::integer("0"), first, second});
    };
    ASSERT_TRUE(expectAsOpensslSees(withEnvelope(recipients, info)));
    refused(withEnvelope(der::sequence({recipient("5")}), info));
    refused(withEnvelope(recipients, der::set({s_data, s_cipher, s_encrypted})));
    refused(withEnvelope(recipients, der::sequence({s_data, s_cipher, der::element(der::context(1), Bytes(32, 7))})));
    refused(withEnvelope(recipients, der::sequence({s_data, s_cipher, s_octets})));
    refused(withEnvelope(recipients, der::sequence({s_data, s_cipher, s_encrypted, der::null()})));
    expectAsOpensslSees(withEnvelope(der::set({}), info));
    expectAsOpensslSees(structure(s_data, {s_octets}));
    expectAsOpensslSees(der::sequence(
        {der::element(der::octetStringTag, Bytes(s_signed.begin() + 2, s_signed.end())), context(0, {inside})}));
}

TEST(LazyPkcs7, StringsWithinStringsAsDeepAsOpensslGoes) {
    bool taken = true;
    bool refused = false;
    for (int depth = 1; depth != 12; ++depth) {
        Bytes content = s_octets;
        Bytes encrypted = der::octetString(Bytes(16, 1));
        for (int level = 1; level < depth; ++level) {
            content = der::concat({{0x24, 0x80}, content, s_end});
            encrypted =
                der::concat({{static_cast<unsigned char>(level + 1 == depth ? 0xA0 : 0x24), 0x80}, encrypted, s_end});
        }
        const bool isTaken = expectAsOpensslSees(signedOver(attached(content)));
        if (depth > 1) {
            EXPECT_EQ(expectAsOpensslSees(enveloped({recipient("5")}, {encrypted})), isTaken) << depth;
        }
        taken = taken && (depth > 5 || isTaken);
        refused = refused || !isTaken;
    }
    EXPECT_TRUE(taken);
    EXPECT_TRUE(refused);
}

TEST(LazyPkcs7, AStructureInWhichNothingWaits) {
    Pkcs7Ptr made(PKCS7_new());
    ASSERT_EQ(PKCS7_set_type(made.get(), NID_pkcs7_signed), 1);
    LazyPkcs7 lazy(std::move(made));
    EXPECT_EQ(lazy.recipients(), 0U);
    EXPECT_EQ(lazy.waitingCertificates(), 0U);
    EXPECT_FALSE(lazy.encryptedOctets().isThere());
    lazy.decodeAll();
}
