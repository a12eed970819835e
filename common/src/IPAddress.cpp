#include <norvcmsg/IPAddress.h>

#include <arpa/inet.h>

#include <array>

namespace Norvane {

namespace {

constexpr std::size_t v4Length = 4;
constexpr std::size_t v6Length = 16;

} // namespace

IPAddress::IPAddress() = default;

IPAddress::IPAddress(const std::string& value)
    : IPAddress(value.size() == v4Length || value.size() == v6Length ? fromOctets(value) : fromText(value)) {}

IPAddress IPAddress::fromText(const std::string& text) {
    IPAddress address;
    if (text.find('\0') != std::string::npos) {
        return address;
    }
    std::array<char, v6Length> octets{};
    if (inet_pton(AF_INET, text.c_str(), octets.data()) == 1) {
        address.m_octets.assign(octets.data(), v4Length);
    } else if (inet_pton(AF_INET6, text.c_str(), octets.data()) == 1) {
        address.m_octets.assign(octets.data(), v6Length);
    }
    return address;
}

IPAddress IPAddress::fromOctets(const std::string& octets) {
    IPAddress address;
    if (octets.size() == v4Length || octets.size() == v6Length) {
        address.m_octets = octets;
    }
    return address;
}

std::string IPAddress::asString() const {
    if (isNull()) {
        return {};
    }
    std::array<char, INET6_ADDRSTRLEN> text{};
    inet_ntop(isV4() ? AF_INET : AF_INET6, m_octets.data(), text.data(), text.size());
    return text.data();
}

} // namespace Norvane
