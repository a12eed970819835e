// What is refused, when, and with which words.
#include "SignedWriting.h"

#include <limits>

using namespace signedtest;
namespace der = norvauthority::der;

namespace {

/// The reason why no writer is made.
std::string refusal(const Options& options) {
    const Caught failure = caught([&] { const SignedWriter writer(options); });
    EXPECT_EQ(failure.where, "CMS::SignedWriter");
    EXPECT_EQ(failure.code, 4);
    EXPECT_EQ(failure.file, "CMSSignedWriter");
    EXPECT_EQ(ERR_peek_error(), 0UL);
    return failure.details.size() == 1 ? failure.details.front() : "";
}
std::string refusal(const Signer& signer) {
    return refusal(optionsFor({signer}));
}

NVX509::KeyCertificatePair pairWith(const Identity& key, const Identity& certificate) {
    return NVX509::KeyCertificatePair(keyOf(key), certificateOf(certificate));
}

std::string refusalOfAttribute(const Bytes& encoded) {
    Signer signer(pairOf(identities().rsa));
    signer.attributes = {bufferOf(encoded)};
    return refusal(signer);
}

Bytes attribute(const std::string& type, const std::vector<Bytes>& values) {
    return der::sequence({der::oid(type), der::element(0x31, der::concat(values))});
}

Signer signerWith(const Identity& identity, Hasher::Type digest,
                  SignedWriter::RsaScheme scheme = SignedWriter::RsaScheme::pkcs1) {
    Signer signer(pairOf(identity));
    signer.digest = digest;
    signer.rsaScheme = scheme;
    return signer;
}

} // namespace

TEST(SignedRefusal, NobodySigns) {
    EXPECT_EQ(refusal(Options()), "there is no signer");
    Options alone;
    alone.certificatesOnly = true;
    EXPECT_EQ(refusal(alone), "there are no certificates and no revocation lists");
    alone.certificates = {certificateOf(identities().rsa)};
    alone.contentType = "1.2.3.4";
    EXPECT_EQ(refusal(alone), "certificates alone are of the content type id-data");
    alone.signers = {Signer(pairOf(identities().rsa))};
    EXPECT_EQ(refusal(alone), "certificates alone have no signers");
}

TEST(SignedRefusal, KeysAndCertificatesThatAreMissingOrDoNotMatch) {
    EXPECT_EQ(refusal(Signer(NVX509::KeyCertificatePair(false))), "signer 1: there is no key and certificate");
    EXPECT_EQ(refusal(Signer(NVX509::KeyCertificatePair(true))), "signer 1: there is no certificate");
    EXPECT_EQ(refusal(Signer(NVX509::KeyCertificatePair(keyOf(identities().rsa), NVX509::RefCertificate()))),
              "signer 1: there is no certificate");
    EXPECT_EQ(refusal(Signer(NVX509::KeyCertificatePair(Crypto::RefKey(), certificateOf(identities().rsa)))),
              "signer 1: there is no private key");
    EXPECT_EQ(refusal(Signer(pairWith(identities().otherRsa, identities().rsa))),
              "signer 1: the private key does not match the certificate");
    EXPECT_EQ(refusal(Signer(pairWith(identities().ec, identities().rsa))),
              "signer 1: the private key does not match the certificate");
    EXPECT_EQ(refusal(optionsFor({Signer(pairOf(identities().rsa)), Signer(pairWith(p384(), identities().ec))})),
              "signer 2: the private key does not match the certificate");
}

TEST(SignedRefusal, PublicKeysInThePlaceOfPrivateOnes) {
    for (const Identity* identity : {&identities().rsa, &identities().ec, &ed25519(), &ed448()}) {
        const auto certificate = identity->certificate.x509();
        const Crypto::RefKey publicKey(new Crypto::PublicKey(X509_get_pubkey(certificate.get())));
        EXPECT_EQ(refusal(Signer(NVX509::KeyCertificatePair(publicKey, certificateOf(*identity)))),
                  "signer 1: the key has no private part");
    }
}

TEST(SignedRefusal, KindsOfKeysAndDigestsThatDoNotSign) {
    EXPECT_EQ(refusal(Signer(pairOf(identities().dsa))), "signer 1: unsupported: keys of type DSA do not sign here");
    static const Identity x25519 = person("x", "25519a", generated("X25519"));
    EXPECT_EQ(refusal(Signer(pairOf(x25519))), "signer 1: unsupported: keys of type X25519 do not sign here");
    EXPECT_EQ(refusal(signerWith(identities().rsa, Hasher::MD5)),
              "signer 1: unsupported: the digest MD5 for signatures");
    EXPECT_EQ(refusal(signerWith(identities().ec, Hasher::RIPEMD160)),
              "signer 1: unsupported: the digest RIPEMD160 for signatures");
    EXPECT_EQ(refusal(signerWith(identities().rsa, static_cast<Hasher::Type>(1101))), // SHAKE256
              "signer 1: unsupported: the digest SHAKE256 for signatures");
    EXPECT_EQ(refusal(signerWith(identities().rsa, static_cast<Hasher::Type>(-5))),
              "signer 1: unsupported: the digest -5 for signatures");
    EXPECT_EQ(refusal(signerWith(ed25519(), Hasher::SHA256)),
              "signer 1: ED25519 signs with the digest SHA512, not with SHA256");
    EXPECT_EQ(refusal(signerWith(ed448(), Hasher::SHA512)),
              "signer 1: ED448 signs with the digest SHAKE256, not with SHA512");
    Signer signer(pairOf(identities().rsa));
    signer.signingCertificateDigest = Hasher::MD5;
    EXPECT_EQ(refusal(signer), "signer 1: unsupported: the digest of the signing certificate");
}

// RFC 8017, 9.1.1 and 9.2: an encoded SHA-512 takes 94 octets for PKCS#1 1.5 and 130 for RSASSA-PSS.
TEST(SignedRefusal, DigestsThatAreTooLongForAnRsaKey) {
    constexpr auto pss = SignedWriter::RsaScheme::pss;
    static const Identity shortest = person("short", "512", norvauthority::Key::rsa(744));
    static const Identity enough = person("enough", "752", norvauthority::Key::rsa(752));
    EXPECT_EQ(refusal(signerWith(shortest, Hasher::SHA512)),
              "signer 1: the digest SHA512 is too long for an RSA key of 744 bits");
    EXPECT_FALSE(written(optionsFor({signerWith(enough, Hasher::SHA512)}), bodyOf(1)).empty());
    static const Identity shortPss = person("short", "1033", norvauthority::Key::rsa(1033));
    static const Identity enoughPss = person("enough", "1034", norvauthority::Key::rsa(1034));
    EXPECT_EQ(refusal(signerWith(shortPss, Hasher::SHA512, pss)),
              "signer 1: the digest SHA512 is too long for an RSA key of 1033 bits");
    EXPECT_FALSE(written(optionsFor({signerWith(enoughPss, Hasher::SHA512, pss)}), bodyOf(1)).empty());
}

TEST(SignedRefusal, KeysThatAreForOneDigestAlone) {
    static const Identity restricted = person("psssha512", "9512", pssKey(EVP_sha512(), 32));
    const std::string reason = refusal(signerWith(restricted, Hasher::SHA256));
    EXPECT_EQ(reason.substr(0, 58), "signer 1: the key does not sign with the digest SHA256: 0x") << reason;
}

TEST(SignedRefusal, CertificatesWithoutKeyIdentifier) {
    static const Identity without = norvauthority::issue({.subject = {{"CN", "nobody"}},
                                                          .key = storedKey("alice"),
                                                          .issuer = &identities().authority,
                                                          .subjectKeyIdentifier = false});
    Signer signer(pairOf(without));
    signer.namedBy = CMS::NamedBy::subjectKeyIdentifier;
    EXPECT_EQ(refusal(signer), "signer 1: the certificate has no subject key identifier");
}

TEST(SignedRefusal, SignaturesThatMustCoverAttributes) {
    Signer signer(pairOf(ed25519()));
    signer.signedAttributes = false;
    EXPECT_EQ(refusal(signer), "signer 1: Edwards curves sign attributes alone");
    Options options = optionsFor(identities().rsa);
    options.signers.front().signedAttributes = false;
    options.contentType = "1.2.3.4";
    EXPECT_EQ(refusal(options), "signer 1: a content type other than id-data demands signed attributes");
    options.contentType = "1.2.840.113549.1.7.1";
    options.signers.front().attributes = {bufferOf(attribute("1.2.3", {der::octetString({1})}))};
    EXPECT_EQ(refusal(options), "signer 1: there are attributes, and none is to be signed");
}

TEST(SignedRefusal, ContentTypesAndTimesAndLengthsThatAreNone) {
    Options options = optionsFor(identities().rsa);
    for (const char* text : {"", "no identifier", "1", "3.1.2", "1.2.-3"}) {
        options.contentType = text;
        EXPECT_EQ(refusal(options), "the content type is no object identifier") << text;
    }
    options.contentType = std::string("1.2.3\0.4", 8);
    EXPECT_EQ(refusal(options), "the content type is no object identifier");
    options = optionsFor(identities().rsa);
    options.length = (std::uint64_t{1} << 62U) + 1;
    EXPECT_EQ(refusal(options), "the announced length is more than 2^62 octets");
    --*options.length;
    EXPECT_NO_THROW(CMS::SignedWriter{options});
    Signer signer(pairOf(identities().rsa));
    for (const std::int64_t time : {std::int64_t{253402300800}, std::numeric_limits<std::int64_t>::max(),
                                    std::numeric_limits<std::int64_t>::min()}) {
        signer.signedAt = time;
        EXPECT_EQ(refusal(signer), "signer 1: there is no such time");
    }
}

TEST(SignedRefusal, EmptyHandles) {
    Options options = optionsFor(identities().rsa);
    options.certificates = {certificateOf(identities().ec), NVX509::RefCertificate()};
    EXPECT_EQ(refusal(options), "certificate 2: the handle is empty");
    options.certificates.clear();
    options.revocationLists.emplace_back();
    EXPECT_EQ(refusal(options), "revocation list 1: the handle is empty");
    options = optionsFor({Signer(pairOf(identities().rsa, {NVX509::RefCertificate()}))});
    EXPECT_EQ(refusal(options), "signer 1: certificate 1 of the chain: the handle is empty");
}

TEST(SignedRefusal, AttributesThatAreNone) {
    const Bytes one = der::octetString({1});
    const Bytes two = der::octetString({2});
    const Bytes good = attribute("1.2.3", {one, two});
    const std::string noDer = "signer 1: attribute 1: no element in DER";
    EXPECT_EQ(refusalOfAttribute({}), noDer);
    EXPECT_EQ(refusalOfAttribute({good.begin(), good.end() - 1}), noDer);
    EXPECT_EQ(refusalOfAttribute(der::concat({good, {0x05, 0x00}})), noDer);
    EXPECT_EQ(refusalOfAttribute(norvauthority::fromHex("308006022a033180050000000000")), noDer); // indefinite lengths
    EXPECT_EQ(refusalOfAttribute(norvauthority::fromHex("300906022a03310304810101")),
              noDer); // long form of a length in a value
    EXPECT_EQ(refusalOfAttribute(attribute("1.2.3", {norvauthority::fromHex("2403040101")})),
              noDer); // octets in segments
    Bytes deep = one;
    for (int level = 0; level < 100; ++level) {
        deep = der::sequence({deep});
    }
    EXPECT_EQ(refusalOfAttribute(attribute("1.2.3", {deep})), noDer);
    // 64 levels, two of which are the attribute's own.
    deep = one;
    for (int level = 0; level < 62; ++level) {
        deep = der::sequence({deep});
    }
    Signer signer(pairOf(identities().rsa));
    signer.attributes = {bufferOf(attribute("1.2.3", {deep}))};
    EXPECT_EQ(OpenSsl().verify(written(optionsFor({signer}), bodyOf(3))), textOf(bodyOf(3)));
    EXPECT_EQ(refusalOfAttribute(attribute("1.2.3", {der::sequence({deep})})), noDer);

    const std::string noSequence = "signer 1: attribute 1: no sequence of a type and a set of values";
    EXPECT_EQ(refusalOfAttribute(one), noSequence);
    EXPECT_EQ(refusalOfAttribute(der::sequence({one, der::element(0x31, one)})), noSequence);
    EXPECT_EQ(refusalOfAttribute(der::sequence({der::oid("1.2.3"), one})), noSequence);
    EXPECT_EQ(refusalOfAttribute(der::sequence({der::oid("1.2.3"), der::element(0x31, one), one})), noSequence);
    EXPECT_EQ(refusalOfAttribute(der::sequence({norvauthority::fromHex("060188"), der::element(0x31, one)})),
              noSequence);
    EXPECT_EQ(refusalOfAttribute(der::sequence({norvauthority::fromHex("0600"), der::element(0x31, one)})), noSequence);

    EXPECT_EQ(refusalOfAttribute(attribute("1.2.3", {})), "signer 1: attribute 1: without a value");
    EXPECT_EQ(refusalOfAttribute(attribute("1.2.3", {two, one})),
              "signer 1: attribute 1: the values are not in the order that DER demands");
    EXPECT_EQ(refusalOfAttribute(attribute("1.2.840.113549.1.9.6", {one})),
              "signer 1: attribute 1: a countersignature is no signed attribute");
}

TEST(SignedRefusal, AttributesThatStandThereAlready) {
    const Bytes value = der::octetString({1});
    const std::string twice = "signer 1: attribute 1: its type stands there already";
    for (const char* type : {"1.2.840.113549.1.9.3", "1.2.840.113549.1.9.4", "1.2.840.113549.1.9.5",
                             "1.2.840.113549.1.9.15", "1.2.840.113549.1.9.16.2.47"}) {
        EXPECT_EQ(refusalOfAttribute(attribute(type, {value})), twice) << type;
    }
    Signer signer(pairOf(identities().rsa));
    signer.attributes = {bufferOf(attribute("1.2.3", {value})), bufferOf(attribute("1.2.3", {value}))};
    EXPECT_EQ(refusal(signer), "signer 1: attribute 2: its type stands there already");
    signer.attributes = {
        bufferOf(attribute("1.2.840.113549.1.9.5", {Bytes(norvauthority::fromHex("170d3730303130313030303030305a"))}))};
    signer.signingTime = false; // then the caller may tell one
    EXPECT_EQ(OpenSsl().verify(written(optionsFor({signer}), bodyOf(3))), textOf(bodyOf(3)));
}

TEST(SignedRefusal, CapabilitiesThatAreNone) {
    Signer signer(pairOf(identities().rsa));
    signer.capabilities.push_back({"nothing", Buffer()});
    EXPECT_EQ(refusal(signer), "signer 1: capability 6: no object identifier");
    for (const Bytes& parameters : {Bytes{0x02, 0x01}, Bytes{0x05, 0x00, 0x05, 0x00}, Bytes{0x05, 0x00, 0x05},
                                    Bytes{0x05, 0x81, 0x00}, Bytes{0x30, 0x80, 0x00, 0x00}}) {
        signer.capabilities = {{"1.2.3", bufferOf(parameters)}};
        EXPECT_EQ(refusal(signer), "signer 1: capability 1: the parameters are no element in DER");
    }
}
