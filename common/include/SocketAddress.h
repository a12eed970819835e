#ifndef NORVCMSG_SOCKET_ADDRESS_H
#define NORVCMSG_SOCKET_ADDRESS_H

/// \file
/// Where a TCP connection begins or ends: an Internet address and a port.
///
/// \code
/// Norvane::SocketAddress("192.0.2.1:25").port();                            // 25
/// Norvane::SocketAddress("[2001:DB8::1]:465").asString();                   // "[2001:db8::1]:465"
/// Norvane::SocketAddress(Norvane::IPAddress::fromText("::1"), 0);           // bind to it: the kernel chooses the port
/// for (const auto& address : Norvane::SocketAddress::resolve("mx.example.org", 25)) { ... } // asks the name service
/// \endcode
///
/// Threads: a value. It may be read by several threads at once, and copies belong to whoever has them.

#include <norvcmsg/Export.h>
#include <norvcmsg/IPAddress.h>

#include <cstdint>
#include <string>
#include <vector>

namespace Norvane {

/// What a socket address of the Internet families (IPv4 and IPv6) consists of.
class NORVCMSG_EXPORT INETAddress {
public:
    /// A null address, port 0.
    INETAddress();
    /// \param scope for a link-local IPv6 address the number of the interface that it belongs to, else 0
    INETAddress(const IPAddress& address, std::uint16_t port, std::uint32_t scope = 0);

    [[nodiscard]] const IPAddress& ipAddress() const noexcept { return m_address; }
    [[nodiscard]] std::uint16_t port() const noexcept { return m_port; }
    [[nodiscard]] std::uint32_t scope() const noexcept { return m_scope; }

    bool operator==(const INETAddress& other) const noexcept;

private:
    IPAddress m_address;
    std::uint16_t m_port = 0;
    std::uint32_t m_scope = 0;
};

/// The address of a socket, or null. A value; only `resolve` asks anybody for anything.
class NORVCMSG_EXPORT SocketAddress {
public:
    /// The null address, which nothing can be bound or connected to.
    SocketAddress();
    SocketAddress(const INETAddress& address);
    /// A null `address` gives a null socket address.
    SocketAddress(const IPAddress& address, std::uint16_t port);
    /// Reads the text form: "192.0.2.1:25", "[2001:db8::1]:25" or, for a link-local address, "[fe80::1%eth0]:25" (an
    /// interface by name or number). Only numbers are read (no name is looked up), and the port must be there.
    ///
    /// \throws SocketException "SocketAddress", code 4, with the text: it is no such address
    explicit SocketAddress(const std::string& text);

    /// Looks up the addresses of a host, which may also be a numeric address without brackets, in the order in which
    /// they should be tried. Blocks for as long as the name service takes.
    ///
    /// \return at least one address
    /// \throws SocketException "SocketAddress::resolve", code 4, with the host and the reason: there is none
    [[nodiscard]] static std::vector<SocketAddress> resolve(const std::string& host, std::uint16_t port);

    /// The parts; those of a null address are a null `IPAddress` and port 0. Valid as long as this object.
    [[nodiscard]] const INETAddress& asINET() const noexcept { return m_inet; }
    [[nodiscard]] std::uint16_t port() const noexcept { return m_inet.port(); }
    [[nodiscard]] bool isNull() const noexcept { return m_inet.ipAddress().isNull(); }
    /// As `socket` and `Socket::set` take it: 2 for IPv4, 10 for IPv6 (also one that maps an IPv4 address), 0 for null.
    [[nodiscard]] int family() const noexcept;
    /// The text form, which the constructor reads; the interface of a link-local address is written as a number. Empty
    /// for the null address.
    [[nodiscard]] std::string asString() const;

    bool operator==(const SocketAddress& other) const noexcept { return m_inet == other.m_inet; }

private:
    INETAddress m_inet;
};

} // namespace Norvane

#endif
