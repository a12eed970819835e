#include <norvcmsg/Escape.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <ostream>
#include <set>
#include <string>
#include <string_view>

namespace {

using Norvane::escapeForDisplay;
using Norvane::isDisplayable;
using namespace std::string_view_literals;

struct Row {
    std::string_view name;
    std::string_view text;
    std::string_view shown;
};

void PrintTo(const Row& row, std::ostream* out) {
    *out << row.name;
}

class Escape : public testing::TestWithParam<Row> {};

TEST_P(Escape, Shows) {
    EXPECT_EQ(escapeForDisplay(GetParam().text), GetParam().shown);
}

INSTANTIATE_TEST_SUITE_P(
    Bytes, Escape,
    testing::Values(
        Row{"Empty", "", ""}, Row{"Plain", "CN=a, \"b\" ~|", "CN=a, \"b\" ~|"}, Row{"Backslash", R"(\x0A)", R"(\\x0A)"},
        Row{"Backslashes", R"(\\)", R"(\\\\)"}, Row{"Nul", "a\0b"sv, R"(a\x00b)"}, Row{"LineFeed", "a\nb", R"(a\x0Ab)"},
        Row{"Tab", "\t", R"(\x09)"}, Row{"Separator", "\x01", R"(\x01)"}, Row{"Escape", "\x1B[31m", R"(\x1B[31m)"},
        Row{"Delete", "\x7F", R"(\x7F)"}, Row{"Umlaut", "M\xC3\xBCller", "M\xC3\xBCller"},
        Row{"Euro", "\xE2\x82\xAC", "\xE2\x82\xAC"}, Row{"Emoji", "\xF0\x9F\x93\xA7", "\xF0\x9F\x93\xA7"},
        Row{"FirstC1", "\xC2\x80", R"(\xC2\x80)"}, Row{"NextLine", "\xC2\x85", R"(\xC2\x85)"},
        Row{"LastC1", "\xC2\x9F", R"(\xC2\x9F)"}, Row{"NoBreakSpace", "\xC2\xA0", "\xC2\xA0"},
        Row{"LineSeparator", "\xE2\x80\xA8", R"(\xE2\x80\xA8)"},
        Row{"ParagraphSeparator", "\xE2\x80\xA9", R"(\xE2\x80\xA9)"},
        Row{"RightToLeftOverride", "\xE2\x80\xAE", R"(\xE2\x80\xAE)"},
        Row{"RightToLeftMark", "\xE2\x80\x8F", R"(\xE2\x80\x8F)"}, Row{"Isolate", "\xE2\x81\xA6", R"(\xE2\x81\xA6)"},
        Row{"ArabicLetterMark", "\xD8\x9C", R"(\xD8\x9C)"}, Row{"LoneContinuation", "a\x80z", R"(a\x80z)"},
        Row{"LoneLead", "\xC3", R"(\xC3)"}, Row{"LeadBeforeAscii", "\xC3(", R"(\xC3()"},
        Row{"Truncated", "\xE2\x82", R"(\xE2\x82)"}, Row{"TruncatedThenGood", "\xE2\x82\xC3\xBC", "\\xE2\\x82\xC3\xBC"},
        Row{"OverlongSlash", "\xC0\xAF", R"(\xC0\xAF)"}, Row{"OverlongNul", "\xE0\x80\x80", R"(\xE0\x80\x80)"},
        Row{"OverlongFour", "\xF0\x80\x80\x8A", R"(\xF0\x80\x80\x8A)"},
        Row{"Surrogate", "\xED\xA0\x80", R"(\xED\xA0\x80)"},
        Row{"PastUnicode", "\xF4\x90\x80\x80", R"(\xF4\x90\x80\x80)"},
        Row{"LastOfUnicode", "\xF4\x8F\xBF\xBF", "\xF4\x8F\xBF\xBF"}, Row{"Latin1", "M\xFCller", R"(M\xFCller)"},
        Row{"AllOnes", "\xFF\xFE", R"(\xFF\xFE)"}),
    [](const auto& test) { return std::string(test.param.name); });

TEST(EscapeAll, NoByteBreaksALine) {
    for (int byte = 0; byte < 256; ++byte) {
        const auto shown = escapeForDisplay(std::string(1, static_cast<char>(byte)));
        if (byte == '\\') {
            EXPECT_EQ(shown, "\\\\");
        } else if (byte >= 0x20 && byte < 0x7F) {
            EXPECT_EQ(shown, std::string(1, static_cast<char>(byte)));
        } else {
            EXPECT_EQ(shown.size(), 4U) << byte;
            EXPECT_EQ(shown.substr(0, 2), "\\x");
        }
    }
}

/// The UTF-8 of a code point, by RFC 3629, 3.
std::string utf8(std::uint32_t codePoint) {
    const auto byte = [](std::uint32_t value) { return static_cast<char>(static_cast<unsigned char>(value)); };
    if (codePoint < 0x80) {
        return {byte(codePoint)};
    }
    if (codePoint < 0x800) {
        return {byte(0xC0U | (codePoint >> 6U)), byte(0x80U | (codePoint & 0x3FU))};
    }
    if (codePoint < 0x10000) {
        return {byte(0xE0U | (codePoint >> 12U)), byte(0x80U | ((codePoint >> 6U) & 0x3FU)),
                byte(0x80U | (codePoint & 0x3FU))};
    }
    return {byte(0xF0U | (codePoint >> 18U)), byte(0x80U | ((codePoint >> 12U) & 0x3FU)),
            byte(0x80U | ((codePoint >> 6U) & 0x3FU)), byte(0x80U | (codePoint & 0x3FU))};
}

// The classes by name; the ranges are those of the Unicode Character Database, 15.0.
struct CodePoints {
    std::string_view name;
    std::uint32_t first;
    std::uint32_t last;
};

TEST(EscapeUnicode, CharactersThatAreNotSeenAreEscaped) {
    constexpr CodePoints hidden[] = {{"C0 controls", 0x00, 0x1F},
                                     {"delete and C1 controls", 0x7F, 0x9F},
                                     {"soft hyphen", 0xAD, 0xAD},
                                     {"combining grapheme joiner", 0x34F, 0x34F},
                                     {"Arabic letter mark", 0x61C, 0x61C},
                                     {"Hangul fillers", 0x115F, 0x1160},
                                     {"Khmer inherent vowels", 0x17B4, 0x17B5},
                                     {"Mongolian selectors and vowel separator", 0x180B, 0x180F},
                                     {"zero width space, joiners, marks of direction", 0x200B, 0x200F},
                                     {"line and paragraph separator", 0x2028, 0x2029},
                                     {"embeddings and overrides", 0x202A, 0x202E},
                                     {"word joiner, invisible operators, isolates", 0x2060, 0x206F},
                                     {"Hangul filler", 0x3164, 0x3164},
                                     {"variation selectors", 0xFE00, 0xFE0F},
                                     {"byte order mark", 0xFEFF, 0xFEFF},
                                     {"halfwidth Hangul filler", 0xFFA0, 0xFFA0},
                                     {"annotations", 0xFFF9, 0xFFFB},
                                     {"shorthand controls", 0x1BCA0, 0x1BCA3},
                                     {"musical controls", 0x1D173, 0x1D17A},
                                     {"tags and variation selectors", 0xE0000, 0xE0FFF}};
    for (const auto& range : hidden) {
        for (auto codePoint = range.first; codePoint <= range.last; ++codePoint) {
            const auto text = utf8(codePoint);
            const auto shown = escapeForDisplay(text);
            ASSERT_EQ(shown.size(), 4 * text.size()) << range.name << ' ' << std::hex << codePoint;
            ASSERT_EQ(shown.substr(0, 2), "\\x") << range.name << ' ' << std::hex << codePoint;
            ASSERT_FALSE(isDisplayable("a" + text));
        }
    }
}

TEST(EscapeUnicode, TheirNeighboursAreShown) {
    for (const std::uint32_t codePoint :
         {0x20U,    0x7EU,    0xA0U,    0xACU,    0xAEU,   0x34EU,  0x350U,  0x61BU,  0x61DU,  0x115EU,  0x1161U,
          0x17B3U,  0x17B6U,  0x180AU,  0x1810U,  0x200AU, 0x2010U, 0x2027U, 0x202FU, 0x205FU, 0x2070U,  0x3163U,
          0x3165U,  0xFDFFU,  0xFE10U,  0xFEFEU,  0xFF00U, 0xFF9FU, 0xFFA1U, 0xFFFCU, 0xFFFDU, 0x1BC9FU, 0x1BCA4U,
          0x1D172U, 0x1D17BU, 0xDFFFFU, 0xE1000U, 0xFCU,   0x416U,  0x5D0U,  0x627U,  0x4E2DU, 0x1F4E7U}) {
        EXPECT_EQ(escapeForDisplay(utf8(codePoint)), utf8(codePoint)) << std::hex << codePoint;
        EXPECT_TRUE(isDisplayable(utf8(codePoint))) << std::hex << codePoint;
    }
}

TEST(EscapeUnicode, NoTwoTextsLookTheSame) {
    // Every text of up to four of these letters: what is escaped, and what looks as if it had been.
    const std::string_view letters[] = {"\\", "x", "0", "A", "\n", "\xC3\xBC", "\xC3", "\xE2\x80\x8B"};
    std::set<std::string> texts{""};
    for (int length = 0; length < 4; ++length) {
        const auto before = texts;
        for (const auto& text : before) {
            for (const auto letter : letters) {
                texts.insert(text + std::string(letter));
            }
        }
    }
    std::set<std::string> shown;
    for (const auto& text : texts) {
        shown.insert(escapeForDisplay(text));
    }
    EXPECT_EQ(shown.size(), texts.size());
}

TEST(EscapeUnicode, TextsWithBackslashesMayBeShown) {
    EXPECT_TRUE(isDisplayable(R"("a\"b"@example.org)"));
    EXPECT_TRUE(isDisplayable(""));
    EXPECT_FALSE(isDisplayable("a\nb"));
    EXPECT_FALSE(isDisplayable("\xFF"));
    EXPECT_FALSE(isDisplayable("\xC3"));
}

} // namespace
