#pragma once

/// \file
/// The connections that a server makes and serves at this moment, so that another thread can end them.

#include <openssl/ssl.h>

#include <chrono>
#include <map>
#include <mutex>
#include <string>
#include <thread>

namespace norvcrypt {

/// At most one connection for each thread. Any thread may call anything.
class TlsConnections {
public:
    explicit TlsConnections(std::chrono::seconds handshakeLimit) : m_handshakeLimit(handshakeLimit) {}

    /// The calling thread begins a handshake. Once `stop` was called, the connection is ended at once.
    void begin(SSL* connection);
    /// The calling thread's handshake is through: it is not limited any more.
    void established();
    /// The calling thread is done with its connection, if it had one.
    void end();
    /// The calling thread's peer, such as 192.0.2.1:4433.
    [[nodiscard]] std::string peer() const;
    /// Whether the calling thread's handshake was ended by `endSlowHandshakes`.
    [[nodiscard]] bool wasTooSlow() const;

    /// A peer that says nothing, or one byte at a time, does not hold its thread for longer than the limit.
    void endSlowHandshakes();
    /// Ends all connections, and those that begin later. False when that was done before.
    bool stop();
    [[nodiscard]] bool isStopped() const;

private:
    using Clock = std::chrono::steady_clock;

    class Connection {
    public:
        Connection(int descriptor, Clock::time_point deadline);
        ~Connection();
        Connection(const Connection&) = delete;
        Connection& operator=(const Connection&) = delete;
        void cut() const;

        std::string peer;
        Clock::time_point deadline; ///< of the handshake
        bool tooSlow = false;

    private:
        int m_descriptor; ///< a duplicate: the number of the other may be another connection's at any time
    };

    std::chrono::seconds m_handshakeLimit;
    std::map<std::thread::id, Connection> m_connections;
    bool m_stopped = false;
    mutable std::mutex m_mutex; ///< of the two above
};

} // namespace norvcrypt
