#include <norvcmsg/Utf8.h>

#include <algorithm>
#include <iterator>

namespace Norvane::utf8 {

namespace {

struct Range {
    std::uint32_t first;
    std::uint32_t last;
};

/// \param ranges in their order
template <std::size_t Count> bool isIn(std::uint32_t codePoint, const Range (&ranges)[Count]) noexcept {
    const Range* const found =
        std::lower_bound(std::begin(ranges), std::end(ranges), codePoint,
                         [](const Range& range, std::uint32_t point) { return range.last < point; });
    return found != std::end(ranges) && found->first <= codePoint;
}

} // namespace

Character characterAt(std::string_view text, std::size_t position) noexcept {
    const auto lead = static_cast<unsigned char>(text[position]);
    if (lead < 0x80) {
        return {lead, 1};
    }
    std::size_t length = 0;
    std::uint32_t smallest = 0;
    if ((lead & 0xE0U) == 0xC0) {
        length = 2;
        smallest = 0x80;
    } else if ((lead & 0xF0U) == 0xE0) {
        length = 3;
        smallest = 0x800;
    } else if ((lead & 0xF8U) == 0xF0) {
        length = 4;
        smallest = 0x10000;
    }
    if (length == 0 || text.size() - position < length) {
        return {};
    }
    std::uint32_t codePoint = lead & (0x7FU >> length);
    for (std::size_t i = 1; i < length; ++i) {
        const auto byte = static_cast<unsigned char>(text[position + i]);
        if ((byte & 0xC0U) != 0x80) {
            return {};
        }
        codePoint = (codePoint << 6U) | (byte & 0x3FU);
    }
    const bool surrogate = codePoint >= 0xD800 && codePoint <= 0xDFFF;
    if (codePoint < smallest || codePoint > 0x10FFFF || surrogate) {
        return {};
    }
    return {codePoint, length};
}

bool breaksLine(std::uint32_t codePoint) noexcept {
    static constexpr Range ranges[] = {{0x00, 0x1F},     {0x7F, 0x9F},     {0x061C, 0x061C},
                                       {0x200E, 0x200F}, {0x2028, 0x202E}, {0x2066, 0x2069}};
    return isIn(codePoint, ranges);
}

bool isHidden(std::uint32_t codePoint) noexcept {
    // Default_Ignorable_Code_Point of Unicode 15, and U+FFF9 to U+FFFB.
    static constexpr Range ranges[] = {
        {0x00AD, 0x00AD}, {0x034F, 0x034F}, {0x061C, 0x061C},   {0x115F, 0x1160},   {0x17B4, 0x17B5},  {0x180B, 0x180F},
        {0x200B, 0x200F}, {0x202A, 0x202E}, {0x2060, 0x206F},   {0x3164, 0x3164},   {0xFE00, 0xFE0F},  {0xFEFF, 0xFEFF},
        {0xFFA0, 0xFFA0}, {0xFFF0, 0xFFFB}, {0x1BCA0, 0x1BCA3}, {0x1D173, 0x1D17A}, {0xE0000, 0xE0FFF}};
    return breaksLine(codePoint) || isIn(codePoint, ranges);
}

bool isWellFormed(std::string_view text) noexcept {
    for (std::size_t position = 0; position < text.size();) {
        const auto length = characterAt(text, position).length;
        if (length == 0) {
            return false;
        }
        position += length;
    }
    return true;
}

} // namespace Norvane::utf8
