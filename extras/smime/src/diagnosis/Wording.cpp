// The names of changes, and what is said about them.
#include "diagnosis/Recipes.h"

#include <string>

namespace Norvane::Crypto::SMime {

const char* nameOf(Change change) noexcept {
    switch (change) {
    case Change::lineEndsMadeLf:
        return "line-ends-lf";
    case Change::lineEndsMadeCrLf:
        return "line-ends-crlf";
    case Change::lineEndsMadeCr:
        return "line-ends-cr";
    case Change::carriageReturnsDoubled:
        return "carriage-returns-doubled";
    case Change::lastLineEndLost:
        return "last-line-end-lost";
    case Change::lastLineEndAdded:
        return "last-line-end-added";
    case Change::footerAtEnd:
        return "footer-at-end";
    case Change::blanksAddedAtLineEnds:
        return "blanks-added-at-line-ends";
    case Change::separatorBlankLost:
        return "separator-blank-lost";
    case Change::dotsDoubled:
        return "dots-doubled";
    case Change::dotsLost:
        return "dots-lost";
    case Change::fromEscaped:
        return "from-escaped";
    case Change::fromUnescaped:
        return "from-unescaped";
    case Change::preambleChanged:
        return "preamble-changed";
    case Change::preambleAdded:
        return "preamble-added";
    case Change::footerAfterLastBoundary:
        return "footer-after-last-boundary";
    case Change::base64Rewrapped:
        return "base64-rewrapped";
    case Change::quotedPrintableReencoded:
        return "quoted-printable-reencoded";
    case Change::quotedPrintableMadeBase64:
        return "quoted-printable-made-base64";
    case Change::base64MadeQuotedPrintable:
        return "base64-made-quoted-printable";
    case Change::madeSevenBit:
        return "made-7-bit";
    case Change::madeEightBit:
        return "made-8-bit";
    case Change::characterSetChanged:
        return "character-set-changed";
    case Change::headerRefolded:
        return "header-refolded";
    case Change::headerBlanksChanged:
        return "header-blanks-changed";
    case Change::headerNamesRespelled:
        return "header-names-respelled";
    case Change::parametersRequoted:
        return "parameters-requoted";
    case Change::characterSetRespelled:
        return "character-set-respelled";
    case Change::digestOfOtherAlgorithm:
        return "digest-of-other-algorithm";
    case Change::certificateRenewed:
        return "certificate-renewed";
    case Change::otherCertificate:
        return "other-certificate";
    }
    return "";
}

namespace diagnosis {

namespace {

constexpr const char* keepBytes = "have every relay and program on the way hand the signed part on byte for byte (a "
                                  "binary download, no text mode, no "
                                  "conversion)";
constexpr const char* signEncoded = "the relay must not change signed parts (RFC 8551, 3.1.3); a sender is safe who "
                                    "encodes the text as quoted-printable or "
                                    "base64 before signing";
constexpr const char* leaveParts = "have the relay leave multipart/signed as it is (RFC 1847, 2.1)";
constexpr const char* noFooters = "nobody signed what was added: read the signed text without it, and have the list or "
                                  "relay that adds it leave signed "
                                  "messages alone";

std::string adviceOn(Change change) {
    switch (change) {
    case Change::lineEndsMadeLf:
    case Change::lineEndsMadeCr:
    case Change::carriageReturnsDoubled:
        return std::string(keepBytes) + "; to see the signature fit, convert the line ends of a copy to CR LF";
    case Change::lineEndsMadeCrLf:
        return std::string(keepBytes) + "; to see the signature fit, convert the line ends of a copy to LF";
    case Change::lastLineEndLost:
    case Change::lastLineEndAdded:
        return "take the part out anew: it begins with its header fields, and the line end in front of the boundary is "
               "no "
               "part of it";
    case Change::footerAtEnd:
    case Change::footerAfterLastBoundary:
        return noFooters;
    case Change::blanksAddedAtLineEnds:
    case Change::separatorBlankLost:
    case Change::dotsDoubled:
    case Change::dotsLost:
    case Change::fromEscaped:
    case Change::fromUnescaped:
    case Change::madeSevenBit:
    case Change::characterSetChanged:
        return signEncoded;
    default:
        return leaveParts;
    }
}

std::string counted(std::uint64_t count, const char* one, const char* several) {
    return std::to_string(count) + " " + (count == 1 ? one : several);
}

} // namespace

Finding findingOf(const Recipe& recipe) {
    return {recipe.change, recipe.text, adviceOn(recipe.change)};
}

std::vector<Finding> findingsOf(EndMode mode, const BodyFacts& facts) {
    std::vector<Finding> findings;
    const auto add = [&](Change change, const std::string& before, const std::string& now, std::uint64_t count) {
        if (count == 0) {
            return;
        }
        const std::string ofWhich =
            count == facts.countOfEnds() ? "it" : std::to_string(count) + " of " + std::to_string(facts.countOfEnds());
        findings.push_back(
            {change, "the signed text ended its lines with " + before + "; a relay made " + now + " of " + ofWhich,
             adviceOn(change)});
    };
    if (mode == EndMode::crLf || mode == EndMode::crLfButBareCr) {
        add(Change::lineEndsMadeLf, "CR LF", "LF", facts.count(LineEnd::lf));
        add(Change::lineEndsMadeCr, "CR LF", "CR", mode == EndMode::crLf ? facts.count(LineEnd::cr) : 0);
        add(Change::carriageReturnsDoubled, "CR LF", "CR CR LF", facts.count(LineEnd::crCrLf));
    } else if (mode == EndMode::lf) {
        add(Change::lineEndsMadeCrLf, "LF", "CR LF", facts.count(LineEnd::crLf));
        add(Change::carriageReturnsDoubled, "LF", "CR CR LF", facts.count(LineEnd::crCrLf));
    }
    return findings;
}

std::vector<Finding> findingsOf(const EndChange& change) {
    if (change.lineEndsMore != 0) {
        return {{Change::lastLineEndLost,
                 "the signed text had " + counted(change.lineEndsMore, "line end", "line ends") + " more at its end",
                 adviceOn(Change::lastLineEndLost)}};
    }
    if (change.linesLess != 0) {
        return {{Change::footerAtEnd,
                 "the signed text ended before the last " + counted(change.linesLess, "line", "lines") + " (" +
                     counted(change.octetsLess, "byte", "bytes") + "), which were added on the way",
                 adviceOn(Change::footerAtEnd)}};
    }
    if (change.lineEndsLess != 0) {
        return {{Change::lastLineEndAdded,
                 "the signed text had " + counted(change.lineEndsLess, "line end", "line ends") + " less at its end",
                 adviceOn(Change::lastLineEndAdded)}};
    }
    return {};
}

} // namespace diagnosis

} // namespace Norvane::Crypto::SMime
