// How a socket is made and set up; what goes over it stands in SocketImpl.cpp.

#include <norvcmsg/Socket.h>

#include "NativeAddress.h"
#include "SocketCalls.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cerrno>
#include <utility>

namespace Norvane {

using detail::fail;
using detail::Opening;

template class RefCounted<SocketImpl>;
template class Ref<SocketImpl>;

namespace {

void setOption(const char* where, int descriptor, int level, int option, int value,
               SourceLocation here = SourceLocation::current()) {
    if (setsockopt(descriptor, level, option, &value, sizeof value) != 0) {
        fail(where, errno, SocketAddress(), here);
    }
}

/// The address that `ask` (getsockname or getpeername) tells.
template <class Ask> SocketAddress addressOf(const char* where, int descriptor, Ask ask) {
    detail::NativeAddress native;
    if (ask(descriptor, native.get(), &native.length) != 0) {
        fail(where, errno);
    }
    return detail::fromNative(native.get());
}

} // namespace

SocketImpl::SocketImpl() : m_mutex(&m_ownMutex), m_family(AF_INET) {}

SocketImpl::~SocketImpl() {
    detail::closeDescriptor(m_descriptor);
}

void SocketImpl::set(int type, bool nonBlocking, bool reuseAddress, int family) {
    constexpr auto where = "SocketImpl::set";
    if (type != SOCK_STREAM) {
        fail(where, ESOCKTNOSUPPORT);
    }
    if (family != AF_INET && family != AF_INET6) {
        fail(where, EAFNOSUPPORT);
    }
    m_reuseAddress = reuseAddress;
    m_family = family;
    blocking(!nonBlocking);
}

void SocketImpl::blocking(bool wait) {
    m_blocking = wait;
    if (m_descriptor >= 0) {
        applyMode("SocketImpl::blocking");
    }
}

void SocketImpl::bind(const SocketAddress& address) {
    constexpr auto where = "SocketImpl::bind";
    if (address.isNull()) {
        detail::throwSocket(where, "SocketImpl", "no address");
    }
    Opening opening(m_descriptor);
    openForListening(where, address.family());
    auto native = detail::toNative(address);
    if (::bind(m_descriptor, native.get(), native.length) != 0) {
        fail(where, errno, address);
    }
    opening.keep();
}

void SocketImpl::listen(int backlog) {
    constexpr auto where = "SocketImpl::listen";
    Opening opening(m_descriptor);
    openForListening(where, m_family);
    if (::listen(m_descriptor, backlog) != 0) {
        fail(where, errno);
    }
    m_listening = true;
    applyMode(where);
    opening.keep();
}

void SocketImpl::moveTo(SocketImpl& target) {
    constexpr auto where = "SocketImpl::moveTo";
    requireOpen(where);
    if (m_listening || target.m_descriptor >= 0) {
        fail(where, m_listening ? EINVAL : EISCONN);
    }
    target.m_blocking = m_blocking;
    target.m_timeLimit = m_timeLimit;
    target.m_family = m_family;
    target.m_peer = m_peer;
    target.m_descriptor = std::exchange(m_descriptor, -1);
}

void SocketImpl::shutdown(bool receiving, bool sending) {
    constexpr auto where = "SocketImpl::shutdown";
    requireOpen(where);
    if (!receiving && !sending) {
        return;
    }
    const int directions = receiving && sending ? SHUT_RDWR : receiving ? SHUT_RD : SHUT_WR;
    // A connection that the peer has reset is ended already.
    if (::shutdown(m_descriptor, directions) != 0 && errno != ENOTCONN) {
        fail(where, errno);
    }
}

void SocketImpl::noDelay(bool on) {
    requireOpen("SocketImpl::noDelay");
    setOption("SocketImpl::noDelay", m_descriptor, IPPROTO_TCP, TCP_NODELAY, on ? 1 : 0);
}

SocketAddress SocketImpl::localAddress() const {
    requireOpen("SocketImpl::localAddress");
    return addressOf("SocketImpl::localAddress", m_descriptor, &getsockname);
}

SocketAddress SocketImpl::remoteAddress() const {
    requireOpen("SocketImpl::remoteAddress");
    return addressOf("SocketImpl::remoteAddress", m_descriptor, &getpeername);
}

/// Makes the descriptor when there is none.
void SocketImpl::open(const char* where, int family) {
    if (m_descriptor >= 0) {
        return;
    }
    FileDescriptor made(::socket(family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!made.isOpen()) {
        fail(where, errno);
    }
    m_descriptor = made.release();
}

/// The same, with what has to be set before it is bound.
void SocketImpl::openForListening(const char* where, int family) {
    if (m_descriptor >= 0) {
        return;
    }
    open(where, family);
    setOption(where, m_descriptor, SOL_SOCKET, SO_REUSEADDR, m_reuseAddress ? 1 : 0);
    if (family == AF_INET6) {
        // Whether "[::]" takes IPv4 as well must not depend on how the machine is set up.
        setOption(where, m_descriptor, IPPROTO_IPV6, IPV6_V6ONLY, 1);
    }
}

void SocketImpl::requireOpen(const char* where) const {
    if (m_descriptor < 0) {
        fail(where, ENOTCONN);
    }
}

void SocketImpl::applyMode(const char* where) const {
    int nonBlocking = m_blocking && !m_listening ? 0 : 1;
    if (ioctl(m_descriptor, FIONBIO, &nonBlocking) != 0) {
        fail(where, errno);
    }
}

} // namespace Norvane
