#pragma once

/// \file
/// The recipients of an enveloped message, told apart without decoding them (RFC 5652, 6.2).

#include "framing/Elements.h"
#include "openssl/ContentCipher.h"
#include "openssl/KeyAgreement.h"
#include "openssl/KeyUnwrapping.h"

#include <norvcrypto/CMSEnvelopeReader.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace Norvane::Crypto::CMS {

/// Where the parts of one recipient lie. What is missing has no octets; one that lacks what its kind has is of the kind
/// `other`.
struct RecipientParts {
    EnvelopeReader::Recipient::Kind kind = EnvelopeReader::Recipient::other;
    NamedBy namedBy = NamedBy::issuerAndSerialNumber;
    framing::Octets name;               ///< the element of an IssuerAndSerialNumber, or of a key identifier
    framing::Octets algorithm;          ///< the element; for `other` the object identifier of the kind
    framing::Octets derivation;         ///< of a password: the element, under its tag [0]
    framing::Octets originator;         ///< of an agreement: what is within [0]
    framing::Octets userKeyingMaterial; ///< of an agreement: the element
    framing::Octets encryptedKey;       ///< the element
};

/// Goes through the elements of all recipients, and through each encrypted key of an agreement.
class RecipientWalk {
public:
    explicit RecipientWalk(framing::Octets recipients) noexcept : m_recipients(recipients), m_keys(framing::Octets()) {}
    /// The next one; nothing behind the last.
    std::optional<RecipientParts> next();

private:
    std::optional<RecipientParts> nextKey();

    framing::Elements m_recipients;
    framing::Elements m_keys; ///< of the agreement that the walk is in
    RecipientParts m_agreement;
};

/// How many recipients there are, the keys of agreements counted; at most one more than `limit`. \throws framing::Broken
/// something is no element
std::uint64_t countRecipients(framing::Octets recipients, std::uint64_t limit);

/// The certificate that a recipient is named by; nothing when the name does not decode, and for other kinds.
std::optional<CertificateIdentifier> identifierOf(const RecipientParts& parts);
/// Whether a key may be found for a recipient, without decoding its name.
bool mayFind(const KeyLookup& keys, const RecipientParts& parts);
/// The octets of an octet string; empty when it is none.
std::vector<unsigned char> octetsIn(framing::Octets element);

/// Whether a private key is one that a recipient of that kind may have.
bool fits(EnvelopeReader::Recipient::Kind kind, const EVP_PKEY* key) noexcept;

/// The algorithms of a recipient, decoded.
class RecipientAlgorithms {
public:
    explicit RecipientAlgorithms(const RecipientParts& parts);

    /// By name and object identifier; empty when there is none.
    [[nodiscard]] std::string name() const;
    /// What is not supported, by name.
    [[nodiscard]] std::string unsupported() const;
    /// Whether all that the kind needs could be decoded.
    [[nodiscard]] bool isSound() const noexcept { return m_sound; }
    /// Whether a failure of the key tells nothing.
    [[nodiscard]] bool isUncertain() const noexcept;
    [[nodiscard]] openssl::PasswordEncryption password() const noexcept {
        return {m_derivation.get(), m_algorithm.get()};
    }

    /// The content key; empty when it does not open.
    [[nodiscard]] openssl::WipedBytes open(EVP_PKEY* key) const;
    [[nodiscard]] openssl::WipedBytes openWithKey(framing::Octets key) const;
    [[nodiscard]] openssl::WipedBytes openWithPassword(framing::Octets password) const;

private:
    void readOriginator();
    [[nodiscard]] openssl::KeyAgreement agreement() const noexcept;

    const RecipientParts& m_parts;
    bool m_sound = false;
    openssl::AlgorithmPtr m_algorithm;
    openssl::AlgorithmPtr m_derivation;
    openssl::AlgorithmPtr m_originatorAlgorithm;
    openssl::OctetStringPtr m_userKeyingMaterial;
    framing::Octets m_originatorKey;
    std::vector<unsigned char> m_encryptedKey;
};

/// A recipient with the octets that its parts lie in.
struct ReceivedRecipient {
    std::shared_ptr<const std::vector<unsigned char>> octets;
    RecipientParts parts;
};

} // namespace Norvane::Crypto::CMS
