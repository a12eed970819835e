#include "openssl/SocketBio.h"

#include <sys/socket.h>

#include <cerrno>

namespace Norvane::Crypto::openssl {

namespace {

/// As OpenSSL's own, but for the flag.
int writeQuietly(BIO* bio, const char* data, int length) {
    errno = 0;
    const auto written =
        send(static_cast<int>(BIO_get_fd(bio, nullptr)), data, static_cast<std::size_t>(length), MSG_NOSIGNAL);
    BIO_clear_retry_flags(bio);
    if (BIO_sock_should_retry(static_cast<int>(written)) != 0) { // only of a failure
        BIO_set_retry_write(bio);
    }
    return static_cast<int>(written);
}

BioMethodPtr newMethod() {
    const BIO_METHOD* plain = BIO_s_socket();
    BioMethodPtr method(BIO_meth_new(BIO_TYPE_SOCKET, "socket without SIGPIPE"));
    if (method != nullptr) {
        BIO_meth_set_create(method.get(), BIO_meth_get_create(plain));
        BIO_meth_set_destroy(method.get(), BIO_meth_get_destroy(plain));
        BIO_meth_set_ctrl(method.get(), BIO_meth_get_ctrl(plain));
        BIO_meth_set_write(method.get(), writeQuietly);
    }
    return method;
}

} // namespace

BioPtr newSocketBio(int descriptor) {
    static const BioMethodPtr method = newMethod();
    BioPtr bio(method == nullptr ? nullptr : BIO_new(method.get()));
    if (bio != nullptr) {
        BIO_set_fd(bio.get(), descriptor, BIO_NOCLOSE);
    }
    return bio;
}

} // namespace Norvane::Crypto::openssl
