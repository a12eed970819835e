// Changes of transfer encodings and character sets.
#include "diagnosis/Undoing.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <utility>

#include <iconv.h>

namespace Norvane::Crypto::SMime::diagnosis {

namespace {

bool isBase64(std::string_view line) noexcept {
    return !line.empty() && std::ranges::all_of(line, [](char octet) {
        return (octet >= 'A' && octet <= 'Z') || (octet >= 'a' && octet <= 'z') || (octet >= '0' && octet <= '9') ||
               octet == '+' || octet == '/' || octet == '=' || octet == ' ' || octet == '\t';
    });
}

class Base64Rewrapping : public Undoing {
public:
    Base64Rewrapping(LineOutput& out, std::size_t width) : Undoing(out), m_lines(out, width) {}

    void header(const std::vector<HeaderLine>& lines, const PartHeader& part) override {
        m_isEncoded = part.encoding == TransferEncoding::base64;
        Undoing::header(lines, part);
    }
    void line(const LinePiece& piece) override {
        if (!m_isEncoded || piece.place != Place::body || !isBase64(piece.octets)) {
            putHeldEnd();
            Undoing::line(piece);
            return;
        }
        m_held = LineEnd::none;
        m_lines.put(piece.octets);
        if (piece.ends) {
            m_held = piece.end;
        }
    }
    void finish() override { putHeldEnd(); }

private:
    void putHeldEnd() {
        out().end(std::exchange(m_held, LineEnd::none));
        m_lines.restart();
    }

    LineWrapper m_lines;
    bool m_isEncoded = false;
    LineEnd m_held = LineEnd::none; ///< of the last line, in case no more base64 follows
};

class HexDigitsChanging : public Undoing {
public:
    HexDigitsChanging(LineOutput& out, bool capital) : Undoing(out), m_capital(capital) {}

    void header(const std::vector<HeaderLine>& lines, const PartHeader& part) override {
        m_isEncoded = part.encoding == TransferEncoding::quotedPrintable;
        Undoing::header(lines, part);
    }
    void line(const LinePiece& piece) override {
        if (!m_isEncoded || piece.place != Place::body) {
            Undoing::line(piece);
            return;
        }
        mime::WipedText text(piece.octets);
        for (std::size_t at = text.find('='); at != std::string::npos; at = text.find('=', at + 1)) {
            for (std::size_t digit = at + 1; digit < std::min(at + 3, text.size()); ++digit) {
                char& letter = text[digit];
                if (m_capital && letter >= 'a' && letter <= 'f') {
                    letter = static_cast<char>(letter - 'a' + 'A');
                } else if (!m_capital && letter >= 'A' && letter <= 'F') {
                    letter = static_cast<char>(letter - 'A' + 'a');
                }
            }
        }
        LinePiece changed = piece;
        changed.octets = text;
        Undoing::line(changed);
    }

private:
    bool m_capital;
    bool m_isEncoded = false;
};

/// Another character set, for a text that passes. What it cannot say is left as it is: then nothing fits.
class CharacterSetConverter : public TextSink {
public:
    CharacterSetConverter(const Recoding& recoding, TextSink& target)
        : m_converter(iconv_open(recoding.toCharacterSet.c_str(), recoding.fromCharacterSet.c_str())),
          m_target(&target) {}
    CharacterSetConverter(const CharacterSetConverter&) = delete;
    CharacterSetConverter& operator=(const CharacterSetConverter&) = delete;
    ~CharacterSetConverter() override {
        if (isOpen()) {
            iconv_close(m_converter);
        }
    }

    void text(std::string_view octets) override {
        if (!isOpen()) {
            m_target->text(octets);
            return;
        }
        m_text.append(octets);
        char* at = m_text.data();
        std::size_t left = m_text.size();
        std::array<char, 4096> converted{};
        while (left != 0) {
            char* out = converted.data();
            std::size_t room = converted.size();
            const std::size_t result = iconv(m_converter, &at, &left, &out, &room);
            const int fault = errno;
            m_target->text({converted.data(), converted.size() - room});
            if (result != static_cast<std::size_t>(-1) || fault == EINVAL) {
                break; // done, or the rest of a character is to come
            }
            if (fault == EILSEQ) {
                m_target->text({at, 1});
                ++at;
                --left;
            }
        }
        explicit_bzero(converted.data(), converted.size());
        m_text.erase(0, m_text.size() - left);
    }
    void lineEnd(LineEnd end) override {
        flush();
        m_target->lineEnd(end);
    }
    void endPart(bool isFollowed) override {
        flush();
        m_target->endPart(isFollowed);
    }

private:
    [[nodiscard]] bool isOpen() const noexcept {
        return m_converter != reinterpret_cast<iconv_t>(-1); // NOLINT(performance-no-int-to-ptr): as POSIX has it
    }
    void flush() {
        if (!m_text.empty()) {
            m_target->text(std::exchange(m_text, {}));
        }
    }

    iconv_t m_converter;
    TextSink* m_target;
    mime::WipedText m_text; ///< the beginning of a character
};

class Recoder : public Undoing {
public:
    Recoder(LineOutput& out, Recoding recoding) : Undoing(out), m_recoding(std::move(recoding)) {}

    void header(const std::vector<HeaderLine>& lines, const PartHeader& part) override {
        if (!concerns(part)) {
            Undoing::header(lines, part);
            return;
        }
        putHeader(lines);
        const TransferEncoding to =
            m_recoding.encodingName.empty() && !m_recoding.withoutEncodingField ? part.encoding : m_recoding.to;
        m_encoder = encoderOf(to, out(), m_recoding.style, m_recoding.lineFeedsInside);
        if (!m_recoding.fromCharacterSet.empty()) {
            m_converter = std::make_unique<CharacterSetConverter>(m_recoding, *m_encoder);
        }
        m_decoder = decoderOf(part.encoding, m_converter ? *m_converter : *m_encoder);
    }
    void line(const LinePiece& piece) override {
        if (piece.place != Place::body) {
            endPart(true);
        }
        if (m_decoder) {
            m_decoder->piece(piece);
        } else {
            Undoing::line(piece);
        }
    }
    void finish() override { endPart(false); }

private:
    [[nodiscard]] bool concerns(const PartHeader& part) const {
        const auto& from = m_recoding.from;
        return part.isText && !part.isMultipart && (from.empty() || std::ranges::count(from, part.encoding) != 0) &&
               (m_recoding.fromCharacterSet.empty() || part.characterSet == m_recoding.fromCharacterSet);
    }
    void putHeader(const std::vector<HeaderLine>& lines) {
        std::string_view name;
        bool isCharset = false;
        for (const HeaderLine& line : lines) {
            // A line of blanks ends the block.
            const bool isContinued =
                continues(line.octets) && line.octets.find_first_not_of(" \t") != std::string::npos;
            if (!isContinued) {
                name = fieldName(line.octets);
            }
            HeaderLine changed = line;
            if (sameLetters(name, "Content-Transfer-Encoding")) {
                // The new value is on the line of the name, whatever the old one was continued by.
                if (m_recoding.withoutEncodingField || (isContinued && !m_recoding.encodingName.empty())) {
                    continue;
                }
                if (!m_recoding.encodingName.empty()) {
                    const std::size_t value = line.octets.find_first_not_of(" \t", name.size() + 1);
                    changed.octets = line.octets.substr(0, value) + m_recoding.encodingName;
                }
            } else if (sameLetters(name, "Content-Type") && !m_recoding.toCharacterSet.empty()) {
                isCharset = putCharacterSet(changed.octets, isContinued && isCharset);
            }
            put(changed);
        }
    }
    /// \param isValue the parameter's name stood in the line before, without its value
    /// \return whether it does so in this one
    bool putCharacterSet(std::string& line, bool isValue) const {
        const std::string small = smallLetters(line);
        const std::size_t name = isValue ? 0 : small.find("charset");
        const std::size_t value = small.find(m_recoding.fromCharacterSet, name);
        if (value != std::string::npos) {
            line.replace(value, m_recoding.fromCharacterSet.size(), m_recoding.toCharacterSet);
        }
        return name != std::string::npos && value == std::string::npos;
    }
    void endPart(bool isFollowed) {
        if (m_decoder) {
            m_decoder->endPart(isFollowed);
        }
        m_decoder.reset();
        m_converter.reset(); // there may be a hundred of them at once
        m_encoder.reset();
    }

    Recoding m_recoding;
    std::unique_ptr<TextSink> m_encoder;
    std::unique_ptr<TextSink> m_converter;
    std::unique_ptr<TextDecoder> m_decoder; ///< of the part that is passing, if that is encoded anew
};

} // namespace

UndoingPtr rewrapBase64(LineOutput& out, std::size_t width) {
    return std::make_unique<Base64Rewrapping>(out, width);
}

UndoingPtr changeHexDigits(LineOutput& out, bool capital) {
    return std::make_unique<HexDigitsChanging>(out, capital);
}

UndoingPtr recode(LineOutput& out, Recoding recoding) {
    return std::make_unique<Recoder>(out, std::move(recoding));
}

} // namespace Norvane::Crypto::SMime::diagnosis
