// Attributes that stand where they may not, through the views of PKCS#7: as the reader of signed messages takes them.
#include "support/SignedMessages.h"

#include <norvcmsg/Media.h>
#include <norvcrypto/CMS.h>
#include <norvcrypto/CMSVerification.h>

using namespace cmstest;
using CMS::SignatureReason;
using CMS::SignatureVerdict;

namespace {

const Bytes& body() {
    static const Bytes content = bodyOf(300);
    return content;
}

CMS::SignatureResult resultOf(const Bytes& structure) {
    Norvane::MemoryMediaIn in(Norvane::Buffer(structure.data(), static_cast<unsigned int>(structure.size()), true));
    const auto report = CMS::verifyEmbeddedSignatures(CMS::RefContentInfo(in));
    EXPECT_EQ(report.signers.size(), 1U);
    return report.signers.empty() ? CMS::SignatureResult{} : report.signers.front();
}

void expectRefused(SignatureReason reason, const Bytes& structure) {
    const CMS::SignatureResult result = resultOf(structure);
    EXPECT_EQ(result.verdict, SignatureVerdict::refused);
    EXPECT_EQ(result.reason, reason) << CMS::textOf(result.reason);
}

void expectGood(const Bytes& structure) {
    const CMS::SignatureResult result = resultOf(structure);
    EXPECT_EQ(result.verdict, SignatureVerdict::good) << CMS::textOf(result.reason);
}

Bytes message(const std::vector<Bytes>& more, const std::vector<Bytes>& unsignedOnes, bool hasSignedOnes = true) {
    HandMadeSigner signer;
    if (hasSignedOnes) {
        signer.attributes = usualAttributes(body());
        signer.attributes->insert(signer.attributes->end(), more.begin(), more.end());
    }
    signer.unsignedAttributes = unsignedOnes;
    return attachedBy(signer, body());
}

} // namespace

TEST(MisplacedAttributes, ThoseThatMustBeSigned) {
    const Bytes time = der::element(der::utcTimeTag, norvauthority::bytes("250102030405Z"));
    const std::string ofSmime = "1.2.840.113549.1.9.16.2.";
    for (const std::string& type : {std::string(contentTypeAttribute), std::string(messageDigestAttribute),
                                    std::string(signingTimeAttribute), ofSmime + "1", ofSmime + "12", ofSmime + "47"}) {
        SCOPED_TRACE(type);
        expectRefused(SignatureReason::attributeMisplaced, message({}, {attribute(type, {time})}));
        expectGood(message({}, {attribute(type, {time})}, false));
    }
    expectRefused(SignatureReason::attributeMisplaced, message({attribute(countersignatureAttribute, {time})}, {}));
    expectGood(message({attribute("1.2.3.4", {time})}, {attribute("1.2.3.4", {time, time})}));
}

TEST(MisplacedAttributes, AReceiptRequestThatStandsTwice) {
    const Bytes value = der::octetString({1});
    const std::string receiptRequest = "1.2.840.113549.1.9.16.2.1";
    const Bytes once = attribute(receiptRequest, {value});
    expectGood(message({once}, {}));
    for (const Bytes& repeated : {message({once, once}, {}), message({attribute(receiptRequest, {value, value})}, {}),
                                  message({attribute(receiptRequest, {})}, {})}) {
        expectRefused(SignatureReason::receiptRequestRepeated, repeated);
    }
}
