#include "CMSVerification/Judge.h"

#include "openssl/AlgorithmName.h"
#include "openssl/ErrorQueue.h"
#include "openssl/Pkcs7.h"
#include "openssl/Signatures.h"
#include "openssl/Signers.h"

#include <openssl/objects.h>

#include <algorithm>
#include <cstring>

namespace Norvane::Crypto::CMS {

namespace {

using openssl::KeyFamily;

SignatureResult refused(SignatureReason reason) {
    return {SignatureVerdict::refused, reason, {}, {}};
}
SignatureResult unsupported(SignatureReason reason, const ASN1_OBJECT* algorithm = nullptr) {
    return {SignatureVerdict::unsupported, reason, openssl::usualName(algorithm), {}};
}

/// Whether a body without signed attributes may be signed so (RFC 5652, 5.3).
std::optional<SignatureReason> faultWithoutAttributes(const BodyFacts& body) noexcept {
    if (body.isAttributeSet) {
        return SignatureReason::bodyIsAttributes;
    }
    if (OBJ_obj2nid(body.contentType) != NID_pkcs7_data) {
        return SignatureReason::attributesMissing;
    }
    return std::nullopt;
}

/// What RFC 5652 forbids among the signed attributes, apart from the values of digests.
std::optional<SignatureReason> faultOfAttributes(const PKCS7_SIGNER_INFO* signer, const ASN1_OBJECT* contentType) {
    const auto type = openssl::signedAttribute(signer, NID_pkcs9_contentType);
    if (type.count == 0) {
        return SignatureReason::contentTypeMissing;
    }
    if (type.value == nullptr) {
        return SignatureReason::contentTypeRepeated;
    }
    if (type.value->type != V_ASN1_OBJECT || OBJ_cmp(type.value->value.object, contentType) != 0) {
        return SignatureReason::contentTypeDiffers;
    }
    const auto digest = openssl::signedAttribute(signer, NID_pkcs9_messageDigest);
    if (digest.count == 0) {
        return SignatureReason::messageDigestMissing;
    }
    if (digest.value == nullptr) {
        return SignatureReason::messageDigestRepeated;
    }
    if (digest.value->type != V_ASN1_OCTET_STRING) {
        return SignatureReason::messageDigestMissing;
    }
    const auto time = openssl::signedAttribute(signer, NID_pkcs9_signingTime);
    return time.count != 0 && time.value == nullptr ? std::optional(SignatureReason::signingTimeRepeated)
                                                    : std::nullopt;
}

bool announces(const ASN1_TYPE* value, const BodyDigest& digest) {
    const int length = EVP_MD_get_size(digest.algorithm);
    return ASN1_STRING_length(value->value.octet_string) == length &&
           std::memcmp(ASN1_STRING_get0_data(value->value.octet_string), digest.value.data(),
                       static_cast<std::size_t>(length)) == 0;
}

/// The digest of the signed attributes; false when they cannot be encoded.
bool digestAttributes(const PKCS7_SIGNER_INFO* signer, BodyDigest& digest) {
    int length = 0;
    const auto attributes = openssl::encodeSignedAttributes(signer, length);
    return length != 0 && EVP_Digest(attributes.get(), static_cast<std::size_t>(length), digest.value.data(), nullptr,
                                     digest.algorithm, nullptr) == 1;
}

NVX509::RefCertificate sharedHandle(X509* certificate) {
    return X509_up_ref(certificate) == 1 ? NVX509::CertificateFactory()(certificate, true) : NVX509::RefCertificate();
}

} // namespace

SignatureResult Judge::operator()(const PKCS7_SIGNER_INFO* signer, const Candidates& candidates) {
    const openssl::ErrorMark mark;
    const auto about = [](SignatureResult result, X509* certificate) {
        if (certificate != nullptr) {
            result.certificate = sharedHandle(certificate);
        }
        return result;
    };
    X509* const first = candidates.certificates.empty() ? nullptr : candidates.certificates.front();
    BodyDigest covered;
    if (auto fault = faultBesideSignature(signer, covered)) {
        return about(std::move(*fault), first);
    }
    if (first == nullptr) {
        return refused(SignatureReason::certificateMissing);
    }
    std::optional<SignatureResult> answer;
    for (X509* certificate : candidates.certificates) {
        SignatureResult result = tryCertificate(signer, covered, certificate);
        if (result.verdict == SignatureVerdict::good) {
            return about(std::move(result), certificate);
        }
        // One that cannot be tried leaves the question open, whatever the others said.
        if (!answer || (answer->verdict == SignatureVerdict::refused && result.verdict != SignatureVerdict::refused)) {
            answer = about(std::move(result), certificate);
        }
    }
    if (candidates.hasMore && answer->verdict == SignatureVerdict::refused) {
        return about(unsupported(SignatureReason::tooManyCertificates), first);
    }
    return *answer;
}

const BodyDigest* Judge::digestFor(const EVP_MD* algorithm) const {
    const auto found = std::ranges::find_if(m_body.digests, [&](const BodyDigest& digest) {
        return EVP_MD_get_type(digest.algorithm) == EVP_MD_get_type(algorithm);
    });
    return found == m_body.digests.end() ? nullptr : &*found;
}

std::optional<SignatureResult> Judge::faultBesideSignature(const PKCS7_SIGNER_INFO* signer, BodyDigest& covered) const {
    if (m_body.differsFromContent) {
        return refused(SignatureReason::contentDiffers);
    }
    const bool hasAttributes = openssl::hasSignedAttributes(signer);
    if (const auto fault =
            hasAttributes ? faultOfAttributes(signer, m_body.contentType) : faultWithoutAttributes(m_body)) {
        return refused(*fault);
    }
    const EVP_MD* algorithm = openssl::signerDigest(signer);
    if (algorithm == nullptr) {
        return unsupported(SignatureReason::digestAlgorithm, openssl::algorithmIdentifier(signer->digest_alg));
    }
    const BodyDigest* digest = digestFor(algorithm);
    if (digest == nullptr) {
        return unsupported(SignatureReason::tooManyDigests);
    }
    if (hasAttributes && !announces(openssl::signedAttribute(signer, NID_pkcs9_messageDigest).value, *digest)) {
        return refused(SignatureReason::bodyDiffers);
    }
    if (openssl::signatureFamily(signer->digest_enc_alg) == KeyFamily::other) {
        return unsupported(SignatureReason::signatureAlgorithm, openssl::algorithmIdentifier(signer->digest_enc_alg));
    }
    covered = *digest;
    if (hasAttributes && !digestAttributes(signer, covered)) {
        return refused(SignatureReason::signatureWrong);
    }
    return std::nullopt;
}

SignatureResult Judge::tryCertificate(const PKCS7_SIGNER_INFO* signer, const BodyDigest& covered, X509* certificate) {
    const ASN1_OBJECT* algorithm = openssl::publicKeyAlgorithm(certificate);
    EVP_PKEY* key = X509_get0_pubkey(certificate);
    if (key == nullptr) {
        return openssl::alwaysDecodes(algorithm) ? refused(SignatureReason::keyUnusable)
                                                 : unsupported(SignatureReason::keyAlgorithm, algorithm);
    }
    const KeyFamily family = openssl::keyFamily(key);
    if (family == KeyFamily::other) {
        return unsupported(SignatureReason::keyAlgorithm, algorithm);
    }
    if (family != openssl::signatureFamily(signer->digest_enc_alg)) {
        return refused(SignatureReason::algorithmDiffers);
    }
    const std::uint64_t work = openssl::verificationWork(key);
    if (work > maximumKeyWork) {
        return unsupported(SignatureReason::keyTooLarge, algorithm);
    }
    if (work > maximumWork - m_spent) {
        return unsupported(SignatureReason::tooMuchWork);
    }
    m_spent += work;
    switch (openssl::verifyDigest(covered.value.data(), covered.algorithm, signer->enc_digest, key)) {
    case openssl::Verified::good:
        return {SignatureVerdict::good, SignatureReason::none, {}, {}};
    case openssl::Verified::impossible:
        return unsupported(SignatureReason::keyAlgorithm, algorithm);
    default:
        return refused(SignatureReason::signatureWrong);
    }
}

} // namespace Norvane::Crypto::CMS
