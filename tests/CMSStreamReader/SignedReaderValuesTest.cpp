// What a message tells beside its verdicts: values of its signers, countersignatures, certificates and lists.
#include "support/SignedMessages.h"
#include "support/Thrown.h"

using namespace cmstest;
using CMS::SignatureReason;
using CMS::SignatureResult;
using CMS::SignatureVerdict;
using CMS::SignedReader;
using Signer = CMS::SignedReader::Signer;

namespace {

const Bytes& body() {
    static const Bytes content = bodyOf(300);
    return content;
}

Bytes withMore(const std::vector<Bytes>& attributes, const std::vector<Bytes>& unsignedOnes = {}) {
    HandMadeSigner signer;
    signer.attributes = usualAttributes(body());
    signer.attributes->insert(signer.attributes->end(), attributes.begin(), attributes.end());
    signer.unsignedAttributes = unsignedOnes;
    return attachedBy(signer, body());
}

Bytes timeOf(unsigned char tag, const char* text) {
    return attribute(signingTimeAttribute, {der::element(tag, norvauthority::bytes(text))});
}

/// The signing certificate attribute that OpenSSL makes for a certificate.
Bytes signingCertificate(const Identity& identity, int version, const EVP_MD* digest = nullptr) {
    const auto certificate = identity.certificate.x509();
    unsigned char* encoded = nullptr;
    int length = 0;
    if (version == 1) {
        ESS_SIGNING_CERT* value = OSSL_ESS_signing_cert_new_init(certificate.get(), nullptr, 1);
        length = i2d_ESS_SIGNING_CERT(value, &encoded);
        ESS_SIGNING_CERT_free(value);
    } else {
        ESS_SIGNING_CERT_V2* value = OSSL_ESS_signing_cert_v2_new_init(digest, certificate.get(), nullptr, 1);
        length = i2d_ESS_SIGNING_CERT_V2(value, &encoded);
        ESS_SIGNING_CERT_V2_free(value);
    }
    const Bytes value(encoded, encoded + length);
    OPENSSL_free(encoded);
    return attribute(version == 1 ? "1.2.840.113549.1.9.16.2.12" : "1.2.840.113549.1.9.16.2.47", {value});
}

/// A SignerInfo over a signature, or over whatever else stands in its place.
Bytes countersigner(const Identity& identity, const Bytes& signature, bool withAttributes,
                    const std::vector<Bytes>& unsignedOnes = {}) {
    HandMadeSigner signer{.identity = &identity};
    if (withAttributes) {
        signer.attributes = std::vector<Bytes>{usualAttributes(signature).back()};
    }
    signer.unsignedAttributes = unsignedOnes;
    return signer.made(signature);
}

/// What the signer of `withMore` signs: PKCS#1 1.5 has no randomness.
Bytes signatureOfAlice() {
    return signatureBy(identities().rsa.key, der::set(usualAttributes(body())), EVP_sha256());
}

Bytes messageWith(const std::vector<Bytes>& countersigners) {
    HandMadeSigner signer;
    signer.attributes = usualAttributes(body());
    signer.unsignedAttributes = {attribute(countersignatureAttribute, countersigners)};
    HandMade message{.digestAlgorithms = {signer.digestAlgorithm},
                     .content = der::octetString(body()),
                     .certificates = {identities().rsa.certificate.der, identities().otherRsa.certificate.der}};
    message.signers = {signer.made(body())};
    return message.made();
}

} // namespace

TEST(SignedReaderValues, NamesAndAlgorithms) {
    const Read byName(signedMessage({&identities().ec}, {"SHA384"}, body(), 0));
    EXPECT_EQ(byName.signer().digestAlgorithm(), "sha384");
    EXPECT_EQ(byName.signer().signatureAlgorithm(), "ecdsa-with-SHA384");
    EXPECT_TRUE(byName.signer().hasSignedAttributes());
    EXPECT_EQ(byName.signer().identifier().namedBy(), CMS::NamedBy::issuerAndSerialNumber);
    EXPECT_TRUE(byName.signer().identifier().names(certificateOf(identities().ec)));
    EXPECT_EQ(byName.message.contentType(), "1.2.840.113549.1.7.1");

    const Read byKey(signedMessage({&identities().rsa}, {"SHA256"}, body(), CMS_USE_KEYID | CMS_NOATTR));
    EXPECT_EQ(byKey.signer().identifier().namedBy(), CMS::NamedBy::subjectKeyIdentifier);
    EXPECT_EQ(bytesOf(byKey.signer().identifier().octets()), identities().rsa.keyIdentifier);
    EXPECT_EQ(byKey.signer().signatureAlgorithm(), "rsaEncryption");
    EXPECT_FALSE(byKey.signer().hasSignedAttributes());
    EXPECT_EQ(byKey.signer().signature().length(), 256U);
    EXPECT_FALSE(byKey.signer().signingTime());
    EXPECT_TRUE(byKey.signer().capabilities().empty());
    EXPECT_TRUE(byKey.signer().signingCertificates().empty());
    EXPECT_TRUE(byKey.signer().countersigners().empty());
    EXPECT_FALSE(byKey.signer().hasMoreCountersigners());
}

TEST(SignedReaderValues, MessageDigest) {
    const Read made(signedMessage({&identities().rsa}, {"SHA384"}, body(), 0));
    ASSERT_TRUE(made.signer().messageDigest());
    EXPECT_EQ(bytesOf(*made.signer().messageDigest()), digestOf(body(), EVP_sha384()));
    EXPECT_FALSE(Read(signedMessage({&identities().rsa}, {"SHA256"}, body(), CMS_NOATTR)).signer().messageDigest());
}

TEST(SignedReaderValues, TheVerdictOnAttributesTakesNoBody) {
    const Bytes detached = signedMessage({&identities().rsa}, {"SHA256"}, body(), CMS_DETACHED);
    const Read made(detached); // over no body
    EXPECT_EQ(made.message.verdict(made.signer()).reason, CMS::SignatureReason::bodyDiffers);
    const CMS::SignatureResult result = made.message.verdictOnAttributes(made.signer());
    EXPECT_EQ(result.verdict, CMS::SignatureVerdict::good);
    EXPECT_TRUE(result.certificate == certificateOf(identities().rsa));
    const auto with = [&](const Identity& identity, const std::string& digest = "") {
        return made.message.verdictOnAttributes(made.signer(), certificateOf(identity), digest).reason;
    };
    EXPECT_EQ(with(identities().rsa), CMS::SignatureReason::none);
    EXPECT_EQ(with(identities().otherRsa), CMS::SignatureReason::signatureWrong);
    EXPECT_EQ(with(identities().rsa, "sha256"), CMS::SignatureReason::none);
    EXPECT_EQ(with(identities().rsa, "sha512"), CMS::SignatureReason::signatureWrong);
    EXPECT_EQ(with(identities().rsa, "no digest"), CMS::SignatureReason::digestAlgorithm);
    // It is no verdict on any body, and leaves that as it was.
    EXPECT_EQ(made.message.verdict(made.signer()).reason, CMS::SignatureReason::bodyDiffers);

    const Read bare(signedMessage({&identities().rsa}, {"SHA256"}, body(), CMS_NOATTR));
    EXPECT_EQ(bare.message.verdictOnAttributes(bare.signer()).reason, CMS::SignatureReason::messageDigestMissing);
    const Read other(detached);
    EXPECT_EQ(caught([&] { static_cast<void>(made.message.verdictOnAttributes(other.signer())); }).details,
              std::vector<std::string>{"a signer of another message"});
}

TEST(SignedReaderValues, SigningTime) {
    const std::time_t before = std::time(nullptr);
    const Read made(signedMessage({&identities().rsa}, {"SHA256"}, body(), 0));
    ASSERT_TRUE(made.signer().signingTime());
    EXPECT_GE(*made.signer().signingTime(), before);
    EXPECT_LE(*made.signer().signingTime(), std::time(nullptr));
    // date -u -d '1999-12-31 23:59:58' +%s, and so on
    EXPECT_EQ(Read(withMore({timeOf(der::utcTimeTag, "991231235958Z")})).signer().signingTime(), 946684798);
    EXPECT_EQ(Read(withMore({timeOf(der::generalizedTimeTag, "20991231235958Z")})).signer().signingTime(), 4102444798);
    EXPECT_FALSE(Read(withMore({timeOf(der::utcTimeTag, "991331235958Z")})).signer().signingTime());
    EXPECT_FALSE(Read(withMore({timeOf(der::octetStringTag, "991231235958Z")})).signer().signingTime());
}

TEST(SignedReaderValues, Capabilities) {
    const Read made(signedMessage({&identities().rsa}, {"SHA256"}, body(), 0));
    const auto capabilities = made.signer().capabilities();
    ASSERT_GE(capabilities.size(), 3U);
    EXPECT_EQ(capabilities.front().identifier, "2.16.840.1.101.3.4.1.42"); // OpenSSL's first
    EXPECT_EQ(capabilities.front().name, "aes-256-cbc");
    EXPECT_TRUE(capabilities.front().parameters.empty());
    const Bytes rc2 = der::sequence({der::oid("1.2.840.113549.3.2"), der::integer("80")});
    const Bytes unknown = der::sequence({der::oid("1.2.3.4")});
    const char* const type = "1.2.840.113549.1.9.15";
    const auto two = Read(withMore({attribute(type, {der::sequence({rc2, unknown})})})).signer().capabilities();
    ASSERT_EQ(two.size(), 2U);
    EXPECT_EQ(bytesOf(two[0].parameters), der::integer("80"));
    EXPECT_EQ(two[1].name, "1.2.3.4");
    const Bytes odd = attribute(type, {der::sequence({rc2, der::integer("1")})});
    EXPECT_TRUE(Read(withMore({odd})).signer().capabilities().empty());
    EXPECT_EQ(Read(withMore({odd})).verdict().verdict, SignatureVerdict::good) << "not asked for";
}

TEST(SignedReaderValues, SigningCertificatesAreCompared) {
    const Identity& alice = identities().rsa;
    const Identity& bob = identities().otherRsa;
    const auto expect = [](SignatureReason reason, const std::vector<Bytes>& attributes) {
        const SignatureResult result = Read(withMore(attributes)).verdict();
        EXPECT_EQ(result.reason, reason) << CMS::textOf(result.reason);
    };
    const SignatureReason differs = SignatureReason::signingCertificateDiffers;
    for (const auto& [version, digest] :
         {std::pair<int, const EVP_MD*>{1, nullptr}, {2, EVP_sha256()}, {2, EVP_sha512()}}) {
        expect(SignatureReason::none, {signingCertificate(alice, version, digest)});
        expect(differs, {signingCertificate(bob, version, digest)});
        expect(differs, {signingCertificate(alice, version, digest), signingCertificate(alice, version, digest)});
    }
    expect(SignatureReason::none, {signingCertificate(alice, 1), signingCertificate(alice, 2, EVP_sha256())});
    expect(differs, {signingCertificate(alice, 1), signingCertificate(bob, 2, EVP_sha256())});
    expect(differs, {attribute("1.2.840.113549.1.9.16.2.47", {der::null()})});
    const Bytes other = attribute(
        "1.2.840.113549.1.9.16.2.47",
        {der::sequence({der::sequence({der::sequence({algorithm("1.2.3.4"), der::octetString({1, 2, 3})})})})});
    const SignatureResult unknown = Read(withMore({other})).verdict();
    EXPECT_EQ(unknown.verdict, SignatureVerdict::unsupported);
    EXPECT_EQ(unknown.reason, SignatureReason::digestAlgorithm);
    EXPECT_EQ(unknown.algorithm, "1.2.3.4");

    const auto hashes = Read(withMore({signingCertificate(alice, 2, EVP_sha512()), signingCertificate(alice, 1)}))
                            .signer()
                            .signingCertificates();
    ASSERT_EQ(hashes.size(), 2U);
    EXPECT_EQ(hashes[0].version, 1);
    EXPECT_EQ(hashes[0].digest, "sha1");
    EXPECT_EQ(bytesOf(hashes[0].hash), digestOf(alice.certificate.der, EVP_sha1()));
    EXPECT_EQ(hashes[1].digest, "sha512");
    EXPECT_EQ(bytesOf(hashes[1].hash), digestOf(alice.certificate.der, EVP_sha512()));
}

TEST(SignedReaderValues, Countersignatures) {
    const Bytes signature = signatureOfAlice();
    const Identity& bob = identities().otherRsa;
    for (const bool attributes : {true, false}) {
        const Read read(messageWith({countersigner(bob, signature, attributes)}));
        EXPECT_EQ(read.verdict().verdict, SignatureVerdict::good);
        const auto countersigners = read.signer().countersigners();
        ASSERT_EQ(countersigners.size(), 1U);
        const SignatureResult good = read.message.verdict(countersigners.front());
        EXPECT_EQ(good.verdict, SignatureVerdict::good) << CMS::textOf(good.reason);
        EXPECT_TRUE(NVX509::sameEncoding(good.certificate, certificateOf(bob)));
        EXPECT_FALSE(read.signer().hasMoreCountersigners());

        Bytes other = signature;
        other[0] ^= 1U;
        const Read wrong(messageWith({countersigner(bob, other, attributes)}));
        EXPECT_EQ(wrong.message.verdict(wrong.signer().countersigners().front()).reason,
                  attributes ? SignatureReason::bodyDiffers : SignatureReason::signatureWrong);
        EXPECT_EQ(wrong.verdict().verdict, SignatureVerdict::good) << "unsigned attributes are anybody's";
    }
    HandMadeSigner typed{.identity = &bob};
    typed.attributes = usualAttributes(signature);
    const Read read(messageWith({typed.made(signature)}));
    EXPECT_EQ(read.message.verdict(read.signer().countersigners().front()).reason,
              SignatureReason::contentTypeUnexpected);
}

TEST(SignedReaderValues, CountersignaturesOfCountersignatures) {
    const Identity& bob = identities().otherRsa;
    // Each level signs the signature of the one above it.
    std::vector<Bytes> signatures{signatureOfAlice()};
    for (int level = 0; level < 5; ++level) {
        signatures.push_back(signatureBy(bob.key, signatures.back(), EVP_sha256()));
    }
    Bytes inner = countersigner(bob, signatures[4], false);
    for (std::size_t level = 4; level-- != 0;) {
        inner = countersigner(bob, signatures[level], false, {attribute(countersignatureAttribute, {inner})});
    }
    const Read read(messageWith({inner}));
    Signer signer = read.signer();
    for (int depth = 0; depth < 3; ++depth) {
        EXPECT_FALSE(signer.hasMoreCountersigners());
        const auto next = signer.countersigners();
        ASSERT_EQ(next.size(), 1U);
        signer = next.front();
        EXPECT_EQ(read.message.verdict(signer).verdict, SignatureVerdict::good);
    }
    EXPECT_TRUE(signer.countersigners().empty());
    EXPECT_TRUE(signer.hasMoreCountersigners());
}

TEST(SignedReaderValues, CountersignaturesAreSixteenAtMostAndDamagedOnesAreNone) {
    const Bytes one = countersigner(identities().otherRsa, signatureOfAlice(), false);
    EXPECT_EQ(Read(messageWith(std::vector<Bytes>(16, one))).signer().countersigners().size(), 16U);
    EXPECT_FALSE(Read(messageWith(std::vector<Bytes>(16, one))).signer().hasMoreCountersigners());
    EXPECT_EQ(Read(messageWith(std::vector<Bytes>(17, one))).signer().countersigners().size(), 16U);
    EXPECT_TRUE(Read(messageWith(std::vector<Bytes>(17, one))).signer().hasMoreCountersigners());
    const Read damaged(messageWith({one, der::integer("1")}));
    EXPECT_EQ(damaged.signer().countersigners().size(), 1U);
    EXPECT_TRUE(damaged.signer().hasMoreCountersigners());
    EXPECT_EQ(damaged.verdict().verdict, SignatureVerdict::good);
}

TEST(SignedReaderValues, CertificatesAndListsAreDecodedWhenAskedFor) {
    const HandMadeSigner signer;
    const Bytes crl = norvauthority::issueList({.issuer = &identities().authority, .crlNumber = "7"}).der;
    HandMade message{.digestAlgorithms = {signer.digestAlgorithm}, .content = der::octetString(body())};
    const Bytes attributeCertificate = der::element(der::contextConstructed(2), der::integer("1"));
    message.certificates = {der::sequence({der::integer("1")}), identities().rsa.certificate.der, attributeCertificate,
                            identities().authority.certificate.der};
    message.lists = {crl, der::element(der::contextConstructed(1), der::oid("1.2.3")),
                     der::sequence({der::integer("1")})};
    message.signers = {signer.made(body())};
    const Read read(message.made());
    EXPECT_EQ(read.verdict().verdict, SignatureVerdict::good);
    ASSERT_EQ(read.message.certificates().size(), 2U);
    EXPECT_TRUE(NVX509::sameEncoding(read.message.certificates().front(), certificateOf(identities().rsa)));
    EXPECT_EQ(&read.message.certificates(), &read.message.certificates());
    ASSERT_EQ(read.message.revocationLists().size(), 1U);
    EXPECT_TRUE(read.message.revocationLists().front()->issuedBy(certificateOf(identities().authority), false));
    const auto encoded = read.message.encodedCertificates();
    ASSERT_EQ(encoded.size(), 4U);
    EXPECT_EQ(bytesOf(encoded[2]), attributeCertificate);
    ASSERT_EQ(read.message.encodedRevocationLists().size(), 3U);
    EXPECT_EQ(bytesOf(read.message.encodedRevocationLists().front()), crl);
}

TEST(SignedReaderValues, SignersOutliveTheirReader) {
    std::vector<Signer> kept;
    {
        const Read read(withMore({timeOf(der::utcTimeTag, "991231235958Z")}));
        kept = read.message.signers();
    }
    EXPECT_EQ(kept.front().signingTime(), 946684798);
    EXPECT_TRUE(kept.front().identifier().names(certificateOf(identities().rsa)));
}

TEST(SignedReaderValues, OctetsOutliveTheirReader) {
    const Bytes crl = norvauthority::issueList({.issuer = &identities().authority, .crlNumber = "7"}).der;
    HandMadeSigner signer;
    signer.attributes = usualAttributes(body());
    HandMade message{.digestAlgorithms = {signer.digestAlgorithm},
                     .content = der::octetString(body()),
                     .certificates = {identities().rsa.certificate.der}};
    message.lists = {crl};
    message.signers = {signer.made(body())};
    const Bytes made = message.made();
    // What is returned stays what was returned: a move would copy what is only borrowed.
    const Buffer signature = [&] { return Read(made).signer().signature(); }();
    const std::vector<Buffer> certificates = [&] { return Read(made).message.encodedCertificates(); }();
    const std::vector<Buffer> lists = [&] { return Read(made).message.encodedRevocationLists(); }();
    EXPECT_EQ(bytesOf(signature), signatureOfAlice());
    EXPECT_EQ(bytesOf(certificates.at(0)), identities().rsa.certificate.der);
    EXPECT_EQ(bytesOf(lists.at(0)), crl);
}

/// What stands behind the content is not known before that was read.
TEST(SignedReaderValues, CertificatesAndListsAreKnownBehindTheContent) {
    const Bytes made = signedByOpenssl(identities().rsa, bodyOf(1000), "SHA256", 0);
    const auto refusalOf = [&](const auto& ask) {
        SignedReader message{Norvane::MemoryMediaIn(bufferOf(made))};
        const std::string early = norvtest::detailOf(norvtest::thrownBy([&] { ask(message); }));
        Norvane::NullMediaOut sink;
        Norvane::MediaIn(message).write(sink);
        ask(message);
        return early;
    };
    const std::string notRead = "the content was not read to its end";
    EXPECT_EQ(refusalOf([](const auto& message) { static_cast<void>(message.certificates()); }), notRead);
    EXPECT_EQ(refusalOf([](const auto& message) { static_cast<void>(message.revocationLists()); }), notRead);
    EXPECT_EQ(refusalOf([](const auto& message) { static_cast<void>(message.encodedCertificates()); }), notRead);
    EXPECT_EQ(refusalOf([](const auto& message) { static_cast<void>(message.encodedRevocationLists()); }), notRead);
}
