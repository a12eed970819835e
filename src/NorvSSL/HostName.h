#pragma once

/// \file
/// A host name as OpenSSL compares it.

#include "openssl/HostName.h"

#include <string>

namespace Norvane::Crypto::NVSSL {

/// \throws Exception as `asciiHostName`
openssl::Host hostOf(const std::string& name);

} // namespace Norvane::Crypto::NVSSL
