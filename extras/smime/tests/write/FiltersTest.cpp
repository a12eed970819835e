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

/// Quoted-printable decoded by GMime, with LF for CRLF.
std::string unquoted(const std::string& text) {
    std::string out;
    mime::Decoder decoder(mime::Transfer::quotedPrintable);
    decoder.decode(text, out);
    decoder.end(out);
    return out;
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

/// All texts of up to six of these bytes.
std::vector<std::string> textsOf(std::string_view bytes) {
    std::vector<std::string> texts{""};
    for (std::size_t at = 0; texts[at].size() < 6; ++at) {
        for (const char byte : bytes) {
            texts.push_back(texts[at] + byte);
        }
    }
    return texts;
}

TEST(SmimeFiltersTest, TakesEndsOfLinesInAnyOrder) {
    for (const std::string& text : textsOf("\r\na")) {
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
