#pragma once

/// \file
/// Content keys that are encrypted under another symmetric key (RFC 3394, RFC 5649, RFC 3217), one that was derived from
/// a password included (RFC 3211; RFC 5652, 6.2.4).

#include "openssl/Pointers.h"
#include "openssl/WipedBytes.h"

#include <cstdint>
#include <optional>
#include <span>
#include <string>

namespace Norvane::Crypto::openssl {

/// The most bytes of an encrypted content key. The longest key that a cipher takes has 64 bytes, and wrapping adds 16.
inline constexpr std::size_t longestWrappedKey = 1024;

/// The name of the algorithm when it is not one for wrapping keys; else empty.
std::string unsupportedWrap(const X509_ALGOR* algorithm);
/// The length of the key-encryption key that a supported algorithm takes.
std::size_t keyEncryptionKeyLength(const X509_ALGOR& algorithm);
/// The content key; empty when the key-encryption key has another length or does not open it. The error queue stays as
/// it is. \param algorithm a supported one. \throws std::bad_alloc
WipedBytes unwrapKey(const X509_ALGOR& algorithm, std::span<const unsigned char> keyEncryptionKey,
                     std::span<const unsigned char> wrapped);

/// How a content key is encrypted under a password.
struct PasswordEncryption {
    const X509_ALGOR* derivation; ///< null: none is named
    const X509_ALGOR* encryption;
};

/// The name of what is in the way when it is not PBKDF2 with a known function, or the key is not encrypted under a
/// cipher of blocks that are chained; else empty.
std::string unsupportedPassword(const PasswordEncryption& algorithms);
/// How often the password is hashed: zero for a number below 1, with which nothing opens; nothing for one beyond 2^31 - 1.
std::optional<std::int64_t> iterationsOf(const PasswordEncryption& algorithms);
/// The content key; empty when the password does not open it. The error queue stays as it is.
/// \param algorithms supported ones whose iterations are affordable. \throws std::bad_alloc
WipedBytes openPasswordKey(const PasswordEncryption& algorithms, std::span<const unsigned char> password,
                           std::span<const unsigned char> wrapped);

} // namespace Norvane::Crypto::openssl
