#include "SSLSocket/Handshake.h"

#include "NorvSSL/HostName.h"
#include "SSLSocket/TimeLimit.h"
#include "openssl/Deadline.h"
#include "openssl/ErrorQueue.h"

#include <openssl/err.h>

#include <fcntl.h>

namespace Norvane::Crypto::NVSSL {

namespace {

using Clock = std::chrono::steady_clock;

void tellTimeout() {
    openssl::queueError("SSL_do_handshake", ERR_LIB_SYS, ETIMEDOUT);
}

/// Makes a descriptor non-blocking for as long as it lives.
class NonBlocking {
public:
    explicit NonBlocking(int descriptor) : m_descriptor(descriptor), m_flags(fcntl(descriptor, F_GETFL)) {
        fcntl(m_descriptor, F_SETFL, m_flags | O_NONBLOCK);
    }
    NonBlocking(const NonBlocking&) = delete;
    NonBlocking& operator=(const NonBlocking&) = delete;
    ~NonBlocking() { fcntl(m_descriptor, F_SETFL, m_flags); }

private:
    int m_descriptor;
    int m_flags;
};

/// Waits for the descriptor up to a time; false when that has come. A signal does not begin the wait anew.
bool waitUntil(int descriptor, short events, std::optional<Clock::time_point> end) {
    pollfd polled{descriptor, events, 0};
    while (true) {
        int left = -1;
        if (end) {
            const auto rest = std::chrono::ceil<std::chrono::milliseconds>(*end - Clock::now()).count();
            left = static_cast<int>(std::clamp<decltype(rest)>(rest, 0, std::numeric_limits<int>::max()));
        }
        const int ready = ::poll(&polled, 1, left);
        if (ready > 0) {
            return true;
        }
        if (ready < 0 ? errno != EINTR : left >= 0 && Clock::now() >= *end) {
            return false;
        }
    }
}

using Once = openssl::SslAnswer (*)(ssl_st*);

/// Tries at once and without end as long as it only has to wait, unless the time limit is over.
bool tryWithoutEnd(ssl_st* ssl, Once once, TimeLimit limit) {
    while (true) {
        const openssl::SslAnswer answer = once(ssl);
        if (answer.result != -1 || !answer.wantsIo()) {
            return answer.result == 1;
        }
        if (limit.passed(openssl::bytesMoved(ssl))) {
            tellTimeout();
            return false;
        }
    }
}

/// Waits outside of OpenSSL, which would know of one wait alone.
bool waitBetween(ssl_st* ssl, Once once, const Patience& patience) {
    const NonBlocking mode(patience.descriptor);
    std::optional<Clock::time_point> whole;
    if (patience.altogether != 0) {
        whole = Clock::now() + std::chrono::milliseconds(patience.altogether);
    }
    const openssl::Deadline deadline(ssl, whole); // what a peer sends without a pause never comes back to here
    while (true) {
        const openssl::SslAnswer answer = once(ssl);
        if (answer.result != -1 || !answer.wantsIo()) {
            return answer.result == 1;
        }
        auto end = whole;
        if (patience.eachWait != 0) {
            const auto each = Clock::now() + std::chrono::milliseconds(patience.eachWait);
            end = end ? std::min(*end, each) : each;
        }
        if (!waitUntil(patience.descriptor, answer.error == SSL_ERROR_WANT_READ ? POLLIN : POLLOUT, end)) {
            tellTimeout();
            return false;
        }
    }
}

} // namespace

Handshake::Handshake(const ConnectionOptions& options, bool client) : m_options(options), m_client(client) {
    if (client && !options.hostName.empty()) {
        m_host = hostOf(options.hostName);
    }
}

bool Handshake::prepare(ssl_st* ssl) const {
    if (m_options.requireTrust) {
        openssl::insistOnCertificate(ssl, m_client);
    }
    return !m_host || openssl::expectHost(ssl, *m_host, m_options.sendHostName);
}

bool Handshake::run(ssl_st* ssl, const Patience& patience) const {
    const Once once = m_client ? openssl::connectOnce : openssl::acceptOnce;
    if (patience.altogether != 0 || (patience.waits && !patience.blocking)) {
        return waitBetween(ssl, once, patience);
    }
    return tryWithoutEnd(ssl, once, TimeLimit(patience.descriptor, patience.blocking ? patience.eachWait : 0));
}

std::string Handshake::distrust(const ssl_st* ssl, bool succeeded) const {
    if (!m_options.requireTrust) {
        return {};
    }
    if (const long result = SSL_get_verify_result(ssl); result != X509_V_OK) {
        return X509_verify_cert_error_string(result);
    }
    X509* const peer = SSL_get0_peer_certificate(ssl);
    if (!succeeded) {
        return {};
    }
    if (peer == nullptr) {
        return "no certificate";
    }
    const openssl::ErrorMark quiet;
    // An earlier session has the verify result of its own host name.
    return !m_host || openssl::isIssuedTo(peer, *m_host) ? "" : "the certificate is that of another host";
}

} // namespace Norvane::Crypto::NVSSL
