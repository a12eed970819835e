#pragma once

/// \file
/// What all judges of signers share: the attributes that RFC 5652 demands, and one signature tried with certificates.

#include "framing/Elements.h"
#include "openssl/Pointers.h"
#include "openssl/SignatureScheme.h"

#include <norvcrypto/CMSVerification.h>

#include <cstdint>
#include <optional>
#include <utility>
#include <vector>

namespace Norvane::Crypto::CMS {

SignatureResult refused(SignatureReason reason);
SignatureResult unsupported(SignatureReason reason, const ASN1_OBJECT* algorithm = nullptr);
/// A verdict with the certificate that it is about, which may be null.
SignatureResult about(SignatureResult result, X509* certificate);

/// What stands of an attribute among the signed ones.
struct FoundAttribute {
    bool isThere = false;     ///< once at least
    bool hasOneValue = false; ///< it stands there once, with one value
    bool isRight = false;     ///< and that is what it must be
};

/// What RFC 5652 forbids among the signed attributes of a body, apart from the values of digests.
std::optional<SignatureReason> faultOfAttributes(const FoundAttribute& contentType, const FoundAttribute& messageDigest,
                                                 const FoundAttribute& signingTime) noexcept;

/// A signature and what it must belong to.
struct SignatureInQuestion {
    openssl::SignatureScheme scheme;
    const EVP_MD* digest = nullptr;
    /// The digest, or what else the scheme covers; several where one content has several encodings.
    std::vector<std::vector<unsigned char>> covered;
    framing::Octets signature;
};

/// Tries signatures with certificates, which share what may be spent on public-key operations.
class Trials {
public:
    /// The verdict with one certificate, which is not yet in it.
    SignatureResult operator()(const SignatureInQuestion& signature, X509* certificate);

private:
    /// Whether its key does not decode, and not for want of memory. \throws std::bad_alloc
    bool isWithoutKey(X509* certificate);

    std::uint64_t m_spent = 0;
    /// Those of which that is known: finding out takes as long as they are, and each signer may name them.
    std::vector<openssl::CertificatePtr> m_withoutKey;
};

/// The verdict of `attempt` on the first good one of `certificates`, else on one that leaves the question open, else on the
/// first. \param hasMore whether there are certificates that are not tried
template <class Attempt> SignatureResult bestOf(const std::vector<X509*>& certificates, bool hasMore, Attempt attempt) {
    std::optional<SignatureResult> answer;
    for (X509* certificate : certificates) {
        SignatureResult result = attempt(certificate);
        if (result.verdict == SignatureVerdict::good) {
            return about(std::move(result), certificate);
        }
        // One that cannot be tried leaves the question open, whatever the others said.
        if (!answer || (answer->verdict == SignatureVerdict::refused && result.verdict != SignatureVerdict::refused)) {
            answer = about(std::move(result), certificate);
        }
    }
    if (hasMore && (!answer || answer->verdict == SignatureVerdict::refused)) {
        return about(unsupported(SignatureReason::tooManyCertificates),
                     certificates.empty() ? nullptr : certificates.front());
    }
    return answer ? *answer : refused(SignatureReason::certificateMissing);
}

} // namespace Norvane::Crypto::CMS
