// Signed structures: judged over a body and over what they carry, within the limits, and good to us only when OpenSSL's
// other implementation has them good, too.
#include "Driver.h"

#include <norvcmsg/Media.h>
#include <norvcrypto/CMSVerification.h>

#include <openssl/cms.h>
#include <openssl/cmserr.h>
#include <openssl/err.h>

#include <cstring>

using namespace Norvane;
using namespace Norvane::Crypto;

namespace {

constexpr char body[] = "body";

/// The announced digests are what `CMS_verify` makes before it looks at who uses them: one that no signer uses and that is
/// unknown ends it, and so does a signer whose digest is not among them. Where there are none at all, it ends without a reason. Those
/// of the signers alone are asked then (RFC 5652, 5.1: an aid to who reads in one pass).
bool failsForAnnouncedDigests() {
    if (ERR_peek_error() == 0) {
        return true;
    }
    for (unsigned long error = ERR_get_error(); error != 0; error = ERR_get_error()) {
        const int reason = ERR_GET_REASON(error);
        if (ERR_GET_LIB(error) == ERR_LIB_CMS &&
            (reason == CMS_R_UNKNOWN_DIGEST_ALGORITHM || reason == CMS_R_NO_MATCHING_DIGEST)) {
            return true;
        }
    }
    return false;
}

/// Whether the signer's key has signed these very bytes.
bool isSignatureOf(CMS_SignerInfo* signer, EVP_PKEY* key, const EVP_MD* digest, const Buffer& content) {
    const ASN1_OCTET_STRING* const signature = CMS_SignerInfo_get0_signature(signer);
    EVP_MD_CTX* const context = EVP_MD_CTX_new();
    const bool good = EVP_DigestVerifyInit(context, nullptr, digest, nullptr, key) == 1 &&
                      EVP_DigestVerify(context, ASN1_STRING_get0_data(signature),
                                       static_cast<std::size_t>(ASN1_STRING_length(signature)), content.data(),
                                       content.length()) == 1;
    EVP_MD_CTX_free(context);
    return good;
}

/// Whether the signer's key has signed the attributes, and these have the digest of the content.
bool areAttributesOf(CMS_SignerInfo* signer, const EVP_MD* digest, const Buffer& content) {
    const auto* const said = static_cast<const ASN1_OCTET_STRING*>(
        CMS_signed_get0_data_by_OBJ(signer, OBJ_nid2obj(NID_pkcs9_messageDigest), -3, V_ASN1_OCTET_STRING));
    unsigned char made[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    return said != nullptr && CMS_SignerInfo_verify(signer) == 1 &&
           EVP_Digest(content.data(), content.length(), made, &length, digest, nullptr) == 1 &&
           ASN1_STRING_length(said) == static_cast<int>(length) &&
           std::memcmp(ASN1_STRING_get0_data(said), made, length) == 0;
}

bool areSignersGood(CMS_ContentInfo* structure, const Buffer& content) {
    if (CMS_set1_signers_certs(structure, nullptr, 0) < 0) { // counts those that it had not found before
        return false;
    }
    STACK_OF(CMS_SignerInfo)* const signers = CMS_get0_SignerInfos(structure);
    for (int at = 0; at < sk_CMS_SignerInfo_num(signers); ++at) {
        CMS_SignerInfo* const signer = sk_CMS_SignerInfo_value(signers, at);
        EVP_PKEY* key = nullptr;
        X509_ALGOR* algorithm = nullptr;
        CMS_SignerInfo_get0_algs(signer, &key, nullptr, &algorithm, nullptr);
        const EVP_MD* const digest = EVP_get_digestbyobj(algorithm->algorithm);
        const bool good = key != nullptr && digest != nullptr &&
                          (CMS_signed_get_attr_count(signer) >= 0 ? areAttributesOf(signer, digest, content)
                                                                  : isSignatureOf(signer, key, digest, content));
        if (!good) {
            return false;
        }
    }
    return true;
}

Buffer contentOf(CMS_ContentInfo* structure, bool detached) {
    if (detached) {
        return Buffer(body, sizeof body - 1, false);
    }
    ASN1_OCTET_STRING** const content = CMS_get0_content(structure);
    return content == nullptr || *content == nullptr
               ? Buffer()
               : Buffer(ASN1_STRING_get0_data(*content), static_cast<unsigned int>(ASN1_STRING_length(*content)),
                        false);
}

bool isGoodToOpenSsl(const Buffer& input, bool detached) {
    const fuzz::Uncounted aside;
    const unsigned char* at = input.data();
    CMS_ContentInfo* structure = d2i_CMS_ContentInfo(nullptr, &at, static_cast<long>(input.length()));
    // OpenSSL reads memory by a BIO of its own, which it loses where it does not begin.
    BIO* content = detached ? BIO_push(BIO_new(BIO_f_buffer()), BIO_new_mem_buf(body, sizeof body - 1)) : nullptr;
    BIO* out = BIO_new(BIO_s_null());
    bool good = structure == nullptr || // not every structure that PKCS#7 allows is one
                CMS_verify(structure, nullptr, nullptr, content, out, CMS_NO_SIGNER_CERT_VERIFY | CMS_BINARY) == 1;
    if (!good && failsForAnnouncedDigests()) {
        good = areSignersGood(structure, contentOf(structure, detached));
    }
    BIO_free(out);
    BIO_free_all(content);
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
