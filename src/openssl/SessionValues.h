#pragma once

/// \file
/// What OpenSSL tells of a connection after its handshake.

#include "openssl/Pointers.h"

#include <openssl/ssl.h>

#include <string>
#include <vector>

namespace Norvane::Crypto::openssl {

/// The group of the key exchange, by OpenSSL's name for TLS; empty when there was none.
std::string groupOf(SSL* ssl);

/// The name that the client asked for; empty when for none.
std::string serverNameOf(const SSL* ssl);

/// The protocol that was agreed on by ALPN; empty when none was.
std::string applicationProtocolOf(const SSL* ssl);

/// The certificates that the peer sent, its own first, each with a reference of the caller's.
std::vector<CertificatePtr> certificatesOf(const SSL* ssl);

} // namespace Norvane::Crypto::openssl
