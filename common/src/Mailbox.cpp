#include "Mailbox.h"

#include "Ascii.h"
#include <norvcmsg/Utf8.h>

#include <arpa/inet.h>

#include <algorithm>
#include <array>
#include <string>

namespace Norvane::mailbox {

namespace {

constexpr std::size_t longestLocalPart = 64;
constexpr std::size_t longestDomain = 255;
constexpr std::size_t longestMailbox = 254; // a path has 256 with its angle brackets
constexpr std::size_t longestLabel = 63;

bool isAtext(char c) noexcept {
    return ascii::isLetterOrDigit(c) ||
           (c != '\0' && std::string_view("!#$%&'*+-/=?^_`{|}~").find(c) != std::string_view::npos);
}

bool isPrintable(char c) noexcept {
    return c >= ' ' && c <= '~';
}

/// Reads a text from left to right.
class Reader {
public:
    Reader(std::string_view text, bool allowUtf8) : m_text(text), m_allowUtf8(allowUtf8) {}

    [[nodiscard]] bool atEnd() const noexcept { return m_position == m_text.size(); }
    [[nodiscard]] std::size_t position() const noexcept { return m_position; }
    [[nodiscard]] std::string_view rest() const noexcept { return m_text.substr(m_position); }

    bool take(char character) noexcept {
        return takeIf([=](char c) { return c == character; });
    }

    template <class Predicate> bool takeIf(Predicate predicate) noexcept {
        if (atEnd() || !predicate(m_text[m_position])) {
            return false;
        }
        ++m_position;
        return true;
    }

    /// Takes a character beyond ASCII where such are allowed.
    bool takeNonAscii() noexcept {
        if (!m_allowUtf8 || atEnd()) {
            return false;
        }
        const auto character = utf8::characterAt(m_text, m_position);
        if (character.length < 2 || utf8::breaksLine(character.codePoint)) {
            return false;
        }
        m_position += character.length;
        return true;
    }

private:
    std::string_view m_text;
    bool m_allowUtf8;
    std::size_t m_position = 0;
};

bool readAtom(Reader& reader) noexcept {
    const auto start = reader.position();
    while (reader.takeIf(isAtext) || reader.takeNonAscii()) {
    }
    return reader.position() != start;
}

bool readDotString(Reader& reader) noexcept {
    do {
        if (!readAtom(reader)) {
            return false;
        }
    } while (reader.take('.'));
    return true;
}

bool readQuotedString(Reader& reader) noexcept {
    while (!reader.take('"')) {
        const bool taken =
            reader.take('\\') ? reader.takeIf(isPrintable) : reader.takeIf(isPrintable) || reader.takeNonAscii();
        if (!taken) {
            return false;
        }
    }
    return true;
}

/// A label: letters, digits and hyphens, the latter not at its ends.
bool readLabel(Reader& reader) noexcept {
    const auto start = reader.position();
    std::size_t nonAscii = 0;
    std::size_t characters = 0;
    bool hyphen = true; // so that none can come first
    for (;; ++characters) {
        if (reader.takeIf(ascii::isLetterOrDigit)) {
            hyphen = false;
        } else if (characters != 0 && reader.take('-')) {
            hyphen = true;
        } else if (reader.takeNonAscii()) {
            hyphen = false;
            ++nonAscii;
        } else {
            break;
        }
    }
    // In the DNS a label beyond ASCII is "xn--" and at least one byte for each of its characters.
    const auto length = nonAscii == 0 ? reader.position() - start : characters + 4;
    return !hyphen && length <= longestLabel;
}

bool readDomain(Reader& reader) noexcept {
    do {
        if (!readLabel(reader)) {
            return false;
        }
    } while (reader.take('.'));
    return true;
}

/// Four numbers from 0 to 255, of up to three digits.
bool isIPv4(std::string_view text) noexcept {
    Reader reader(text, false);
    for (int i = 0; i < 4; ++i) {
        if (i != 0 && !reader.take('.')) {
            return false;
        }
        const auto start = reader.position();
        while (reader.takeIf(ascii::isDigit)) {
        }
        const auto digits = text.substr(start, reader.position() - start);
        if (digits.empty() || digits.size() > 3 || (digits.size() == 3 && digits > "255")) {
            return false;
        }
    }
    return reader.atEnd();
}

bool isIPv6(std::string text) {
    // A dotted end takes the place of two groups; its numbers may have leading zeros, which inet_pton refuses.
    if (text.find('.') != std::string::npos) {
        const auto dotted = text.rfind(':') + 1;
        if (!isIPv4(std::string_view(text).substr(dotted))) {
            return false;
        }
        text.replace(dotted, std::string::npos, "0:0");
    }
    std::array<unsigned char, 16> address{};
    // inet_pton stops at a NUL byte.
    if (text.find('\0') != std::string::npos || inet_pton(AF_INET6, text.c_str(), address.data()) != 1) {
        return false;
    }
    const auto gap = text.find("::");
    if (gap == std::string::npos) {
        return true;
    }
    // The gap stands for two groups at least, so that six are left.
    const auto colons = static_cast<std::size_t>(std::count(text.begin(), text.end(), ':'));
    const bool open = gap == 0 || gap + 2 == text.size();
    const auto groups = text.size() == 2 ? 0 : colons - (open ? 1 : 0);
    return groups <= 6;
}

/// What stands between the brackets of an address literal.
bool isAddressLiteral(std::string_view text) {
    const auto colon = text.find(':');
    if (colon == std::string_view::npos) {
        return isIPv4(text);
    }
    const auto tag = text.substr(0, colon);
    const auto content = text.substr(colon + 1);
    if (ascii::equalNoCase(tag, "IPv6")) {
        return isIPv6(std::string(content));
    }
    const auto isTagCharacter = [](char c) { return ascii::isLetterOrDigit(c) || c == '-'; };
    const auto isContent = [](char c) { return c > ' ' && c <= '~' && c != '[' && c != '\\' && c != ']'; };
    return !tag.empty() && std::all_of(tag.begin(), tag.end(), isTagCharacter) && tag.back() != '-' &&
           !content.empty() && std::all_of(content.begin(), content.end(), isContent);
}

} // namespace

std::optional<std::size_t> parse(std::string_view text, bool allowUtf8) {
    if (text.size() > longestMailbox) {
        return std::nullopt;
    }
    Reader reader(text, allowUtf8);
    const bool local = reader.take('"') ? readQuotedString(reader) : readDotString(reader);
    const auto at = reader.position();
    if (!local || at > longestLocalPart || !reader.take('@') || reader.rest().size() > longestDomain) {
        return std::nullopt;
    }
    if (const auto domain = reader.rest(); domain.size() > 2 && domain.front() == '[' && domain.back() == ']') {
        return isAddressLiteral(domain.substr(1, domain.size() - 2)) ? std::optional(at) : std::nullopt;
    }
    return readDomain(reader) && reader.atEnd() ? std::optional(at) : std::nullopt;
}

} // namespace Norvane::mailbox
