#pragma once

/// \file
/// Keys to and from BIOs. A writer answers false and leaves an entry in the error queue when it fails; OpenSSL's own
/// ones crash or keep silent on a null key.

#include "openssl/Pointers.h"
#include "openssl/PrivateKeys.h"

#include <string>

namespace Norvane::Crypto::openssl {

/// Read a PEM block; null on failure. With an empty passphrase an encrypted block makes OpenSSL prompt. Passphrases
/// with an embedded NUL are refused: OpenSSL would use what stands before it.
KeyPtr readPublicPem(BIO* in, const std::string& passphrase);
PrivateKeyReading readPrivatePem(BIO* in, const std::string& passphrase);

/// Decodes a SubjectPublicKeyInfo; null on failure, for one that is refused too.
KeyPtr readPublicDer(BIO* in) noexcept;

bool writePublicPem(BIO* out, EVP_PKEY* key);
/// Writes PKCS#8 under DES-EDE3-CBC; under the empty password when the passphrase is empty.
bool writePrivatePem(BIO* out, EVP_PKEY* key, const std::string& passphrase);

bool writePublicDer(BIO* out, EVP_PKEY* key);
bool writePrivateDer(BIO* out, EVP_PKEY* key);

} // namespace Norvane::Crypto::openssl
