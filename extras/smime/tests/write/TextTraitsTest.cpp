// What is known of a text before it is sent: whatever stands in it, wherever, and in whatever pieces it comes.

#include "write/TextTraits.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

namespace {

using namespace Norvane::Crypto::SMime;
using namespace Norvane::Crypto::SMime::writing;

TextTraits traitsOf(const std::string& text, std::size_t piece) {
    TextTraits traits;
    for (std::size_t at = 0; at < text.size(); at += piece) {
        traits.see(std::string_view(text).substr(at, piece));
    }
    traits.end();
    return traits;
}

TextTraits traitsOf(const std::string& text) {
    const TextTraits whole = writing::traitsOf(text);
    for (const std::size_t piece : {1, 2, 5, 13}) {
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
    // The first and the last character of each length, and those beside the gap of the surrogates (RFC 3629, 3 and 4).
    for (const char* const text :
         {"", "a", "\xc3\xa4", "\xe2\x82\xac", "\xf0\x9f\x98\x80", "\x7f", "\xc2\x80", "\xdf\xbf", "\xe0\xa0\x80",
          "\xef\xbf\xbf", "\xf0\x90\x80\x80", "\xf4\x8f\xbf\xbf", "\xed\x9f\xbf", "\xee\x80\x80", "\xe1\x80\x80",
          "\xf1\x80\x80\x80", "\xc3\xa4\n\xc3\xa4"}) {
        EXPECT_TRUE(traitsOf(text).isUtf8()) << text;
    }
    for (const char* const text : {"\xe4",
                                   "\xc3",
                                   "\xc3\n\xa4",
                                   "\xc0\x80",
                                   "\xc1\xbf",
                                   "\xe0\x80\x80",
                                   "\xe0\x9f\xbf",
                                   "\xed\xa0\x80",
                                   "\xed\xbf\xbf",
                                   "\xf0\x80\x80\x80",
                                   "\xf0\x8f\xbf\xbf",
                                   "\xf4\x90\x80\x80",
                                   "\xff",
                                   "\x80",
                                   "\xe2\x82",
                                   "\xc3\xc0",
                                   "\xc3\x7f",
                                   "\xe2\x82\xc0",
                                   "\xe1\x80\x7f",
                                   "\xf1\x80\xc0\x80",
                                   "\xf5\x80\x80\x80",
                                   "\xe4\n\xc3\xa4",
                                   "long \xc3, and \xa4",
                                   "\xc3\xa4\xa4"}) {
        EXPECT_FALSE(traitsOf(text).isUtf8()) << text;
    }
}

/// Octet by octet, and by other means.
struct Simple {
    std::uint64_t longest = 0;
    std::uint64_t loneReturns = 0;
};

Simple simplySeen(const std::string& text) {
    Simple seen;
    std::uint64_t column = 0;
    for (std::size_t at = 0; at < text.size(); ++at) {
        const bool isPair = text.substr(at, 2) == "\r\n";
        if (text[at] == '\n' || isPair) {
            at += isPair ? 1 : 0;
            column = 0;
            continue;
        }
        seen.loneReturns += text[at] == '\r' ? 1 : 0;
        seen.longest = std::max(seen.longest, ++column);
    }
    return seen;
}

/// Most lines of a mail are as long as the one before, and are looked at by this: it is no more than a guess.
TEST(SmimeTextTraitsTest, CountsLinesOfEveryLengthBehindEqualOnes) {
    for (const char* const end : {"\n", "\r\n"}) {
        const std::string usual = std::string(20, 'a') + end;
        for (std::size_t length = 0; length != 45; ++length) {
            for (const char* const odd : {"\n", "\r\n", "\r", "\rb", "\r\r\n", "\n\r", "\n\rb", ""}) {
                const std::string text = usual + usual + std::string(length, 'b') + odd + usual;
                const TextTraits whole = traitsOf(text);
                const Simple expected = simplySeen(text);
                ASSERT_EQ(whole.longestLine(), expected.longest) << text;
                ASSERT_EQ(whole.loneReturns(), expected.loneReturns) << text;
                ASSERT_EQ(whole.controls(), expected.loneReturns) << text;
                ASSERT_EQ(whole.isRelayProof(), expected.loneReturns == 0) << text;
            }
        }
    }
    EXPECT_EQ(traitsOf("\raaaaaaaaaa\n\n").loneReturns(), 1U);
    EXPECT_EQ(traitsOf("\raaaaaaaaaa\n\n").longestLine(), 11U);
}

/// Wherever a piece ends, what lies in memory behind it and in front of it is none of the text.
TEST(SmimeTextTraitsTest, SeesNothingAroundItsPieces) {
    const std::string line = std::string(20, 'a') + "\r\n";
    const std::string odd = std::string(30, 'a') + '\x7f' + std::string(20, 'b') + '\n';
    const std::string text = line + line + "\r\n\n" + odd + line + "b";
    for (std::size_t from = 0; from <= text.size(); ++from) {
        for (std::size_t cut = from; cut <= text.size(); ++cut) {
            TextTraits pieces;
            pieces.see(std::string_view(text).substr(from, cut - from));
            pieces.see(std::string_view(text).substr(cut));
            pieces.end();
            ASSERT_EQ(pieces, traitsOf(text.substr(from), 1)) << from << ' ' << cut;
        }
        const std::string alone = text.substr(0, from);
        TextTraits start;
        start.see(std::string_view(text).substr(0, from));
        start.end();
        ASSERT_EQ(start, traitsOf(alone, 1)) << from;
    }
}

TEST(SmimeTextTraitsTest, MissesNothingInALineThatEnds) {
    for (const char* const end : {"\n", "\r\n"}) {
        for (std::size_t length = 8; length != 41; ++length) {
            for (std::size_t at = 0; at != length; ++at) {
                for (const char byte : {'\0', '\x1f', '\x7f', '\x80', '\xff'}) {
                    std::string line(length, '~');
                    line[at] = byte;
                    const TextTraits whole = traitsOf(line + end);
                    const bool isHigh = static_cast<unsigned char>(byte) >= 0x80;
                    ASSERT_EQ(whole.eightBit(), isHigh ? 1U : 0U) << length << ' ' << at;
                    ASSERT_EQ(whole.controls(), isHigh ? 0U : 1U) << length << ' ' << at;
                    ASSERT_EQ(whole.zeros(), byte == '\0' ? 1U : 0U) << length << ' ' << at;
                    ASSERT_EQ(whole.longestLine(), length);
                }
            }
        }
    }
}

/// A text that is read twice may have become another one in between.
TEST(SmimeTextTraitsTest, DifferWhereOneOfThemDoes) {
    for (const auto& [one, other] :
         std::vector<std::pair<std::string, std::string>>{{"aa\n", "aa\na"}, // octets
                                                          {"\xc3\xa4"
                                                           "a",
                                                           "\xe2\x82\xac"}, // 8-bit
                                                          {"a\x01", "ab"},  // control characters
                                                          {std::string("\0\x01", 2), std::string(2, '\0')},
                                                          {"\r\ra", "\r\x01"
                                                                    "a"},     // CR
                                                          {"aaa\n", "aa\na"}, // the longest line
                                                          {"a \n", "ab\n"},   // blanks
                                                          {".\n", "b\n"},     // dots
                                                          {"\xc3\xa4", "\xe4\xe4"}}) {
        EXPECT_TRUE(traitsOf(one) != traitsOf(other)) << one;
        EXPECT_TRUE(traitsOf(one) == traitsOf(one)) << one;
        EXPECT_TRUE(traitsOf(other) == traitsOf(other)) << one;
    }
}

TEST(SmimeTextTraitsTest, TextsWithoutALastLineEndHaveALastLine) {
    EXPECT_FALSE(writing::traitsOf("x ").isRelayProof());
    EXPECT_EQ(writing::traitsOf("x\nlonger").longestLine(), 6U);
    EXPECT_EQ(writing::traitsOf("x\r").loneReturns(), 1U);
}

} // namespace
