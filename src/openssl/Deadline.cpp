#include "openssl/Deadline.h"

#include <cerrno>

namespace Norvane::Crypto::openssl {

Deadline::Deadline(SSL* ssl, std::optional<Time> end) noexcept : m_reading(SSL_get_rbio(ssl)), m_end(end) {
    BIO_set_callback_arg(m_reading, reinterpret_cast<char*>(this));
    BIO_set_callback_ex(m_reading, called);
}

Deadline::~Deadline() {
    BIO_set_callback_ex(m_reading, nullptr);
    BIO_set_callback_arg(m_reading, nullptr);
}

long Deadline::called(BIO* bio, int operation, const char* /*data*/, std::size_t /*length*/, int /*argument*/,
                      long /*number*/, int result, std::size_t* /*processed*/) {
    const auto* const self = reinterpret_cast<const Deadline*>(BIO_get_callback_arg(bio));
    if (operation == BIO_CB_READ && self->m_end && std::chrono::steady_clock::now() >= *self->m_end) {
        BIO_clear_retry_flags(bio);
        errno = ETIMEDOUT;
        return -1;
    }
    return result;
}

} // namespace Norvane::Crypto::openssl
