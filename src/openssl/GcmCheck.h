#pragma once

/// \file
/// Checking the tag of AES-GCM without decrypting.

#include "openssl/Pointers.h"

#include <cstddef>
#include <cstdint>
#include <span>

namespace Norvane::Crypto::openssl {

/// Computes the tag of encrypted octets that come piece by piece. Takes half as long as decrypting them does, needs the
/// associated octets only at the end, and leaves nothing clear that would have to be thrown away.
///
/// OpenSSL does the work: the octets go in as associated ones, which are authenticated the same way (GHASH, NIST SP 800-38D,
/// 6.4). What is left is to make the tag of the one out of that of the other: a few multiplications.
class GcmCheck {
public:
    /// \param cipher AES-GCM; \param key of its length. Both, and the nonce, must outlive this.
    GcmCheck(const EVP_CIPHER* cipher, std::span<const unsigned char> key, std::span<const unsigned char> nonce);

    /// The next encrypted octets. False when OpenSSL fails or there are more than GCM allows.
    [[nodiscard]] bool update(std::span<const unsigned char> encrypted);
    /// Once, at the end. \param tag of 16 octets, or the first of them
    [[nodiscard]] bool isRight(std::span<const unsigned char> associated, std::span<const unsigned char> tag);

private:
    [[nodiscard]] CipherContextPtr begun() const;

    const EVP_CIPHER* m_cipher;
    std::span<const unsigned char> m_key;
    std::span<const unsigned char> m_nonce;
    CipherContextPtr m_context;
    std::uint64_t m_length = 0;
};

} // namespace Norvane::Crypto::openssl
