// What revocation lists do to a verdict.

#include "RevocationChains.h"
#include "support/TemporaryFolder.h"

#include <gmock/gmock.h>

using namespace trusttesting;
using testing::HasSubstr;

namespace {

using Code = ReasonCode;
using norvauthority::DistributionPointName;

TEST_F(TrustRevocation, GoodWithAListOfEachIssuer) {
    Case one = with(Revocation::required);
    const Verdict verdict = one.known(list(m_middle)).known(list(m_root)).judge(m_anna);
    EXPECT_EQ(shown(verdict), "accepted ");
    EXPECT_EQ(states(verdict), "good, good, not-looked-at");
    ASSERT_EQ(verdict.links[0].lists.size(), 1U);
    EXPECT_EQ(verdict.links[0].lists[0]->crlInfo().issuer().asString(), "CN=Middle");
    EXPECT_TRUE(verdict.links[2].lists.empty()) << "nobody revokes an anchor";
}

TEST_F(TrustRevocation, NotAskedFor) {
    Case one = with(Revocation::none);
    const Verdict verdict = one.known(list(m_middle, {.revoked = {{.serial = "a1"}}})).judge(m_anna);
    EXPECT_EQ(shown(verdict), "accepted ");
    EXPECT_EQ(states(verdict), "not-looked-at, not-looked-at, not-looked-at");
}

TEST_F(TrustRevocation, ARevokedCertificate) {
    for (const Revocation mode : {Revocation::available, Revocation::required}) {
        Case one = with(mode);
        one.known(list(m_root))
            .known(list(m_middle, {.revoked = {{.serial = "a1", .date = Time::utc("260102030405Z"), .reason = 1}}}));
        const Verdict verdict = one.judge(m_anna);
        EXPECT_EQ(shown(verdict), "refused revoked 0");
        EXPECT_EQ(verdict.reasons[0].text,
                  "the certificate of CN=Anna was revoked on 2026-01-02 03:04:05 UTC (its key became "
                  "known), as the list of CN=Middle says");
        EXPECT_EQ(states(verdict), "revoked, good, not-looked-at");
    }
}

TEST_F(TrustRevocation, ARevokedIssuer) {
    Case one = with(Revocation::required);
    const Verdict verdict =
        one.known(list(m_middle)).known(list(m_root, {.revoked = {{.serial = "b2"}}})).judge(m_anna);
    EXPECT_EQ(shown(verdict), "refused revoked 1");
    EXPECT_EQ(states(verdict), "good, revoked, not-looked-at");
}

TEST_F(TrustRevocation, NoList) {
    Verdict verdict = with(Revocation::required).judge(m_anna);
    EXPECT_EQ(shown(verdict), "refused list-missing 0, list-missing 1");
    EXPECT_EQ(verdict.reasons[0].text, "no revocation list of CN=Middle covers the certificate of CN=Anna");
    EXPECT_EQ(verdict.reasons[0].advice, "fetch the list from http://lists.example.org/middle.crl");
    EXPECT_EQ(verdict.reasons[1].advice, "fetch the list from where its issuer distributes it");
    EXPECT_EQ(states(verdict), "no-list, no-list, not-looked-at");
    Case lower = with(Revocation::required);
    verdict = lower.known(list(m_middle)).judge(m_anna);
    EXPECT_EQ(shown(verdict), "refused list-missing 1");
    EXPECT_EQ(verdict.reasons[0].text, "no revocation list of CN=Root covers the certificate of CN=Middle");
    verdict = with(Revocation::available).judge(m_anna);
    EXPECT_EQ(shown(verdict), "accepted ");
    EXPECT_EQ(codesOf(verdict.notes), "list-missing 0, list-missing 1");
    EXPECT_TRUE(verdict.mentions(Code::listMissing));
    EXPECT_EQ(states(verdict), "no-list, no-list, not-looked-at");
}

TEST_F(TrustRevocation, ListsThatAreOverOrNotYet) {
    CrlRequest over;
    over.thisUpdate = Time::utc("251201000000Z");
    over.nextUpdate = Time::utc("260102000000Z");
    CrlRequest future;
    future.thisUpdate = Time::fromNow(day);
    for (const auto& [request, code] : {std::pair{over, "list-expired 0"}, std::pair{future, "list-not-yet-valid 0"}}) {
        Case one = with(Revocation::required);
        one.known(list(m_root)).known(list(m_middle, request));
        Verdict verdict = one.judge(m_anna);
        EXPECT_EQ(shown(verdict), std::string("refused ") + code);
        EXPECT_EQ(states(verdict), "unusable, good, not-looked-at");
        one.options.revocation = Revocation::available;
        verdict = one.judge(m_anna);
        EXPECT_EQ(shown(verdict), "accepted ");
        EXPECT_EQ(codesOf(verdict.notes), code);
        EXPECT_EQ(states(verdict), "unusable, good, not-looked-at");
    }
    Case one = with(Revocation::required);
    one.known(list(m_root)).known(list(m_middle, over));
    const Verdict verdict = one.judge(m_anna);
    EXPECT_EQ(verdict.reasons[0].text, "the revocation list of CN=Middle expired on 2026-01-02 00:00:00 UTC");
    EXPECT_EQ(verdict.reasons[0].advice, "fetch it anew from http://lists.example.org/middle.crl");
    CrlRequest coming;
    coming.thisUpdate = Time::utc("480102030405Z");
    coming.nextUpdate = Time::utc("490102030405Z");
    coming.revoked = {{.serial = "a1"}};
    Case later = with(Revocation::required);
    const Verdict early = later.known(list(m_root)).known(list(m_middle, coming)).judge(m_anna);
    EXPECT_EQ(shown(early), "refused list-not-yet-valid 0, revoked 0");
    EXPECT_EQ(early.reasons[0].text, "the revocation list of CN=Middle is valid from 2048-01-02 03:04:05 UTC on");
}

/// Each certificate of a chain has its own lists: what is wrong with them is told of all, with where each is distributed.
TEST_F(TrustRevocation, StaleComingAndMissingListsAreToldOfLeafAndMiddleAtOnce) {
    const Identity upper = authority("Upper", 2, &m_root, {.serial = "c3"});
    const Identity lower = authority(
        "Lower", 3, &upper, {.serial = "c4", .crlDistributionPoints = {point("http://lists.example.org/upper.crl")}});
    const Identity anna = user(
        lower, {.notAfter = Time::fromNow(-day), .crlDistributionPoints = {point("http://a/1"), point("http://b/2")}});
    CrlRequest over;
    over.thisUpdate = Time::utc("251201000000Z");
    over.nextUpdate = Time::utc("260102000000Z");
    Case one;
    one.anchor(m_root).message(lower).message(upper).required();
    one.known(list(lower, over)).known(list(upper, over));
    Verdict verdict = one.judge(anna);
    EXPECT_EQ(shown(verdict), "refused list-expired 0, certificate-expired 0, list-expired 1, list-missing 2");
    EXPECT_EQ(states(verdict), "unusable, unusable, no-list, not-looked-at");
    EXPECT_EQ(find(verdict.reasons, Code::listExpired).advice, "fetch it anew from http://a/1 or http://b/2");
    const auto ofLower = std::find_if(verdict.reasons.begin(), verdict.reasons.end(), [](const Reason& each) {
        return each.code == Code::listExpired && each.depth == 1;
    });
    ASSERT_NE(ofLower, verdict.reasons.end());
    EXPECT_EQ(ofLower->certificate->subject().asString(), "CN=Lower");
    EXPECT_EQ(ofLower->text, "the revocation list of CN=Upper expired on 2026-01-02 00:00:00 UTC");
    EXPECT_EQ(ofLower->advice, "fetch it anew from http://lists.example.org/upper.crl");

    CrlRequest coming;
    coming.thisUpdate = Time::fromNow(day);
    Case mixed;
    mixed.anchor(m_root).message(lower).message(upper).required();
    mixed.known(list(lower, coming)).known(list(upper, over)).known(list(m_root, coming));
    EXPECT_EQ(shown(mixed.judge(anna)),
              "refused list-not-yet-valid 0, certificate-expired 0, list-expired 1, list-not-yet-valid 2");
    mixed.options.revocation = Revocation::available;
    verdict = mixed.judge(anna);
    EXPECT_EQ(shown(verdict), "refused certificate-expired 0");
    EXPECT_EQ(codesOf(verdict.notes), "list-not-yet-valid 0, list-expired 1, list-not-yet-valid 2");
}

/// Revoked below, above and by a list that is out of date itself: none hides another.
TEST_F(TrustRevocation, RevokedLeafAndMiddleAreToldAtOnce) {
    CrlRequest over;
    over.thisUpdate = Time::utc("251201000000Z");
    over.nextUpdate = Time::utc("260102000000Z");
    over.revoked = {{.serial = "b2"}};
    Case one = with(Revocation::required);
    one.known(list(m_middle, {.revoked = {{.serial = "a1"}}})).known(list(m_root, over));
    EXPECT_EQ(shown(one.judge(m_anna)), "refused revoked 0, list-expired 1, revoked 1");
}

TEST_F(TrustRevocation, AnOldListStillRevokes) {
    CrlRequest over;
    over.thisUpdate = Time::utc("251201000000Z");
    over.nextUpdate = Time::utc("260102000000Z");
    over.revoked = {{.serial = "a1"}};
    Case one = with(Revocation::available);
    const Verdict verdict = one.known(list(m_middle, over)).judge(m_anna);
    EXPECT_EQ(shown(verdict), "refused revoked 0");
    EXPECT_EQ(states(verdict), "revoked, no-list, not-looked-at");
}

TEST_F(TrustRevocation, TheNewestOfSeveralIsUsed) {
    CrlRequest older;
    older.thisUpdate = Time::fromNow(-7200);
    CrlRequest newer;
    newer.thisUpdate = Time::fromNow(-60);
    newer.revoked = {{.serial = "a1"}};
    Case one = with(Revocation::required);
    one.known(list(m_root)).known(list(m_middle, newer)).known(list(m_middle, older));
    EXPECT_EQ(shown(one.judge(m_anna)), "refused revoked 0");
}

/// RFC 5280, 5.2.3: the number tells which of two replaces the other. OpenSSL knows the times alone.
TEST_F(TrustRevocation, OfTwoListsOfOneSecondTheGreaterNumberIsUsed) {
    const Time second = Time::fromNow(-7200);
    const auto numbered = [&](const std::optional<std::string>& number, bool revokes) {
        CrlRequest request{.issuer = &m_middle, .thisUpdate = second};
        request.crlNumber = number;
        if (revokes) {
            request.revoked = {{.serial = "a1"}};
        }
        return norvauthority::issueList(request);
    };
    const auto judged = [&](const std::vector<norvauthority::Crl>& known) {
        Case one = with(Revocation::required);
        one.known(list(m_root));
        for (const auto& each : known) {
            one.known(each);
        }
        return shown(one.judge(m_anna));
    };
    const std::vector<std::pair<std::optional<std::string>, std::optional<std::string>>> lesserAndGreater{
        {"5", "6"}, {"7f", "80"}, {"ff", "0100"}, {"02ff", "0301"}, {"-6", "5"}, {"-ff", "1"}, {std::nullopt, "1"}};
    for (const auto& [lesser, greater] : lesserAndGreater) {
        SCOPED_TRACE(lesser.value_or("none") + " " + greater.value_or("none"));
        for (const bool revokes : {false, true}) {
            const auto old = numbered(lesser, !revokes);
            const auto valid = numbered(greater, revokes);
            const std::string expected = revokes ? "refused revoked 0" : "accepted ";
            EXPECT_EQ(judged({old, valid}), expected);
            EXPECT_EQ(judged({valid, old}), expected);
        }
    }
    CrlRequest later{.thisUpdate = Time::fromNow(-3600)};
    later.crlNumber = "1";
    EXPECT_EQ(judged({numbered("6", true), list(m_middle, later)}), "accepted ") << "times go before numbers";
}

TEST_F(TrustRevocation, AnOldListInAMessageHidesNothing) {
    CrlRequest older;
    older.thisUpdate = Time::fromNow(-7200);
    CrlRequest newer;
    newer.thisUpdate = Time::fromNow(-60);
    newer.revoked = {{.serial = "a1"}};
    for (const Revocation mode : {Revocation::available, Revocation::required}) {
        Case one = with(mode);
        one.known(list(m_root)).known(list(m_middle, newer));
        one.lists.push_back(read(list(m_middle, older)));
        EXPECT_EQ(shown(one.judge(m_anna)), "refused revoked 0");
    }
}

/// What was revoked since stays so when the list that says it is over, and the old one is not.
TEST_F(TrustRevocation, AnOldListHidesNothingOfOneThatIsOver) {
    constexpr long hour = 3600;
    CrlRequest older;
    older.thisUpdate = Time::fromNow(-6 * hour);
    CrlRequest over;
    over.thisUpdate = Time::fromNow(-4 * hour);
    over.nextUpdate = Time::fromNow(-2 * hour);
    over.revoked = {{.serial = "a1"}};
    const auto judged = [&](const norvauthority::Crl& known, const norvauthority::Crl& brought,
                            std::optional<std::time_t> at = {}) {
        Case one = with(Revocation::required);
        one.options.at = at;
        one.known(list(m_root, {.thisUpdate = Time::fromNow(-9 * hour)})).known(known);
        one.lists.push_back(read(brought));
        const std::string strict = shown(one.judge(m_anna));
        one.options.revocation = Revocation::available;
        return strict + "; " + shown(one.judge(m_anna));
    };
    EXPECT_EQ(judged(list(m_middle, over), list(m_middle, older)),
              "refused list-expired 0, revoked 0; refused revoked 0");
    EXPECT_EQ(judged(list(m_middle, older), list(m_middle, over)),
              "refused list-expired 0, revoked 0; refused revoked 0");
    // A newer one takes back what was on hold, a forged one revokes nothing, and what is to come is not yet so.
    EXPECT_EQ(judged(list(m_middle, over), list(m_middle)), "accepted ; accepted ");
    Identity eve = authority("Middle", 6);
    CrlRequest forged = over;
    forged.authorityKeyIdentifierValue = m_middle.keyIdentifier;
    EXPECT_EQ(judged(list(eve, forged), list(m_middle, older)), "accepted ; accepted ");
    EXPECT_EQ(judged(list(m_middle, over), list(m_middle, older), std::time(nullptr) - 5 * hour),
              "accepted ; accepted ");
    CrlRequest odd = over;
    odd.extensions = {{"1.2.3.4", norvauthority::der::null(), true}};
    EXPECT_EQ(judged(list(m_middle, odd), list(m_middle, older), std::time(nullptr) - 5 * hour),
              "accepted ; accepted ");
    // Of the same second, the number tells which is the old one.
    CrlRequest beside = over;
    beside.revoked.clear();
    beside.nextUpdate = Time::fromNow(24 * hour);
    over.crlNumber = "6";
    beside.crlNumber = "5";
    EXPECT_EQ(judged(list(m_middle, over), list(m_middle, beside)),
              "refused list-expired 0, revoked 0; refused revoked 0");
    beside.crlNumber = "7";
    EXPECT_EQ(judged(list(m_middle, over), list(m_middle, beside)), "accepted ; accepted ");
    over.revoked = {{.serial = "a2"}};
    EXPECT_EQ(judged(list(m_middle, over), list(m_middle, older)), "accepted ; accepted ");
}

/// Nor of one that cannot be used for another reason, and is refused by itself, since nobody knows what else it would say.
TEST_F(TrustRevocation, AnOldListHidesNothingOfOneThatCannotBeUsed) {
    constexpr long hour = 3600;
    CrlRequest older;
    older.thisUpdate = Time::utc("251201000000Z");
    CrlRequest newer;
    newer.thisUpdate = Time::fromNow(-4 * hour);
    newer.revoked = {{.serial = "a1"}};
    const auto judged = [&](const CrlRequest& odd) {
        Case one = with(Revocation::available);
        one.known(list(m_root)).known(list(m_middle, odd));
        const std::string alone = shown(one.judge(m_anna));
        one.lists.push_back(read(list(m_middle, older)));
        return alone + "; " + shown(one.judge(m_anna));
    };
    // Times that can be read and are not in the one form that RFC 5280, 5.1.2.4 and 5.1.2.5 allow.
    CrlRequest offset = newer;
    offset.nextUpdate = Time::generalized("20491231235959+0000");
    EXPECT_EQ(judged(offset), "refused list-invalid 0; refused list-invalid 0");
    CrlRequest fraction = newer;
    fraction.nextUpdate = Time::generalized("20491231235959.5Z");
    EXPECT_EQ(judged(fraction), "refused list-invalid 0; refused list-invalid 0");
    CrlRequest begin = newer;
    begin.thisUpdate = Time::utc("2601010000Z");
    EXPECT_EQ(judged(begin), "refused list-invalid 0; refused list-invalid 0");
    begin.thisUpdate = Time::utc("hello");
    EXPECT_EQ(judged(begin), "refused list-invalid 0; refused list-invalid 0");
    CrlRequest critical = newer;
    critical.extensions = {{"1.2.3.4", {0x05, 0x00}, true}};
    EXPECT_EQ(judged(critical), "refused list-critical-extension-unknown 0; refused list-critical-extension-unknown 0");
    CrlRequest criticalEntry = newer;
    criticalEntry.revoked.front().extensions = {{"1.2.3.4", {0x05, 0x00}, true}};
    EXPECT_EQ(judged(criticalEntry),
              "refused list-critical-extension-unknown 0; refused list-critical-extension-unknown 0");
}

TEST_F(TrustRevocation, AListInAMessageIsUsed) {
    Case one = with(Revocation::required);
    one.known(list(m_root));
    one.lists.emplace_back();
    one.lists.push_back(read(list(m_middle)));
    EXPECT_EQ(shown(one.judge(m_anna)), "accepted ");
    one.lists.push_back(read(list(m_middle, {.revoked = {{.serial = "a1"}}, .thisUpdate = Time::fromNow(-60)})));
    EXPECT_EQ(shown(one.judge(m_anna)), "refused revoked 0");
}

TEST_F(TrustRevocation, AForgedListInAMessageHidesNothing) {
    CrlRequest forged;
    forged.thisUpdate = Time::fromNow(-10); // newer than the true one
    Identity eve = authority("Middle", 6);  // the name of the authority, another key
    forged.authorityKeyIdentifierValue = m_middle.keyIdentifier;
    for (const Revocation mode : {Revocation::available, Revocation::required}) {
        Case one = with(mode);
        one.known(list(m_root)).known(list(m_middle, {.revoked = {{.serial = "a1"}}}));
        one.lists.push_back(read(list(eve, forged)));
        one.message(eve);
        const Verdict verdict = one.judge(m_anna);
        EXPECT_EQ(shown(verdict), "refused revoked 0");
        EXPECT_EQ(codesOf(verdict.notes), "list-not-used 0");
        EXPECT_THAT(verdict.notes[0].text, HasSubstr("its issuer did not sign it"));
    }
}

TEST_F(TrustRevocation, AForgedListAmongOnesOwnIsTold) {
    Identity eve = authority("Middle", 6);
    CrlRequest forged;
    forged.authorityKeyIdentifierValue = m_middle.keyIdentifier;
    forged.revoked = {{.serial = "a1"}}; // which says nothing
    for (const Revocation mode : {Revocation::available, Revocation::required}) {
        Case one = with(mode);
        const Verdict verdict = one.known(list(m_root)).known(list(eve, forged)).judge(m_anna);
        EXPECT_EQ(shown(verdict), "refused list-signature-wrong 0");
        EXPECT_EQ(states(verdict), "unusable, good, not-looked-at");
    }
}

TEST_F(TrustRevocation, AListThatIsSignedInAnUnknownWayIsNotForged) {
    norvauthority::Crl unknown = list(m_middle);
    const auto known = norvauthority::der::oid("1.2.840.10045.4.3.2");
    for (auto at = unknown.der.begin();
         (at = std::search(at, unknown.der.end(), known.begin(), known.end())) != unknown.der.end();) {
        at += static_cast<std::ptrdiff_t>(known.size());
        *(at - 1) = 0x7F;
    }
    Case one = with(Revocation::required);
    EXPECT_EQ(shown(one.known(list(m_root)).known(unknown).judge(m_anna)), "refused list-algorithm-unsupported 0");
}

TEST_F(TrustRevocation, IssuersThatMayNotSignLists) {
    const Identity middle = authority("Middle", 1, &m_root, {.serial = "b2", .keyUsage = 0x04});
    Case one;
    one.anchor(m_root).message(middle).required().known(list(m_root)).known(list(middle));
    EXPECT_EQ(shown(one.judge(user(middle))), "refused list-signing-forbidden 0");
}

TEST_F(TrustRevocation, ListsForOtherCertificates) {
    CrlRequest forAuthorities;
    forAuthorities.scope = {.onlyCa = true};
    Case one = with(Revocation::required);
    one.known(list(m_root)).known(list(m_middle, forAuthorities));
    Verdict verdict = one.judge(m_anna);
    EXPECT_EQ(shown(verdict), "refused list-scope-differs 0");
    EXPECT_EQ(states(verdict), "no-list, good, not-looked-at");
    forAuthorities.thisUpdate = Time::utc("251201000000Z");
    forAuthorities.nextUpdate = Time::utc("260102000000Z");
    Case old = with(Revocation::required);
    old.known(list(m_root)).known(list(m_middle, forAuthorities));
    EXPECT_EQ(shown(old.judge(m_anna)), "refused list-scope-differs 0, list-expired 0");
    one.options.revocation = Revocation::available;
    verdict = one.judge(m_anna);
    EXPECT_EQ(shown(verdict), "accepted ");
    EXPECT_TRUE(verdict.mentions(Code::listScopeDiffers));
}

TEST_F(TrustRevocation, ListsWithExtensionsThatAreNotUnderstood) {
    CrlRequest critical;
    critical.extensions = {{"1.2.3.4", {0x05, 0x00}, true}};
    Case one = with(Revocation::required);
    EXPECT_EQ(shown(one.known(list(m_root)).known(list(m_middle, critical)).judge(m_anna)),
              "refused list-critical-extension-unknown 0");
}

TEST_F(TrustRevocation, ListsWithTimesThatAreNone) {
    CrlRequest odd;
    odd.nextUpdate = Time::utc("hello");
    Case one = with(Revocation::required);
    EXPECT_EQ(shown(one.known(list(m_root)).known(list(m_middle, odd)).judge(m_anna)), "refused list-invalid 0");
}

TEST_F(TrustRevocation, PartitionedLists) {
    const auto partition = [](const std::string& name) {
        CrlRequest request;
        request.scope.emplace();
        request.scope->name = DistributionPointName{{GeneralName::uri("http://lists.example.org/" + name)}};
        return request;
    };
    const Identity second =
        user(m_middle, {.serial = "a2", .crlDistributionPoints = {point("http://lists.example.org/2")}});
    CrlRequest one = partition("1");
    one.revoked = {{.serial = "a2"}};
    Case both = with(Revocation::required);
    both.known(list(m_root)).known(list(m_middle, one)).known(list(m_middle, partition("2")));
    EXPECT_EQ(shown(both.judge(second)), "accepted ") << "what the other partition says is of others";
    Case other = with(Revocation::required);
    other.known(list(m_root)).known(list(m_middle, partition("1")));
    EXPECT_FALSE(other.judge(second).accepted);
}

TEST_F(TrustRevocation, ListsForSomeReasonsAddUp) {
    CrlRequest keys;
    keys.scope.emplace();
    keys.scope->reasons = norvauthority::Bytes{0x60}; // keyCompromise, cACompromise
    CrlRequest others;
    others.scope.emplace();
    others.scope->reasons = norvauthority::Bytes{0x1F, 0x80};
    Case one = with(Revocation::required);
    one.known(list(m_root)).known(list(m_middle, keys));
    EXPECT_EQ(shown(one.judge(m_anna)), "refused list-missing 0");
    one.known(list(m_middle, others));
    const Verdict verdict = one.judge(m_anna);
    EXPECT_EQ(shown(verdict), "accepted ");
    EXPECT_EQ(verdict.links[0].lists.size(), 2U);
}

TEST_F(TrustRevocation, ListsOfACacheAreFoundByWhereTheyAreDistributed) {
    const norvtest::TemporaryFolder folder;
    const auto cached = list(m_middle);
    folder.write(listCacheName("http://lists.example.org/middle.crl"),
                 std::string(cached.der.begin(), cached.der.end()));
    folder.write(listCacheName("http://lists.example.org/root.crl"), list(m_root).pem());
    Case one = with(Revocation::required);
    one.material->addListCache(folder.path());
    EXPECT_EQ(shown(one.judge(m_anna)), "accepted ");
    EXPECT_EQ(one.material->counts().lists, 2U);
}

TEST(TrustListCache, NamesOfFiles) {
    // printf http://lists.example.org/middle.crl | sha256sum
    EXPECT_EQ(listCacheName("http://lists.example.org/middle.crl"),
              "15d71eeac920a587b738ba45c7df3d7c77a3f69813a04b671215e6797d8c2773.crl");
    EXPECT_EQ(listCacheName(""), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855.crl");
}

TEST_F(TrustRevocation, ARevokedAnchorIsTold) {
    Case one = with(Revocation::available);
    const Verdict verdict = one.known(list(m_root, {.revoked = {{.serial = "1"}}})).judge(m_anna);
    EXPECT_EQ(shown(verdict), "refused revoked 2");
}

TEST_F(TrustRevocation, ChainsThatAreNotBelievedAreNotLookedUp) {
    Case one = with(Revocation::required);
    one = Case();
    one.message(m_middle).required().known(list(m_middle, {.revoked = {{.serial = "a1"}}}));
    const Verdict verdict = one.judge(m_anna);
    EXPECT_EQ(shown(verdict), "refused issuer-missing 1");
    EXPECT_EQ(states(verdict), "not-looked-at, not-looked-at");
}

TEST_F(TrustRevocation, TheVerdictHoldsUntilTheListEnds) {
    const std::time_t now = std::time(nullptr);
    CrlRequest request;
    request.nextUpdate = Time::at(now + 500);
    Case one = with(Revocation::required);
    EXPECT_EQ(one.known(list(m_root)).known(list(m_middle, request)).judge(m_anna).validUntil, now + 500);
}

/// RFC 5280, 5.3.1.
TEST_F(TrustRevocation, WhyACertificateWasRevoked) {
    const auto told = [this](std::optional<int> reason) {
        Case one = with(Revocation::available);
        one.known(
            list(m_middle, {.revoked = {{.serial = "a1", .date = Time::utc("260102030405Z"), .reason = reason}}}));
        const Verdict verdict = one.judge(m_anna);
        EXPECT_EQ(shown(verdict), "refused revoked 0");
        const std::string& text = verdict.reasons.at(0).text;
        const std::string before = "the certificate of CN=Anna was revoked on 2026-01-02 03:04:05 UTC";
        const std::string behind = ", as the list of CN=Middle says";
        EXPECT_EQ(text.substr(0, before.size()), before);
        EXPECT_THAT(text, testing::EndsWith(behind));
        return text.substr(before.size(), text.size() - before.size() - behind.size());
    };
    EXPECT_EQ(told(std::nullopt), "");
    EXPECT_EQ(told(0), "") << "unspecified";
    EXPECT_THAT(told(1), HasSubstr("key"));
    EXPECT_THAT(told(2), HasSubstr("authority"));
    EXPECT_THAT(told(3), HasSubstr("affiliation"));
    EXPECT_THAT(told(4), HasSubstr("replaced"));
    EXPECT_THAT(told(5), HasSubstr("not needed"));
    EXPECT_THAT(told(6), HasSubstr("hold"));
    EXPECT_EQ(told(7), "") << "is not used";
    EXPECT_THAT(told(9), HasSubstr("privilege"));
    EXPECT_THAT(told(10), HasSubstr("attribute authority"));
    EXPECT_EQ(told(11), "");
    EXPECT_EQ(told(100), "");
}

/// One list may revoke several of a chain.
TEST_F(TrustRevocation, EachOneThatAListRevokesIsTold) {
    Case one = with(Revocation::available);
    one.known(list(m_root, {.revoked = {{.serial = "b2"}, {.serial = "1"}}}));
    EXPECT_EQ(shown(one.judge(m_anna)), "refused revoked 1, revoked 2");
}

/// Lists of the message by whom nobody knows are told by their own issuer, and notes stand in the order of the chain.
TEST_F(TrustRevocation, ListsThatAreNotUsedAreToldByTheirIssuer) {
    CrlRequest forged;
    forged.authorityKeyIdentifierValue = m_root.keyIdentifier;
    Case one = with(Revocation::available);
    one.lists.push_back(read(list(authority("Root", 6), forged)));
    const Verdict verdict = one.judge(m_anna);
    EXPECT_EQ(shown(verdict), "accepted ");
    EXPECT_EQ(codesOf(verdict.notes), "list-missing 0, list-not-used 0, list-missing 1");
    EXPECT_EQ(find(verdict.notes, Code::listNotUsed).text,
              "a revocation list of CN=Root was not used: it came with the message, and its issuer did not sign it");
}

/// Of one name there may be many in the snapshot; whoever is in the chain is asked whether the list is his.
TEST_F(TrustRevocation, AListByOneOfManyNamesakes) {
    Case one;
    for (std::size_t number = 2; number < 7; ++number) {
        one.anchor(authority("Root", number));
    }
    one.anchor(m_root).message(m_middle).required().known(list(m_middle));
    one.lists.push_back(read(list(m_root, {.revoked = {{.serial = "77"}}})));
    EXPECT_EQ(shown(one.judge(m_anna)), "accepted ");
    one.lists.push_back(read(list(m_root, {.revoked = {{.serial = "1"}}, .thisUpdate = Time::fromNow(-60)})));
    EXPECT_EQ(shown(one.judge(m_anna)), "refused revoked 2");
}

/// An anchor that has an issuer, and does not end the chain, is on a list like any other.
TEST_F(TrustRevocation, AnAnchorInTheMiddleNeedsAList) {
    Case one;
    one.anchor(m_root).anchor(m_middle).required().known(list(m_middle));
    Verdict verdict = one.judge(m_anna);
    EXPECT_EQ(shown(verdict), "refused list-missing 1");
    ASSERT_EQ(verdict.links.size(), 3U);
    EXPECT_FALSE(verdict.links[1].anchor);
    EXPECT_TRUE(verdict.links[2].anchor);
    one.options.partialChain = true;
    verdict = one.judge(m_anna);
    EXPECT_EQ(shown(verdict), "accepted ");
    ASSERT_EQ(verdict.links.size(), 2U);
    EXPECT_TRUE(verdict.links[1].anchor);
}

/// Of several places the first three are told.
TEST_F(TrustRevocation, WhereListsAreDistributed) {
    const Identity anna =
        user(m_middle, {.crlDistributionPoints = {
                            {DistributionPointName{{GeneralName::uri("http://a/1"), GeneralName::dns("a"),
                                                    GeneralName::uri("http://b/2")}}},
                            {std::nullopt, {}, {GeneralName::directory(m_middle.name)}},
                            {DistributionPointName{{}, norvauthority::Name{{"CN", "Part"}}}},
                            point("http://c/3"),
                            point("http://d/4"),
                        }});
    const Verdict verdict = with(Revocation::required).judge(anna);
    EXPECT_EQ(shown(verdict), "refused list-missing 0, list-missing 1");
    EXPECT_EQ(verdict.reasons[0].advice, "fetch the list from http://a/1 or http://b/2 or http://c/3");
}

TEST_F(TrustRevocation, AForgedCertificateIsNotLookedUp) {
    const Identity forged = user(m_middle, {.signingKey = key(7)});
    EXPECT_EQ(shown(with(Revocation::required).judge(forged)), "refused signature-wrong 0");
}

/// Each is told of each certificate, whatever else is.
TEST_F(TrustRevocation, OneReasonHidesNoOther) {
    const Identity anna = user(m_middle, {.keyUsage = 0x20});
    EXPECT_EQ(shown(with(Revocation::required).judge(anna)),
              "refused key-usage-forbids 0, list-missing 0, list-missing 1");
    CrlRequest forAuthorities;
    forAuthorities.scope = {.onlyCa = true};
    Case one = with(Revocation::required);
    one.known(list(m_middle, forAuthorities));
    EXPECT_EQ(shown(one.judge(m_anna)), "refused list-scope-differs 0, list-missing 1");
}

/// Names of distribution points are compared each with each: 2^20 pairs for one certificate, no more.
TEST_F(TrustRevocation, PairsOfDistributionPointsThatAreCompared) {
    const auto places = [](const std::string& host, std::size_t count) {
        DistributionPointName name{{GeneralName::uri("http://first.example")}};
        for (std::size_t i = 1; i < count; ++i) {
            name.full.push_back(GeneralName::uri("http://" + host + std::to_string(i)));
        }
        return name;
    };
    const auto listAt = [&](std::size_t count, const std::string& number) {
        CrlRequest request;
        request.scope.emplace();
        request.scope->name = places("b", count);
        request.crlNumber = number;
        return list(m_middle, request);
    };
    const Identity anna = user(m_middle, {.crlDistributionPoints = {{places("a", 1024)}}});
    const auto judged = [&](const std::vector<norvauthority::Crl>& lists, const Identity& who) {
        Case one = with(Revocation::required);
        one.options.purpose = Purpose::any;
        one.known(list(m_root));
        for (const auto& each : lists) {
            one.known(each);
        }
        const Verdict verdict = one.judge(who);
        return shown(verdict) + " | " + codesOf(verdict.notes);
    };
    EXPECT_EQ(judged({listAt(1023, "1")}, anna), "accepted  | ") << "one for the list itself";
    EXPECT_EQ(judged({listAt(1024, "1")}, anna), "refused list-missing 0 | list-not-used 0");
    EXPECT_EQ(judged({listAt(600, "1"), listAt(600, "2")}, anna), "accepted  | list-not-used 0");
    EXPECT_EQ(judged({listAt(511, "1"), listAt(511, "2")}, anna), "accepted  | ");
    EXPECT_EQ(judged({listAt(1022, "1"), list(m_middle, {.revoked = {{.serial = "77"}}})}, anna), "accepted  | ");
    EXPECT_EQ(judged({listAt(1023, "1"), list(m_middle, {.revoked = {{.serial = "77"}}})}, anna),
              "accepted  | list-not-used 0");
    // A list counts once, however often the certificate names its issuer.
    const Identity naming =
        user(m_middle, {.crlDistributionPoints = {{places("a", 1000), {}, {GeneralName::directory(m_middle.name)}}}});
    EXPECT_EQ(judged({listAt(600, "1")}, naming), "accepted  | ");
    // Wherever the extensions stand.
    CertificateRequest bare;
    bare.subject = {{"CN", "Anna"}};
    bare.key = key(9);
    bare.issuer = &m_middle;
    bare.subjectKeyIdentifier = bare.authorityKeyIdentifier = false;
    bare.crlDistributionPoints = {{places("a", 1024)}};
    CrlRequest first;
    first.issuer = &m_middle;
    first.scope.emplace();
    first.scope->name = places("b", 1024);
    first.authorityKeyIdentifier = false;
    EXPECT_EQ(judged({norvauthority::issueList(first)}, norvauthority::issue(bare)),
              "refused list-missing 0 | list-not-used 0");
}

} // namespace
