// How structures name certificates: by issuer and serial number, or by a key identifier.
#include "support/Thrown.h"

#include <norvcrypto/CMSIdentifier.h>
#include <norvcrypto/Crypto.h>

#include <authority/Authority.h>
#include <authority/Der.h>

#include <gtest/gtest.h>

#include <optional>
#include <string>

using namespace Norvane::Crypto;
using CMS::CertificateIdentifier;
using CMS::NamedBy;
using Norvane::Buffer;
using norvauthority::Bytes;
using norvauthority::fromHex;
using norvauthority::issue;
namespace der = norvauthority::der;

namespace {

class CertificateIdentifierTest : public testing::Test {
protected:
    static void SetUpTestSuite() { initialize(); }
};

norvauthority::Key anyKey() {
    static const norvauthority::Key key = norvauthority::Key::ec();
    return key;
}

Buffer bufferOf(const Bytes& octets) {
    return {octets.data(), static_cast<unsigned int>(octets.size()), false};
}

NVX509::RefCertificate certificateOf(const norvauthority::Name& issuer, const std::string& serial,
                                     const char* keyIdentifier = "0a1bff") {
    norvauthority::CertificateRequest request{.subject = {{"CN", "Alice"}}, .key = anyKey(), .serial = serial};
    request.issuerName = issuer;
    request.subjectKeyIdentifier = keyIdentifier != nullptr;
    if (keyIdentifier != nullptr) {
        request.subjectKeyIdentifierValue = fromHex(keyIdentifier);
    }
    const Bytes encoded = issue(request).certificate.der;
    return NVX509::CertificateFactory().readDER(bufferOf(encoded));
}

Bytes bytesOf(const Buffer& buffer) {
    return {buffer.data(), buffer.data() + buffer.length()};
}

const norvauthority::Name& example() {
    static const norvauthority::Name name{{"O", "Example"}, {"CN", "Root"}};
    return name;
}

Bytes issuerAndSerial(const norvauthority::Name& issuer, const std::string& serialDer) {
    return der::sequence({issuer.der(), fromHex(serialDer)});
}

CertificateIdentifier decoded(const Bytes& octets) {
    return CertificateIdentifier::fromIssuerAndSerialNumber(bufferOf(octets));
}

} // namespace

TEST_F(CertificateIdentifierTest, OfACertificateByIssuerAndSerialNumber) {
    const NVX509::RefCertificate certificate = certificateOf(example(), "1f3c");
    const CertificateIdentifier name(certificate, NamedBy::issuerAndSerialNumber);
    EXPECT_EQ(name.namedBy(), NamedBy::issuerAndSerialNumber);
    EXPECT_EQ(bytesOf(name.octets()), issuerAndSerial(example(), "02021f3c"));
    EXPECT_TRUE(*name.issuer() == certificate->issuer());
    EXPECT_TRUE(*name.serialNumber() == certificate->serialNumber());
    EXPECT_EQ(name.asString(), "serial number 1f3c of CN=Root,O=Example");
    EXPECT_TRUE(name.names(certificate));
    EXPECT_TRUE(name == decoded(issuerAndSerial(example(), "02021f3c")));
    EXPECT_TRUE(name != decoded(issuerAndSerial(example(), "02021f3d")));
}

TEST_F(CertificateIdentifierTest, OfACertificateByKeyIdentifier) {
    const NVX509::RefCertificate certificate = certificateOf(example(), "1f");
    const CertificateIdentifier name(certificate, NamedBy::subjectKeyIdentifier);
    EXPECT_EQ(name.namedBy(), NamedBy::subjectKeyIdentifier);
    EXPECT_EQ(bytesOf(name.octets()), fromHex("0a1bff"));
    EXPECT_TRUE(name.issuer() == nullptr);
    EXPECT_TRUE(name.serialNumber().isNull());
    EXPECT_EQ(name.asString(), "key identifier 0a1bff");
    EXPECT_TRUE(name.names(certificate));
    EXPECT_TRUE(name == CertificateIdentifier::fromSubjectKeyIdentifier(bufferOf(fromHex("0a1bff"))));
    EXPECT_FALSE(name == CertificateIdentifier(certificate, NamedBy::issuerAndSerialNumber));
}

TEST_F(CertificateIdentifierTest, NamesComparesWhatTheNamesMean) {
    const CertificateIdentifier name = decoded(issuerAndSerial({{"O", "EXAMPLE"}, {"CN", "  root"}}, "02021f3c"));
    EXPECT_TRUE(name.names(certificateOf(example(), "1f3c"))) << "letter case and blanks do not count";
    EXPECT_FALSE(name.names(certificateOf(example(), "1f3d")));
    EXPECT_FALSE(name.names(certificateOf({{"CN", "Root"}}, "1f3c")));
    EXPECT_FALSE(name.names(NVX509::RefCertificate()));

    const auto key = CertificateIdentifier::fromSubjectKeyIdentifier(bufferOf(fromHex("0a1bff")));
    EXPECT_TRUE(key.names(certificateOf(example(), "1")));
    EXPECT_FALSE(key.names(certificateOf(example(), "1", "0a1b")));
    EXPECT_FALSE(key.names(certificateOf(example(), "1", nullptr)));
    EXPECT_FALSE(key.names(NVX509::RefCertificate()));
}

TEST_F(CertificateIdentifierTest, NegativeSerialNumbersNameTheirCertificateToo) {
    const CertificateIdentifier name = decoded(issuerAndSerial(example(), "0201e1"));
    EXPECT_TRUE(name.serialNumber().isNull());
    EXPECT_EQ(name.asString(), "serial number (negative) of CN=Root,O=Example");
    EXPECT_TRUE(name.names(certificateOf(example(), "-1f")));
    EXPECT_FALSE(name.names(certificateOf(example(), "1f")));
}

TEST_F(CertificateIdentifierTest, CopiesLiveOnAlone) {
    std::optional<CertificateIdentifier> first(decoded(issuerAndSerial(example(), "02021f3c")));
    const CertificateIdentifier copy = *first;
    const NVX509::RefDistinguishedName issuer = first->issuer();
    first.reset();
    EXPECT_EQ(NVX509::displayName(*issuer), "CN=Root,O=Example");
    EXPECT_EQ(copy.asString(), "serial number 1f3c of CN=Root,O=Example");
    EXPECT_TRUE(copy.names(certificateOf(example(), "1f3c")));
}

TEST_F(CertificateIdentifierTest, WhatIsNoNameIsRefused) {
    const auto refused = [](auto use, const std::string& why) {
        const auto thrown = norvtest::thrownBy([&] { use(); });
        norvtest::expectFailure(thrown, "CMS::CertificateIdentifier::CertificateIdentifier", 4, "CMSIdentifier");
        EXPECT_EQ(norvtest::detailOf(thrown), why);
        EXPECT_TRUE(norvtest::errorQueueIsEmpty());
    };
    refused([] { CertificateIdentifier(NVX509::RefCertificate(), NamedBy::issuerAndSerialNumber); },
            "there is no certificate");
    refused([] { CertificateIdentifier(NVX509::RefCertificate(), NamedBy::subjectKeyIdentifier); },
            "there is no certificate");
    refused([] { CertificateIdentifier(certificateOf(example(), "1", nullptr), NamedBy::subjectKeyIdentifier); },
            "the certificate has no subject key identifier");
    Bytes name = issuerAndSerial(example(), "02021f3c");
    refused([] { decoded({}); }, "no issuer and serial number");
    refused([] { decoded(fromHex("3000")); }, "no issuer and serial number");
    refused([&] { decoded({name.begin(), name.end() - 1}); }, "no issuer and serial number");
    name.push_back(0);
    refused([&] { decoded(name); }, "no issuer and serial number");
}
