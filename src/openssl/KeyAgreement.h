#pragma once

/// \file
/// Content keys that are wrapped under a key agreed on with the sender's ephemeral key: ECDH (RFC 5753) and X25519, X448
/// (RFC 8418).

#include "openssl/Pointers.h"
#include "openssl/WipedBytes.h"

#include <span>
#include <string>

namespace Norvane::Crypto::openssl {

/// One agreement, as the parts of a KeyAgreeRecipientInfo say (RFC 5652, 6.2.2).
struct KeyAgreement {
    const X509_ALGOR* algorithm = nullptr;
    const X509_ALGOR* originatorAlgorithm = nullptr; ///< null: the originator's key is not in the message
    std::span<const unsigned char> originatorKey;    ///< the octets of its point
    ASN1_OCTET_STRING* userKeyingMaterial = nullptr; ///< or null
};

/// The name of what is in the way: the scheme, the algorithm that the content key is wrapped under, an originator's key
/// that has to be found elsewhere, a curve that is spelled out; else empty.
std::string unsupportedKeyAgreement(const KeyAgreement& agreement);

/// Whether a private key is of the kind that agreements are made with.
bool agrees(const EVP_PKEY* key) noexcept;

/// The content key that is wrapped under the key agreed on; empty when it does not open. One private-key operation at
/// most. The error queue stays as it is. \param agreement a supported one. \throws std::bad_alloc
WipedBytes openAgreedKey(const KeyAgreement& agreement, EVP_PKEY* key, std::span<const unsigned char> wrapped);

} // namespace Norvane::Crypto::openssl
