// What revocation lists do to a verdict.

#include "Chains.h"
#include "support/TemporaryFolder.h"

#include <gmock/gmock.h>

using namespace trusttesting;
using testing::HasSubstr;

namespace {

using Code = ReasonCode;
using norvauthority::DistributionPoint;
using norvauthority::DistributionPointName;

class TrustRevocation : public TrustTest {
protected:
    const Identity m_anna = user(m_middle, {.crlDistributionPoints = {point("http://lists.example.org/middle.crl")}});

    static DistributionPoint point(const std::string& uri) { return {DistributionPointName{{GeneralName::uri(uri)}}}; }
    [[nodiscard]] Case with(Revocation mode) const {
        Case one = chain();
        one.options.revocation = mode;
        return one;
    }
    static std::string states(const Verdict& verdict) {
        std::string text;
        for (const Link& link : verdict.links) {
            text += (text.empty() ? "" : ", ") + std::string(nameOf(link.revocation));
        }
        return text;
    }
};

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

TEST_F(TrustRevocation, AListInAMessageIsUsed) {
    Case one = with(Revocation::required);
    one.known(list(m_root));
    one.lists.push_back(RefCertificateRevocationList());
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
    EXPECT_TRUE(verdict.has(Code::listScopeDiffers)) << shown(verdict);
    EXPECT_EQ(states(verdict), "no-list, good, not-looked-at");
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

TEST_F(TrustRevocation, DeltaListsAddAndTakeAway) {
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

class TrustIndirectLists : public TrustRevocation {
protected:
    const Identity m_lister = authority("Lister", 4, &m_root, {.serial = "c3", .keyUsage = 0x02});
    const Identity m_covered =
        user(m_middle,
             {.crlDistributionPoints = {{DistributionPointName{{GeneralName::uri("http://lister.example/all.crl")}},
                                         {},
                                         {GeneralName::directory(m_lister.name)}}}});

    [[nodiscard]] norvauthority::Crl indirect(const std::string& revoked) const {
        CrlRequest request;
        request.scope = {.indirect = true};
        request.scope->name = DistributionPointName{{GeneralName::uri("http://lister.example/all.crl")}};
        if (!revoked.empty()) {
            request.revoked = {{.serial = revoked, .certificateIssuer = m_middle.name}};
        }
        return list(m_lister, request);
    }
};

TEST_F(TrustIndirectLists, WhoIssuesThemIsChecked) {
    Case one = with(Revocation::required);
    one.known(list(m_root)).known(indirect(""));
    const Verdict unknown = one.judge(m_covered);
    EXPECT_EQ(shown(unknown), "refused list-signer-missing 0");
    EXPECT_EQ(unknown.reasons.front().text.find("the revocation list for the certificate of "), 0U);
    EXPECT_NE(unknown.reasons.front().text.find("CN=Lister"), std::string::npos) << unknown.reasons.front().text;
    one.options.revocation = Revocation::available;
    EXPECT_EQ(shown(one.judge(m_covered)), "accepted ");
    EXPECT_TRUE(one.judge(m_covered).mentions(Code::listSignerMissing));
    one.options.revocation = Revocation::required;
    one.material->addUntrusted(read(m_lister));
    EXPECT_EQ(shown(one.judge(m_covered)), "accepted ");
    one.known(list(m_root, {.revoked = {{.serial = "c3"}}, .thisUpdate = Time::fromNow(-60)}));
    EXPECT_FALSE(one.judge(m_covered).accepted) << "who issued the list was revoked";
}

/// A short key that somebody broke would sign that nobody is revoked.
TEST_F(TrustIndirectLists, WhoSignsThemHasKeysAndDigestsOfTheLengthThatIsAskedFor) {
    const auto judgedWith = [this](const CertificateRequest& made, const Options& options) {
        CertificateRequest request = made;
        request.keyUsage = 0x02;
        const Identity weak = authority("Lister", 4, &m_root, request);
        CrlRequest wanted;
        wanted.scope = {.indirect = true};
        wanted.scope->name = DistributionPointName{{GeneralName::uri("http://lister.example/all.crl")}};
        Case one = with(options.revocation);
        one.options = options;
        one.known(list(m_root)).known(list(weak, wanted));
        one.material->addUntrusted(read(weak));
        return one.judge(m_covered);
    };
    const norvauthority::Key rsa1024 = norvauthority::Key::rsa(1024);
    Options options;
    for (const Revocation mode : {Revocation::available, Revocation::required}) {
        options.revocation = mode;
        const Verdict verdict = judgedWith({.key = rsa1024}, options);
        EXPECT_EQ(shown(verdict), "refused key-too-short 0");
        EXPECT_EQ(verdict.reasons.at(0).text,
                  "the key of CN=Lister (for revocation lists) is too short: RSA, 1024 bits");
        EXPECT_EQ(verdict.reasons[0].certificate->subject().asString(), "CN=Lister");
        EXPECT_EQ(verdict.links.at(0).revocation, RevocationStatus::unusable);
        EXPECT_EQ(shown(judgedWith({.digest = "SHA1"}, options)), "refused digest-too-weak 0");
    }
    options.minimumRsaBits = 1024;
    EXPECT_EQ(shown(judgedWith({.key = rsa1024}, options)), "accepted ");
    options.minimumDigestBits = 160;
    EXPECT_EQ(shown(judgedWith({.digest = "SHA1"}, options)), "accepted ");
}

/// Whoever is above both is told of once, at the place in the chain.
TEST_F(TrustIndirectLists, AWeakRootIsToldOnce) {
    Case one = with(Revocation::required);
    one.known(list(m_root)).known(indirect(""));
    one.material->addUntrusted(read(m_lister));
    one.options.minimumEcBits = 257;
    EXPECT_EQ(shown(one.judge(m_covered)),
              "refused key-too-short 0, key-too-short 0, key-too-short 1, key-too-short 2");
}

TEST_F(TrustIndirectLists, TheyRevoke) {
    for (const Revocation mode : {Revocation::available, Revocation::required}) {
        Case one = with(mode);
        one.known(list(m_root)).known(indirect("a1"));
        one.material->addUntrusted(read(m_lister));
        EXPECT_EQ(shown(one.judge(m_covered)), "refused revoked 0");
    }
}

TEST_F(TrustIndirectLists, FromStrangersDoNotCount) {
    const Identity root = authority("Stranger", 7);
    const Identity lister = authority("Lister", 4, &root, {.keyUsage = 0x02});
    Case one = with(Revocation::required);
    one.known(list(m_root)).known(indirect(""));
    one.material->addUntrusted(read(lister));
    const Verdict verdict = one.judge(m_covered);
    EXPECT_FALSE(verdict.accepted);
    EXPECT_EQ(shown(verdict), "refused list-issuer-missing 0");
    EXPECT_EQ(states(verdict), "unusable, good, not-looked-at");
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

} // namespace
