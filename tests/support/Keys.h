#pragma once

// Keys of the test authority as the library's own, and encrypted.

#include <authority/Authority.h>
#include <norvcrypto/Key.h>

#include <openssl/evp.h>
#include <openssl/pkcs12.h>
#include <openssl/x509.h>

#include <stdexcept>

namespace norvtest {

inline Norvane::Crypto::RefKey privateKeyOf(const norvauthority::Key& key) {
    return Norvane::Crypto::RefKey(new Norvane::Crypto::PrivateKey(key.newReference()));
}

inline Norvane::Crypto::RefKey publicKeyOf(const norvauthority::Key& key) {
    const norvauthority::Bytes der = key.publicDer();
    const unsigned char* at = der.data();
    return Norvane::Crypto::RefKey(
        new Norvane::Crypto::PublicKey(d2i_PUBKEY(nullptr, &at, static_cast<long>(der.size()))));
}

/// An EncryptedPrivateKeyInfo (RFC 5958, 3) under "secret": AES-256 under PBKDF2. \param info a PrivateKeyInfo
inline norvauthority::Bytes encryptedPkcs8(const norvauthority::Bytes& info, int iterations = 1) {
    const unsigned char* at = info.data();
    PKCS8_PRIV_KEY_INFO* decoded = d2i_PKCS8_PRIV_KEY_INFO(nullptr, &at, static_cast<long>(info.size()));
    X509_SIG* sealed = PKCS8_encrypt(-1, EVP_aes_256_cbc(), "secret", 6, nullptr, 0, iterations, decoded);
    PKCS8_PRIV_KEY_INFO_free(decoded);
    unsigned char* encoded = nullptr;
    const int length = i2d_X509_SIG(sealed, &encoded);
    X509_SIG_free(sealed);
    if (length <= 0) {
        throw std::runtime_error("PKCS8_encrypt");
    }
    norvauthority::Bytes der(encoded, encoded + length);
    OPENSSL_free(encoded);
    return der;
}

} // namespace norvtest
