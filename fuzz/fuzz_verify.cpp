// Signed structures: judged over a body and over what they carry, within the limits, and good to us only when OpenSSL's
// other implementation has them good, too.
#include "Driver.h"

#include <norvcmsg/Media.h>
#include <norvcrypto/CMSVerification.h>

#include <openssl/cms.h>

using namespace Norvane;
using namespace Norvane::Crypto;

namespace {

constexpr char body[] = "body";

bool isGoodToOpenSsl(const Buffer& input, bool detached) {
    const fuzz::Uncounted aside;
    const unsigned char* at = input.data();
    CMS_ContentInfo* structure = d2i_CMS_ContentInfo(nullptr, &at, static_cast<long>(input.length()));
    BIO* content = detached ? BIO_new_mem_buf(body, sizeof body - 1) : nullptr;
    BIO* out = BIO_new(BIO_s_null());
    const bool good =
        structure == nullptr || // not every structure that PKCS#7 allows is one
        CMS_verify(structure, nullptr, nullptr, content, out, CMS_NO_SIGNER_CERT_VERIFY | CMS_BINARY) == 1;
    BIO_free(out);
    BIO_free(content);
    CMS_ContentInfo_free(structure);
    ERR_clear_error();
    return good;
}

void checkReport(const CMS::SignatureReport& report) {
    fuzz::require(report.signers.size() <= CMS::maximumSigners);
    for (const CMS::SignatureResult& signer : report.signers) {
        const bool good = signer.verdict == CMS::SignatureVerdict::good;
        fuzz::require(good == (signer.reason == CMS::SignatureReason::none));
        fuzz::require(!good || !signer.certificate.isNull());
        fuzz::require(*CMS::textOf(signer.reason) != '\0' || good);
    }
}

void checkAttributeDetector(const Buffer& input) {
    CMS::AttributeSetDetector whole;
    whole.update(input.data(), input.length());
    CMS::AttributeSetDetector pieces;
    for (unsigned int at = 0; at < input.length(); ++at) {
        pieces.update(input.data() + at, 1);
    }
    fuzz::require(whole.isAttributeSet() == pieces.isAttributeSet());
}

CMS::RefContentInfo structureIn(const Buffer& input) {
    MemoryMediaIn source(input);
    try {
        return CMS::RefContentInfo(source);
    } catch (const Exception&) {
        static_cast<void>(CMS::unsupportedPart(input));
        throw;
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto judge = [](const Buffer& input) {
        checkAttributeDetector(input);
        const CMS::RefContentInfo structure = structureIn(input);
        MemoryMediaIn given{std::string(body)};
        const CMS::SignatureReport report = CMS::verifySignatures(structure, given);
        checkReport(report);
        if (CMS::carriedContent(structure) == CMS::CarriedContent::none) {
            fuzz::require(!report.allGood() || isGoodToOpenSsl(input, true));
        } else {
            const CMS::SignatureReport carried = CMS::verifyEmbeddedSignatures(structure);
            checkReport(carried);
            fuzz::require(!carried.allGood() || isGoodToOpenSsl(input, false));
        }
    };
    // `maximumWork` squarings of 16 words for each of the two reports; what that leaves out, in proportion.
    return fuzz::run(data, size, judge, {.constant = 2 * CMS::maximumWork * 2 * 16 * 16, .perOctet = 20'000});
}
