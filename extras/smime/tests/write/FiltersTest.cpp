// The filters that a part goes through on its way out, with what comes in cut in pieces of every size.

#include "write/Filters.h"
#include "mime/Transfer.h"
#include "support/Streams.h"
#include "write/Boundary.h"
#include "write/QuotedPrintable.h"
#include "write/TextTraits.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
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
    for (const std::size_t piece : {1, 2, 3, 7, 76}) {
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
        for (const std::size_t cut : {0, 1, 3}) {
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
          "a" + blanks + "\r\n" + blanks + " x", "=" + blanks + "\n"}) {
        EXPECT_TRUE(isWellQuoted(text)) << text;
    }
    for (const std::string& text :
         {std::string("="), std::string("x="), std::string("=\r"), std::string("=\rb"), std::string("= "),
          std::string("=4"), std::string("=4\n"), std::string("=4=41"), std::string("=g1"), std::string("= b"),
          std::string("=\0", 2), "a " + blanks + "\n", " " + blanks, "= " + blanks + "\n"}) {
        EXPECT_FALSE(isWellQuoted(text)) << text;
        EXPECT_FALSE(isWellQuoted("=20\r\n" + text)) << text;
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

TextTraits traitsOf(const std::string& text, std::size_t piece) {
    TextTraits traits;
    for (std::size_t at = 0; at < text.size(); at += piece) {
        traits.see(std::string_view(text).substr(at, piece));
    }
    traits.end();
    return traits;
}

TextTraits traitsOf(const std::string& text) {
    const TextTraits whole = traitsOf(text, text.size() + 1);
    for (const std::size_t piece : {1, 2, 5}) {
        EXPECT_TRUE(traitsOf(text, piece) == whole) << text;
    }
    return whole;
}

TEST(SmimeTextTraitsTest, KnowsWhatArrivesAsItIsSent) {
    for (const char* const text : {"", "a", "a\n", "a\r\n\r\nb", "From\n", " From me\n", "..\n", ". \na", "a\tb\n"}) {
        const bool blank = std::string(text).find(" \n") != std::string::npos;
        EXPECT_TRUE(traitsOf(text).isSendable()) << text;
        EXPECT_EQ(traitsOf(text).isRelayProof(), !blank) << text;
    }
    for (const char* const text : {"a \n", "a\t\r\n", "\n ", "From me\n", "x\r\nFrom ", ".\n", "x\n.\r\n", "x\n."}) {
        EXPECT_TRUE(traitsOf(text).isSendable()) << text;
        EXPECT_FALSE(traitsOf(text).isRelayProof()) << text;
    }
    for (const std::string& text : {std::string("\xe4"), std::string("\0", 1), std::string("a\rb"), std::string("a\r"),
                                    std::string("\r\r\n"), std::string(991, 'x')}) {
        EXPECT_FALSE(traitsOf(text).isSendable()) << text;
    }
    EXPECT_TRUE(traitsOf(std::string(990, 'x') + "\r\n" + std::string(990, 'x')).isRelayProof());
    EXPECT_EQ(traitsOf("ab\r\nabc\ra\n").longestLine(), 5U);
}

/// Runs of letters are looked at together: what stands among them, wherever, is found.
TEST(SmimeTextTraitsTest, MissesNothingAmongLetters) {
    for (std::size_t at = 0; at != 80; ++at) {
        for (const char byte : {'\0', '\x01', '\x7f', '\x80', '\xff', '\r', '\n', '\t', ' '}) {
            std::string text(80, 'a');
            text[at] = byte;
            TextTraits whole;
            whole.see(text);
            whole.end();
            TextTraits single;
            for (const char one : text) {
                single.see({&one, 1});
            }
            single.end();
            EXPECT_EQ(whole, single) << at;
            const bool isHigh = static_cast<unsigned char>(byte) >= 0x80;
            EXPECT_EQ(whole.eightBit(), isHigh ? 1U : 0U);
            EXPECT_EQ(whole.zeros(), byte == '\0' ? 1U : 0U);
            EXPECT_EQ(whole.loneReturns(), byte == '\r' ? 1U : 0U);
            EXPECT_EQ(whole.controls(), byte == '\0' || byte == '\x01' || byte == '\x7f' || byte == '\r' ? 1U : 0U);
            EXPECT_EQ(whole.longestLine(), byte == '\n' ? std::max(at, 79 - at) : 80U);
            EXPECT_EQ(whole.isUtf8(), !isHigh);
            EXPECT_EQ(whole.isRelayProof(),
                      !isHigh && byte != '\0' && byte != '\r' && !(at == 79 && (byte == ' ' || byte == '\t')));
        }
    }
}

/// Whole lines of letters are looked at together, too.
TEST(SmimeTextTraitsTest, MissesNothingAmongLines) {
    const std::string line(76, 'a');
    for (const std::string& odd :
         {std::string("From x, who wrote"), std::string("blank "), std::string("tab\t"), std::string("."),
          std::string("\xc3\xa4"), std::string("caf\xe4 au lait"), std::string("lone\rreturn"), std::string(1, '\0'),
          std::string("two returns\r"), std::string(991, 'x'), std::string(75, 'a') + ' ',
          std::string(75, 'a') + '\x7f', "From" + std::string(72, ' ') + 'x', "From " + std::string(71, 'x'),
          "Fron " + std::string(71, 'x')}) {
        for (const char* const end : {"\n", "\r\n"}) {
            for (std::size_t place = 0; place != 3; ++place) {
                std::string text;
                for (std::size_t number = 0; number != 4; ++number)
                    text += (number == place ? odd : line) + end;
                TextTraits single;
                for (const char one : text) {
                    single.see({&one, 1});
                }
                single.end();
                const TextTraits whole = traitsOf(text);
                EXPECT_EQ(whole, single) << text;
                const TextTraits alone = traitsOf(odd + end);
                EXPECT_EQ(whole.isRelayProof(), alone.isRelayProof()) << text;
                EXPECT_EQ(whole.isSendable(), alone.isSendable()) << text;
                EXPECT_EQ(whole.isUtf8(), alone.isUtf8()) << text;
                EXPECT_EQ(whole.eightBit(), alone.eightBit()) << text;
                EXPECT_EQ(whole.longestLine(), std::max<std::uint64_t>(76, alone.longestLine())) << text;
            }
        }
    }
    EXPECT_FALSE(traitsOf(line + "\r\nFrom " + line + "\r\n" + line).isRelayProof());
    EXPECT_FALSE(traitsOf(line + "\r\n" + line + " \r\n" + line).isRelayProof());
    EXPECT_TRUE(traitsOf(line + "\r\n" + line + "\r\n" + line + "\n" + line).isRelayProof());
}

TEST(SmimeTextTraitsTest, TellsUtf8FromOtherText) {
    for (const char* const text :
         {"", "a", "\xc3\xa4", "\xe2\x82\xac", "\xf0\x9f\x98\x80", "\xed\x9f\xbf", "\xf4\x8f\xbf\xbf"}) {
        EXPECT_TRUE(traitsOf(text).isUtf8()) << text;
    }
    for (const char* const text : {"\xe4", "\xc3", "\xc3\n\xa4", "\xc0\x80", "\xe0\x80\x80", "\xed\xa0\x80",
                                   "\xf0\x80\x80\x80", "\xf4\x90\x80\x80", "\xff", "\x80", "\xe2\x82"}) {
        EXPECT_FALSE(traitsOf(text).isUtf8()) << text;
    }
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
    for (const std::size_t piece : {1, 3, 100}) {
        for (const char* const text :
             {"--=_abc", "x\r\n--=_abc\r\n", "\n--=_abcd", "--=_ab\n--=_abc--\n", "--\n--=_xyz", "y\n--=_xyz "}) {
            EXPECT_TRUE(watched({"=_abc", "=_xyz"}, text, piece)) << text;
        }
        for (const char* const text :
             {"", "--=_ab", " --=_abc", "x--=_abc\n", "=_abc\n", "--=_ab\nc", "--\n=_abc", "--=_xyab"}) {
            EXPECT_FALSE(watched({"=_abc", "=_xyz"}, text, piece)) << text;
        }
    }
}

} // namespace
