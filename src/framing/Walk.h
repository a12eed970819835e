#pragma once

/// \file
/// All elements of a BER or DER encoding, one after the other.

#include "framing/Header.h"

#include <array>
#include <cstddef>
#include <cstdint>

namespace Norvane::Crypto::framing {

/// Goes through the first element of some octets and all that it is made of, in the order of the octets, once: in time
/// linear in them, without recursion, memory or copies. The octets must outlive the walk.
///
/// \code
/// framing::Walk walk(der, length);
/// for (auto step = walk.next(); !framing::isLast(step); step = walk.next()) {
///     // step is opened, closed or primitive; walk.header(), walk.content() and walk.depth() tell of what
/// }
/// \endcode
///
/// The content of a constructed element may be no encoding at all where a decoder takes the element as a whole. So
/// damage inside an element whose length is announced ends that element early, and the walk goes on after it; only
/// damage around which nothing announces a length ends the walk.
///
/// A SEQUENCE or SET counts as constructed whether it says so or not: where OpenSSL decodes a list it does not look.
class Walk {
public:
    /// Which elements without the constructed bit are opened besides.
    enum class Opening : std::uint8_t {
        none,
        contextSpecific, ///< those with a tag of the context, behind which a list may stand; what is no list is damage in them
    };
    enum class Step : std::uint8_t {
        opened,    ///< a constructed element; what is in it follows
        closed,    ///< the end of one that was opened
        primitive, ///< an element that holds octets
        finished,  ///< nothing is left
        damaged,   ///< the octets end or make no sense from here on
        tooDeep,   ///< constructed elements stand inside each other to more than `deepest` levels
    };
    /// More than four times as many levels as OpenSSL decodes.
    static constexpr std::size_t deepest = 128;

    Walk(const unsigned char* octets, std::size_t length, Opening opening = Opening::none) noexcept;

    /// Goes on. The last step (`finished`, `damaged`, `tooDeep`) is answered again and again.
    Step next() noexcept;
    /// After `primitive`: passes so many octets of elements behind it that stand in the same one and are known. False, and
    /// nothing is passed, when it does not hold so many.
    bool pass(std::size_t octets) noexcept;

    /// The header of the element that was opened or found last; after `closed` that of no particular one.
    [[nodiscard]] const Header& header() const noexcept { return m_header; }
    /// The elements around the one that the last step is about: 0 for the outermost one, `deepest` at the most, of a primitive one.
    [[nodiscard]] std::size_t depth() const noexcept { return m_depth; }
    /// After `primitive`: its content, `header().contentLength` octets.
    [[nodiscard]] const unsigned char* content() const noexcept { return m_octets + m_contentAt; }
    /// After `primitive` and `closed`: the octets of the whole element, header and end included.
    [[nodiscard]] std::size_t elementSize() const noexcept { return m_elementSize; }

private:
    struct Open {
        std::size_t start;
        std::size_t end; ///< where it ends; when its length is indefinite, where what is around it ends
        bool indefinite;
    };

    [[nodiscard]] bool isOpened() const noexcept;
    [[nodiscard]] std::size_t limit() const noexcept { return m_open == 0 ? m_length : m_stack[m_open - 1].end; }
    Step close(std::size_t at) noexcept;
    Step abandon() noexcept;
    Step enter(std::size_t start) noexcept;
    Step last(Step step) noexcept;

    const unsigned char* m_octets;
    std::size_t m_length;
    Opening m_opening;
    std::size_t m_at = 0;
    std::size_t m_open = 0;
    std::size_t m_depth = 0;
    std::size_t m_contentAt = 0;
    std::size_t m_elementSize = 0;
    Header m_header;
    Step m_last = Step::opened;
    bool m_abandoning = false;
    std::array<Open, deepest> m_stack; // what is not open is not read
};

/// Whether nothing follows a step.
constexpr bool isLast(Walk::Step step) noexcept {
    return step == Walk::Step::finished || step == Walk::Step::damaged || step == Walk::Step::tooDeep;
}

} // namespace Norvane::Crypto::framing
