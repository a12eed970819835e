#include <norvcmsg/StringPattern.h>

#include "../../src/Wildcards.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

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

TEST(StringPattern, AQuestionMarkWithinAPieceTakesAWholeUtf8Character) {
    EXPECT_TRUE(matches("*a?c*", "\xC3\xBC"
                                 "a\xE2\x82\xAC"
                                 "c@b"));
    EXPECT_TRUE(matches("*a?c*", "aXYc a\xF0\x9F\x98\x80"
                                 "c"));
    EXPECT_FALSE(matches("*a?c*", "a\xC3\xBC\xC3\xBC"
                                  "c@b"));
    EXPECT_FALSE(matches("*a??c*", "a\xC3\xBC"
                                   "c@b"));
    EXPECT_TRUE(matches("*\xC3\xBC?c*", "a\xC3\xBC\xC3\xA4"
                                        "c"));
}

TEST(StringPattern, AroundAQuestionMarkTheCaseOfTheDomainDoesNotMatterThatOfTheLocalPartDoes) {
    EXPECT_TRUE(matches("*@*A?c*m", "x@mail.aBC.com"));
    EXPECT_TRUE(matches("*@*-?1*m", "x@a-b1.com"));
    EXPECT_FALSE(matches("*@*-?1*m", "x@a\rb1.com"))
        << "only letters have another case"; // 0x0D is 0x2D without that bit
    EXPECT_FALSE(matches("*A?c*@*", "aBc@b"));
    EXPECT_FALSE(matches("*A?C*@*", "AbX@AbC"));
    EXPECT_TRUE(matches("*A?C*@*", "AbC@b"));
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

/// The plain recursive meaning of a pattern, for ASCII texts without a domain.
bool meaning(const char* pattern, const char* text) {
    if (*pattern == '\0') {
        return *text == '\0';
    }
    if (*pattern == '*') {
        return meaning(pattern + 1, text) || (*text != '\0' && meaning(pattern, text + 1));
    }
    return *text != '\0' && (*pattern == '?' || *pattern == *text) && meaning(pattern + 1, text + 1);
}

/// The word of a number in an alphabet.
std::vector<std::string> word(const std::vector<std::string>& alphabet, unsigned int number, unsigned int length) {
    std::vector<std::string> result;
    for (unsigned int i = 0; i < length; ++i) {
        result.push_back(alphabet[number % alphabet.size()]);
        number /= static_cast<unsigned int>(alphabet.size());
    }
    return result;
}

std::string joined(const std::vector<std::string>& characters) {
    std::string result;
    for (const auto& character : characters) {
        result += character;
    }
    return result;
}

unsigned int power(std::size_t base, unsigned int exponent) {
    return exponent == 0 ? 1 : static_cast<unsigned int>(base) * power(base, exponent - 1);
}

/// The meaning of a pattern by a table: which prefixes of it match which prefixes of the text, character by character.
bool tableMeaning(const std::vector<std::string>& pattern, const std::vector<std::string>& text) {
    std::size_t domain = text.size();
    for (std::size_t i = 0; i < text.size(); ++i) {
        domain = text[i] == "@" ? i + 1 : domain;
    }
    const auto folded = [](const std::string& character) { return character == "A" ? std::string("a") : character; };
    std::vector<std::vector<bool>> table(pattern.size() + 1, std::vector<bool>(text.size() + 1));
    table[0][0] = true;
    for (std::size_t p = 1; p <= pattern.size(); ++p) {
        const auto& wanted = pattern[p - 1];
        table[p][0] = wanted == "*" && table[p - 1][0];
        for (std::size_t t = 1; t <= text.size(); ++t) {
            const auto& given = text[t - 1];
            const bool equal = t > domain ? folded(wanted) == folded(given) : wanted == given;
            table[p][t] =
                wanted == "*" ? table[p - 1][t] || table[p][t - 1] : (wanted == "?" || equal) && table[p - 1][t - 1];
        }
    }
    return table.back().back();
}

void compareAll(const std::vector<std::string>& patternAlphabet, unsigned int longestPattern,
                const std::vector<std::string>& textAlphabet, unsigned int longestText) {
    for (unsigned int patternLength = 0; patternLength <= longestPattern; ++patternLength) {
        for (unsigned int p = 0; p < power(patternAlphabet.size(), patternLength); ++p) {
            const auto pattern = word(patternAlphabet, p, patternLength);
            const StringPattern compiled(joined(pattern));
            for (unsigned int textLength = 0; textLength <= longestText; ++textLength) {
                for (unsigned int t = 0; t < power(textAlphabet.size(), textLength); ++t) {
                    const auto text = word(textAlphabet, t, textLength);
                    ASSERT_EQ(compiled.matches(joined(text)), tableMeaning(pattern, text))
                        << joined(pattern) << ' ' << joined(text);
                }
            }
        }
    }
}

TEST(StringPattern, AllShortPatternsMeanWhatTheySay) {
    const std::vector<std::string> letters = {"a", "b"};
    for (unsigned int patternLength = 0; patternLength <= 5; ++patternLength) {
        for (unsigned int p = 0; p < power(4, patternLength); ++p) {
            const auto pattern = joined(word({"a", "b", "*", "?"}, p, patternLength));
            const StringPattern compiled(pattern);
            for (unsigned int length = 0; length <= 6; ++length) {
                for (unsigned int t = 0; t < power(2, length); ++t) {
                    const auto text = joined(word(letters, t, length));
                    ASSERT_EQ(compiled.matches(text), meaning(pattern.c_str(), text.c_str())) << pattern << ' ' << text;
                }
            }
        }
    }
}

TEST(StringPattern, AllShortPatternsMindTheDomain) {
    compareAll({"a", "A", "@", "*", "?"}, 4, {"a", "A", "@"}, 5);
}

TEST(StringPattern, AllShortPatternsTakeWholeCharacters) {
    compareAll({"a", "\xC3\xBC", "\xE2\x82\xAC", "*", "?"}, 4, {"a", "\xC3\xBC", "\xE2\x82\xAC"}, 4);
}

TEST(StringPattern, BytesThatAreNoUtf8AreCharacters) {
    compareAll({"a", "\xFF", "@", "*", "?"}, 4, {"a", "\xFF", "\xC3\xBC"}, 4);
    EXPECT_FALSE(matches("*\xBC", "\xC3\xBC")) << "half a character";
    EXPECT_FALSE(matches("*\xBC*", "\xC3\xBC")) << "half a character";
    EXPECT_FALSE(matches("\xC3*", "\xC3\xBC")) << "half a character";
    EXPECT_FALSE(matches("\xC3?", "\xC3\xBC")) << "half a character";
    EXPECT_FALSE(matches("*\xC3?*", "\xC3\xBC")) << "half a character";
    EXPECT_FALSE(matches("*\xBC@*", "\xC3\xBC@")) << "half a character";
    EXPECT_TRUE(matches("*\xBC@*", "\xC3\xBC \xBC@"));
    EXPECT_TRUE(matches("*\xC3*\xBC", "\xC3 \xC3\xBC \xBC"));
}

TEST(StringPattern, PiecesLongerThanAWordOfBitsAreFound) {
    for (const unsigned int length : {63U, 64U, 65U, 127U, 128U, 129U, 1000U}) {
        std::string piece(length, 'a');
        piece.back() = 'b';
        for (const unsigned int mark : {0U, 1U, length / 2, length - 2}) {
            auto marked = piece;
            marked[mark] = '?';
            const auto text = std::string(300, 'a') + piece + "aaa";
            EXPECT_TRUE(matches("*" + marked + "*", text)) << length << ' ' << mark;
            EXPECT_TRUE(matches("*" + marked + "aaa", text)) << length << ' ' << mark;
            EXPECT_FALSE(matches("*" + marked + "b*", text)) << length << ' ' << mark;
            EXPECT_FALSE(matches("*" + marked + "*", std::string(3000, 'a'))) << length << ' ' << mark;
        }
        EXPECT_TRUE(matches("*" + piece + "*", std::string(300, 'a') + piece + "aaa"));
        EXPECT_FALSE(matches("*" + piece + "*", std::string(3000, 'a')));
    }
}

/// What matching a pattern of about 10,000 characters against a text of 10,000 costs in steps.
struct Cost {
    std::string pattern;
    std::uint64_t most;
};

class HostilePattern : public testing::TestWithParam<Cost> {};

TEST_P(HostilePattern, TakesABoundedNumberOfSteps) {
    const auto text = std::string(10'000, 'a');
    for (const auto& subject : {text, "@" + text, text + "@", std::string(5000, 'a') + "@" + std::string(5000, 'a')}) {
        std::uint64_t steps = 0;
        Norvane::WildcardMatcher matcher(subject, [&] { ++steps; });
        EXPECT_FALSE(matcher.matches(GetParam().pattern));
        EXPECT_LE(steps, GetParam().most);
    }
}

std::string repeated(const std::string& text, unsigned int times) {
    std::string result;
    for (unsigned int i = 0; i < times; ++i) {
        result += text;
    }
    return result;
}

// Without "?" five steps for each of the 20,000 characters at most; with it three for each character of the text and
// each word of the longest piece, which is 79 words long where a piece has 5,000 bytes.
INSTANTIATE_TEST_SUITE_P(
    Patterns, HostilePattern,
    testing::Values(Cost{"*" + std::string(10'000, 'a') + "b*", 100'000},
                    Cost{"*" + std::string(5000, 'a') + "b*", 100'000},
                    Cost{"*" + std::string(5000, 'a') + "b" + std::string(4999, 'a') + "*", 100'000},
                    Cost{repeated("*a", 4999) + "*b*", 100'000}, Cost{repeated("*aab", 2500) + "*", 100'000},
                    Cost{"*" + repeated(std::string(99, 'a') + "b", 50) + "*", 100'000},
                    Cost{std::string(10'000, '*') + "b", 100'000}, Cost{std::string(10'000, '*') + "b*", 100'000},
                    Cost{"*" + std::string(4999, 'a') + "?b*", std::uint64_t{3} * 10'001 * 79},
                    Cost{"*?" + std::string(5000, 'a') + "b*", std::uint64_t{3} * 10'001 * 79},
                    Cost{"*" + repeated("?a", 2499) + "b*", std::uint64_t{3} * 10'001 * 79},
                    Cost{repeated("*?a", 3333) + "*b?*", 100'000}, Cost{repeated("*?", 5000) + "b?*", 100'000},
                    Cost{repeated("*a?a", 2500) + "*b*", 100'000}, Cost{"*" + std::string(5000, '?') + "b*", 100'000},
                    Cost{"*b" + std::string(5000, '?') + "*", 100'000},
                    Cost{"*" + std::string(3000, '?') + "ab" + std::string(3000, '?') + "*", 100'000},
                    Cost{std::string(10'002, '?'), 100'000}, Cost{"*" + std::string(10'002, '?'), 100'000}),
    [](const auto& cost) { return "Number" + std::to_string(cost.index); });

/// The steps for one hostile shape of a pattern of about `length` bytes.
std::uint64_t stepsFor(const std::string& unit, const std::string& end, unsigned int length, const std::string& text) {
    const auto pattern = repeated(unit, length / static_cast<unsigned int>(unit.size())) + end;
    std::uint64_t steps = 0;
    Norvane::WildcardMatcher matcher(text, [&] { ++steps; });
    EXPECT_FALSE(matcher.matches(pattern));
    return steps;
}

struct Shape {
    std::string unit;
    std::string end;
};

class HostileShape : public testing::TestWithParam<Shape> {};

// No address is longer than 254 bytes. Beyond that a longer pattern costs one step a byte, however it is made up.
TEST_P(HostileShape, CostsOneStepAByteAgainstTheLongestAddress) {
    const auto address = std::string(64, 'a') + "@" + std::string(189, 'a');
    const auto& [unit, end] = GetParam();
    for (const unsigned int length : {255U, 500U, 1000U, 10'000U, 100'000U, 1'000'000U}) {
        EXPECT_LE(stepsFor(unit, end, length, address), length + end.size() + 5'000) << length;
    }
}

// One piece that is as long as fits: three steps for each byte of the address and each of the four words.
TEST_P(HostileShape, CostsTwelveStepsForEachByteOfAnAddressAtMost) {
    const auto& [unit, end] = GetParam();
    for (const unsigned int bytes : {64U, 128U, 254U}) {
        const auto address = std::string(bytes / 4, 'a') + "@" + std::string(bytes - bytes / 4 - 1, 'a');
        for (unsigned int length = 1; length <= 2 * bytes; length += 7) {
            EXPECT_LE(stepsFor(unit, end, length, address), std::uint64_t{13} * bytes + 5 * (length + end.size()))
                << bytes << ' ' << length;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Shapes, HostileShape,
                         testing::Values(Shape{"?", "*b*"}, Shape{"a", "?*b*"}, Shape{"?a", "*b*"}, Shape{"*?", "*b?*"},
                                         Shape{"*?a", "*b?*"}, Shape{"*a", "?b*"}, Shape{"*", "?b*"}, Shape{"a?", "*b"},
                                         Shape{"**?a", "b"}),
                         [](const auto& shape) { return "Number" + std::to_string(shape.index); });

} // namespace
