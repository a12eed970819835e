#include <norvcmsg/StringPattern.h>

#include "Ascii.h"
#include "Utf8.h"

#include <algorithm>
#include <string_view>

namespace Norvane {

namespace {

/// A text under match, which knows where its domain begins.
struct Subject {
    std::string_view text;
    std::size_t domain;

    [[nodiscard]] bool equals(std::size_t position, char literal) const noexcept {
        const char character = text[position];
        return position < domain ? character == literal : ascii::equalNoCase(character, literal);
    }
    /// The position after the character at `position`; a byte that is no UTF-8 is one character.
    [[nodiscard]] std::size_t after(std::size_t position) const noexcept {
        return position + std::max<std::size_t>(utf8::characterAt(text, position).length, 1);
    }
};

} // namespace

StringPattern::StringPattern() = default;

StringPattern::StringPattern(const std::string& pattern) : m_pattern(pattern) {}

/// Each `*` takes as little as it can. Only the last one met is ever widened: what an earlier one takes more, a later
/// one could have taken as well.
bool StringPattern::matches(const std::string& text) const {
    const auto at = text.rfind('@');
    const Subject subject{text, at == std::string::npos ? text.size() : at + 1};
    constexpr auto none = std::string::npos;
    std::size_t pattern = 0;
    std::size_t position = 0;
    std::size_t afterStar = none;
    std::size_t starEnd = 0;
    while (position < text.size()) {
        if (pattern < m_pattern.size() && m_pattern[pattern] == '*') {
            afterStar = ++pattern;
            starEnd = position;
        } else if (pattern < m_pattern.size() && m_pattern[pattern] == '?') {
            ++pattern;
            position = subject.after(position);
        } else if (pattern < m_pattern.size() && subject.equals(position, m_pattern[pattern])) {
            ++pattern;
            ++position;
        } else if (afterStar != none) {
            starEnd = subject.after(starEnd);
            pattern = afterStar;
            position = starEnd;
        } else {
            return false;
        }
    }
    return m_pattern.find_first_not_of('*', pattern) == std::string::npos;
}

std::size_t StringPattern::literalLength() const noexcept {
    return static_cast<std::size_t>(
        std::count_if(m_pattern.begin(), m_pattern.end(), [](char c) { return c != '*' && c != '?'; }));
}

} // namespace Norvane
