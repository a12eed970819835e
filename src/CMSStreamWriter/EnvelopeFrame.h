#pragma once

/// \file
/// What stands around the encrypted content: the octets before and behind it.

#include "framing/Encoding.h"

#include <cstdint>
#include <vector>

namespace Norvane::Crypto::CMS {

/// EnvelopedData or AuthEnvelopedData but for the content.
struct WrittenFrame {
    bool authenticated = false;
    unsigned int version = 0;
    framing::Encoded recipients;  ///< the SET
    framing::Encoded contentType; ///< the identifier
    framing::Encoded cipher;      ///< the AlgorithmIdentifier
    framing::Encoded attributes;  ///< the authenticated ones, as elements of their SET; empty: none

    /// The octets before the content's segments, or before its octets where its length is known. What stands behind the
    /// content is as long as `tail` of that many octets.
    [[nodiscard]] framing::Encoded head() const;
    [[nodiscard]] framing::Encoded head(std::uint64_t contentLength) const;
    /// The octets behind the content. \param indefinite as the head is \param tag none, unless it is authenticated
    [[nodiscard]] framing::Encoded tail(bool indefinite, framing::Octets tag) const;

private:
    [[nodiscard]] framing::Encoded start() const;
    [[nodiscard]] framing::Encoded afterContent(framing::Octets tag) const;
};

} // namespace Norvane::Crypto::CMS
