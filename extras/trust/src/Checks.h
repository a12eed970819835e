#pragma once

/// \file
/// Small questions about one certificate.

#include "OpenSsl.h"

#include <cstdint>
#include <optional>
#include <string>

namespace Norvane::Crypto::Trust::detail {

/// Why a key that a stranger chose is not used: it has a modulus or an exponent of sizes that no sound key has, and one
/// operation with it takes milliseconds (`CMS::maximumKeyWork`). Empty for all others.
std::string tooLarge(const X509* certificate);

/// The name of a signature algorithm that cannot be checked here; empty for one that can.
std::string unsupported(const X509_ALGOR* algorithm);

/// Whether inside and outside of a certificate stand different signature algorithms.
bool algorithmsDiffer(const X509* certificate);

/// The digest that a certificate is signed with: its name and length in bits; nothing for algorithms without one of the
/// issuer's choice (Ed25519), and unknown ones.
struct SigningDigest {
    std::string name;
    unsigned int bits;
};
std::optional<SigningDigest> signingDigestOf(X509* certificate);

/// "RSA, 1024 bits" when the key is shorter than demanded; else empty.
std::string tooShort(const X509* certificate, unsigned int minimumRsaBits, unsigned int minimumEcBits);

/// Names of the critical extensions that OpenSSL does not understand: "1.2.3.4, 1.2.3.5".
std::string unknownCriticalExtensions(const X509* certificate);

/// Whether extended key usage allows mail: it is absent, or has emailProtection or anyExtendedKeyUsage (RFC 8550, 4.4.4).
bool extendedUsageAllowsMail(X509* certificate);
/// Whether key usage allows to sign, or else to encrypt, mail (RFC 8550, 4.4.2; RFC 5753 for keys that agree on one).
bool usageAllowsMail(X509* certificate, bool sign);

/// What checking chains takes.
struct Effort {
    std::uint64_t keys = 0;   ///< signatures, in the unit of `CMS::maximumKeyWork`
    std::uint64_t pairs = 0;  ///< of a name and a constraint that are compared
    std::uint64_t octets = 0; ///< that these comparisons may read
    std::uint64_t policies =
        0; ///< for each policy and mapping of a certificate its others: OpenSSL sorts them anew each time

    Effort& operator+=(const Effort& other) noexcept {
        keys += other.keys;
        pairs += other.pairs;
        octets += other.octets;
        policies += other.policies;
        return *this;
    }
};
Effort effortOf(STACK_OF(X509) * chain);

/// " (key compromise)", or empty.
std::string revocationReasonOf(const X509_REVOKED* entry);

} // namespace Norvane::Crypto::Trust::detail
