// Meant for the thread sanitizer: a set that nobody changes any more is searched from eight threads.

#include "support/Threads.h"
#include "support/X509Testing.h"

#include <norvcrypto/CertBindingSet.h>

using namespace Norvane;
using namespace Norvane::Crypto;
using namespace x509testing;

namespace {

constexpr int bindings = 20;

/// One certificate each, read from PEM as a program's configuration would have it.
RefCertBindingSet makeSet(const norvauthority::Identity& root) {
    RefCertBindingSet set("shared");
    for (int id = 0; id < bindings; ++id) {
        const auto leaf =
            issue({.subject = {{"CN", "Leaf"}}, .key = anyKey(), .issuer = &root, .serial = std::to_string(10 + id)});
        set->add(RefCertBinding(id, StringPattern("user" + std::to_string(id) + "@*"), CertBinding::X509,
                                CertBinding::KeyUsage{}, static_cast<unsigned int>(id), 0, anyKey().pkcs8Pem().c_str(),
                                (leaf.certificate.pem() + root.certificate.pem()).c_str(), ""));
    }
    return set;
}

TEST(CertBindingConcurrencyTest, AWarmSetIsSearchedFromEightThreads) {
    const auto root = issue({.subject = {{"CN", "Root"}}, .key = anyKey(), .ca = true});
    // Several rounds: a schedule that runs the threads one after another shows no race.
    for (int round = 0; round < 4; ++round) {
        const auto set = makeSet(root);
        set->warm();
        norvtest::together([&](int thread) {
            const RefCertBindingSet mine = set;
            for (int i = 0; i < bindings; ++i) {
                const int id = (i + thread) % bindings;
                EXPECT_EQ(mine->find(id)->Id(), id);
                const auto owner = EmailAddress::rfc5321Parse("user" + std::to_string(id) + "@example.com", false);
                CertBindingOwnerFilter byOwner(owner);
                const RefCertBinding found = mine->find(byOwner);
                ASSERT_FALSE(found.isNull());
                EXPECT_EQ(found->Id(), id);
                const auto pair = found->keyPairX509();
                CertBindingCertificateFilter byCertificate(pair->certificate->issuer(),
                                                           pair->certificate->serialNumber());
                EXPECT_EQ(mine->find(byCertificate)->Id(), id);
                EXPECT_EQ(mine->findSet(byCertificate).size(), 1U);
                EXPECT_TRUE(pair->certificate->issuedBy(pair->chain.front(), false));
                EXPECT_NE(static_cast<evp_pkey_st*>(pair->key), nullptr);
            }
        });
    }
}

TEST(CertBindingConcurrencyTest, OwnersAreFoundInASetThatWasNotWarmed) {
    const auto set = makeSet(issue({.subject = {{"CN", "Root"}}, .key = anyKey(), .ca = true}));
    norvtest::together([&](int thread) {
        const auto owner = EmailAddress::rfc5321Parse("user" + std::to_string(thread) + "@example.com", false);
        CertBindingOwnerFilter filter(owner);
        for (int i = 0; i < 50; ++i) {
            EXPECT_EQ(set->find(filter)->Id(), thread);
            EXPECT_EQ(set->findSet(filter).size(), 1U);
        }
    });
}

} // namespace
