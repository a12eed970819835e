#pragma once

/// \file
/// TLS as the older interface gave it: methods that the installed OpenSSL may lack, and contexts that send no tickets,
/// retry nothing by themselves and bound what a peer may cost.

#include "openssl/Pointers.h"

#include <openssl/ssl.h>

namespace Norvane::Crypto::openssl {

using SslContextPtr = Owned<SSL_CTX, SSL_CTX_free>;

enum class Protocol { ssl2, ssl3, tls1, negotiated };
enum class Side { client, server };

/// A new context, or null with the reason in the error queue; a protocol that the installed OpenSSL lacks is one.
SslContextPtr newSslContext(Protocol protocol, Side side);

/// Nothing below TLS 1.2, whatever security level the program or the machine chooses.
void refuseOldVersions(SSL_CTX* context);

} // namespace Norvane::Crypto::openssl
