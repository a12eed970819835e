#pragma once

/// \file
/// The time limit of a blocking socket where OpenSSL does the waiting.

#include <norvcmsg/Types.h>

#include <sys/socket.h>
#include <sys/time.h>

#include <chrono>

namespace Norvane::Crypto::NVSSL {

/// Makes reads and writes of a descriptor come back after a while; OpenSSL then answers that it wants to read or write,
/// as it also does after a signal.
class TimeLimit {
public:
    /// \param milliseconds for each wait; 0: no limit
    TimeLimit(int descriptor, uint_t milliseconds) : m_limit(milliseconds) {
        if (milliseconds != 0) {
            const timeval wait{static_cast<time_t>(milliseconds / 1000),
                               static_cast<suseconds_t>(milliseconds % 1000) * 1000};
            setsockopt(descriptor, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
            setsockopt(descriptor, SOL_SOCKET, SO_SNDTIMEO, &wait, sizeof wait);
        }
    }

    /// A call that may wait begins.
    void start() {
        if (m_limit.count() != 0) {
            m_started = Clock::now();
        }
    }
    /// Whether the call lasted for as long as one wait may.
    [[nodiscard]] bool passed() const { return m_limit.count() != 0 && Clock::now() - m_started >= m_limit; }

private:
    using Clock = std::chrono::steady_clock;
    std::chrono::milliseconds m_limit;
    Clock::time_point m_started;
};

} // namespace Norvane::Crypto::NVSSL
