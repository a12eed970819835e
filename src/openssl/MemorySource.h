#pragma once

/// \file
/// Read-only BIOs over bytes in memory.

#include "openssl/Pointers.h"

namespace Norvane::Crypto::openssl {

/// A read-only BIO over `length` bytes, which must outlive it; null, with an entry in the error queue, when OpenSSL
/// could not make it. OpenSSL takes the length as an int and a negative one as "measure the text", so that lengths
/// above INT_MAX are refused here.
BioPtr memorySource(const void* bytes, unsigned int length);

} // namespace Norvane::Crypto::openssl
