// Structures are decoded in parts, as they are asked for. What callers see must be what OpenSSL's own decoder gives, which
// decodes all at once: for sound structures, for each of them cut and changed at every octet, and for thousands of others.
#include "support/Decrypting.h"

#include <norvcrypto/CMSVerification.h>

#include <map>
#include <random>
#include <sstream>

using namespace cmstest;

namespace {

/// What a caller sees of a structure, all of it.
class Seen {
public:
    void put(const std::string& what, const std::string& value) { m_text << what << '=' << value << '\n'; }
    template <class Get> void number(const std::string& what, Get get) {
        try {
            put(what, get().object() == nullptr ? "none" : get().hex());
        } catch (const Norvane::Exception& failure) {
            put(what, failure.asString());
        }
    }
    void name(const CMS::IssuerAndSerialNumber& value) {
        put("issuer", value.issuer().asString());
        number(
            "serial", [&]() -> const auto& { return value.serialNumber(); });
    }
    template <class Octets> void octets(const std::string& what, const Octets& value) {
        put(what, norvauthority::toHex(value.data() == nullptr ? Bytes()
                                                               : Bytes(value.data(), value.data() + value.length())));
    }
    void data(const CMS::SignedData& data) {
        number(
            "version", [&]() -> const auto& { return data.version(); });
        put("content", data.contentInfo().isNull() ? "none" : data.contentInfo()->type().asString());
        for (const auto& signer : data.signerInfo()) {
            name(signer.issuerAndSerialNumber());
            put("digest", signer.digestAlgorithm().asString());
            put("algorithm", signer.signatureAlgorithm().asString());
            octets("signature", signer.signature());
        }
        for (const auto& certificate : data.certificates()) {
            put("certificate", certificate->subject().asString() + (certificate->key().isNull() ? "" : " key"));
        }
        for (const auto& list : data.certificateRevocationLists()) {
            put("list", list->crlInfo().issuer().asString());
        }
    }
    void data(const CMS::EnvelopedData& data) {
        number(
            "version", [&]() -> const auto& { return data.version(); });
        for (const auto& recipient : data.recipientInfo()) {
            name(recipient.issuerAndSerialNumber());
        }
        put("content", data.contentInfo().contentType().asString());
        put("cipher", data.contentInfo().algorithm().asString());
        octets("encrypted", data.contentInfo().data());
    }
    void signatures(const CMS::RefContentInfo& structure, const Bytes& body) {
        try {
            PiecewiseIn in(body);
            for (const auto& signer : CMS::verifySignatures(structure, in).signers) {
                put("verdict", CMS::textOf(signer.reason) + (" " + signer.algorithm));
                put("by", signer.certificate.isNull() ? "" : signer.certificate->subject().asString());
            }
        } catch (const Norvane::Exception& failure) {
            put("unjudged", failure.asString());
        }
    }
    [[nodiscard]] std::string text() const { return m_text.str(); }

private:
    std::ostringstream m_text;
};

const Bytes& body() {
    static const Bytes content = bodyOf(200);
    return content;
}

std::string seenOf(const CMS::RefContentInfo& message, const CMS::SignedData& signedData,
                   const CMS::EnvelopedData& envelopedData) {
    Seen seen;
    seen.put("type", std::to_string(static_cast<int>(message->typeAsEnum())) + message->type().asString());
    seen.signatures(message, body());
    seen.data(signedData);
    seen.data(envelopedData);
    if (Norvane::MediaIn content = CMS::embeddedContent(message); !content.isNull()) {
        std::string text;
        content.read(text);
        seen.put("embedded", norvauthority::toHex(bytesOf(text)));
    }
    return seen.text();
}

/// OpenSSL's decoder from a source, its errors, and how much it read.
struct Reference {
    explicit Reference(const Bytes& input) {
        const Bio source(BIO_new_mem_buf(input.empty() ? "" : static_cast<const void*>(input.data()),
                                         static_cast<int>(input.size())));
        BIO_set_mem_eof_return(source.get(), 0);
        structure.reset(d2i_PKCS7_bio(source.get(), nullptr));
        read = input.size() - BIO_pending(source.get());
        if (structure == nullptr) {
            errors = Crypto::getErrString();
        }
        ERR_clear_error();
    }
    Pkcs7 structure;
    std::size_t read = 0;
    std::string errors;
};

struct Tally {
    std::size_t accepted = 0;
    std::size_t refused = 0;
    std::size_t ours = 0; ///< refused by the library alone, for what they cost
    std::size_t opened = 0;
};

void expectRefused(const Norvane::Exception& failure, const RecordedLog& log, const Reference& reference,
                   Tally& tally) {
    EXPECT_EQ(failure.where(), "CMS::_ContentInfo::_ContentInfo");
    EXPECT_EQ(failure.lineNumber(), 389U);
    ASSERT_EQ(log.events(), std::vector<unsigned int>{0x300005E});
    const std::string reasons = log.records().front().fields.at(1);
    if (reasons.find("refused: ") != std::string::npos) {
        ++tally.ours;
        return;
    }
    EXPECT_EQ(reference.structure, nullptr);
    if (!reference.errors.empty()) {
        EXPECT_EQ(reasons, reference.errors);
    }
    ++tally.refused;
}

/// The private key of that recipient opens it: otherwise the content key is a random one, and so is what comes out.
bool opens(const PKCS7* structure, const Identity& person) {
    const auto* recipients = structure->d.enveloped->recipientinfo;
    for (int at = 0; at < sk_PKCS7_RECIP_INFO_num(recipients); ++at) {
        const ASN1_OCTET_STRING* wrapped = sk_PKCS7_RECIP_INFO_value(recipients, at)->enc_key;
        const std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)> context(
            EVP_PKEY_CTX_new(person.key.get(), nullptr), EVP_PKEY_CTX_free);
        Bytes key(1024);
        std::size_t length = key.size();
        EVP_PKEY_decrypt_init(context.get());
        EVP_PKEY_CTX_ctrl_str(context.get(), "rsa_pkcs1_implicit_rejection", "0");
        if (EVP_PKEY_decrypt(context.get(), key.data(), &length, wrapped->data,
                             static_cast<std::size_t>(wrapped->length)) == 1 &&
            length == contentKey().size()) {
            return true;
        }
    }
    ERR_clear_error();
    return false;
}

void expectSameBody(Norvane::MediaIn& in, PKCS7* reference, Tally& tally) {
    const RecordedLog log;
    static const NVX509::RefKeyStore keys = storeOfKeys({&alice()});
    CMS::DecrypterMediaIn decrypter(in, keys);
    Norvane::MemoryMediaOut out;
    decrypter.write(out);
    EXPECT_EQ(ERR_peek_error(), 0UL);
    if (OBJ_obj2nid(reference->type) != NID_pkcs7_enveloped || reference->d.enveloped == nullptr ||
        reference->d.enveloped->enc_data->enc_data == nullptr) {
        EXPECT_TRUE(decrypter.attempts().empty());
        return;
    }
    // One attempt for each recipient, in their order, up to the one that opens.
    const CMS::EnvelopedData all(reference->d.enveloped);
    auto recipient = all.recipientInfo().begin();
    for (const auto& attempt : decrypter.attempts()) {
        ASSERT_NE(recipient, all.recipientInfo().end());
        if (!attempt.recipient().serialNumber().isNull()) {
            EXPECT_EQ(*attempt.recipient().serialNumber(), recipient->issuerAndSerialNumber().serialNumber());
        }
        ++recipient;
    }
    EXPECT_TRUE(decrypter.decryptionSucceeded() || recipient == all.recipientInfo().end());
    if (!decrypter.decryptionSucceeded() || !opens(reference, alice())) {
        return;
    }
    const auto expected = openedByOpenssl(derOf(reference), alice());
    if (expected) {
        EXPECT_EQ(bytesOf(out.content()), *expected);
        ++tally.opened;
    }
}

/// One input against OpenSSL, from both kinds of sources or from memory alone.
void compare(const Bytes& input, Tally& tally, bool alsoInPieces = true) {
    const Reference reference(input);
    std::string expected;
    if (reference.structure != nullptr) {
        const RecordedLog log;
        const CMS::RefContentInfo whole(reference.structure.get());
        expected = seenOf(whole, CMS::signedData(whole), CMS::envelopedData(whole));
    }
    for (const bool inMemory : {true, false}) {
        if (!inMemory && !alsoInPieces) {
            return;
        }
        SCOPED_TRACE(inMemory ? "in memory" : "in pieces");
        const RecordedLog log;
        Norvane::MediaIn in = inMemory ? Norvane::MediaIn(Norvane::MemoryMediaIn(bufferOf(input)))
                                       : Norvane::MediaIn(PiecewiseIn(input, 100));
        const auto position = [&] {
            return inMemory ? in.tell() : dynamic_cast<const PiecewiseInImpl&>(*in).position();
        };
        if (reference.structure != nullptr) {
            ERR_raise(ERR_LIB_USER, 77);
        }
        try {
            const CMS::RefContentInfo message(in);
            EXPECT_LE(position(), reference.read) << "some versions of OpenSSL read on where lengths are indefinite";
            EXPECT_GE(position() + 6, reference.read);
            ASSERT_NE(reference.structure, nullptr);
            EXPECT_EQ(ERR_GET_REASON(ERR_get_error()), 77) << "the queue is left as it was";
            EXPECT_EQ(ERR_peek_error(), 0UL);
            EXPECT_EQ(seenOf(message, CMS::signedData(message), CMS::envelopedData(message)), expected);
            EXPECT_TRUE(derOf(message) == derOf(reference.structure.get()));
            if (inMemory) {
                in.setpos(0);
                expectSameBody(in, reference.structure.get(), tally);
                ++tally.accepted;
            }
        } catch (const Norvane::Exception& failure) {
            constexpr unsigned long readsAlike =
                0x30000160; // 3.0.22; before it reads a little more here, or less there
            const auto apart = std::max<std::uint64_t>(position(), reference.read) -
                               std::min<std::uint64_t>(position(), reference.read);
            EXPECT_LE(apart, OpenSSL_version_num() < readsAlike ? 6U : 0U) << norvauthority::toHex(input);
            expectRefused(failure, log, reference, tally);
        }
        ERR_clear_error();
    }
}

Bytes list() {
    return norvauthority::issueList(
               {.issuer = &identities().authority, .revoked = {{.serial = "1f"}, {.serial = "2a"}}, .crlNumber = "05"})
        .der;
}

/// A structure with certificates and lists beside its own.
Bytes with(const Bytes& structure, const std::vector<Bytes>& certificates, const std::vector<Bytes>& lists) {
    const auto made = norvauthority::pkcs7(structure);
    for (const Bytes& one : certificates) {
        const unsigned char* at = one.data();
        X509* certificate = d2i_X509(nullptr, &at, static_cast<long>(one.size()));
        PKCS7_add_certificate(made.get(), certificate);
        X509_free(certificate);
    }
    for (const Bytes& one : lists) {
        const unsigned char* at = one.data();
        X509_CRL* revoked = d2i_X509_CRL(nullptr, &at, static_cast<long>(one.size()));
        PKCS7_add_crl(made.get(), revoked);
        X509_CRL_free(revoked);
    }
    return derOf(made.get());
}

/// Names of the kinds of strings that there are.
Bytes oddlyNamed() {
    const norvauthority::Name name{{"CN", std::string("\0B\0m\0p", 6), 30},
                                   {"O", "T\xE9l\xE9", 20},
                                   {"OU", "M\xC3\xBCller", 12},
                                   {"L", "IA5", 22}};
    return norvauthority::issue({.subject = name, .key = identities().ec.key, .issuer = &identities().authority})
        .certificate.der;
}

const std::map<std::string, Bytes>& seeds() {
    static const std::map<std::string, Bytes> all = [] {
        const auto& ids = identities();
        std::map<std::string, Bytes> made;
        made["detached"] = signedByOpenssl(ids.ec, body(), "SHA256", CMS_DETACHED);
        made["attached"] = signedByOpenssl(ids.ec, body(), "SHA256", CMS_NOATTR);
        made["stream"] = signedByOpenssl(ids.ec, body(), "SHA256", CMS_STREAM);
        made["many"] = with(made["detached"], {oddlyNamed(), ids.ec.certificate.der}, {list()});
        made["lists"] = with(signedByOpenssl(ids.ec, body(), "SHA256", CMS_NOCERTS), {}, {list(), list()});
        made["envelope"] = handMade(body(), {recipient(bob()), recipient(alice())});
        made["envelopeStream"] = encryptedByOpenssl({&alice()}, body(), EVP_aes_128_cbc(), CMS_STREAM);
        Bytes pieces{0xA0, 0x80};
        const Bytes encrypted = encryptedContent(body());
        for (std::size_t at = 0; at < encrypted.size(); at += 16) {
            const auto from = encrypted.begin() + static_cast<std::ptrdiff_t>(at);
            der::append(pieces, der::octetString(Bytes(from, from + 16)));
        }
        der::append(pieces, {0, 0});
        made["envelopePieces"] = envelope({.recipients = {recipient(alice())}, .content = pieces});
        made["envelopeEmpty"] = envelope({.recipients = {recipient(alice())}});
        made["data"] = norvauthority::contentInfo(norvauthority::fromHex("2a864886f70d010701"), der::octetString({65}));
        return made;
    }();
    return all;
}

class Lazy : public ::testing::TestWithParam<std::string> {
protected:
    static const Bytes& seed() { return seeds().at(GetParam()); }
};

/// An encrypted message whose content stands in segments of so many octets, the last one of fewer.
Bytes inSegments(std::size_t length, std::size_t segment) {
    Bytes pieces{0xA0, 0x80};
    const Bytes encrypted = encryptedContent(bodyOf(length));
    for (std::size_t at = 0; at < encrypted.size(); at += segment) {
        const auto from = encrypted.begin() + static_cast<std::ptrdiff_t>(at);
        const auto count = static_cast<std::ptrdiff_t>(std::min(segment, encrypted.size() - at));
        der::append(pieces, der::octetString(Bytes(from, from + count)));
    }
    der::append(pieces, {0, 0});
    return envelope({.recipients = {recipient(alice())}, .content = pieces});
}

/// How one element is encoded in another way.
enum class Variant { longLength, longLengthOfNothing, nothing, indefiniteLength, longTag, otherForm };

/// The elements of DER, one of them in another way, and with the lengths that follow from it around it.
/// \param number of that element in the order of the octets; negative behind it
Bytes rebuilt(const Bytes& elements, int& number, Variant variant) {
    Bytes all;
    for (std::size_t at = 0; at < elements.size();) {
        const std::size_t octets = elements[at + 1] < 0x80U ? 0 : elements[at + 1] - 0x80U;
        std::size_t length = octets == 0 ? elements[at + 1] : 0;
        for (std::size_t i = 0; i != octets; ++i) {
            length = length << 8U | elements[at + 2 + i];
        }
        const auto begin = elements.begin() + static_cast<std::ptrdiff_t>(at + 2 + octets);
        Bytes content(begin, begin + static_cast<std::ptrdiff_t>(length));
        const bool isChosen = number-- == 0;
        if (isChosen && (variant == Variant::nothing || variant == Variant::longLengthOfNothing)) {
            content.clear();
        } else if (!isChosen && (elements[at] & 0x20U) != 0) {
            content = rebuilt(content, number, variant);
        }
        Bytes element = der::element(elements[at], content);
        if (isChosen && variant == Variant::indefiniteLength) {
            element = der::concat({{elements[at], 0x80}, content, {0, 0}});
        } else if (isChosen && variant == Variant::longTag) {
            element[0] = static_cast<unsigned char>(elements[at] | 0x1FU);
            element.insert(element.begin() + 1, static_cast<unsigned char>(elements[at] & 0x1FU));
        } else if (isChosen && variant == Variant::otherForm) { // primitive or constructed
            element[0] ^= 0x20U;
        } else if (isChosen && variant != Variant::nothing) { // a zero more in front of the length
            const bool isShort = element[1] < 0x80U;
            element.insert(element.begin() + (isShort ? 1 : 2), isShort ? 0x81 : 0x00);
            element[1] = static_cast<unsigned char>(element[1] + (isShort ? 0 : 1));
        }
        der::append(all, element);
        at += 2 + octets + length;
    }
    return all;
}

/// A change of the kind that gets far: of headers, of lengths, of single octets.
void mutate(Bytes& input, std::mt19937& random) {
    static constexpr unsigned char headers[]{0x00, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x0C, 0x1E, 0x17,
                                             0x24, 0x30, 0x31, 0x80, 0x81, 0xA0, 0xA1, 0xA3, 0x7F, 0xFF};
    const std::size_t at = random() % input.size();
    switch (random() % 5) {
    case 0:
        input[at] = static_cast<unsigned char>(random());
        break;
    case 1:
        input[at] = static_cast<unsigned char>(input[at] + (random() % 2 == 0 ? 1 : -1));
        break;
    case 2:
        input[at] = headers[random() % std::size(headers)];
        break;
    case 3:
        input.erase(input.begin() + static_cast<std::ptrdiff_t>(at));
        break;
    default:
        input.insert(input.begin() + static_cast<std::ptrdiff_t>(at), headers[random() % std::size(headers)]);
    }
}

} // namespace

TEST_P(Lazy, IsWhatOpensslDecodes) {
    Tally tally;
    compare(seed(), tally);
    EXPECT_EQ(tally.accepted, 1U);
    Bytes more = seed();
    more.insert(more.end(), 20, 0x30);
    compare(more, tally);
    EXPECT_EQ(tally.accepted, 2U);
}

TEST_P(Lazy, CutAnywhereIsRefusedAsOpensslRefusesIt) {
    Tally tally;
    for (std::size_t length = 0; length < seed().size() && !HasFailure(); ++length) {
        SCOPED_TRACE(length);
        compare(Bytes(seed().begin(), seed().begin() + static_cast<std::ptrdiff_t>(length)), tally);
    }
    EXPECT_EQ(tally.accepted, 0U);
    EXPECT_EQ(tally.refused, 2 * seed().size());
}

TEST_P(Lazy, ChangedAnywhereIsWhatOpensslMakesOfIt) {
    Tally tally;
    std::mt19937 random(1);                            // the same in every run
    const std::size_t step = 1 + seed().size() / 1500; // of dozens of alike certificates, not every octet
    for (std::size_t at = 0; at < seed().size() && !HasFailure(); at += step) {
        SCOPED_TRACE(at);
        Bytes changed = seed();
        changed[at] = static_cast<unsigned char>(changed[at] ^ (1U << random() % 8));
        compare(changed, tally, at % 4 == 0);
    }
    EXPECT_GT(tally.refused, 0U);
    EXPECT_GT(tally.accepted + (GetParam() == "data" ? 1 : 0), 0U);
}

TEST_P(Lazy, ChangedAtRandomIsWhatOpensslMakesOfIt) {
    Tally tally;
    std::mt19937 random(2); // the same in every run
    for (int turn = 0; turn != 300 && !HasFailure(); ++turn) {
        SCOPED_TRACE(turn);
        Bytes changed = seed();
        for (std::size_t count = 1 + random() % 2; count != 0; --count) {
            mutate(changed, random);
        }
        compare(changed, tally, turn % 4 == 0);
    }
    EXPECT_GT(tally.refused, 0U);
}

// Among others: OpenSSL takes a length in more octets than it needs, but none of zero behind which nothing follows.
TEST(LazyHeaders, OfEveryElementInEveryFormAreWhatOpensslMakesOfThem) {
    for (const char* name : {"attached", "lists", "envelope"}) {
        const Bytes& seed = seeds().at(name);
        Tally tally;
        for (const Variant variant : {Variant::longLength, Variant::longLengthOfNothing, Variant::nothing,
                                      Variant::indefiniteLength, Variant::longTag, Variant::otherForm}) {
            int number = -1;
            for (int chosen = 1; number < 0 && !HasFailure();
                 ++chosen) { // of the outermost one both refuse 30 81 00, in other words
                SCOPED_TRACE(testing::Message()
                             << name << ", element " << chosen << " in form " << static_cast<int>(variant));
                number = chosen;
                compare(rebuilt(seed, number, variant), tally, chosen % 8 == 0);
            }
        }
        EXPECT_GT(tally.accepted, 20U);
        EXPECT_GT(tally.refused, 20U);
    }
}

TEST(LazySegments, ChangedAtTheirHeadersAreWhatOpensslMakesOfThem) {
    for (const std::size_t segment : {304U, 1040U}) { // short ones are gathered
        const Bytes seed = inSegments(5 * segment - 40, segment);
        const Bytes header{0x04, 0x82, static_cast<unsigned char>(segment >> 8U), static_cast<unsigned char>(segment)};
        Tally tally;
        compare(seed, tally);
        ASSERT_EQ(tally.opened, 1U);
        std::size_t found = 0;
        for (auto at = std::search(seed.begin(), seed.end(), header.begin(), header.end()); at != seed.end();
             at = std::search(at + 1, seed.end(), header.begin(), header.end())) {
            ++found;
            for (std::ptrdiff_t octet = -1; octet <= 4; ++octet) {
                for (unsigned int bit = 0; bit != 8 && !HasFailure(); ++bit) {
                    SCOPED_TRACE(testing::Message() << found << ", octet " << octet << ", bit " << bit);
                    Bytes changed = seed;
                    unsigned char& one = changed[static_cast<std::size_t>(at - seed.begin() + octet)];
                    one = static_cast<unsigned char>(one ^ (1U << bit));
                    compare(changed, tally, bit == 0);
                }
            }
        }
        EXPECT_EQ(found, 4U);
        EXPECT_GT(tally.refused, 50U);
        EXPECT_GT(tally.accepted, 50U);
    }
}

INSTANTIATE_TEST_SUITE_P(Structures, Lazy,
                         ::testing::Values("detached", "attached", "stream", "many", "lists", "envelope",
                                           "envelopeStream", "envelopePieces", "envelopeEmpty", "data"),
                         [](const auto& tested) { return tested.param; });
