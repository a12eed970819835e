#include "diagnosis/BodyFacts.h"

namespace Norvane::Crypto::SMime::diagnosis {

namespace {

constexpr std::size_t mostCharacterSets = 16;

bool endsInBlank(std::string_view octets) noexcept {
    return octets.ends_with(' ') || octets.ends_with('\t');
}

} // namespace

std::uint64_t BodyFacts::countOfEnds() const noexcept {
    return count(LineEnd::lf) + count(LineEnd::crLf) + count(LineEnd::cr) + count(LineEnd::crCrLf);
}

LineEnd BodyFacts::usual() const noexcept {
    return count(LineEnd::lf) > count(LineEnd::crLf) ? LineEnd::lf : LineEnd::crLf;
}

void FactsCollector::header(const std::vector<HeaderLine>& lines, const PartHeader& part) {
    m_part = part;
    m_facts.hasHeader = true;
    m_facts.hasMultipart = m_facts.hasMultipart || part.isMultipart;
    for (const HeaderLine& line : lines) {
        ++m_facts.ends[static_cast<std::size_t>(line.end)];
        m_facts.hasBlanksAtLineEnds = m_facts.hasBlanksAtLineEnds || endsInBlank(line.octets);
    }
    if (part.isText && !part.isMultipart && m_facts.characterSets.size() < mostCharacterSets) {
        m_facts.characterSets.insert(part.characterSet);
    }
    m_facts.hasEightBitText = m_facts.hasEightBitText || (part.isText && part.encoding == TransferEncoding::eightBit);
}

void FactsCollector::startOfLine(std::string_view octets) {
    const std::size_t escapes = std::min(octets.find_first_not_of('>'), octets.size());
    if (octets.substr(escapes).starts_with("From ")) {
        m_facts.hasFrom = m_facts.hasFrom || escapes == 0;
        m_facts.hasEscapedFrom = m_facts.hasEscapedFrom || escapes == 1;
        m_facts.hasDeeplyEscapedFrom = m_facts.hasDeeplyEscapedFrom || escapes > 1;
    }
    m_facts.hasDot = m_facts.hasDot || octets.starts_with('.');
    m_facts.hasTwoDots = m_facts.hasTwoDots || octets.starts_with("..");
}

void FactsCollector::line(const LinePiece& piece) {
    ++m_facts.ends[static_cast<std::size_t>(piece.end)];
    m_facts.hasBlanksAtLineEnds = m_facts.hasBlanksAtLineEnds || (piece.ends && endsInBlank(piece.octets));
    if (piece.begins) {
        startOfLine(piece.octets);
        m_facts.hasBareSeparator = m_facts.hasBareSeparator || (piece.ends && piece.octets == "--");
    }
    switch (piece.place) {
    case Place::preamble:
        m_facts.hasPreamble = true;
        return;
    case Place::epilogue:
        m_facts.hasEpilogue = m_facts.hasEpilogue || piece.isOutermost;
        return;
    case Place::boundary:
        return;
    case Place::body:
        break;
    }
    m_facts.hasBase64 = m_facts.hasBase64 || m_part.encoding == TransferEncoding::base64;
    m_facts.hasBase64Text = m_facts.hasBase64Text || (m_part.encoding == TransferEncoding::base64 && m_part.isText);
    if (m_part.encoding == TransferEncoding::quotedPrintable) {
        m_facts.hasQuotedPrintable = true;
        for (std::size_t at = piece.octets.find('='); at != std::string_view::npos;
             at = piece.octets.find('=', at + 1)) {
            for (const char digit : piece.octets.substr(at + 1, 2)) {
                m_facts.hasSmallHexDigits = m_facts.hasSmallHexDigits || (digit >= 'a' && digit <= 'f');
                m_facts.hasCapitalHexDigits = m_facts.hasCapitalHexDigits || (digit >= 'A' && digit <= 'F');
            }
        }
    }
}

} // namespace Norvane::Crypto::SMime::diagnosis
