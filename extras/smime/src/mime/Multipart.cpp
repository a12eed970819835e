#include "Multipart.h"

#include "Limits.h"
#include "Lines.h"
#include "Wiped.h"

#include <algorithm>

namespace Norvane::Crypto::SMime::mime {

namespace {

/// What begins at a place where a delimiter may stand.
struct Delimiter {
    enum Kind : int { none, between, last };
    Kind kind = none;
    std::size_t end = 0; ///< behind its line end
};

/// Looks at what follows the boundary. \param rest goes on far enough, or to the end of the body
Delimiter delimiterAt(std::string_view rest, std::size_t behindBoundary) {
    std::size_t at = behindBoundary;
    Delimiter found{Delimiter::between, 0};
    if (rest.substr(at, 2) == "--") {
        found.kind = Delimiter::last;
        at += 2;
    }
    const std::size_t blanksFrom = at;
    while (at < rest.size() && at - blanksFrom < maximumPadding && (rest[at] == ' ' || rest[at] == '\t'))
        ++at;
    if (rest.substr(at, 2) == "\r\n")
        found.end = at + 2;
    else if (at < rest.size() && rest[at] == '\n')
        found.end = at + 1;
    else if (at == rest.size() || (rest[at] == '\r' && at + 1 == rest.size()))
        found.end = rest.size();
    else
        found.kind = Delimiter::none;
    return found;
}

} // namespace

/// The bytes up to the next delimiter.
class Multipart::Part : public Octets {
public:
    Part(SharedOctets body, const std::string& delimiter, std::uint64_t& lookAlikes, Watched& watched)
        : m_body(std::move(body)),
          m_delimiter(delimiter),
          m_lookAlikes(lookAlikes),
          m_watched(watched) {}

    std::string_view view(std::size_t atLeast) override {
        if (m_known < atLeast && !m_ended)
            look(atLeast);
        return m_body->view(m_known).substr(0, m_known);
    }

    void skip(std::size_t count) override {
        count = std::min(count, m_known);
        if (m_isWatched)
            look(m_body->view(count).substr(0, count));
        m_body->skip(count);
        m_known -= count;
        m_atStart = m_atStart && count == 0;
    }

    void watch() noexcept { m_isWatched = true; }

    /// Takes the delimiter behind the part, whose bytes were all taken.
    Delimiter::Kind takeDelimiter() {
        m_body->skip(m_body->view(m_delimiterLength).substr(0, m_delimiterLength).size());
        return m_kind;
    }

private:
    /// Looks for what others take for a delimiter in bytes that are taken.
    void look(std::string_view taken) {
        const std::string behindReturn = '\r' + m_delimiter.substr(1);
        m_looked += taken;
        const auto stands = [&](const std::string& text) { return m_looked.find(text) != std::string::npos; };
        m_watched.isCutByReturns = m_watched.isCutByReturns || stands(behindReturn);
        m_watched.hasFound = m_watched.hasFound || std::ranges::any_of(m_watched.sought, stands);
        m_looked.erase(0, m_looked.size() - std::min(m_looked.size(), behindReturn.size() - 1));
    }

    /// Finds out how many bytes belong to the part, until those are `atLeast` or its end is found. Each byte is searched
    /// once, but for those that a delimiter could begin with.
    void look(std::size_t atLeast) {
        // Of a delimiter: CR, LF, "--", boundary, "--", blanks, CR, LF.
        const std::size_t longest = 1 + m_delimiter.size() + 2 + maximumPadding + 2;
        const std::string_view bytes = m_body->view(atLeast + longest);
        const bool isAll = bytes.size() < atLeast + longest;
        std::size_t from = m_known;
        if (m_atStart && from == 0) {
            const std::size_t length = m_delimiter.size() - 1;
            if (bytes.substr(0, length) == std::string_view(m_delimiter).substr(1) && isDelimiter(bytes, 0, length))
                return;
        }
        for (;;) {
            const std::size_t at = findLine(bytes, m_delimiter, from);
            if (at == std::string_view::npos)
                break;
            if (!isAll && bytes.size() - at < longest) {
                m_known = beforeLineEnd(bytes, at);
                return;
            }
            if (isDelimiter(bytes, at, at + m_delimiter.size()))
                return;
            from = at + 1;
        }
        // A delimiter may begin within the last bytes, and a CR in front of it.
        m_known = isAll ? bytes.size() : bytes.size() - m_delimiter.size();
        m_ended = isAll;
    }

    static std::size_t beforeLineEnd(std::string_view bytes, std::size_t lineFeed) {
        return lineFeed > 0 && bytes[lineFeed - 1] == '\r' ? lineFeed - 1 : lineFeed;
    }

    /// Whether the delimiter is one that begins at `at`; ends the part then.
    bool isDelimiter(std::string_view bytes, std::size_t at, std::size_t behindBoundary) {
        const Delimiter found = delimiterAt(bytes, behindBoundary);
        if (found.kind == Delimiter::none) {
            ++m_lookAlikes;
            m_watched.hasLookAlikes = m_watched.hasLookAlikes || m_isWatched;
            return false;
        }
        // Where the part has no bytes at all, the line end is that of the delimiter before it.
        m_known = bytes.substr(at, 1) == "\n" ? beforeLineEnd(bytes, at) : at;
        m_delimiterLength = found.end - m_known;
        m_kind = found.kind;
        m_ended = true;
        return true;
    }

    SharedOctets m_body;
    const std::string& m_delimiter;
    std::uint64_t& m_lookAlikes;
    Watched& m_watched;
    std::size_t m_known = 0; ///< bytes that lie ahead and belong to the part
    std::size_t m_delimiterLength = 0;
    Delimiter::Kind m_kind = Delimiter::none;
    WipedText m_looked{"\n"}; ///< the end of what was taken, which is too short for a delimiter; a line begins the part
    bool m_isWatched = false;
    bool m_atStart = true;
    bool m_ended = false;
};

Multipart::Multipart(SharedOctets body, const std::string& boundary)
    : m_body(std::move(body)),
      m_delimiter("\n--" + boundary) {
    const auto preamble = std::make_shared<Part>(m_body, m_delimiter, m_lookAlikes, m_watched);
    preamble->watch();
    m_current = preamble.get();
    m_part = preamble;
}

void Multipart::watch() {
    if (m_current != nullptr)
        m_current->watch();
}

bool Multipart::next() {
    if (m_current == nullptr)
        return false;
    drain(*m_current);
    const Delimiter::Kind kind = m_current->takeDelimiter();
    m_current = nullptr;
    m_closed = kind == Delimiter::last;
    if (kind != Delimiter::between)
        return false;
    const auto part = std::make_shared<Part>(m_body, m_delimiter, m_lookAlikes, m_watched);
    m_current = part.get();
    m_part = part;
    return true;
}

void Multipart::lookBehind() {
    for (auto kind = m_closed ? Delimiter::last : Delimiter::none; kind != Delimiter::none;) {
        Part epilogue(m_body, m_delimiter, m_lookAlikes, m_watched);
        epilogue.watch();
        drain(epilogue);
        kind = epilogue.takeDelimiter();
        m_goesOn = m_goesOn || kind == Delimiter::between; // the last one twice is no part more
    }
}

} // namespace Norvane::Crypto::SMime::mime
