#pragma once

/// \file
/// Object identifiers from texts that somebody else may have chosen.

#include <string>

struct asn1_object_st;

namespace Norvane::Crypto::openssl {

/// Whether OpenSSL may be asked to read `text` as an identifier. Not one with a zero byte, of which it would take the
/// part before; and not one with a number of more than 256 digits, since it converts digits in steps that grow with the
/// square of their count (65,536 of them take seconds).
[[nodiscard]] bool mayBeIdentifier(const std::string& text);

/// The identifier that a dotted text or a name known to OpenSSL stands for, which the caller frees; null for none.
[[nodiscard]] asn1_object_st* identifierFromText(const std::string& text);

} // namespace Norvane::Crypto::openssl
