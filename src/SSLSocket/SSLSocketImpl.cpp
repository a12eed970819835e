#include "SSLSocket/Handshake.h"
#include "SSLSocket/TimeLimit.h"
#include "failures/Raise.h"
#include "openssl/Connection.h"
#include "openssl/HostName.h"

#include <norvcmsg/Buffer.h>
#include <norvcrypto/SSLSocket.h>

#include <openssl/err.h>

#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <string>
#include <utility>

namespace Norvane::Crypto::NVSSL {

namespace {

using failures::Failure;

constexpr const char* sendText =
    "virtual int Norvane::Crypto::NVSSL::SSLSocketImpl::send(const Norvane::uchar_t*, Norvane::uint_t)";
constexpr const char* receiveText =
    "virtual int Norvane::Crypto::NVSSL::SSLSocketImpl::receive(Norvane::uchar_t*, Norvane::uint_t)";

/// Throws a failure whose parameters are fixed, with OpenSSL's errors as its cause: they must not stay in the queue,
/// where the next failure of the thread would tell them as its own.
template <class E> [[noreturn]] void raiseBecauseOfOpenSsl(E exception) {
    const std::string errors = openssl::drainErrorQueue();
    if (!errors.empty()) {
        exception.cause(Exception("OpenSSL", exception.code(), nullptr, 0).stringParameter(errors));
    }
    throw exception;
}

template <class E> [[noreturn]] void raiseWithText(const Failure& failure, const char* text) {
    auto exception = failures::exceptionFor<E>(failure);
    exception.stringParameter(text);
    raiseBecauseOfOpenSsl(exception);
}

[[noreturn]] void raiseWithNumber(const Failure& failure, const char* text, int sslError) {
    auto exception = failures::exceptionFor<SocketException>(failure);
    exception.stringParameter(text);
    exception.intParameter(sslError);
    raiseBecauseOfOpenSsl(exception);
}

void requireContext(const RefContext& context, const Failure& failure) {
    if (context.isNull()) {
        failures::raise(failure, "NVSSL::Context must not be empty.");
    }
}

/// A new connection over a descriptor, which stays its owner's.
void attach(ssl_st*& ssl, const RefContext& context, int descriptor, const Failure& noConnection,
            const Failure& noDescriptor) {
    ERR_clear_error();
    SSL_free(std::exchange(ssl, nullptr)); // with no close notify of its own, which would go over the new connection
    ssl = SSL_new(context);
    if (ssl == nullptr) {
        raiseWithText<Exception>(noConnection, "Could not create an SSL instance.");
    }
    if (!openssl::setDescriptor(ssl, descriptor)) {
        raiseWithText<SocketException>(noDescriptor, "SSL_set_fd failed");
    }
}

/// Frees a connection whose handshake was good and whose peer is not: nothing may go over it.
[[noreturn]] void raiseDistrust(ssl_st*& ssl, const std::string& why) {
    const std::string text = "the peer is not trusted: " + why;
    auto exception = failures::exceptionFor<SocketException>(failures::peerNotTrusted);
    exception.stringParameter(text);
    if (ssl != nullptr) {
        openssl::shutdownAndFree(std::exchange(ssl, nullptr));
    }
    raiseBecauseOfOpenSsl(exception);
}

void prepare(const Handshake& handshake, ssl_st* ssl, const Failure& failure) {
    if (!handshake.prepare(ssl)) {
        raiseWithText<Exception>(failure, "Could not create an SSL instance.");
    }
}

[[noreturn]] void refuseUpgrade(const std::string& why) {
    failures::raise<SocketException>(failures::upgradeRefused, why);
}

void refusePlainText(std::size_t count, bool orMore) {
    if (count != 0) {
        refuseUpgrade(std::to_string(count) + (orMore ? " or more" : "") +
                      " bytes came in plain text before the handshake");
    }
}

/// What has arrived and was not received, up to a number.
std::size_t arrived(int descriptor) {
    std::array<char, 64> some{};
    const auto count = ::recv(descriptor, some.data(), some.size(), MSG_PEEK | MSG_DONTWAIT);
    return count > 0 ? static_cast<std::size_t>(count) : 0;
}

} // namespace

SSLSocketImpl::SSLSocketImpl(RefContext& context, int /*family*/) : m_context(context) {}

// Delegates, so that a handshake that fails is cleaned up by the destructor.
SSLSocketImpl::SSLSocketImpl(RefContext& context, const SocketAddress& address)
    : SSLSocketImpl(context, address.family()) {
    SSLSocketImpl::connect(address);
}

SSLSocketImpl::SSLSocketImpl(RefContext& context, const SocketAddress& address, const ConnectionOptions& options)
    : SSLSocketImpl(context, address.family()) {
    m_options = options;
    SSLSocketImpl::connect(address);
}

SSLSocketImpl::~SSLSocketImpl() {
    if (m_ssl != nullptr) {
        const TimeLimit limit(m_descriptor, timeLimit());
        openssl::shutdownAndFree(std::exchange(m_ssl, nullptr));
    }
}

const ConnectionOptions& SSLSocketImpl::options() const {
    static const ConnectionOptions none;
    return m_options ? *m_options : m_context.isNull() ? none : m_context->connectionOptions();
}

void SSLSocketImpl::shakeHandsAsClient(const Handshake& handshake, bool waits) {
    requireContext(m_context, failures::connectWithoutContext);
    attach(m_ssl, m_context, m_descriptor, failures::connectNew, failures::connectDescriptor);
    SSL_set_connect_state(m_ssl);
    prepare(handshake, m_ssl, failures::connectNew);
    const Patience patience{m_descriptor, m_blocking, timeLimit(), options().handshakeLimit, waits};
    const bool done = handshake.run(m_ssl, patience);
    if (const std::string why = handshake.distrust(m_ssl, done); !why.empty()) {
        raiseDistrust(m_ssl, why);
    }
    if (!done) {
        if (options().requireTrust) { // what is sent next would go on with the handshake, and nobody look at the peer
            SSL_free(std::exchange(m_ssl, nullptr));
        }
        raiseWithText<SocketException>(failures::connectHandshake, "SSL_connect failed");
    }
}

void SSLSocketImpl::shakeHandsAsServer(const Handshake& handshake, uint_t eachWait, bool waits) {
    requireContext(m_context, failures::acceptWithoutContext);
    attach(m_ssl, m_context, m_descriptor, failures::acceptNew, failures::acceptDescriptor);
    prepare(handshake, m_ssl, failures::acceptNew);
    const Patience patience{m_descriptor, m_blocking, eachWait, options().handshakeLimit, waits};
    const bool done = handshake.run(m_ssl, patience);
    if (done && options().requireTrust) {
        openssl::forgetSession(m_ssl);
    }
    if (const std::string why = handshake.distrust(m_ssl, done); !why.empty()) {
        raiseDistrust(m_ssl, why);
    }
    if (!done) {
        failures::raiseWithErrors<SocketException>(failures::acceptHandshake);
    }
}

void SSLSocketImpl::connect(const SocketAddress& address) {
    const Handshake handshake(options(), true);
    if (timeLimit() == 0) {
        timeLimit(options().timeLimit);
    }
    SocketImpl::connect(address);
    shakeHandsAsClient(handshake, false);
}

Socket SSLSocketImpl::accept() {
    requireContext(m_context, failures::acceptWithoutContext);
    SSLSocket accepted(m_context, AF_INET);
    auto& body = static_cast<SSLSocketImpl&>(*accepted);
    if (!SocketImpl::accept(&body)) {
        return {};
    }
    body.m_options = m_options;
    body.timeLimit(options().timeLimit);
    const Handshake handshake(options(), false);
    body.shakeHandsAsServer(handshake, timeLimit() == 0 ? options().timeLimit : timeLimit(), false);
    return accepted;
}

void SSLSocketImpl::upgrade(Socket& plain, const Buffer& unread, bool client) {
    const Handshake handshake(options(), client);
    if (dynamic_cast<SSLSocketImpl*>(&*plain) != nullptr) {
        refuseUpgrade("speaks TLS already");
    }
    if (!plain.connected()) {
        failures::raise<SocketException>(failures::sslNotConnected, "not connected");
    }
    requireContext(m_context, client ? failures::connectWithoutContext : failures::acceptWithoutContext);
    refusePlainText(unread.length(), false);
    if (client) {
        const std::size_t count = arrived(plain.descriptor());
        refusePlainText(count, true);
    }
    plain->moveTo(*this);
    if (timeLimit() == 0) {
        timeLimit(options().timeLimit);
    }
    if (client) {
        shakeHandsAsClient(handshake, true);
    } else {
        shakeHandsAsServer(handshake, timeLimit(), true);
    }
}

int SSLSocketImpl::send(const uchar_t* data, uint_t length) {
    if (m_ssl == nullptr) {
        failures::raise<SocketException>(failures::sendNotConnected);
    }
    const Synchronized lock(m_mutex);
    const int wanted = static_cast<int>(length);
    TimeLimit limit(m_descriptor, m_blocking ? timeLimit() : 0);
    int sent = 0;
    while (wanted > sent) {
        // The whole buffer each time: one success takes all of it.
        const auto answer = openssl::writeOnce(m_ssl, data, wanted);
        if (answer.result > 0) {
            sent += answer.result;
        } else if (answer.result == 0 || answer.error == SSL_ERROR_WANT_READ) {
            return sent;
        } else if (answer.error == SSL_ERROR_SSL) {
            openssl::drainErrorQueue(); // the caller is told by the count alone
            return sent;
        } else if (answer.error != SSL_ERROR_WANT_WRITE || limit.passed(openssl::bytesMoved(m_ssl))) {
            raiseWithNumber(failures::sendFailed, sendText, answer.error);
        } else if (m_blocking) {
            limit.waitToWrite();
        }
    }
    return sent;
}

bool SSLSocketImpl::readable() {
    return true;
}

int SSLSocketImpl::receive(uchar_t* buffer, uint_t length) {
    if (m_ssl == nullptr) {
        failures::raise<SocketException>(failures::receiveNotConnected);
    }
    const Synchronized lock(m_mutex);
    const int room = static_cast<int>(length);
    if (room <= 0) {
        return 0;
    }
    const TimeLimit limit(m_descriptor, timeLimit());
    bool mayWaitInRead = m_blocking && timeLimit() == 0;
    while (!openssl::closedByPeer(m_ssl)) {
        // The plain socket's own wait: what OpenSSL holds decrypted does not count. Where it holds nothing and there is no
        // limit, its own read waits just so, unless the program made the descriptor non-blocking by itself.
        const bool readWaits = mayWaitInRead && SSL_has_pending(m_ssl) == 0;
        while (!readWaits && !SocketImpl::readable()) {
            if (!m_blocking) {
                errno = EAGAIN;
                return 0;
            }
        }
        const auto answer = openssl::readOnce(m_ssl, buffer, room);
        if (answer.result > 0) {
            return answer.result;
        }
        if (answer.result == 0) {
            break;
        }
        if (!answer.wantsIo()) {
            raiseWithNumber(failures::receiveFailed, receiveText, answer.error);
        }
        mayWaitInRead = false;
        // An answer to the peer that the system does not take: what is there to be read must not end the wait.
        if (answer.error == SSL_ERROR_WANT_WRITE && !SocketImpl::writable()) {
            errno = EAGAIN;
            return 0;
        }
    }
    errno = 0; // tells the end from a socket that has nothing yet
    return 0;
}

} // namespace Norvane::Crypto::NVSSL
