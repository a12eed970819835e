#pragma once

/// \file
/// Encrypting the content of a structure, piece by piece, under a random key.

#include "framing/Encoding.h"
#include "openssl/Pointers.h"
#include "openssl/Secret.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace Norvane::Crypto::openssl {

/// What there is to know about a cipher for contents.
struct ContentAlgorithm {
    int nid;
    const EVP_CIPHER* (*cipher)();
    std::size_t keyLength;
    std::size_t vectorLength; ///< of the initialisation vector or nonce
    std::size_t block;        ///< the content is padded to whole blocks; 1: it is not
    bool authenticated;
    int keyWrapping;                       ///< the NID of the key wrap of the same strength
    const EVP_CIPHER* (*passwordCipher)(); ///< the cipher of the same strength that wraps keys under passwords
    int passwordCipherNid;
};

/// A content being encrypted. What answers false has left the reasons in the error queue.
class ContentEncryption {
public:
    static constexpr std::size_t tagLength = 16;

    /// Makes the key and the initialisation vector, and starts. \param associated what is authenticated beside the content
    bool start(const ContentAlgorithm& algorithm, framing::Octets associated);
    /// The key, until it is wiped by `forgetKey`: OpenSSL's context has it then.
    [[nodiscard]] const Secret& key() const noexcept { return m_key; }
    void forgetKey() noexcept;
    /// The AlgorithmIdentifier with its parameters.
    [[nodiscard]] framing::Encoded identifier() const;

    /// Encrypts octets where they are. Not a whole number of blocks: only as the last ones.
    bool encrypt(unsigned char* octets, std::size_t count) { return encrypt(octets, octets, count); }
    bool encrypt(unsigned char* out, const unsigned char* octets, std::size_t count);
    /// Encrypts the last octets, of less than a block, where they are, and pads them: up to a block more. `count` becomes
    /// how many there are now.
    bool finish(unsigned char* octets, std::size_t& count);
    /// The authentication tag, after `finish`.
    bool tag(std::span<unsigned char, tagLength> tag);

private:
    const ContentAlgorithm* m_algorithm = nullptr;
    CipherContextPtr m_context;
    Secret m_key;
    std::vector<unsigned char> m_vector;
};

} // namespace Norvane::Crypto::openssl
