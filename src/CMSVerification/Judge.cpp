#include "CMSVerification/Judge.h"

#include "openssl/AlgorithmName.h"
#include "openssl/ErrorQueue.h"
#include "openssl/Pkcs7.h"
#include "openssl/Signers.h"

#include <openssl/objects.h>

#include <algorithm>
#include <new>
#include <utility>

namespace Norvane::Crypto::CMS {

namespace {

using openssl::KeyFamily;

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

/// What stands of an attribute among the signed ones, when its value must be of that type.
FoundAttribute found(const openssl::SignedAttribute& attribute, int type) noexcept {
    return {attribute.count != 0, attribute.value != nullptr,
            attribute.value != nullptr && attribute.value->type == type};
}

std::optional<SignatureReason> faultIn(const PKCS7_SIGNER_INFO* signer, const ASN1_OBJECT* contentType) noexcept {
    const auto type = openssl::signedAttribute(signer, NID_pkcs9_contentType);
    FoundAttribute foundType = found(type, V_ASN1_OBJECT);
    foundType.isRight = foundType.isRight && OBJ_cmp(type.value->value.object, contentType) == 0;
    const auto time = openssl::signedAttribute(signer, NID_pkcs9_signingTime);
    if (const auto fault = faultOfAttributes(
            foundType, found(openssl::signedAttribute(signer, NID_pkcs9_messageDigest), V_ASN1_OCTET_STRING),
            {time.count != 0, time.value != nullptr})) {
        return fault;
    }
    if (openssl::hasMisplacedAttribute(signer)) {
        return SignatureReason::attributeMisplaced;
    }
    const auto receipt = openssl::signedAttribute(signer, NID_id_smime_aa_receiptRequest);
    return receipt.count != 0 && receipt.value == nullptr ? std::optional(SignatureReason::receiptRequestRepeated)
                                                          : std::nullopt;
}

framing::Octets octetsOf(const ASN1_OCTET_STRING* string) noexcept {
    return string == nullptr
               ? framing::Octets()
               : framing::Octets(ASN1_STRING_get0_data(string), static_cast<std::size_t>(ASN1_STRING_length(string)));
}

bool announces(const ASN1_TYPE* value, const BodyDigest& digest) {
    return std::ranges::equal(octetsOf(value->value.octet_string), framing::Octets(digest.value.data(), digest.length));
}

/// The digest of the signed attributes; false when they cannot be encoded. \throws std::bad_alloc
bool digestAttributes(const PKCS7_SIGNER_INFO* signer, BodyDigest& digest) {
    const openssl::ErrorMark mark;
    int length = 0;
    const auto attributes = openssl::encodeSignedAttributes(signer, length);
    if (length == 0) {
        mark.throwWithoutMemory();
        return false;
    }
    // The body was digested with the same algorithm: no memory is what is left.
    if (EVP_Digest(attributes.get(), static_cast<std::size_t>(length), digest.value.data(), nullptr, digest.algorithm,
                   nullptr) != 1) {
        throw std::bad_alloc();
    }
    return true;
}

} // namespace

SignatureResult Judge::operator()(const PKCS7_SIGNER_INFO* signer, const Candidates& candidates) {
    const openssl::ErrorMark mark;
    X509* const first = candidates.certificates.empty() ? nullptr : candidates.certificates.front();
    BodyDigest covered;
    if (auto fault = faultBesideSignature(signer, covered)) {
        return about(std::move(*fault), first);
    }
    const SignatureInQuestion signature{
        openssl::schemeOf(openssl::signatureFamily(signer->digest_enc_alg)),
        covered.algorithm,
        {{covered.value.begin(), covered.value.begin() + static_cast<long>(covered.length)}},
        octetsOf(signer->enc_digest)};
    return bestOf(candidates.certificates, candidates.hasMore,
                  [&](X509* certificate) { return tryCertificate(signature, certificate); });
}

std::optional<SignatureResult> Judge::faultBesideSignature(const PKCS7_SIGNER_INFO* signer, BodyDigest& covered) const {
    if (m_body.differsFromContent) {
        return refused(SignatureReason::contentDiffers);
    }
    const bool hasAttributes = openssl::hasSignedAttributes(signer);
    if (const auto fault = hasAttributes ? faultIn(signer, m_body.contentType) : faultWithoutAttributes(m_body)) {
        return refused(*fault);
    }
    const EVP_MD* algorithm = openssl::signerDigest(signer);
    if (algorithm == nullptr) {
        return unsupported(SignatureReason::digestAlgorithm, openssl::algorithmIdentifier(signer->digest_alg));
    }
    const BodyDigest* digest = digestBy(algorithm, m_body.digests);
    if (digest == nullptr && m_body.digests.size() < maximumDigests) { // it did not start: OpenSSL knows but its name
        return unsupported(SignatureReason::digestAlgorithm, openssl::algorithmIdentifier(signer->digest_alg));
    }
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

SignatureResult Judge::tryCertificate(const SignatureInQuestion& signature, X509* certificate) {
    const EVP_PKEY* key = X509_get0_pubkey(certificate);
    if (key != nullptr && openssl::keyFamily(key) == KeyFamily::other) { // no signer of PKCS#7 has such a key
        return unsupported(SignatureReason::keyAlgorithm, openssl::publicKeyAlgorithm(certificate));
    }
    return m_trials(signature, certificate);
}

} // namespace Norvane::Crypto::CMS
