#pragma once

/// \file
/// Private keys that are refused before OpenSSL decodes them. It raises numbers of any size to powers of any size as soon
/// as it meets a DSA or DH key, walks along whatever cofactor an elliptic curve names, and keeps a product for each
/// further prime of an RSA key.

#include <openssl/x509.h>

#include <cstddef>
#include <string>

namespace Norvane::Crypto::openssl {

/// The most bytes of an encoded private key. An RSA key of 16,384 bits takes 9,300.
inline constexpr std::size_t longestPrivateKey = 16384;
/// The most bits of a number in an RSA key: OpenSSL's own bound for verifying.
inline constexpr std::size_t mostRsaBits = 16384;
/// The most bits of a number in any other key: OpenSSL's own bound for using DSA and DH.
inline constexpr std::size_t mostBits = 10000;

/// Why a private key is refused, as a text: "the private key is longer than 16384 bytes", "DSA modulus of 20000 bits,
/// more than 10000". Empty when it may be decoded; also for what is no private key, which fails there soon enough. The
/// error queue stays as it is.
[[nodiscard]] std::string refusalOfPrivateKey(const PKCS8_PRIV_KEY_INFO* key);
/// For the first structure in `length` bytes, PKCS#8 or traditional. Other bytes may follow.
[[nodiscard]] std::string refusalOfPrivateKey(const unsigned char* der, std::size_t length);
/// For the encrypted bytes of a key, of which only the length can be told.
[[nodiscard]] std::string refusalOfEncryptedKey(const X509_SIG* key);

} // namespace Norvane::Crypto::openssl
