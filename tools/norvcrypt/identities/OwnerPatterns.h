#pragma once

/// \file
/// What can be said for certain about owner patterns without an address at hand. Both questions are answered "no" where
/// they cannot be decided.

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace norvcrypt {

/// A pattern taken apart: its literal bytes, and the wildcards before, between and behind them.
class PatternShape {
public:
    explicit PatternShape(const std::string& pattern);

    /// True when every text that `other` matches is matched by this pattern too. Found whenever both have the same
    /// literals in the same order, and this one leaves as much room before and behind each; a text that two patterns
    /// share in any other way is not looked for.
    [[nodiscard]] bool covers(const PatternShape& other) const;
    /// Equal for patterns of which one may cover the other.
    [[nodiscard]] const std::string& key() const noexcept { return m_folded; }

private:
    /// The wildcards between two literals: so many "?", and whether there is a "*".
    struct Gap {
        std::size_t marks = 0;
        bool open = false;
        [[nodiscard]] bool covers(const Gap& other) const noexcept {
            return open ? other.marks >= marks : !other.open && other.marks == marks;
        }
    };

    std::string m_literals;
    std::string m_folded;    ///< the literals in lower case
    std::vector<Gap> m_gaps; ///< one more than there are literals
    std::size_t m_domain;    ///< the first literal whose case never matters; the count of them when that is not certain
};

/// Why a pattern matches no mail address at all, or nothing. Decided for a pattern that asks for more bytes than an
/// address has, for one without wildcards, and for one whose whole local part or whole domain stands there literally.
std::optional<std::string> whyNeverMatches(const std::string& pattern);

} // namespace norvcrypt
