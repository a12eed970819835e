#include "config/Config.h"

#include <norvcmsg/Escape.h>
#include <norvcmsg/IPAddress.h>

#include <algorithm>

namespace norvmilter {

namespace {

const std::string mappedPrefix = std::string(10, '\0') + "\xff\xff";

/// The octets of an address, those of IPv4 where IPv6 maps it: a socket of both families gives that form.
std::string octetsOf(const std::string& text) {
    std::string octets = Norvane::IPAddress::fromText(text).octets();
    return octets.size() == 16 && octets.starts_with(mappedPrefix) ? octets.substr(12) : octets;
}

bool hasBitsBehind(const std::string& octets, unsigned int bits) {
    for (unsigned int index = bits; index < octets.size() * 8; ++index) {
        if ((static_cast<unsigned char>(octets[index / 8]) >> (7 - index % 8) & 1U) != 0)
            return true;
    }
    return false;
}

} // namespace

Network networkOf(const std::string& text) {
    Network network;
    network.text = text;
    const std::size_t slash = text.find('/');
    network.octets = octetsOf(text.substr(0, slash));
    if (network.octets.empty())
        throw std::invalid_argument('"' + Norvane::escapeForDisplay(text) +
                                    "\" is no address: 192.0.2.0/24, 2001:db8::/32");
    const auto all = static_cast<unsigned int>(network.octets.size() * 8);
    network.bits = all;
    if (slash != std::string::npos) {
        const std::string length = text.substr(slash + 1);
        const bool isNumber = !length.empty() && length.size() <= 3 &&
                              std::ranges::all_of(length, [](char one) { return one >= '0' && one <= '9'; });
        if (!isNumber || std::stoul(length) > all)
            throw std::invalid_argument("the length of \"" + Norvane::escapeForDisplay(text) +
                                        "\" is a number from 0 to " + std::to_string(all));
        network.bits = static_cast<unsigned int>(std::stoul(length));
    }
    if (hasBitsBehind(network.octets, network.bits))
        throw std::invalid_argument('"' + Norvane::escapeForDisplay(text) + "\" has bits behind its length");
    return network;
}

bool Network::contains(const std::string& address) const {
    const std::string other = ::norvmilter::octetsOf(address);
    if (other.size() != octets.size())
        return false;
    for (unsigned int index = 0; index < bits; index += 8) {
        const unsigned int left = std::min(8U, bits - index);
        const unsigned int mask = 0xffU << (8 - left) & 0xffU;
        const auto differing = static_cast<unsigned int>(static_cast<unsigned char>(other[index / 8]) ^
                                                         static_cast<unsigned char>(octets[index / 8]));
        if ((differing & mask) != 0)
            return false;
    }
    return true;
}

} // namespace norvmilter
