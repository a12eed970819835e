#pragma once

/// \file
/// Reading UTF-8 (RFC 3629) character by character, without tables or copies.

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace Norvane::utf8 {

/// One character of a text: its code point and the bytes it takes. `length` is 0 when the bytes are not well formed.
struct Character {
    std::uint32_t codePoint = 0;
    std::size_t length = 0;
};

/// The character at `position`, which lies inside `text`. Overlong forms, surrogates and code points past U+10FFFF are
/// not well formed.
[[nodiscard]] Character characterAt(std::string_view text, std::size_t position) noexcept;

/// A character that has no place on one line of text: a control, a separator of lines or paragraphs, or one that
/// changes the direction of what follows.
[[nodiscard]] bool breaksLine(std::uint32_t codePoint) noexcept;

} // namespace Norvane::utf8
