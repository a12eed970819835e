#pragma once

/// \file
/// What stands in a body: which changes by mail systems it may show, so that no others are undone.

#include "diagnosis/BodyScanner.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <set>
#include <string>

namespace Norvane::Crypto::SMime::diagnosis {

struct BodyFacts {
    std::array<std::uint64_t, lineEnds> ends{}; ///< how many, by `LineEnd`
    std::uint64_t length = 0;

    bool hasHeader = false;
    bool hasMultipart = false;
    bool hasPreamble = false;
    bool hasEpilogue = false; ///< octets behind the line of the last boundary

    bool hasBlanksAtLineEnds = false;
    bool hasBareSeparator = false; ///< "--"
    bool hasDot = false;           ///< in front of a line
    bool hasTwoDots = false;
    bool hasFrom = false;
    bool hasEscapedFrom = false;
    bool hasDeeplyEscapedFrom = false; ///< ">>From "

    bool hasBase64 = false;
    bool hasBase64Text = false;
    bool hasQuotedPrintable = false;
    bool hasEightBitText = false; ///< named so
    bool hasSmallHexDigits = false;
    bool hasCapitalHexDigits = false;
    std::set<std::string> characterSets; ///< of texts

    [[nodiscard]] std::uint64_t count(LineEnd end) const noexcept { return ends[static_cast<std::size_t>(end)]; }
    [[nodiscard]] std::uint64_t countOfEnds() const noexcept;
    /// The line end that most lines have.
    [[nodiscard]] LineEnd usual() const noexcept;
};

/// Collects them.
class FactsCollector : public BodyConsumer {
public:
    explicit FactsCollector(BodyFacts& facts) : m_facts(facts) {}

    void header(const std::vector<HeaderLine>& lines, const PartHeader& part) override;
    void line(const LinePiece& piece) override;
    void finish() override {}

private:
    void startOfLine(std::string_view octets);

    BodyFacts& m_facts;
    PartHeader m_part;
};

} // namespace Norvane::Crypto::SMime::diagnosis
