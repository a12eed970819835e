#include "Header.h"

#include <algorithm>

namespace Norvane::Crypto::SMime::mime {

namespace {

constexpr std::string_view blanks = " \t\r\n";

/// Where the name of a field ends; `npos` when the line is none: no colon, nothing in front of it, or blanks and control
/// bytes within the name.
std::size_t colonOf(std::string_view line) {
    const std::size_t colon = line.find(':');
    if (colon == std::string_view::npos || colon == 0)
        return std::string_view::npos;
    const std::size_t last = line.find_last_not_of(" \t", colon - 1);
    if (last == std::string_view::npos)
        return std::string_view::npos;
    const std::string_view name = line.substr(0, last + 1);
    const bool isName = std::ranges::all_of(name, [](char c) { return c > ' ' && c < '\x7f'; });
    return isName ? colon : std::string_view::npos;
}

} // namespace

char lowered(char letter) noexcept {
    return letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter - 'A' + 'a') : letter;
}

std::string lowered(std::string_view text) {
    std::string result(text);
    std::ranges::transform(result, result.begin(), [](char letter) { return lowered(letter); });
    return result;
}

bool isSameName(std::string_view left, std::string_view right) noexcept {
    return std::ranges::equal(left, right, [](char a, char b) { return lowered(a) == lowered(b); });
}

std::string_view Header::octetsOf(const Field& field) const {
    return std::string_view(m_octets).substr(field.begin, field.end - field.begin);
}

std::string_view Header::nameOf(const Field& field) const {
    std::string_view name = std::string_view(m_octets).substr(field.begin, field.colon - field.begin);
    while (!name.empty() && (name.back() == ' ' || name.back() == '\t'))
        name.remove_suffix(1);
    return name;
}

std::string_view Header::valueOf(const Field& field) const {
    const std::size_t from = field.colon == field.begin ? field.begin : field.colon + 1;
    return std::string_view(m_octets).substr(from, field.end - from);
}

std::string Header::unfolded(const Field& field) const {
    const std::string_view value = valueOf(field);
    std::string line;
    line.reserve(value.size());
    for (std::size_t at = 0; at < value.size(); ++at) {
        const bool isCrLf = value[at] == '\r' && at + 1 < value.size() && value[at + 1] == '\n';
        if (value[at] != '\n' && !isCrLf)
            line += value[at];
    }
    const std::size_t begin = line.find_first_not_of(blanks);
    if (begin == std::string::npos)
        return {};
    return line.substr(begin, line.find_last_not_of(blanks) - begin + 1);
}

std::size_t Header::count(std::string_view name) const {
    return static_cast<std::size_t>(
        std::ranges::count_if(m_fields, [&](const Field& field) { return isSameName(nameOf(field), name); }));
}

std::optional<std::string> Header::first(std::string_view name) const {
    for (const Field& field : m_fields) {
        if (isSameName(nameOf(field), name))
            return unfolded(field);
    }
    return std::nullopt;
}

std::vector<std::string> Header::all(std::string_view name) const {
    std::vector<std::string> values;
    for (const Field& field : m_fields) {
        if (isSameName(nameOf(field), name))
            values.push_back(unfolded(field));
    }
    return values;
}

bool Header::endsLinesInCrLf() const {
    const std::size_t end = m_octets.find('\n');
    return end == std::string::npos || (end > 0 && m_octets[end - 1] == '\r');
}

HeaderEnd readHeader(Octets& from, const HeaderLimits& limits, Header& header) {
    header.m_octets.clear();
    header.m_fields.clear();
    WipedText& octets = header.m_octets;
    std::size_t lineBegin = 0;
    for (;;) {
        // A line at a time out of what lies ready; one that goes on beyond it is put together in `octets`.
        const std::string_view ready = from.view(1);
        if (!ready.empty()) {
            const std::size_t end = ready.find('\n');
            const std::size_t count = end == std::string_view::npos ? ready.size() : end + 1;
            const std::size_t room = limits.octets - octets.size();
            octets.append(ready.substr(0, std::min(count, room)));
            from.skip(std::min(count, room));
            if (count > room)
                return HeaderEnd::tooLong;
            if (end == std::string_view::npos)
                continue;
        } else if (lineBegin == octets.size()) {
            return HeaderEnd::complete;
        }
        const std::string_view line = std::string_view(octets).substr(lineBegin);
        if (line == "\n" || line == "\r\n")
            return HeaderEnd::complete;
        const bool goesOn = (line.front() == ' ' || line.front() == '\t') && !header.m_fields.empty();
        if (goesOn) {
            header.m_fields.back().end = octets.size();
        } else {
            if (header.m_fields.size() == limits.fields)
                return HeaderEnd::tooMany;
            const std::size_t colon = colonOf(line);
            header.m_fields.push_back(
                {lineBegin, colon == std::string_view::npos ? lineBegin : lineBegin + colon, octets.size()});
        }
        lineBegin = octets.size();
    }
}

} // namespace Norvane::Crypto::SMime::mime
