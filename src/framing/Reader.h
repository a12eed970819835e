#pragma once

/// \file
/// Takes a BER or DER encoding apart while it is read, element by element, as far as its caller wants to go: for
/// structures of any size, whose large part passes in pieces. See Elements.h for what is in memory and small.
///
/// \code
/// framing::Reader reader(in);
/// reader.expect(framing::sequence);           // the next element, or `Broken` is thrown
/// reader.enter();
/// const framing::Octets identifier = reader.take(64);
/// if (const auto* header = reader.next(); header != nullptr && header->is(TagClass::contextSpecific, 0)) {
///     reader.openString(framing::Segments::strict);
///     for (auto piece = reader.piece(); !piece.empty(); piece = reader.piece()) {
///         use(piece);
///     }
/// }
/// reader.leave();
/// reader.finish();
/// \endcode
///
/// From a source whose bytes lie in memory (`BytesInMemory`) nothing is copied. From any other no octet is read that
/// does not belong to the structure: what follows it is still in the source. There is no recursion; memory is a window
/// of 64 KB and what `take` was allowed to keep.

#include "framing/SegmentRun.h"

#include <norvcmsg/BytesInMemory.h>
#include <norvcmsg/Media.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <list>
#include <optional>
#include <vector>

namespace Norvane::Crypto::framing {

/// What is wrong with an encoding.
enum class Fault : std::uint8_t {
    ended,      ///< the source ended before the element did
    malformed,  ///< no decoder of BER takes it
    unexpected, ///< well-formed, and not what must stand there
    tooDeep,    ///< elements within elements to more levels than allowed
    tooLong,    ///< an element is longer than its caller wanted to keep
    tooMany,    ///< a string has more segments than allowed
};

/// Thrown by `Reader` and its users; never leaves the library.
class Broken : public std::exception {
public:
    explicit Broken(Fault fault) noexcept : m_fault(fault) {}
    [[nodiscard]] Fault fault() const noexcept { return m_fault; }
    /// "the source ended before the structure", for instance.
    [[nodiscard]] const char* what() const noexcept override;

private:
    Fault m_fault;
};

/// Which elements a constructed string may be made of.
enum class Segments : std::uint8_t {
    strict,  ///< octet strings, as X.690, 8.7.3.2 has it
    certain, ///< such that OpenSSL takes wherever they stand: strict, and no empty one has its length in several octets
    lenient, ///< of any tag, as OpenSSL takes them
};

class Reader {
public:
    struct Budget {
        std::size_t depth = 32;                ///< levels of elements within elements; 128 at most
        std::uint64_t segments = ~UINT64_C(0); ///< elements that constructed strings are made of, all together
    };

    /// Keeps `in`, which nobody else reads until `finish`. Reads nothing yet.
    explicit Reader(const MediaIn& in, const Budget& budget);
    explicit Reader(const MediaIn& in) : Reader(in, Budget()) {}
    ~Reader();
    Reader(const Reader&) = delete;
    Reader& operator=(const Reader&) = delete;

    // Every operation throws Broken, and what the source throws. After a throw nothing but destruction is allowed.

    /// The header of the next element at this level, which stays the next one; null at the end of the level.
    const Header* next();
    /// The next element, which must be there and of that kind.
    const Header& expect(TagClass tagClass, std::uint32_t tag);
    const Header& expect(std::uint32_t universalTag) { return expect(TagClass::universal, universalTag); }

    /// Goes into the next element, which must be constructed.
    void enter();
    /// Goes out of the element that was entered last, at the end of which the reader must be.
    void leave();
    /// Takes the whole next element, with its header, which must be `limit` octets at most. They stay as long as the reader
    /// (and the source where it is read in place). What is inside is not looked at, beyond where it ends.
    Octets take(std::size_t limit);
    /// Passes the whole next element.
    void skip();

    /// Begins to read the next element as a string, whatever its tag: its content, or that of its segments.
    void openString(Segments segments);
    /// The next octets of it, valid until the next call; none at its end, behind which the reader stands then. Segments of
    /// less than 1 KB come gathered. All octets before a fault come before it is thrown.
    Octets piece();

    /// Segments that were found in what is read, which must be read in place: their headers are not looked at again.
    /// \param known counted from the first octet of the structure
    void know(const SegmentRun& known) noexcept;
    /// Passes the next element as a string, whatever its tag.
    void skipString(Segments segments);

    /// To be called behind the outermost element, at whose end the source stands then.
    void finish();

    /// The levels that were entered.
    [[nodiscard]] std::size_t depth() const noexcept { return m_open; }
    /// The octets up to here, from the first one of the structure on. Not meaningful within a string.
    [[nodiscard]] std::uint64_t position() const noexcept { return m_windowStart + m_at; }
    /// Whether octets that are lent lie in the source.
    [[nodiscard]] bool isInPlace() const noexcept { return m_inMemory != nullptr; }

private:
    static constexpr std::size_t deepest = 128;
    static constexpr std::uint64_t unknown = ~UINT64_C(0);

    struct Level {
        std::uint64_t end; ///< the position where it ends, or `unknown`
        bool indefinite;   ///< ends at end-of-contents octets
    };

    [[nodiscard]] std::size_t atHand() const noexcept { return m_filled - m_at; }
    [[nodiscard]] const unsigned char* here() const noexcept { return m_window + m_at; }
    bool fetch(std::size_t octets);
    std::size_t readSource(std::size_t octets);
    void readAhead();
    void need(std::size_t octets);
    [[nodiscard]] std::uint64_t certain() const noexcept;
    void readNext();
    void consumeHeader();
    void push();
    void pop() noexcept;
    void passed() noexcept;
    void copy(std::uint64_t octets, std::vector<unsigned char>* into);
    void pass(std::vector<unsigned char>* into, std::size_t limit);
    void checkSegmentLength() const;
    void nextSegment();
    [[nodiscard]] bool isAtKnown() const noexcept;
    Octets rawPiece();
    void gather();

    MediaIn m_in;
    BytesInMemory* m_inMemory;
    const unsigned char* m_window; ///< the source's bytes, or `m_buffer`
    std::vector<unsigned char> m_buffer;
    std::size_t m_at = 0;
    std::size_t m_filled = 0;
    std::uint64_t m_windowStart = 0;    ///< the position of the window's first octet
    std::exception_ptr m_sourceFailure; ///< what the source threw while more was read than was needed yet

    Budget m_budget;
    std::array<Level, deepest> m_levels; // what is not open is not read
    std::size_t m_open = 0;
    std::size_t m_indefinite = 0;          ///< levels of indefinite length among them
    std::size_t m_indefiniteOutside = 0;   ///< those outside of the outermost one of definite length
    std::size_t m_outermostDefinite = 0;   ///< which one that is
    std::uint64_t m_definiteEnd = unknown; ///< where it ends, if there is one
    bool m_outermostPassed = false;

    Header m_header;
    bool m_haveHeader = false;
    bool m_atLevelEnd = false; ///< its end-of-contents octets, if it has such, stand next

    std::uint64_t m_left = 0; ///< octets that are left of what is being passed or read

    // The string that is being read.
    std::size_t m_outsideString = 0; ///< the levels around it
    Segments m_segments = Segments::strict;
    bool m_inString = false;
    SegmentRun m_known; ///< what of it is not passed yet
    Octets m_pending;
    std::optional<Fault> m_pendingFault;
    std::vector<unsigned char> m_gathered;

    std::list<std::vector<unsigned char>> m_kept;
};

} // namespace Norvane::Crypto::framing
