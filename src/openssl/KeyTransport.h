#pragma once

/// \file
/// Content keys that are encrypted to an RSA key (RFC 5652, 6.2.1; RFC 4056).

#include "openssl/Pointers.h"
#include "openssl/WipedBytes.h"

#include <span>
#include <string>

namespace Norvane::Crypto::openssl {

/// The content key under the padding of PKCS#1 1.5; empty when it does not open. One private-key operation. The error
/// queue stays as it is. \throws std::bad_alloc
WipedBytes openPkcs1Key(EVP_PKEY* key, std::span<const unsigned char> encrypted);

/// Whether the algorithm identifier is that of PKCS#1 1.5, which does not tell whether what was opened is a content key.
bool isPkcs1(const X509_ALGOR& algorithm) noexcept;

/// The name of what is in the way when it is not PKCS#1 1.5, and not OAEP (with SHA-1 or SHA-2, MGF1 and any label)
/// either; else empty. Parameters that do not decode are damage, nothing unsupported.
std::string unsupportedKeyTransport(const X509_ALGOR& algorithm);

/// The content key; empty when it does not open. One private-key operation at most. The error queue stays as it is.
/// \param algorithm a supported one. \throws std::bad_alloc
WipedBytes openTransportedKey(const X509_ALGOR& algorithm, EVP_PKEY* key, std::span<const unsigned char> encrypted);

} // namespace Norvane::Crypto::openssl
