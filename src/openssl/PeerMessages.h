#pragma once

/// \file
/// What a peer of a TLS connection may cost before anybody has looked at who it is. OpenSSL decodes every certificate of
/// a Certificate message at once, public keys and extensions included, and takes key updates and session tickets without
/// end, as it passes over hello requests and hellos: it offers no place to ask for less, but it shows each message, or its
/// answer, to a callback before it reads on.

#include <openssl/ssl.h>

#include <cstddef>

namespace Norvane::Crypto::openssl {

/// Bounds the size of Certificate messages, and has all messages looked at with `refuseCostlyMessage`.
void boundPeers(SSL_CTX* context);

/// The body of a message callback (SSL_CTX_set_msg_callback). Makes a costly message malformed in place, so that OpenSSL
/// ends the connection with its own alert, or has it read nothing more (EPROTO); the reason is queued before OpenSSL's. Does
/// nothing to what this side writes, of which it counts refusals of renegotiation, nor to what is no handshake message of
/// TLS.
void refuseCostlyMessage(bool isWritten, int contentType, const void* data, std::size_t length, SSL* ssl) noexcept;

} // namespace Norvane::Crypto::openssl
