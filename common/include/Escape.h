#pragma once

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

/// `text` with every byte that must not be shown as it is written as \xNN (two upper-case hex digits): control
/// characters (below 0x20, 0x7F, U+0080 to U+009F), bytes that are no well-formed UTF-8, line and paragraph separators
/// (U+2028, U+2029) and the controls that change the direction of writing (U+061C, U+200E, U+200F, U+202A to U+202E,
/// U+2066 to U+2069). Everything else stays, the backslash too: the result is for eyes and cannot be turned back.
[[nodiscard]] NORVCMSG_EXPORT std::string escapeForDisplay(std::string_view text);

} // namespace Norvane
