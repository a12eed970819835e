#include "write/TextTraits.h"

#include <algorithm>
#include <cstring>

namespace Norvane::Crypto::SMime::writing {

namespace {

constexpr std::size_t run = sizeof(std::uint64_t);

constexpr bool isPlain(unsigned char byte) noexcept {
    return byte >= ' ' && byte < 0x7f;
}

/// Eight bytes in one step: a high bit is set in one of three numbers when a byte is not plain. (What is borrowed or carried
/// beyond a byte comes from one that is not.)
bool isPlainRun(const unsigned char* data) noexcept {
    constexpr std::uint64_t each = 0x0101010101010101U;
    std::uint64_t bytes = 0;
    std::memcpy(&bytes, data, run);
    return ((bytes | (bytes - each * ' ') | (bytes + each)) & (each * 0x80)) == 0;
}

/// \param length at least a run
bool isPlainText(const unsigned char* data, std::size_t length) noexcept {
    for (std::size_t at = 0; at + run <= length; at += run) {
        if (!isPlainRun(data + at)) {
            return false;
        }
    }
    return isPlainRun(data + length - run);
}

} // namespace

void TextTraits::see(const unsigned char* data, std::size_t length) {
    m_octets += length;
    for (const unsigned char* const past = data + length; data != past;) {
        if (m_column == 0 && !m_afterReturn) {
            data += seePlainLines(data, static_cast<std::size_t>(past - data));
            if (data == past) {
                return;
            }
        }
        // Most bytes stand within a line.
        if (!m_afterReturn && m_column >= m_start.size() && m_continuations == 0) {
            const unsigned char* const first = data;
            while (static_cast<std::size_t>(past - data) >= run && isPlainRun(data)) {
                data += run;
            }
            while (data != past && isPlain(*data)) {
                ++data;
            }
            m_column += static_cast<std::size_t>(data - first);
            m_last = data != first ? data[-1] : m_last;
            if (data == past) {
                return;
            }
        }
        seeByte(*data++);
    }
}

/// Whole lines of plain characters, most of them as long as the one before. \returns how many octets those were
std::size_t TextTraits::seePlainLines(const unsigned char* data, std::size_t length) {
    std::size_t done = 0;
    for (;;) {
        const unsigned char* const line = data + done;
        const std::size_t left = length - done;
        std::size_t end = m_usual; // of its characters
        if (end >= left || (line[end] != '\n' && (line[end] != '\r' || end + 1 == left || line[end + 1] != '\n'))) {
            const auto* const feed = static_cast<const unsigned char*>(std::memchr(line, '\n', left));
            if (feed == nullptr) {
                return done;
            }
            end = static_cast<std::size_t>(feed - line);
            end -= end != 0 && line[end - 1] == '\r' ? 1U : 0U;
        }
        if (end < run || !isPlainText(line, end)) {
            return done;
        }
        m_usual = end;
        m_longest = std::max<std::uint64_t>(m_longest, end);
        m_trailingBlank = m_trailingBlank || line[end - 1] == ' ';
        m_fromLine = m_fromLine || (line[0] == 'F' && std::memcmp(line, "From ", m_start.size()) == 0);
        done += end + (line[end] == '\r' ? 2U : 1U);
    }
}

void TextTraits::seeByte(unsigned char byte) {
    if (byte == '\n') {
        m_afterReturn = false;
        seeUtf8(byte);
        endLine();
        return;
    }
    if (m_afterReturn) {
        countReturn();
    }
    seeUtf8(byte);
    if (byte == '\r') {
        m_afterReturn = true;
        return;
    }
    if (byte >= 0x80) {
        ++m_eightBit;
    } else if (byte == 0x7f || (byte < ' ' && byte != '\t')) {
        ++m_controls;
        m_zeros += byte == 0 ? 1 : 0;
    }
    if (m_column < m_start.size()) {
        m_start[m_column] = static_cast<char>(byte);
    }
    m_last = byte;
    ++m_column;
}

/// A CR that no LF follows. The text cannot be sent any more, so that what else its line begins or ends with is of no concern.
void TextTraits::countReturn() {
    m_afterReturn = false;
    ++m_loneReturns;
    ++m_controls;
    ++m_column;
}

/// RFC 3629: no overlong forms, no surrogates, nothing beyond U+10FFFF.
void TextTraits::seeUtf8(unsigned char byte) {
    if (m_continuations != 0) {
        m_utf8 = m_utf8 && byte >= m_leastNext && byte <= m_mostNext;
        --m_continuations;
        m_leastNext = 0x80;
        m_mostNext = 0xbf;
        return;
    }
    if (byte < 0x80 || !m_utf8) {
        return;
    }
    m_utf8 = byte >= 0xc2 && byte <= 0xf4;
    m_continuations = byte < 0xe0 ? 1 : byte < 0xf0 ? 2 : 3;
    m_leastNext = byte == 0xe0 ? 0xa0 : byte == 0xf0 ? 0x90 : 0x80;
    m_mostNext = byte == 0xed ? 0x9f : byte == 0xf4 ? 0x8f : 0xbf;
}

void TextTraits::endLine() {
    m_longest = std::max(m_longest, m_column);
    m_trailingBlank = m_trailingBlank || (m_column != 0 && (m_last == ' ' || m_last == '\t'));
    m_dotLine = m_dotLine || (m_column == 1 && m_last == '.');
    m_fromLine =
        m_fromLine || (m_column >= m_start.size() && std::string_view(m_start.data(), m_start.size()) == "From ");
    m_column = 0;
}

void TextTraits::end() {
    if (m_afterReturn) {
        countReturn();
    }
    endLine();
}

bool TextTraits::operator==(const TextTraits& other) const noexcept {
    return m_octets == other.m_octets && m_eightBit == other.m_eightBit && m_controls == other.m_controls &&
           m_zeros == other.m_zeros && m_loneReturns == other.m_loneReturns && m_longest == other.m_longest &&
           isRelayProof() == other.isRelayProof() && isUtf8() == other.isUtf8();
}

TextTraits traitsOf(std::string_view octets) {
    TextTraits traits;
    traits.see(octets);
    traits.end();
    return traits;
}

} // namespace Norvane::Crypto::SMime::writing
