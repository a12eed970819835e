#include "framing/Reader.h"

#include <algorithm>
#include <limits>
#include <utility>

namespace Norvane::Crypto::framing {

namespace {

constexpr std::size_t windowSize = 0x10000;
constexpr std::size_t endOfContentsSize = 2;
constexpr std::size_t smallestHeader = 2;
/// Far more than any tag number and length that fit; a long tag number may begin with any number of zeros.
constexpr std::size_t largestHeader = 256;
/// Shorter segments are gathered to about `gatheredMost` octets: what takes them pays for each call.
constexpr std::size_t gatheredBelow = 1024;
constexpr std::size_t gatheredMost = 4096;

std::size_t smallerOf(std::size_t left, std::uint64_t right) noexcept {
    return right < left ? static_cast<std::size_t>(right) : left;
}

} // namespace

const char* Broken::what() const noexcept {
    switch (m_fault) {
    case Fault::ended:
        return "the source ended before the structure";
    case Fault::malformed:
        return "no BER or DER encoding";
    case Fault::unexpected:
        return "an element that does not belong there";
    case Fault::tooDeep:
        return "elements within elements to too many levels";
    case Fault::tooLong:
        return "an element that is too long";
    case Fault::tooMany:
        return "a string of too many segments";
    }
    return "";
}

Reader::Reader(const MediaIn& in, const Budget& budget)
    : m_in(in),
      m_inMemory(dynamic_cast<BytesInMemory*>(m_in.operator->())),
      m_window(nullptr),
      m_budget(budget) {
    m_budget.depth = std::min(m_budget.depth, deepest);
    if (m_inMemory != nullptr) {
        m_window = m_inMemory->rest();
        m_filled = m_inMemory->left();
    }
}

Reader::~Reader() = default;

/// How many octets from here on belong to the structure, if it is sound: those that may be read from the source.
std::uint64_t Reader::certain() const noexcept {
    if (m_definiteEnd != unknown) {
        return m_definiteEnd - position() + endOfContentsSize * m_indefiniteOutside;
    }
    return m_left + endOfContentsSize * m_indefinite;
}

/// Makes so many octets lie next to each other; false when the source ends before.
bool Reader::fetch(std::size_t octets) {
    if (atHand() >= octets) {
        return true;
    }
    if (isInPlace()) {
        return false;
    }
    if (m_at != 0) {
        std::copy(m_buffer.begin() + static_cast<std::ptrdiff_t>(m_at),
                  m_buffer.begin() + static_cast<std::ptrdiff_t>(m_filled), m_buffer.begin());
        m_windowStart += m_at;
        m_filled -= m_at;
        m_at = 0;
    }
    const std::size_t wanted = std::max(octets, smallerOf(windowSize, certain()));
    if (m_buffer.size() < wanted) { // small structures take small memory
        m_buffer.resize(wanted);
        m_window = m_buffer.data();
    }
    if (m_sourceFailure != nullptr) {
        std::rethrow_exception(m_sourceFailure);
    }
    while (m_filled < octets) {
        if (readSource(wanted - m_filled) == 0) {
            return false;
        }
    }
    if (m_inString && m_open != m_outsideString && m_definiteEnd == unknown) {
        readAhead();
    }
    return true;
}

/// Reads so many octets at most into the window, which has room for them.
std::size_t Reader::readSource(std::size_t octets) {
    const int count = m_in.read(m_buffer.data() + m_filled, static_cast<unsigned int>(octets));
    const std::size_t got = count <= 0 ? 0 : smallerOf(octets, static_cast<std::uint64_t>(count));
    m_filled += got;
    return got;
}

/// Fills the window with the segments behind this one, as long as the source has at hand what it is asked for. Where a string of
/// indefinite length ends is known from one segment to the next, so that none can be asked for together with the one before; but
/// the memory of a source that copies comes sooner when it is read in a row than between two calls of a cipher.
void Reader::readAhead() {
    for (std::uint64_t ahead = m_left; ahead <= atHand();) {
        Header header;
        const auto at = static_cast<std::size_t>(ahead);
        if (readHeader(here() + at, atHand() - at, header) != HeaderState::complete ||
            !header.is(TagClass::universal, octetString) || header.constructed || header.contentLength > windowSize) {
            return;
        }
        ahead += header.size + header.contentLength;
        const std::uint64_t wanted = ahead + endOfContentsSize * m_indefinite;
        if (m_at + wanted > windowSize) {
            return;
        }
        if (wanted <= atHand()) {
            continue;
        }
        if (m_buffer.size() < windowSize) {
            m_buffer.resize(windowSize);
            m_window = m_buffer.data();
        }
        const std::size_t missing = static_cast<std::size_t>(wanted) - atHand();
        try {
            if (readSource(missing) != missing) {
                return;
            }
        } catch (...) { // what came before it comes out first
            m_sourceFailure = std::current_exception();
            return;
        }
    }
}

void Reader::need(std::size_t octets) {
    if (!fetch(octets)) {
        throw Broken(Fault::ended);
    }
}

/// Finds out what stands next, unless it is known.
void Reader::readNext() {
    if (m_haveHeader || m_atLevelEnd) {
        return;
    }
    if (m_open == 0 && m_outermostPassed) {
        m_atLevelEnd = true;
        return;
    }
    const bool indefinite = m_open != 0 && m_levels[m_open - 1].indefinite;
    const std::uint64_t end = m_open == 0 ? unknown : m_levels[m_open - 1].end;
    const std::uint64_t room = end == unknown ? unknown : end - position();
    if (room == 0 && !indefinite) {
        m_atLevelEnd = true;
        return;
    }
    if (room < smallestHeader) {
        throw Broken(Fault::malformed);
    }
    need(smallestHeader);
    for (;;) {
        const std::size_t usable = std::min(largestHeader, smallerOf(atHand(), room));
        const HeaderState state = readHeader(here(), usable, m_header);
        if (state == HeaderState::complete) {
            break;
        }
        if (state == HeaderState::malformed || usable == room || usable == largestHeader) {
            throw Broken(Fault::malformed);
        }
        need(usable + 1);
    }
    if (m_header.is(TagClass::universal, 0)) {
        if (!indefinite || !m_header.isEndOfContents()) {
            throw Broken(Fault::malformed);
        }
        m_atLevelEnd = true;
        return;
    }
    if (end != unknown && m_header.contentLength > room - m_header.size) {
        throw Broken(Fault::malformed);
    }
    m_haveHeader = true;
}

const Header* Reader::next() {
    readNext();
    return m_haveHeader ? &m_header : nullptr;
}

const Header& Reader::expect(TagClass tagClass, std::uint32_t tag) {
    const Header* header = next();
    if (header == nullptr || !header->is(tagClass, tag)) {
        throw Broken(Fault::unexpected);
    }
    return *header;
}

void Reader::consumeHeader() {
    m_at += m_header.size;
    m_haveHeader = false;
}

/// Goes into the element of that header, behind which the reader stands then.
void Reader::push() {
    if (m_open == m_budget.depth) {
        throw Broken(Fault::tooDeep);
    }
    consumeHeader();
    Level& level = m_levels[m_open];
    level.indefinite = m_header.indefinite;
    if (level.indefinite) {
        level.end = m_open == 0 ? unknown : m_levels[m_open - 1].end;
        ++m_indefinite;
    } else {
        level.end = position() + m_header.contentLength;
        if (m_definiteEnd == unknown) {
            m_definiteEnd = level.end;
            m_outermostDefinite = m_open;
            m_indefiniteOutside = m_indefinite;
        }
    }
    ++m_open;
}

/// Goes out of the innermost level, at the end of which the reader stands.
void Reader::pop() noexcept {
    --m_open;
    if (m_levels[m_open].indefinite) {
        m_at += endOfContentsSize;
        --m_indefinite;
    } else if (m_outermostDefinite == m_open) {
        m_definiteEnd = unknown;
    }
    m_atLevelEnd = false;
    passed();
}

/// An element was passed.
void Reader::passed() noexcept {
    m_outermostPassed = m_outermostPassed || m_open == 0;
}

void Reader::enter() {
    if (next() == nullptr || !m_header.constructed) {
        throw Broken(Fault::unexpected);
    }
    push();
}

void Reader::leave() {
    if (m_open == 0 || next() != nullptr) {
        throw Broken(Fault::unexpected);
    }
    pop();
}

/// Passes octets that belong to the structure.
void Reader::copy(std::uint64_t octets, std::vector<unsigned char>* into) {
    m_left = octets;
    while (m_left != 0) {
        need(1);
        const std::size_t count = smallerOf(atHand(), m_left);
        if (into != nullptr) {
            into->insert(into->end(), here(), here() + count);
        }
        m_at += count;
        m_left -= count;
    }
}

/// Passes the next element, which is kept in `into` unless that is null.
void Reader::pass(std::vector<unsigned char>* into, std::size_t limit) {
    const std::uint64_t start = position();
    const auto within = [&](std::uint64_t octets) {
        const std::uint64_t before = position() - start;
        if (before > limit || octets > limit - before) {
            throw Broken(Fault::tooLong);
        }
    };
    const std::size_t outside = m_open;
    do {
        if (next() == nullptr) {
            within(endOfContentsSize);
            if (into != nullptr) {
                into->insert(into->end(), endOfContentsSize, 0);
            }
            pop();
            continue;
        }
        within(m_header.size);
        if (m_header.indefinite) {
            if (into != nullptr) {
                into->insert(into->end(), here(), here() + m_header.size);
            }
            push();
        } else {
            within(m_header.size + m_header.contentLength);
            m_haveHeader = false;
            copy(m_header.size + m_header.contentLength, into);
            passed();
        }
    } while (m_open != outside);
}

Octets Reader::take(std::size_t limit) {
    if (next() == nullptr) {
        throw Broken(Fault::unexpected);
    }
    if (isInPlace()) {
        const std::size_t start = m_at;
        pass(nullptr, limit);
        return {m_window + start, m_at - start};
    }
    std::vector<unsigned char>& kept = m_kept.emplace_back();
    pass(&kept, limit);
    return kept;
}

void Reader::skip() {
    if (next() == nullptr) {
        throw Broken(Fault::unexpected);
    }
    pass(nullptr, std::numeric_limits<std::size_t>::max());
}

void Reader::openString(Segments segments) {
    if (next() == nullptr) {
        throw Broken(Fault::unexpected);
    }
    m_segments = segments;
    checkSegmentLength();
    m_outsideString = m_open;
    m_inString = true;
    if (m_header.constructed) {
        push();
    } else {
        consumeHeader();
        m_left = m_header.contentLength;
    }
}

void Reader::know(const SegmentRun& known) noexcept {
    if (isInPlace() && known.end() <= m_filled) {
        m_known = known;
    }
}

/// Whether a segment that is known stands next.
bool Reader::isAtKnown() const noexcept {
    return m_known.count != 0 && m_known.start == m_at && m_left == 0 && !m_haveHeader && !m_atLevelEnd &&
           m_known.count <= m_budget.segments;
}

void Reader::skipString(Segments segments) {
    openString(segments);
    while (!rawPiece().empty()) {
        if (isAtKnown()) {
            m_at += m_known.size();
            m_budget.segments -= m_known.count;
            m_known.count = 0;
        }
    }
}

void Reader::checkSegmentLength() const {
    if (m_segments == Segments::certain && m_header.isEmptyInLongForm()) {
        throw Broken(Fault::unexpected);
    }
}

/// Goes into the next segment, or out of a string that ends.
void Reader::nextSegment() {
    if (isAtKnown()) {
        m_at += m_known.headerSize;
        m_left = m_known.contentLength;
        m_known.start += m_known.stride();
        --m_known.count;
        --m_budget.segments;
        return;
    }
    if (next() == nullptr) {
        pop();
        return;
    }
    if (m_segments != Segments::lenient && !m_header.is(TagClass::universal, octetString)) {
        throw Broken(Fault::unexpected);
    }
    checkSegmentLength();
    if (m_budget.segments-- == 0) {
        throw Broken(Fault::tooMany);
    }
    if (m_header.constructed) {
        push();
    } else {
        if (isInPlace()) {
            prefetchHeader(Octets(here(), atHand()), m_header);
        }
        consumeHeader();
        m_left = m_header.contentLength;
    }
}

Octets Reader::rawPiece() {
    while (m_inString) {
        if (m_left != 0) {
            // The few octets that came with a header go out with those that follow them, not on their own.
            if (atHand() < gatheredBelow && atHand() < m_left && !fetch(atHand() + 1) && atHand() == 0) {
                throw Broken(Fault::ended);
            }
            const Octets octets(here(), smallerOf(atHand(), m_left));
            m_at += octets.size();
            m_left -= octets.size();
            return octets;
        }
        if (m_open == m_outsideString) {
            m_inString = false;
            passed();
        } else {
            nextSegment();
        }
    }
    return {};
}

/// Adds what follows to the short piece that there is.
void Reader::gather() {
    while (m_gathered.size() < gatheredMost) {
        const Octets more = rawPiece();
        if (more.size() >= gatheredBelow) {
            m_pending = more;
            return;
        }
        if (more.empty()) {
            return;
        }
        m_gathered.insert(m_gathered.end(), more.begin(), more.end());
    }
}

Octets Reader::piece() {
    if (!m_pending.empty()) {
        return std::exchange(m_pending, {});
    }
    if (m_pendingFault) {
        throw Broken(*m_pendingFault);
    }
    const Octets first = rawPiece();
    if (first.empty() || first.size() >= gatheredBelow) {
        return first;
    }
    m_gathered.assign(first.begin(), first.end());
    try {
        gather();
    } catch (const Broken& broken) { // what came before it comes out first
        m_pendingFault = broken.fault();
    }
    return m_gathered;
}

void Reader::finish() {
    if (m_open != 0 || !m_outermostPassed) {
        throw Broken(Fault::unexpected);
    }
    if (m_inMemory != nullptr) {
        m_inMemory->skip(static_cast<unsigned long>(position()));
    }
}

} // namespace Norvane::Crypto::framing
