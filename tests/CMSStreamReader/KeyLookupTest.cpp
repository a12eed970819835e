// Where keys are looked for.
#include "HandMade.h"

using namespace cmstest;

namespace {

/// Answers as told, and counts.
class Asking : public CMS::KeyLookup {
public:
    explicit Asking(std::function<NVX509::KeyCertificatePair(const CMS::CertificateIdentifier&)> answer)
        : m_answer(std::move(answer)) {}
    NVX509::KeyCertificatePair find(const CMS::CertificateIdentifier& recipient) const override {
        ++asked;
        return m_answer(recipient);
    }
    mutable int asked = 0;

private:
    std::function<NVX509::KeyCertificatePair(const CMS::CertificateIdentifier&)> m_answer;
};

Outcome openedWith(const Bytes& message, const CMS::KeyLookup& keys) {
    return outcomeOf(message, From::memory, [&keys](Reader& reader) { return reader.open(keys); });
}

const Bytes& toAliceAndBob() {
    static const Bytes message = madeByOpenssl(EVP_aes_256_cbc(), [](CMS_ContentInfo* structure) {
        toCertificate(alice())(structure);
        toCertificate(bob())(structure);
    });
    return message;
}

} // namespace

TEST(KeyLookup, AKeyStoreFindsByIssuerAndSerialNumber) {
    EXPECT_TRUE(openedWith(toAliceAndBob(), CMS::KeyStoreLookup(storeOfKeys({&bob()}))).body == bodyOf(1000));
    EXPECT_FALSE(openedWith(toAliceAndBob(), CMS::KeyStoreLookup(storeOfKeys({&carol()}))).opened);
    const Bytes byIdentifier = madeByOpenssl(EVP_aes_256_cbc(), toCertificate(alice(), CMS_USE_KEYID));
    EXPECT_FALSE(openedWith(byIdentifier, CMS::KeyStoreLookup(storeOfKeys({&alice()}))).opened);
    const CMS::CertificateIdentifier hers(certificateOf(alice()), CMS::NamedBy::subjectKeyIdentifier);
    EXPECT_FALSE(CMS::KeyStoreLookup(storeOfKeys({&alice()})).find(hers));
    Reader reader(Norvane::MemoryMediaIn(bufferOf(toAliceAndBob())));
    EXPECT_EQ(caught([&] { reader.open(CMS::KeyStoreLookup(NVX509::RefKeyStore(false))); }).where, "operator->");
}

TEST(KeyLookup, ThePairOfTheRightNameComesFirst) {
    // One plug-in's only key, whoever is asked for, and wherever its recipient stands.
    for (const Identity* only : {&alice(), &bob()}) {
        const Asking keys([only](const CMS::CertificateIdentifier&) { return pairOf(*only); });
        EXPECT_TRUE(openedWith(toAliceAndBob(), keys).body == bodyOf(1000));
    }
    // A renewed certificate, which has another name.
    const Bytes message = envelope(
        {.recipients = {recipientInfo(identities().authority.name.der(), "77", wrappedFor(alice(), contentKey()))},
         .content = contentElement(encryptedContent(bodyOf(10)))});
    const Asking renewed([](const CMS::CertificateIdentifier&) { return pairOf(alice()); });
    EXPECT_TRUE(openedWith(message, renewed).body == bodyOf(10));
}

TEST(KeyLookup, PairsWithoutAUsableKeyAreNone) {
    const auto certificate = certificateOf(alice());
    const auto publicKey = [] {
        return Crypto::RefKey(new Crypto::PublicKey(X509_get_pubkey(alice().certificate.x509().get())));
    };
    for (const auto& pair :
         {NVX509::KeyCertificatePair(false), NVX509::KeyCertificatePair(true),
          NVX509::KeyCertificatePair(Crypto::RefKey(), certificate),
          NVX509::KeyCertificatePair(Crypto::RefKey(Crypto::Key::PRIVATE_KEY), certificate),
          NVX509::KeyCertificatePair(publicKey(), certificate), NVX509::KeyCertificatePair(keyOf(bob()), certificate),
          NVX509::KeyCertificatePair(keyOf(identities().ec), NVX509::RefCertificate())}) {
        const Asking keys([&pair](const CMS::CertificateIdentifier&) { return pair; });
        const Outcome outcome = openedWith(toAliceAndBob(), keys);
        EXPECT_FALSE(outcome.opened);
        EXPECT_EQ(outcome.verdict, Reader::Unopened);
        EXPECT_EQ(keys.asked, 2);
    }
    // What is not supported is nothing to whom there is no key for.
    const Asking none([](const CMS::CertificateIdentifier&) { return NVX509::KeyCertificatePair(false); });
    const Bytes unsupported = der::sequence(
        {der::integer("0"), nameIn(alice()), der::sequence({der::oid("1.2.3.4")}), der::octetString(Bytes(256, 1))});
    const Outcome other = openedWith(authEnveloped({.recipients = {unsupported}}), none);
    EXPECT_EQ(other.verdict, Reader::Unopened);
    EXPECT_EQ(other.unsupported, "");
}

TEST(KeyLookup, EachNameIsAskedForOnce) {
    const std::vector<Bytes> recipients(1000, recipientInfo(alice(), Bytes(256, 1)));
    const Bytes message = envelope({.recipients = recipients, .content = contentElement(encryptedContent(bodyOf(10)))});
    const Asking none([](const CMS::CertificateIdentifier&) { return NVX509::KeyCertificatePair(false); });
    EXPECT_FALSE(openedWith(message, none).opened);
    EXPECT_EQ(none.asked, 1);
}

TEST(KeyLookup, AListKnowsWhatItCertainlyDoesNotHave) {
    const CMS::KeyListLookup keys(
        {pairOf(alice()), NVX509::KeyCertificatePair(false), NVX509::KeyCertificatePair(true)});
    for (const CMS::NamedBy namedBy : {CMS::NamedBy::issuerAndSerialNumber, CMS::NamedBy::subjectKeyIdentifier}) {
        const CMS::CertificateIdentifier hers(certificateOf(alice()), namedBy);
        const CMS::CertificateIdentifier his(certificateOf(bob()), namedBy);
        EXPECT_TRUE(keys.mayFind(namedBy, hers.octets()));
        EXPECT_FALSE(keys.mayFind(namedBy, his.octets()));
        EXPECT_TRUE(keys.find(hers));
        EXPECT_FALSE(keys.find(his));
        EXPECT_TRUE(CMS::KeyStoreLookup(storeOfKeys({})).mayFind(namedBy, his.octets()));
        EXPECT_FALSE(keys.mayFind(namedBy, Buffer()));
    }
    // The same number under a longer length, and with zeros before it, is the same certificate's.
    const Bytes odd =
        der::concat({Bytes{0x30, 0x81, static_cast<unsigned char>(identities().authority.name.der().size() + 8)},
                     identities().authority.name.der(), Bytes{2, 6, 0, 0, 0, 0x0A, 0x11, 0xCE}});
    EXPECT_TRUE(keys.mayFind(CMS::NamedBy::issuerAndSerialNumber, bufferOf(odd)));
}

TEST(KeyLookup, NegativeSerialNumbersAreNobodys) {
    const Bytes message =
        envelope({.recipients = {recipientInfo(identities().authority.name.der(), "-1f", Bytes(256, 1))},
                  .content = contentElement(encryptedContent(bodyOf(10)))});
    EXPECT_FALSE(openedWith(message, CMS::KeyStoreLookup(storeOfKeys({&alice()}))).opened);
    EXPECT_FALSE(outcomeOf(message, From::memory, withKeys({&alice()})).opened);
}

TEST(KeyLookup, WhatItThrowsPassesUnchanged) {
    const Asking keys([](const CMS::CertificateIdentifier&) -> NVX509::KeyCertificatePair {
        throw std::runtime_error("the card was pulled");
    });
    Reader reader(Norvane::MemoryMediaIn(bufferOf(toAliceAndBob())));
    EXPECT_THROW(reader.open(keys), std::runtime_error);
    EXPECT_EQ(reader.verdict(), Reader::Unopened);
    EXPECT_TRUE(withKeys({&alice()})(reader));
}

TEST(KeyLookup, RecipientsOfOtherKindsAreNamed) {
    const Bytes unknown = cmstest::context(4, der::concat({der::oid("1.2.3.4"), der::null()}));
    const Bytes kem =
        der::sequence({der::integer("0"), nameIn(alice()), der::sequence({der::oid("1.2.840.113549.1.9.16.3.14")}),
                       der::octetString(Bytes(16, 1))});
    const Bytes message = envelope({.recipients = {unknown, kem, der::sequence({der::integer("0")})},
                                    .content = contentElement(encryptedContent(bodyOf(10)))});
    const Outcome outcome = outcomeOf(message, From::stream, withKeys({&alice()}));
    EXPECT_FALSE(outcome.opened);
    EXPECT_EQ(outcome.verdict, Reader::Unsupported);
    EXPECT_EQ(outcome.unsupported, "1.2.840.113549.1.9.16.3.14");
    const Reader reader(Norvane::MemoryMediaIn(bufferOf(message)));
    ASSERT_EQ(reader.recipients().size(), 3U);
    EXPECT_EQ(reader.recipients()[0].kind(), Reader::Recipient::other);
    EXPECT_EQ(reader.recipients()[0].algorithm(), "1.2.3.4");
    EXPECT_EQ(reader.recipients()[0].unsupported(), "recipients of the type 1.2.3.4");
    EXPECT_EQ(reader.recipients()[2].unsupported(), "a recipient that cannot be decoded");
}
