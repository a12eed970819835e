#include "openssl/Connection.h"

#include "openssl/ErrorQueue.h"
#include "openssl/SocketBio.h"

#include <openssl/err.h>

#include <cerrno>

namespace Norvane::Crypto::openssl {

namespace {

/// A stale entry in the queue would turn a want into a failure. What the system refused joins the queue, where OpenSSL
/// leaves it in errno alone.
template <class Call> SslAnswer framed(SSL* ssl, const char* name, Call call) {
    if (ERR_peek_error() != 0) { // clearing an empty queue is what would cost something
        ERR_clear_error();
    }
    errno = 0;
    const int result = call();
    if (result > 0) {
        return {result, SSL_ERROR_NONE};
    }
    const SslAnswer answer{result, SSL_get_error(ssl, result)};
    if (answer.error == SSL_ERROR_SYSCALL && errno != 0 && ERR_peek_error() == 0) {
        queueError(name, ERR_LIB_SYS, errno);
    }
    return answer;
}

/// From now on the end of the plain connection is no error. In the handshake it is one, and its reason is told.
SslAnswer afterHandshake(SSL* ssl, SslAnswer answer) {
    if (answer.result == 1) {
        // What was received would lie in OpenSSL's buffer until more comes, and in its memory behind the connection.
        SSL_set_options(ssl, SSL_OP_IGNORE_UNEXPECTED_EOF | SSL_OP_CLEANSE_PLAINTEXT);
        ERR_clear_error(); // a chain that did not verify and was let through
    }
    return answer;
}

} // namespace

bool setDescriptor(SSL* ssl, int descriptor) {
    if (SSL_set_fd(ssl, descriptor) != 1) {
        return false;
    }
    SSL_clear_options(ssl, SSL_OP_ENABLE_KTLS); // needs OpenSSL's own BIO to tell the kernel what is no data
    BioPtr writing = newSocketBio(descriptor);
    SSL_set0_wbio(ssl, writing.get());
    return writing.release() != nullptr;
}

SslAnswer connectOnce(SSL* ssl) {
    return afterHandshake(ssl, framed(ssl, "SSL_connect", [ssl] { return SSL_connect(ssl); }));
}

SslAnswer acceptOnce(SSL* ssl) {
    return afterHandshake(ssl, framed(ssl, "SSL_accept", [ssl] { return SSL_accept(ssl); }));
}

SslAnswer writeOnce(SSL* ssl, const unsigned char* data, int length) {
    return framed(ssl, "SSL_write", [=] { return SSL_write(ssl, data, length); });
}

SslAnswer readOnce(SSL* ssl, unsigned char* buffer, int length) {
    SslAnswer answer = framed(ssl, "SSL_read", [=] { return SSL_read(ssl, buffer, length); });
    if (answer.result <= 0 && BIO_eof(SSL_get_rbio(ssl)) == 1) {
        // OpenSSL now takes the end of the plain connection for a close notify: take that back.
        SSL_set_shutdown(ssl, SSL_get_shutdown(ssl) & ~SSL_RECEIVED_SHUTDOWN);
        ERR_clear_error();
        answer.result = 0;
    }
    return answer;
}

bool closedByPeer(const SSL* ssl) {
    return (SSL_get_shutdown(ssl) & SSL_RECEIVED_SHUTDOWN) != 0;
}

std::uint64_t bytesMoved(const SSL* ssl) {
    return BIO_number_read(SSL_get_rbio(ssl)) + BIO_number_written(SSL_get_wbio(ssl));
}

void shutdownAndFree(SSL* ssl) noexcept {
    const ErrorMark quiet;
    if ((SSL_get_shutdown(ssl) & SSL_SENT_SHUTDOWN) == 0) { // a second call would wait for the peer's close notify
        SSL_shutdown(ssl);
    }
    SSL_free(ssl);
}

} // namespace Norvane::Crypto::openssl
