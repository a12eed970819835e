// What delta lists do to a verdict.

#include "RevocationChains.h"

#include <gmock/gmock.h>

#include <ctime>

using namespace trusttesting;

namespace {

using TrustDeltaLists = TrustRevocation;

TEST_F(TrustDeltaLists, DeltaListsAddAndTakeAway) {
    CrlRequest base;
    base.crlNumber = "5";
    base.thisUpdate = Time::fromNow(-7200);
    base.freshest = {point("http://lists.example.org/delta.crl")};
    CrlRequest delta;
    delta.crlNumber = "6";
    delta.deltaBase = "5";
    delta.revoked = {{.serial = "a1"}};
    const Identity anna = user(
        m_middle, {.extensions = {{"2.5.29.46",
                                   norvauthority::distributionPoints({point("http://lists.example.org/delta.crl")})}}});
    Case one = with(Revocation::required);
    one.known(list(m_root)).known(list(m_middle, base));
    EXPECT_EQ(shown(one.judge(anna)), "accepted ");
    one.known(list(m_middle, delta));
    EXPECT_EQ(shown(one.judge(anna)), "refused revoked 0");
    // Taken off the list again (RFC 5280, 5.3.1: removeFromCRL).
    base.revoked = {{.serial = "a1", .reason = 6}};
    delta.revoked = {{.serial = "a1", .reason = 8}};
    Case back = with(Revocation::required);
    back.known(list(m_root)).known(list(m_middle, base));
    EXPECT_EQ(shown(back.judge(anna)), "refused revoked 0");
    back.known(list(m_middle, delta));
    EXPECT_EQ(shown(back.judge(anna)), "accepted ");
}

/// RFC 5280, 5.2.4: each has all that changed since its base, so that a later one has more. OpenSSL takes the first that it is given.
TEST_F(TrustDeltaLists, OfSeveralDeltaListsTheNewestIsUsed) {
    const std::time_t now = std::time(nullptr);
    const auto numbered = [&](const char* number, const char* base, long issuedAt, bool revokes,
                              long until = 7 * day) -> norvauthority::Crl {
        CrlRequest request{.thisUpdate = Time::at(now + issuedAt), .nextUpdate = Time::at(now + until)};
        request.crlNumber = number;
        if (base != nullptr) {
            request.deltaBase = base;
        } else {
            request.freshest = {point("http://lists.example.org/delta.crl")};
        }
        if (revokes) {
            request.revoked = {{.serial = "a1"}};
        }
        return list(m_middle, request);
    };
    const auto judged = [&](const std::vector<norvauthority::Crl>& known,
                            const std::vector<norvauthority::Crl>& inMessage = {}, std::optional<std::time_t> at = {}) {
        Case one = with(Revocation::required);
        one.options.at = at;
        one.known(list(m_root, {.thisUpdate = Time::at(now - 5 * day)}));
        one.known(numbered("5", nullptr, -4 * day, false));
        for (const auto& each : known) {
            one.known(each);
        }
        for (const auto& each : inMessage) {
            one.lists.push_back(read(each));
        }
        return shown(one.judge(m_anna));
    };
    const auto old = numbered("6", "5", -3 * day, false);
    const auto revoking = numbered("7", "5", -2 * day, true);
    for (const auto& known : {std::vector{old, revoking}, std::vector{revoking, old}}) {
        EXPECT_EQ(judged(known), "refused revoked 0");
    }
    EXPECT_EQ(judged({old}, {revoking}), "refused revoked 0");
    EXPECT_EQ(judged({revoking}, {old}), "refused revoked 0");
    const auto taken = numbered("8", "5", -day, false);
    EXPECT_EQ(judged({revoking, taken}), "accepted ") << "what was revoked by mistake and is so no more";
    // One of another base does not go with it, and one that is to come not yet.
    EXPECT_EQ(judged({numbered("9", "8", -60, false), old, revoking}), "refused revoked 0");
    EXPECT_EQ(judged({numbered("9", "5", 60, false), revoking}), "refused revoked 0");
    EXPECT_THAT(judged({old, revoking}, {}, now - 2 * day), testing::HasSubstr("revoked 0"))
        << "from its first second on";
    EXPECT_THAT(judged({old, revoking}, {}, now - 2 * day - 1), testing::Not(testing::HasSubstr("revoked 0")));
    // One that is over gives way to an older one, unless it revokes.
    EXPECT_EQ(judged({numbered("9", "5", -day, false, -60), old}), "accepted ");
    EXPECT_EQ(judged({numbered("9", "5", -day, true, -60), old}), "refused revoked 0");
    EXPECT_EQ(judged({numbered("9", "5", -day, false, -60), revoking}), "refused revoked 0");
    // Of two of one second the greater number tells.
    const auto greater = numbered("8", "5", -2 * day, false);
    EXPECT_EQ(judged({revoking, greater}), "accepted ");
    EXPECT_EQ(judged({greater, revoking}), "accepted ");
    const auto lesser = numbered("6", "5", -2 * day, false);
    EXPECT_EQ(judged({lesser, revoking}), "refused revoked 0");
    EXPECT_EQ(judged({revoking, lesser}), "refused revoked 0");
}

TEST_F(TrustDeltaLists, TheIndicatorMayStandInFrontOfAllElse) {
    const auto issued = [&](const std::vector<norvauthority::Extension>& extensions, long issuedAt, bool revokes) {
        CrlRequest request{.issuer = &m_middle, .thisUpdate = Time::fromNow(issuedAt), .authorityKeyIdentifier = false};
        request.extensions = extensions;
        if (revokes) {
            request.revoked = {{.serial = "a1"}};
        }
        return norvauthority::issueList(request);
    };
    const auto number = [](const char* digits) {
        return norvauthority::Extension{"2.5.29.20", norvauthority::der::integer(digits)};
    };
    const norvauthority::Extension sinceFive{"2.5.29.27", norvauthority::der::integer("5"), true};
    const norvauthority::Extension fresh{
        "2.5.29.46", norvauthority::distributionPoints({point("http://lists.example.org/delta.crl")})};
    Case one = with(Revocation::required);
    one.known(list(m_root)).known(issued({number("5"), fresh}, -3 * day, false));
    EXPECT_EQ(shown(one.judge(m_anna)), "accepted ");
    one.known(issued({sinceFive, number("9")}, day, false)); // to come, so that the other one counts
    one.known(issued({sinceFive, number("7")}, -day, true));
    EXPECT_EQ(shown(one.judge(m_anna)), "refused revoked 0");
}

} // namespace
