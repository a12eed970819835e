// Lists that somebody else than the issuer of a certificate signs (RFC 5280, 5.2.5 and 6.3.3).

#include "RevocationChains.h"

#include <gmock/gmock.h>

using namespace trusttesting;
using testing::HasSubstr;

namespace {

using Code = ReasonCode;

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
    const Verdict good = one.judge(m_covered);
    EXPECT_EQ(shown(good), "accepted ");
    EXPECT_EQ(states(good), "good, good, not-looked-at");
    one.known(list(m_root, {.revoked = {{.serial = "c3"}}, .thisUpdate = Time::fromNow(-60)}));
    const Verdict revoked = one.judge(m_covered);
    EXPECT_EQ(shown(revoked), "refused revoked 0") << "who issued the list was revoked";
    EXPECT_EQ(revoked.reasons[0].certificate->subject().asString(), "CN=Lister");
    EXPECT_EQ(states(revoked), "unusable, good, not-looked-at");
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
        const Verdict old = judgedWith({.digest = "SHA1"}, options);
        EXPECT_EQ(shown(old), "refused digest-too-weak 0");
        EXPECT_EQ(states(old), "unusable, good, not-looked-at");
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

/// With a root of his own that is there, too, but that nobody believes.
TEST_F(TrustIndirectLists, FromStrangersWhoAreKnownDoNotCountEither) {
    const Identity root = authority("Stranger", 7);
    const Identity lister = authority("Lister", 4, &root, {.keyUsage = 0x02});
    Case one = with(Revocation::required);
    one.known(list(m_root)).known(indirect(""));
    one.material->addUntrusted(read(lister));
    one.material->addUntrusted(read(root));
    const Verdict verdict = one.judge(m_covered);
    EXPECT_EQ(shown(verdict), "refused list-issuer-missing 0");
    EXPECT_EQ(states(verdict), "unusable, good, not-looked-at");
}

/// Whoever sent the message would say that nobody is revoked.
TEST_F(TrustIndirectLists, WhoCameWithTheMessageIsNotLookedFor) {
    Case one = with(Revocation::required);
    one.known(list(m_root)).known(indirect("")).message(m_lister);
    EXPECT_EQ(shown(one.judge(m_covered)), "refused list-signer-missing 0");
    one.material->addUntrusted(read(m_lister));
    EXPECT_EQ(shown(one.judge(m_covered)), "accepted ");
}

/// RFC 5280, 6.3.3 (f): the path of whoever signs the list is validated like any other.
TEST_F(TrustIndirectLists, WhoSignsThemMustHoldHimself) {
    const auto judgedWith = [this](CertificateRequest request) {
        request.serial = "c3";
        const Identity lister = authority("Lister", 4, &m_root, request);
        Case one = with(Revocation::required);
        one.known(list(m_root)).known(indirect(""));
        one.material->addUntrusted(read(lister));
        return one.judge(m_covered);
    };
    Verdict verdict = judgedWith({.notAfter = Time::utc("260102030405Z"), .keyUsage = 0x02});
    EXPECT_EQ(shown(verdict), "refused certificate-expired 0");
    EXPECT_EQ(verdict.reasons[0].text,
              "the certificate of CN=Lister (for revocation lists) expired on 2026-01-02 03:04:05 UTC");
    EXPECT_EQ(states(verdict), "unusable, good, not-looked-at");
    verdict = judgedWith({.notBefore = Time::utc("480102030405Z"), .keyUsage = 0x02});
    EXPECT_EQ(shown(verdict), "refused certificate-not-yet-valid 0");
    EXPECT_THAT(verdict.reasons[0].text, HasSubstr("(for revocation lists) is valid from 2048-01-02 03:04:05 UTC on"));
    verdict = judgedWith({.signingKey = key(7), .keyUsage = 0x02});
    EXPECT_EQ(shown(verdict), "refused signature-wrong 0");
    EXPECT_EQ(verdict.reasons[0].text,
              "the signature on the certificate of CN=Lister (for revocation lists) is not that of CN=Root");
    EXPECT_EQ(states(verdict), "unusable, good, not-looked-at");
    verdict = judgedWith({.keyUsage = 0x80});
    EXPECT_EQ(shown(verdict), "refused list-signing-forbidden 0");
    EXPECT_EQ(states(verdict), "unusable, good, not-looked-at");
}

TEST_F(TrustIndirectLists, WhoseSignersKeyDoesNotDecode) {
    Identity lister = m_lister;
    const auto curve = norvauthority::der::oid("1.2.840.10045.3.1.7");
    auto& der = lister.certificate.der;
    const auto at = std::search(der.begin(), der.end(), curve.begin(), curve.end());
    ASSERT_NE(at, der.end());
    *(at + static_cast<std::ptrdiff_t>(curve.size()) - 1) = 0x7F;
    Case one = with(Revocation::required);
    one.known(list(m_root)).known(indirect(""));
    one.material->addUntrusted(read(lister));
    const Verdict verdict = one.judge(m_covered);
    EXPECT_EQ(shown(verdict), "refused list-issuer-missing 0");
    EXPECT_FALSE(verdict.accepted);
    EXPECT_EQ(states(verdict), "unusable, good, not-looked-at");
}

/// In the mode `available` what nothing is known of is a note, of who signs a list, too.
TEST_F(TrustIndirectLists, WhetherTheirSignerIsRevokedNeedNotBeKnown) {
    Case one = with(Revocation::available);
    one.known(indirect(""));
    one.material->addUntrusted(read(m_lister));
    Verdict verdict = one.judge(m_covered);
    EXPECT_EQ(shown(verdict), "accepted ");
    EXPECT_EQ(codesOf(verdict.notes), "list-missing 0, list-missing 1");
    EXPECT_EQ(verdict.notes[0].certificate->subject().asString(), "CN=Lister");
    EXPECT_EQ(states(verdict), "good, no-list, not-looked-at");
    one.options.revocation = Revocation::required;
    verdict = one.judge(m_covered);
    EXPECT_EQ(shown(verdict), "refused list-missing 0, list-missing 1");
    EXPECT_EQ(states(verdict), "unusable, no-list, not-looked-at");
}

/// What is wrong with the issuer's own list is told, and not that the signer of the other one is missing.
TEST_F(TrustIndirectLists, BesideTheListOfTheIssuer) {
    Case one = with(Revocation::required);
    one.known(list(m_root)).known(indirect(""));
    one.known(list(m_middle, {.thisUpdate = Time::utc("251201000000Z"), .nextUpdate = Time::utc("260102000000Z")}));
    EXPECT_EQ(shown(one.judge(m_covered)), "refused list-expired 0");
}

/// A signer of the right name who cannot have signed it is not the one who is missing.
TEST_F(TrustIndirectLists, ANamesakeIsNotTheirSigner) {
    const Identity namesake = authority("Lister", 6, &m_root, {.serial = "c4", .keyUsage = 0x02});
    Case one = with(Revocation::required);
    one.known(list(m_root)).known(indirect(""));
    one.material->addUntrusted(read(namesake));
    EXPECT_EQ(shown(one.judge(m_covered)), "refused list-signer-missing 0");
    // Without an identifier of the key it may be he, and is not.
    CrlRequest silent;
    silent.authorityKeyIdentifier = false;
    silent.scope = {.indirect = true};
    silent.scope->name = DistributionPointName{{GeneralName::uri("http://lister.example/all.crl")}};
    Case other = with(Revocation::required);
    other.known(list(m_root)).known(list(m_lister, silent));
    other.material->addUntrusted(read(namesake));
    EXPECT_EQ(shown(other.judge(m_covered)), "refused list-signature-wrong 0");
}

/// The issuer himself may be named as the one who issues the lists.
TEST_F(TrustIndirectLists, TheIssuerIsNoOtherSigner) {
    const Identity anna = user(
        m_middle,
        {.crlDistributionPoints = {
             {DistributionPointName{{GeneralName::uri("http://a/1")}}, {}, {GeneralName::directory(m_middle.name)}}}});
    CrlRequest elsewhere;
    elsewhere.scope.emplace();
    elsewhere.scope->name = DistributionPointName{{GeneralName::uri("http://a/2")}};
    Case one = with(Revocation::required);
    one.known(list(m_root)).known(list(m_middle, elsewhere));
    const Verdict verdict = one.judge(anna);
    EXPECT_EQ(shown(verdict), "refused list-scope-differs 0");
    EXPECT_EQ(codesOf(verdict.notes), "") << "found twice, it is one list";
    // Only one list for some reasons: what is missing is a list, not its signer.
    CrlRequest some;
    some.scope.emplace();
    some.scope->name = DistributionPointName{{GeneralName::uri("http://a/1")}};
    some.scope->reasons = norvauthority::Bytes{0x60};
    Case other = with(Revocation::required);
    other.known(list(m_root)).known(list(m_middle, some));
    EXPECT_EQ(shown(other.judge(anna)), "refused list-missing 0");
}

/// The distribution points of a certificate may name thousands of others: sixteen are looked for.
TEST_F(TrustIndirectLists, TheFirstSixteenWhoAreNamedAreLookedFor) {
    const auto named = [this](std::size_t others, bool isThere) {
        std::vector<GeneralName> issuers;
        for (std::size_t i = 0; i < others; ++i) {
            issuers.push_back(GeneralName::directory({{"CN", "Other " + std::to_string(i)}}));
            issuers.push_back(GeneralName::uri("http://nobody.example"));
        }
        issuers.push_back(GeneralName::directory(m_lister.name));
        Case one = with(Revocation::required);
        one.known(list(m_root)).known(indirect(""));
        if (isThere) {
            one.material->addUntrusted(read(m_lister));
        }
        return shown(one.judge(
            user(m_middle,
                 {.crlDistributionPoints = {
                      {DistributionPointName{{GeneralName::uri("http://lister.example/all.crl")}}, {}, issuers}}})));
    };
    EXPECT_EQ(named(15, true), "accepted ");
    EXPECT_EQ(named(15, false), "refused list-signer-missing 0");
    EXPECT_EQ(named(16, true), "refused list-missing 0");
    EXPECT_EQ(named(16, false), "refused list-missing 0");
}

/// Lists of the message count when somebody of the name in the material signed them: of many the first four are asked.
TEST_F(TrustIndirectLists, InTheMessageTheyCountWhenTheirSignerIsKnown) {
    const auto judged = [this](std::size_t namesakes) {
        Case one = with(Revocation::required);
        for (std::size_t i = 0; i < namesakes; ++i) {
            one.material->addUntrusted(
                read(authority("Lister", 10 + i, &m_root, {.serial = std::to_string(100 + i), .keyUsage = 0x02})));
        }
        one.material->addUntrusted(read(m_lister));
        one.known(list(m_root)).lists.push_back(read(indirect("")));
        return one.judge(m_covered);
    };
    EXPECT_EQ(shown(judged(0)), "accepted ");
    EXPECT_EQ(shown(judged(3)), "accepted ");
    const Verdict verdict = judged(4);
    EXPECT_EQ(shown(verdict), "refused list-missing 0");
    EXPECT_EQ(codesOf(verdict.notes), "list-not-used 0");
    // The key of the certificate's issuer is not that of the one who is named.
    Case other = with(Revocation::required);
    other.material->addUntrusted(read(m_lister));
    CrlRequest request;
    request.issuerName = m_lister.name;
    request.scope = {.indirect = true};
    request.scope->name = DistributionPointName{{GeneralName::uri("http://lister.example/all.crl")}};
    request.authorityKeyIdentifierValue = m_lister.keyIdentifier;
    other.known(list(m_root)).lists.push_back(read(list(m_middle, request)));
    const Verdict forged = other.judge(m_covered);
    EXPECT_EQ(shown(forged), "refused list-missing 0");
    EXPECT_EQ(codesOf(forged.notes), "list-not-used 0");
}

TEST_F(TrustIndirectLists, InTheMessageBySomebodyWhoseKeyDoesNotDecode) {
    Identity lister = m_lister;
    const auto curve = norvauthority::der::oid("1.2.840.10045.3.1.7");
    auto& der = lister.certificate.der;
    const auto at = std::search(der.begin(), der.end(), curve.begin(), curve.end());
    ASSERT_NE(at, der.end());
    *(at + static_cast<std::ptrdiff_t>(curve.size()) - 1) = 0x7F;
    Case one = with(Revocation::required);
    one.material->addUntrusted(read(lister));
    one.known(list(m_root)).lists.push_back(read(indirect("")));
    const Verdict verdict = one.judge(m_covered);
    EXPECT_EQ(shown(verdict), "refused list-missing 0");
    EXPECT_EQ(codesOf(verdict.notes), "list-not-used 0");
}

/// A list for some reasons alone leaves others open; who signed it is known, as an intermediate or an anchor.
TEST_F(TrustIndirectLists, ForSomeReasonsLeaveAListMissing) {
    CrlRequest some;
    some.scope = {.indirect = true};
    some.scope->name = DistributionPointName{{GeneralName::uri("http://lister.example/all.crl")}};
    some.scope->reasons = norvauthority::Bytes{0x60};
    Case one = with(Revocation::required);
    one.known(list(m_root)).known(list(m_lister, some));
    EXPECT_EQ(shown(one.judge(m_covered)), "refused list-signer-missing 0");
    one.material->addUntrusted(read(m_lister));
    EXPECT_EQ(shown(one.judge(m_covered)), "refused list-missing 0");
    Case other = with(Revocation::required);
    other.known(list(m_root)).known(list(m_lister, some)).anchor(m_lister);
    EXPECT_EQ(shown(other.judge(m_covered)), "refused list-missing 0");
}

/// Whatever the name is, and wherever it stands in an order.
TEST_F(TrustIndirectLists, SignersOfAnyNameAreMissed) {
    for (const char* name : {"A", "Zzzzzz", "A much longer name than that of the issuer"}) {
        const Identity lister = authority(name, 4, &m_root, {.keyUsage = 0x02});
        const Identity anna =
            user(m_middle,
                 {.crlDistributionPoints = {{DistributionPointName{{GeneralName::uri("http://lister.example/all.crl")}},
                                             {},
                                             {GeneralName::directory(lister.name)}}}});
        CrlRequest request;
        request.scope = {.indirect = true};
        request.scope->name = DistributionPointName{{GeneralName::uri("http://lister.example/all.crl")}};
        Case one = with(Revocation::required);
        one.known(list(m_root)).known(list(lister, request));
        EXPECT_EQ(shown(one.judge(anna)), "refused list-signer-missing 0") << name;
    }
}

/// Who signs lists matters to nobody who asks for none.
TEST_F(TrustIndirectLists, TheirSignersEndDoesNotEndAVerdictWithoutLists) {
    const std::time_t now = std::time(nullptr);
    Case one = with(Revocation::none);
    one.material->addUntrusted(
        read(authority("Lister", 4, &m_root, {.serial = "c3", .notAfter = Time::at(now + 5000), .keyUsage = 0x02})));
    EXPECT_GT(one.judge(m_covered).validUntil, now + 5000);
    one.known(list(m_root)).known(list(m_middle)).known(indirect("")).required();
    EXPECT_EQ(one.judge(m_covered).validUntil, now + 5000);
}

/// What is weak with the judged one is told of it once, and not again because it signs its own list.
TEST_F(TrustIndirectLists, WhoSignsForHimselfIsToldOnce) {
    const Identity lister = authority(
        "Lister", 4, &m_root,
        {.serial = "c3",
         .keyUsage = 0x82,
         .extendedKeyUsage = {"emailProtection"},
         .crlDistributionPoints = {{DistributionPointName{{GeneralName::uri("http://lister.example/all.crl")}},
                                    {},
                                    {GeneralName::directory(m_lister.name)}}},
         .digest = "SHA1"});
    Case one = with(Revocation::available);
    one.known(indirect(""));
    one.material->addUntrusted(read(lister));
    EXPECT_EQ(shown(one.judge(lister)), "refused list-issuer-missing 0, digest-too-weak 0")
        << "nor is anybody believed about himself";
}

} // namespace
