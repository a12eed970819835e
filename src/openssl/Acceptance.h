#pragma once

/// \file
/// What is refused before OpenSSL decodes it, because decoding or caching it takes time and memory out of all proportion
/// to its size. OpenSSL decodes public keys as soon as it meets them, and copies an issuer's name for each distribution
/// point that is named relative to it.

#include "framing/SegmentRun.h"

#include <openssl/x509.h>

#include <cstddef>
#include <cstdint>

namespace Norvane::Crypto::openssl {

/// Why something is refused. A refusal says nothing about damage: what is refused may be encoded well.
enum class Refusal : std::uint8_t {
    none,
    explicitCurve,     ///< a public key on an elliptic curve that is spelled out, which RFC 5480, 2.1.1 forbids
    tooManyPublicKeys, ///< more than `mostPublicKeys` certificates or bare keys in one structure
    relativePoints,    ///< relative distribution points times the issuer's name: more than `mostRelativeNames`
    tooDeep,           ///< nested to more levels than `framing::Walk` goes
    tooLong,           ///< 2 GiB or more, which OpenSSL does not count
};

/// The public keys that one structure may hold. Each takes a fraction of a millisecond.
constexpr std::size_t mostPublicKeys = 2500;
/// The octets of issuer names that OpenSSL may copy for one certificate: its relative distribution points, each times the
/// encoded name of the issuer. Twenty points under a long name of 800 octets fit.
constexpr std::size_t mostRelativeNames = 16384;

/// Looks through one encoded element with whatever certificates, certificate requests and public keys it holds, at any
/// level: a certificate, a bare key (SubjectPublicKeyInfo), a pair of certificates, a CMS structure. Octets in which
/// there is no element to look at are not refused, since nothing is decoded from them either. The error queue is not
/// touched. For the octets in a string (a bag of PKCS#12) ask again.
/// \param known segments that were found in the element, whose headers need not be looked at
[[nodiscard]] Refusal refusalOf(const unsigned char* der, std::size_t length,
                                const framing::SegmentRun& known = {}) noexcept;

/// The one refusal that concerns a certificate which is decoded already: OpenSSL must not be asked for the purpose, the
/// flags or the key usage of one with too many relative distribution points, nor compare it. False for null.
[[nodiscard]] bool hasTooManyRelativePoints(const X509* certificate) noexcept;

/// What a refusal is called: "refused: explicit elliptic curve parameters"; null for none.
[[nodiscard]] const char* textOf(Refusal refusal) noexcept;

/// Queues the refusal as an error that `function` met.
void queueRefusal(const char* function, Refusal refusal);

/// True when there is none; otherwise queues it.
[[nodiscard]] inline bool isAccepted(const char* function, Refusal refusal) {
    if (refusal == Refusal::none) {
        return true;
    }
    queueRefusal(function, refusal);
    return false;
}

} // namespace Norvane::Crypto::openssl
