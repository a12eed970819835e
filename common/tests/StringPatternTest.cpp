#include <norvcmsg/StringPattern.h>

#include <gtest/gtest.h>

#include <string>

namespace {

using Norvane::StringPattern;

bool matches(const std::string& pattern, const std::string& text) {
    return StringPattern(pattern).matches(text);
}

TEST(StringPattern, TheEmptyPatternMatchesTheEmptyTextOnly) {
    EXPECT_TRUE(StringPattern().matches(""));
    EXPECT_FALSE(StringPattern().matches("a"));
    EXPECT_TRUE(matches("", ""));
    EXPECT_FALSE(matches("", "a@b"));
}

TEST(StringPattern, LiteralsMatchTheWholeText) {
    EXPECT_TRUE(matches("fred@example.com", "fred@example.com"));
    EXPECT_FALSE(matches("fred@example.com", "fred@example.co"));
    EXPECT_FALSE(matches("fred@example.com", "fred@example.com.test"));
    EXPECT_FALSE(matches("fred@example.com", "alfred@example.com"));
    EXPECT_FALSE(matches("fred@example.com", ""));
}

TEST(StringPattern, AStarStandsForAnyNumberOfCharacters) {
    EXPECT_TRUE(matches("*", ""));
    EXPECT_TRUE(matches("*", "a@b"));
    EXPECT_TRUE(matches("***", "a"));
    EXPECT_TRUE(matches("*@example.com", "fred@example.com"));
    EXPECT_TRUE(matches("*@example.com", "@example.com"));
    EXPECT_FALSE(matches("*@example.com", "fred@mail.example.com"));
    EXPECT_TRUE(matches("*@*.example.com", "fred@mail.example.com"));
    EXPECT_FALSE(matches("*@*.example.com", "fred@example.com"));
    EXPECT_TRUE(matches("fred@*", "fred@example.com"));
    EXPECT_TRUE(matches("f*d@ex*le.c*m", "fred@example.com"));
    EXPECT_TRUE(matches("a*b*c", "aXbXbXc"));
    EXPECT_FALSE(matches("a*b*c", "aXbXbXd"));
    EXPECT_TRUE(matches("*aab", "aaaab"));
    EXPECT_FALSE(matches("*.example.com", "fred@example.com"));
}

TEST(StringPattern, AQuestionMarkStandsForOneCharacter) {
    EXPECT_TRUE(matches("fr?d@example.com", "fred@example.com"));
    EXPECT_FALSE(matches("fr?d@example.com", "frd@example.com"));
    EXPECT_FALSE(matches("fr?d@example.com", "freed@example.com"));
    EXPECT_FALSE(matches("?", ""));
    EXPECT_TRUE(matches("?*", "a"));
    EXPECT_TRUE(matches("*?", "abc"));
    EXPECT_FALSE(matches("*??", "a"));
    EXPECT_TRUE(matches("?@?", "a@b"));
}

TEST(StringPattern, AQuestionMarkTakesAWholeUtf8Character) {
    EXPECT_TRUE(matches("m?ller@b", "m\xC3\xBCller@b"));
    EXPECT_FALSE(matches("m??ller@b", "m\xC3\xBCller@b"));
    EXPECT_TRUE(matches("*?ller@b", "m\xC3\xBCller@b"));
    EXPECT_TRUE(matches("m?ller@b", "m\xFCller@b")) << "a byte that is no UTF-8 is one character";
    EXPECT_TRUE(matches("m\xC3\xBCller@*", "m\xC3\xBCller@b"));
}

TEST(StringPattern, TheCaseOfTheDomainDoesNotMatterThatOfTheLocalPartDoes) {
    EXPECT_TRUE(matches("fred@Example.com", "fred@eXAMPLE.COM"));
    EXPECT_FALSE(matches("Fred@example.com", "fred@example.com"));
    EXPECT_FALSE(matches("fred@example.com", "Fred@example.com"));
    EXPECT_TRUE(matches("*EXAMPLE.COM", "fred@example.com"));
    EXPECT_FALSE(matches("FRED*", "fred@example.com"));
}

TEST(StringPattern, TheDomainBeginsAfterTheLastAt) {
    EXPECT_FALSE(matches("\"a@B\"@c", "\"a@b\"@C"));
    EXPECT_TRUE(matches("\"a@b\"@c", "\"a@b\"@C"));
}

TEST(StringPattern, ATextWithoutAnAtHasNoDomain) {
    EXPECT_TRUE(matches("example.com", "example.com"));
    EXPECT_FALSE(matches("example.com", "Example.com"));
    EXPECT_FALSE(matches("example.com", "example.coM"));
}

TEST(StringPattern, OnlyAsciiLettersLoseTheirCase) {
    EXPECT_FALSE(matches("a@\xC3\x84", "a@\xC3\xA4"));
    EXPECT_FALSE(matches("a@[", "a@{"));
}

TEST(StringPattern, OtherSpecialCharactersStandForThemselves) {
    EXPECT_TRUE(matches(R"(a.b+c[d]\e$^()", R"(a.b+c[d]\e$^()"));
    EXPECT_FALSE(matches("a.b", "aXb"));
    EXPECT_FALSE(matches("[ab]", "a"));
    EXPECT_FALSE(matches(R"(\*)", "*"));
    EXPECT_TRUE(matches(R"(\*)", R"(\anything)"));
}

TEST(StringPattern, NulBytesAreCharacters) {
    EXPECT_FALSE(matches("a@b", std::string("a@b\0c", 5)));
    EXPECT_TRUE(matches("a@b?c", std::string("a@b\0c", 5)));
    EXPECT_TRUE(matches(std::string("a\0b", 3), std::string("a\0b", 3)));
}

TEST(StringPattern, HostilePatternsEnd) {
    // With backtracking into every star, each of these would outlast the sun.
    std::string stars;
    for (int i = 0; i < 2000; ++i) {
        stars += "*a";
    }
    EXPECT_FALSE(matches(stars + "*b", std::string(10'000, 'a')));
    EXPECT_TRUE(matches(stars + "*", std::string(10'000, 'a')));
    EXPECT_FALSE(matches(std::string(1000, '*') + "b", std::string(10'000, 'a')));
    std::string marks;
    for (int i = 0; i < 1000; ++i) {
        marks += "*?";
    }
    EXPECT_FALSE(matches(marks, std::string(999, 'a')));
    EXPECT_TRUE(matches(marks, std::string(1000, 'a')));
    EXPECT_FALSE(matches("*" + std::string(1000, 'a') + "b", std::string(10'000, 'a')));
}

TEST(StringPattern, ExposesItsTextAndLiteralLength) {
    const StringPattern pattern("*@*.ex?mple.com");
    EXPECT_EQ(pattern.text(), "*@*.ex?mple.com");
    EXPECT_EQ(pattern.literalLength(), 12U);
    EXPECT_EQ(StringPattern().literalLength(), 0U);
    EXPECT_EQ(StringPattern("**??").literalLength(), 0U);
}

TEST(StringPattern, CopiesMatchAlike) {
    StringPattern pattern("*@b");
    const StringPattern copy(pattern);
    EXPECT_TRUE(copy == pattern);
    pattern = StringPattern("c");
    EXPECT_TRUE(copy.matches("a@b"));
    EXPECT_FALSE(copy == pattern);
}

/// The plain recursive meaning of a pattern, against which all short ones are compared.
bool meaning(const char* pattern, const char* text) {
    if (*pattern == '\0') {
        return *text == '\0';
    }
    if (*pattern == '*') {
        return meaning(pattern + 1, text) || (*text != '\0' && meaning(pattern, text + 1));
    }
    return *text != '\0' && (*pattern == '?' || *pattern == *text) && meaning(pattern + 1, text + 1);
}

TEST(StringPattern, AllShortPatternsMeanWhatTheySay) {
    const auto word = [](const std::string& alphabet, unsigned int number, unsigned int length) {
        std::string result;
        for (unsigned int i = 0; i < length; ++i) {
            result += alphabet[number % alphabet.size()];
            number /= static_cast<unsigned int>(alphabet.size());
        }
        return result;
    };
    for (unsigned int patternLength = 0; patternLength <= 5; ++patternLength) {
        for (unsigned int p = 0; p < 1U << (2 * patternLength); ++p) {
            const auto pattern = word("ab*?", p, patternLength);
            const StringPattern compiled(pattern);
            for (unsigned int length = 0; length <= 6; ++length) {
                for (unsigned int t = 0; t < 1U << length; ++t) {
                    const auto text = word("ab", t, length);
                    ASSERT_EQ(compiled.matches(text), meaning(pattern.c_str(), text.c_str())) << pattern << ' ' << text;
                }
            }
        }
    }
}

} // namespace
