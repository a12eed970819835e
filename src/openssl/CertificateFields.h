#pragma once

/// \file
/// What the old interface kept in plain fields of an X509 and the installed one hides. All of these leave the error
/// queue as it was, for invalid certificates too.

#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <string>

namespace Norvane::Crypto::openssl {

/// Lets OpenSSL decode the extensions that it keeps bits of. Nothing for null.
void cacheExtensions(X509* x509);

/// The key usage bits, of a certificate with other, invalid extensions too; 0 when there are none, and for null.
unsigned long keyUsageBits(X509* x509);
/// The extended key usage bits, likewise.
unsigned long extendedKeyUsageBits(X509* x509);

/// What the extensions say about being an authority.
struct AuthorityFacts {
    bool hasBasicConstraints = false; ///< decodable ones
    bool basicConstraintsCa = false;
    bool hasKeyUsage = false;
};
/// Nothing of it holds for null.
AuthorityFacts authorityFacts(X509* x509);

/// Both times, which stay the certificate's. The certificate is not null.
X509_VAL validityTimes(const X509* x509);

/// The subject as one slash-separated line; empty for null.
std::string oneLineSubject(const X509* x509);

/// The decoded subject key identifier, which stays the certificate's; null when OpenSSL holds none (of a certificate
/// with another, invalid extension it holds none either).
const ASN1_OCTET_STRING* decodedSubjectKeyIdentifier(X509* x509);

} // namespace Norvane::Crypto::openssl
