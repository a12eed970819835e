#pragma once

/// \file
/// What one try makes of a body, on its way into the digests of a detached message, and where it is asked whether that fits.

#include "diagnosis/LineOutput.h"
#include "mime/Wiped.h"

#include <norvcmsg/Buffer.h>
#include <norvcrypto/CMSSignedReader.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace Norvane::Crypto::SMime::diagnosis {

/// A source over octets that outlive it, read in place.
MediaIn sourceOver(const Buffer& octets);

/// What is made of line ends.
enum class EndMode : std::uint8_t {
    asIs,
    crLf,          ///< of all
    crLfButBareCr, ///< of all but CR alone
    lf,            ///< of all but CR alone
};

/// How what is asked about differs at its end from all that was put out.
struct EndChange {
    std::size_t lineEndsMore = 0;
    std::size_t lineEndsLess = 0; ///< only these were left out, if not 0
    std::size_t linesLess = 0;    ///< lines of a footer
    std::uint64_t octetsLess = 0; ///< with them

    [[nodiscard]] bool isNone() const noexcept { return lineEndsMore + lineEndsLess + linesLess == 0; }
};

/// Is asked about a body that stands in the digests of `message`.
class BodyJudge {
public:
    BodyJudge() = default;
    BodyJudge(const BodyJudge&) = delete;
    BodyJudge& operator=(const BodyJudge&) = delete;
    virtual ~BodyJudge() = default;
    virtual void judge(const CMS::SignedReader& message, const EndChange& change) = 0;
};

/// Takes what a try makes of a body. The last 16 KB are kept back, to be asked about line by line.
class TryOutput : public LineOutput {
public:
    /// \param newLine the line end of lines that are made
    TryOutput(const Buffer& structure, EndMode mode, LineEnd newLine);

    void put(std::string_view octets) override;
    void end(LineEnd end) override;
    void newLine() override { put(octetsOf(m_newLine)); }
    /// The line end of lines that are made from now on.
    void setNewLine(LineEnd newLine) noexcept { m_newLine = newLine; }
    /// Asks about all that was put out, and about what has another end.
    void finish(BodyJudge& judge);
    [[nodiscard]] std::uint64_t length() const noexcept { return m_length; }

private:
    void pass(std::size_t count);

    CMS::SignedReader m_message;
    MediaOut m_digest;
    EndMode m_mode;
    LineEnd m_newLine;
    mime::WipedText m_kept;
    std::uint64_t m_length = 0;
};

} // namespace Norvane::Crypto::SMime::diagnosis
