#pragma once

/// \file
/// Characters as protocols see them: ASCII, whatever the locale.

#include <algorithm>
#include <string_view>

namespace Norvane::ascii {

[[nodiscard]] constexpr bool isDigit(char c) noexcept {
    return c >= '0' && c <= '9';
}

[[nodiscard]] constexpr bool isLetter(char c) noexcept {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

[[nodiscard]] constexpr bool isLetterOrDigit(char c) noexcept {
    return isLetter(c) || isDigit(c);
}

[[nodiscard]] constexpr char toUpper(char c) noexcept {
    return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
}

/// The same letter in the other case; what is no letter, as it is.
[[nodiscard]] constexpr char otherCase(char c) noexcept {
    return isLetter(c) ? static_cast<char>(c ^ 0x20) : c;
}

[[nodiscard]] constexpr bool equalNoCase(char a, char b) noexcept {
    return toUpper(a) == toUpper(b);
}

[[nodiscard]] constexpr bool equalNoCase(std::string_view a, std::string_view b) noexcept {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](char x, char y) { return equalNoCase(x, y); });
}

} // namespace Norvane::ascii
