// The methods of single protocol versions are deprecated; callers ask for them all the same.
#define OPENSSL_SUPPRESS_DEPRECATED

#include "openssl/Tls.h"

#include "openssl/PeerMessages.h"

#include <openssl/err.h>

namespace Norvane::Crypto::openssl {

namespace {

/// Null for a protocol that the installed OpenSSL lacks.
const SSL_METHOD* methodFor(Protocol protocol, Side side) {
    const bool client = side == Side::client;
    switch (protocol) {
    case Protocol::ssl3:
#ifndef OPENSSL_NO_SSL3_METHOD
        return client ? SSLv3_client_method() : SSLv3_server_method();
#else
        return nullptr;
#endif
    case Protocol::tls1:
#ifndef OPENSSL_NO_TLS1_METHOD
        return client ? TLSv1_client_method() : TLSv1_server_method();
#else
        return nullptr;
#endif
    case Protocol::negotiated:
        return client ? TLS_client_method() : TLS_server_method();
    default:
        return nullptr; // SSL 2 left OpenSSL with release 1.1
    }
}

} // namespace

SslContextPtr newSslContext(Protocol protocol, Side side) {
    ERR_clear_error();
    SslContextPtr context(SSL_CTX_new(methodFor(protocol, side)));
    if (context == nullptr) {
        return context;
    }
    boundPeers(context.get());
    SSL_CTX_clear_mode(context.get(), SSL_MODE_AUTO_RETRY);
    if (side == Side::server) {
        // A ticket that arrives after the handshake meets a client that writes, closes and never reads with a reset; in
        // TLS 1.2 it would bring back a session whose peer was asked for a certificate, which OpenSSL then refuses.
        SSL_CTX_set_num_tickets(context.get(), 0);
        SSL_CTX_set_options(context.get(), SSL_OP_NO_TICKET);
    }
    if (protocol == Protocol::tls1) {
        SSL_CTX_set_security_level(context.get(), 0); // its signatures are SHA-1 and MD5, refused at any other
    }
    return context;
}

void refuseOldVersions(SSL_CTX* context) {
    if (SSL_CTX_get_min_proto_version(context) < TLS1_2_VERSION) { // the machine's configuration may ask for more
        SSL_CTX_set_min_proto_version(context, TLS1_2_VERSION);
    }
}

} // namespace Norvane::Crypto::openssl
