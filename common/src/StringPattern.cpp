#include <norvcmsg/StringPattern.h>

#include "Wildcards.h"

#include <algorithm>

namespace Norvane {

StringPattern::StringPattern() = default;

StringPattern::StringPattern(const std::string& pattern) : m_pattern(pattern) {}

bool StringPattern::matches(const std::string& text) const {
    return WildcardMatcher(text, [] {}).matches(m_pattern);
}

std::size_t StringPattern::literalLength() const noexcept {
    return static_cast<std::size_t>(
        std::count_if(m_pattern.begin(), m_pattern.end(), [](char c) { return c != '*' && c != '?'; }));
}

} // namespace Norvane
