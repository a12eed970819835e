#include "CMSVerification/Trials.h"

#include "openssl/AlgorithmName.h"
#include "openssl/ErrorQueue.h"
#include "openssl/KeyComparison.h"
#include "openssl/Signers.h"

#include <algorithm>
#include <new>

namespace Norvane::Crypto::CMS {

SignatureResult refused(SignatureReason reason) {
    return {SignatureVerdict::refused, reason, {}, {}};
}

SignatureResult unsupported(SignatureReason reason, const ASN1_OBJECT* algorithm) {
    return {SignatureVerdict::unsupported, reason, openssl::usualName(algorithm), {}};
}

SignatureResult about(SignatureResult result, X509* certificate) {
    if (certificate != nullptr && X509_up_ref(certificate) == 1) {
        result.certificate = NVX509::CertificateFactory()(certificate, true);
    }
    return result;
}

std::optional<SignatureReason> faultOfAttributes(const FoundAttribute& contentType, const FoundAttribute& messageDigest,
                                                 const FoundAttribute& signingTime) noexcept {
    if (!contentType.isThere) {
        return SignatureReason::contentTypeMissing;
    }
    if (!contentType.hasOneValue) {
        return SignatureReason::contentTypeRepeated;
    }
    if (!contentType.isRight) {
        return SignatureReason::contentTypeDiffers;
    }
    if (!messageDigest.isThere) {
        return SignatureReason::messageDigestMissing;
    }
    if (!messageDigest.hasOneValue) {
        return SignatureReason::messageDigestRepeated;
    }
    if (!messageDigest.isRight) {
        return SignatureReason::messageDigestMissing;
    }
    return signingTime.isThere && !signingTime.hasOneValue ? std::optional(SignatureReason::signingTimeRepeated)
                                                           : std::nullopt;
}

bool Trials::isWithoutKey(X509* certificate) {
    const openssl::ErrorMark mark;
    if (X509_get0_pubkey(certificate) != nullptr) {
        return false;
    }
    mark.throwWithoutMemory();
    const auto isSame = [certificate](const openssl::CertificatePtr& one) { return one.get() == certificate; };
    if (certificate != nullptr && std::ranges::none_of(m_withoutKey, isSame)) {
        if (openssl::keyDecodesNow(certificate)) {
            throw std::bad_alloc(); // there was none when the certificate was decoded
        }
        X509_up_ref(certificate);
        openssl::CertificatePtr kept(certificate);
        m_withoutKey.push_back(std::move(kept));
    }
    return true;
}

SignatureResult Trials::operator()(const SignatureInQuestion& signature, X509* certificate) {
    const ASN1_OBJECT* algorithm = openssl::publicKeyAlgorithm(certificate);
    const openssl::ErrorMark mark;
    if (isWithoutKey(certificate)) {
        return openssl::alwaysDecodes(algorithm) ? refused(SignatureReason::keyUnusable)
                                                 : unsupported(SignatureReason::keyAlgorithm, algorithm);
    }
    EVP_PKEY* key = X509_get0_pubkey(certificate);
    if (!openssl::isSigningKey(key)) {
        return unsupported(SignatureReason::keyAlgorithm, algorithm);
    }
    if (!openssl::fits(signature.scheme, key)) {
        return refused(SignatureReason::algorithmDiffers);
    }
    const std::uint64_t work = openssl::verificationWork(certificate);
    if (work > maximumKeyWork) {
        return unsupported(SignatureReason::keyTooLarge, algorithm);
    }
    for (const std::vector<unsigned char>& covered : signature.covered) {
        if (work > maximumWork - m_spent) {
            return unsupported(SignatureReason::tooMuchWork);
        }
        m_spent += work;
        switch (openssl::verify(signature.scheme, signature.digest, covered, signature.signature, key)) {
        case openssl::Verified::good:
            return {SignatureVerdict::good, SignatureReason::none, {}, {}};
        case openssl::Verified::impossible:
            return unsupported(SignatureReason::keyAlgorithm, algorithm);
        case openssl::Verified::wrong:
            break;
        }
    }
    return refused(SignatureReason::signatureWrong);
}

} // namespace Norvane::Crypto::CMS
