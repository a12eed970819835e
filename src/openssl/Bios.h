#pragma once

/// \file
/// BIOs whose arguments OpenSSL would misread.

#include "openssl/Pointers.h"

#include <string>

namespace Norvane::Crypto::openssl {

/// A read-only BIO over `length` bytes, which must outlive it; null, with an entry in the error queue, when OpenSSL
/// could not make it. OpenSSL takes the length as an int and a negative one as "measure the text", so that lengths
/// above INT_MAX are refused here.
BioPtr memorySource(const void* bytes, unsigned int length);

/// A BIO on a file; null, with entries in the error queue, when it cannot be opened. A path with an embedded NUL, which
/// would open another file, is refused.
BioPtr fileBio(const std::string& path, const std::string& mode);

} // namespace Norvane::Crypto::openssl
