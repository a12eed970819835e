#pragma once

/// \file
/// Typed access to PKCS#7 structures. A decoded structure may lack what its type announces, and its unions and typed
/// values hold whatever the sender chose, so nothing here is read before its type and presence were checked.

#include "openssl/Pointers.h"

#include <openssl/pkcs7.h>

namespace Norvane::Crypto::openssl {

/// Decodes one structure from `source`, which leaves nothing in the error queue; null when the bytes are none, with the
/// reasons in the queue: at least one, also where OpenSSL gives none (the source ended between two elements).
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
/// received. `length` is 0 when encoding fails.
OwnedMemory<unsigned char> encodeSignedAttributes(const PKCS7_SIGNER_INFO* signer, int& length) noexcept;

} // namespace Norvane::Crypto::openssl
