// What goes over a socket; how one is made and set up stands in SocketSetUp.cpp.

#include <norvcmsg/Socket.h>

#include "NativeAddress.h"
#include "SocketCalls.h"

#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <limits>

namespace Norvane {

using detail::fail;
using detail::Opening;

namespace {

constexpr uint_t largestCount = std::numeric_limits<int>::max();

/// What `call` answers once no signal interrupts it.
template <class Call> auto uninterrupted(Call call) {
    auto result = call();
    while (result < 0 && errno == EINTR) {
        result = call();
    }
    return result;
}

/// True for what ails the connection that was to be accepted, not the listener: it is passed over.
bool concernsThePeer(int error) {
    switch (error) {
    case ECONNABORTED:
    case EPROTO:
    case ENOPROTOOPT:
    case ENETDOWN:
    case ENETUNREACH:
    case EHOSTDOWN:
    case EHOSTUNREACH:
    case ENONET:
        return true;
    default:
        return false;
    }
}

} // namespace

Socket SocketImpl::accept() {
    Socket accepted(true);
    return accept(&*accepted) ? accepted : Socket();
}

bool SocketImpl::accept(SocketImpl* target) {
    constexpr auto where = "SocketImpl::accept";
    requireOpen(where);
    if (target == nullptr || target->m_descriptor >= 0) {
        fail(where, target == nullptr ? EFAULT : EISCONN);
    }
    const int flags = SOCK_CLOEXEC | (target->m_blocking ? 0 : SOCK_NONBLOCK);
    while (true) {
        const int descriptor = uninterrupted([&] { return ::accept4(m_descriptor, nullptr, nullptr, flags); });
        if (descriptor >= 0) {
            target->m_descriptor = descriptor;
            return true;
        }
        if (errno == EAGAIN && !m_blocking) {
            return false;
        }
        if (errno == EAGAIN) {
            wait(where, SocketAddress(), POLLIN);
        } else if (!concernsThePeer(errno)) {
            fail(where, errno);
        }
    }
}

int SocketImpl::send(const uchar_t* data, uint_t length) {
    constexpr auto where = "SocketImpl::send";
    requireOpen(where);
    if (length > largestCount) {
        fail(where, EMSGSIZE);
    }
    uint_t sent = 0;
    while (sent < length) {
        const auto count = uninterrupted(
            [&] { return ::send(m_descriptor, data + sent, length - sent, MSG_NOSIGNAL | MSG_DONTWAIT); });
        if (count >= 0) {
            sent += static_cast<uint_t>(count);
        } else if (errno != EAGAIN) {
            fail(where, errno);
        } else if (m_blocking) {
            wait(where, SocketAddress(), POLLOUT);
        } else {
            break;
        }
    }
    return static_cast<int>(sent);
}

bool SocketImpl::readable() {
    requireOpen("SocketImpl::readable");
    return wait("SocketImpl::readable", SocketAddress(), POLLIN);
}

bool SocketImpl::writable() {
    requireOpen("SocketImpl::writable");
    return wait("SocketImpl::writable", m_peer, POLLOUT);
}

void SocketImpl::connect(const SocketAddress& address) {
    constexpr auto where = "SocketImpl::connect";
    if (address.isNull()) {
        detail::throwSocket(where, "SocketImpl", "no address");
    }
    if (connected()) {
        fail(where, EISCONN, address); // the system would tell only the second time
    }
    Opening opening(m_descriptor);
    open(where, address.family());
    // Never blocking here: a wait of the system's own would know neither the time limit nor how to go on after a signal.
    int nonBlocking = 1;
    if (ioctl(m_descriptor, FIONBIO, &nonBlocking) != 0) {
        fail(where, errno, address);
    }
    m_peer = address;
    auto native = detail::toNative(address);
    int error = ::connect(m_descriptor, native.get(), native.length) == 0 ? 0 : errno;
    if (error == EINPROGRESS || error == EINTR) {
        error = m_blocking ? 0 : EINPROGRESS;
        if (m_blocking && wait(where, address, POLLOUT) && !connected()) {
            fail(where, ECONNABORTED, address); // another thread shut it down
        }
    } else if (error != 0) {
        fail(where, error, address);
    }
    applyMode(where);
    opening.keep();
    errno = error;
}

bool SocketImpl::connected() {
    if (m_descriptor < 0) {
        return false;
    }
    detail::NativeAddress peer;
    if (getpeername(m_descriptor, peer.get(), &peer.length) == 0) {
        return true;
    }
    int error = 0;
    socklen_t length = sizeof error;
    if (getsockopt(m_descriptor, SOL_SOCKET, SO_ERROR, &error, &length) != 0) {
        error = errno;
    }
    if (error != 0) {
        fail("SocketImpl::connect", error, m_peer);
    }
    return false;
}

int SocketImpl::receive(uchar_t* buffer, uint_t length) {
    constexpr auto where = "SocketImpl::receive";
    requireOpen(where);
    if (length == 0) {
        return 0;
    }
    while (true) {
        const auto count =
            uninterrupted([&] { return ::recv(m_descriptor, buffer, std::min(length, largestCount), MSG_DONTWAIT); });
        if (count >= 0) {
            errno = 0;
            return static_cast<int>(count);
        }
        if (errno != EAGAIN) {
            fail(where, errno);
        }
        if (!m_blocking) {
            return 0;
        }
        wait(where, SocketAddress(), POLLIN);
    }
}

/// Waits until one of `events` (or the end of the connection) is there; a non-blocking socket only looks. False when it
/// is not.
bool SocketImpl::wait(const char* where, const SocketAddress& peer, short events) const {
    using Clock = std::chrono::steady_clock;
    const auto until = Clock::now() + std::chrono::milliseconds(m_timeLimit);
    pollfd polled{m_descriptor, events, 0};
    while (true) {
        int left = m_blocking ? -1 : 0;
        if (m_blocking && m_timeLimit != 0) {
            const auto rest = std::chrono::ceil<std::chrono::milliseconds>(until - Clock::now()).count();
            left = static_cast<int>(std::clamp<decltype(rest)>(rest, 0, largestCount));
        }
        const int ready = ::poll(&polled, 1, left);
        if (ready > 0) {
            return true;
        }
        if (ready < 0 && errno != EINTR) {
            fail(where, errno, peer);
        }
        if (ready == 0 && !m_blocking) {
            return false;
        }
        if (ready == 0 && Clock::now() >= until) {
            fail(where, ETIMEDOUT, peer);
        }
    }
}

} // namespace Norvane
