#pragma once

/// \file
/// A signer as it stands in a message (RFC 5652, 5.3): its parts, lent and not decoded.

#include "framing/Elements.h"

#include <norvcrypto/CMSIdentifier.h>
#include <norvcrypto/CMSVerification.h>

#include <array>
#include <cstddef>
#include <list>
#include <optional>
#include <vector>

namespace Norvane::Crypto::CMS {

/// Octets that had to be put together out of segments; where they lie does not change.
using KeptOctets = std::list<std::vector<unsigned char>>;

/// The attributes that are looked for.
enum class AttributeType : std::size_t {
    contentType,
    messageDigest,
    signingTime,
    countersignature,
    capabilities,
    signingCertificate,
    signingCertificateV2,
    receiptRequest,
};
inline constexpr std::size_t attributeTypes = 8;

/// What stands of one of them.
struct AttributeParts {
    std::size_t count = 0;  ///< attributes of that type
    std::size_t values = 0; ///< values in all of them
    framing::Octets value;  ///< the whole first one

    [[nodiscard]] bool isSingle() const noexcept { return count == 1 && values == 1; }
};
using AttributeTable = std::array<AttributeParts, attributeTypes>;

/// Lent from the message.
struct SignerParts {
    NamedBy namedBy = NamedBy::issuerAndSerialNumber;
    framing::Octets name;                ///< the whole IssuerAndSerialNumber, or the octets of the key identifier
    framing::Octets issuer;              ///< whole
    framing::Octets serialNumber;        ///< its octets, no more than it needs
    framing::Octets digestAlgorithm;     ///< the whole identifier of the algorithm
    framing::Octets signatureAlgorithm;  ///< the whole AlgorithmIdentifier
    framing::Octets signatureIdentifier; ///< the whole identifier in it
    std::optional<framing::Element> signedAttributes;
    AttributeTable attributes; ///< the signed ones
    framing::Octets signature;
    framing::Octets unsignedAttributes;    ///< the elements
    bool unsignedOnesMustBeSigned = false; ///< one of them at least

    const SignerParts* signer = nullptr; ///< whose signature this one countersigns
    std::size_t depth = 0;               ///< how many signers that are
    bool countersignersRead = false;
    bool hasMoreCountersigners = false;
    std::vector<SignerParts> countersigners;
    std::optional<SignatureResult> verdict; ///< with the certificates of the message

    [[nodiscard]] const AttributeParts& attribute(AttributeType type) const noexcept {
        return attributes[static_cast<std::size_t>(type)];
    }
};

/// Takes a whole SignerInfo apart. \throws framing::Broken it is none
SignerParts readSigner(framing::Octets signerInfo, KeptOctets& kept);

/// Reads the countersignatures of a signer (RFC 5652, 11.4), once. Those beyond `most`, and damaged ones, are not among
/// them: anybody on the way may have added any number.
void readCountersigners(SignerParts& signer, std::size_t most, std::size_t deepest, KeptOctets& kept);

/// The octets of a string, of one in segments too. \throws framing::Broken it is none
framing::Octets stringOctets(const framing::Element& string, KeptOctets& kept);

/// The whole identifier in an AlgorithmIdentifier. \throws framing::Broken it is none
framing::Octets algorithmOf(const framing::Element& algorithm);

/// The octets of an INTEGER, no more than it needs.
framing::Octets shortestInteger(framing::Octets content) noexcept;

} // namespace Norvane::Crypto::CMS
