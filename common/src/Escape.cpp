#include <norvcmsg/Escape.h>

#include "Utf8.h"

#include <algorithm>

namespace Norvane {

std::string escapeForDisplay(std::string_view text) {
    static constexpr char digits[] = "0123456789ABCDEF";
    std::string shown;
    shown.reserve(text.size());
    for (std::size_t i = 0; i < text.size();) {
        const auto character = utf8::characterAt(text, i);
        const auto length = std::max<std::size_t>(character.length, 1);
        if (character.length != 0 && !utf8::breaksLine(character.codePoint)) {
            shown.append(text, i, length);
        } else {
            for (const char byte : text.substr(i, length)) {
                const auto value = static_cast<unsigned char>(byte);
                shown += "\\x";
                shown += digits[value >> 4U];
                shown += digits[value & 0xFU];
            }
        }
        i += length;
    }
    return shown;
}

} // namespace Norvane
