#ifndef NORVCMSG_IP_ADDRESS_H
#define NORVCMSG_IP_ADDRESS_H

/// \file
/// Addresses of the Internet Protocol, versions 4 and 6.
///
/// \code
/// Norvane::IPAddress(std::string("\xC0\x00\x02\x01", 4)).asString(); // "192.0.2.1"
/// Norvane::IPAddress::fromText("2001:DB8::1").asString();           // "2001:db8::1"
/// \endcode
///
/// Threads: a value. It may be read by several threads at once, and copies belong to whoever has them.

#include <norvcmsg/Export.h>

#include <string>

namespace Norvane {

/// An address, or null. An IPv6 address that maps an IPv4 one is an IPv6 address.
class NORVCMSG_EXPORT IPAddress {
public:
    /// The null address.
    IPAddress();
    /// Reads raw octets when `value` has exactly 4 or 16 bytes, a text otherwise; what is neither gives the null
    /// address. So a text of 4 or 16 characters ("::ab", "2001:db8::12:345") is taken as octets here: a certificate's
    /// octets must not become another address because they happen to spell one. Use `fromText` for texts.
    IPAddress(const std::string& value);
    /// Reads a text: dotted decimal without leading zeros, or IPv6 (RFC 4291) without a zone. Null when it is neither.
    static IPAddress fromText(const std::string& text);
    /// Takes 4 or 16 octets in network order. Null for any other number.
    static IPAddress fromOctets(const std::string& octets);

    [[nodiscard]] bool isNull() const noexcept { return m_octets.empty(); }
    [[nodiscard]] bool isV4() const noexcept { return m_octets.size() == 4; }
    [[nodiscard]] bool isV6() const noexcept { return m_octets.size() == 16; }
    /// 4 or 16 octets in network order; none for the null address.
    [[nodiscard]] const std::string& octets() const noexcept { return m_octets; }
    /// The text, that of IPv6 in lower case and compressed; empty for the null address.
    [[nodiscard]] std::string asString() const;

    bool operator==(const IPAddress& other) const noexcept { return m_octets == other.m_octets; }

private:
    std::string m_octets;
};

} // namespace Norvane

#endif
