#pragma once

/// \file
/// What a signer of a PKCS#7 structure names: algorithms, attributes, a certificate. All of it is the sender's choice.

#include "openssl/Pointers.h"

#include <cstdint>

namespace Norvane::Crypto::openssl {

/// The kinds of keys whose signatures are judged.
enum class KeyFamily : int { rsa, dsa, ec, other };

/// The keys that a signature algorithm is for. `other` for RSASSA-PSS, whose parameters PKCS#7 has no place for, for
/// Edwards curves and for what OpenSSL does not know.
KeyFamily signatureFamily(const X509_ALGOR* algorithm) noexcept;
KeyFamily keyFamily(const EVP_PKEY* key) noexcept;
/// What a certificate says of its key, which need not decode.
const ASN1_OBJECT* publicKeyAlgorithm(const X509* certificate) noexcept;
/// Whether keys of an algorithm decode unless they are damaged: those of RSA. Others may refer to parameters that are
/// elsewhere, or unknown.
bool alwaysDecodes(const ASN1_OBJECT* keyAlgorithm) noexcept;

/// The digest that a signer names, possibly by a signature algorithm with it; null when OpenSSL has none such, or only
/// one of variable length.
const EVP_MD* signerDigest(const PKCS7_SIGNER_INFO* signer) noexcept;
/// The digest that a number names, likewise.
const EVP_MD* usableDigest(int nid) noexcept;

/// What one verification costs, in squarings of a 1024-bit number; the largest number for an RSA exponent beyond 64
/// bits, and for a key that does not tell.
std::uint64_t verificationWork(const EVP_PKEY* key) noexcept;
/// Likewise for the key of a certificate, which is decoded; sooner for RSA, whose exponent is read where it lies.
std::uint64_t verificationWork(const X509* certificate) noexcept;

/// An attribute among the signed ones of a signer.
struct SignedAttribute {
    int count = 0;                    ///< how often it stands there
    const ASN1_TYPE* value = nullptr; ///< of the one that stands there once, with one value
};
SignedAttribute signedAttribute(const PKCS7_SIGNER_INFO* signer, int nid) noexcept;

/// Whether an attribute that must be signed stands among the unsigned ones (RFC 5652, 11.1 to 11.3; RFC 2634, 2.7 and 5.4; RFC
/// 5035, 3), or a countersignature among the signed ones (RFC 5652, 11.4).
bool hasMisplacedAttribute(const PKCS7_SIGNER_INFO* signer) noexcept;

} // namespace Norvane::Crypto::openssl
