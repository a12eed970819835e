#pragma once

// Damaged DER for the readers of single elements.

#include <authority/Der.h>

#include <cstddef>
#include <vector>

namespace norvtest {

using norvauthority::Bytes;

/// Every beginning of `der` that is not all of it, the empty one included.
inline std::vector<Bytes> properPrefixes(const Bytes& der) {
    std::vector<Bytes> prefixes;
    for (std::size_t length = 0; length < der.size(); ++length) {
        prefixes.emplace_back(der.begin(), der.begin() + static_cast<std::ptrdiff_t>(length));
    }
    return prefixes;
}

/// `der` with one bit turned over, for each bit.
inline std::vector<Bytes> bitFlips(const Bytes& der) {
    std::vector<Bytes> flipped;
    for (std::size_t bit = 0; bit < 8 * der.size(); ++bit) {
        flipped.push_back(der);
        flipped.back()[bit / 8] ^= static_cast<unsigned char>(1U << (bit % 8));
    }
    return flipped;
}

/// The tag of `der` with lengths that are far beyond what follows: 1 GiB, 2 GiB - 1, 2^64 - 1, and none at all.
inline std::vector<Bytes> oversized(const Bytes& der) {
    std::vector<Bytes> announced;
    for (const char* length : {"8440000000", "847fffffff", "88ffffffffffffffff", "80", "ff"}) {
        Bytes bytes{der.front()};
        norvauthority::der::append(bytes, norvauthority::fromHex(length));
        norvauthority::der::append(bytes, norvauthority::fromHex("3003020101"));
        announced.push_back(bytes);
    }
    return announced;
}

/// Beginnings of sequences that announce 1 GiB, 4 GiB and 2^64 - 1 bytes, and of some that announce no length.
inline constexpr const char* hugeHeaders[] = {
    "3084400000000282", "3084ffffffff0202", "3088ffffffffffffffff", "308000", "30ff", "30"};

/// A pointer and length of bytes, as the decoding constructors take them.
inline unsigned int lengthOf(const Bytes& bytes) {
    return static_cast<unsigned int>(bytes.size());
}

} // namespace norvtest
