#ifndef NORVCMSG_UTF8_H
#define NORVCMSG_UTF8_H

/// \file
/// Reading UTF-8 (RFC 3629) character by character, without copies.
///
/// \code
/// const auto character = Norvane::utf8::characterAt("\xC3\xBC", 0); // codePoint 0xFC, length 2
/// \endcode
///
/// Nothing throws; all of it may be called from any thread.

#include <norvcmsg/Export.h>

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
[[nodiscard]] NORVCMSG_EXPORT Character characterAt(std::string_view text, std::size_t position) noexcept;

/// A character that has no place on one line of text: a control, a separator of lines or paragraphs, or one that
/// changes the direction of what follows.
[[nodiscard]] NORVCMSG_EXPORT bool breaksLine(std::uint32_t codePoint) noexcept;

/// A character that people would not see, or that changes how they see others: each one that `breaksLine`, those that
/// Unicode calls ignorable by default (zero width, joiners, fillers, variation selectors, tags) and the marks of
/// annotations. Two texts that differ in such characters alone can look the same.
[[nodiscard]] NORVCMSG_EXPORT bool isHidden(std::uint32_t codePoint) noexcept;

/// Whether all of a text is well formed.
[[nodiscard]] NORVCMSG_EXPORT bool isWellFormed(std::string_view text) noexcept;

} // namespace Norvane::utf8

#endif
