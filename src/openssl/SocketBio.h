#pragma once

/// \file
/// The writing end of a connection: OpenSSL's own writes with write(), which raises SIGPIPE where the peer is gone.

#include "openssl/Pointers.h"

namespace Norvane::Crypto::openssl {

/// A BIO like BIO_s_socket()'s, whose writes raise no signal. The descriptor stays the caller's. Null when there is no
/// memory.
BioPtr newSocketBio(int descriptor);

} // namespace Norvane::Crypto::openssl
