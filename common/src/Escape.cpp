#include <norvcmsg/Escape.h>

#include <norvcmsg/Utf8.h>

#include <algorithm>

namespace Norvane {

namespace {

bool mayBeShown(const utf8::Character& character) noexcept {
    return character.length != 0 && !utf8::isHidden(character.codePoint);
}

} // namespace

std::string escapeForDisplay(std::string_view text) {
    static constexpr char digits[] = "0123456789ABCDEF";
    std::string shown;
    shown.reserve(text.size());
    for (std::size_t i = 0; i < text.size();) {
        const auto character = utf8::characterAt(text, i);
        const auto length = std::max<std::size_t>(character.length, 1);
        if (mayBeShown(character)) {
            shown.append(text[i] == '\\' ? 1 : 0, '\\').append(text, i, length);
        } else {
            for (const char byte : text.substr(i, length)) {
                const auto value = static_cast<unsigned char>(byte);
                shown += {'\\', 'x', digits[value >> 4U], digits[value & 0xFU]};
            }
        }
        i += length;
    }
    return shown;
}

bool isDisplayable(std::string_view text) noexcept {
    for (std::size_t i = 0; i < text.size();) {
        const auto character = utf8::characterAt(text, i);
        if (!mayBeShown(character)) {
            return false;
        }
        i += character.length;
    }
    return true;
}

} // namespace Norvane
