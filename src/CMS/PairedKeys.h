#pragma once

/// \file
/// Whether the private key of a pair may be decrypted with.

#include <norvcrypto/Key.h>

#include <openssl/x509.h>

namespace Norvane::Crypto::CMS {

/// A public key in its place would not be refused by OpenSSL: it goes on with a random content key, and one time in 256
/// the result looks right.
inline bool isPrivateKey(const RefKey& key) {
    return !key.isNull() && dynamic_cast<const PublicKey*>(key.operator->()) == nullptr &&
           static_cast<EVP_PKEY*>(key) != nullptr;
}

} // namespace Norvane::Crypto::CMS
