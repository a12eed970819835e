#pragma once

/// \file
/// Matching a text against a pattern with `*` and `?`, in a time that no pattern can blow up.
///
/// The stars cut a pattern into pieces. The first piece has to stand at the start of the text and the last one at its
/// end; each other one is taken where it occurs first, which leaves most of the text to those after it. A piece without
/// `?` between its literals is searched for as Knuth, Morris and Pratt do, in a time linear in text and piece; one with
/// such a `?` by tracking all its prefixes at once as bits of 64-bit words, in as many passes over the text as it takes
/// words. A pattern that wants more characters than the text has bytes is turned down at once, so that no piece is
/// longer than the text.

#include "Ascii.h"
#include <norvcmsg/Utf8.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

namespace Norvane {

/// One text under match. `Step` is called once for every unit of work, so that a test can count them.
template <class Step> class WildcardMatcher {
public:
    WildcardMatcher(std::string_view text, Step step)
        : m_text(text),
          m_domain(text.rfind('@') == none ? text.size() : text.rfind('@') + 1),
          m_step(step) {}

    bool matches(std::string_view pattern) {
        if (leastLength(pattern) > m_text.size()) {
            return false;
        }
        const auto first = pattern.find('*');
        if (first == none) {
            return matchAt(pattern, 0) == m_text.size();
        }
        const auto last = pattern.rfind('*');
        const auto tail = pattern.substr(last + 1);
        const auto tailStart = startOfTail(tail);
        auto position = matchAt(pattern.substr(0, first), 0);
        if (position == none || tailStart == none || position > tailStart ||
            matchAt(tail, tailStart) != m_text.size()) {
            return false;
        }
        m_text = m_text.substr(0, tailStart);
        m_domain = std::min(m_domain, tailStart);
        for (auto start = first + 1; start <= last && position != none;) {
            const auto end = pattern.find('*', start);
            position = find(pattern.substr(start, end - start), position);
            start = end + 1;
        }
        return position != none;
    }

private:
    static constexpr auto none = std::string_view::npos;
    using Words = std::vector<std::uint64_t>;

    /// The bytes that a text must have to match: one for each literal and at least one for each `?`.
    std::size_t leastLength(std::string_view pattern) {
        std::size_t length = 0;
        for (const char wanted : pattern) {
            m_step();
            length += wanted == '*' ? 0U : 1U;
        }
        return length;
    }

    /// The length of the character at a position; a byte that is no UTF-8 is a character.
    static std::size_t lengthAt(std::string_view text, std::size_t position) noexcept {
        return std::max<std::size_t>(utf8::characterAt(text, position).length, 1);
    }

    /// True when no character reaches over a position, which may be the end.
    [[nodiscard]] bool isBoundary(std::size_t position) const noexcept {
        if (position == m_text.size() || (static_cast<unsigned char>(m_text[position]) >> 6U) != 2) {
            return true; // no byte that continues a character
        }
        for (std::size_t back = 1; back <= std::min<std::size_t>(position, 3); ++back) {
            if (utf8::characterAt(m_text, position - back).length > back) {
                return false;
            }
        }
        return true;
    }

    [[nodiscard]] bool equals(std::size_t position, char literal) const noexcept {
        return position < m_domain ? m_text[position] == literal : ascii::equalNoCase(m_text[position], literal);
    }

    /// The position after a piece that stands at `position`, or none.
    std::size_t matchAt(std::string_view piece, std::size_t position) {
        for (const char wanted : piece) {
            m_step();
            if (position == m_text.size() || (wanted == '?' ? !isBoundary(position) : !equals(position, wanted))) {
                return none;
            }
            position += wanted == '?' ? lengthAt(m_text, position) : 1;
        }
        return isBoundary(position) ? position : none;
    }

    /// Where a piece has to start in order to end with the text: as many characters before the end as it has.
    std::size_t startOfTail(std::string_view piece) {
        auto start = m_text.size();
        for (std::size_t i = 0; i < piece.size(); i += lengthAt(piece, i)) {
            m_step();
            if (start == 0) {
                return none;
            }
            do {
                --start;
            } while (!isBoundary(start));
        }
        return start;
    }

    /// The position so many characters further on, or none.
    std::size_t skip(std::size_t position, std::size_t characters) {
        for (; position != none && characters > 0; --characters) {
            m_step();
            position = position == m_text.size() ? none : position + lengthAt(m_text, position);
        }
        return position;
    }

    /// The position after the first occurrence of a piece at or after `from`, or none. A `?` at either end of the piece
    /// only asks for one character more there.
    std::size_t find(std::string_view piece, std::size_t from) {
        const auto first = std::min(piece.find_first_not_of('?'), piece.size());
        const auto behind = piece.find_last_not_of('?') + 1; // 0 when there is nothing else
        auto position = skip(from, first);
        if (first < behind && position != none) {
            const auto core = piece.substr(first, behind - first);
            position = core.find('?') == none ? findLiteral(core, position) : findMarked(core, position);
        }
        return skip(position, piece.size() - std::max(first, behind));
    }

    /// The local part and the domain are searched apart, since they are compared differently. What reaches over the
    /// last "@" of the text has its own last "@" there.
    std::size_t findLiteral(std::string_view piece, std::size_t from) {
        auto end = findIn(piece, from, m_domain, [](char a, char b) { return a == b; });
        const auto at = piece.rfind('@');
        if (end == none && at != none && from + at < m_domain && isBoundary(m_domain - 1 - at)) {
            end = matchAt(piece, m_domain - 1 - at);
        }
        return end != none ? end : findIn(piece, std::max(from, m_domain), m_text.size(), [](char a, char b) {
            return ascii::equalNoCase(a, b);
        });
    }

    template <class Same> std::size_t findIn(std::string_view piece, std::size_t from, std::size_t end, Same same) {
        if (from > end || piece.size() > end - from) {
            return none;
        }
        std::vector<std::size_t> borders(piece.size() + 1);
        const auto extend = [&](std::size_t matched, char next) {
            while (m_step(), matched == piece.size() || !same(piece[matched], next)) {
                if (matched == 0) {
                    return matched;
                }
                matched = borders[matched];
            }
            return matched + 1;
        };
        for (std::size_t i = 1; i < piece.size(); ++i) {
            borders[i + 1] = extend(borders[i], piece[i]);
        }
        std::size_t matched = 0;
        for (auto position = from; position < end; ++position) {
            matched = extend(matched, m_text[position]);
            if (matched == piece.size() && isBoundary(position + 1) && isBoundary(position + 1 - matched)) {
                return position + 1;
            }
        }
        return none;
    }

    /// Sets the masks up for a piece, and takes its bits back out, so that the next piece costs no more than it is long.
    std::size_t findMarked(std::string_view piece, std::size_t from) {
        const auto words = (piece.size() + 63) / 64;
        m_masks.resize(std::max(m_masks.size(), 256 * words));
        Words marks(words);
        for (std::size_t i = 0; i < piece.size(); ++i) {
            m_step();
            (piece[i] == '?' ? marks[i / 64] : maskOf(piece[i], words)[i / 64]) |= std::uint64_t{1} << (i % 64);
        }
        const auto position = track(piece.size(), marks, from);
        for (std::size_t i = 0; i < piece.size(); ++i) {
            maskOf(piece[i], words)[i / 64] = 0;
        }
        return position;
    }

    /// Bit n of the states says that the first n + 1 bytes of the piece end where the text was read to. The bytes of
    /// one character are either taken one by one or, all at once, by a `?`.
    std::size_t track(std::size_t length, const Words& marks, std::size_t from) {
        const auto words = marks.size();
        Words states(words);
        Words marked(words);
        for (auto position = from; position < m_text.size();) {
            const auto end = position + lengthAt(m_text, position);
            shift(states, 1);
            for (std::size_t i = 0; i < words; ++i) {
                marked[i] = states[i] & marks[i];
            }
            keep(states, position);
            while (++position < end) {
                shift(states, 0);
                keep(states, position);
            }
            for (std::size_t i = 0; i < words; ++i) {
                states[i] |= marked[i];
            }
            if ((states.back() >> ((length - 1) % 64) & 1U) != 0) {
                return end;
            }
        }
        return none;
    }

    void shift(Words& states, std::uint64_t carry) {
        for (auto& word : states) {
            m_step();
            const auto next = word >> 63U;
            word = (word << 1U) | carry;
            carry = next;
        }
    }

    /// Where a byte stands in the piece that is searched for.
    std::uint64_t* maskOf(char byte, std::size_t words) { return &m_masks[static_cast<unsigned char>(byte) * words]; }

    /// Keeps the states whose prefix ends with the byte at a position.
    void keep(Words& states, std::size_t position) {
        const char byte = m_text[position];
        const auto* mask = maskOf(byte, states.size());
        const auto* other = maskOf(position < m_domain ? byte : ascii::otherCase(byte), states.size());
        for (std::size_t i = 0; i < states.size(); ++i) {
            m_step();
            states[i] &= mask[i] | other[i];
        }
    }

    std::string_view m_text;
    std::size_t m_domain; ///< where what is compared without regard to case begins
    Step m_step;
    Words m_masks; ///< for each byte the bits of a piece, all zero between two searches
};

} // namespace Norvane
