// Meant for the thread sanitizer: judging in eight threads while the material is changed and loaded anew.

#include "../Chains.h"
#include "support/TemporaryFolder.h"
#include "support/Threads.h"

#include <norvcrypto-trust/TrustSender.h>

#include <atomic>
#include <filesystem>
#include <fstream>

using namespace trusttesting;

namespace {

using norvtest::beside;

class TrustConcurrencyTest : public TrustTest {};

/// Uses a verdict as a mail layer does; others use the same certificates at the same time.
void use(const Verdict& verdict) {
    for (const Link& link : verdict.links) {
        EXPECT_FALSE(link.certificate->subject().asString().empty());
        EXPECT_FALSE(link.certificate->validityPeriod().notAfter()->asTime().asString().empty());
        for (const auto& one : link.lists) {
            EXPECT_FALSE(one->crlInfo().issuer().asString().empty());
        }
    }
    for (const Reason& reason : verdict.reasons) {
        EXPECT_FALSE(reason.text.empty());
        EXPECT_FALSE(reason.certificate->issuer().asString().empty());
    }
}

TEST_F(TrustConcurrencyTest, JudgingGoesOnWhileMaterialIsReloaded) {
    const norvtest::TemporaryFolder folder;
    folder.write("root.pem", m_root.certificate.pem());
    std::filesystem::create_directory(folder.path("lists"));
    const auto good = list(m_middle).pem();
    const auto bad = list(m_middle, {.revoked = {{.serial = "a1"}}, .thisUpdate = Time::fromNow(-60)}).pem();
    folder.write("lists/root.crl", list(m_root).pem());
    folder.write("lists/middle.crl", good);
    auto material = std::make_shared<Material>();
    material->addAnchors(folder.path("root.pem"));
    material->addLists(folder.path("lists"));
    Options options;
    options.revocation = Revocation::required;
    CacheLimits limits;
    limits.entries = 4;
    const Verifier verifier(material, options, limits);
    const Identity anna = user(m_middle);
    const Identity bob = user(m_middle, {.serial = "b0b"});
    beside(
        [&] {
            const std::list<RefCertificate> certificates{read(m_middle)};
            const Verdict verdict = verifier.judge(read(anna), certificates, {}, options);
            EXPECT_TRUE(verdict.accepted || shown(verdict) == "refused revoked 0") << shown(verdict);
            use(verdict);
            const Verdict other = verifier.judge(read(bob), certificates, {}, options);
            EXPECT_EQ(shown(other), "accepted ");
            use(other);
            EXPECT_TRUE(matchSender(verdict.chain.front(), {"anna@example.org"}).matches());
            EXPECT_EQ(material->counts().anchors, 1U);
            EXPECT_TRUE(material->problems().empty());
        },
        [&] {
            for (int round = 0; round < 10; ++round) {
                folder.write("lists/.next", round % 2 == 0 ? bad : good);
                std::filesystem::rename(folder.path("lists/.next"), folder.path("lists/middle.crl"));
                material->reload();
                material->addUntrusted(read(authority("Other " + std::to_string(round), 5)));
            }
        });
    EXPECT_EQ(material->counts().untrusted, 10U);
}

TEST_F(TrustConcurrencyTest, OneMessageInEightThreads) {
    auto material = std::make_shared<Material>();
    material->addAnchor(read(m_root));
    material->addList(read(list(m_root)));
    const Verifier verifier(material);
    const RefCertificate anna = read(user(m_middle));
    const std::list<RefCertificate> certificates{read(m_middle)};
    const std::list<RefCertificateRevocationList> lists{read(list(m_middle))};
    anna->warm();
    certificates.front()->warm();
    lists.front()->warm();
    std::atomic<unsigned int> depth{2};
    beside(
        [&] {
            Options options;
            options.revocation = Revocation::required;
            options.maximumDepth = ++depth; // another question each time, so that none is answered from the cache
            const Verdict verdict = verifier.judge(anna, certificates, lists, options);
            EXPECT_EQ(shown(verdict), "accepted ");
            use(verdict);
        },
        [] {});
}

} // namespace
