#pragma once

/// \file
/// The padding that content keys are encrypted under beside that of PKCS#1 1.5.

#include "framing/Elements.h"
#include "openssl/Pointers.h"

namespace Norvane::Crypto::openssl {

/// RSAES-OAEP (RFC 8017, 7.1).
struct Oaep {
    const EVP_MD* digest;
    const EVP_MD* maskDigest;
    framing::Octets label;
};

/// Sets it for a context that encrypts or decrypts. \return whether OpenSSL knows it
bool setOaep(EVP_PKEY_CTX* context, const Oaep& oaep);

} // namespace Norvane::Crypto::openssl
