#pragma once

/// \file
/// What an RSA key opens to when somebody sends what no encryption makes: blocks of RFC 8017, 7.2.1, and how they can be wrong.
/// Used by the benchmarks as well, without GoogleTest.

#include <authority/Authority.h>

#include <openssl/evp.h>
#include <openssl/rand.h>
#include <openssl/rsa.h>

#include <memory>
#include <stdexcept>

namespace norvtest {

using norvauthority::Bytes;

inline Bytes randomBytes(std::size_t count) {
    Bytes all(count);
    if (count != 0 && RAND_bytes(all.data(), static_cast<int>(count)) != 1) {
        throw std::runtime_error("RAND_bytes");
    }
    return all;
}

/// 00 02, padding without zeroes, 00, the content: as many octets as the modulus has.
inline Bytes rsaBlock(const norvauthority::Key& key, const Bytes& content) {
    Bytes block = randomBytes(static_cast<std::size_t>(EVP_PKEY_get_size(key.get())));
    for (unsigned char& octet : block) {
        octet = octet == 0 ? 1 : octet;
    }
    block[0] = 0;
    block[1] = 2;
    block[block.size() - content.size() - 1] = 0;
    std::copy(content.begin(), content.end(), block.end() - static_cast<std::ptrdiff_t>(content.size()));
    return block;
}

/// The block to the power of the public exponent.
inline Bytes encryptedBlock(const norvauthority::Key& key, const Bytes& block) {
    const std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)> context(EVP_PKEY_CTX_new(key.get(), nullptr),
                                                                              EVP_PKEY_CTX_free);
    Bytes encrypted(block.size());
    std::size_t length = encrypted.size();
    if (EVP_PKEY_encrypt_init(context.get()) != 1 || EVP_PKEY_CTX_set_rsa_padding(context.get(), RSA_NO_PADDING) != 1 ||
        EVP_PKEY_encrypt(context.get(), encrypted.data(), &length, block.data(), block.size()) != 1) {
        throw std::runtime_error("RSA without padding");
    }
    return encrypted;
}

} // namespace norvtest
