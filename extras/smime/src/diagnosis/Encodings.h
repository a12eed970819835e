#pragma once

/// \file
/// The transfer encodings of RFC 2045 (6.7, 6.8) as pieces pass: what they decode to is a text of lines, and what is
/// encoded again is laid out as most mail programs do.

#include "diagnosis/BodyScanner.h"
#include "diagnosis/LineOutput.h"

#include <memory>
#include <string>
#include <string_view>

namespace Norvane::Crypto::SMime::diagnosis {

/// Takes a text, which ends with the part that it is of.
class TextSink {
public:
    TextSink() = default;
    TextSink(const TextSink&) = delete;
    TextSink& operator=(const TextSink&) = delete;
    virtual ~TextSink() = default;

    virtual void text(std::string_view octets) = 0;
    /// \param end none: the text ends within a line
    virtual void lineEnd(LineEnd end) = 0;
    /// What is held back goes out. \param isFollowed another part follows, to which the last line end belongs; or that is
    /// one of the encoding, and none of the text
    virtual void endPart(bool isFollowed) = 0;
};

/// Takes one encoded part.
class TextDecoder {
public:
    explicit TextDecoder(TextSink& target) : m_target(&target) {}
    TextDecoder(const TextDecoder&) = delete;
    TextDecoder& operator=(const TextDecoder&) = delete;
    virtual ~TextDecoder() = default;

    virtual void piece(const LinePiece& piece) = 0;
    virtual void endPart(bool isFollowed) { m_target->endPart(isFollowed); }

protected:
    [[nodiscard]] TextSink& target() noexcept { return *m_target; }

private:
    TextSink* m_target;
};

/// Passes characters on in lines of that many; 0: in one line.
class LineWrapper {
public:
    LineWrapper(LineOutput& out, std::size_t width) : m_out(&out), m_width(width) {}
    void put(std::string_view characters);
    void restart() noexcept { m_column = 0; }

private:
    LineOutput* m_out;
    std::size_t m_width;
    std::size_t m_column = 0;
};

/// Where the encoders of mail programs differ.
enum class QuotedStyle : std::uint8_t {
    least,  ///< nothing is escaped that need not be
    dots,   ///< a line that is one dot is escaped, and an escape at the end of a line leaves room for a soft break
    starts, ///< "From " and "." in front of lines are escaped
};

std::unique_ptr<TextDecoder> decoderOf(TransferEncoding encoding, TextSink& target);
/// \param lineFeeds in base64, line ends of the text are LF, not CR LF
std::unique_ptr<TextSink> encoderOf(TransferEncoding encoding, LineOutput& out, QuotedStyle style, bool lineFeeds);

} // namespace Norvane::Crypto::SMime::diagnosis
