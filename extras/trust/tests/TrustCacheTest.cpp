// Verdicts that are kept.

#include "Chains.h"

#include <chrono>
#include <thread>

using namespace trusttesting;

namespace {

class TrustCache : public TrustTest {
protected:
    std::shared_ptr<Material> m_material = std::make_shared<Material>();
    std::list<RefCertificate> m_certificates{read(m_middle)};
    Options m_options;

    void SetUp() override {
        TrustTest::SetUp();
        m_material->addAnchor(read(m_root));
    }
    bool judge(const Verifier& verifier, const Identity& who) const {
        return verifier.judge(read(who), m_certificates, {}, m_options).accepted;
    }
    /// How often a verdict was at hand, and how often not.
    static std::string counts(const Verifier& verifier) {
        const auto found = verifier.cacheCounts();
        return std::to_string(found.hits) + " " + std::to_string(found.misses);
    }
};

TEST_F(TrustCache, TheSameQuestionIsAnsweredOnce) {
    const Verifier verifier(m_material);
    const Identity anna = user(m_middle);
    EXPECT_TRUE(judge(verifier, anna));
    EXPECT_TRUE(judge(verifier, anna));
    EXPECT_EQ(counts(verifier), "1 1");
    // Certificates that names do not lead to change nothing, twice the same one neither.
    m_certificates.push_front(read(authority("Elsewhere", 5)));
    EXPECT_TRUE(judge(verifier, anna));
    EXPECT_EQ(counts(verifier), "2 1");
    EXPECT_GT(verifier.cacheCounts().bytes, 1000U);
    EXPECT_EQ(verifier.cacheCounts().entries, 1U);
}

TEST_F(TrustCache, WhateverMattersIsPartOfTheQuestion) {
    const Verifier verifier(m_material);
    const Identity anna = user(m_middle, {.keyUsage = 0x80});
    EXPECT_TRUE(judge(verifier, anna));
    m_options.purpose = Purpose::encrypt;
    EXPECT_FALSE(judge(verifier, anna));
    m_options = Options();
    m_options.revocation = Revocation::required;
    EXPECT_FALSE(judge(verifier, anna));
    m_options = Options();
    m_options.policies = {"1.2.3"};
    EXPECT_FALSE(judge(verifier, anna));
    m_options = Options();
    m_options.minimumEcBits = 300;
    EXPECT_FALSE(judge(verifier, anna));
    m_options = Options();
    m_options.minimumDigestBits = 300;
    EXPECT_FALSE(judge(verifier, anna));
    m_options = Options();
    m_options.maximumDepth = 0;
    EXPECT_FALSE(judge(verifier, anna));
    m_options = Options();
    m_options.at = 0;
    EXPECT_FALSE(judge(verifier, anna));
    m_options = Options();
    m_certificates.clear();
    EXPECT_FALSE(judge(verifier, anna)) << "the issuer is not there";
    m_certificates = {read(m_middle)};
    EXPECT_TRUE(judge(verifier, anna));
    EXPECT_EQ(counts(verifier), "1 9");
}

/// What is alike but for one thing is not the same question.
TEST_F(TrustCache, EachCertificateOfTheMessageIsPartOfTheQuestion) {
    const Verifier verifier(m_material);
    const Identity anna = user(m_middle);
    EXPECT_TRUE(judge(verifier, anna));
    m_certificates = {read(authority("Middle", 1, &m_root, {.serial = "b2", .notAfter = Time::fromNow(-day)}))};
    EXPECT_FALSE(judge(verifier, anna));
    EXPECT_EQ(counts(verifier), "0 2");
}

TEST_F(TrustCache, HowManyCertificatesTheMessageHasIsToldOfEach) {
    const Verifier verifier(m_material);
    const RefCertificate anna = read(user(m_middle));
    for (int i = 1; i < 65; ++i) {
        m_certificates.push_back(read(m_middle));
    }
    for (const char* count : {"65", "66"}) {
        const Verdict verdict = verifier.judge(anna, m_certificates, {}, m_options);
        ASSERT_EQ(codesOf(verdict.notes), "too-many-certificates 0");
        EXPECT_EQ(verdict.notes[0].text,
                  std::string("the message has ") + count + " certificates, of which the first ones were looked at");
        m_certificates.push_back(read(m_middle));
    }
    EXPECT_EQ(counts(verifier), "0 2");
}

TEST_F(TrustCache, AnEmptyHandleIsNoCertificateOfTheMessage) {
    const Verifier verifier(m_material);
    m_certificates.resize(64, read(m_middle));
    m_certificates.push_front(RefCertificate());
    const Identity anna = user(m_middle);
    const Verdict verdict = verifier.judge(read(anna), m_certificates, {}, m_options);
    EXPECT_TRUE(verdict.accepted);
    EXPECT_EQ(codesOf(verdict.notes), "") << "64 are looked at";
    m_certificates.pop_front();
    EXPECT_TRUE(judge(verifier, anna));
    EXPECT_EQ(counts(verifier), "1 1") << "it is the same question";
}

TEST_F(TrustCache, EachPolicyIsPartOfTheQuestion) {
    const Verifier verifier(m_material);
    const Identity anna = user(m_middle);
    for (const auto& policies : std::vector<std::vector<std::string>>{
             {"1.2.3"}, {"1.2.4"}, {"1.2.3", "1.2.4"}, {"1.2.3", "0.10.2"}, {"1.2.30.1", "0.2"}}) {
        m_options.policies = policies;
        EXPECT_FALSE(judge(verifier, anna));
    }
    EXPECT_EQ(counts(verifier), "0 5");
}

TEST_F(TrustCache, WhetherAnyAnchorEndsAChainIsPartOfTheQuestion) {
    const auto material = std::make_shared<Material>();
    material->addAnchor(read(m_middle));
    const Verifier verifier(material);
    const Identity anna = user(m_middle);
    EXPECT_FALSE(judge(verifier, anna));
    m_options.partialChain = true;
    EXPECT_TRUE(judge(verifier, anna));
    m_options.partialChain = false;
    EXPECT_FALSE(judge(verifier, anna));
    EXPECT_EQ(counts(verifier), "1 2");
}

TEST_F(TrustCache, ListsInAnyOrderAreTheSameQuestion) {
    const Verifier verifier(m_material);
    const RefCertificate anna = read(user(m_middle));
    m_options.revocation = Revocation::available;
    std::list<RefCertificateRevocationList> lists{
        read(list(m_middle)), read(list(m_middle, {.revoked = {{.serial = "77"}}, .thisUpdate = Time::fromNow(-60)}))};
    EXPECT_TRUE(verifier.judge(anna, m_certificates, lists, m_options).accepted);
    lists.reverse();
    EXPECT_TRUE(verifier.judge(anna, m_certificates, lists, m_options).accepted);
    EXPECT_EQ(counts(verifier), "1 1");
    // One of each: what stands in them is the question.
    EXPECT_TRUE(verifier.judge(anna, m_certificates, {read(list(m_middle))}, m_options).accepted);
    EXPECT_FALSE(
        verifier.judge(anna, m_certificates, {read(list(m_middle, {.revoked = {{.serial = "a1"}}}))}, m_options)
            .accepted);
}

TEST_F(TrustCache, AListBeyondThoseThatAreLookedAtIsPartOfTheQuestion) {
    const Verifier verifier(m_material);
    const RefCertificate anna = read(user(m_middle));
    m_options.revocation = Revocation::available;
    const RefCertificateRevocationList same = read(list(m_middle));
    std::list<RefCertificateRevocationList> lists(maximumMessageLists, same);
    EXPECT_FALSE(verifier.judge(anna, m_certificates, lists, m_options).mentions(ReasonCode::listNotUsed));
    lists.push_back(same);
    EXPECT_TRUE(verifier.judge(anna, m_certificates, lists, m_options).mentions(ReasonCode::listNotUsed));
}

/// About eight octets for each that is encoded, of what the material does not hold anyway.
TEST_F(TrustCache, WhatAVerdictKeepsFromBeingFreedIsCounted) {
    constexpr std::size_t decoded = 8;
    m_material->addUntrusted(read(m_middle));
    m_options.at = 1767311999; // a second before 2026-01-02
    const Identity root = authority("Root", 0, nullptr, {.notBefore = Time::utc("250101000000Z")});
    const Identity middle = authority("Middle", 1, &root, {.serial = "b2", .notBefore = Time::utc("250101000000Z")});
    const Identity anna =
        user(middle, {.notBefore = Time::utc("250101000000Z"), .notAfter = Time::utc("260102000000Z")});
    const auto material = std::make_shared<Material>();
    material->addAnchor(read(root));
    material->addUntrusted(read(middle));
    const std::size_t plain = sizeof(Verdict) + 3 * sizeof(Link) + decoded * anna.certificate.der.size();
    const auto bytesOf = [&](const std::shared_ptr<Material>& from, const std::list<RefCertificate>& certificates,
                             const std::list<RefCertificateRevocationList>& lists) {
        const Verifier verifier(from);
        const Verdict verdict = verifier.judge(read(anna), certificates, lists, m_options);
        std::size_t texts = 0;
        for (const auto* some : {&verdict.reasons, &verdict.notes}) {
            for (const Reason& one : *some) {
                texts += sizeof(Reason) + one.text.size() + one.advice.size();
            }
        }
        return std::pair(verifier.cacheCounts().bytes - texts, texts);
    };
    EXPECT_EQ(bytesOf(material, {}, {}), std::pair(plain, std::size_t{0}));
    m_options.at = 1767312000; // expired
    const auto refused = bytesOf(material, {}, {});
    EXPECT_EQ(refused.first, plain);
    EXPECT_GT(refused.second, sizeof(Reason));
    m_options.at = 1767311999;
    const auto bare = std::make_shared<Material>();
    bare->addAnchor(read(root));
    EXPECT_EQ(bytesOf(bare, {read(middle)}, {}).first, plain + decoded * middle.certificate.der.size());
    // Lists: those of the message, and not those of the material.
    m_options.revocation = Revocation::available;
    const auto ofMiddle =
        list(middle, {.thisUpdate = Time::utc("251201000000Z"), .nextUpdate = Time::utc("270101000000Z")});
    const auto ofRoot =
        list(root, {.thisUpdate = Time::utc("251201000000Z"), .nextUpdate = Time::utc("270101000000Z")});
    material->addList(read(ofRoot));
    const auto withLists = bytesOf(material, {}, {read(ofMiddle)});
    EXPECT_EQ(withLists, std::pair(plain + decoded * ofMiddle.der.size(), std::size_t{0}));
}

/// A certificate of the message that a reason is about need not be in the chain, and its sender chooses how large it is.
TEST_F(TrustCache, CertificatesThatReasonsAreAboutAreCounted) {
    constexpr std::size_t decoded = 8;
    Identity large = authority("Middle", 1, &m_root, {.extensions = {{"1.2.3.4", norvauthority::Bytes(100000, 5)}}});
    const auto curve = norvauthority::der::oid("1.2.840.10045.3.1.7");
    auto& der = large.certificate.der;
    const auto at = std::search(der.begin(), der.end(), curve.begin(), curve.end());
    ASSERT_NE(at, der.end());
    *(at + static_cast<std::ptrdiff_t>(curve.size()) - 1) = 0x7F; // no curve: a key that does not decode
    m_certificates = {read(large)};
    CacheLimits limits;
    limits.bytes = 10 * decoded * der.size();
    const Verifier verifier(m_material, {}, limits);
    for (int i = 0; i < 20; ++i) {
        const Identity anna = user(m_middle, {.serial = std::to_string(1000 + i)});
        const Verdict verdict = verifier.judge(read(anna), m_certificates, {}, m_options);
        ASSERT_EQ(shown(verdict), "refused issuer-key-unusable 1");
        ASSERT_EQ(verdict.links.size(), 1U);
        if (i == 0) {
            const Reason& reason = verdict.reasons[0];
            EXPECT_EQ(verifier.cacheCounts().bytes, sizeof(Verdict) + sizeof(Link) + sizeof(Reason) +
                                                        reason.text.size() + reason.advice.size() +
                                                        decoded * (anna.certificate.der.size() + der.size()));
        }
        EXPECT_EQ(verifier.cacheCounts().entries, static_cast<std::size_t>(std::min(i + 1, 9)));
    }
}

TEST_F(TrustCache, ListsOfTheMessageAreAPartOfTheQuestion) {
    const Verifier verifier(m_material);
    const Identity anna = user(m_middle);
    m_options.revocation = Revocation::available;
    const std::list<RefCertificateRevocationList> none;
    const std::list<RefCertificateRevocationList> revoking{read(list(m_middle, {.revoked = {{.serial = "a1"}}}))};
    EXPECT_TRUE(verifier.judge(read(anna), m_certificates, none, m_options).accepted);
    EXPECT_FALSE(verifier.judge(read(anna), m_certificates, revoking, m_options).accepted);
    EXPECT_TRUE(verifier.judge(read(anna), m_certificates, none, m_options).accepted);
}

TEST_F(TrustCache, ListsThatNobodyAsksForChangeNothing) {
    const Verifier verifier(m_material);
    const Identity anna = user(m_middle);
    std::list<RefCertificateRevocationList> many;
    for (std::size_t i = 0; i <= maximumMessageLists; ++i) {
        many.push_back(read(list(m_middle)));
    }
    EXPECT_TRUE(verifier.judge(read(anna), m_certificates, many, m_options).notes.empty());
    EXPECT_TRUE(verifier.judge(read(anna), m_certificates, {}, m_options).notes.empty());
    EXPECT_EQ(counts(verifier), "1 1");
}

TEST_F(TrustCache, ACopyWithAnotherSignatureIsAnotherCertificate) {
    const Verifier verifier(m_material);
    Identity anna = user(m_middle);
    EXPECT_TRUE(judge(verifier, anna));
    anna.certificate.der.back() ^= 1U;
    EXPECT_FALSE(judge(verifier, anna));
}

TEST_F(TrustCache, OtherMaterialIsAnotherQuestion) {
    const Verifier verifier(m_material);
    const Identity anna = user(m_middle);
    m_options.revocation = Revocation::available;
    EXPECT_TRUE(judge(verifier, anna));
    m_material->addList(read(list(m_middle, {.revoked = {{.serial = "a1"}}})));
    EXPECT_FALSE(judge(verifier, anna));
    EXPECT_EQ(verifier.cacheCounts().entries, 1U) << "what nobody can ask for any more does not stay";
    const std::size_t bytes = verifier.cacheCounts().bytes;
    m_material->addList(read(list(m_root)));
    EXPECT_FALSE(judge(verifier, anna));
    EXPECT_LT(verifier.cacheCounts().bytes, 2 * bytes) << "nor is it counted";
}

TEST_F(TrustCache, NeverPastTheValidityOfAnything) {
    const Verifier verifier(m_material);
    const std::time_t now = std::time(nullptr);
    const auto holdsUntil = [&](const Identity& who) {
        return verifier.judge(read(who), m_certificates, {}, m_options).validUntil;
    };
    EXPECT_EQ(holdsUntil(user(m_middle, {.notAfter = Time::at(now + 100)})), now + 100);
    EXPECT_EQ(holdsUntil(user(m_middle, {.notBefore = Time::at(now + 200)})), now + 200) << "a refusal, too";
    EXPECT_EQ(holdsUntil(user(authority("Nobody", 6), {.notAfter = Time::at(now + 90)})), now + 90);
    const Identity other = authority("Middle", 1, &m_root, {.serial = "b3", .notBefore = Time::at(now + 50)});
    m_certificates.push_back(read(other));
    EXPECT_EQ(holdsUntil(user(m_middle, {.notAfter = Time::at(now + 100)})), now + 50)
        << "a certificate that is not in the chain may be in it then";
    m_certificates = {read(m_middle)};
    m_options.revocation = Revocation::required;
    m_material->addList(read(list(m_root)));
    m_material->addList(read(list(m_middle, {.nextUpdate = Time::at(now + 70)})));
    EXPECT_EQ(holdsUntil(user(m_middle, {.notAfter = Time::at(now + 100)})), now + 70);
    m_material->addList(read(list(m_middle, {.thisUpdate = Time::at(now + 60)})));
    EXPECT_EQ(holdsUntil(user(m_middle, {.notAfter = Time::at(now + 100)})), now + 60) << "a list that is to come";
}

TEST_F(TrustCache, AVerdictIsNotGivenPastItsEnd) {
    const Verifier verifier(m_material);
    const std::time_t end = std::time(nullptr) + 3;
    const Identity anna = user(m_middle, {.notAfter = Time::at(end)});
    const std::time_t first = verifier.judge(read(anna), m_certificates, {}, m_options).judgedAt;
    while (std::time(nullptr) == first) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    EXPECT_GT(verifier.judge(read(anna), m_certificates, {}, m_options).judgedAt, first)
        << "what is kept is judged now";
    while (std::time(nullptr) < end) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    EXPECT_FALSE(judge(verifier, anna));
}

TEST_F(TrustCache, CountAndBytesAreBounded) {
    CacheLimits limits;
    limits.entries = 3;
    const Verifier few(m_material, {}, limits);
    for (int i = 0; i < 10; ++i) {
        EXPECT_TRUE(judge(few, user(m_middle, {.serial = std::to_string(1000 + i)})));
        EXPECT_LE(few.cacheCounts().entries, 3U);
    }
    limits = CacheLimits();
    limits.bytes = 40000;
    const Verifier small(m_material, {}, limits);
    for (int i = 0; i < 10; ++i) {
        EXPECT_TRUE(judge(small, user(m_middle, {.serial = std::to_string(1000 + i)})));
        EXPECT_LE(small.cacheCounts().bytes, 40000U);
    }
    EXPECT_GT(small.cacheCounts().entries, 0U);
    EXPECT_LT(small.cacheCounts().entries, 10U);
    limits.entries = 0;
    const Verifier none(m_material, {}, limits);
    EXPECT_TRUE(judge(none, user(m_middle)));
    EXPECT_TRUE(judge(none, user(m_middle)));
    EXPECT_EQ(none.cacheCounts().entries, 0U);
    EXPECT_EQ(none.cacheCounts().bytes, 0U);
}

TEST_F(TrustCache, TheOneThatWasNotAskedForLongestGoes) {
    CacheLimits limits;
    limits.entries = 2;
    const Verifier verifier(m_material, {}, limits);
    const Identity anna = user(m_middle, {.serial = "a1"});
    judge(verifier, anna);
    judge(verifier, user(m_middle, {.serial = "a2"}));
    judge(verifier, anna);
    judge(verifier, user(m_middle, {.serial = "a3"}));
    judge(verifier, anna);
    EXPECT_EQ(counts(verifier), "2 3");
}

} // namespace
