#pragma once

/// \file
/// How a signature was made, as its algorithm identifier tells, and whether it is right.

#include "framing/Elements.h"
#include "openssl/Pointers.h"
#include "openssl/Signers.h"

namespace Norvane::Crypto::openssl {

struct SignatureScheme {
    enum class Kind : int { rsaPkcs1, rsaPss, dsa, ecdsa, ed25519, ed448, unknown };

    Kind kind = Kind::unknown;
    /// False for parameters that no sound sender makes: those of RSASSA-PSS that do not decode or contradict themselves.
    bool isSound = true;
    bool namesDigest = false;           ///< it is for one digest alone
    const EVP_MD* digest = nullptr;     ///< which one; null for one that OpenSSL does not have
    const EVP_MD* maskDigest = nullptr; ///< RSASSA-PSS: that of the mask generation function
    int saltLength = 0;                 ///< RSASSA-PSS

    /// Whether such signatures cover the message itself, not a digest of it.
    [[nodiscard]] bool coversMessage() const noexcept { return kind == Kind::ed25519 || kind == Kind::ed448; }
};

/// The scheme that a whole AlgorithmIdentifier names (RFC 3370, RFC 4056, RFC 5753, RFC 5754, RFC 8419). `unknown` for
/// what is not verified here.
[[nodiscard]] SignatureScheme signatureScheme(framing::Octets algorithmIdentifier);
/// The scheme of a PKCS#7 signer, where the key alone decides.
[[nodiscard]] SignatureScheme schemeOf(KeyFamily family) noexcept;

/// Whether keys of that kind make such signatures.
[[nodiscard]] bool fits(const SignatureScheme& scheme, const EVP_PKEY* key) noexcept;
/// Whether keys of that kind make signatures of any scheme.
[[nodiscard]] bool isSigningKey(const EVP_PKEY* key) noexcept;

enum class Verified : int {
    good,
    wrong,
    impossible, ///< such a key verifies no signatures over such a digest
};

/// Whether `signature` is the key's over `covered`: a digest by `algorithm`, or the message (see `coversMessage`). Leaves
/// nothing in the error queue. \throws std::bad_alloc: without memory nothing is known of the signature
[[nodiscard]] Verified verify(const SignatureScheme& scheme, const EVP_MD* algorithm, framing::Octets covered,
                              framing::Octets signature, EVP_PKEY* key);

} // namespace Norvane::Crypto::openssl
