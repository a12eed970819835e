#include "show/TextAndJson.h"

#include <norvcmsg/Escape.h>

#include <cstddef>
#include <string_view>

namespace norvcrypt {

namespace {

/// The length of the well-formed UTF-8 sequence (RFC 3629) that `text` begins with, or 0.
std::size_t sequenceLength(std::string_view text) {
    const auto byteAt = [text](std::size_t at) { return static_cast<unsigned char>(text[at]); };
    const unsigned char first = byteAt(0);
    if (first < 0x80)
        return 1;
    const std::size_t length = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
    if (first < 0xC2 || first > 0xF4 || text.size() < length)
        return 0;
    const unsigned char second = byteAt(1);
    const unsigned char lowest = first == 0xE0 ? 0xA0 : first == 0xF0 ? 0x90 : 0x80;
    const unsigned char highest = first == 0xED ? 0x9F : first == 0xF4 ? 0x8F : 0xBF;
    if (second < lowest || second > highest)
        return 0;
    for (std::size_t at = 2; at < length; ++at)
        if ((byteAt(at) & 0xC0U) != 0x80U)
            return 0;
    return length;
}

bool isUtf8(std::string_view text) {
    while (!text.empty()) {
        const std::size_t length = sequenceLength(text);
        if (length == 0)
            return false;
        text.remove_prefix(length);
    }
    return true;
}

/// A text that already looks as if it held an escaped byte is escaped too: no two texts come out alike.
std::string asUtf8(std::string_view text) {
    if (isUtf8(text) && text.find("\\x") == std::string_view::npos)
        return std::string(text);
    static constexpr char digits[] = "0123456789ABCDEF";
    std::string safe;
    while (!text.empty()) {
        const std::size_t length = sequenceLength(text);
        const auto first = static_cast<unsigned char>(text[0]);
        if (length == 0)
            safe.append({'\\', 'x', digits[first >> 4U], digits[first & 15U]});
        else if (first == '\\')
            safe += "\\\\";
        else
            safe += text.substr(0, length);
        text.remove_prefix(length == 0 ? 1 : length);
    }
    return safe;
}

/// Names come from the library in a text form of their own, which escapes bytes already.
bool isName(const std::string& key) {
    return key == "subject" || key == "issuer";
}

Description withSafeTexts(const Description& value) {
    if (value.is_string())
        return asUtf8(value.get_ref<const std::string&>());
    if (!value.is_structured())
        return value;
    Description copy = value.is_array() ? Description::array() : Description::object();
    for (const auto& [key, element] : value.items()) {
        if (value.is_array())
            copy.push_back(withSafeTexts(element));
        else
            copy[key] = isName(key) && isUtf8(element.get_ref<const std::string&>()) ? element : withSafeTexts(element);
    }
    return copy;
}

std::string shown(const Description& value) {
    return value.is_string() ? Norvane::escapeForDisplay(value.get_ref<const std::string&>()) : value.dump();
}

void append(std::string& text, const std::string& key, const Description& value, std::size_t depth);

void appendMembers(std::string& text, const Description& object, std::size_t depth) {
    for (const auto& [key, value] : object.items())
        append(text, key, value, depth);
}

void append(std::string& text, const std::string& key, const Description& value, std::size_t depth) {
    const std::string indent(depth * 2, ' ');
    if (value.is_array()) {
        for (const Description& element : value)
            append(text, key, element, depth);
        if (value.empty())
            text += indent + key + ": none\n";
    } else if (value.is_object()) {
        text += indent + key + ":\n";
        appendMembers(text, value, depth + 1);
    } else {
        text += indent + key + ": " + shown(value) + "\n";
    }
}

} // namespace

std::string asJson(const Description& objects) {
    return withSafeTexts(objects).dump(2, ' ', true) + "\n";
}

std::string asText(const Description& object) {
    const std::string heading =
        Norvane::escapeForDisplay(object.at("file").get<std::string>()) + ": " + object.at("type").get<std::string>();
    Description members = object;
    members.erase("file");
    members.erase("type");
    return asText(heading, members);
}

std::string asText(const std::string& heading, const Description& object) {
    std::string text = heading + "\n";
    appendMembers(text, object, 1);
    return text;
}

} // namespace norvcrypt
