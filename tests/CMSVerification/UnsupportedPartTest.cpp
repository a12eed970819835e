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
