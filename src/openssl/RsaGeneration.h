#pragma once

/// \file
/// RSA generation in terms of the RSA structure, which OpenSSL 3 deprecates and the key generator's interface is made
/// of.

#include "openssl/Pointers.h"

namespace Norvane::Crypto::openssl {

/// Frees an RSA structure.
struct FreeingRsa {
    void operator()(rsa_st* rsa) const noexcept;
};
using RsaPtr = std::unique_ptr<rsa_st, FreeingRsa>;

/// A new pair; null, with an entry in the error queue, when OpenSSL refuses the size or the exponent.
RsaPtr generateRsa(unsigned int bits, unsigned int exponent);

/// Write the public key (SubjectPublicKeyInfo) or the private key (PKCS#1, in clear) as PEM; false, with an entry in
/// the error queue, on failure and for a null key.
bool writeRsaPublicPem(BIO* out, rsa_st* rsa);
bool writeRsaPrivatePem(BIO* out, rsa_st* rsa);

} // namespace Norvane::Crypto::openssl
