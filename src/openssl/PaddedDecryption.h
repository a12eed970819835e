#pragma once

/// \file
/// Decrypting content in pieces of any lengths. The padding of block ciphers (PKCS #7) is taken off here: OpenSSL, which keeps the
/// last block of each piece in case it is the padded one, runs the cipher twice for each piece, for that block once more.

#include "openssl/Pointers.h"
#include "openssl/WipedBytes.h"

#include <openssl/evp.h>

#include <cstddef>
#include <optional>
#include <span>

namespace Norvane::Crypto::openssl {

class PaddedDecryption {
public:
    /// What is decrypted at once: enough for the calls not to count, and little enough to stay in a processor's nearest cache
    /// together with the octets that come: with 16 KB, 64 MB took a tenth longer.
    static constexpr std::size_t s_pieceLength = 0x2000;

    /// \param context lent; has its key, and no padding from now on
    explicit PaddedDecryption(EVP_CIPHER_CTX* context);

    /// Decrypts `s_pieceLength` octets at most. Hands out the same octets as OpenSSL with padding: all that are certainly
    /// none. They stay until the next call. Nothing, and OpenSSL's errors, when it fails.
    std::optional<std::span<const unsigned char>> update(std::span<const unsigned char> encrypted);
    /// The same in two steps, so that several short pieces are handed out as one: decrypts `room()` octets at most behind those
    /// that were not taken yet. False, and OpenSSL's errors, when it fails.
    [[nodiscard]] bool add(std::span<const unsigned char> encrypted);
    [[nodiscard]] std::size_t room() const noexcept { return s_pieceLength - m_added; }
    std::span<const unsigned char> take() noexcept;
    /// The octets before the padding; nothing when it is wrong or a block is not whole. The error queue stays as it is.
    std::optional<std::span<const unsigned char>> finish();

private:
    [[nodiscard]] std::optional<std::size_t> unpadded() const noexcept;

    EVP_CIPHER_CTX* m_context;
    std::size_t m_block;
    std::size_t m_partial = 0; ///< octets of a block that is not whole yet
    WipedBytes m_clear;
    std::size_t m_clearLength = 0;   ///< what is decrypted and was not taken
    std::size_t m_added = 0;         ///< of how many octets
    std::span<unsigned char> m_held; ///< the last block, when all are whole
};

} // namespace Norvane::Crypto::openssl
