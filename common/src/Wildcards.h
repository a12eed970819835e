#pragma once

/// \file
/// Matching a text against a pattern with `*` and `?`, in a time that no pattern can blow up.
///
/// The stars cut a pattern into pieces. The first piece has to stand at the start of the text and the last one at its
/// end; each other one is taken where it occurs first, which leaves most of the text to those after it. A piece without
/// `?` is searched for as Knuth, Morris and Pratt do, in a time linear in text and piece; one with `?` by tracking all
/// its prefixes at once as bits of 64-bit words, in as many passes over the text as it takes words. A pattern that wants
/// more characters than the text has bytes is turned down at once, so that no piece is longer than the text.

#include "Ascii.h"
#include "Utf8.h"

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

    /// The position after the first occurrence of a piece at or after `from`, or none.
    std::size_t find(std::string_view piece, std::size_t from) {
        if (piece.empty()) {
            return from;
        }
        return piece.find('?') == none ? findLiteral(piece, from) : findMarked(piece, from);
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

    /// Bit n of the states says that the first n + 1 bytes of the piece end where the text was read to. The bytes of
    /// one character are either taken one by one or, all at once, by a `?`.
    std::size_t findMarked(std::string_view piece, std::size_t from) {
        const auto words = (piece.size() + 63) / 64;
        std::vector<Words> masks(256);
        Words marks(words);
        for (std::size_t i = 0; i < piece.size(); ++i) {
            auto& mask = piece[i] == '?' ? marks : masks[static_cast<unsigned char>(piece[i])];
            mask.resize(words);
            mask[i / 64] |= std::uint64_t{1} << (i % 64);
        }
        Words states(words);
        Words marked(words);
        for (auto position = from; position < m_text.size();) {
            const auto end = position + lengthAt(m_text, position);
            shift(states, 1);
            for (std::size_t i = 0; i < words; ++i) {
                marked[i] = states[i] & marks[i];
            }
            keep(states, masks, position);
            while (++position < end) {
                shift(states, 0);
                keep(states, masks, position);
            }
            for (std::size_t i = 0; i < words; ++i) {
                states[i] |= marked[i];
            }
            if ((states.back() >> ((piece.size() - 1) % 64) & 1U) != 0) {
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

    /// Keeps the states whose prefix ends with the byte at a position.
    void keep(Words& states, const std::vector<Words>& masks, std::size_t position) {
        const auto maskOf = [&](char byte, std::size_t i) {
            const auto& mask = masks[static_cast<unsigned char>(byte)];
            return mask.empty() ? 0 : mask[i];
        };
        const char byte = m_text[position];
        const char other = position < m_domain ? byte : ascii::otherCase(byte);
        for (std::size_t i = 0; i < states.size(); ++i) {
            m_step();
            states[i] &= maskOf(byte, i) | maskOf(other, i);
        }
    }

    std::string_view m_text;
    std::size_t m_domain; ///< where what is compared without regard to case begins
    Step m_step;
};

} // namespace Norvane
