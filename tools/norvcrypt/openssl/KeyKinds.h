#pragma once

/// \file
/// Making keys of the kinds that people use for mail.

#include <norvcrypto/Key.h>

#include <optional>
#include <string>
#include <vector>

namespace norvcrypt {

/// "rsa:3072", "P-256", "P-384" or "Ed25519".
struct KeyKind {
    std::string curve;     ///< empty: RSA
    unsigned int bits = 0; ///< of an RSA modulus
};

/// The kind of that name; nothing when there is none, or RSA has no such size.
std::optional<KeyKind> keyKindNamed(const std::string& name);
/// Their names, for a message.
std::string keyKindNames();

/// Makes a private key. \throws Failure
Norvane::Crypto::RefKey makeKey(const KeyKind& kind, unsigned int exponent = 65537);

} // namespace norvcrypt
