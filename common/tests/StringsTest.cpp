#include <norvcmsg/Strings.h>

#include <gtest/gtest.h>

#include <clocale>
#include <string>

namespace {

using Norvane::stringCompareNoCase;
using Norvane::stringLeftTrim;
using Norvane::stringRightTrim;
using Norvane::stringToUpperNoCopy;

TEST(Strings, LeftTrimTakesWhiteSpaceFromTheStart) {
    EXPECT_EQ(stringLeftTrim(" \t\n\v\f\r a b "), "a b ");
    EXPECT_EQ(stringLeftTrim("a"), "a");
    EXPECT_EQ(stringLeftTrim(" \t"), "");
    EXPECT_EQ(stringLeftTrim(""), "");
}

TEST(Strings, RightTrimTakesWhiteSpaceFromTheEnd) {
    EXPECT_EQ(stringRightTrim(" a b \t\n\v\f\r"), " a b");
    EXPECT_EQ(stringRightTrim("a"), "a");
    EXPECT_EQ(stringRightTrim(" \t"), "");
    EXPECT_EQ(stringRightTrim(""), "");
}

TEST(Strings, TrimmingLeavesOtherBytes) {
    const std::string text("\0\xA0 x \xA0\0", 7);
    EXPECT_EQ(stringLeftTrim(stringRightTrim(text)), text);
}

TEST(Strings, UpperCaseIsAsciiAndInPlace) {
    std::string text = "az AZ 09 @[`{ m\xC3\xBC\xFF";
    EXPECT_EQ(&stringToUpperNoCopy(text), &text);
    EXPECT_EQ(text, "AZ AZ 09 @[`{ M\xC3\xBC\xFF");
}

TEST(Strings, UpperCaseIgnoresTheLocale) {
    std::setlocale(LC_ALL, "tr_TR.ISO-8859-9"); // may be missing, which changes nothing here
    std::string text = "i\xFD";
    stringToUpperNoCopy(text);
    std::setlocale(LC_ALL, "C");
    EXPECT_EQ(text, "I\xFD");
}

TEST(Strings, CompareWithoutCaseIsTrueWhenEqual) {
    EXPECT_TRUE(stringCompareNoCase("", "", 0));
    EXPECT_TRUE(stringCompareNoCase("CN=Abc", "cn=aBC", 0));
    EXPECT_FALSE(stringCompareNoCase("abc", "abd", 0));
    EXPECT_FALSE(stringCompareNoCase("abc", "ab", 0));
    EXPECT_FALSE(stringCompareNoCase("ab", "abc", 0));
    EXPECT_FALSE(stringCompareNoCase("@", "`", 0)) << "only letters have a case";
    EXPECT_FALSE(stringCompareNoCase("[", "{", 0));
    EXPECT_FALSE(stringCompareNoCase("\xC3\x84", "\xC3\xA4", 0)) << "only ASCII ones";
}

TEST(Strings, CompareLooksPastNulBytes) {
    EXPECT_FALSE(stringCompareNoCase(std::string("a\0b", 3), std::string("a\0c", 3), 0));
    EXPECT_FALSE(stringCompareNoCase(std::string("a\0b", 3), "a", 0));
    EXPECT_TRUE(stringCompareNoCase(std::string("a\0b", 3), std::string("A\0B", 3), 0));
}

TEST(Strings, AMaximumComparesTheStartOnly) {
    EXPECT_TRUE(stringCompareNoCase("mail.a", "MAIL.b", 5));
    EXPECT_FALSE(stringCompareNoCase("mail.a", "MAIL.b", 6));
    EXPECT_FALSE(stringCompareNoCase("mai", "MAIL", 4)) << "a text that ends earlier is not equal";
    EXPECT_TRUE(stringCompareNoCase("mai", "MAI", 4));
}

} // namespace
