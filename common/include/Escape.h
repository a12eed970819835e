#ifndef NORVCMSG_ESCAPE_H
#define NORVCMSG_ESCAPE_H

/// \file
/// Showing bytes that somebody else chose. Texts of messages and certificates go through `escapeForDisplay` before they
/// reach a terminal, a log or an error text, so that they can neither break nor forge a line.
///
/// \code
/// std::cerr << Norvane::escapeForDisplay("evil\n2026-01-01 all is well") << '\n'; // evil\x0A2026-01-01 all is well
/// \endcode

#include <norvcmsg/Export.h>

#include <string>
#include <string_view>

namespace Norvane {

/// `text` with every byte that must not be shown as it is written as `\xNN` (two upper-case hex digits): bytes that are no
/// well-formed UTF-8, and each byte of a character that `utf8::isHidden`: control characters (below 0x20, 0x7F, U+0080 to
/// U+009F), separators of lines and paragraphs (U+2028, U+2029), controls of the direction of writing (U+061C, U+200E,
/// U+200F, U+202A to U+202E, U+2066 to U+2069), characters without width (U+200B to U+200D, U+2060 to U+2064, U+FEFF and
/// their like), variation selectors and tags (U+E0000 to U+E0FFF). A backslash is written as two, so that no two texts
/// look the same: what begins with one backslash was escaped. Everything else stays.
///
/// A text that was escaped already, such as an `Exception::asString()`, has its backslashes doubled once more.
[[nodiscard]] NORVCMSG_EXPORT std::string escapeForDisplay(std::string_view text);

/// Whether `text` may be shown as it is: `escapeForDisplay` would change nothing in it but backslashes.
[[nodiscard]] NORVCMSG_EXPORT bool isDisplayable(std::string_view text) noexcept;

} // namespace Norvane

#endif
