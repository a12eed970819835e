#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace Norvane::Crypto::SMime::writing {

/// What lines must not have on the way of a mail: longer ones are broken by relays (RFC 5321, 4.5.3.1.6 has 998
/// characters, and some relays a few less).
inline constexpr std::uint64_t longestSentLine = 990;

/// What is known of bytes once they were seen: whether they arrive as they are sent, and what becomes of them otherwise.
/// Lines end with LF or CRLF.
class TextTraits {
public:
    void see(const unsigned char* data, std::size_t length);
    void see(std::string_view text) { see(reinterpret_cast<const unsigned char*>(text.data()), text.size()); }
    /// Nothing follows: what the last line, which may have no end, is like.
    void end();

    [[nodiscard]] std::uint64_t octets() const noexcept { return m_octets; }
    [[nodiscard]] std::uint64_t eightBit() const noexcept { return m_eightBit; }
    /// NUL and the other control characters but TAB, CR and LF; CR counts when no LF follows.
    [[nodiscard]] std::uint64_t controls() const noexcept { return m_controls; }
    [[nodiscard]] std::uint64_t zeros() const noexcept { return m_zeros; }
    [[nodiscard]] std::uint64_t loneReturns() const noexcept { return m_loneReturns; }
    /// Without its end.
    [[nodiscard]] std::uint64_t longestLine() const noexcept { return m_longest; }
    [[nodiscard]] bool isUtf8() const noexcept { return m_utf8 && m_continuations == 0; }

    /// Whether the bytes can be sent at all: 7-bit, no NUL, no CR alone, no line too long.
    [[nodiscard]] bool isSendable() const noexcept {
        return m_eightBit == 0 && m_zeros == 0 && m_loneReturns == 0 && m_longest <= longestSentLine;
    }
    /// Whether in addition nothing stands where relays and mailboxes change it: no blank at the end of a line, no line that
    /// begins with "From ", none that is a dot.
    [[nodiscard]] bool isRelayProof() const noexcept {
        return isSendable() && !m_trailingBlank && !m_fromLine && !m_dotLine;
    }
    /// Whether quoted-printable can be read by people, and is not much longer than base64.
    [[nodiscard]] bool isMostlyText() const noexcept { return (m_eightBit + m_controls) * 3 <= m_octets; }

    /// Equal traits: the same bytes, as far as they matter here.
    bool operator==(const TextTraits& other) const noexcept;
    bool operator!=(const TextTraits& other) const noexcept { return !(*this == other); }

private:
    std::size_t seePlainLines(const unsigned char* data, std::size_t length);
    void seeByte(unsigned char byte);
    void countReturn();
    void seeUtf8(unsigned char byte);
    void endLine();

    std::uint64_t m_octets = 0;
    std::uint64_t m_eightBit = 0;
    std::uint64_t m_controls = 0;
    std::uint64_t m_zeros = 0;
    std::uint64_t m_loneReturns = 0;
    std::uint64_t m_longest = 0;
    std::uint64_t m_column = 0;
    std::size_t m_usual = 0;       ///< how long the last line was that had plain characters alone
    std::array<char, 5> m_start{}; ///< of the line
    unsigned char m_last = 0;      ///< of the line
    bool m_afterReturn = false;
    bool m_trailingBlank = false;
    bool m_fromLine = false;
    bool m_dotLine = false;
    bool m_utf8 = true;
    unsigned int m_continuations = 0; ///< of a character in UTF-8 that has begun
    unsigned char m_leastNext = 0x80; ///< of its next octet
    unsigned char m_mostNext = 0xbf;
};

/// Of a whole text.
TextTraits traitsOf(std::string_view octets);

} // namespace Norvane::Crypto::SMime::writing
