// Policy constraints in certificates without policies (RFC 5280, 6.1): no policy holds for a chain with such a one, and what counts
// is whether one is demanded.

#include "Chains.h"
#include "Extensions.h"

#include <gtest/gtest.h>

#include <malloc.h>

using namespace trusttesting;

namespace {

using norvauthority::Bytes;
using norvauthority::Extension;
using norvauthority::policyConstraints;
using Extensions = std::vector<Extension>;

class TrustPolicyConstraints : public TrustTest {
protected:
    static Extension policies(const std::vector<std::string>& which) {
        return norvauthority::certificatePolicies(which);
    }
    static Extension demand(unsigned int certificates) { return policyConstraints(certificates, std::nullopt); }
    static Extension constraints(const Bytes& parts) { return {"2.5.29.36", parts, true}; }
    static Bytes part(unsigned char tag, const Bytes& number) { return norvauthority::der::element(tag, number); }

    /// A root, authorities with these extensions below it, each of the one before, and a person below the last.
    static std::string judgedBelow(const std::vector<std::pair<std::string, Extensions>>& authorities,
                                   const Extensions& ofPerson, const std::vector<std::string>& wanted = {}) {
        Case one;
        one.options.policies = wanted;
        Identity last = authority("Root", 0);
        one.anchor(last);
        std::size_t number = 0;
        for (const auto& [name, extensions] : authorities) {
            last = authority(name, ++number, &last, {.serial = std::to_string(number), .extensions = extensions});
            one.message(last);
        }
        return shown(one.judge(user(last, {.extensions = ofPerson})));
    }
    static std::string judged(const Extensions& ofAuthority, const Extensions& ofPerson,
                              const std::vector<std::string>& wanted = {}) {
        return judgedBelow({{"Middle", ofAuthority}}, ofPerson, wanted);
    }
};

// What OpenSSL decodes of such constraints it does not give back: the leak check of the tests sees it.
TEST_F(TrustPolicyConstraints, LeaveNothingBehind) {
    for (const std::size_t length : {1U, 60'000U}) { // a demand behind the last certificate of all
        const Bytes value = norvauthority::der::sequence({part(0x80, Bytes(length, 0x7F))});
        EXPECT_EQ(judged({}, {constraints(value)}), "accepted ");
        EXPECT_EQ(judged({constraints(value)}, {}), "accepted ");
        const Extension twice = policies({"1.2.3", "1.2.4", "1.2.3"});
        EXPECT_EQ(judged({}, {twice, constraints(value)}), "refused policy-invalid 0");
        EXPECT_EQ(judged({twice, constraints(value)}, {demand(9)}), "refused policy-invalid 1");
        EXPECT_EQ(judged({}, {policies({"2.5.29.32.0", "2.5.29.32.0"}), constraints(value)}),
                  "refused policy-invalid 0");
        EXPECT_EQ(judged({}, {policies({}), constraints(value)}), "refused policy-invalid 0");
        EXPECT_EQ(judged({}, {{"2.5.29.32", {0x30, 0x01}}, constraints(value)}), "refused policy-invalid 0");
        EXPECT_EQ(judged({policies({"1.2.3"})}, {policies({"1.2.4", "1.2.3"}), constraints(value)}), "accepted ");
    }
}

// The same without the leak check. What the allocator keeps for a thread counts as in use: some 25,000 octets, and 60,000 a judgement
// would be lost.
TEST_F(TrustPolicyConstraints, TakeNoMoreMemoryTheMoreOftenTheyAreJudged) {
    const auto inUse = [] { return mallinfo2().uordblks; }; // 0 under AddressSanitizer
    const Identity root = authority("Root", 0);
    const Extension huge = constraints(norvauthority::der::sequence({part(0x80, Bytes(60'000, 0x7F))}));
    const Identity hugeMiddle = authority("Middle", 1, &root, {.extensions = {huge}});
    const Identity middle = authority("Middle", 1, &root, {.extensions = {policies({"1.2.3"})}});
    const std::vector<std::pair<const Identity*, Identity>> chains{
        {&hugeMiddle, user(hugeMiddle)},
        {&middle, user(middle, {.extensions = {huge}})},
    };
    for (const auto& [issuer, person] : chains) {
        const auto judgeOften = [&, issuer = issuer, &person = person] {
            for (int turn = 0; turn != 50; ++turn) {
                Case one;
                EXPECT_EQ(shown(one.anchor(root).message(*issuer).judge(person)), "accepted ");
            }
        };
        judgeOften();
        const auto before = inUse();
        judgeOften();
        EXPECT_LT(inUse(), before + 500'000);
    }
}

TEST_F(TrustPolicyConstraints, ADemandCountsFromWhereItStands) {
    const char* const missing = "refused policy-missing 0";
    EXPECT_EQ(judged({demand(0)}, {policies({"1.2.3"})}), missing);
    EXPECT_EQ(judged({demand(1)}, {policies({"1.2.3"})}), missing) << "of the person";
    EXPECT_EQ(judged({demand(2)}, {policies({"1.2.3"})}), "accepted ") << "of whoever the person would issue";
    EXPECT_EQ(judged({}, {demand(0)}), missing);
    EXPECT_EQ(judged({}, {demand(1)}), "accepted ");
    EXPECT_EQ(judgedBelow({{"A", {demand(2)}}, {"B", {}}}, {}), missing);
    EXPECT_EQ(judgedBelow({{"A", {demand(3)}}, {"B", {}}}, {}), "accepted ");
    EXPECT_EQ(judgedBelow({{"A", {demand(9)}}, {"B", {demand(1)}}}, {}), missing) << "the smaller one";
    EXPECT_EQ(judgedBelow({{"A", {demand(2)}}, {"B", {demand(9)}}}, {}), missing);
    EXPECT_EQ(judgedBelow({{"A", {demand(2)}}, {"B", {policies({"1.2.3"}), demand(0)}}}, {policies({"1.2.3"})}),
              missing);
    EXPECT_EQ(judgedBelow({{"A", {policies({"1.2.3"}), demand(2)}}, {"B", {demand(9)}}}, {policies({"1.2.3"})}),
              missing)
        << "whoever has policies demands, too";
}

TEST_F(TrustPolicyConstraints, WhatIsIssuedToItselfDoesNotCount) {
    EXPECT_EQ(judgedBelow({{"A", {demand(2)}}, {"A", {}}}, {}), "accepted ");
    EXPECT_EQ(judgedBelow({{"A", {demand(1)}}, {"A", {}}}, {}), "refused policy-missing 0");
    Case one; // nothing below the anchor counts, and a policy is demanded from the beginning
    one.options.policies = {"1.2.3"};
    const Identity root = authority("Root", 0);
    EXPECT_EQ(shown(one.anchor(root).judge(user(root, {.extensions = {demand(9)}}, "Root"))),
              "refused policy-missing 0");
}

TEST_F(TrustPolicyConstraints, NoPolicyHoldsThatIsAskedFor) {
    EXPECT_EQ(judged({demand(9)}, {policies({"1.2.3"})}, {"1.2.3"}), "refused policy-missing 0");
    EXPECT_EQ(judged({policies({"1.2.3"})}, {demand(9)}, {"1.2.3"}), "refused policy-missing 0");
}

TEST_F(TrustPolicyConstraints, MappingThatIsInhibitedDemandsNothing) {
    EXPECT_EQ(judged({policyConstraints(std::nullopt, 0)}, {}), "accepted ");
    EXPECT_EQ(judged({}, {policyConstraints(std::nullopt, 0)}), "accepted ");
}

// The first of all extensions is there like any other: the same policy twice makes the certificate invalid (RFC 5280, 4.2.1.4).
TEST_F(TrustPolicyConstraints, PoliciesMayStandInFrontOfAllElse) {
    const Identity root = authority("Root", 0);
    const auto judgedWith = [&](const std::vector<std::string>& which) {
        Case one;
        return shown(one.anchor(root).judge(
            norvauthority::issue({.subject = {{"CN", "Anna"}},
                                  .key = key(9),
                                  .issuer = &root,
                                  .serial = "a1",
                                  .subjectKeyIdentifier = false,
                                  .authorityKeyIdentifier = false,
                                  .extensions = {policies(which), policyConstraints(std::nullopt, 0)}})));
    };
    EXPECT_EQ(judgedWith({"1.2.3"}), "accepted ");
    EXPECT_EQ(judgedWith({"1.2.3", "1.2.3"}), "refused policy-invalid 0");
}

TEST_F(TrustPolicyConstraints, OnesThatAreNone) {
    const auto sequence = [](const std::vector<Bytes>& parts) { return norvauthority::der::sequence(parts); };
    EXPECT_EQ(judged({constraints(sequence({}))}, {}), "refused policy-invalid 1") << "RFC 5280, 4.2.1.11";
    EXPECT_EQ(judged({constraints(sequence({part(0x80, {0xFF})}))}, {}), "refused policy-invalid 1");
    EXPECT_EQ(judged({constraints(sequence({part(0x81, {0xFF})}))}, {}), "refused policy-invalid 1");
    EXPECT_EQ(judged({constraints(sequence({part(0x80, {0x09}), part(0x81, {0x80})}))}, {}),
              "refused policy-invalid 1");
    EXPECT_EQ(judged({constraints({0x30, 0x01})}, {}), "refused policy-invalid 1") << "cut off";
    EXPECT_EQ(judged({constraints(sequence({}))}, {constraints(sequence({}))}),
              "refused policy-invalid 0, policy-invalid 1");
    EXPECT_EQ(judged({demand(9)}, {constraints(sequence({}))}), "refused policy-invalid 0");
}

TEST_F(TrustPolicyConstraints, WhoseAreNoneIsNamed) {
    const Extension empty = constraints(norvauthority::der::sequence(std::vector<Bytes>()));
    const Identity root = authority("Root", 0);
    const Identity middle = authority("Middle", 1, &root, {.extensions = {empty}});
    Case one;
    one.anchor(root).message(middle);
    const Verdict verdict = one.judge(user(middle));
    ASSERT_EQ(shown(verdict), "refused policy-invalid 1");
    EXPECT_EQ(verdict.reasons[0].text,
              "the certificate policies in the certificate of CN=Middle contradict themselves");
}

TEST_F(TrustPolicyConstraints, PoliciesBesideThemThatContradictThemselves) {
    EXPECT_EQ(judged({demand(9)}, {policies({"1.2.3", "1.2.3"})}), "refused policy-invalid 0");
    EXPECT_EQ(judged({policies({"1.2.3", "1.2.3"})}, {demand(9)}), "refused policy-invalid 1");
    std::vector<std::string> many;
    for (int number = 0; number != 1500; ++number) { // OpenSSL counts no further than 1,000
        many.push_back("1.2.3." + std::to_string(number));
    }
    EXPECT_EQ(judged({demand(9)}, {policies(many)}), "accepted ");
}

} // namespace
