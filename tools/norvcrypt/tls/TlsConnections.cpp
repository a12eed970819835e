#include "tls/TlsConnections.h"

#include <array>
#include <fcntl.h>
#include <netdb.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

namespace norvcrypt {

namespace {

/// Asked at the start: who has reset the connection later has no address any more.
std::string peerOf(int descriptor) {
    sockaddr_storage storage{};
    auto* const address = reinterpret_cast<sockaddr*>(&storage);
    socklen_t length = sizeof storage;
    std::array<char, NI_MAXHOST> host{};
    std::array<char, NI_MAXSERV> port{};
    if (getpeername(descriptor, address, &length) != 0 ||
        getnameinfo(address, length, host.data(), host.size(), port.data(), port.size(),
                    NI_NUMERICHOST | NI_NUMERICSERV) != 0)
        return "a peer that is gone";
    const bool isV6 = storage.ss_family == AF_INET6;
    return (isV6 ? "[" : "") + std::string(host.data()) + (isV6 ? "]:" : ":") + port.data();
}

} // namespace

TlsConnections::Connection::Connection(int descriptor, Clock::time_point until)
    : peer(peerOf(descriptor)),
      deadline(until),
      m_descriptor(fcntl(descriptor, F_DUPFD_CLOEXEC, 0)) {
    if (m_descriptor < 0)
        ::shutdown(descriptor, SHUT_RDWR); // nobody could end it later
}

TlsConnections::Connection::~Connection() {
    if (m_descriptor >= 0)
        close(m_descriptor);
}

void TlsConnections::Connection::cut() const {
    ::shutdown(m_descriptor, SHUT_RDWR);
}

void TlsConnections::begin(SSL* connection) {
    const std::lock_guard lock(m_mutex);
    const auto [at, isNew] =
        m_connections.try_emplace(std::this_thread::get_id(), SSL_get_fd(connection), Clock::now() + m_handshakeLimit);
    if (m_stopped)
        at->second.cut();
}

void TlsConnections::established() {
    const std::lock_guard lock(m_mutex);
    m_connections.at(std::this_thread::get_id()).deadline = Clock::time_point::max();
}

void TlsConnections::end() {
    const std::lock_guard lock(m_mutex);
    m_connections.erase(std::this_thread::get_id());
}

std::string TlsConnections::peer() const {
    const std::lock_guard lock(m_mutex);
    const auto at = m_connections.find(std::this_thread::get_id());
    return at == m_connections.end() ? "nobody" : at->second.peer;
}

bool TlsConnections::wasTooSlow() const {
    const std::lock_guard lock(m_mutex);
    const auto at = m_connections.find(std::this_thread::get_id());
    return at != m_connections.end() && at->second.tooSlow;
}

void TlsConnections::endSlowHandshakes() {
    const std::lock_guard lock(m_mutex);
    for (auto& [thread, connection] : m_connections)
        if (!connection.tooSlow && Clock::now() > connection.deadline) {
            connection.tooSlow = true;
            connection.cut();
        }
}

bool TlsConnections::stop() {
    const std::lock_guard lock(m_mutex);
    for (const auto& [thread, connection] : m_connections)
        connection.cut();
    return !std::exchange(m_stopped, true);
}

bool TlsConnections::isStopped() const {
    const std::lock_guard lock(m_mutex);
    return m_stopped;
}

} // namespace norvcrypt
