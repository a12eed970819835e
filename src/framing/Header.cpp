#include "framing/Header.h"

#include <limits>

namespace Norvane::Crypto::framing {

namespace {

constexpr unsigned int more = 0x80; // an octet of a long tag number after which another follows
constexpr unsigned int lowBits = 0x7F;
constexpr unsigned int longForm = 0x1F;
constexpr unsigned int constructedBit = 0x20;
constexpr unsigned int classBits = 0xC0;

/// Octets read one after the other, up to an end.
struct Octets {
    const unsigned char* at;
    const unsigned char* end;

    [[nodiscard]] bool empty() const noexcept { return at == end; }
    unsigned int take() noexcept { return *at++; }
};

HeaderState readLongTag(Octets& octets, std::uint32_t& tag) noexcept {
    constexpr std::uint32_t largest = std::numeric_limits<std::int32_t>::max() >> 7U;
    tag = 0;
    for (;;) {
        if (octets.empty()) {
            return HeaderState::incomplete;
        }
        if (tag > largest) {
            return HeaderState::malformed;
        }
        const unsigned int octet = octets.take();
        tag = tag << 7U | (octet & lowBits);
        if ((octet & more) == 0) {
            return HeaderState::complete;
        }
    }
}

HeaderState readLength(Octets& octets, Header& header) noexcept {
    if (octets.empty()) {
        return HeaderState::incomplete;
    }
    const unsigned int first = octets.take();
    header.indefinite = first == more;
    header.contentLength = 0;
    if (header.indefinite) {
        return header.constructed ? HeaderState::complete : HeaderState::malformed;
    }
    if ((first & more) == 0) {
        header.contentLength = first;
        return HeaderState::complete;
    }
    constexpr std::uint64_t largest = std::numeric_limits<std::int64_t>::max();
    for (unsigned int left = first & lowBits; left != 0; --left) {
        if (octets.empty()) {
            return HeaderState::incomplete;
        }
        if (header.contentLength > largest >> 8U) {
            return HeaderState::malformed;
        }
        header.contentLength = header.contentLength << 8U | octets.take();
    }
    return HeaderState::complete;
}

} // namespace

HeaderState readHeader(const unsigned char* octets, std::size_t available, Header& header) noexcept {
    if (available == 0) {
        return HeaderState::incomplete;
    }
    Octets rest{octets, octets + available};
    const unsigned int first = rest.take();
    header.tagClass = static_cast<TagClass>(first & classBits);
    header.constructed = (first & constructedBit) != 0;
    header.tag = first & longForm;
    if (header.tag == longForm) {
        if (const HeaderState state = readLongTag(rest, header.tag); state != HeaderState::complete) {
            return state;
        }
    }
    const HeaderState state = readLength(rest, header);
    header.size = static_cast<std::size_t>(rest.at - octets);
    return state;
}

} // namespace Norvane::Crypto::framing
