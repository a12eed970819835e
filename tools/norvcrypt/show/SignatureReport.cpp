#include "show/SignatureReport.h"
#include "cms/Judging.h"
#include "openssl/CertificateDetails.h"
#include "openssl/CmsNames.h"

#include <norvcmsg/Escape.h>

namespace norvcrypt {

namespace CMS = Norvane::Crypto::CMS;
namespace NVX509 = Norvane::Crypto::NVX509;
using CMS::SignatureReason;
using CMS::SignatureResult;
using CMS::SignatureVerdict;
using CMS::SignedReader;

namespace {

/// The numbers under which operators know what the library logs about a signature.
const char* eventOf(SignatureReason reason) {
    switch (reason) {
    case SignatureReason::messageDigestMissing:
        return "0x300004F";
    case SignatureReason::bodyDiffers:
        return "0x3000050";
    case SignatureReason::keyUnusable:
        return "0x3000051";
    case SignatureReason::signatureWrong:
        return "0x3000052";
    default:
        return "";
    }
}

/// Programs depend on these.
const char* codeOf(SignatureReason reason) {
    switch (reason) {
    case SignatureReason::none:
        return "none";
    case SignatureReason::bodyDiffers:
        return "body-differs";
    case SignatureReason::signatureWrong:
        return "signature-wrong";
    case SignatureReason::contentDiffers:
        return "content-differs";
    case SignatureReason::certificateMissing:
        return "certificate-missing";
    case SignatureReason::keyUnusable:
        return "key-unusable";
    case SignatureReason::algorithmDiffers:
        return "algorithm-differs";
    case SignatureReason::attributesMissing:
        return "attributes-missing";
    case SignatureReason::contentTypeMissing:
        return "content-type-missing";
    case SignatureReason::contentTypeRepeated:
        return "content-type-repeated";
    case SignatureReason::contentTypeDiffers:
        return "content-type-differs";
    case SignatureReason::messageDigestMissing:
        return "message-digest-missing";
    case SignatureReason::messageDigestRepeated:
        return "message-digest-repeated";
    case SignatureReason::signingTimeRepeated:
        return "signing-time-repeated";
    case SignatureReason::bodyIsAttributes:
        return "body-is-attributes";
    case SignatureReason::certificateDamaged:
        return "certificate-damaged";
    case SignatureReason::digestDiffers:
        return "digest-differs";
    case SignatureReason::parametersWrong:
        return "parameters-wrong";
    case SignatureReason::signingCertificateDiffers:
        return "signing-certificate-differs";
    case SignatureReason::contentTypeUnexpected:
        return "content-type-unexpected";
    case SignatureReason::attributeMisplaced:
        return "attribute-misplaced";
    case SignatureReason::receiptRequestRepeated:
        return "receipt-request-repeated";
    case SignatureReason::digestAlgorithm:
        return "digest-algorithm";
    case SignatureReason::signatureAlgorithm:
        return "signature-algorithm";
    case SignatureReason::keyAlgorithm:
        return "key-algorithm";
    case SignatureReason::keyTooLarge:
        return "key-too-large";
    case SignatureReason::tooManyDigests:
        return "too-many-digests";
    case SignatureReason::tooManyCertificates:
        return "too-many-certificates";
    case SignatureReason::tooMuchWork:
        return "too-much-work";
    case SignatureReason::digestNotAnnounced:
        return "digest-not-announced";
    case SignatureReason::contentNotKept:
        return "content-not-kept";
    case SignatureReason::attributesNotDer:
        return "attributes-not-der";
    case SignatureReason::certificateRefused:
        return "certificate-refused";
    }
    return "other";
}

std::string certificateText(const NVX509::RefCertificate& certificate) {
    return "certificate SHA-256 " + fingerprint(certificate) + " " + displayName(certificate->subject());
}

bool hasCertificate(const SignatureResult& result) {
    return static_cast<X509*>(result.certificate) != nullptr;
}

/// Escaped for display.
std::string reasonText(const SignatureResult& result, const std::string& name) {
    if (result.reason == SignatureReason::certificateMissing && !name.empty())
        return "no certificate with " + name;
    std::string text = CMS::textOf(result.reason);
    if (!result.algorithm.empty())
        text += ": " + Norvane::escapeForDisplay(result.algorithm);
    return text;
}

/// To be shown as it is; empty when it does not decode.
std::string certificateNameIn(const SignedReader::Signer& signer) {
    const auto name = nameOfCertificate(signer);
    return name ? nameOf(*name) : std::string();
}

} // namespace

std::string verdictText(const SignatureResult& result, const SignedReader::Signer& signer) {
    return verdictText(result, certificateNameIn(signer));
}

std::string verdictText(const SignatureResult& result, const std::string& name) {
    std::string text = "good signature";
    if (result.verdict != SignatureVerdict::good) {
        text = (result.verdict == SignatureVerdict::refused ? "NOT VERIFIED, " : "NOT JUDGED, ") +
               reasonText(result, name);
        if (const std::string event = eventOf(result.reason); !event.empty())
            text += " (event " + event + ")";
    }
    return hasCertificate(result) ? text + ", " + certificateText(result.certificate) : text;
}

std::string detailsText(const SignedReader::Signer& signer) {
    std::string text = "signature algorithm " + signer.signatureAlgorithm() + ", digest " + signer.digestAlgorithm();
    if (const auto time = signer.signingTime())
        text += ", says to have signed at " + isoTime(*time);
    return Norvane::escapeForDisplay(text);
}

const char* verdictName(SignatureVerdict verdict) {
    switch (verdict) {
    case SignatureVerdict::good:
        return "good";
    case SignatureVerdict::unsupported:
        return "unsupported";
    case SignatureVerdict::refused:
        break;
    }
    return "refused";
}

Description resultFacts(const SignatureResult& result, const std::string& name) {
    Description facts{{"verdict", verdictName(result.verdict)}};
    if (result.verdict != SignatureVerdict::good) {
        facts["reason"] = codeOf(result.reason);
        facts["text"] = reasonText(result, name);
        if (const std::string event = eventOf(result.reason); !event.empty())
            facts["event"] = event;
    }
    if (hasCertificate(result))
        facts["certificate"] = certificateFacts(result.certificate);
    return facts;
}

Description signerFacts(const SignatureResult& result, const SignedReader::Signer& signer) {
    Description facts = resultFacts(result, certificateNameIn(signer));
    facts["signatureAlgorithm"] = signer.signatureAlgorithm();
    facts["digestAlgorithm"] = signer.digestAlgorithm();
    if (const auto time = signer.signingTime())
        facts["signingTime"] = isoTime(*time);
    return facts;
}

} // namespace norvcrypt
