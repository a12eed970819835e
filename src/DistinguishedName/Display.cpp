#include "openssl/Name.h"

#include <norvcmsg/Utf8.h>
#include <norvcrypto/DistinguishedName.h>

#include <algorithm>
#include <cstddef>
#include <string_view>

namespace Norvane::Crypto::NVX509 {

namespace {

void appendHex(std::string& text, std::string_view bytes, std::string_view before) {
    static constexpr char digits[] = "0123456789ABCDEF";
    for (const char byte : bytes) {
        const auto value = static_cast<unsigned char>(byte);
        text += before;
        text += digits[value >> 4U];
        text += digits[value & 0xFU];
    }
}

void appendValue(std::string& text, std::string_view value) {
    constexpr std::string_view special = ",+\"\\<>;";
    for (std::size_t i = 0; i < value.size();) {
        const auto character = utf8::characterAt(value, i);
        const auto length = std::max<std::size_t>(character.length, 1);
        const std::string_view bytes = value.substr(i, length);
        const bool isFirst = i == 0;
        i += length;
        if (character.length == 0 || utf8::isHidden(character.codePoint)) {
            appendHex(text, bytes, "\\");
            continue;
        }
        const bool isOuterBlank = bytes == " " && (isFirst || i == value.size());
        if (isOuterBlank || (isFirst && bytes == "#") || special.find(bytes) != std::string_view::npos) {
            text += '\\';
        }
        text += bytes;
    }
}

} // namespace

std::string displayName(const DistinguishedName& name) {
    const auto attributes = openssl::attributesOf(name.object());
    std::string text;
    bool joinsNext = false;
    for (auto attribute = attributes.rbegin(); attribute != attributes.rend(); ++attribute) {
        if (attribute != attributes.rbegin()) {
            text += joinsNext ? '+' : ',';
        }
        joinsNext = attribute->joinsPreceding;
        text.append(attribute->type).append(1, '=');
        if (attribute->der.empty()) {
            appendValue(text, attribute->text);
        } else {
            text += '#';
            appendHex(text, attribute->der, "");
        }
    }
    return text;
}

} // namespace Norvane::Crypto::NVX509
