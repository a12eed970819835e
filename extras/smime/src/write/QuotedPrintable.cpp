#include "write/QuotedPrintable.h"

#include "mime/Transfer.h"
#include "write/Filters.h"

#include <algorithm>
#include <array>
#include <string>
#include <string_view>

namespace Norvane::Crypto::SMime::writing {

namespace {

constexpr std::size_t longestLine = 76; // without its CRLF, with the "=" of a soft line break
constexpr std::array<std::string_view, 3> protectedStarts{"From ", "--", "."};

bool isBlank(char byte) noexcept {
    return byte == ' ' || byte == '\t';
}

bool isHexDigit(char byte) noexcept {
    return (byte >= '0' && byte <= '9') || (byte >= 'A' && byte <= 'F') || (byte >= 'a' && byte <= 'f');
}

bool isPrintable(char byte) noexcept {
    return byte >= ' ' && byte <= '~' && byte != '=';
}

std::string octet(char byte) {
    constexpr std::string_view digits = "0123456789ABCDEF";
    const auto value = static_cast<unsigned char>(byte);
    return {'=', digits[value >> 4U], digits[value & 15U]};
}

class QuotedPrintableImpl : public MediaOutDecoratorImpl {
public:
    QuotedPrintableImpl(const MediaOut& target, QuotedFrom from)
        : MediaOutDecoratorImpl(target),
          m_quoted(from == QuotedFrom::quoted) {}

    using MediaOutDecoratorImpl::write;
    void write(const unsigned char* data, unsigned int length) override {
        for (const unsigned char* const past = data + length; data != past; ++data) {
            take(static_cast<char>(*data));
            if (m_out.size() > 16384) {
                pass();
            }
        }
        pass();
    }
    void end() override {
        if (m_afterReturn) {
            m_afterReturn = false;
            takeInLine('\r');
        }
        finishLine();
        pass();
        MediaOutDecoratorImpl::end();
    }

private:
    /// Line ends apart from all else.
    void take(char byte) {
        if (m_afterReturn) {
            m_afterReturn = false;
            if (byte == '\n') {
                finishLine();
                m_out += "\r\n";
                m_column = 0;
                return;
            }
            takeInLine('\r');
        }
        if (byte == '\r') {
            m_afterReturn = true;
        } else {
            takeInLine(byte);
        }
    }

    void takeInLine(char byte) {
        if (m_quoted && (byte == '=' || !m_escape.empty())) {
            takeQuoted(byte);
            return;
        }
        if (isBlank(byte)) {
            if (m_quoted) {
                m_blanks += byte;
                // Blanks that nothing but blanks follow go; so many of them are no text.
                if (m_blanks.size() > longestLine) {
                    writeBlanks();
                }
            } else {
                writeBlanks();
                m_blanks = byte;
            }
            return;
        }
        writeBlanks();
        writeByte(byte);
    }

    /// "=" and the two digits behind it, the blanks behind a soft line break, or what else stands there.
    void takeQuoted(char byte) {
        if (m_escape.empty()) {
            writeBlanks();
            m_escape = byte;
        } else if (isBlank(byte) && endsLine() && m_escape.size() <= longestLine) {
            m_escape += byte;
        } else if (isHexDigit(byte) && !isBlank(m_escape.back())) {
            m_escape += byte;
            if (m_escape.size() == 3) {
                writeToken(m_escape);
                m_escape.clear();
            }
        } else {
            giveUpEscape();
            takeInLine(byte);
        }
    }

    /// Whether what began with "=" is a soft line break, if the line ends here.
    [[nodiscard]] bool endsLine() const {
        return !m_escape.empty() && m_escape.find_first_not_of(" \t", 1) == std::string::npos;
    }

    /// What began like an octet is none: its characters mean themselves.
    void giveUpEscape() {
        const mime::WipedText characters = m_escape;
        m_escape.clear();
        for (const char character : characters) {
            writeByte(character); // "=" as an octet
        }
    }

    void writeBlanks() {
        const mime::WipedText blanks = m_blanks;
        m_blanks.clear();
        for (const char blank : blanks) {
            writeToken({&blank, 1});
        }
    }

    void writeByte(char byte) {
        if (isPrintable(byte)) {
            writeToken({&byte, 1});
        } else {
            writeToken(octet(byte));
        }
    }

    /// The characters that stay together on a line. Before the first ones of a line go out, enough of them have come to
    /// tell whether they have to be written as octets.
    void writeToken(std::string_view token) {
        if (m_column == 0 || !m_start.empty()) {
            if (token.size() == 1 && holdsStart(token.front())) {
                return;
            }
            flushStart();
        }
        writeUnchecked(token);
    }

    bool holdsStart(char byte) {
        const mime::WipedText start = m_start + byte;
        const auto begins = [&start](std::string_view one) { return one.starts_with(start); };
        const auto* const found = std::ranges::find_if(protectedStarts, begins);
        if (found == protectedStarts.end()) {
            return false;
        }
        m_start = start;
        if (m_start.size() == found->size()) {
            m_start.clear();
            writeUnchecked(octet(start.front()));
            for (const char character : std::string_view(start).substr(1)) {
                writeUnchecked({&character, 1});
            }
        }
        return true;
    }

    void flushStart() {
        const mime::WipedText start = m_start;
        m_start.clear();
        for (const char character : start) {
            writeUnchecked({&character, 1});
        }
    }

    void writeUnchecked(std::string_view token) {
        // The last place is for the "=" of a soft line break, which what ends here would not need: one that comes too
        // early hurts nobody.
        if (m_column + token.size() > longestLine - 1) {
            m_out += "=\r\n";
            m_column = 0;
            if (token.size() == 1 && holdsStart(token.front())) {
                return;
            }
        }
        m_out += token;
        m_column += token.size();
    }

    /// What is held back before the end of a line, or of all.
    void finishLine() {
        const bool softBreak = endsLine();
        if (!softBreak) {
            giveUpEscape();
        }
        m_escape.clear();
        if (!m_quoted && !m_blanks.empty()) {
            writeToken(octet(m_blanks.back()));
        }
        m_blanks.clear();
        flushStart();
        if (softBreak) {
            m_out += '=';
        }
    }

    void pass() {
        writing::put(target(), m_out); // there is one in `mime`, too
        m_out.clear();
    }

    bool m_quoted;
    bool m_afterReturn = false;
    std::size_t m_column = 0; ///< how much of the line that is written has gone out
    mime::WipedText m_blanks; ///< which may be the last of their line
    mime::WipedText m_escape; ///< of what was quoted: "=" and a digit, or blanks
    mime::WipedText m_start;  ///< the first characters of a line, while they may be the beginning of a protected start
    mime::WipedText m_out;
};

} // namespace

MediaOut quotedPrintable(const MediaOut& target, QuotedFrom from) {
    return MediaOut(makeReference<QuotedPrintableImpl, MediaOutImpl>(target, from));
}

void QuotedPrintableCheck::see(std::string_view piece) {
    for (auto byte = piece.begin(); m_wellFormed && byte != piece.end(); ++byte) {
        seeByte(*byte);
    }
}

void QuotedPrintableCheck::end() {
    endLine();
    m_wellFormed = m_wellFormed && m_escape == Escape::none;
}

void QuotedPrintableCheck::seeByte(char byte) {
    if (m_escape != Escape::none) {
        seeEscaped(byte);
    } else if (byte == '=') {
        m_escape = Escape::begun;
    }
    if (isBlank(byte)) {
        ++m_blanks;
    } else if (byte == '\r' || byte == '\n') {
        endLine();
    } else {
        m_blanks = 0;
    }
}

void QuotedPrintableCheck::seeEscaped(char byte) {
    const bool digits = m_escape == Escape::begun || m_escape == Escape::oneDigit;
    if (digits && isHexDigit(byte)) {
        m_escape = m_escape == Escape::begun ? Escape::oneDigit : Escape::none;
    } else if (byte == '\n' && m_escape != Escape::oneDigit) {
        m_escape = Escape::none;
    } else if (byte == '\r' && (m_escape == Escape::begun || m_escape == Escape::blanks)) {
        m_escape = Escape::returned;
    } else if (isBlank(byte) && (m_escape == Escape::begun || m_escape == Escape::blanks)) {
        m_escape = Escape::blanks;
    } else {
        m_wellFormed = false;
    }
}

/// Which of so many blanks go is up to the decoder.
void QuotedPrintableCheck::endLine() {
    m_wellFormed = m_wellFormed && m_blanks <= mime::mostTrailingBlanks;
    m_blanks = 0;
}

} // namespace Norvane::Crypto::SMime::writing
