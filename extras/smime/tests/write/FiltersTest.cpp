// The filters that a part goes through on its way out, with what comes in cut in pieces of every size.

#include "write/Filters.h"
#include "mime/Transfer.h"
#include "support/Streams.h"
#include "write/Boundary.h"
#include "write/QuotedPrintable.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

namespace {

using namespace Norvane;
using namespace Norvane::Crypto::SMime;
using namespace Norvane::Crypto::SMime::writing;
using Filter = std::function<MediaOut(const MediaOut&)>;

std::string filtered(const Filter& filter, const std::string& text, std::size_t piece) {
    const MemoryMediaOut out;
    MediaOut in = filter(out);
    for (std::size_t at = 0; at < text.size(); at += piece) {
        put(in, std::string_view(text).substr(at, piece));
    }
    in.end();
    EXPECT_TRUE(out.ended());
    return norvtest::textOf(out.content());
}

/// What comes out, the same for all pieces.
std::string through(const Filter& filter, const std::string& text) {
    std::string whole = filtered(filter, text, text.size() + 1);
    for (const std::size_t piece : {1U, 2U, 3U, 7U, 76U}) {
        EXPECT_EQ(filtered(filter, text, piece), whole) << "in pieces of " << piece;
    }
    return whole;
}

Filter canonical(LoneReturn loneReturn) {
    return [loneReturn](const MediaOut& target) { return canonicalLineEnds(target, loneReturn); };
}

Filter quoted(QuotedFrom from) {
    return [from](const MediaOut& target) { return quotedPrintable(target, from); };
}

MediaOut unquoting(const MediaOut& target) {
    return mime::DecodingMediaOut(target, mime::Transfer::quotedPrintable);
}

/// Quoted-printable as the reader decodes it.
std::string unquoted(const std::string& text) {
    return filtered(unquoting, text, text.size() + 1);
}

void expectShortLines(const std::string& text, std::size_t most) {
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        ASSERT_TRUE(line.ends_with('\r') || lines.eof()) << line;
        EXPECT_LE(line.size(), most + 1) << line;
    }
}

TEST(SmimeFiltersTest, MakesOneKindOfLineEndOfAll) {
    EXPECT_EQ(through(canonical(LoneReturn::lineEnd), "a\nb\r\nc\rd\n\r\re\r\r\n"),
              "a\r\nb\r\nc\r\nd\r\n\r\n\r\ne\r\n\r\n");
    EXPECT_EQ(through(canonical(LoneReturn::data), "a\nb\r\nc\rd\n\r\re\r\r\n"), "a\r\nb\r\nc\rd\r\n\r\re\r\r\n");
    EXPECT_EQ(through(canonical(LoneReturn::lineEnd), "end\r"), "end\r\n");
    EXPECT_EQ(through(canonical(LoneReturn::data), "end\r"), "end\r");
    EXPECT_EQ(through(canonical(LoneReturn::data), ""), "");
    EXPECT_EQ(through(lineFeeds, "a\r\nb\rc\r\r\n\nd\r"), "a\nb\rc\r\n\nd\r");
}

/// All texts of up to so many of these bytes.
std::vector<std::string> textsOf(std::string_view bytes, std::size_t longest) {
    std::vector<std::string> texts{""};
    for (std::size_t at = 0; texts[at].size() < longest; ++at) {
        for (const char byte : bytes) {
            texts.push_back(texts[at] + byte);
        }
    }
    return texts;
}

/// What is right already is passed on without being looked at line by line: whatever stands in it, wherever, is mended.
TEST(SmimeFiltersTest, MendsLineEndsAmongThoseThatAreRight) {
    const std::string line = std::string(17, 'a') + "\r\n";
    for (std::size_t at = 0; at != 3 * line.size() + 1; ++at) {
        std::string text = line + line + line;
        const bool splits = at % line.size() == line.size() - 1; // a line end
        if (!splits) {
            text.insert(at, "\n");
            std::string mended = line + line + line;
            mended.insert(at, "\r\n");
            EXPECT_EQ(through(canonical(LoneReturn::data), text), mended) << at;
            text[at] = '\r';
            EXPECT_EQ(through(canonical(LoneReturn::lineEnd), text), mended) << at;
        }
    }
}

TEST(SmimeFiltersTest, TakesEndsOfLinesInAnyOrder) {
    for (const std::string& text : textsOf("\r\na", 6)) {
        std::string returnsAreData;
        std::string returnsEndLines;
        std::string feeds;
        mime::LineEnds ends;
        for (std::size_t at = 0; at < text.size(); ++at) {
            const bool isReturn = text[at] == '\r';
            const bool isPair = text.substr(at, 2) == "\r\n";
            const bool isEnd = isPair || text[at] == '\n';
            returnsAreData += isEnd ? "\r\n" : text.substr(at, 1);
            returnsEndLines += isEnd || isReturn ? "\r\n" : text.substr(at, 1);
            feeds += isEnd ? "\n" : text.substr(at, 1);
            ends.crLf += isPair ? 1 : 0;
            ends.bareCr += isReturn && !isPair ? 1 : 0;
            ends.bareLf += isEnd && !isPair ? 1 : 0;
            at += isPair ? 1 : 0;
        }
        EXPECT_EQ(through(canonical(LoneReturn::data), text), returnsAreData);
        EXPECT_EQ(through(canonical(LoneReturn::lineEnd), text), returnsEndLines);
        EXPECT_EQ(through(lineFeeds, text), feeds);
        for (const std::size_t cut : {0U, 1U, 3U}) {
            mime::LineEndCounter counter;
            counter.update(std::string_view(text).substr(0, cut));
            counter.update(std::string_view(text).substr(std::min(cut, text.size())));
            const mime::LineEnds counted = counter.counted();
            EXPECT_EQ(counted.crLf, ends.crLf);
            EXPECT_EQ(counted.bareCr, ends.bareCr);
            EXPECT_EQ(counted.bareLf, ends.bareLf);
        }
    }
}

TEST(SmimeFiltersTest, WritesBase64InLinesOfSeventySix) {
    EXPECT_EQ(through(base64Lines, ""), "");
    EXPECT_EQ(through(base64Lines, "any carnal pleas"), "YW55IGNhcm5hbCBwbGVhcw==\r\n"); // RFC 4648 has the alphabet
    const std::string line(57, '\xff');
    EXPECT_EQ(through(base64Lines, line), std::string(76, '/') + "\r\n");
    EXPECT_EQ(through(base64Lines, line + '\xff'), std::string(76, '/') + "\r\n/w==\r\n");
}

TEST(SmimeFiltersTest, BreaksBase64AnewAndKeepsItsLetters) {
    EXPECT_EQ(through(base64LinesAnew, "YW5\n5I \xe9GN*h\rcm=="), "YW55IGNhcm==\r\n");
    EXPECT_EQ(through(base64LinesAnew, std::string(153, 'A')),
              std::string(76, 'A') + "\r\n" + std::string(76, 'A') + "\r\nA\r\n");
    EXPECT_EQ(through(base64LinesAnew, "\r\n"), "");
}

// RFC 4648, 4.
TEST(SmimeFiltersTest, KnowsTheLettersOfBase64) {
    for (unsigned int value = 0; value != 256; ++value) {
        const char byte = static_cast<char>(value);
        const bool isLetter =
            std::string_view("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/=").find(byte) !=
            std::string_view::npos;
        EXPECT_EQ(through(base64LinesAnew, std::string("Q") + byte),
                  isLetter ? std::string("Q") + byte + "\r\n" : "Q\r\n")
            << value;
    }
}

// RFC 2045, 6.7, rules 1 to 3.
TEST(SmimeFiltersTest, QuotesTheOctetsThatHaveToBe) {
    constexpr std::string_view digits = "0123456789ABCDEF";
    for (unsigned int value = 0; value != 256; ++value) {
        const char byte = static_cast<char>(value);
        if (byte == '\r' || byte == '\n') {
            continue; // of line ends, which are tested by themselves
        }
        const bool isLiteral = (value >= 33 && value <= 60) || (value >= 62 && value <= 126);
        const std::string octet{'=', digits[value / 16], digits[value % 16]};
        const bool isBlank = byte == ' ' || byte == '\t';
        const std::string within = isLiteral || isBlank ? std::string(1, byte) : octet;
        const std::string atEnd = isLiteral ? std::string(1, byte) : octet;
        EXPECT_EQ(through(quoted(QuotedFrom::text), std::string("a") + byte + "b" + byte + "\r\n"),
                  "a" + within + "b" + atEnd + "\r\n")
            << value;
    }
}

/// More than is gathered at once; a line end stands on every border between two such pieces.
TEST(SmimeFiltersTest, TakesLongPiecesAsShortOnes) {
    constexpr std::size_t gatheredAtOnce = 16384;
    for (const std::size_t shift : {0U, 1U, 2U}) {
        std::string text(gatheredAtOnce - 1 - shift, '\n');
        std::string data;
        for (unsigned int number = 0; data.size() < 3 * gatheredAtOnce; ++number) {
            data += std::to_string(number) + (number % 3 == 0 ? "\n" : "\r\n");
        }
        text += "\r\n" + data;
        std::string crlf;
        std::string lf;
        for (const char byte : text) {
            crlf += byte == '\n' ? "\r\n" : byte == '\r' ? "" : std::string(1, byte);
            lf += byte == '\r' ? "" : std::string(1, byte);
        }
        EXPECT_EQ(filtered(canonical(LoneReturn::data), text, text.size()), crlf);
        EXPECT_EQ(filtered(lineFeeds, text, text.size()), lf);
        EXPECT_EQ(filtered(canonical(LoneReturn::lineEnd), text, 1000), crlf);
        EXPECT_EQ(filtered(lineFeeds, text, 1000), lf);
        const auto reading = [](const MediaOut& target) {
            return mime::DecodingMediaOut(target, mime::Transfer::base64);
        };
        const std::string letters = filtered(base64Lines, text, text.size());
        EXPECT_EQ(filtered(reading, letters, 1000), text);
        EXPECT_EQ(filtered(base64LinesAnew, letters, letters.size()), letters);
        EXPECT_EQ(unquoted(filtered(quoted(QuotedFrom::text), crlf, crlf.size())), crlf);
    }
}

/// Counts what reaches it, and the most at once.
class CountingImpl : public MediaOutImpl {
public:
    struct Counts {
        std::size_t all = 0;
        std::size_t most = 0;
    };
    explicit CountingImpl(std::shared_ptr<Counts> counts) : m_counts(std::move(counts)) {}
    using MediaOutImpl::write;
    void write(const unsigned char* /*data*/, unsigned int length) override {
        m_counts->all += length;
        m_counts->most = std::max<std::size_t>(m_counts->most, length);
    }

private:
    std::shared_ptr<Counts> m_counts;
};

/// Whatever is written, a little is held back, and a part of it made at once.
TEST(SmimeFiltersTest, HoldsAFewBytes) {
    constexpr std::size_t held = 2 * 76 + 10;
    constexpr std::size_t atOnce = 16384;
    const std::vector<std::pair<Filter, std::string>> cases{{canonical(LoneReturn::data), "a\n\r"},
                                                            {lineFeeds, "a\r\n"},
                                                            {base64Lines, "xyz"},
                                                            {base64LinesAnew, "QUJD"},
                                                            {quoted(QuotedFrom::text), "text \xe4\r\n"},
                                                            {quoted(QuotedFrom::quoted), "a=\r\n=41\r\n"},
                                                            {quoted(QuotedFrom::quoted), " "},
                                                            {quoted(QuotedFrom::quoted), "=41"}};
    for (const auto& [filter, pattern] : cases) {
        std::string text;
        while (text.size() < 100000) {
            text += pattern;
        }
        const auto counts = std::make_shared<CountingImpl::Counts>();
        MediaOut in = filter(MediaOut(makeReference<CountingImpl, MediaOutImpl>(counts)));
        put(in, text);
        const std::size_t before = counts->all;
        EXPECT_GT(before, text.size() / 2) << pattern;
        EXPECT_LE(counts->most, 3 * atOnce) << pattern;
        in.end();
        EXPECT_LE(counts->all - before, held) << pattern;
    }
}

/// As of other sinks: nothing comes twice.
TEST(SmimeFiltersTest, WritesNothingAtASecondEnd) {
    const std::vector<std::pair<Filter, std::string>> cases{{canonical(LoneReturn::data), "a\r"},
                                                            {canonical(LoneReturn::lineEnd), "a\r"},
                                                            {lineFeeds, "a\r"},
                                                            {base64Lines, "a"},
                                                            {base64LinesAnew, "QQ=="},
                                                            {quoted(QuotedFrom::text), "a\r"},
                                                            {quoted(QuotedFrom::text), "From"},
                                                            {quoted(QuotedFrom::text), "a "},
                                                            {quoted(QuotedFrom::quoted), "a=4"}};
    for (const auto& [filter, text] : cases) {
        const auto counts = std::make_shared<CountingImpl::Counts>();
        MediaOut in = filter(MediaOut(makeReference<CountingImpl, MediaOutImpl>(counts)));
        put(in, text);
        in.end();
        const std::size_t all = counts->all;
        EXPECT_GE(all, text.size());
        in.end();
        EXPECT_EQ(counts->all, all) << text;
    }
}

TEST(SmimeFiltersTest, QuotesWhatMailDoesNotCarry) {
    const auto text = quoted(QuotedFrom::text);
    EXPECT_EQ(through(text, "Gr\xc3\xbc\xc3\x9f"
                            "e = 1\r\n"),
              "Gr=C3=BC=C3=9Fe =3D 1\r\n");
    EXPECT_EQ(through(text, "blank \r\ntab\t\r\nboth \t\r\n \r\nend "),
              "blank=20\r\ntab=09\r\nboth =09\r\n=20\r\nend=20");
    EXPECT_EQ(through(text, "a\rb\r\r\nc\nd\r"), "a=0Db=0D\r\nc=0Ad=0D");
    EXPECT_EQ(through(text, std::string("\0\x7f\t", 3) + "x"), "=00=7F\tx");
}

TEST(SmimeFiltersTest, ProtectsStartsOfLinesThatMailSystemsChange) {
    const auto text = quoted(QuotedFrom::text);
    EXPECT_EQ(through(text, "From me\r\nFrom\r\nFrom"), "=46rom me\r\nFrom\r\nFrom");
    EXPECT_EQ(through(text, "Fro\r\nFFrom x\r\n>From x\r\n"), "Fro\r\nFFrom x\r\n>From x\r\n");
    EXPECT_EQ(through(text, ".\r\n..a\r\na.\r\n"), "=2E\r\n=2E.a\r\na.\r\n");
    EXPECT_EQ(through(text, "--b\r\n-- \r\n- x\r\n-\r\n---\r\n"), "=2D-b\r\n=2D-=20\r\n- x\r\n-\r\n=2D--\r\n");
    // At the start of a line that a soft break began, too.
    EXPECT_EQ(through(text, std::string(75, 'x') + ".y"), std::string(75, 'x') + "=\r\n=2Ey");
    EXPECT_EQ(through(text, std::string(75, 'x') + "--b\r\n"), std::string(75, 'x') + "=\r\n=2D-b\r\n");
    EXPECT_EQ(through(text, std::string(75, 'x') + "From y"), std::string(75, 'x') + "=\r\n=46rom y");
}

TEST(SmimeFiltersTest, KeepsLinesOfQuotedPrintableShort) {
    std::string body;
    for (int length = 60; length < 240; ++length) {
        body += std::string(static_cast<std::size_t>(length), 'a') + (length % 3 == 0 ? "\xe4" : " ") + "\r\n";
    }
    body += std::string(200, '\xe4') + std::string(200, ' ');
    const std::string lines = through(quoted(QuotedFrom::text), body);
    expectShortLines(lines, 76);
    EXPECT_EQ(unquoted(lines), body);
}

TEST(SmimeFiltersTest, BreaksLinesNoEarlierThanItHasTo) {
    const auto text = quoted(QuotedFrom::text);
    EXPECT_EQ(through(text, std::string(200, 'x')),
              std::string(75, 'x') + "=\r\n" + std::string(75, 'x') + "=\r\n" + std::string(50, 'x'));
    EXPECT_EQ(through(text, std::string(26, '\xe4')), [] {
        std::string octets;
        for (int at = 0; at < 25; ++at) {
            octets += "=E4";
        }
        return octets + "=\r\n=E4";
    }());
}

TEST(SmimeFiltersTest, GivesBackWhatItQuotedForAllBytes) {
    std::string body;
    for (unsigned int round = 0; round < 4000; ++round) {
        body += static_cast<char>((round * 2654435761U) >> 13U);
    }
    for (std::size_t at = body.find('\r'); at != std::string::npos; at = body.find('\r', at + 1)) {
        body[at] = ' '; // GMime drops a CR before LF; those of the body are tested above
    }
    const std::string lines = through(quoted(QuotedFrom::text), body);
    expectShortLines(lines, 76);
    EXPECT_EQ(unquoted(lines), body);
}

TEST(SmimeFiltersTest, MendsQuotedPrintableWithoutChangingItsContent) {
    const auto mended = quoted(QuotedFrom::quoted);
    EXPECT_EQ(through(mended, "Gr=C3=BC=c3=9f"
                              "e =3D\r\n"),
              "Gr=C3=BC=c3=9fe =3D\r\n");
    EXPECT_EQ(through(mended, "raw \xfc\r\nsoft=\r\nbreak= \t\r\nend=\r\n"), "raw =FC\r\nsoft=\r\nbreak=\r\nend=\r\n");
    EXPECT_EQ(through(mended, "blanks \t \r\n  \r\nx"), "blanks\r\n\r\nx");
    EXPECT_EQ(through(mended, "1=2 = f =x =4z= \r\n=A"), "1=3D2 =3D f =3Dx =3D4z=\r\n=3DA");
    EXPECT_EQ(through(mended, "=4 \r\n=x1\r\n=4 1\r\n="), "=3D4\r\n=3Dx1\r\n=3D4 1\r\n=");
    EXPECT_EQ(through(mended, "a" + std::string(76, ' ') + "\r\nb"), "a\r\nb") << "as many blanks as a line may have";
    EXPECT_EQ(through(mended, "a=" + std::string(76, ' ') + "\r\nb"), "a=\r\nb");
    EXPECT_EQ(through(mended, "From x\r\n=2D-b\r\n--b\r\n.\r\n"), "=46rom x\r\n=2D-b\r\n=2D-b\r\n=2E\r\n");
    EXPECT_EQ(through(mended, "a=0D=0Ab=0Ac"), "a=0D=0Ab=0Ac");
    const std::string lines = through(mended, std::string(300, 'y') + "=E4=E4" + std::string(300, ' ') + "z\r\n");
    expectShortLines(lines, 76);
    EXPECT_EQ(unquoted(lines), std::string(300, 'y') + "\xe4\xe4" + std::string(300, ' ') + "z\r\n");
}

TEST(SmimeFiltersTest, ReadsBlanksAtTheEndsOfQuotedLinesAsAdded) {
    // RFC 2045, 6.7, rule 3.
    EXPECT_EQ(through(unquoting, "a \t\r\nb\t\nc\r\n \r\nd "), "a\r\nb\nc\r\n\r\nd");
    EXPECT_EQ(through(unquoting, "soft= \t\r\nbreak =\nx=20 \r\n=09\n"), "softbreak x \r\n\t\n");
    EXPECT_EQ(through(unquoting, " in \t the\tline"), " in \t the\tline");
    // A CR alone ends none.
    EXPECT_EQ(through(unquoting, "a \rb\r \rc \r\r\nd\r"), "a \rb\r \rc \r\r\nd\r");
    EXPECT_EQ(through(unquoting, "a==\r\n=4z\r\n=\tb"), "a==\r\n=4z\r\n=\tb");
    EXPECT_EQ(through(unquoting, "a" + std::string(76, ' ') + "\r\n"), "a\r\n");
}

bool isWellQuoted(const std::string& text) {
    QuotedPrintableCheck whole;
    whole.see(text);
    whole.end();
    QuotedPrintableCheck bytes;
    for (const char& byte : text) {
        bytes.see({&byte, 1});
    }
    bytes.end();
    EXPECT_EQ(whole.isWellFormed(), bytes.isWellFormed()) << text;
    return whole.isWellFormed();
}

TEST(SmimeFiltersTest, KnowsQuotedPrintableThatIsReadInOneWay) {
    const std::string blanks(76, '\t');
    for (const std::string& text :
         {std::string("\0\xe4\r \r\n", 6), std::string("=3D=c3=A4=20=3d"), std::string("a=\nb= \t\r\n=\r\n"),
          "a" + blanks + "\r\n" + blanks + " x", "=" + blanks + "\n", blanks + "\r\n" + blanks + "\n" + blanks}) {
        EXPECT_TRUE(isWellQuoted(text)) << text;
    }
    for (const std::string& text :
         {std::string("="), std::string("x="), std::string("=\r"), std::string("=\rb"), std::string("= "),
          std::string("=4"), std::string("=4\n"), std::string("=4=41"), std::string("=g1"), std::string("= b"),
          std::string("=\0", 2), std::string("=\r41"), std::string("=\r\r\n"), std::string("=\r \n"),
          std::string("= 41"), std::string("= \r \n"), "a " + blanks + "\n", " " + blanks, "= " + blanks + "\n"}) {
        EXPECT_FALSE(isWellQuoted(text)) << text;
        EXPECT_FALSE(isWellQuoted("=20\r\n" + text)) << text;
    }
}

TEST(SmimeFiltersTest, KnowsTheDigitsOfAnOctet) {
    for (unsigned int value = 0; value != 256; ++value) {
        const std::string digit(1, static_cast<char>(value));
        const bool isDigit = std::string_view("0123456789ABCDEFabcdef").find(digit) != std::string_view::npos;
        EXPECT_EQ(isWellQuoted("=4" + digit), isDigit) << value;
        EXPECT_EQ(isWellQuoted("=" + digit + "4"), isDigit || digit == "\n") << value;
        if (isDigit) {
            EXPECT_EQ(through(quoted(QuotedFrom::quoted), "=" + digit + digit), "=" + digit + digit);
        } else if (value > ' ' && value < 0x7f && value != '=') {
            EXPECT_EQ(through(quoted(QuotedFrom::quoted), "=4" + digit), "=3D4" + digit);
        }
    }
}

TEST(SmimeFiltersTest, MendsToWhatTheReaderReadsUnlessItIsMalformed) {
    unsigned int wellFormed = 0;
    for (const std::string& text : textsOf("=\r\n 4\xe4", 5)) {
        if (isWellQuoted(text)) {
            const std::string lines = filtered(canonical(LoneReturn::data), text, text.size() + 1);
            EXPECT_EQ(unquoted(filtered(quoted(QuotedFrom::quoted), lines, 1)), unquoted(lines)) << text;
            ++wellFormed;
        }
    }
    EXPECT_GT(wellFormed, 1000U);
}

TEST(SmimeBoundaryTest, IsNewEachTimeAndNeverQuotedPrintableOrBase64) {
    const std::string one = newBoundary();
    EXPECT_THAT(one, testing::MatchesRegex("=_[a-z2-7]{32}"));
    EXPECT_NE(one, newBoundary());
}

bool watched(const std::vector<std::string>& boundaries, const std::string& text, std::size_t piece) {
    BoundaryWatch watch(boundaries);
    for (std::size_t at = 0; at < text.size(); at += piece) {
        watch.see(std::string_view(text).substr(at, piece));
    }
    return watch.found();
}

TEST(SmimeBoundaryTest, IsFoundWhereALineBeginsWithIt) {
    for (const std::size_t piece : {1U, 3U, 100U}) {
        for (const char* const text :
             {"--=_abc", "x\r\n--=_abc\r\n", "\n--=_abcd", "--=_ab\n--=_abc--\n", "--\n--=_xyz", "y\n--=_xyz "}) {
            EXPECT_TRUE(watched({"=_abc", "=_xyz"}, text, piece)) << text;
        }
        for (const char* const text : {"", "--=_ab", " --=_abc", "x--=_abc\n", "=_abc\n", "--=_ab\nc", "--\n=_abc",
                                       "--=_xyab", "x--=_abc\n-", "x\n--=_ab--=_abc\n-\n-"}) {
            EXPECT_FALSE(watched({"=_abc", "=_xyz"}, text, piece)) << text;
        }
    }
}

} // namespace
