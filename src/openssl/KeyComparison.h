#pragma once

/// \file
/// What a key is, what it belongs to and whether it is there. OpenSSL says no for want of memory as well, and does not always
/// tell: here a no is asked for twice, so that an allocation that failed once turns no key into one that does not fit. Leaves
/// nothing in the error queue.

#include <openssl/x509.h>

namespace Norvane::Crypto::openssl {

/// Whether the key is of the type that OpenSSL has under this name ("RSA", "EC"), false for null.
bool isOfType(const EVP_PKEY* key, const char* name) noexcept;

/// Whether both are there and belong together: OpenSSL takes a missing one at first and crashes on it later.
/// \throws std::bad_alloc when OpenSSL tells that it had no memory to compare them
bool keyMatchesCertificate(const X509* certificate, const EVP_PKEY* key);

/// Whether the public key of a certificate that has none decodes when the certificate is decoded once more: OpenSSL decodes
/// certificates without memory for their keys, and tells nobody.
/// \throws std::bad_alloc when there is no memory for that, either
bool keyDecodesNow(const X509* certificate);

} // namespace Norvane::Crypto::openssl
