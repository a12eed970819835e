#pragma once

/// \file
/// The octets that a signature over signed attributes covers (RFC 5652, 5.4).

#include "framing/Elements.h"

#include <cstddef>
#include <vector>

namespace Norvane::Crypto::openssl {

/// Attributes that are not in DER are encoded anew up to this length.
inline constexpr std::size_t mostAttributesNotDer = std::size_t{64} << 10U;

/// The encodings, under the tag of a SET, that a sender may have signed. For attributes in DER that is the one that was sent.
/// Others are added as sent, in DER with the order kept (some senders forget to sort), and in full DER. Empty for those
/// that are not in DER and too long. \param attributes the [0] of a signer
std::vector<std::vector<unsigned char>> signedAttributeEncodings(const framing::Element& attributes);

} // namespace Norvane::Crypto::openssl
