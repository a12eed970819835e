#pragma once

/// \file
/// The calls on a TLS connection, each begun with an empty error queue.

#include <openssl/ssl.h>

#include <cstdint>

namespace Norvane::Crypto::openssl {

/// What a call answered, and SSL_get_error's reading of it (SSL_ERROR_NONE when it succeeded). Other errors than the
/// wants leave OpenSSL's reasons in the queue.
struct SslAnswer {
    int result;
    int error;

    /// The call has to be made again when the plain connection can be read, or written.
    [[nodiscard]] bool wantsIo() const noexcept {
        return result < 0 && (error == SSL_ERROR_WANT_READ || error == SSL_ERROR_WANT_WRITE);
    }
};

/// Puts a connection on a descriptor, which stays the caller's. Nothing that is written to it raises SIGPIPE. False when
/// OpenSSL refuses.
bool setDescriptor(SSL* ssl, int descriptor);

SslAnswer connectOnce(SSL* ssl);
SslAnswer acceptOnce(SSL* ssl);
SslAnswer writeOnce(SSL* ssl, const unsigned char* data, int length);
/// At the end of the stream the result is 0, each time, and the queue empty. That of the plain connection alone is one,
/// as it was for the older interface, and writing goes on to work; it does not show in SSL_get_shutdown. A fatal alert
/// of the peer is one too, with its text in the queue.
SslAnswer readOnce(SSL* ssl, unsigned char* buffer, int length);

/// Whether the peer's close notify, or a fatal alert, came: nothing can follow.
bool closedByPeer(const SSL* ssl);

/// How many bytes went over the plain connection, both ways.
std::uint64_t bytesMoved(const SSL* ssl);

/// Sends a close notify unless that was done, frees the connection, and leaves the queue as it was.
void shutdownAndFree(SSL* ssl) noexcept;

} // namespace Norvane::Crypto::openssl
