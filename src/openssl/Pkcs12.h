#pragma once

/// \file
/// PKCS#12 structures. What fails leaves its reasons in the error queue, except that OpenSSL queues nothing for a wrong
/// password.

#include "openssl/Pointers.h"

#include <string>

namespace Norvane::Crypto::openssl {

/// Decodes one structure from `source`; null, with at least one reason queued, when the bytes are none.
Pkcs12Ptr decodePkcs12(BIO* source) noexcept;

/// Whether the structure's MAC belongs to it and the password, all of whose bytes count. False for a structure without
/// MAC.
bool verifyPassword(PKCS12_st* structure, const std::string& password) noexcept;

/// What a structure holds; either may be null.
struct Identity {
    KeyPtr key;
    CertificatePtr certificate;
};

/// Finds the private key and the certificate that belongs to it, and drops other certificates. The password ends at an
/// embedded NUL. False when the structure cannot be read, with nothing in `found`.
bool parsePkcs12(PKCS12_st* structure, const std::string& password, Identity& found) noexcept;

} // namespace Norvane::Crypto::openssl
