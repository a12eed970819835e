#include <norvcrypto-trust/TrustVerdict.h>

#include "support/Places.h"

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <set>
#include <string>

using namespace Norvane::Crypto::Trust;

namespace {

TEST(TrustNames, EveryReasonHasANumberAndANameOfItsOwn) {
    std::set<std::string> names;
    int before = 0;
    for (const ReasonCode code : reasonCodes()) {
        EXPECT_GT(static_cast<int>(code), before);
        before = static_cast<int>(code);
        EXPECT_TRUE(names.insert(nameOf(code)).second) << nameOf(code);
    }
    ASSERT_FALSE(names.empty());
    EXPECT_EQ(reasonCodes().front(), ReasonCode::issuerMissing);
    EXPECT_EQ(reasonCodes().back(), ReasonCode::other);
    EXPECT_STREQ(nameOf(ReasonCode::certificateExpired), "certificate-expired");
    EXPECT_EQ(static_cast<int>(ReasonCode::certificateExpired), 11);
    EXPECT_STREQ(nameOf(static_cast<ReasonCode>(12345)), "other");
}

TEST(TrustNames, EveryReasonIsExplainedToPeople) {
    std::ifstream file(std::string(norvtest::sourceDirectory) + "/docs/trust.md");
    const std::string text{std::istreambuf_iterator<char>(file), {}};
    for (const ReasonCode code : reasonCodes()) {
        const std::string row = "\n| " + std::to_string(static_cast<int>(code)) + " | `" + nameOf(code) + "` | ";
        EXPECT_NE(text.find(row), std::string::npos) << nameOf(code);
    }
}

TEST(TrustNames, OptionsAreSpelledAsTheToolDoes) {
    EXPECT_STREQ(nameOf(Revocation::none), "none");
    EXPECT_STREQ(nameOf(Revocation::available), "available");
    EXPECT_STREQ(nameOf(Revocation::required), "required");
    EXPECT_STREQ(nameOf(Purpose::any), "any");
    EXPECT_STREQ(nameOf(Purpose::sign), "sign");
    EXPECT_STREQ(nameOf(Purpose::encrypt), "encrypt");
    EXPECT_STREQ(nameOf(Purpose::authority), "authority");
    EXPECT_STREQ(nameOf(RevocationStatus::notLookedAt), "not-looked-at");
    EXPECT_STREQ(nameOf(RevocationStatus::noList), "no-list");
    EXPECT_STREQ(nameOf(RevocationStatus::unusable), "unusable");
    EXPECT_STREQ(nameOf(RevocationStatus::good), "good");
    EXPECT_STREQ(nameOf(RevocationStatus::revoked), "revoked");
    // What is none of them, next to them and far away.
    for (const int number : {5, -1, 1000}) {
        EXPECT_STREQ(nameOf(static_cast<RevocationStatus>(number)), "other");
        EXPECT_STREQ(nameOf(static_cast<Purpose>(number)), "other");
        EXPECT_STREQ(nameOf(static_cast<Revocation>(number)), "other");
    }
    EXPECT_STREQ(nameOf(static_cast<Purpose>(4)), "other");
    EXPECT_STREQ(nameOf(static_cast<Revocation>(3)), "other");
}

} // namespace
