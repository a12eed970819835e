#pragma once

/// \file
/// Who opens enveloped messages, and what OpenSSL says of one.

#include "Compared.h"

#include <authority/Authority.h>

#include <array>
#include <cstdint>

namespace fuzz {

/// Whose key opens.
enum class Opener : std::uint8_t { rsa, agreement, keyEncryptionKey, password };
constexpr std::array<Opener, 4> openers{Opener::rsa, Opener::agreement, Opener::keyEncryptionKey, Opener::password};

/// The certificate and key of an opener that has such; else null.
const norvauthority::Identity* identityOf(Opener opener);

Answer opensslSays(const Bytes& octets, Opener opener);
/// The content of an authenticated message with attributes, by OpenSSL's keys and cipher: the message without them, and
/// they as what is authenticated beside the content (RFC 5083, 2.2).
Answer opensslSaysWithAttributes(const Node& message, Opener opener);

} // namespace fuzz
