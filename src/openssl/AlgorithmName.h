#pragma once

/// \file
/// Algorithms as they are named to people.

#include <openssl/objects.h>

#include <span>
#include <string>

namespace Norvane::Crypto::openssl {

/// The short name and the dotted number in brackets, the number alone when OpenSSL has no name; "no algorithm" for null.
/// Never long: what does not fit into 127 characters is cut off.
std::string algorithmName(const ASN1_OBJECT* identifier);

/// The same for the identifier that is exactly these octets, an element: "an unreadable object identifier" for others.
std::string encodedIdentifierName(std::span<const unsigned char> element);
/// In digits and dots; empty for others.
std::string encodedIdentifierDigits(std::span<const unsigned char> element);

/// The standards' name of an algorithm where it is a usual one, else OpenSSL's long name or the digits; empty for null.
std::string usualName(const ASN1_OBJECT* identifier);

} // namespace Norvane::Crypto::openssl
