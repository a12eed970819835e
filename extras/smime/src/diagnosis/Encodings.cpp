#include "diagnosis/Encodings.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <utility>

namespace Norvane::Crypto::SMime::diagnosis {

namespace {

constexpr std::size_t usualWidth = 76;
constexpr std::size_t mostHeld = std::size_t{64} << 10U; ///< blanks
constexpr std::string_view base64Alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr std::string_view hexDigits = "0123456789ABCDEF";

int hexValue(char digit) noexcept {
    if (digit >= 'a' && digit <= 'f') {
        digit = static_cast<char>(digit - 'a' + 'A');
    }
    const std::size_t value = hexDigits.find(digit);
    return value == std::string_view::npos ? -1 : static_cast<int>(value);
}

constexpr std::array<std::int16_t, 256> valuesOfBase64() {
    std::array<std::int16_t, 256> values{};
    values.fill(-1);
    for (std::size_t value = 0; value != base64Alphabet.size(); ++value) {
        values[static_cast<unsigned char>(base64Alphabet[value])] = static_cast<std::int16_t>(value);
    }
    return values;
}
constexpr std::array<std::int16_t, 256> base64Values = valuesOfBase64();

class PlainDecoder : public TextDecoder {
public:
    using TextDecoder::TextDecoder;
    void piece(const LinePiece& piece) override {
        target().text(piece.octets);
        if (piece.ends) {
            target().lineEnd(piece.end);
        }
    }
};

class QuotedPrintableDecoder : public TextDecoder {
public:
    using TextDecoder::TextDecoder;

    void piece(const LinePiece& piece) override {
        m_text.append(piece.octets);
        // Blanks at the end of a line were added on the way (RFC 2045, 6.7, rule 3).
        const std::size_t used = m_text.size() > mostHeld ? m_text.size() : m_text.find_last_not_of(" \t") + 1;
        std::size_t done = 0;
        bool isSoft = false;
        mime::WipedText decoded;
        while (done < used) {
            if (m_text[done] != '=') {
                decoded += m_text[done++];
                continue;
            }
            if (used - done < 3) {
                if (!piece.ends) {
                    break;
                }
                isSoft = done + 1 == used;
                decoded.append(m_text, done, isSoft ? 0 : used - done);
                done = used;
                continue;
            }
            const int high = hexValue(m_text[done + 1]);
            const int low = hexValue(m_text[done + 2]);
            decoded += high < 0 || low < 0 ? '=' : static_cast<char>(high * 16 + low);
            done += high < 0 || low < 0 ? 1 : 3;
        }
        m_text.erase(0, piece.ends ? m_text.size() : done);
        target().text(decoded);
        if (piece.ends && !isSoft) {
            target().lineEnd(piece.end);
        }
    }

private:
    mime::WipedText m_text; ///< of which the rest of the line tells what it is
};

/// Base64 of a text: its line ends are told apart from the lines of the encoding.
class Base64Decoder : public TextDecoder {
public:
    using TextDecoder::TextDecoder;

    void piece(const LinePiece& piece) override {
        for (const char character : piece.octets) {
            const int value = base64Values[static_cast<unsigned char>(character)];
            if (value < 0) {
                continue;
            }
            m_bits = m_bits << 6U | static_cast<unsigned int>(value);
            m_count += 6;
            if (m_count >= 8) {
                m_count -= 8;
                octet(static_cast<char>(m_bits >> m_count & 0xFFU));
            }
        }
        flush();
        if (piece.ends) {
            m_last = piece.end;
        }
    }
    void endPart(bool isFollowed) override {
        if (m_hasReturn) {
            target().text("\r");
        }
        // That of the last line of base64 belongs to the boundary behind it, or to the encoding.
        const bool isNoText = m_last != LineEnd::none && (isFollowed || !m_endedLine);
        if (isNoText) {
            target().lineEnd(m_last);
        }
        target().endPart(isFollowed || isNoText);
    }

private:
    void octet(char octet) {
        const bool hadReturn = std::exchange(m_hasReturn, octet == '\r');
        m_endedLine = octet == '\n';
        if (octet == '\n') {
            flush();
            target().lineEnd(hadReturn ? LineEnd::crLf : LineEnd::lf);
            return;
        }
        m_text += hadReturn ? "\r" : "";
        if (!m_hasReturn) {
            m_text += octet;
        }
    }
    void flush() {
        target().text(m_text);
        m_text.clear();
    }

    mime::WipedText m_text;
    unsigned int m_bits = 0;
    unsigned int m_count = 0;
    bool m_hasReturn = false;
    bool m_endedLine = false; ///< the text did so last
    LineEnd m_last = LineEnd::none;
};

class PlainEncoder : public TextSink {
public:
    explicit PlainEncoder(LineOutput& out) : m_out(&out) {}
    void text(std::string_view octets) override { m_out->put(octets); }
    void lineEnd(LineEnd end) override { m_out->end(end); }
    void endPart(bool /*isFollowed*/) override {}

private:
    LineOutput* m_out;
};

/// As many characters in a line as fit 76, "=" for a soft break among them.
class QuotedPrintableEncoder : public TextSink {
public:
    QuotedPrintableEncoder(LineOutput& out, QuotedStyle style) : m_out(&out), m_style(style) {}

    void text(std::string_view octets) override {
        for (const char octet : octets) {
            // Whether a line begins with "From " shows five octets later.
            if (m_style == QuotedStyle::starts && m_atStart && fits(octet)) {
                m_start += octet;
                continue;
            }
            startLine();
            next(octet);
        }
    }
    void lineEnd(LineEnd end) override {
        startLine();
        const bool isDot = m_held == "." && m_tokens == 1 && m_style == QuotedStyle::dots;
        token(m_held == " " || m_held == "\t" || isDot ? escaped(m_held.front()) : m_held, true);
        m_held.clear();
        m_out->end(end);
        m_tokens = 0;
        m_column = 0;
        m_atStart = true;
    }
    void endPart(bool /*isFollowed*/) override { lineEnd(LineEnd::none); }

private:
    static std::string escaped(char octet) {
        const auto value = static_cast<unsigned char>(octet);
        return {'=', hexDigits[value >> 4U], hexDigits[value & 15U]};
    }
    [[nodiscard]] bool fits(char octet) const {
        static constexpr std::string_view from = "From ";
        return m_start + octet == from.substr(0, m_start.size() + 1);
    }
    void startLine() {
        if (!std::exchange(m_atStart, false)) {
            return;
        }
        const std::string start = std::exchange(m_start, {});
        for (std::size_t at = 0; at != start.size(); ++at) {
            if (at == 0 && start == "From ") {
                hold(escaped('F'));
            } else {
                next(start[at]);
            }
        }
        m_isFirst = start.empty();
    }
    void next(char octet) {
        const auto value = static_cast<unsigned char>(octet);
        const bool isFirstDot = std::exchange(m_isFirst, false) && octet == '.' && m_style == QuotedStyle::starts;
        const bool isPlain = (value >= ' ' && value <= '~' && octet != '=' && !isFirstDot) || octet == '\t';
        hold(isPlain ? std::string(1, octet) : escaped(octet));
    }
    void hold(std::string token) {
        this->token(m_held, false);
        m_held = std::move(token);
        ++m_tokens;
    }
    void token(const std::string& token, bool isLast) {
        const bool fillsLine = isLast && (m_style != QuotedStyle::dots || token.size() == 1);
        if (m_column + token.size() > usualWidth - (fillsLine ? 0 : 1)) {
            m_out->put("=");
            m_out->newLine();
            m_column = 0;
        }
        m_out->put(token);
        m_column += token.size();
    }

    LineOutput* m_out;
    QuotedStyle m_style;
    bool m_atStart = true;
    bool m_isFirst = false;
    std::string m_start; ///< of a line, as far as it is that of "From "
    std::string m_held;  ///< the last character, as it is written unless the line ends
    std::size_t m_column = 0;
    std::size_t m_tokens = 0; ///< in this line of the text
};

class Base64Encoder : public TextSink {
public:
    Base64Encoder(LineOutput& out, bool lineFeeds) : m_out(&out), m_lines(out, usualWidth), m_lineFeeds(lineFeeds) {}

    void text(std::string_view octets) override {
        putLineEnd();
        encode(octets);
    }
    void lineEnd(LineEnd end) override {
        putLineEnd();
        m_held = end;
    }
    void endPart(bool isFollowed) override {
        const LineEnd last = m_held;
        if (isFollowed) {
            m_held = LineEnd::none;
        }
        putLineEnd();
        if (!m_group.empty()) {
            const std::size_t missing = 3 - m_group.size();
            m_group.append(missing, '\0');
            std::string characters = quartet();
            std::fill(characters.end() - static_cast<long>(missing), characters.end(), '=');
            m_lines.put(characters);
        }
        m_out->end(last);
    }

private:
    void putLineEnd() {
        if (std::exchange(m_held, LineEnd::none) != LineEnd::none) {
            encode(m_lineFeeds ? "\n" : "\r\n");
        }
    }
    void encode(std::string_view octets) {
        for (const char octet : octets) {
            m_group += octet;
            if (m_group.size() == 3) {
                m_lines.put(quartet());
                m_group.clear();
            }
        }
    }
    [[nodiscard]] std::string quartet() const {
        std::uint32_t bits = 0;
        for (const char octet : m_group) {
            bits = bits << 8U | static_cast<unsigned char>(octet);
        }
        return {base64Alphabet[bits >> 18U & 63U], base64Alphabet[bits >> 12U & 63U], base64Alphabet[bits >> 6U & 63U],
                base64Alphabet[bits & 63U]};
    }

    LineOutput* m_out;
    LineWrapper m_lines;
    bool m_lineFeeds;
    std::string m_group;
    LineEnd m_held = LineEnd::none; ///< of the text or, at its end, of the part
};

} // namespace

void LineWrapper::put(std::string_view characters) {
    while (!characters.empty()) {
        if (m_width != 0 && m_column == m_width) {
            m_out->newLine();
            m_column = 0;
        }
        const std::size_t count = m_width == 0 ? characters.size() : std::min(characters.size(), m_width - m_column);
        m_out->put(characters.substr(0, count));
        characters.remove_prefix(count);
        m_column += count;
    }
}

std::unique_ptr<TextDecoder> decoderOf(TransferEncoding encoding, TextSink& target) {
    switch (encoding) {
    case TransferEncoding::quotedPrintable:
        return std::make_unique<QuotedPrintableDecoder>(target);
    case TransferEncoding::base64:
        return std::make_unique<Base64Decoder>(target);
    case TransferEncoding::none:
    case TransferEncoding::eightBit:
    case TransferEncoding::other:
        break;
    }
    return std::make_unique<PlainDecoder>(target);
}

std::unique_ptr<TextSink> encoderOf(TransferEncoding encoding, LineOutput& out, QuotedStyle style, bool lineFeeds) {
    switch (encoding) {
    case TransferEncoding::quotedPrintable:
        return std::make_unique<QuotedPrintableEncoder>(out, style);
    case TransferEncoding::base64:
        return std::make_unique<Base64Encoder>(out, lineFeeds);
    case TransferEncoding::none:
    case TransferEncoding::eightBit:
    case TransferEncoding::other:
        break;
    }
    return std::make_unique<PlainEncoder>(out);
}

} // namespace Norvane::Crypto::SMime::diagnosis
