#pragma once

/// \file
/// What the benchmarks of encrypting and decrypting share: sizes and numbers of recipients, and the raw calls.

#include "Support.h"

#include <norvcrypto/CMSEncryptionMedia.h>

#include <openssl/evp.h>
#include <openssl/rand.h>

#include <cstdint>
#include <list>

namespace bench {

/// 1 KB, 64 KB, 1 MB, 64 MB for 1, 10 and 100 recipients.
inline void envelopes(benchmark::internal::Benchmark* benchmark) {
    benchmark->ArgsProduct({{1 << 10, 64 << 10, 1 << 20, 64 << 20}, {1, 10, 100}})->Unit(benchmark::kMicrosecond);
}

/// The signer's certificate, who is the recipient here.
inline const Norvane::Crypto::NVX509::RefCertificate& certificate() {
    static const auto made = Norvane::Crypto::NVX509::CertificateFactory().readDER(buffer(signer().certificate.der));
    return made;
}

/// A content key under RSA with the padding of PKCS#1 1.5.
inline std::vector<unsigned char> wrap(EVP_PKEY* key, const unsigned char* contentKey, std::size_t length) {
    EVP_PKEY_CTX* context = EVP_PKEY_CTX_new(key, nullptr);
    std::vector<unsigned char> wrapped(static_cast<std::size_t>(EVP_PKEY_get_size(key)));
    std::size_t count = wrapped.size();
    EVP_PKEY_encrypt_init(context);
    EVP_PKEY_encrypt(context, wrapped.data(), &count, contentKey, length);
    EVP_PKEY_CTX_free(context);
    return wrapped;
}
inline std::vector<unsigned char> unwrap(EVP_PKEY* key, const std::vector<unsigned char>& wrapped) {
    EVP_PKEY_CTX* context = EVP_PKEY_CTX_new(key, nullptr);
    std::vector<unsigned char> contentKey(wrapped.size());
    std::size_t count = contentKey.size();
    EVP_PKEY_decrypt_init(context);
    EVP_PKEY_decrypt(context, contentKey.data(), &count, wrapped.data(), wrapped.size());
    EVP_PKEY_CTX_free(context);
    return contentKey;
}

inline std::vector<unsigned char> encrypt(const std::vector<unsigned char>& bytes, std::size_t size,
                                          const std::vector<unsigned char>& key,
                                          const std::vector<unsigned char>& vector) {
    std::vector<unsigned char> out(size + EVP_MAX_BLOCK_LENGTH);
    EVP_CIPHER_CTX* context = EVP_CIPHER_CTX_new();
    int first = 0;
    int last = 0;
    EVP_EncryptInit_ex(context, EVP_aes_256_cbc(), nullptr, key.data(), vector.data());
    EVP_EncryptUpdate(context, out.data(), &first, bytes.data(), static_cast<int>(size));
    EVP_EncryptFinal_ex(context, out.data() + first, &last);
    EVP_CIPHER_CTX_free(context);
    out.resize(static_cast<std::size_t>(first + last));
    return out;
}

} // namespace bench
