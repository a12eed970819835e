#pragma once

/// \file
/// Object identifiers and AlgorithmIdentifiers, encoded.

#include "framing/Encoding.h"

#include <optional>
#include <string>

namespace Norvane::Crypto::openssl {

/// The element of an identifier that OpenSSL has a number (NID) for.
framing::Encoded objectIdentifier(int nid);
/// The element of one in digits and dots, 256 characters at most; nothing when it is none.
std::optional<framing::Encoded> objectIdentifier(const std::string& digits);

/// AlgorithmIdentifier without parameters.
framing::Encoded algorithmIdentifier(int nid);
/// With parameters, which are an element.
framing::Encoded algorithmIdentifier(int nid, framing::Octets parameters);

} // namespace Norvane::Crypto::openssl
