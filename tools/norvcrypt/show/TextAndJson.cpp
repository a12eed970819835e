#include "show/TextAndJson.h"

#include <norvcmsg/Escape.h>
#include <norvcmsg/Utf8.h>

#include <cstddef>
#include <string_view>

namespace norvcrypt {

namespace {

/// A text that already looks as if it held an escaped byte is escaped too: no two texts come out alike.
std::string asUtf8(std::string_view text) {
    if (Norvane::utf8::isWellFormed(text) && text.find("\\x") == std::string_view::npos)
        return std::string(text);
    static constexpr char digits[] = "0123456789ABCDEF";
    std::string safe;
    while (!text.empty()) {
        const std::size_t length = Norvane::utf8::characterAt(text, 0).length;
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

/// Names of certificates are texts of `displayName`: UTF-8, and escaped already.
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
            copy[key] = isName(key) ? element : withSafeTexts(element);
    }
    return copy;
}

std::string shown(const std::string& key, const Description& value) {
    if (!value.is_string())
        return value.dump();
    const auto& text = value.get_ref<const std::string&>();
    return isName(key) ? text : Norvane::escapeForDisplay(text);
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
        text += indent + key + ": " + shown(key, value) + "\n";
    }
}

} // namespace

std::string asJson(const Description& objects) {
    return withSafeTexts(objects).dump(2, ' ', true) + "\n";
}

std::string asJsonLine(const Description& object) {
    return withSafeTexts(object).dump(-1, ' ', true) + "\n";
}

std::string asJsonLine(const std::string& file, int exitCode, const std::string& error) {
    const auto quoted = [](const std::string& text) { return Description(asUtf8(text)).dump(-1, ' ', true); };
    return "{\"file\":" + quoted(file) + ",\"exitCode\":" + std::to_string(exitCode) + ",\"error\":" + quoted(error) +
           "}\n";
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
