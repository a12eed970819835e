#ifndef NORVCMSG_STRING_PATTERN_H
#define NORVCMSG_STRING_PATTERN_H

/// \file
/// Patterns with wildcards, made for mail addresses.
///
/// \code
/// Norvane::StringPattern pattern("*@*.example.com");
/// pattern.matches("fred@Mail.Example.COM"); // true
/// pattern.matches("fred@example.com");      // false
/// \endcode
///
/// Threads: a value. It may be read by several threads at once, and copies belong to whoever has them.

#include <norvcmsg/Export.h>

#include <cstddef>
#include <string>

namespace Norvane {

/// A pattern: `*` stands for any number of characters, `?` for exactly one (a whole one, where the text is UTF-8), and
/// everything else for itself; there is no escape. The whole text has to match. What follows the last "@" of a text,
/// its domain, is compared without regard to the case of ASCII letters, all else with regard to it. The empty pattern
/// matches the empty text only.
class NORVCMSG_EXPORT StringPattern {
public:
    /// The empty pattern.
    StringPattern();
    explicit StringPattern(const std::string& pattern);

    /// True when all of `text` matches. Whatever the pattern, this takes a time linear in text and pattern, times the
    /// number of 64-bit words that the longest piece between two `*` fills if it has a `?` between its literals. A
    /// pattern that wants more characters than the text has bytes costs one pass over it. So for mail addresses, which
    /// have 254 bytes at most (`EmailAddress`), a piece that is searched for has four words at most, and the time is
    /// linear.
    [[nodiscard]] bool matches(const std::string& text) const;

    /// The pattern as it was given.
    [[nodiscard]] const std::string& text() const noexcept { return m_pattern; }
    /// The number of bytes of the pattern that are no wildcards: of two patterns that match, the longer one says more.
    [[nodiscard]] std::size_t literalLength() const noexcept;

    bool operator==(const StringPattern& other) const noexcept { return m_pattern == other.m_pattern; }

private:
    std::string m_pattern;
};

} // namespace Norvane

#endif
