#include "Lines.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>

namespace Norvane::Crypto::SMime::mime {

namespace {

/// Octets side by side, in a register where the machine has one for them. Comparing gives 0 or -1 for each.
using Vector __attribute__((vector_size(16))) = signed char;
constexpr std::size_t width = sizeof(Vector);

Vector load(const char* octets) noexcept {
    Vector vector;
    std::memcpy(&vector, octets, width);
    return vector;
}

bool isAny(Vector vector) noexcept {
    std::array<std::uint64_t, 2> halves{};
    std::memcpy(halves.data(), &vector, width);
    return (halves[0] | halves[1]) != 0;
}

} // namespace

std::size_t findLineStart(std::string_view text, char first, std::size_t from) noexcept {
    constexpr std::size_t block = 4 * width;
    const auto second = static_cast<signed char>(first);
    while (from + block < text.size()) { // and the octet behind it
        Vector found{};
        for (std::size_t at = from; at != from + block; at += width)
            found |= (load(text.data() + at) == '\n') & (load(text.data() + at + 1) == second);
        if (isAny(found))
            break;
        from += block;
    }
    for (; from + 1 < text.size(); ++from) {
        if (text[from] == '\n' && text[from + 1] == first)
            return from;
    }
    return std::string_view::npos;
}

std::size_t findLine(std::string_view text, std::string_view start, std::size_t from) noexcept {
    for (;; ++from) {
        from = findLineStart(text, start[1], from);
        if (from == std::string_view::npos || text.substr(from).starts_with(start))
            return from;
    }
}

std::size_t countOf(char octet, std::string_view text) noexcept {
    constexpr std::size_t most = 127; // that a lane holds
    const auto sought = static_cast<signed char>(octet);
    std::size_t count = 0;
    while (text.size() >= width) {
        Vector lanes{};
        const std::size_t vectors = std::min(most, text.size() / width);
        for (std::size_t at = 0; at != vectors * width; at += width)
            lanes -= load(text.data() + at) == sought;
        for (std::size_t lane = 0; lane != width; ++lane)
            count += static_cast<std::size_t>(lanes[lane]);
        text.remove_prefix(vectors * width);
    }
    return count + static_cast<std::size_t>(std::ranges::count(text, octet));
}

bool isCanonical(std::string_view text) noexcept {
    if (text.starts_with('\n') || text.ends_with('\r'))
        return false;
    std::size_t at = 0;
    Vector alone{};
    for (; at + width < text.size(); at += width)
        alone |= (load(text.data() + at) == '\r') ^ (load(text.data() + at + 1) == '\n');
    bool isAlone = isAny(alone);
    for (; at + 1 < text.size(); ++at)
        isAlone = isAlone || (text[at] == '\r') != (text[at + 1] == '\n');
    return !isAlone;
}

} // namespace Norvane::Crypto::SMime::mime
