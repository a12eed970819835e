#include <norvcmsg/Escape.h>

#include <gtest/gtest.h>

#include <ostream>
#include <string>
#include <string_view>

namespace {

using Norvane::escapeForDisplay;
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
        Row{"Empty", "", ""}, Row{"Plain", "CN=a, \"b\" ~|", "CN=a, \"b\" ~|"}, Row{"Backslash", R"(\x0A)", R"(\x0A)"},
        Row{"Nul", "a\0b"sv, R"(a\x00b)"}, Row{"LineFeed", "a\nb", R"(a\x0Ab)"}, Row{"Tab", "\t", R"(\x09)"},
        Row{"Separator", "\x01", R"(\x01)"}, Row{"Escape", "\x1B[31m", R"(\x1B[31m)"}, Row{"Delete", "\x7F", R"(\x7F)"},
        Row{"Umlaut", "M\xC3\xBCller", "M\xC3\xBCller"}, Row{"Euro", "\xE2\x82\xAC", "\xE2\x82\xAC"},
        Row{"Emoji", "\xF0\x9F\x93\xA7", "\xF0\x9F\x93\xA7"}, Row{"FirstC1", "\xC2\x80", R"(\xC2\x80)"},
        Row{"NextLine", "\xC2\x85", R"(\xC2\x85)"}, Row{"LastC1", "\xC2\x9F", R"(\xC2\x9F)"},
        Row{"NoBreakSpace", "\xC2\xA0", "\xC2\xA0"}, Row{"LineSeparator", "\xE2\x80\xA8", R"(\xE2\x80\xA8)"},
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
        if (byte >= 0x20 && byte < 0x7F) {
            EXPECT_EQ(shown, std::string(1, static_cast<char>(byte)));
        } else {
            EXPECT_EQ(shown.size(), 4U) << byte;
            EXPECT_EQ(shown.substr(0, 2), "\\x");
        }
    }
}

} // namespace
