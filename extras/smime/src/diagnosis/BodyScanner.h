#pragma once

/// \file
/// A body taken apart into lines and header blocks, exactly, as far as changes by mail systems are about them: no octet is
/// left out, whatever the body is made of.

#include "mime/Wiped.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace Norvane::Crypto::SMime::diagnosis {

enum class LineEnd : std::uint8_t { none, lf, crLf, cr, crCrLf };
inline constexpr std::size_t lineEnds = 5;
std::string_view octetsOf(LineEnd end) noexcept;

enum class Place : std::uint8_t { body, preamble, boundary, epilogue };
enum class TransferEncoding : std::uint8_t { none, eightBit, quotedPrintable, base64, other };

/// What a header block says of the part behind it.
struct PartHeader {
    TransferEncoding encoding = TransferEncoding::none;
    bool isText = true;
    bool isMultipart = false;
    std::string characterSet; ///< in small letters
};

/// A line, or a piece of one that is longer than `longestPiece`.
struct LinePiece {
    std::string_view octets; ///< without the line end
    bool begins = true;      ///< no piece of this line came before
    bool ends = true;        ///< none follows
    LineEnd end = LineEnd::none;
    Place place = Place::body;
    bool isOutermost = false; ///< of the outermost multipart: its preamble, boundaries and epilogue
};
inline constexpr std::size_t longestPiece = 4096;

/// One line of a header block, which may continue the one before.
struct HeaderLine {
    std::string octets;
    LineEnd end = LineEnd::none;
};

/// What a body is taken apart into.
class BodyConsumer {
public:
    BodyConsumer() = default;
    BodyConsumer(const BodyConsumer&) = delete;
    BodyConsumer& operator=(const BodyConsumer&) = delete;
    virtual ~BodyConsumer() = default;

    /// A header block, with the empty line behind it where there is one. It comes first, or behind a boundary or another block.
    virtual void header(const std::vector<HeaderLine>& lines, const PartHeader& part) = 0;
    virtual void line(const LinePiece& piece) = 0;
    virtual void finish() = 0;
};

/// Takes a body in pieces of any size. Header blocks are kept until they end, up to 64 KB and 1,000 of
/// them, and down to 32 multiparts within each other and as many messages; what is more passes as lines.
class BodyScanner {
public:
    explicit BodyScanner(std::vector<BodyConsumer*> consumers) : m_consumers(std::move(consumers)) {}

    void write(std::string_view octets);
    void finish();

private:
    struct Multipart {
        std::string boundary;
        bool isDigest = false;
        std::size_t depth = 0; ///< of messages around it
    };

    void scan(std::string_view octets, bool last);
    void lineOctets(std::string_view octets, LineEnd end, bool ends);
    void headerLine(std::string_view octets, LineEnd end);
    void endHeader();
    void leaveHeader();
    void giveUpHeader();
    void emit(const LinePiece& piece);
    void classify(std::string_view start);

    std::vector<BodyConsumer*> m_consumers;
    mime::WipedText m_carry; ///< CRs at the end of a piece, of which the next one tells what they are
    mime::WipedText m_line;  ///< the beginning of a line
    bool m_lineBegun = false;
    bool m_inHeader = true;
    bool m_atStart = true; ///< of the body: it may begin with a header block, or not
    std::vector<HeaderLine> m_header;
    std::size_t m_headerLength = 0;
    std::vector<Multipart> m_open; ///< the outermost first
    Place m_place = Place::body;
    bool m_isOutermost = false;
    bool m_startsHeader = false; ///< behind this line
    bool m_inDigest = false;     ///< the next header block is that of a part of one
    Place m_placeBehind = Place::body;
    std::size_t m_headers = 0;
    std::size_t m_depth = 0; ///< messages that what comes stands in
};

/// A header field's name in `line`, without the colon; empty when it begins none.
std::string_view fieldName(std::string_view line) noexcept;
/// Whether the line continues a field.
bool continues(std::string_view line) noexcept;
/// The value of a parameter of an unfolded field, without quotes; empty when it has none.
std::string parameterOf(std::string_view field, std::string_view name);
/// Equal but for capital and small letters of ASCII.
bool sameLetters(std::string_view left, std::string_view right) noexcept;
std::string smallLetters(std::string_view text);

} // namespace Norvane::Crypto::SMime::diagnosis
