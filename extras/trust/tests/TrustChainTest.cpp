// Reasons that lie in the certificates of a chain.

#include "Chains.h"

#include <gmock/gmock.h>

#include <openssl/rsa.h>

#include <limits>

using namespace trusttesting;
using testing::HasSubstr;

namespace {

using Code = ReasonCode;
using TrustChain = TrustTest;

TEST_F(TrustChain, AGoodChainIsAccepted) {
    const Verdict verdict = chain().judge(user(m_middle));
    EXPECT_EQ(shown(verdict), "accepted ");
    ASSERT_EQ(verdict.chain.size(), 3U);
    EXPECT_EQ(verdict.chain[0]->subject().asString(), "CN=Anna");
    EXPECT_EQ(verdict.chain[2]->subject().asString(), "CN=Root");
    ASSERT_EQ(verdict.links.size(), 3U);
    EXPECT_FALSE(verdict.links[0].anchor);
    EXPECT_TRUE(verdict.links[1].fromMessage);
    EXPECT_FALSE(verdict.links[1].anchor);
    EXPECT_TRUE(verdict.links[2].anchor);
    EXPECT_FALSE(verdict.links[2].fromMessage);
    EXPECT_EQ(verdict.links[0].revocation, RevocationStatus::notLookedAt);
    EXPECT_TRUE(verdict.notes.empty());
}

/// The handles that were given are handed back, not others on the same certificates.
TEST_F(TrustChain, TheChainIsOfTheHandlesThatWereGiven) {
    const Case one = chain();
    const RefCertificate anna = read(user(m_middle));
    const Verdict verdict = Verifier(one.material).judge(anna, one.certificates, {}, one.options);
    ASSERT_EQ(verdict.chain.size(), 3U);
    EXPECT_EQ(verdict.chain[0].operator->(), anna.operator->());
    EXPECT_EQ(verdict.chain[1].operator->(), one.certificates.front().operator->());
    EXPECT_EQ(verdict.chain[2].operator->(), one.material->anchors().front().operator->());
}

TEST_F(TrustChain, AnAnchorMayBeJudgedItself) {
    Case one;
    one.options.purpose = Purpose::any;
    EXPECT_EQ(shown(one.anchor(m_root).judge(m_root)), "accepted ");
}

TEST_F(TrustChain, AMissingIssuerIsNamed) {
    Case one;
    const Verdict verdict = one.anchor(m_root).judge(user(m_middle));
    EXPECT_EQ(shown(verdict), "refused issuer-missing 0");
    EXPECT_EQ(verdict.reasons[0].text, "no certificate of CN=Middle is there that could have issued that of CN=Anna");
    EXPECT_THAT(verdict.reasons[0].advice, HasSubstr("add the certificate of the issuer"));
    EXPECT_EQ(verdict.chain.size(), 1U);
}

TEST_F(TrustChain, AnIssuerOfTheSameNameAndAnotherKeyIsNone) {
    Case one;
    one.anchor(m_root).message(authority("Middle", 5, &m_root));
    EXPECT_EQ(shown(one.judge(user(m_middle))), "refused issuer-missing 0");
}

TEST_F(TrustChain, RootsThatAreNoAnchors) {
    Case one;
    one.message(m_middle).message(m_root);
    EXPECT_EQ(shown(one.judge(user(m_middle))), "refused root-not-trusted 2");
    Case alone;
    alone.options.purpose = Purpose::any;
    EXPECT_EQ(shown(alone.judge(m_root)), "refused self-signed 0");
}

TEST_F(TrustChain, AnAnchorThatSomebodyElseIssuedIsOneWhenAskedFor) {
    Case one;
    one.anchor(m_middle);
    EXPECT_EQ(shown(one.judge(user(m_middle))), "refused issuer-missing 1");
    one.options.partialChain = true;
    EXPECT_EQ(shown(one.judge(user(m_middle))), "accepted ");
}

TEST_F(TrustChain, ALongChain) {
    Case one = chain();
    Identity last = m_middle;
    for (std::size_t i = 0; i < 4; ++i) {
        last = authority("Level " + std::to_string(i), 1, &last);
        one.message(last);
    }
    EXPECT_EQ(shown(one.judge(user(last))), "accepted ");
    one.options.maximumDepth = 5;
    EXPECT_EQ(shown(one.judge(user(last))), "accepted ");
    one.options.maximumDepth = 4;
    const Verdict verdict = one.judge(user(last));
    EXPECT_EQ(shown(verdict), "refused chain-too-long 5") << "what is above was not looked for";
    EXPECT_THAT(find(verdict.reasons, Code::chainTooLong).text, HasSubstr("more than 4 certificates"));
}

TEST_F(TrustChain, NothingToJudgeHoldsForever) {
    Options options;
    for (const std::time_t at : {std::time_t{1593561600}, std::time_t{253402300799}}) {
        options.at = at;
        const Verdict verdict = Verifier(nullptr).judge(RefCertificate(), {}, {}, options);
        EXPECT_EQ(verdict.judgedAt, at);
        EXPECT_EQ(verdict.validUntil, at == 253402300799 ? 253402300800 : 253402300799);
    }
}

TEST_F(TrustChain, NothingToJudge) {
    const Verdict verdict = Verifier(nullptr).judge(RefCertificate());
    EXPECT_EQ(shown(verdict), "refused certificate-missing 0");
    EXPECT_TRUE(verdict.chain.empty());
}

TEST_F(TrustChain, WithoutMaterialNobodyIsBelieved) {
    EXPECT_EQ(shown(Verifier(nullptr).judge(read(user(m_root)))), "refused issuer-missing 0");
}

TEST_F(TrustChain, TimesOfEveryCertificate) {
    const std::time_t now = std::time(nullptr);
    const Identity late = authority("Late", 2, &m_root, {.notBefore = Time::at(now + day)});
    Case one;
    one.anchor(m_root).message(late);
    Verdict verdict = one.judge(user(late, {.notBefore = Time::at(now - 2 * day), .notAfter = Time::at(now - day)}));
    EXPECT_EQ(shown(verdict), "refused certificate-expired 0, certificate-not-yet-valid 1");
    EXPECT_THAT(verdict.reasons[0].text, HasSubstr("CN=Anna expired on 20"));
    EXPECT_EQ(verdict.reasons[1].certificate->subject().asString(), "CN=Late");
    // Above a link that is missing, too: OpenSSL does not look there.
    Case cut;
    verdict = cut.judge(user(late, {.notBefore = Time::at(now - 2 * day), .notAfter = Time::at(now - day)}));
    EXPECT_EQ(shown(verdict), "refused issuer-missing 0, certificate-expired 0");
    verdict = cut.message(late).judge(user(late));
    EXPECT_EQ(shown(verdict), "refused issuer-missing 1, certificate-not-yet-valid 1");
    EXPECT_EQ(verdict.reasons[1].text.find("the certificate of CN=Late is valid from 20"), 0U)
        << verdict.reasons[1].text;
    const Identity old = authority("Old", 2, &m_root, {.notAfter = Time::utc("260102030405Z")});
    verdict = Case().message(old).judge(user(old));
    EXPECT_EQ(shown(verdict), "refused issuer-missing 1, certificate-expired 1");
    EXPECT_EQ(verdict.reasons[1].text, "the certificate of CN=Old expired on 2026-01-02 03:04:05 UTC");
    for (const auto& [begin, end] :
         {std::pair{Time::utc("hello"), Time::fromNow(day)}, std::pair{Time::fromNow(-day), Time::utc("hello")}}) {
        const Identity odd = authority("Odd", 2, &m_root, {.notBefore = begin, .notAfter = end});
        EXPECT_EQ(shown(Case().message(odd).judge(user(odd))), "refused issuer-missing 1, validity-unreadable 1");
    }
}

/// An authority with a new key that its old one certified: two of one name, both told.
TEST_F(TrustChain, NamesakesInOneChainAreToldEach) {
    const Time end = Time::utc("260102030405Z");
    const Identity old = authority("Middle", 1, &m_root, {.serial = "b2", .notAfter = end});
    const Identity renewed = authority("Middle", 2, &old, {.serial = "b3", .notAfter = end});
    Case one;
    one.anchor(m_root).message(old).message(renewed);
    EXPECT_EQ(shown(one.judge(user(renewed))), "refused certificate-expired 1, certificate-expired 2");
}

TEST_F(TrustChain, TheMomentToJudgeBy) {
    const Identity old =
        user(m_middle, {.notBefore = Time::utc("200101000000Z"), .notAfter = Time::utc("210101000000Z")});
    Case one;
    const Identity root = authority("Old root", 0, nullptr, {.notBefore = Time::utc("100101000000Z")});
    const Identity middle = authority("Middle", 1, &root, {.notBefore = Time::utc("100101000000Z")});
    one.anchor(root).message(middle);
    EXPECT_EQ(shown(one.judge(old)), "refused certificate-expired 0");
    one.options.at = 1593561600; // 2020-07-01
    Verdict verdict = one.judge(old);
    EXPECT_EQ(shown(verdict), "accepted ");
    EXPECT_EQ(verdict.judgedAt, 1593561600);
    EXPECT_EQ(verdict.validUntil, 1609459200); // 2021-01-01
    one.options.at = 1609459200;
    EXPECT_EQ(shown(one.judge(old)), "refused certificate-expired 0");
    one.options.at = 1577836800; // 2020 begins
    EXPECT_EQ(one.judge(old).validUntil, 1609459200) << "what begins now has begun";
    one.options.at = 1577836799; // a second before 2020
    verdict = one.judge(old);
    EXPECT_EQ(shown(verdict), "refused certificate-not-yet-valid 0");
    EXPECT_EQ(verdict.reasons[0].text, "the certificate of CN=Anna is valid from 2020-01-01 00:00:00 UTC on");
    EXPECT_EQ(verdict.validUntil, 1577836800);
}

/// Whatever a caller takes for the end of all times: no certificate has one that lies there.
TEST_F(TrustChain, MomentsThatNoCertificateCanName) {
    Case one = chain();
    for (const std::time_t late : {std::numeric_limits<std::time_t>::max(), std::time_t{253402300800}}) {
        one.options.at = late;
        const Verdict verdict = one.judge(user(m_middle));
        EXPECT_EQ(shown(verdict), "refused certificate-expired 0, certificate-expired 1, certificate-expired 2")
            << late;
        EXPECT_EQ(verdict.judgedAt, 253402300799) << "9999-12-31 23:59:59";
        EXPECT_GT(verdict.validUntil, verdict.judgedAt);
    }
    one.options.at = std::numeric_limits<std::time_t>::min();
    EXPECT_EQ(shown(one.judge(user(m_middle))),
              "refused certificate-not-yet-valid 0, certificate-not-yet-valid 1, certificate-not-yet-valid 2");
}

TEST_F(TrustChain, TimesThatAreNone) {
    const Verdict verdict = chain().judge(user(m_middle, {.notAfter = Time::utc("hello")}));
    EXPECT_EQ(shown(verdict), "refused validity-unreadable 0");
}

TEST_F(TrustChain, ForgedSignatures) {
    Verdict verdict = chain().judge(user(m_middle, {.signingKey = key(7)}));
    EXPECT_EQ(shown(verdict), "refused signature-wrong 0");
    EXPECT_EQ(verdict.reasons[0].text, "the signature on the certificate of CN=Anna is not that of CN=Middle");
    const Identity forged = authority("Forged", 2, &m_root, {.signingKey = key(7)});
    Case one;
    one.anchor(m_root).message(forged);
    verdict = one.judge(user(forged));
    EXPECT_EQ(shown(verdict), "refused signature-wrong 1");
}

/// The octets of the identifier of ecdsa-with-SHA256, and one that nobody has.
Identity withAlgorithm(Identity identity, bool inside, bool outside) {
    const auto known = norvauthority::der::oid("1.2.840.10045.4.3.2");
    auto unknown = known;
    unknown.back() = 0x7F;
    auto& der = identity.certificate.der;
    auto at = std::search(der.begin(), der.end(), known.begin(), known.end());
    if (inside) {
        std::copy(unknown.begin(), unknown.end(), at);
    }
    at = std::search(at + 1, der.end(), known.begin(), known.end());
    if (outside) {
        std::copy(unknown.begin(), unknown.end(), at);
    }
    return identity;
}

TEST_F(TrustChain, AlgorithmsThatAreNotKnownAreNotForged) {
    const Verdict verdict = chain().judge(withAlgorithm(user(m_middle), true, true));
    EXPECT_EQ(shown(verdict), "refused algorithm-unsupported 0");
    EXPECT_THAT(verdict.reasons[0].text, HasSubstr("1.2.840.10045.4.3.127"));
}

TEST_F(TrustChain, NorAreThoseThatAnAnchorSignedWith) {
    EXPECT_EQ(shown(chain().judge(withAlgorithm(user(m_root), true, true))), "refused algorithm-unsupported 0");
}

TEST_F(TrustChain, ASignatureOfAnotherKindThanTheIssuersKey) {
    const Identity anna = user(m_root, {.signingKey = norvauthority::Key::fromPem(norvtest::storedKeyPem("alice"))});
    EXPECT_EQ(shown(chain().judge(anna)), "refused issuer-missing 0");
    const Identity bob = user(m_middle, {.signingKey = norvauthority::Key::fromPem(norvtest::storedKeyPem("alice"))});
    EXPECT_EQ(shown(chain().judge(bob)), "refused issuer-missing 0");
}

TEST_F(TrustChain, TwoAlgorithms) {
    EXPECT_EQ(shown(chain().judge(withAlgorithm(user(m_middle), false, true))), "refused algorithms-differ 0");
}

/// With parameters of the universal tag 0 beside the signature: OpenSSL decodes it, and does not decode what it makes of it.
Identity withEmptyParameters(Identity identity) {
    const norvauthority::Bytes ecdsa = norvauthority::der::sequence({norvauthority::der::oid("1.2.840.10045.4.3.2")});
    auto& der = identity.certificate.der;
    const auto outer = std::find_end(der.begin(), der.end(), ecdsa.begin(), ecdsa.end());
    *(outer + 1) = static_cast<unsigned char>(*(outer + 1) + 2);
    der.insert(outer + static_cast<std::ptrdiff_t>(ecdsa.size()), {0x20, 0x00});
    const std::size_t length = der.size() - 4; // two octets have it
    der[2] = static_cast<unsigned char>(length >> 8U);
    der[3] = static_cast<unsigned char>(length);
    return identity;
}

/// RFC 5280, 4.1.1.2: it must be the algorithm that the signed part names.
TEST_F(TrustChain, ACertificateThatCannotBeCopiedIsRefusedAllTheSame) {
    EXPECT_EQ(shown(chain().judge(withEmptyParameters(user(m_middle)))), "refused algorithms-differ 0");
    Case one;
    one.anchor(m_root).message(withEmptyParameters(m_middle));
    EXPECT_EQ(shown(one.judge(user(m_middle))), "refused algorithms-differ 1");
}

TEST_F(TrustChain, AnIssuerWhoseKeyDoesNotDecode) {
    Identity middle = m_middle;
    // The identifier of the curve becomes another one, which is none.
    const auto curve = norvauthority::der::oid("1.2.840.10045.3.1.7");
    auto& der = middle.certificate.der;
    const auto at = std::search(der.begin(), der.end(), curve.begin(), curve.end());
    ASSERT_NE(at, der.end());
    *(at + static_cast<std::ptrdiff_t>(curve.size()) - 1) = 0x7F;
    Case one;
    one.anchor(m_root).message(middle);
    const Verdict verdict = one.judge(user(m_middle));
    EXPECT_EQ(shown(verdict), "refused issuer-key-unusable 1");
}

TEST_F(TrustChain, ACertificateWhoseOwnKeyDoesNotDecode) {
    const auto judged = [&](const norvauthority::CertificateRequest& request) {
        Identity anna = user(m_middle, request);
        const auto curve = norvauthority::der::oid("1.2.840.10045.3.1.7");
        auto& der = anna.certificate.der;
        const auto at = std::search(der.begin(), der.end(), curve.begin(), curve.end());
        EXPECT_NE(at, der.end());
        *(at + static_cast<std::ptrdiff_t>(curve.size()) - 1) = 0x7F; // no curve
        Case one = chain();
        const Verdict verdict = one.judge(anna);
        // Whoever there is: nobody is looked for.
        EXPECT_EQ(shown(Case().judge(anna)), shown(verdict));
        EXPECT_EQ(shown(one.known(list(m_middle)).judge(anna)), shown(verdict));
        return verdict;
    };
    const Verdict verdict = judged({});
    EXPECT_EQ(shown(verdict), "refused key-unusable 0");
    EXPECT_EQ(verdict.reasons[0].text,
              "the public key of CN=Anna cannot be read, or is of a kind that is not supported");
    EXPECT_EQ(shown(judged({.notAfter = Time::fromNow(-86400)})), "refused certificate-expired 0, key-unusable 0");
}

TEST_F(TrustChain, ShortKeysAndWeakDigests) {
    const Identity root = authority("RSA root", 0, nullptr, {.key = norvauthority::Key::rsa(1024)});
    Case one;
    one.anchor(root);
    Verdict verdict = one.judge(user(root, {.digest = "SHA1"}));
    EXPECT_EQ(shown(verdict), "refused digest-too-weak 0, key-too-short 1");
    EXPECT_EQ(verdict.reasons[0].text, "the certificate of CN=Anna is signed with SHA1");
    EXPECT_EQ(verdict.reasons[1].text, "the key of CN=RSA root is too short: RSA, 1024 bits");
    EXPECT_EQ(shown(one.judge(user(root, {.digest = "MD5"}))), "refused digest-too-weak 0, key-too-short 1");
    one.options.minimumDigestBits = 160;
    one.options.minimumRsaBits = 1024;
    EXPECT_EQ(shown(one.judge(user(root, {.digest = "SHA1"}))), "accepted ");
    EXPECT_EQ(shown(one.judge(user(root, {.digest = "MD5"}))), "refused digest-too-weak 0");
    one.options.minimumEcBits = 257;
    EXPECT_EQ(shown(one.judge(user(root))), "refused key-too-short 0");
}

TEST_F(TrustChain, TheDigestOfAnAnchorDoesNotMatter) {
    const Identity root = authority("Root", 0, nullptr, {.digest = "SHA1"});
    Case one;
    one.anchor(root);
    EXPECT_EQ(shown(one.judge(user(root))), "accepted ");
}

/// Whoever adds it to the anchors does not believe it for its signature on itself.
TEST_F(TrustChain, NorDoesThatOfARootThatIsNoAnchor) {
    const Identity old = authority("Old", 2, nullptr, {.digest = "SHA1"});
    Case one;
    one.anchor(m_root).message(old);
    EXPECT_EQ(shown(one.judge(user(old))), "refused root-not-trusted 1");
    one.options.purpose = Purpose::any;
    EXPECT_EQ(shown(one.judge(old)), "refused self-signed 0");
    // What an issuer signed that is missing is a link.
    EXPECT_EQ(shown(one.judge(authority("Lower", 3, &m_middle, {.digest = "SHA1"}))),
              "refused issuer-missing 0, digest-too-weak 0");
    // So is what is among the anchors and must have an issuer itself.
    const Identity half = authority("Half", 2, &m_middle, {.digest = "SHA1"});
    one.anchor(half);
    EXPECT_EQ(shown(one.judge(user(half))), "refused issuer-missing 1, digest-too-weak 1");
    one.options.partialChain = true;
    EXPECT_EQ(shown(one.judge(user(half))), "accepted ");
}

TEST_F(TrustChain, Ed25519HasNoDigestToChoose) {
    const Identity root = authority("Root", 0, nullptr, {.key = norvauthority::Key::ed25519()});
    Case one;
    one.anchor(root);
    EXPECT_EQ(shown(one.judge(user(root))), "accepted ");
}

/// An X509 signed anew by OpenSSL itself: with RSASSA-PSS, or with a curve that has its own digest.
Identity signedAnew(Identity identity, EVP_PKEY* key, bool pss, bool damaged) {
    const auto x509 = identity.certificate.x509();
    EVP_MD_CTX* const context = EVP_MD_CTX_new();
    EVP_PKEY_CTX* ofKey = nullptr;
    EXPECT_EQ(EVP_DigestSignInit(context, &ofKey, pss ? EVP_sha256() : nullptr, nullptr, key), 1);
    if (pss) {
        EXPECT_EQ(EVP_PKEY_CTX_set_rsa_padding(ofKey, RSA_PKCS1_PSS_PADDING), 1);
    }
    EXPECT_GT(X509_sign_ctx(x509.get(), context), 0);
    EVP_MD_CTX_free(context);
    unsigned char* der = nullptr;
    const int length = i2d_X509(x509.get(), &der);
    identity.certificate.der.assign(der, der + length);
    OPENSSL_free(der);
    identity.certificate.der.back() ^= damaged ? 1U : 0U;
    return identity;
}

TEST_F(TrustChain, ForgedWithAlgorithmsThatHaveNoDigestInTheirName) {
    const auto rsa = norvauthority::Key::fromPem(norvtest::storedKeyPem("alice"));
    EVP_PKEY* const made = EVP_PKEY_Q_keygen(nullptr, nullptr, "ED448");
    const auto goldilocks = norvauthority::Key::of(made);
    EVP_PKEY_free(made);
    for (const auto& [key, pss] : {std::pair{rsa, true}, {norvauthority::Key::ed25519(), false}, {goldilocks, false}}) {
        const Identity root = authority("Root", 0, nullptr, {.key = key, .signingKey = trusttesting::key(0)});
        Case one;
        one.anchor(root);
        one.options.partialChain = true; // the root did not sign itself
        const Identity anna = user(root, {.signingKey = trusttesting::key(0)});
        EXPECT_EQ(shown(one.judge(signedAnew(anna, key.get(), pss, false))), "accepted ");
        EXPECT_EQ(shown(one.judge(signedAnew(anna, key.get(), pss, true))), "refused signature-wrong 0");
    }
}

/// The thresholds are the least that is accepted.
TEST_F(TrustChain, KeysAndDigestsOfTheLeastLength) {
    const Identity root = authority("RSA root", 0, nullptr, {.key = norvauthority::Key::rsa(1024)});
    Case one;
    one.anchor(root);
    one.options.minimumRsaBits = 1024;
    for (const auto& [name, bits] : std::vector<std::pair<std::string, unsigned int>>{
             {"MD5", 128}, {"SHA1", 160}, {"SHA224", 224}, {"SHA256", 256}, {"SHA384", 384}, {"SHA512", 512}}) {
        const Identity anna = user(root, {.digest = name});
        one.options.minimumDigestBits = bits;
        EXPECT_EQ(shown(one.judge(anna)), "accepted ") << name;
        one.options.minimumDigestBits = bits + 1;
        EXPECT_EQ(shown(one.judge(anna)), "refused digest-too-weak 0") << name;
    }
    one.options = Options();
    one.options.minimumRsaBits = 1025;
    EXPECT_EQ(shown(one.judge(user(root))), "refused key-too-short 1");
}

TEST_F(TrustChain, EveryReasonIsTold) {
    const std::time_t now = std::time(nullptr);
    const Identity middle =
        authority("Middle", 1, &m_root, {.notAfter = Time::at(now - day), .ca = false, .digest = "SHA1"});
    Case one;
    one.anchor(m_root).message(middle);
    const Verdict verdict = one.judge(user(middle, {.notAfter = Time::at(now - day),
                                                    .keyUsage = 0x20,
                                                    .extendedKeyUsage = {"serverAuth"},
                                                    .extensions = {{"1.2.3.4", {0x05, 0x00}, true}},
                                                    .digest = "SHA1"}));
    EXPECT_FALSE(verdict.accepted);
    for (const auto& [code, depth] : std::vector<std::pair<Code, unsigned int>>{{Code::certificateExpired, 0},
                                                                                {Code::certificateExpired, 1},
                                                                                {Code::digestTooWeak, 0},
                                                                                {Code::digestTooWeak, 1},
                                                                                {Code::notAnAuthority, 1},
                                                                                {Code::keyUsageForbids, 0},
                                                                                {Code::extendedKeyUsageForbids, 0},
                                                                                {Code::criticalExtensionUnknown, 0}}) {
        EXPECT_TRUE(std::any_of(
            verdict.reasons.begin(), verdict.reasons.end(),
            [code = code, depth = depth](const Reason& each) { return each.code == code && each.depth == depth; }))
            << nameOf(code) << " " << depth << " in " << shown(verdict);
    }
}

TEST_F(TrustChain, NamesOfStrangersAreEscaped) {
    Case one;
    CertificateRequest request;
    request.subject = {{"CN", "Eve\n\x1b[31mall is well"}};
    request.key = key(9);
    request.issuer = &m_middle;
    const Verdict verdict = one.judge(norvauthority::issue(request));
    EXPECT_THAT(verdict.reasons[0].text, HasSubstr("CN=Eve\\0A\\1B[31mall is well"));
    EXPECT_EQ(verdict.reasons[0].text.find('\n'), std::string::npos);
    request.subject = {{"CN", std::string(100000, 'x')}};
    EXPECT_LT(one.judge(norvauthority::issue(request)).reasons[0].text.size(), 1000U);
}

TEST_F(TrustChain, TheNamelessAreToldByTheirNumber) {
    const Identity nameless = norvauthority::issue({.subject = {},
                                                    .key = key(9),
                                                    .issuer = &m_middle,
                                                    .serial = "a1b2",
                                                    .notAfter = Time::fromNow(-day),
                                                    .keyUsage = 0x80,
                                                    .extendedKeyUsage = {"emailProtection"},
                                                    .alternativeNames = {GeneralName::email("anna@example.org")}});
    const Verdict verdict = chain().judge(nameless);
    EXPECT_EQ(shown(verdict), "refused certificate-expired 0");
    EXPECT_THAT(verdict.reasons[0].text, HasSubstr("the nameless holder of the serial number A1B2 expired on "));
}

TEST_F(TrustChain, LongNamesAreCutBetweenCharactersAndEscapes) {
    // A name of 64 characters is the longest of its type (RFC 5280, A.1); of several there may be more.
    const auto textWith = [&](const std::string& part, std::size_t before) {
        norvauthority::Name name{{"CN", std::string(before, 'x')}};
        for (int count = 0; count < 10; ++count) {
            std::string value;
            while (value.size() + part.size() <= 60) {
                value += part;
            }
            name.add("OU", value);
        }
        const Identity long_ = norvauthority::issue({.subject = name,
                                                     .key = key(9),
                                                     .issuer = &m_middle,
                                                     .notAfter = Time::fromNow(-day),
                                                     .keyUsage = 0x80,
                                                     .extendedKeyUsage = {"emailProtection"}});
        const std::string text = find(chain().judge(long_).reasons, Code::certificateExpired).text;
        const std::size_t end = text.find("...");
        EXPECT_NE(end, std::string::npos) << text;
        return text.substr(0, end);
    };
    for (std::size_t before = 1; before <= 4; ++before) {
        const std::string cut = textWith("\xE2\x82\xAC", before); // the euro sign: three octets of UTF-8
        const unsigned char last = static_cast<unsigned char>(cut.back());
        if (last >= 0x80) {
            EXPECT_EQ(cut.substr(cut.size() - 3), "\xE2\x82\xAC");
        }
        EXPECT_LT(cut.size(), 400U);
        const std::string escaped = textWith("\n", before); // shown as \0A
        const std::size_t backslash = escaped.rfind('\\');
        EXPECT_TRUE(backslash == std::string::npos || escaped.size() - backslash >= 3) << escaped;
    }
}

TEST_F(TrustChain, DsaIsOneOfTheAlgorithms) {
    const Identity signer = authority("DSA", 0, &m_root, {.key = norvauthority::Key::dsa()});
    Case one;
    one.anchor(m_root).message(signer);
    const Verdict verdict = one.judge(user(signer));
    EXPECT_EQ(find(verdict.reasons, Code::signatureWrong).text, "") << shown(verdict);
    EXPECT_EQ(find(verdict.reasons, Code::keyTooLarge).text, "") << shown(verdict);
}

TEST_F(TrustChain, TheSeamOfTheCore) {
    auto material = std::make_shared<Material>();
    material->addAnchor(read(m_root));
    material->addUntrusted(read(m_middle));
    Verifier verifier(material);
    NVX509::CertificateVerifier& seam = verifier;
    const RefCertificate anna = read(user(m_middle));
    EXPECT_TRUE(seam.isValid(anna, 0, false));
    EXPECT_TRUE(seam.isValid(anna, 1, false));
    EXPECT_FALSE(seam.isValid(anna, 2, false)) << "encrypt: only digitalSignature";
    EXPECT_FALSE(seam.isValid(anna, 3, false)) << "no authority";
    EXPECT_TRUE(seam.isValid(read(m_middle), 3, false));
    EXPECT_FALSE(seam.isValid(anna, 4, false));
    EXPECT_FALSE(seam.isValid(anna, -1, false));
    EXPECT_FALSE(seam.isValid(anna, 1, true)) << "there are no lists";
    material->addList(read(list(m_middle)));
    material->addList(read(list(m_root)));
    EXPECT_TRUE(seam.isValid(anna, 1, true));
    EXPECT_FALSE(seam.isValid(RefCertificate(), 0, false));
}

} // namespace
