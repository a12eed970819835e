#pragma once

/// \file
/// Signing and verifying over a digest context, which is copied and stays usable; and what OpenSSL 3.0 calls a signature
/// where it has no memory. ECDSA then succeeds with a length of 0 or 4294967295, and nothing written. RSA fails, but leaves the
/// blinding that the key keeps half renewed: all that the key computes from then on is wrong, and succeeds, until the
/// blinding is made anew after 32 uses.

#include "openssl/Pointers.h"

namespace Norvane::Crypto::openssl {

/// Whether a signature of this length was really made.
bool isLengthOfSignature(EVP_PKEY* key, std::size_t length) noexcept;

/// Whether the key is one of RSA, whose signatures have to be verified before they go out (a thirtieth of making them).
bool isRsa(EVP_PKEY* key) noexcept;

/// Uses an RSA key until what it computes is right again. For other keys nothing. Leaves the error queue as it was.
void renewBlinding(EVP_PKEY* key) noexcept;

/// Whether this was just made with the key over what the context digested. If not, the next one will be. Leaves the error
/// queue as it was.
bool isSound(EVP_MD_CTX* context, const unsigned char* signature, std::size_t length, EVP_PKEY* key) noexcept;

/// Signs what the context digested. `signature` has room for EVP_PKEY_size(key) bytes; `length` becomes the
/// signature's. False, with an entry in the error queue, on failure; a null key is one.
bool signFinal(EVP_MD_CTX* context, unsigned char* signature, unsigned int& length, EVP_PKEY* key);

/// 1: the signature is good, 0: it is wrong, which leaves nothing in the error queue; negative: it could not be
/// checked, a null key included. What OpenSSL queued then stays in the queue; for a malformed DSA or EC signature it is
/// nothing.
int verifyFinal(EVP_MD_CTX* context, const unsigned char* signature, unsigned int length, EVP_PKEY* key) noexcept;

} // namespace Norvane::Crypto::openssl
