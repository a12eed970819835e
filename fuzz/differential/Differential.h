#pragma once

/// \file
/// What `EnvelopeReader` and `SignedReader` say of some octets, beside what OpenSSL's decoder and its CMS_decrypt and
/// CMS_verify say. Either they agree, in the verdict, the content and the length, or the difference is one of a closed
/// list, each of which is established by an experiment: the input is changed in that one respect, and both must agree
/// then. What is left is a finding.

#include "Tree.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

namespace fuzz {

enum class Outcome : std::uint8_t {
    bothAccept,
    bothRefuse,

    // The reader refuses what OpenSSL accepts.
    segmentOfAnotherTag,
    segmentOfTagZero,
    primitiveSet,
    budget,
    tooDeep,
    shortTag,
    gcmParameters,
    cipher,
    missingParameters,
    transportUnknown,
    attributesNotDer,
    contentTypeUnnamed,
    originatorKeyInSegments,
    severalStricter,
    attributesForbidden,
    algorithmsDiffer,
    notSupported,
    certificateRefused,
    certificateNotDer,

    // The reader accepts what OpenSSL refuses.
    otherRecipients,
    originatorInformation,
    unprotectedAttributes,
    authenticatedAttributes,
    nestedSegments,
    otherCertificates,
    revocationLists,
    unsignedAttributes,
    otherDigestAlgorithms,
    digestsUnannounced,
    algorithmParameters,
    edwardsCurve,
    attributesInOrder,
    signatureAsDigest,
    certificateExtensions,
    severalWider,

    unexplained,
};
inline constexpr std::size_t outcomes = static_cast<std::size_t>(Outcome::unexplained) + 1;

const char* textOf(Outcome outcome) noexcept;
bool isStricter(Outcome outcome) noexcept;
bool isWider(Outcome outcome) noexcept;

struct Comparison {
    Outcome outcome = Outcome::unexplained;
    std::string detail{}; ///< of what is unexplained: what both said
};

Comparison compareEnvelope(const Bytes& octets);
Comparison compareSigned(const Bytes& octets);

/// Aborts with the input in hexadecimal digits when it is unexplained.
void require(const Comparison& comparison, const Bytes& octets);

/// Counts of outcomes.
using Counts = std::array<std::size_t, outcomes>;

} // namespace fuzz
