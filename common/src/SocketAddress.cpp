#include <norvcmsg/SocketAddress.h>

#include "NativeAddress.h"
#include "SocketFailure.h"

#include <net/if.h>
#include <netdb.h>
#include <netinet/in.h>

#include <cerrno>
#include <charconv>
#include <cstring>
#include <memory>
#include <optional>
#include <string_view>
#include <system_error>

namespace Norvane {

namespace {

/// All of `text` as a decimal number that fits.
template <class Number> std::optional<Number> numberOf(std::string_view text) {
    Number number = 0;
    const char* const end = text.data() + text.size();
    const auto [last, error] = std::from_chars(text.data(), end, number);
    return error == std::errc() && last == end ? std::optional(number) : std::nullopt;
}

bool isLinkLocal(const IPAddress& address) {
    constexpr unsigned int prefixMask = 0xC0;
    return address.isV6() && address.octets()[0] == '\xFE' &&
           (static_cast<unsigned char>(address.octets()[1]) & prefixMask) == 0x80;
}

/// The number of an interface, given by number or name; 0 for none.
std::uint32_t interfaceNumber(const std::string& zone) {
    return numberOf<std::uint32_t>(zone).value_or(if_nametoindex(zone.c_str()));
}

std::optional<INETAddress> parsed(const std::string& text) {
    const auto colon = text.rfind(':');
    if (colon == std::string::npos || text.find('\0') != std::string::npos) {
        return std::nullopt;
    }
    const auto port = numberOf<std::uint16_t>(std::string_view(text).substr(colon + 1));
    auto host = text.substr(0, colon);
    const bool bracketed = host.size() > 2 && host.front() == '[' && host.back() == ']';
    std::uint32_t scope = 0;
    if (bracketed) {
        host = host.substr(1, host.size() - 2);
        if (const auto percent = host.find('%'); percent != std::string::npos) {
            scope = interfaceNumber(host.substr(percent + 1));
            host.resize(percent);
            if (scope == 0 || !isLinkLocal(IPAddress::fromText(host))) {
                return std::nullopt;
            }
        }
    }
    const auto address = IPAddress::fromText(host);
    if (!port || !(bracketed ? address.isV6() : address.isV4())) {
        return std::nullopt;
    }
    return INETAddress(address, *port, scope);
}

INETAddress parsedOrThrow(const std::string& text) {
    auto address = parsed(text);
    if (!address) {
        detail::throwSocket("SocketAddress", "SocketAddress", "not an address and port: " + text);
    }
    return *address;
}

} // namespace

INETAddress::INETAddress() = default;

INETAddress::INETAddress(const IPAddress& address, std::uint16_t port, std::uint32_t scope)
    : m_address(address),
      m_port(port),
      m_scope(scope) {}

bool INETAddress::operator==(const INETAddress& other) const noexcept = default;

SocketAddress::SocketAddress() = default;

SocketAddress::SocketAddress(const INETAddress& address) : m_inet(address) {}

SocketAddress::SocketAddress(const IPAddress& address, std::uint16_t port) : m_inet(address, port) {}

SocketAddress::SocketAddress(const std::string& text) : m_inet(parsedOrThrow(text)) {}

std::vector<SocketAddress> SocketAddress::resolve(const std::string& host, std::uint16_t port) {
    constexpr auto where = "SocketAddress::resolve";
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    const bool askable = !host.empty() && host.find('\0') == std::string::npos;
    const int error = askable ? getaddrinfo(host.c_str(), nullptr, &hints, &found) : EAI_NONAME;
    if (error == EAI_SYSTEM) {
        detail::throwSocketErrno(where, "SocketAddress", host, errno);
    }
    if (error != 0) {
        detail::throwSocket(where, "SocketAddress", host + ": " + gai_strerror(error));
    }
    const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> owner(found, &freeaddrinfo);
    std::vector<SocketAddress> addresses;
    for (const addrinfo* each = found; each != nullptr; each = each->ai_next) {
        const auto address = detail::fromNative(each->ai_addr);
        if (!address.isNull()) {
            addresses.emplace_back(INETAddress(address.asINET().ipAddress(), port, address.asINET().scope()));
        }
    }
    if (addresses.empty()) {
        detail::throwSocket(where, "SocketAddress", host + ": " + gai_strerror(EAI_NODATA));
    }
    return addresses;
}

int SocketAddress::family() const noexcept {
    if (isNull()) {
        return AF_UNSPEC;
    }
    return m_inet.ipAddress().isV4() ? AF_INET : AF_INET6;
}

std::string SocketAddress::asString() const {
    if (isNull()) {
        return {};
    }
    const auto host = m_inet.ipAddress().asString();
    const auto end = ":" + std::to_string(port());
    if (m_inet.ipAddress().isV4()) {
        return host + end;
    }
    return "[" + host + (m_inet.scope() == 0 ? "" : "%" + std::to_string(m_inet.scope())) + "]" + end;
}

namespace detail {

NativeAddress toNative(const SocketAddress& address) {
    NativeAddress native;
    const auto& octets = address.asINET().ipAddress().octets();
    if (address.family() == AF_INET) {
        auto* v4 = reinterpret_cast<sockaddr_in*>(&native.storage);
        native.length = sizeof *v4;
        v4->sin_family = AF_INET;
        v4->sin_port = htons(address.port());
        std::memcpy(&v4->sin_addr, octets.data(), octets.size());
    } else {
        auto* v6 = reinterpret_cast<sockaddr_in6*>(&native.storage);
        native.length = sizeof *v6;
        v6->sin6_family = AF_INET6;
        v6->sin6_port = htons(address.port());
        v6->sin6_scope_id = address.asINET().scope();
        std::memcpy(&v6->sin6_addr, octets.data(), octets.size());
    }
    return native;
}

SocketAddress fromNative(const sockaddr* address) {
    if (address->sa_family == AF_INET) {
        const auto* v4 = reinterpret_cast<const sockaddr_in*>(address);
        const std::string octets(reinterpret_cast<const char*>(&v4->sin_addr), sizeof v4->sin_addr);
        return {IPAddress::fromOctets(octets), ntohs(v4->sin_port)};
    }
    if (address->sa_family == AF_INET6) {
        const auto* v6 = reinterpret_cast<const sockaddr_in6*>(address);
        const std::string octets(reinterpret_cast<const char*>(&v6->sin6_addr), sizeof v6->sin6_addr);
        return INETAddress(IPAddress::fromOctets(octets), ntohs(v6->sin6_port), v6->sin6_scope_id);
    }
    return {};
}

} // namespace detail

} // namespace Norvane
