#include "recognise/Wrapped.h"
#include "recognise/DerAndPem.h"

#include <algorithm>
#include <cstring>
#include <optional>
#include <string_view>

namespace norvcrypt {

namespace {

using Norvane::Buffer;

/// Secret bytes may be among them: what is made of them is wiped with its last copy.
Buffer room(std::size_t capacity) {
    Buffer buffer(static_cast<int>(capacity), 0);
    buffer.protect();
    return buffer;
}

void append(Buffer& buffer, unsigned char byte) {
    const unsigned int at = buffer.length();
    buffer.length(at + 1);
    buffer.data()[at] = byte;
}

std::string_view textOf(const Buffer& content) {
    return {reinterpret_cast<const char*>(content.data()), content.length()};
}

char smallLetter(char letter) {
    return letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter - 'A' + 'a') : letter;
}

bool beginsAlike(std::string_view text, std::string_view small) {
    return text.size() >= small.size() && std::ranges::equal(text.substr(0, small.size()), small, {}, smallLetter);
}

std::size_t findAlike(std::string_view text, std::string_view small, std::size_t from) {
    for (std::size_t at = text.find(small.front(), from); at != std::string_view::npos;
         at = text.find(small.front(), at + 1))
        if (beginsAlike(text.substr(at), small))
            return at;
    return std::string_view::npos;
}

bool isWhite(char letter) {
    return letter == ' ' || letter == '\t' || letter == '\r' || letter == '\n' || letter == '\f' || letter == '\v';
}

/// A text in UTF-16 as ASCII; nothing when it is not all ASCII.
std::optional<Buffer> narrowed(std::string_view text) {
    const bool bigEnd = text.starts_with("\xFE\xFF");
    if (!bigEnd && !text.starts_with("\xFF\xFE"))
        return std::nullopt;
    Buffer narrow = room(text.size() / 2);
    for (std::size_t at = 2; at + 1 < text.size(); at += 2) {
        if (text[bigEnd ? at : at + 1] != '\0')
            return std::nullopt;
        append(narrow, static_cast<unsigned char>(text[bigEnd ? at + 1 : at]));
    }
    return narrow;
}

/// The bytes that base64 stands for, which may be quoted as in a mail ("> "); nothing when another character is in it.
std::optional<Buffer> fromBase64(std::string_view text) {
    Buffer tidy = room(text.size() + 3);
    bool isPadded = false;
    bool atStart = true;
    for (char letter : text) {
        if (isWhite(letter)) {
            atStart = atStart || letter == '\n';
            continue;
        }
        if (letter == '>' && atStart)
            continue;
        atStart = false;
        if (letter == '=') {
            isPadded = true;
            continue;
        }
        letter = letter == '-' ? '+' : letter == '_' ? '/' : letter;
        const bool isDigit = (letter >= 'A' && letter <= 'Z') || (letter >= 'a' && letter <= 'z') ||
                             (letter >= '0' && letter <= '9') || letter == '+' || letter == '/';
        if (!isDigit || isPadded)
            return std::nullopt;
        append(tidy, static_cast<unsigned char>(letter));
    }
    while (tidy.length() % 4 != 0)
        append(tidy, '=');
    Buffer bytes;
    bytes.protect();
    if (!tidy.decodeBase64(bytes) || !looksLikeDer(bytes))
        return std::nullopt;
    return bytes;
}

std::optional<Buffer> fromHexDigits(std::string_view text) {
    Buffer bytes = room(text.size() / 2 + 1);
    int high = -1;
    for (const char letter : text) {
        if (isWhite(letter) || letter == ':')
            continue;
        static constexpr std::string_view digits = "0123456789abcdef";
        const std::size_t value = digits.find(smallLetter(letter));
        if (value == std::string_view::npos)
            return std::nullopt;
        if (high >= 0)
            append(bytes, static_cast<unsigned char>(high * 16 + static_cast<int>(value)));
        high = high >= 0 ? -1 : static_cast<int>(value);
    }
    return high < 0 && looksLikeDer(bytes) ? std::optional(bytes) : std::nullopt;
}

constexpr std::string_view blockBegin = "-----begin ";
constexpr std::string_view blockEnd = "-----end ";
constexpr std::string_view dashes = "-----";

/// Blocks of PEM, wherever their lines begin and end.
std::vector<WrappedObject> fromPem(std::string_view text) {
    std::vector<WrappedObject> objects;
    for (std::size_t at = findAlike(text, blockBegin, 0); at != std::string_view::npos;
         at = findAlike(text, blockBegin, at)) {
        at += blockBegin.size();
        const std::size_t labelEnd = text.find(dashes, at);
        const std::size_t bodyEnd = labelEnd == std::string_view::npos ? labelEnd : findAlike(text, blockEnd, labelEnd);
        if (bodyEnd == std::string_view::npos)
            break;
        std::string label(text.substr(at, labelEnd - at));
        std::ranges::transform(label, label.begin(), [](char letter) {
            return letter >= 'a' && letter <= 'z' ? static_cast<char>(letter - 'a' + 'A') : letter;
        });
        if (auto der = fromBase64(text.substr(labelEnd + dashes.size(), bodyEnd - labelEnd - dashes.size())))
            objects.push_back({label, *der});
        at = bodyEnd;
    }
    return objects;
}

std::string_view withoutByteOrderMark(std::string_view text) {
    constexpr std::string_view mark = "\xEF\xBB\xBF";
    return text.substr(text.starts_with(mark) ? mark.size() : 0);
}

/// The name that a line of a header begins with, without the colon.
std::string_view fieldName(std::string_view line) {
    const std::size_t colon = line.find(':');
    const std::string_view name = line.substr(0, colon == std::string_view::npos ? 0 : colon);
    const bool isName = std::ranges::all_of(name, [](char letter) { return letter > ' ' && letter < '\x7F'; });
    return isName ? name : std::string_view();
}

/// What a header says about the content behind it.
struct PartFields {
    std::string type;     ///< of the content, with its parameters
    std::string encoding; ///< both in small letters
    std::string_view content;
    bool hasFields = false;
};

constexpr std::size_t longestHeader = std::size_t{256} << 10U;

PartFields partFields(std::string_view text) {
    PartFields fields;
    std::string* field = nullptr;
    for (std::size_t at = 0; at < std::min(text.size(), longestHeader);) {
        const std::size_t lineEnd = std::min(text.find('\n', at), text.size());
        std::string_view line = text.substr(at, lineEnd - at);
        line.remove_suffix(line.ends_with('\r') ? 1 : 0);
        const bool isFirst = at == 0;
        at = lineEnd + 1;
        if (line.empty()) {
            fields.content = text.substr(std::min(at, text.size()));
            return fields;
        }
        if (isFirst && line.starts_with("From "))
            continue; // of a mailbox file
        if (line.front() == ' ' || line.front() == '\t') {
            if (field != nullptr)
                std::ranges::transform(line, std::back_inserter(*field), smallLetter);
            continue;
        }
        const std::string_view name = fieldName(line);
        if (name.empty())
            return {};
        fields.hasFields = true;
        field = beginsAlike(name, "content-type") && name.size() == 12                ? &fields.type
                : beginsAlike(name, "content-transfer-encoding") && name.size() == 25 ? &fields.encoding
                                                                                      : nullptr;
        if (field != nullptr) {
            const std::string_view value = line.substr(name.size() + 1);
            field->clear();
            std::ranges::transform(value.substr(std::min(value.find_first_not_of(" \t"), value.size())),
                                   std::back_inserter(*field), smallLetter);
        }
    }
    return {};
}

/// Up to the first line that begins with two hyphens: a boundary, or a footer. What is behind that line goes to `rest`.
std::string_view untilBoundary(std::string_view content, std::string_view& rest) {
    rest = {};
    for (std::size_t at = 0; at < content.size();) {
        const std::size_t end = std::min(content.find('\n', at), content.size());
        if (content.substr(at).starts_with("--")) {
            rest = content.substr(std::min(end + 1, content.size()));
            return content.substr(0, at);
        }
        at = end + 1;
    }
    return content;
}

/// The structure that a mail, or a part of one, is; of parts behind it those that are structures, too, until there are two: then
/// it is not known which is meant.
std::vector<WrappedObject> fromParts(std::string_view text) {
    std::vector<WrappedObject> found;
    for (bool isFirst = true; found.size() < 2 && isFirst == found.empty(); isFirst = false) {
        const PartFields fields = partFields(text);
        if (fields.content.empty() || fields.type.starts_with("multipart/"))
            break;
        const bool isBase64 = fields.encoding.starts_with("base64");
        if (isFirst && !isBase64) {
            Buffer bytes = room(fields.content.size());
            bytes.append(Buffer(fields.content.data(), static_cast<unsigned int>(fields.content.size()), true));
            if (looksLikeDer(bytes))
                found.push_back({"", bytes});
            break;
        }
        const std::string_view content = untilBoundary(fields.content, text);
        if (auto der = isBase64 ? fromBase64(content) : std::nullopt)
            found.push_back({"", *der});
    }
    return found;
}

} // namespace

std::vector<WrappedObject> wrappedIn(const Buffer& content) {
    std::string_view text = textOf(content);
    const std::optional<Buffer> narrow = narrowed(text);
    if (narrow)
        text = textOf(*narrow);
    text = withoutByteOrderMark(text);
    if (std::vector<WrappedObject> blocks = fromPem(text); !blocks.empty())
        return blocks;
    if (std::vector<WrappedObject> parts = fromParts(text); !parts.empty())
        return parts;
    for (const auto& unwrap : {fromBase64, fromHexDigits})
        if (auto der = unwrap(text))
            return {{"", *der}};
    return {};
}

bool hasImproperPem(const Buffer& content) {
    const std::string_view text = withoutByteOrderMark(textOf(content));
    for (std::size_t at = findAlike(text, blockBegin, 0); at != std::string_view::npos;
         at = findAlike(text, blockBegin, at + 1)) {
        const bool isAtStart = at == 0 || text[at - 1] == '\n';
        std::string_view line = text.substr(at, std::min(text.find('\n', at), text.size()) - at);
        while (!line.empty() && isWhite(line.back()))
            line.remove_suffix(1);
        if (!isAtStart || !line.starts_with("-----BEGIN ") ||
            line.find(dashes, blockBegin.size()) + dashes.size() != line.size())
            return true;
    }
    return false;
}

bool looksLikeMail(const Buffer& content) {
    const PartFields fields = partFields(withoutByteOrderMark(textOf(content)));
    return fields.hasFields && !fields.type.empty();
}

} // namespace norvcrypt
