#pragma once

/// \file
/// Reading private keys that strangers may have made: what would cost too much is refused before it is decoded.

#include "openssl/Pointers.h"

#include <openssl/pem.h>

#include <cstddef>
#include <string>

namespace Norvane::Crypto::openssl {

/// What became of reading a private key: a key; or none, with a text that says why it was refused; or neither, with
/// OpenSSL's reasons in the error queue.
struct PrivateKeyReading {
    KeyPtr key;
    std::string refusal;
};

/// Where a passphrase comes from: OpenSSL's callback and its data. Without both, OpenSSL prompts.
struct PassphraseSource {
    pem_password_cb* callback = nullptr;
    void* data = nullptr;
};

/// Decodes PKCS#8.
PrivateKeyReading readPrivateInfo(const PKCS8_PRIV_KEY_INFO* info);
/// Decodes the first structure in `length` bytes, PKCS#8 or traditional, not encrypted. \param source reads these bytes
PrivateKeyReading readPrivateDer(const unsigned char* der, std::size_t length, BIO* source);
/// Decrypts and decodes the first structure in `length` bytes, encrypted PKCS#8.
PrivateKeyReading readEncryptedDer(const unsigned char* der, std::size_t length, const PassphraseSource& passphrase);
/// Whether there is such a structure.
bool isEncryptedDer(const unsigned char* der, std::size_t length);
/// Reads the first private key of a PEM text, encrypted or not.
PrivateKeyReading readPrivatePem(BIO* in, const PassphraseSource& passphrase);

} // namespace Norvane::Crypto::openssl
