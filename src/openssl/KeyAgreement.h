#pragma once

/// \file
/// Content keys that are wrapped under a key agreed on with the sender's ephemeral key: ECDH (RFC 5753) and X25519, X448
/// (RFC 8418).

#include "openssl/Pointers.h"
#include "openssl/WipedBytes.h"

#include <optional>
#include <span>
#include <string>

namespace Norvane::Crypto::openssl {

/// One agreement, as the parts of a KeyAgreeRecipientInfo say (RFC 5652, 6.2.2).
struct KeyAgreement {
    const X509_ALGOR* algorithm = nullptr;
    const X509_ALGOR* originatorAlgorithm = nullptr;       ///< null: the originator's key is not in the message
    std::span<const unsigned char> originatorKey;          ///< the octets of its point
    const ASN1_OCTET_STRING* userKeyingMaterial = nullptr; ///< or null
};

/// The name of what is in the way: the scheme, the algorithm that the content key is wrapped under, an originator's key
/// that has to be found elsewhere, a curve that is spelled out; else empty.
std::string unsupportedKeyAgreement(const KeyAgreement& agreement);

/// Whether a private key is of the kind that agreements are made with.
bool agrees(const EVP_PKEY* key) noexcept;

/// The key-encryption key that two sides agree on. One private-key operation. Empty when OpenSSL fails, and for keys of
/// different curves. \param agreement a supported one
WipedBytes agreedKey(const KeyAgreement& agreement, EVP_PKEY* key);

/// The content key that is wrapped under it; empty when it does not open. The error queue stays as it is.
WipedBytes openAgreedKey(const KeyAgreement& agreement, EVP_PKEY* key, std::span<const unsigned char> wrapped);

/// A scheme of deriving a key-encryption key from what both sides have in common.
struct AgreementScheme {
    const char* derivation; ///< OpenSSL's name of the function: X963KDF or HKDF
    const char* digest;
    bool cofactor;
};
/// Nothing for a scheme that is not supported.
std::optional<AgreementScheme> agreementScheme(const ASN1_OBJECT* identifier) noexcept;

/// Derives the key-encryption key for `wrap` (RFC 5753, 7.2; RFC 8418, 2.2); empty when OpenSSL fails.
WipedBytes deriveKeyEncryptionKey(const AgreementScheme& scheme, const WipedBytes& common, X509_ALGOR* wrap,
                                  const ASN1_OCTET_STRING* userKeyingMaterial);

} // namespace Norvane::Crypto::openssl
