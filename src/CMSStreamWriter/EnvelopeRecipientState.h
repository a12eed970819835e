#pragma once

/// \file
/// What is in a recipient.

#include "openssl/RecipientKeys.h"

#include <norvcrypto/CMSEnvelopeWriter.h>

#include <cstdint>
#include <optional>
#include <string>
#include <variant>

namespace Norvane::Crypto::CMS {

/// A certificate whose key encrypts.
struct CertificateKey {
    NVX509::RefCertificate certificate; ///< owns the key
    NamedBy namedBy;
    framing::Encoded name; ///< IssuerAndSerialNumber, or the octets of the key identifier
    EVP_PKEY* key;
    openssl::RecipientKeyKind kind;
    std::uint64_t work; ///< see `openssl::encryptionWork`
};

struct KeyTransport {
    CertificateKey to;
    std::optional<OaepParameters> oaep; ///< none: PKCS#1 1.5
    openssl::RsaEncryption encryption{};
    int room = 0; ///< octets that it takes
};

struct KeyAgreement {
    CertificateKey to;
    Hasher::Type digest;
    bool cofactor;
};

struct SharedKey {
    Buffer key; ///< protected
    Buffer identifier;
};

struct SharedPassword {
    Buffer password; ///< protected
    PasswordParameters parameters;
};

struct EnvelopeRecipient::State {
    std::variant<KeyTransport, KeyAgreement, SharedKey, SharedPassword> how;

    /// The certificate, where there is one.
    [[nodiscard]] const CertificateKey* certificate() const noexcept;
    /// For people: how the recipient is named in the message.
    [[nodiscard]] std::string name() const;
};

/// A digest that recipients may choose.
const EVP_MD* recipientDigest(Hasher::Type digest) noexcept;

inline framing::Octets octetsOf(const Buffer& buffer) noexcept {
    return {buffer.data(), buffer.length()};
}

} // namespace Norvane::Crypto::CMS
