#pragma once

/// \file
/// Signing and verifying over a digest context, which is copied and stays usable.

#include "openssl/Pointers.h"

namespace Norvane::Crypto::openssl {

/// Signs what the context digested. `signature` has room for EVP_PKEY_size(key) bytes; `length` becomes the
/// signature's. False, with an entry in the error queue, on failure; a null key is one.
bool signFinal(EVP_MD_CTX* context, unsigned char* signature, unsigned int& length, EVP_PKEY* key);

/// 1: the signature is good, 0: it is wrong, which leaves nothing in the error queue; negative: it could not be
/// checked, a null key included. What OpenSSL queued then stays in the queue; for a malformed DSA or EC signature it is
/// nothing.
int verifyFinal(EVP_MD_CTX* context, const unsigned char* signature, unsigned int length, EVP_PKEY* key);

} // namespace Norvane::Crypto::openssl
