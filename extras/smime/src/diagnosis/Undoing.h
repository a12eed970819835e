#pragma once

/// \file
/// What undoes one change by a mail system: takes a body apart and puts out what it was before.

#include "diagnosis/BodyScanner.h"
#include "diagnosis/Encodings.h"
#include "diagnosis/LineOutput.h"

#include <memory>
#include <string>
#include <vector>

namespace Norvane::Crypto::SMime::diagnosis {

/// Puts out everything as it is, but for what derived ones do.
class Undoing : public BodyConsumer {
public:
    explicit Undoing(LineOutput& out) : m_out(&out) {}

    void header(const std::vector<HeaderLine>& lines, const PartHeader& part) override;
    void line(const LinePiece& piece) override;
    void finish() override {}

protected:
    [[nodiscard]] LineOutput& out() noexcept { return *m_out; }
    void put(const HeaderLine& line);

private:
    LineOutput* m_out;
};

using UndoingPtr = std::unique_ptr<Undoing>;

/// Drops blanks at the ends of lines.
UndoingPtr dropBlanks(LineOutput& out);

enum class LineStart : std::uint8_t {
    separatorBlank, ///< "--" becomes "-- "
    oneDotLess,
    oneDotMore,
    fromUnescaped,       ///< "From " for ">From "
    fromUnescapedDeeply, ///< and ">From " for ">>From "
    fromEscaped,
};
/// Changes how lines begin.
UndoingPtr changeStarts(LineOutput& out, LineStart change);

/// Puts these lines in the place of the outermost preamble.
UndoingPtr replacePreamble(LineOutput& out, std::vector<std::string> lines);
/// Drops what is behind the line of the last boundary.
UndoingPtr dropEpilogue(LineOutput& out);

/// Lines of base64 with that many characters; 0: one line.
UndoingPtr rewrapBase64(LineOutput& out, std::size_t width);
/// Hexadecimal digits of quoted-printable as capital or small letters.
UndoingPtr changeHexDigits(LineOutput& out, bool capital);

/// How parts are decoded and encoded anew.
struct Recoding {
    std::vector<TransferEncoding> from{}; ///< parts of these alone; empty: of all
    TransferEncoding to = TransferEncoding::none;
    std::string encodingName{};        ///< put into the header; empty: it stays
    bool withoutEncodingField = false; ///< the field is dropped
    std::string fromCharacterSet{};    ///< parts of this alone unless empty, in small letters
    std::string toCharacterSet{};      ///< put into the header
    QuotedStyle style = QuotedStyle::least;
    bool lineFeedsInside = false; ///< base64: line ends of the text are LF, not CR LF
};
/// Encodes texts anew.
UndoingPtr recode(LineOutput& out, Recoding recoding);

enum class HeaderChange : std::uint8_t {
    unfoldedToOneBlank,
    unfolded,
    continuedByTab,
    continuedByBlank,
    eachParameterFoldedByTab,
    eachParameterFoldedByBlank,
    firstParameterFoldedByTab,
    firstParameterFoldedByBlank,
    lastParameterFoldedByTab,
    lastParameterFoldedByBlank,
    blankBehindColon,
    noBlankBehindColon,
    blankBehindSemicolons,
    noBlankBehindSemicolons,
    usualNames,   ///< "MIME-Version", "Content-Type"
    capitalWords, ///< "Mime-Version", "Content-Type"
    capitalNames, ///< "Mime-version", "Content-type"
    smallNames,
    quoted,
    unquoted,
    capitalCharacterSet,
    smallCharacterSet,
};
/// Writes header fields another way.
UndoingPtr rewriteHeaders(LineOutput& out, HeaderChange change);

} // namespace Norvane::Crypto::SMime::diagnosis
