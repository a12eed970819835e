#pragma once

/// \file
/// The parts of a multipart entity (RFC 2046, 5.1.1) as exact bytes, one after the other.

#include "Octets.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace Norvane::Crypto::SMime::mime {

/// Walks through the parts of a body, whose header block was taken already.
///
/// A delimiter is a line that is "--" and the boundary, "--" once more for the last one, and blanks. The line end in front
/// of it belongs to it (RFC 2046, 5.1.1): the bytes of a part are those behind the line end of one delimiter and before the
/// line end in front of the next, which is what RFC 1847 signs. A line that goes on behind the boundary with anything else
/// is a line of the part. Boundaries around this multipart end it, whatever its own last delimiter is.
///
/// \code
/// Multipart parts(body, "boundary");
/// while (parts.next()) {
///     Header header;
///     readHeader(*parts.part(), limits, header);
///     copy(*parts.part(), out);
/// }
/// \endcode
class Multipart {
public:
    /// \param boundary with at most `maximumBoundary` characters, at least one
    Multipart(SharedOctets body, const std::string& boundary);

    /// Passes what is left of a part, or the preamble, and goes to the next one. False when there is none: behind the last
    /// delimiter, whose epilogue is left in the body, or where the body ends.
    bool next();
    /// To be called in front of a part that is shown to nobody; see `isCutByReturns`. The preamble is watched, too.
    void watch();
    /// The part; before the first call of `next`, the preamble. It must not be read once `next` was called.
    [[nodiscard]] const SharedOctets& part() const noexcept { return m_part; }
    /// Whether the last delimiter was there; known once `next` was false.
    [[nodiscard]] bool isClosed() const noexcept { return m_closed; }
    /// Lines that begin with the boundary but are no delimiters: readers that compare prefixes, as RFC 2046 allows, see
    /// other parts than this one.
    [[nodiscard]] std::uint64_t lookAlikes() const noexcept { return m_lookAlikes; }
    /// Whether such lines stand in watched parts.
    [[nodiscard]] bool hasLookAlikesBeside() const noexcept { return m_watched.hasLookAlikes; }
    /// To be called in front of the first part: another text that is sought in what is watched, which is the start of a part for
    /// some. Where it begins with a line feed, it is found at the very start, too.
    void seek(std::string text) { m_watched.sought.push_back(std::move(text)); }
    /// Whether one of those was found in what was taken.
    [[nodiscard]] bool hasFound() const noexcept { return m_watched.hasFound; }
    /// Takes the epilogue, once `next` was false. Readers who go on there see what `goesOn` tells of.
    void lookBehind();
    /// Whether boundaries stand behind the last one.
    [[nodiscard]] bool goesOn() const noexcept { return m_goesOn; }
    /// Whether a CR alone stands in front of what begins with the boundary in what was taken of watched parts: readers that end
    /// lines at a CR see other parts.
    [[nodiscard]] bool isCutByReturns() const noexcept { return m_watched.isCutByReturns; }

private:
    class Part;
    /// What is found in parts that are shown to nobody.
    struct Watched {
        std::vector<std::string> sought;
        bool hasFound = false;
        bool hasLookAlikes = false;
        bool isCutByReturns = false;
    };

    SharedOctets m_body;
    std::string m_delimiter; ///< LF, "--", boundary
    SharedOctets m_part;
    Part* m_current = nullptr; ///< what `m_part` is
    bool m_closed = false;
    std::uint64_t m_lookAlikes = 0;
    bool m_goesOn = false;
    Watched m_watched;
};

} // namespace Norvane::Crypto::SMime::mime
