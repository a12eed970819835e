#include "diagnosis/BodyScanner.h"

#include <algorithm>
#include <utility>

namespace Norvane::Crypto::SMime::diagnosis {

namespace {

constexpr std::size_t longestHeader = std::size_t{64} << 10U;
constexpr std::size_t deepest = 32;
constexpr std::size_t mostHeaders = 1000;

char smallLetter(char letter) noexcept {
    return letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter - 'A' + 'a') : letter;
}

bool isBlank(char octet) noexcept {
    return octet == ' ' || octet == '\t';
}

/// What stands behind the first of these; nothing when there is none.
std::string_view behind(std::string_view text, char octet) noexcept {
    const std::size_t at = text.find(octet);
    return at == std::string_view::npos ? std::string_view() : text.substr(at + 1);
}

std::string_view trimmed(std::string_view text) noexcept {
    while (!text.empty() && isBlank(text.front())) {
        text.remove_prefix(1);
    }
    while (!text.empty() && isBlank(text.back())) {
        text.remove_suffix(1);
    }
    return text;
}

/// Takes a quoted string off the front, semicolons in it included.
std::string takeQuoted(std::string_view& text) {
    std::string value;
    std::size_t at = 1;
    for (; at < text.size() && text[at] != '"'; ++at) {
        if (text[at] == '\\' && at + 1 < text.size()) {
            ++at;
        }
        value += text[at];
    }
    text.remove_prefix(at);
    return value;
}

/// A value in front of parameters and comments (RFC 2045, 5.1), in small letters.
std::string plainValue(std::string_view text) {
    return smallLetters(trimmed(text.substr(0, text.find_first_of(";("))));
}

TransferEncoding encodingOf(std::string_view value) {
    const std::string name = plainValue(value);
    if (name == "base64") {
        return TransferEncoding::base64;
    }
    if (name == "quoted-printable") {
        return TransferEncoding::quotedPrintable;
    }
    if (name == "8bit") {
        return TransferEncoding::eightBit;
    }
    return name == "7bit" ? TransferEncoding::none : TransferEncoding::other;
}

/// The fields of a block, each on one line.
std::vector<std::string> unfolded(const std::vector<HeaderLine>& lines) {
    std::vector<std::string> fields;
    for (const HeaderLine& line : lines) {
        if (continues(line.octets) && !fields.empty()) {
            fields.back() += line.octets;
        } else {
            fields.push_back(line.octets);
        }
    }
    return fields;
}

struct ReadHeader {
    PartHeader part;
    std::string boundary;
    bool isDigest = false;
    bool isMessage = false; ///< which stands there as it is
};

/// \param inDigest where a part that names no type is a message (RFC 2046, 5.1.5)
ReadHeader readHeader(const std::vector<HeaderLine>& lines, bool inDigest) {
    ReadHeader read;
    read.part.isText = !inDigest;
    read.isMessage = inDigest;
    for (const std::string& field : unfolded(lines)) {
        const std::string_view name = fieldName(field);
        const std::string_view value =
            name.empty() ? std::string_view() : std::string_view(field).substr(name.size() + 1);
        if (sameLetters(name, "Content-Transfer-Encoding")) {
            read.part.encoding = encodingOf(value);
        } else if (sameLetters(name, "Content-Type")) {
            const std::string type = plainValue(value);
            read.part.isText = type.starts_with("text/");
            read.part.isMultipart = type.starts_with("multipart/");
            read.isDigest = type == "multipart/digest";
            read.isMessage = type == "message/rfc822" || type == "message/global";
            read.part.characterSet = smallLetters(parameterOf(field, "charset"));
            read.boundary = read.part.isMultipart ? parameterOf(field, "boundary") : "";
        }
    }
    // A message/global may be encoded (RFC 6532, 3.7).
    read.isMessage = read.isMessage && read.part.encoding != TransferEncoding::quotedPrintable &&
                     read.part.encoding != TransferEncoding::base64;
    return read;
}

} // namespace

std::string_view octetsOf(LineEnd end) noexcept {
    switch (end) {
    case LineEnd::lf:
        return "\n";
    case LineEnd::crLf:
        return "\r\n";
    case LineEnd::cr:
        return "\r";
    case LineEnd::crCrLf:
        return "\r\r\n";
    case LineEnd::none:
        break;
    }
    return "";
}

std::string smallLetters(std::string_view text) {
    std::string small(text);
    std::ranges::transform(small, small.begin(), smallLetter);
    return small;
}

bool sameLetters(std::string_view left, std::string_view right) noexcept {
    return std::ranges::equal(left, right, {}, smallLetter, smallLetter);
}

bool continues(std::string_view line) noexcept {
    return !line.empty() && isBlank(line.front());
}

std::string_view fieldName(std::string_view line) noexcept {
    const std::size_t colon = line.find(':');
    if (colon == 0 || colon == std::string_view::npos) {
        return {};
    }
    const std::string_view name = line.substr(0, colon);
    const bool isName = std::ranges::all_of(name, [](char letter) { return letter > ' ' && letter < '\x7F'; });
    return isName ? name : std::string_view();
}

std::string parameterOf(std::string_view field, std::string_view name) {
    for (std::string_view rest = behind(field, ';'); !rest.empty(); rest = behind(rest, ';')) {
        const std::size_t equals = rest.substr(0, rest.find(';')).find('=');
        if (equals == std::string_view::npos) {
            continue;
        }
        const bool isNamed = sameLetters(trimmed(rest.substr(0, equals)), name);
        rest = trimmed(rest.substr(equals + 1));
        std::string value(trimmed(rest.substr(0, rest.find_first_of(";("))));
        if (rest.starts_with('"')) {
            value = takeQuoted(rest);
        }
        if (isNamed) {
            return value;
        }
    }
    return {};
}

void BodyScanner::write(std::string_view octets) {
    if (!m_carry.empty()) {
        m_carry.append(octets);
        const mime::WipedText both = std::exchange(m_carry, {});
        scan(both, false);
        return;
    }
    scan(octets, false);
}

void BodyScanner::finish() {
    const mime::WipedText rest = std::exchange(m_carry, {});
    scan(rest, true);
    if (!m_line.empty()) {
        lineOctets({}, LineEnd::none, true);
    }
    if (m_inHeader && !m_header.empty()) {
        leaveHeader();
    }
    for (BodyConsumer* consumer : m_consumers) {
        consumer->finish();
    }
}

/// Cuts at line ends: LF, CR LF, CR CR LF, and CR that none of these has.
void BodyScanner::scan(std::string_view octets, bool last) {
    while (!octets.empty()) {
        const std::size_t at = octets.find_first_of("\r\n");
        if (at == std::string_view::npos) {
            lineOctets(octets, LineEnd::none, false);
            return;
        }
        LineEnd end = LineEnd::lf;
        if (octets[at] == '\r') {
            const std::string_view rest = octets.substr(at);
            if (!last && (rest == "\r" || rest == "\r\r")) {
                lineOctets(octets.substr(0, at), LineEnd::none, false);
                m_carry = rest;
                return;
            }
            if (rest.starts_with("\r\n")) {
                end = LineEnd::crLf;
            } else {
                end = rest.starts_with("\r\r\n") ? LineEnd::crCrLf : LineEnd::cr;
            }
        }
        lineOctets(octets.substr(0, at), end, true);
        octets.remove_prefix(at + octetsOf(end).size());
    }
}

void BodyScanner::lineOctets(std::string_view octets, LineEnd end, bool ends) {
    if (m_inHeader) {
        m_line.append(octets);
        if (ends) {
            const mime::WipedText line = std::exchange(m_line, {});
            headerLine(line, end);
        } else if (m_headerLength + m_line.size() > longestHeader) {
            leaveHeader();
        }
        return;
    }
    while (!octets.empty() || ends) {
        const bool fits = m_line.size() + octets.size() <= longestPiece;
        if (!ends && fits) {
            m_line.append(octets);
            return;
        }
        const std::size_t count = fits ? octets.size() : longestPiece - m_line.size();
        std::string_view piece = octets.substr(0, count);
        if (!m_line.empty()) {
            m_line.append(piece);
            piece = m_line;
        }
        octets.remove_prefix(count);
        const bool isLast = ends && octets.empty();
        if (!m_lineBegun) {
            classify(piece);
        }
        emit({piece, !m_lineBegun, isLast, isLast ? end : LineEnd::none, m_place, m_isOutermost});
        m_lineBegun = !isLast;
        m_line.clear();
        if (isLast) {
            if (m_place == Place::boundary) {
                m_inHeader = m_startsHeader;
                m_place = m_placeBehind;
            }
            return;
        }
    }
}

/// What a line is that begins so; only boundaries change it.
void BodyScanner::classify(std::string_view start) {
    if (m_open.empty() || !start.starts_with("--")) {
        return;
    }
    for (std::size_t open = m_open.size(); open-- != 0;) {
        std::string_view rest = start.substr(2);
        const Multipart& multipart = m_open[open];
        if (!rest.starts_with(multipart.boundary)) {
            continue;
        }
        rest.remove_prefix(multipart.boundary.size());
        const bool closes = rest.starts_with("--");
        if (!trimmed(closes ? rest.substr(2) : rest).empty()) {
            continue;
        }
        m_isOutermost = open == 0;
        m_place = Place::boundary;
        m_startsHeader = !closes && m_headers < mostHeaders;
        m_inDigest = multipart.isDigest;
        m_depth = multipart.depth;
        m_open.resize(closes ? open : open + 1);
        m_placeBehind = closes ? Place::epilogue : Place::body;
        return;
    }
}

void BodyScanner::headerLine(std::string_view octets, LineEnd end) {
    if (trimmed(octets).empty() && !(m_atStart && m_header.empty())) {
        m_header.push_back({std::string(octets), end});
        endHeader();
        return;
    }
    const bool belongs = !fieldName(octets).empty() || (continues(octets) && !m_header.empty());
    const bool isBoundary = !m_open.empty() && octets.starts_with("--");
    if (!belongs || isBoundary || m_headerLength + octets.size() > longestHeader) {
        m_line = octets;
        leaveHeader();
        lineOctets({}, end, true);
        return;
    }
    m_headerLength += octets.size();
    m_header.push_back({std::string(octets), end});
}

void BodyScanner::endHeader() {
    ReadHeader read = readHeader(m_header, std::exchange(m_inDigest, false));
    for (BodyConsumer* consumer : m_consumers) {
        consumer->header(m_header, read.part);
    }
    ++m_headers;
    m_header.clear();
    m_headerLength = 0;
    m_atStart = false;
    m_isOutermost = false;
    m_inHeader = read.isMessage && m_depth < deepest && m_headers < mostHeaders;
    if (read.isMessage) {
        ++m_depth;
    }
    if (!read.boundary.empty() && m_open.size() < deepest) {
        m_isOutermost = m_open.empty();
        m_open.push_back({std::move(read.boundary), read.isDigest, m_depth});
        m_place = Place::preamble;
    }
}

/// The line that is held is none of a header block: the body has none, or the block ends without an empty line.
void BodyScanner::leaveHeader() {
    const mime::WipedText begun = std::exchange(m_line, {});
    m_atStart ? giveUpHeader() : endHeader();
    lineOctets(begun, LineEnd::none, false); // in pieces, if it is long
}

/// What looked like a header block is text, and so is all that follows.
void BodyScanner::giveUpHeader() {
    m_inHeader = false;
    const std::vector<HeaderLine> lines = std::exchange(m_header, {});
    for (const HeaderLine& line : lines) {
        lineOctets(line.octets, line.end, true);
    }
}

void BodyScanner::emit(const LinePiece& piece) {
    for (BodyConsumer* consumer : m_consumers) {
        consumer->line(piece);
    }
}

} // namespace Norvane::Crypto::SMime::diagnosis
