#pragma once

/// \file
/// Algorithms as they are named to people.

#include <openssl/objects.h>

#include <string>

namespace Norvane::Crypto::openssl {

/// The short name and the dotted number in brackets, the number alone when OpenSSL has no name; "no algorithm" for null.
/// Never long: what does not fit into 127 characters is cut off.
std::string algorithmName(const ASN1_OBJECT* identifier);

/// The standards' name of an algorithm where it is a usual one, else OpenSSL's long name or the digits; empty for null.
std::string usualName(const ASN1_OBJECT* identifier);

} // namespace Norvane::Crypto::openssl
