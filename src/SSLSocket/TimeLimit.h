#pragma once

/// \file
/// The time limit of a blocking socket where OpenSSL does the waiting.

#include <norvcmsg/Types.h>

#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <limits>
#include <utility>

namespace Norvane::Crypto::NVSSL {

/// Makes reads and writes of a descriptor come back after a while; OpenSSL then answers that it wants to read or write,
/// as it also does after a signal.
class TimeLimit {
public:
    /// \param milliseconds for each wait; 0: no limit
    TimeLimit(int descriptor, uint_t milliseconds) : m_descriptor(descriptor), m_limit(milliseconds) {
        if (milliseconds != 0) {
            const timeval wait{static_cast<time_t>(milliseconds / 1000),
                               static_cast<suseconds_t>(milliseconds % 1000) * 1000};
            setsockopt(descriptor, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
            setsockopt(descriptor, SOL_SOCKET, SO_SNDTIMEO, &wait, sizeof wait);
            m_started = Clock::now();
        }
    }

    /// Asked when a call came back and left errno alone: whether a wait lasted for as long as it may. A signal does not
    /// begin the wait anew, or a steady stream of them would keep it from ever ending; bytes that moved do.
    /// \param moved bytes read and written so far
    [[nodiscard]] bool passed(std::uint64_t moved) {
        if (m_limit.count() == 0) {
            return false;
        }
        if (moved != std::exchange(m_moved, moved) && errno == EINTR) {
            m_started = Clock::now();
        }
        return Clock::now() - m_started >= m_limit;
    }

    /// Waits until the descriptor takes bytes, or the limit is over: for a descriptor that the program made non-blocking
    /// by itself, whose calls come back at once. Once it takes some, the next wait begins.
    void waitToWrite() {
        pollfd polled{m_descriptor, POLLOUT, 0};
        int left = -1;
        if (m_limit.count() != 0) {
            const auto rest = std::chrono::ceil<std::chrono::milliseconds>(m_started + m_limit - Clock::now()).count();
            left = static_cast<int>(std::clamp<decltype(rest)>(rest, 0, std::numeric_limits<int>::max()));
        }
        if (::poll(&polled, 1, left) > 0) {
            m_started = Clock::now();
        }
    }

private:
    using Clock = std::chrono::steady_clock;
    int m_descriptor;
    std::chrono::milliseconds m_limit;
    Clock::time_point m_started;
    std::uint64_t m_moved = 0;
};

} // namespace Norvane::Crypto::NVSSL
