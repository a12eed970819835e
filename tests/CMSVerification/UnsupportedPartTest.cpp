#include "support/HandMadeSigners.h"
#include "support/HostileDer.h"

#include <norvcrypto/CMSVerification.h>

using namespace cmstest;
namespace der = norvauthority::der;

namespace {

const Bytes& body() {
    static const Bytes content = bodyOf(100);
    return content;
}

bool decodes(const Bytes& structure) {
    try {
        const RecordedLog log;
        PiecewiseIn in(structure);
        const CMS::RefContentInfo none(in);
        return true;
    } catch (const Norvane::Exception&) {
        return false;
    }
}

std::string partOf(const Bytes& structure) {
    const std::string part = CMS::unsupportedPart(structure.data(), structure.size());
    EXPECT_EQ(part, CMS::unsupportedPart(bufferOf(structure)));
    EXPECT_EQ(ERR_peek_error(), 0UL);
    return part;
}

/// Signed data of these parts behind the version and the digest algorithms.
Bytes signedData(const std::vector<Bytes>& parts) {
    std::vector<Bytes> all{der::integer("3"), der::set({})};
    all.insert(all.end(), parts.begin(), parts.end());
    return der::sequence(
        {der::oid("1.2.840.113549.1.7.2"), der::element(der::contextConstructed(0), der::sequence(all))});
}
const Bytes& detachedData() {
    static const Bytes made = der::sequence({der::oid("1.2.840.113549.1.7.1")});
    return made;
}

} // namespace

TEST(UnsupportedPart, ASignerNamedByAKeyIdentifier) {
    for (const unsigned int shape :
         {0U, static_cast<unsigned int>(CMS_DETACHED), static_cast<unsigned int>(CMS_STREAM)}) {
        for (const unsigned int attributes : {0U, static_cast<unsigned int>(CMS_NOATTR)}) {
            const Bytes made = signedByOpenssl(identities().rsa, body(), "SHA256", shape | attributes | CMS_USE_KEYID);
            EXPECT_FALSE(decodes(made));
            EXPECT_EQ(partOf(made), "a signer that is named by a key identifier");
            for (const Bytes& prefix : norvtest::properPrefixes(made)) {
                EXPECT_EQ(partOf(prefix), "") << prefix.size();
            }
        }
    }
}

TEST(UnsupportedPart, CertificatesAndRevocationInformationOfOtherKinds) {
    const auto withCertificate = [](unsigned char tag) {
        return signedData({detachedData(), der::element(0xA0, der::element(tag, der::null())), der::set({})});
    };
    EXPECT_EQ(partOf(withCertificate(0xA0)), "an extended certificate");
    EXPECT_EQ(partOf(withCertificate(0xA1)), "an attribute certificate");
    EXPECT_EQ(partOf(withCertificate(0xA2)), "an attribute certificate");
    EXPECT_EQ(partOf(withCertificate(0xA3)), "a certificate of another format");
    EXPECT_EQ(partOf(withCertificate(0xA4)), "");
    const auto withRevocation = [](unsigned char tag) {
        return signedData({detachedData(), der::element(0xA1, der::element(tag, der::null())), der::set({})});
    };
    EXPECT_EQ(partOf(withRevocation(0xA1)), "revocation information that is no list");
    EXPECT_EQ(partOf(withRevocation(0xA2)), "");
    for (const Bytes& structure :
         {withCertificate(0xA1), withCertificate(0xA2), withCertificate(0xA3), withRevocation(0xA1)}) {
        EXPECT_FALSE(decodes(structure));
    }
}

// CMS carries a structure in an OCTET STRING where PKCS#7 1.5 has it bare.
TEST(UnsupportedPart, AStructureInAnOctetString) {
    const auto content = [](const Bytes& inside) {
        return signedData(
            {der::sequence({der::oid("1.2.840.113549.1.7.2"), der::element(0xA0, inside)}), der::set({})});
    };
    for (const Bytes& carried : {der::octetString({1, 2}), der::element(0x24, der::octetString({1, 2}))}) {
        EXPECT_FALSE(decodes(content(carried)));
        EXPECT_EQ(partOf(content(carried)), "a content that is a structure in an OCTET STRING");
    }
}

TEST(UnsupportedPart, NothingInWhatDecodesOrIsDamaged) {
    const Bytes sound = signedByOpenssl(identities().rsa, body(), "SHA256", 0);
    EXPECT_TRUE(decodes(sound));
    EXPECT_EQ(partOf(sound), "");
    for (const Bytes& damaged : norvtest::bitFlips(sound)) {
        EXPECT_TRUE(partOf(damaged).empty() || !decodes(damaged));
    }
    EXPECT_EQ(partOf({}), "");
    EXPECT_EQ(CMS::unsupportedPart(nullptr, 0), "");
    EXPECT_EQ(partOf(bytesOf(std::string("Content-Type: text/plain"))), "");
    EXPECT_EQ(partOf(der::sequence({der::oid("1.2.840.113549.1.7.3"), der::element(0xA0, der::sequence({}))})), "");
}

// "It is well formed, and not supported" is a verdict on the whole: RFC 5652, 5.1 to 5.3 and 10.2.
TEST(UnsupportedPart, NothingInWhatIsOtherwiseMalformed) {
    const Bytes attributeCertificate = der::element(0xA1, der::null());
    const Bytes certificates = der::element(0xA0, attributeCertificate);
    const Bytes cutOff{0x30, 0x05};
    const Bytes algorithm = der::sequence({der::oid("2.16.840.1.101.3.4.2.1")});
    const Bytes issuer = der::sequence({der::sequence({}), der::integer("01")});
    const Bytes signature = der::octetString({1, 2});
    const auto withSigner = [&](const std::vector<Bytes>& parts) {
        return signedData({detachedData(), certificates, der::set({der::sequence(parts)})});
    };
    const Bytes version = der::integer("01");
    const Bytes signedAttributes = der::element(0xA0, der::null());
    const Bytes unsignedAttributes = der::element(0xA1, der::null());
    const Bytes structured =
        der::concat({der::oid("1.2.840.113549.1.7.2"), der::element(0xA0, der::octetString({1, 2}))});

    for (const Bytes& wellFormed :
         {signedData({detachedData(), certificates, der::set({})}),
          signedData({detachedData(), certificates, der::element(0xA1, der::sequence({})), der::set({})}),
          withSigner({version, issuer, algorithm, algorithm, signature}),
          withSigner({version, issuer, algorithm, signedAttributes, algorithm, signature, unsignedAttributes})}) {
        EXPECT_EQ(partOf(wellFormed), "an attribute certificate");
    }
    const Bytes data = der::sequence({der::integer("3"), der::set({}), detachedData(), certificates, der::set({})});
    const Bytes type = der::oid("1.2.840.113549.1.7.2");
    ASSERT_EQ(partOf(der::sequence({type, der::element(0xA0, data)})), "an attribute certificate");
    for (const Bytes& malformed : {
             der::sequence({type, der::element(0xA0, data), der::null()}),
             der::sequence({type, der::element(0xA0, der::concat({data, der::null()}))}),
             der::sequence({type, der::element(0xA0, der::null())}),
             der::sequence({type}),
             der::sequence({der::oid("1.2.840.113549.1.7.3"), der::element(0xA0, data)}),
             signedData({der::sequence({}), certificates, der::set({})}),
             signedData({der::sequence({structured, der::null()}), der::set({})}),
             signedData(
                 {detachedData(), der::element(0xA0, der::concat({attributeCertificate, cutOff})), der::set({})}),
             signedData(
                 {detachedData(), der::element(0xA0, der::concat({attributeCertificate, der::null()})), der::set({})}),
             signedData({detachedData(), certificates, der::element(0xA1, cutOff), der::set({})}),
             signedData({detachedData(), certificates, der::element(0xA1, der::null()), der::set({})}),
             signedData({detachedData(), certificates}),
             signedData({detachedData(), certificates, der::set({}), der::null()}),
             signedData({detachedData(), certificates, der::set({der::null()})}),
             withSigner({issuer, algorithm, algorithm, signature}),
             withSigner({version, algorithm, signature}),
             withSigner({version, der::null(), algorithm, algorithm, signature}),
             withSigner({version, issuer, algorithm, signature}),
             withSigner({version, issuer, algorithm, algorithm}),
             withSigner({version, issuer, der::null(), algorithm, signature}),
             withSigner({version, issuer, algorithm, algorithm, signature, unsignedAttributes, der::null()}),
             withSigner({version, issuer, algorithm, algorithm, signature, der::element(0xA2, der::null())}),
         }) {
        EXPECT_EQ(partOf(malformed), "") << norvauthority::toHex(malformed);
    }
}

// PKCS #7 1.5, 14: the types are 1.2.840.113549.1.7.1 to 6, and the first, data, is an OCTET STRING in both.
TEST(UnsupportedPart, OnlyTypesOfPkcs7AreStructures) {
    const auto carrying = [](const std::string& type) {
        return signedData(
            {der::sequence({der::oid(type), der::element(0xA0, der::octetString({1, 2}))}), der::set({})});
    };
    for (const char* type : {"2", "3", "4", "5", "6"}) {
        EXPECT_EQ(partOf(carrying(std::string("1.2.840.113549.1.7.") + type)),
                  "a content that is a structure in an OCTET STRING");
    }
    for (const char* type : {"1.2.840.113549.1.7.1", "1.2.840.113549.1.7.7", "1.2.840.113549.1.9.2",
                             "1.2.840.113549.1.7.2.2", "1.2.840.113549.1.7", "1.2.3"}) {
        EXPECT_EQ(partOf(carrying(type)), "") << type;
    }
}

// A walk that went into each of them on a stack would end the process.
TEST(UnsupportedPart, ElementsOfIndefiniteLengthNestWithoutEnd) {
    Bytes nested{0x30, 0x80, 0x06, 0x09, 0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x07, 0x02, 0xA0, 0x80, 0x30, 0x80};
    for (int depth = 0; depth < 500000; ++depth) {
        nested.insert(nested.end(), {0x30, 0x80});
    }
    EXPECT_EQ(partOf(nested), "");
    nested.insert(nested.end(), 1000010, 0);
    EXPECT_EQ(partOf(nested), "");
}
