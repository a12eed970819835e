// What norvcrypt bindings check says about patterns has to hold for every address: held against all short patterns and
// all short texts.

#include <identities/OwnerPatterns.h>
#include <norvcmsg/EmailAddress.h>
#include <norvcmsg/StringPattern.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

using Norvane::EmailAddress;
using Norvane::StringPattern;
using norvcrypt::PatternShape;
using norvcrypt::whyNeverMatches;

namespace {

/// All words of up to `longest` characters.
std::vector<std::string> words(const std::vector<std::string>& alphabet, unsigned int longest) {
    std::vector<std::string> all{""};
    for (std::size_t begin = 0; longest > 0; --longest) {
        const std::size_t end = all.size();
        for (std::size_t i = begin; i < end; ++i)
            for (const auto& character : alphabet)
                all.push_back(all[i] + character);
        begin = end;
    }
    return all;
}

bool covers(const std::string& one, const std::string& other) {
    return PatternShape(one).covers(PatternShape(other));
}

/// Checks that no text contradicts `covers`, and counts the pairs for which it says yes.
unsigned int countCovered(const std::vector<std::string>& patterns, const std::vector<std::string>& texts) {
    std::vector<std::vector<bool>> matches;
    for (const auto& pattern : patterns) {
        const StringPattern compiled(pattern);
        std::vector<bool>& row = matches.emplace_back();
        for (const auto& text : texts)
            row.push_back(compiled.matches(text));
    }
    unsigned int covered = 0;
    for (std::size_t a = 0; a < patterns.size(); ++a)
        for (std::size_t b = 0; b < patterns.size(); ++b) {
            const PatternShape one(patterns[a]);
            const PatternShape other(patterns[b]);
            if (!one.covers(other))
                continue;
            ++covered;
            EXPECT_EQ(one.key(), other.key()) << patterns[a] << ' ' << patterns[b];
            for (std::size_t t = 0; t < texts.size(); ++t)
                EXPECT_TRUE(!matches[b][t] || matches[a][t]) << patterns[a] << ' ' << patterns[b] << ' ' << texts[t];
        }
    return covered;
}

TEST(PatternShape, NoShortTextContradictsACover) {
    EXPECT_GT(countCovered(words({"a", "@", "*", "?"}, 4), words({"a", "@"}, 6)), 1000U);
}

TEST(PatternShape, NoShortTextContradictsACoverWhereCaseMatters) {
    EXPECT_GT(countCovered(words({"a", "A", "@", "*"}, 4), words({"a", "A", "@"}, 4)), 1000U);
}

TEST(PatternShape, NoShortTextContradictsACoverWhereCharactersHaveSeveralBytes) {
    EXPECT_GT(countCovered(words({"\xC3", "\xBC", "*", "?"}, 4), words({"\xC3", "\xBC"}, 6)), 1000U);
}

TEST(PatternShape, CoversWhatAnOperatorWouldExpect) {
    EXPECT_TRUE(covers("*@example.com", "*@example.com"));
    EXPECT_TRUE(covers("*@example.com", "*@EXAMPLE.com")) << "a domain's case does not matter";
    EXPECT_TRUE(covers("**@example.com", "*@example.com"));
    EXPECT_TRUE(covers("*@example.com", "?*@example.com"));
    EXPECT_TRUE(covers("*?@example.com", "?*@example.com"));
    EXPECT_TRUE(covers("*", "?"));
    EXPECT_FALSE(covers("a*@*", "a?@b*")) << "true, but of other literals: not decided";
    EXPECT_FALSE(covers("?*@example.com", "*@example.com"));
    EXPECT_FALSE(covers("alice@example.com", "Alice@example.com"));
    EXPECT_FALSE(covers("*@EXAMPLE.*", "*@example.*")) << "it may stand in a quoted local part";
    EXPECT_FALSE(covers("*@example.com", "*@example.org"));
}

TEST(WhyNeverMatches, NoShortAddressContradictsIt) {
    std::vector<std::string> addresses;
    for (const auto& text : words({"a", "@", "\"", ".", " "}, 7))
        if (!EmailAddress::rfc5321Parse(text, true).isNull())
            addresses.push_back(text);
    for (const char* literal : {"a@[1.2.3.4]", "a@[b:@]", "a@[b:@a]", "a@[b:a@b]", "\"@\"@[b:@a]"}) {
        ASSERT_FALSE(EmailAddress::rfc5321Parse(literal, true).isNull()) << literal;
        addresses.emplace_back(literal);
    }
    EXPECT_GT(addresses.size(), 100U);
    unsigned int refused = 0;
    for (const auto& pattern : words({"a", "@", "\"", ".", "*", "?", "]"}, 5)) {
        if (!whyNeverMatches(pattern))
            continue;
        ++refused;
        const StringPattern compiled(pattern);
        for (const auto& address : addresses)
            EXPECT_FALSE(compiled.matches(address)) << pattern << ' ' << address;
    }
    EXPECT_GT(refused, 1000U);
}

TEST(WhyNeverMatches, TellsWhatOperatorsGetWrong) {
    const auto reason = [](const std::string& pattern) { return whyNeverMatches(pattern).value_or(""); };
    EXPECT_EQ(reason("@example.com"), "it is no mail address, and has no wildcards");
    EXPECT_EQ(reason("example.com"), "it is no mail address, and has no wildcards");
    EXPECT_EQ(reason("Alice <alice@example.com>"), "it is no mail address, and has no wildcards");
    EXPECT_EQ(reason("*@"), "no domain can be \"\"");
    EXPECT_EQ(reason("*@example.com."), "no domain can be \"example.com.\"");
    EXPECT_EQ(reason("<*@example.com>"), "no domain can be \"example.com>\"");
    EXPECT_EQ(reason("@*.example.com"), "no local part can be \"\"");
    EXPECT_EQ(reason("al ice@*"), "no local part can be \"al ice\"");
    EXPECT_EQ(reason(std::string(255, '?')), "it asks for more than the 254 bytes that an address can have");
    for (const char* good :
         {"*", "?", "alice@example.com", "*@example.com", "*@*.example.com", "alice@*", "*.com", "\"a b\"@*",
          "\"a b\"@example.com", "*@[192.0.2.1]", "*@m\xC3\xBCller.example", "*ex?mple*"})
        EXPECT_EQ(reason(good), "") << good;
    EXPECT_EQ(reason(std::string(254, '?')), "");
    EXPECT_EQ(reason(std::string(10'000, '*')), "");
}

} // namespace
