#pragma once

/// \file
/// The ciphers of encrypted content, as algorithm identifiers name them. Without a content key that was opened a random
/// one is used, so that what follows looks alike and comes to the same work whatever failed (RFC 3218).

#include "openssl/Pointers.h"
#include "openssl/WipedBytes.h"

#include <openssl/x509.h>

#include <span>
#include <string>

namespace Norvane::Crypto::openssl {

using AlgorithmPtr = Owned<X509_ALGOR, X509_ALGOR_free>;
using CipherPtr = Owned<EVP_CIPHER, EVP_CIPHER_free>;

/// The algorithm identifier that is exactly these octets; null when they are none. The error queue stays as it is.
AlgorithmPtr decodeAlgorithm(std::span<const unsigned char> octets);
/// The algorithm identifier that stands in the parameters of another one; null when they are none.
AlgorithmPtr algorithmInParameters(const X509_ALGOR& algorithm);

/// The cipher of an algorithm identifier: of a provider, or one that was added to OpenSSL's table. Null when there is none.
CipherPtr cipherOf(const X509_ALGOR* algorithm);

/// The name of the cipher when content under it cannot be told from garbage, or not be decrypted at all: one that is
/// for keys (OpenSSL calls it a success when it decrypts nothing), one that authenticates, one that is unknown, IDEA
/// without libgcrypt or without the vector in its parameters, RC2 with another effective key length than 40, 64 and 128
/// bits. Else empty.
std::string unsupportedContentCipher(const X509_ALGOR* algorithm);

/// Whether OpenSSL can use a cipher that it knows: those of long ago are known without the provider that has them.
/// \throws std::bad_alloc
bool isAvailable(const X509_ALGOR* algorithm);

/// A context with the cipher and parameters, which yet lacks the key; null when they cannot be used. OpenSSL would take
/// a missing initialisation vector for zeroes.
CipherContextPtr contextFor(const X509_ALGOR* algorithm);

/// Gives such a context its key: the content key when it fits, else a random one. Which of them takes the same work, but for
/// ciphers whose keys have various lengths (RC2, RC4, Blowfish, CAST5).
/// \param trusted becomes whether decrypting may be taken for a success when it ends as one: a cipher without padding
///                notices no wrong key
/// \returns false when OpenSSL fails
bool setContentKey(EVP_CIPHER_CTX* context, const WipedBytes& contentKey, bool& trusted);

} // namespace Norvane::Crypto::openssl
