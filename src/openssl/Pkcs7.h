#pragma once

/// \file
/// Typed access to PKCS#7 structures. A decoded structure may lack what its type announces, and its unions and typed
/// values hold whatever the sender chose, so nothing here is read before its type and presence were checked.

#include "openssl/Pointers.h"

#include <openssl/pkcs7.h>

#include <cstddef>
#include <vector>

namespace Norvane::Crypto::openssl {

/// Decodes one structure from `source`, which leaves nothing in the error queue; null when the bytes are none, with the
/// reasons in the queue: at least one, also where OpenSSL gives none (the source ended between two elements), and the
/// refusal where there is one.
Pkcs7Ptr decodePkcs7(BIO* source) noexcept;

/// The content of a structure of that type, else null. Null is answered for null.
PKCS7_SIGNED* signedContent(const PKCS7* structure) noexcept;
PKCS7_ENVELOPE* envelopedContent(const PKCS7* structure) noexcept;

/// The octets that a structure of type data carries, or one of a type that PKCS#7 does not know; else null.
const ASN1_OCTET_STRING* dataOctets(const PKCS7* structure) noexcept;

/// The object identifier of an algorithm, or null.
const ASN1_OBJECT* algorithmIdentifier(const X509_ALGOR* algorithm) noexcept;

/// The number of a signer's digest algorithm; NID_undef when there is none or OpenSSL does not know it.
int digestNid(const PKCS7_SIGNER_INFO* signer) noexcept;

/// Whether a signer's signature covers signed attributes instead of the content itself.
bool hasSignedAttributes(const PKCS7_SIGNER_INFO* signer) noexcept;

/// The message digest among the signed attributes; null when it is missing or no OCTET STRING (OpenSSL's own look-up
/// does not ask what type the value has).
const ASN1_OCTET_STRING* messageDigest(const PKCS7_SIGNER_INFO* signer) noexcept;

/// The bytes that a signature over signed attributes covers: their set, encoded under the universal tag, in the order
/// received. `length` is 0 when encoding fails; where memory was wanting the error queue says so.
OwnedMemory<unsigned char> encodeSignedAttributes(const PKCS7_SIGNER_INFO* signer, int& length) noexcept;

/// The DER of a structure up to the content that ends it, announced with `contentLength` bytes in the place of the empty
/// one that the structure holds: written before those bytes it gives the whole structure, which is never in one piece.
/// Empty, with the reasons in the error queue, when it cannot be encoded or would be longer than an `int` counts.
std::vector<unsigned char> encodeHead(const PKCS7* structure, std::size_t contentLength);

/// The encrypted content of an enveloped structure; null when there is none or `structure` is no such structure.
const ASN1_OCTET_STRING* encryptedContent(const PKCS7* structure) noexcept;

/// Whether a certificate is the one that issuer and serial number name; false for null.
bool namesCertificate(const PKCS7_ISSUER_AND_SERIAL* name, const X509* certificate) noexcept;

/// Whether a certificate is the one that a recipient is named by; false for null.
bool namesRecipient(const X509* certificate, const PKCS7_RECIP_INFO* recipient) noexcept;

/// Whether two recipients have the same issuer and serial number; false for null.
bool haveOneName(const PKCS7_RECIP_INFO* left, const PKCS7_RECIP_INFO* right) noexcept;

} // namespace Norvane::Crypto::openssl
