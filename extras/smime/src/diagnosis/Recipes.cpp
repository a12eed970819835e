#include "diagnosis/Recipes.h"

#include <array>
#include <utility>

namespace Norvane::Crypto::SMime::diagnosis {

namespace {

using enum TransferEncoding;

/// What mail programs write there.
constexpr const char* usualPreamble = "This is a multi-part message in MIME format.";
constexpr const char* signedPreamble = "This is a cryptographically signed message in MIME format.";
constexpr const char* mimePreamble = "This is a message in MIME format.";
constexpr const char* smimePreamble = "This is an S/MIME signed message";

constexpr std::array<std::pair<QuotedStyle, const char*>, 3> styles{
    {{QuotedStyle::least, ""},
     {QuotedStyle::dots, " (with lone dots encoded)"},
     {QuotedStyle::starts, R"( (with "From " and leading dots encoded))"}}};

class RecipeList {
public:
    explicit RecipeList(const BodyFacts& facts) : m_facts(facts) {}

    std::vector<Recipe> made() {
        addLines();
        addAroundParts();
        addEncodings();
        addHeaders();
        addConversions();
        return std::move(m_recipes);
    }

private:
    template <class Undo> void add(bool applies, Change change, std::string text, Undo undo) {
        if (applies) {
            m_recipes.push_back({change, std::move(text), std::move(undo)});
        }
    }
    void addStart(bool applies, Change change, std::string text, LineStart start) {
        add(applies, change, std::move(text), [start](LineOutput& out) { return changeStarts(out, start); });
    }
    void addHeader(Change change, const std::string& text, HeaderChange header) {
        add(m_facts.hasHeader, change, "the header fields of the signed text stood there " + text,
            [header](LineOutput& out) { return rewriteHeaders(out, header); });
    }
    void addRecoding(bool applies, Change change, std::string text, Recoding recoding) {
        add(applies, change, std::move(text),
            [recoding = std::move(recoding)](LineOutput& out) { return recode(out, recoding); });
    }

    void addLines();
    void addAroundParts();
    void addEncodings();
    void addConversions();
    void addCharacterSets(const std::string& from, const std::string& to);
    void addHeaders();

    const BodyFacts& m_facts;
    std::vector<Recipe> m_recipes;
};

void RecipeList::addLines() {
    add(m_facts.hasBlanksAtLineEnds, Change::blanksAddedAtLineEnds,
        "no line of the signed text ended with blanks; they were added on the way", dropBlanks);
    addStart(m_facts.hasEscapedFrom, Change::fromEscaped,
             R"(">" was put in front of lines of the signed text that began with "From ")", LineStart::fromUnescaped);
    addStart(m_facts.hasDeeplyEscapedFrom, Change::fromEscaped,
             R"(">" was put in front of lines of the signed text that began with "From ", ">From " and so on)",
             LineStart::fromUnescapedDeeply);
    addStart(m_facts.hasFrom, Change::fromUnescaped,
             R"(lines of the signed text began with ">From "; the ">" was taken away on the way)",
             LineStart::fromEscaped);
    addStart(m_facts.hasTwoDots, Change::dotsDoubled,
             "lines of the signed text began with a dot, which was doubled on the way", LineStart::oneDotLess);
    addStart(m_facts.hasDot, Change::dotsLost,
             "lines of the signed text began with two dots, one of which was lost on the way", LineStart::oneDotMore);
    addStart(m_facts.hasBareSeparator, Change::separatorBlankLost,
             R"(the line "-- " of the signed text lost its blank on the way)", LineStart::separatorBlank);
}

void RecipeList::addAroundParts() {
    if (!m_facts.hasMultipart) {
        return;
    }
    add(m_facts.hasEpilogue, Change::footerAfterLastBoundary,
        "something was added behind the last boundary of the signed text", dropEpilogue);
    add(m_facts.hasPreamble, Change::preambleAdded,
        "the signed text had nothing in front of its first boundary; what stands there was added",
        [](LineOutput& out) { return replacePreamble(out, {}); });
    const auto addPreamble = [this](const std::string& what, std::vector<std::string> lines) {
        add(true, Change::preambleChanged,
            "the signed text had " + what + " in front of its first boundary, which was lost or replaced",
            [lines = std::move(lines)](LineOutput& out) { return replacePreamble(out, lines); });
    };
    addPreamble("an empty line", {""});
    for (const char* const text : {usualPreamble, signedPreamble, mimePreamble, smimePreamble}) {
        const std::string quoted = '"' + std::string(text) + '"';
        addPreamble("the line " + quoted, {text});
        addPreamble("the line " + quoted + " and an empty one", {text, ""});
    }
}

void RecipeList::addEncodings() {
    for (const std::size_t width : {76U, 64U, 72U, 60U, 0U}) {
        const std::string lines = width == 0 ? "on one line" : "in lines of " + std::to_string(width) + " characters";
        add(m_facts.hasBase64, Change::base64Rewrapped,
            "the base64 of the signed text stood " + lines + "; it was wrapped anew on the way",
            [width](LineOutput& out) { return rewrapBase64(out, width); });
    }
    const Change again = Change::quotedPrintableReencoded;
    add(m_facts.hasSmallHexDigits, again,
        R"(the quoted-printable of the signed text had capital digits, as in "=3D"; they were made small on the way)",
        [](LineOutput& out) { return changeHexDigits(out, true); });
    add(m_facts.hasCapitalHexDigits, again,
        R"(the quoted-printable of the signed text had small digits, as in "=3d"; they were made capitals on the way)",
        [](LineOutput& out) { return changeHexDigits(out, false); });
    for (const auto& [style, how] : styles) {
        addRecoding(m_facts.hasQuotedPrintable, again,
                    "the quoted-printable of the signed text" + std::string(how) +
                        " was decoded and encoded in another way",
                    {.from = {quotedPrintable}, .to = quotedPrintable, .style = style});
    }
}

void RecipeList::addConversions() {
    for (const auto& [style, how] : styles) {
        addRecoding(m_facts.hasBase64Text, Change::quotedPrintableMadeBase64,
                    "the signed text was quoted-printable" + std::string(how) + "; base64 was made of it on the way",
                    {.from = {base64}, .to = quotedPrintable, .encodingName = "quoted-printable", .style = style});
        addRecoding(m_facts.hasEightBitText, Change::madeEightBit,
                    "the signed text was quoted-printable" + std::string(how) +
                        "; 8-bit text was made of it on the way",
                    {.from = {eightBit}, .to = quotedPrintable, .encodingName = "quoted-printable", .style = style});
    }
    for (const bool lineFeeds : {false, true}) {
        const std::string how = lineFeeds ? " with line ends of LF inside" : "";
        addRecoding(m_facts.hasQuotedPrintable, Change::base64MadeQuotedPrintable,
                    "the signed text was base64" + how + "; quoted-printable was made of it on the way",
                    {.from = {quotedPrintable}, .to = base64, .encodingName = "base64", .lineFeedsInside = lineFeeds});
        addRecoding(m_facts.hasEightBitText, Change::madeEightBit,
                    "the signed text was base64" + how + "; 8-bit text was made of it on the way",
                    {.from = {eightBit}, .to = base64, .encodingName = "base64", .lineFeedsInside = lineFeeds});
    }
    const bool isEncoded = m_facts.hasQuotedPrintable || m_facts.hasBase64Text;
    for (const char* const name : {"8bit", "7bit", "8BIT", ""}) {
        const bool dropped = *name == '\0';
        addRecoding(
            isEncoded, Change::madeSevenBit,
            "the signed text " +
                (dropped ? std::string("named no transfer encoding") : "was sent as " + std::string(name)) +
                "; quoted-printable or base64 was made of it on the way",
            {.from = {quotedPrintable, base64}, .to = eightBit, .encodingName = name, .withoutEncodingField = dropped});
    }
    for (const char* const set : {"ISO-8859-1", "iso-8859-1", "windows-1252", "ISO-8859-15"}) {
        addCharacterSets("utf-8", set);
    }
    for (const char* const set : {"iso-8859-1", "windows-1252", "iso-8859-15"}) {
        addCharacterSets(set, "UTF-8");
        addCharacterSets(set, "utf-8");
    }
}

void RecipeList::addCharacterSets(const std::string& from, const std::string& to) {
    addRecoding(m_facts.characterSets.contains(from), Change::characterSetChanged,
                "the signed text was written in the character set " + to + "; it was converted to " + from +
                    " on the way",
                {.from = {}, .fromCharacterSet = from, .toCharacterSet = to});
}

void RecipeList::addHeaders() {
    const Change folded = Change::headerRefolded;
    addHeader(folded, "on one line each", HeaderChange::unfoldedToOneBlank);
    addHeader(folded, "on one line each, with all their blanks", HeaderChange::unfolded);
    addHeader(folded, "continued with a tab", HeaderChange::continuedByTab);
    addHeader(folded, "continued with a blank", HeaderChange::continuedByBlank);
    addHeader(folded, "with each parameter on a line, behind a tab", HeaderChange::eachParameterFoldedByTab);
    addHeader(folded, "with each parameter on a line, behind a blank", HeaderChange::eachParameterFoldedByBlank);
    addHeader(folded, "folded in front of the first parameter, with a tab", HeaderChange::firstParameterFoldedByTab);
    addHeader(folded, "folded in front of the first parameter, with a blank",
              HeaderChange::firstParameterFoldedByBlank);
    addHeader(folded, "folded in front of the last parameter, with a tab", HeaderChange::lastParameterFoldedByTab);
    addHeader(folded, "folded in front of the last parameter, with a blank", HeaderChange::lastParameterFoldedByBlank);
    const Change blanks = Change::headerBlanksChanged;
    addHeader(blanks, "with one blank behind the colon", HeaderChange::blankBehindColon);
    addHeader(blanks, "without blanks behind the colon", HeaderChange::noBlankBehindColon);
    addHeader(blanks, "with one blank behind semicolons", HeaderChange::blankBehindSemicolons);
    addHeader(blanks, "without blanks behind semicolons", HeaderChange::noBlankBehindSemicolons);
    const Change names = Change::headerNamesRespelled;
    addHeader(names, R"(under names such as "MIME-Version" and "Content-Type")", HeaderChange::usualNames);
    addHeader(names, R"(under names such as "Mime-Version" and "Content-Type")", HeaderChange::capitalWords);
    addHeader(names, R"(under names such as "Mime-version" and "Content-type")", HeaderChange::capitalNames);
    addHeader(names, R"(under names such as "mime-version" and "content-type")", HeaderChange::smallNames);
    const Change quotes = Change::parametersRequoted;
    addHeader(quotes, "with quotes around the values of parameters", HeaderChange::quoted);
    addHeader(quotes, "without quotes around the values of parameters", HeaderChange::unquoted);
    const Change characterSet = Change::characterSetRespelled;
    addHeader(characterSet, "with the character set in capital letters", HeaderChange::capitalCharacterSet);
    addHeader(characterSet, "with the character set in small letters", HeaderChange::smallCharacterSet);
}

} // namespace

std::vector<Recipe> recipesFor(const BodyFacts& facts) {
    return RecipeList(facts).made();
}

} // namespace Norvane::Crypto::SMime::diagnosis
