// What stands in the structures: versions, names, attributes and their order, certificates and lists.
#include "SignedWriting.h"

#include <openssl/ess.h>

#include <algorithm>

using namespace signedtest;
namespace der = norvauthority::der;

namespace {

constexpr std::int64_t lastOf2049 = 2524607999;

long versionOf(const Bytes& structure, const std::string& parent) {
    const std::string text = OpenSsl().print(structure);
    const std::size_t at = text.find("version: ", parent.empty() ? 0 : text.find(parent));
    return std::stol(text.substr(at + 9));
}
long structureVersion(const Bytes& structure) {
    return versionOf(structure, "");
}
long signerVersion(const Bytes& structure) {
    return versionOf(structure, "signerInfos:");
}

/// The encodings of the signed attributes, in their order.
std::vector<Bytes> attributesOf(const Bytes& structure, int index = 0) {
    const CmsStructure made = decoded(structure);
    const CMS_SignerInfo* signer = signerOf(made, index);
    std::vector<Bytes> all;
    for (int at = 0; at < CMS_signed_get_attr_count(signer); ++at) {
        unsigned char* encoded = nullptr;
        const int length = i2d_X509_ATTRIBUTE(CMS_signed_get_attr(signer, at), &encoded);
        all.emplace_back(encoded, encoded + length);
        OPENSSL_free(encoded);
    }
    return all;
}

/// The value of the attribute of that type, as an element; empty when it is not there.
Bytes valueOf(const Bytes& structure, int type) {
    const CmsStructure made = decoded(structure);
    const int at = CMS_signed_get_attr_by_NID(signerOf(made), type, -1);
    if (at < 0) {
        return {};
    }
    ASN1_TYPE* value = X509_ATTRIBUTE_get0_type(CMS_signed_get_attr(signerOf(made), at), 0);
    unsigned char* encoded = nullptr;
    const int length = i2d_ASN1_TYPE(value, &encoded);
    const Bytes all(encoded, encoded + length);
    OPENSSL_free(encoded);
    return all;
}

Bytes octets(const char* hex) {
    return norvauthority::fromHex(hex);
}

Bytes callersAttribute(const std::string& type, const std::vector<Bytes>& values) {
    return der::sequence({der::oid(type), der::element(0x31, der::concat(values))});
}

NVX509::RefCertificateRevocationList listOf(std::size_t entries) {
    return NVX509::CertificateRevocationListFactory().readDER(
        bufferOf(norvauthority::issueList({.issuer = &identities().authority, .numbered = entries}).der));
}

std::vector<Bytes> certificatesIn(const Bytes& structure) {
    const CmsStructure made = decoded(structure);
    STACK_OF(X509)* certificates = CMS_get1_certs(made.get());
    std::vector<Bytes> all;
    for (int at = 0; at < sk_X509_num(certificates); ++at) {
        unsigned char* encoded = nullptr;
        const int length = i2d_X509(sk_X509_value(certificates, at), &encoded);
        all.emplace_back(encoded, encoded + length);
        OPENSSL_free(encoded);
    }
    sk_X509_pop_free(certificates, X509_free);
    return all;
}

std::vector<Bytes> sorted(std::vector<Bytes> all) {
    std::sort(all.begin(), all.end());
    return all;
}

} // namespace

// RFC 5652, 5.1 and 5.3.
TEST(SignedStructure, VersionsTellWhatIsUsed) {
    Options options = optionsFor(identities().rsa);
    EXPECT_EQ(structureVersion(written(options, bodyOf(3))), 1);
    EXPECT_EQ(signerVersion(written(options, bodyOf(3))), 1);
    options.contentType = "1.2.840.113549.1.9.16.1.4"; // a time-stamp token
    EXPECT_EQ(structureVersion(written(options, bodyOf(3))), 3);
    EXPECT_EQ(signerVersion(written(options, bodyOf(3))), 1);
    options = optionsFor(identities().rsa);
    options.signers.front().namedBy = CMS::NamedBy::subjectKeyIdentifier;
    EXPECT_EQ(structureVersion(written(options, bodyOf(3))), 3);
    EXPECT_EQ(signerVersion(written(options, bodyOf(3))), 3);
}

TEST(SignedStructure, TheContentTypeStandsBesideTheBodyAndInTheAttributes) {
    Options options = optionsFor(identities().rsa);
    EXPECT_EQ(valueOf(written(options, bodyOf(3)), NID_pkcs9_contentType), der::oid("1.2.840.113549.1.7.1"));
    options.contentType = "1.3.6.1.4.1.55555.7";
    for (const Encoding encoding : {Encoding::ber, Encoding::der}) {
        options.encoding = encoding;
        const Bytes structure = written(options, bodyOf(3));
        const CmsStructure made = decoded(structure);
        char text[64];
        OBJ_obj2txt(text, sizeof(text), CMS_get0_eContentType(made.get()), 1);
        EXPECT_STREQ(text, "1.3.6.1.4.1.55555.7");
        EXPECT_EQ(valueOf(structure, NID_pkcs9_contentType), der::oid("1.3.6.1.4.1.55555.7"));
        EXPECT_EQ(OpenSsl().verify(structure), textOf(bodyOf(3)));
    }
}

TEST(SignedStructure, AttributesAreInTheOrderOfTheirEncodings) {
    Signer signer(pairOf(identities().rsa));
    for (const char* type : {"1.3.6.1.4.1.55555.9", "2.5.4.3", "1.3.6.1.4.1.55555.1"}) {
        signer.attributes.push_back(bufferOf(callersAttribute(type, {der::octetString({1}), der::octetString({2})})));
    }
    const Bytes structure = written(optionsFor({signer}), bodyOf(9));
    const std::vector<Bytes> all = attributesOf(structure);
    EXPECT_EQ(all.size(), 8U);
    EXPECT_EQ(all, sorted(all));
    for (const Buffer& own : signer.attributes) {
        EXPECT_EQ(std::count(all.begin(), all.end(), cmstest::bytesOf(own)), 1);
    }
    EXPECT_EQ(OpenSsl().verify(structure), textOf(bodyOf(9)));
}

TEST(SignedStructure, EveryAttributeCanBeLeftOut) {
    Signer signer(pairOf(identities().rsa));
    EXPECT_EQ(attributesOf(written(optionsFor({signer}), bodyOf(9))).size(), 5U);
    signer.signingTime = false;
    EXPECT_EQ(valueOf(written(optionsFor({signer}), bodyOf(9)), NID_pkcs9_signingTime), Bytes());
    signer.capabilities.clear();
    EXPECT_EQ(valueOf(written(optionsFor({signer}), bodyOf(9)), NID_SMIMECapabilities), Bytes());
    signer.signingCertificate = false;
    EXPECT_EQ(attributesOf(written(optionsFor({signer}), bodyOf(9))).size(), 2U);
    signer.signedAttributes = false;
    EXPECT_EQ(attributesOf(written(optionsFor({signer}), bodyOf(9))).size(), 0U);
}

// RFC 5652, 11.3: UTCTime through 2049, GeneralizedTime from 2050 on, and before 1950.
TEST(SignedStructure, SigningTimeChangesItsTypeIn2050) {
    const auto timeOf = [](std::int64_t seconds) {
        Signer signer(pairOf(identities().rsa));
        signer.signedAt = seconds;
        Options options = optionsFor({signer});
        options.encoding = Encoding::der;
        options.length = 3;
        const Bytes structure = written(options, bodyOf(3));
        EXPECT_EQ(reencoded(structure), structure);
        return valueOf(structure, NID_pkcs9_signingTime);
    };
    EXPECT_EQ(timeOf(lastOf2049), der::element(0x17, norvauthority::bytes("491231235959Z")));
    EXPECT_EQ(timeOf(lastOf2049 + 1), der::element(0x18, norvauthority::bytes("20500101000000Z")));
    EXPECT_EQ(timeOf(0), der::element(0x17, norvauthority::bytes("700101000000Z")));
    EXPECT_EQ(timeOf(-631152000), der::element(0x17, norvauthority::bytes("500101000000Z")));
    EXPECT_EQ(timeOf(-631152001), der::element(0x18, norvauthority::bytes("19491231235959Z")));
    EXPECT_EQ(timeOf(253402300799), der::element(0x18, norvauthority::bytes("99991231235959Z")));
}

TEST(SignedStructure, SigningTimeIsNowUnlessItIsGiven) {
    const std::time_t before = std::time(nullptr);
    const CmsStructure made = decoded(written(optionsFor(identities().rsa), bodyOf(3)));
    const std::time_t after = std::time(nullptr);
    const auto* time = static_cast<const ASN1_TIME*>(
        CMS_signed_get0_data_by_OBJ(signerOf(made), OBJ_nid2obj(NID_pkcs9_signingTime), -3, V_ASN1_UTCTIME));
    ASSERT_NE(time, nullptr);
    EXPECT_GE(ASN1_TIME_cmp_time_t(time, before), 0);
    EXPECT_LE(ASN1_TIME_cmp_time_t(time, after), 0);
}

// RFC 8551, 2.5.2, with the identifiers of RFC 3565 and RFC 5084; no parameters, no NULL.
TEST(SignedStructure, CapabilitiesAreSequencesOfIdentifiers) {
    const Bytes structure = written(optionsFor(identities().rsa), bodyOf(3));
    EXPECT_EQ(valueOf(structure, NID_SMIMECapabilities), octets("3041"
                                                                "300b060960864801650304012e"
                                                                "300b0609608648016503040106"
                                                                "300b060960864801650304012a"
                                                                "300b0609608648016503040116"
                                                                "300b0609608648016503040102"));
    Signer signer(pairOf(identities().rsa));
    signer.capabilities = {{"1.2.840.113549.3.2", bufferOf(octets("02020080"))}, {"1.2.840.113549.3.7", Buffer()}};
    EXPECT_EQ(valueOf(written(optionsFor({signer}), bodyOf(3)), NID_SMIMECapabilities),
              octets("301c300e06082a864886f70d030202020080300a06082a864886f70d0307"));
}

// RFC 5035, 4: SHA-256 is the default, which DER leaves out; the first certificate has its issuer and serial number.
TEST(SignedStructure, SigningCertificateLeavesTheDefaultDigestOut) {
    Signer signer(pairOf(identities().rsa));
    const Bytes& certificate = identities().rsa.certificate.der;
    const auto decodedValue = [&] {
        const Bytes value = valueOf(written(optionsFor({signer}), bodyOf(3)), NID_id_smime_aa_signingCertificateV2);
        const unsigned char* at = value.data();
        return std::pair(value, std::unique_ptr<ESS_SIGNING_CERT_V2, decltype(&ESS_SIGNING_CERT_V2_free)>(
                                    d2i_ESS_SIGNING_CERT_V2(nullptr, &at, static_cast<long>(value.size())),
                                    ESS_SIGNING_CERT_V2_free));
    };
    const auto digestOf = [&](const EVP_MD* algorithm) {
        Bytes digest(static_cast<std::size_t>(EVP_MD_get_size(algorithm)));
        EXPECT_EQ(EVP_Digest(certificate.data(), certificate.size(), digest.data(), nullptr, algorithm, nullptr), 1);
        return digest;
    };
    const auto issuerAndSerial = [] {
        const Bytes name = identities().authority.name.der();
        return der::sequence({der::sequence({der::element(0xA4, name)}), der::integer("a11ce")});
    };
    const auto [withDefault, decodedDefault] = decodedValue();
    ASSERT_NE(decodedDefault, nullptr);
    EXPECT_EQ(
        withDefault,
        der::sequence({der::sequence({der::sequence({der::octetString(digestOf(EVP_sha256())), issuerAndSerial()})})}));

    signer.signingCertificateDigest = Hasher::SHA512;
    const auto [withSha512, decodedSha512] = decodedValue();
    ASSERT_NE(decodedSha512, nullptr);
    EXPECT_EQ(
        withSha512,
        der::sequence({der::sequence({der::sequence({der::sequence({der::oid("2.16.840.1.101.3.4.2.3")}),
                                                     der::octetString(digestOf(EVP_sha512())), issuerAndSerial()})})}));
}

// RFC 4055, 3.1: the digest with NULL, MGF1 over the same one, the length of the salt; nothing at all for SHA-1.
TEST(SignedStructure, PssNamesItsParameters) {
    const auto parametersOf = [](Hasher::Type digest) {
        Signer signer(pairOf(identities().rsa));
        signer.digest = digest;
        signer.rsaScheme = SignedWriter::RsaScheme::pss;
        const CmsStructure made = decoded(written(optionsFor({signer}), bodyOf(3)));
        X509_ALGOR* algorithm = nullptr;
        CMS_SignerInfo_get0_algs(signerOf(made), nullptr, nullptr, nullptr, &algorithm);
        unsigned char* encoded = nullptr;
        const int length = i2d_X509_ALGOR(algorithm, &encoded);
        const Bytes all(encoded, encoded + length);
        OPENSSL_free(encoded);
        return all;
    };
    const Bytes pss = der::oid("1.2.840.113549.1.1.10");
    EXPECT_EQ(parametersOf(Hasher::SHA1), der::sequence({pss, der::sequence({})}));
    const Bytes hash = der::sequence({der::oid("2.16.840.1.101.3.4.2.2"), octets("0500")});
    EXPECT_EQ(
        parametersOf(Hasher::SHA384),
        der::sequence({pss, der::sequence({der::element(0xA0, hash),
                                           der::element(0xA1, der::sequence({der::oid("1.2.840.113549.1.1.8"), hash})),
                                           der::element(0xA2, octets("020130"))})}));
}

TEST(SignedStructure, CertificatesAndListsStandOnceInTheOrderOfTheirEncodings) {
    const Bytes& authority = identities().authority.certificate.der;
    const Bytes& alice = identities().rsa.certificate.der;
    const Bytes& eve = identities().ec.certificate.der;
    const std::list<NVX509::RefCertificate> chain{certificateOf(identities().authority)};
    Options options = optionsFor({Signer(pairOf(identities().rsa, chain)), Signer(pairOf(identities().rsa, chain)),
                                  Signer(pairOf(identities().ec, chain))});
    options.signers[1].digest = Hasher::SHA512;
    options.certificates = {certificateOf(identities().rsa), certificateOf(identities().otherRsa)};
    options.revocationLists = {listOf(3), listOf(2), listOf(3)};
    const Bytes structure = written(options, bodyOf(3));
    EXPECT_EQ(certificatesIn(structure), sorted({authority, alice, eve, identities().otherRsa.certificate.der}));
    const CmsStructure made = decoded(structure);
    STACK_OF(X509_CRL)* lists = CMS_get1_crls(made.get());
    EXPECT_EQ(sk_X509_CRL_num(lists), 2);
    sk_X509_CRL_pop_free(lists, X509_CRL_free);
    EXPECT_EQ(OpenSsl().verify(structure), textOf(bodyOf(3)));
    options.encoding = Encoding::der;
    const Bytes inDer = written(options, bodyOf(3));
    EXPECT_EQ(reencoded(inDer), inDer);
}

TEST(SignedStructure, IncludesWhatIsAskedFor) {
    const std::list<NVX509::RefCertificate> chain{certificateOf(identities().authority)};
    Options options = optionsFor({Signer(pairOf(identities().rsa, chain))});
    const auto countWith = [&](SignedWriter::Include include) {
        options.signers.front().include = include;
        return certificatesIn(written(options, bodyOf(3))).size();
    };
    EXPECT_EQ(countWith(SignedWriter::Include::nothing), 0U);
    EXPECT_EQ(countWith(SignedWriter::Include::certificate), 1U);
    EXPECT_EQ(countWith(SignedWriter::Include::certificateAndChain), 2U);
}

// RFC 8551, 3.8.
TEST(SignedStructure, CertificatesAloneHaveNoSignerAndNoBody) {
    Options options;
    options.certificatesOnly = true;
    options.certificates = {certificateOf(identities().rsa), certificateOf(identities().authority)};
    options.revocationLists = {listOf(1)};
    const Bytes structure = written(options, {});
    EXPECT_EQ(structureVersion(structure), 1);
    EXPECT_EQ(certificatesIn(structure),
              sorted({identities().rsa.certificate.der, identities().authority.certificate.der}));
    const CmsStructure made = decoded(structure);
    EXPECT_EQ(CMS_get0_SignerInfos(made.get()) == nullptr ? 0 : sk_CMS_SignerInfo_num(CMS_get0_SignerInfos(made.get())),
              0);
    EXPECT_EQ(CMS_is_detached(made.get()), 1);
    EXPECT_EQ(reencoded(structure), structure);

    Norvane::MemoryMediaOut target;
    SignedWriter writer(options);
    writer.attach(target);
    const Caught failure = caught([&] { writer.write(bufferOf(bodyOf(1))); });
    EXPECT_EQ(failure.where, "CMS::SignedWriter::write");
    EXPECT_EQ(failure.details, std::vector<std::string>{"certificates alone have no body"});
}

TEST(SignedStructure, DigestAlgorithmsStandOnce) {
    std::vector<Signer> signers(3, Signer(pairOf(identities().rsa)));
    signers[1].namedBy = CMS::NamedBy::subjectKeyIdentifier;
    signers[2].digest = Hasher::SHA1;
    Options options = optionsFor(signers);
    options.encoding = Encoding::der;
    const Bytes structure = written(options, bodyOf(3));
    const Bytes algorithms = der::element(0x31, der::concat({der::sequence({der::oid("1.3.14.3.2.26")}),
                                                             der::sequence({der::oid("2.16.840.1.101.3.4.2.1")})}));
    const auto at = std::search(structure.begin(), structure.end(), algorithms.begin(), algorithms.end());
    EXPECT_NE(at, structure.end());
    EXPECT_EQ(reencoded(structure), structure);
}
