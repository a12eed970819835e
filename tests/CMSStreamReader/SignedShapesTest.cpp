// The structure of signed messages (RFC 5652, 5): each element in its place, each part what it must be.
#include "support/SignedMessages.h"
#include "support/Thrown.h"

using namespace cmstest;
using CMS::SignatureReason;
using CMS::SignatureResult;
using CMS::SignatureVerdict;
using CMS::SignedReader;

namespace {

const std::string elsewhere = "an element that does not belong there";
const std::string malformed = "no BER or DER encoding";

const Bytes& body() {
    static const Bytes content = bodyOf(300);
    return content;
}

Bytes tagged(unsigned char tag, Bytes element) {
    element.front() = tag;
    return element;
}
Bytes primitive(Bytes element) {
    element.front() &= static_cast<unsigned char>(~0x20U);
    return element;
}

/// What the message is refused with, three times the same; empty when it is read.
std::string faultOf(const Bytes& structure, const SignedReader::Budget& budget = SignedReader::Budget()) {
    StrictIn in(structure);
    Norvane::NullMediaOut out;
    try {
        SignedReader message(in, budget);
        try {
            message.write(out);
        } catch (const Norvane::Exception& thrown) {
            const std::string first = norvtest::detailOf(thrown);
            EXPECT_EQ(norvtest::detailOf(norvtest::thrownBy([&] { message.write(out); })), first);
            EXPECT_EQ(norvtest::detailOf(norvtest::thrownBy([&] { message.write(out); })), first);
            EXPECT_EQ(norvtest::detailOf(norvtest::thrownBy([&] { static_cast<void>(message.signers()); })), first);
            EXPECT_FALSE(message.isComplete());
            return first;
        }
        EXPECT_TRUE(message.isComplete());
        return {};
    } catch (const Norvane::Exception& thrown) {
        return norvtest::detailOf(thrown);
    }
}

const Bytes& signerOfBody() {
    static const Bytes made = HandMadeSigner().made(body());
    return made;
}

/// A message in parts.
struct Message {
    Bytes outer = {0x30};
    Bytes type = der::oid("1.2.840.113549.1.7.2");
    unsigned char context = 0xA0;
    unsigned char sequence = 0x30;
    Bytes version = der::integer("1");
    Bytes digests = der::set({algorithm("SHA256", true)});
    unsigned char encapsulated = 0x30;
    Bytes contentType = der::oid("1.2.840.113549.1.7.1");
    unsigned char contentContext = 0xA0;
    std::optional<Bytes> content = der::octetString(body());
    Bytes certificates = der::element(0xA0, identities().rsa.certificate.der);
    Bytes lists{};
    Bytes signers = der::set({signerOfBody()});
    Bytes behind{};

    [[nodiscard]] Bytes made() const {
        const Bytes inner = content ? der::concat({contentType, der::element(contentContext, *content)}) : contentType;
        const Bytes data =
            der::concat({version, digests, der::element(encapsulated, inner), certificates, lists, signers, behind});
        return der::element(outer.front(), der::concat({type, der::element(context, der::element(sequence, data))}));
    }
};

template <class Change> Bytes messageWith(Change change) {
    Message message;
    change(message);
    return message.made();
}

SignatureResult verdictOn(const Bytes& structure) {
    StrictIn in(structure);
    const SignedReader message(in);
    Norvane::NullMediaOut out;
    Norvane::MediaIn(message).write(out);
    EXPECT_EQ(message.signers().size(), 1U);
    return message.verdict(message.signers().front());
}

const Bytes& signatureOfBody() {
    static const Bytes made = der::octetString(signatureBy(identities().rsa.key, body(), EVP_sha256()));
    return made;
}

/// A SignerInfo in parts.
struct Signer {
    Bytes version = der::integer("1");
    Bytes name = der::sequence({identities().authority.name.der(), der::integer(identities().rsa.serial)});
    Bytes digestAlgorithm = algorithm("SHA256", true);
    Bytes attributes{}; ///< the element
    Bytes signatureAlgorithm = algorithm("rsaEncryption", true);
    Bytes signature = signatureOfBody();
    Bytes unsignedAttributes{}; ///< the element
    Bytes behind{};

    [[nodiscard]] Bytes made() const {
        return der::sequence(
            {version, name, digestAlgorithm, attributes, signatureAlgorithm, signature, unsignedAttributes, behind});
    }
};

template <class Change> Bytes signedWith(Change change) {
    Signer signer;
    change(signer);
    return messageWith([&](Message& message) { message.signers = der::set({signer.made()}); });
}

/// With other signed attributes, which the signature is over.
Bytes withAttributes(const std::vector<Bytes>& attributes) {
    return signedWith([&](Signer& signer) {
        signer.attributes = der::element(0xA0, der::concat(attributes));
        signer.signature = der::octetString(signatureBy(identities().rsa.key, der::set(attributes), EVP_sha256()));
    });
}

void expectRefused(SignatureReason reason, const Bytes& structure) {
    const SignatureResult result = verdictOn(structure);
    EXPECT_EQ(result.verdict, SignatureVerdict::refused);
    EXPECT_EQ(result.reason, reason) << CMS::textOf(result.reason);
}
void expectUnsupported(SignatureReason reason, const Bytes& structure) {
    const SignatureResult result = verdictOn(structure);
    EXPECT_EQ(result.verdict, SignatureVerdict::unsupported);
    EXPECT_EQ(result.reason, reason) << CMS::textOf(result.reason);
}
void expectGood(const Bytes& structure) {
    const SignatureResult result = verdictOn(structure);
    EXPECT_EQ(result.verdict, SignatureVerdict::good) << CMS::textOf(result.reason);
}

} // namespace

TEST(SignedShapes, EachTagIsTheOneThatMustBeThere) {
    expectGood(Message().made());
    EXPECT_EQ(faultOf(messageWith([](Message& one) { one.outer = {0x31}; })), elsewhere);
    EXPECT_EQ(faultOf(messageWith([](Message& one) { one.type = tagged(0x0D, one.type); })), elsewhere);
    EXPECT_EQ(faultOf(messageWith([](Message& one) { one.context = 0xA1; })), elsewhere);
    EXPECT_EQ(faultOf(messageWith([](Message& one) { one.sequence = 0x31; })), elsewhere);
    EXPECT_EQ(faultOf(messageWith([](Message& one) { one.version = tagged(0x0A, one.version); })), elsewhere);
    EXPECT_EQ(faultOf(messageWith([](Message& one) { one.version = {0x02, 0x02, 0x00, 0x01}; })), malformed);
    EXPECT_EQ(faultOf(messageWith([](Message& one) { one.version = {0x02, 0x05, 0x01, 0, 0, 0, 0}; })), malformed);
    EXPECT_EQ(faultOf(messageWith([](Message& one) { one.digests = tagged(0x30, one.digests); })), elsewhere);
    EXPECT_EQ(faultOf(messageWith([](Message& one) { one.digests = tagged(0x11, one.digests); })), elsewhere);
    EXPECT_EQ(faultOf(messageWith([](Message& one) { one.encapsulated = 0x31; })), elsewhere);
    EXPECT_EQ(faultOf(messageWith([](Message& one) { one.contentType = tagged(0x0D, one.contentType); })), elsewhere);
    EXPECT_EQ(faultOf(messageWith([](Message& one) { one.contentType = {0x06, 0x01, 0x80}; })), malformed);
    EXPECT_EQ(faultOf(messageWith([](Message& one) { one.contentContext = 0xA1; })), elsewhere);
    EXPECT_EQ(faultOf(messageWith([](Message& one) { one.signers = tagged(0x30, one.signers); })), elsewhere);
    EXPECT_EQ(faultOf(messageWith([](Message& one) { one.signers = {}; })), elsewhere);
    EXPECT_EQ(faultOf(messageWith([](Message& one) { one.behind = der::null(); })), elsewhere);
    for (const unsigned char tag : Bytes{0xA2, 0x80, 0x30}) {
        EXPECT_EQ(faultOf(messageWith([&](Message& one) { one.certificates = tagged(tag, one.certificates); })),
                  elsewhere);
    }
}

TEST(SignedShapes, IdentifiersOfAKilobyteAreTheLongest) {
    const auto withType = [](std::size_t length) {
        return messageWith([&](Message& one) { one.contentType = der::element(0x06, Bytes(length - 4, 0x2A)); });
    };
    EXPECT_EQ(faultOf(withType(1024)), "");
    EXPECT_EQ(faultOf(withType(1025)), "an element that is too long");
}

// A length may have zeros in front of it, in BER.
TEST(SignedShapes, VersionsOfSixtyFourOctetsAreTheLongest) {
    const auto withVersion = [](std::size_t length) {
        Bytes version{0x02, static_cast<unsigned char>(0x80 + length - 3)};
        version.resize(length - 2, 0);
        der::append(version, {1, 1});
        return messageWith([&](Message& one) { one.version = version; });
    };
    EXPECT_EQ(faultOf(withVersion(64)), "");
    EXPECT_EQ(faultOf(withVersion(65)), "an element that is too long");
}

TEST(SignedShapes, ThirtyTwoLevelsAreTheDeepest) {
    const auto withSegments = [](int levels) { // within the five around the content
        Bytes content = der::octetString(body());
        for (int level = 0; level < levels; ++level) {
            content = der::element(0x24, content);
        }
        return messageWith([&](Message& one) { one.content = content; });
    };
    EXPECT_EQ(faultOf(withSegments(27)), "");
    EXPECT_EQ(faultOf(withSegments(28)), "elements within elements to too many levels");
}

TEST(SignedShapes, DigestsThatAreNotAnnounced) {
    for (const Bytes& announced : {der::set({}), der::set({algorithm("SHA1")}),
                                   der::set({algorithm("SHA1"), algorithm("SHA512"), algorithm("SHA384")})}) {
        expectUnsupported(SignatureReason::digestNotAnnounced,
                          messageWith([&](Message& one) { one.digests = announced; }));
    }
}

// CertificateSet and RevocationInfoChoices (RFC 5652, 10.2): sequences, and choices under a tag.
TEST(SignedShapes, SetsHoldChoices) {
    const Bytes list = norvauthority::issueList({.issuer = &identities().authority, .crlNumber = "7"}).der;
    const Bytes other = der::element(0xA3, der::oid("1.2.3"));
    const auto certificates = [](const Bytes& elements) {
        return messageWith([&](Message& one) { one.certificates = der::element(0xA0, elements); });
    };
    const auto lists = [](const Bytes& elements) {
        return messageWith([&](Message& one) { one.lists = der::element(0xA1, elements); });
    };
    const Bytes& certificate = identities().rsa.certificate.der;
    EXPECT_EQ(faultOf(certificates({})), "");
    EXPECT_EQ(faultOf(certificates(der::concat({certificate, other}))), "");
    EXPECT_EQ(faultOf(lists({})), "");
    EXPECT_EQ(faultOf(lists(der::concat({list, other}))), "");
    for (const Bytes& odd : {der::integer("1"), der::set({der::null()}), primitive(certificate), primitive(other),
                             Bytes{0x30, 0x05}, Bytes{0xA3}, Bytes{0x70, 0x00}}) {
        SCOPED_TRACE(norvauthority::toHex(odd));
        EXPECT_EQ(faultOf(certificates(odd)), malformed);
        EXPECT_EQ(faultOf(certificates(der::concat({certificate, odd}))), malformed);
        EXPECT_EQ(faultOf(lists(odd)), malformed);
        EXPECT_EQ(faultOf(lists(der::concat({list, odd}))), malformed);
    }
}

TEST(SignedShapes, ThePartsOfASigner) {
    expectGood(signedWith([](Signer&) {}));
    const Bytes octets = der::octetString(identities().rsa.keyIdentifier);
    expectGood(signedWith([&](Signer& one) { one.name = tagged(0x80, octets); }));
    expectGood(signedWith([&](Signer& one) { one.name = der::element(0xA0, octets); })); // in segments
    const Bytes sequence = der::sequence({der::oid("1.2.3"), der::set({der::null()})});
    expectGood(signedWith([&](Signer& one) { one.unsignedAttributes = der::element(0xA1, sequence); }));
    const auto damaged = [](const auto& change) { EXPECT_EQ(faultOf(signedWith(change)), malformed); };
    damaged([](Signer& one) { one.version = {}; });
    damaged([](Signer& one) { one.version = {0x02, 0x02, 0x00, 0x01}; });
    damaged([](Signer& one) { one.version = {0x22, 0x01, 0x01}; });
    damaged([](Signer& one) { one.name = {}; });
    damaged([](Signer& one) { one.name = primitive(one.name); });
    damaged([](Signer& one) { one.name = der::element(0xA0, der::null()); });
    const Bytes issuer = identities().authority.name.der();
    const Bytes serial = der::integer(identities().rsa.serial);
    for (const Bytes& name : {der::sequence({issuer}), der::sequence({serial}), der::sequence({issuer, serial, serial}),
                              der::sequence({primitive(issuer), serial}), der::sequence({issuer, der::null()}),
                              der::sequence({issuer, Bytes{0x02, 0x00}}), der::sequence({issuer, Bytes{0x02, 2, 0, 1}}),
                              der::sequence({issuer, Bytes{0x22, 0x01, 0x01}})}) {
        damaged([&](Signer& one) { one.name = name; });
    }
    damaged([](Signer& one) { one.digestAlgorithm = {}; });
    damaged([](Signer& one) { one.digestAlgorithm = primitive(one.digestAlgorithm); });
    damaged([](Signer& one) { one.digestAlgorithm = der::sequence({Bytes{0x06, 0x01, 0x80}}); });
    damaged([](Signer& one) { one.digestAlgorithm = der::sequence({der::null()}); });
    damaged([](Signer& one) { one.digestAlgorithm = der::sequence({}); });
    damaged([](Signer& one) { one.attributes = der::element(0x80, {}); });
    damaged([](Signer& one) { one.signatureAlgorithm = {}; });
    damaged([](Signer& one) { one.signature = {}; });
    damaged([](Signer& one) { one.signature = tagged(0x03, one.signature); });
    damaged([&](Signer& one) { one.unsignedAttributes = der::element(0x81, sequence); });
    damaged([](Signer& one) { one.behind = der::null(); });
    // Whole attributes (RFC 5652, 5.3).
    const Bytes type = der::oid("1.2.3");
    const Bytes values = der::set({der::null()});
    for (const Bytes& odd : {der::sequence({type}), der::sequence({values}), der::sequence({type, values, values}),
                             der::set({type, values}), primitive(sequence), der::sequence({type, primitive(values)}),
                             der::sequence({Bytes{0x06, 0x01, 0x80}, values}),
                             der::sequence({type, der::sequence({der::null()})}), Bytes{0x30, 0x10}}) {
        damaged([&](Signer& one) { one.unsignedAttributes = der::element(0xA1, odd); });
        damaged([&](Signer& one) { one.unsignedAttributes = der::element(0xA1, der::concat({sequence, odd})); });
        damaged([&](Signer& one) { one.attributes = der::element(0xA0, odd); });
    }
}

// Attributes are told apart by the whole of their identifiers.
TEST(SignedShapes, AttributesOfOtherTypes) {
    std::vector<Bytes> attributes = usualAttributes(body());
    for (const char* other : {"1.2.840.113549.1.8.3", "1.2.840.113549.1.8.4", "1.2.840.113549.1.9", "1.2.840.113549.1",
                              "1.2.840.113549.1.9.1", "1.2.840.113549.1.9.16.1.1", "1.2.840.113549.1.9.17.2.1",
                              "1.2.840.113549.1.9.16.2.3", "1.2.840.113549.1.9.16.2.1.1", "1.2.840.113549.1.9.4.1"}) {
        std::vector<Bytes> more = attributes;
        more.push_back(attribute(other, {der::null()}));
        more.push_back(more.back());
        std::sort(more.begin() + 2, more.end());
        expectGood(withAttributes(more));
    }
}

// The values of the attributes that a signature hangs on are of one type each (RFC 5652, 11.1 and 11.2).
TEST(SignedShapes, ValuesOfAnotherType) {
    const Bytes identifier = der::oid("1.2.840.113549.1.7.1");
    const Bytes digest = der::octetString(digestOf(body()));
    const auto with = [&](const Bytes& type, const Bytes& value) {
        return withAttributes({attribute(contentTypeAttribute, {type}), attribute(messageDigestAttribute, {value})});
    };
    expectGood(with(identifier, digest));
    for (const unsigned char tag : Bytes{0x04, 0x0D, 0x86, 0x26}) {
        expectRefused(SignatureReason::contentTypeDiffers, with(tagged(tag, identifier), digest));
    }
    for (const unsigned char tag : Bytes{0x03, 0x0C, 0x84, 0x24}) {
        expectRefused(SignatureReason::messageDigestMissing, with(identifier, tagged(tag, digest)));
    }
}

TEST(SignedShapes, ThirtyTwoAnnouncedAlgorithmsAreLookedUp) {
    const auto withOthers = [](int count) {
        std::vector<Bytes> all;
        for (int number = 0; number < count; ++number) {
            all.push_back(algorithm("1.2.3." + std::to_string(number)));
            all.push_back(all.back()); // which does not count
        }
        all.push_back(algorithm("SHA256", true));
        return messageWith([&](Message& one) { one.digests = der::element(0x31, der::concat(all)); });
    };
    expectGood(withOthers(31));
    expectUnsupported(SignatureReason::digestNotAnnounced, withOthers(32));
}

TEST(SignedShapes, TheLargestBudgetIsTwoGibibytes) {
    SignedReader::Budget budget;
    budget.head = budget.tail = ~std::size_t{0};
    const Bytes open{0x30, 0x80};
    const Bytes huge{0x84, 0x80, 0, 0, 0x10};
    const Bytes head = der::concat({open, der::oid("1.2.840.113549.1.7.2"), {0xA0, 0x80}, open, der::integer("1")});
    const std::string tooLong = "an element that is too long";
    EXPECT_EQ(faultOf(der::concat({head, {0x31}, huge}), budget), tooLong);
    const Bytes content = der::concat({der::set({}), der::sequence({der::oid("1.2.840.113549.1.7.1")})});
    for (const unsigned char tag : Bytes{0xA0, 0xA1, 0x31}) {
        EXPECT_EQ(faultOf(der::concat({head, content, {tag}, huge}), budget), tooLong);
    }
}

// What names a certificate is its serial number, in however many octets it stands there.
TEST(SignedShapes, SerialNumbersAreComparedAsNumbers) {
    const Bytes issuer = identities().authority.name.der();
    const auto reasonFor = [&](const Bytes& inCertificate, const Bytes& ofSigner) {
        const Bytes damaged = der::sequence(
            {der::sequence({der::element(0x02, inCertificate), algorithm("sha256WithRSAEncryption", true), issuer})});
        Signer signer;
        signer.name = der::sequence({issuer, der::element(0x02, ofSigner)});
        return verdictOn(messageWith([&](Message& one) {
                   one.certificates = der::element(0xA0, damaged);
                   one.signers = der::set({signer.made()});
               }))
            .reason;
    };
    const std::vector<Bytes> shortest{{0},       {1},          {0x7F},       {0, 0x80},    {0, 0x81},
                                      {0xFF},    {0x80},       {0xFF, 0x7F}, {1, 0},       {1, 0x7F},
                                      {1, 0x80}, {0xFE, 0x80}, {0xFE, 0x7F}, {0x0A, 0x11}, {1, 0xFF}};
    for (std::size_t at = 0; at < shortest.size(); ++at) {
        const Bytes& number = shortest[at];
        SCOPED_TRACE(norvauthority::toHex(number));
        for (const std::size_t padding : {0U, 1U, 3U}) {
            Bytes longer(padding, number.front() >= 0x80 ? 0xFF : 0);
            der::append(longer, number);
            const auto next = shortest[(at + 1) % shortest.size()];
            for (const Bytes& other : {number, next}) {
                EXPECT_EQ(reasonFor(longer, other),
                          number == other ? SignatureReason::certificateDamaged : SignatureReason::certificateMissing)
                    << norvauthority::toHex(other);
            }
        }
    }
}

// Beginnings of certificates that lack something name nobody, and harm nobody.
TEST(SignedShapes, CertificatesWithoutNames) {
    const Bytes issuer = identities().authority.name.der();
    const Bytes serial = der::integer(identities().rsa.serial);
    const Bytes scheme = algorithm("sha256WithRSAEncryption", true);
    const auto withOther = [&](const Bytes& parts) {
        return messageWith([&](Message& one) {
            one.certificates = der::element(
                0xA0, der::concat({der::sequence({der::sequence({parts})}), identities().rsa.certificate.der}));
        });
    };
    for (const Bytes& parts :
         {Bytes(), serial, scheme, der::concat({scheme, issuer}), der::concat({serial, scheme}),
          der::concat({serial, scheme, der::null()}), der::concat({serial, der::null(), issuer})}) {
        expectGood(withOther(parts));
    }
}

TEST(SignedShapes, TheIssuerNamesTheCertificateToo) {
    // The right serial number, of somebody else.
    for (const Bytes& issuer : {identities().otherRsa.name.der(), der::sequence({der::null()})}) {
        expectRefused(SignatureReason::certificateMissing, signedWith([&](Signer& one) {
                          one.name = der::sequence({issuer, der::integer(identities().rsa.serial)});
                      }));
    }
}
