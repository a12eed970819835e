#include "framing/Header.h"

#include <bit>
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

/// How many digits of so many bits a number has.
unsigned int digits(std::uint64_t number, unsigned int bits) noexcept {
    return (static_cast<unsigned int>(std::bit_width(number)) + bits - 1) / bits;
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

std::size_t headerSize(std::uint32_t tag, std::uint64_t contentLength) noexcept {
    return 2U + (tag < longForm ? 0 : digits(tag, 7)) + (contentLength < more ? 0 : digits(contentLength, 8));
}

void appendHeader(std::vector<unsigned char>& out, TagClass tagClass, bool constructed, std::uint32_t tag,
                  std::uint64_t contentLength) {
    const auto append = [&out](std::uint64_t octet) { out.push_back(static_cast<unsigned char>(octet)); };
    append(static_cast<unsigned int>(tagClass) | (constructed ? constructedBit : 0U) |
           (tag < longForm ? tag : longForm));
    if (tag >= longForm) {
        for (unsigned int left = digits(tag, 7); left-- != 0;) {
            append((tag >> 7U * left & lowBits) | (left != 0 ? more : 0U));
        }
    }
    if (contentLength < more) {
        append(contentLength);
        return;
    }
    const unsigned int octets = digits(contentLength, 8);
    append(more | octets);
    for (unsigned int left = octets; left-- != 0;) {
        append(contentLength >> 8U * left & 0xFFU);
    }
}

} // namespace Norvane::Crypto::framing
