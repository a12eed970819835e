#pragma once

/// \file
/// Where the segments of a string lie that are all of one length, as a sender cuts a body. Whoever walked over them once need not
/// look at each header again.

#include "framing/Elements.h"

namespace Norvane::Crypto::framing {

/// Primitive octet strings one behind the other, with headers and contents as long as the first one's.
struct SegmentRun {
    std::size_t start = 0; ///< the octets before the first one, from the beginning of what it was found in
    std::size_t headerSize = 0;
    std::size_t contentLength = 0;
    std::size_t count = 0;

    [[nodiscard]] std::size_t stride() const noexcept { return headerSize + contentLength; }
    [[nodiscard]] std::size_t size() const noexcept { return count * stride(); }
    [[nodiscard]] std::size_t end() const noexcept { return start + size(); }
    /// The same one, in a part of what it was found in that begins so many octets later, and before it.
    [[nodiscard]] SegmentRun within(std::size_t part) const noexcept {
        return {start - part, headerSize, contentLength, count};
    }
};

/// How many elements at the front have the header of the first one, which was read: 1 when the second is another one.
/// \param octets hold the first element
std::size_t countAlike(Octets octets, const Header& header) noexcept;

/// Finds the longest run among the elements of a walk.
class LongestRun {
public:
    /// \param start where the first of `count` elements with that header was found; places only ever grow
    void add(std::size_t start, const Header& header, std::size_t count) noexcept {
        if (!header.is(TagClass::universal, octetString) || header.constructed) {
            return;
        }
        const auto contentLength = static_cast<std::size_t>(header.contentLength);
        if (start != m_last.end() || header.size != m_last.headerSize || contentLength != m_last.contentLength) {
            m_last = {start, header.size, contentLength, 0};
        }
        m_last.count += count;
        if (m_last.size() > m_longest.size()) {
            m_longest = m_last;
        }
    }
    [[nodiscard]] const SegmentRun& longest() const noexcept { return m_longest; }

private:
    SegmentRun m_last;
    SegmentRun m_longest;
};

} // namespace Norvane::Crypto::framing
