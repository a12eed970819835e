#include "framing/SegmentRun.h"

#include <cstring>

namespace Norvane::Crypto::framing {

std::size_t countAlike(Octets octets, const Header& header) noexcept {
    // Short ones are not worth it, and a long header is none that a sender writes.
    constexpr std::uint64_t shortest = 256;
    const std::size_t stride = header.size + static_cast<std::size_t>(header.contentLength);
    const std::size_t most = octets.size() / stride;
    if (header.contentLength < shortest || header.size > sizeof(std::uint64_t) || most < 2) {
        return 1;
    }
    const auto beginning = [](const unsigned char* at) {
        std::uint64_t value = 0;
        std::memcpy(&value, at, sizeof value); // the content is longer than what this takes beyond the header
        return value;
    };
    unsigned char ofHeader[sizeof(std::uint64_t)] = {};
    std::memset(ofHeader, ~0, header.size);
    const std::uint64_t mask = beginning(ofHeader);
    const std::uint64_t wanted = beginning(octets.data()) & mask;
    std::size_t count = 1;
    while (count < most && (beginning(octets.data() + count * stride) & mask) == wanted) {
        prefetchHeader(octets.subspan(count * stride), header);
        ++count;
    }
    return count;
}

} // namespace Norvane::Crypto::framing
