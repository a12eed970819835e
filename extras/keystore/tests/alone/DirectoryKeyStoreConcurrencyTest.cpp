// Meant for the thread sanitizer: look-ups in eight threads while the store is changed and loaded anew.

#include "../Store.h"
#include "support/Threads.h"

#include <atomic>
#include <thread>

using namespace keystoretesting;
using Purpose = DirectoryKeyStore::Purpose;

namespace {

using norvtest::beside;

class DirectoryKeyStoreConcurrencyTest : public DirectoryKeyStoreTest {};

/// Uses what a look-up gave as a mail layer does.
void use(const KeyCertificatePair& pair) {
    const auto& certificate = pair->certificate;
    EXPECT_FALSE(certificate->subject().asString().empty());
    EXPECT_FALSE(certificate->name().empty());
    EXPECT_NE(static_cast<evp_pkey_st*>(certificate->key()), nullptr);
    EXPECT_FALSE(certificate->validityPeriod().notAfter()->asTime().asString().empty());
    EXPECT_FALSE(certificate->isCACert() && certificate->subjectKeyIdentifier().isNull());
    for (const auto& one : pair->chain) {
        EXPECT_NE(one->subject().hash(), 0UL);
        EXPECT_GT(one->serialNumber().asInt(), 0);
    }
}

class DirectoryKeyStoreConcurrencyDuringReloadTest : public DirectoryKeyStoreConcurrencyTest {
protected:
    /// Look-ups in eight threads while anna's folder is replaced, and the store reloaded, ten times.
    template <class Replace> void lookUpDuring(Reading reading, Replace replace) {
        const auto root = identity("Root");
        m_store.add("everybody", "*\n");
        m_store.file("everybody/chain.pem", root.certificate.pem());
        m_store.add("anna-0", "anna@example.com\n", identity("anna"));
        const auto store = open(reading);
        const auto stays = store->findSigningKey(address("x@example.org"));
        beside(
            [&] {
                const auto anna = store->findSigningKey(address("anna@example.com"));
                EXPECT_EQ(who(anna), "anna");
                use(anna);
                EXPECT_EQ(recipientFor(store, "x@example.org"), "everybody");
                EXPECT_EQ(who(store->findDecryptionKey(address("anna@example.com"))), "anna");
                const auto found = store->find(stays->certificate->issuer(), stays->certificate->serialNumber());
                EXPECT_EQ(who(found), "everybody");
                use(found);
                const auto explanation = store->explain(address("anna@example.com"), Purpose::signing);
                EXPECT_GE(explanation.matches.size(), 2U);
                EXPECT_EQ(explanation.winner, 0U);
                EXPECT_GE(store->contents()->identities.size(), 2U);
            },
            [&] {
                for (int round = 1; round <= 10; ++round) {
                    m_store.add(".next", "anna@example.com\n", identity("anna"));
                    replace("anna-" + std::to_string(round - 1), "anna-" + std::to_string(round));
                    store->reload();
                    EXPECT_EQ(foldersOf(store).size(), 2U);
                }
            });
        use(stays);
    }
};

TEST_F(DirectoryKeyStoreConcurrencyDuringReloadTest, NoLookUpFails) {
    lookUpDuring(Reading::whenAsked, [&](const std::string& old, const std::string& next) {
        std::filesystem::rename(m_store.path(".next"), m_store.path(next));
        m_store.remove(old);
    });
}

// Nothing of the directory is looked at but by the reload: for a while there is no folder of anna's at all.
TEST_F(DirectoryKeyStoreConcurrencyDuringReloadTest, NoneSeesAHalfChangedDirectoryThatWasReadAhead) {
    lookUpDuring(Reading::ahead, [&](const std::string& old, const std::string& next) {
        m_store.remove(old);
        std::filesystem::rename(m_store.path(".next"), m_store.path(next));
    });
}

TEST_F(DirectoryKeyStoreConcurrencyTest, OnePairSignsInEightThreads) {
    m_store.add("anna", "anna@example.com\n");
    const auto store = open();
    beside([&] { sign(store->findSigningKey(address("anna@example.com"))); }, [] {});
}

TEST_F(DirectoryKeyStoreConcurrencyTest, ReloadsMayComeFromSeveralThreadsAndFail) {
    m_store.add("anna", "anna@example.com\n");
    const auto store = open();
    std::atomic<int> reloads{0};
    beside(
        [&] {
            try {
                store->reload();
            } catch (const Norvane::Exception&) {
                EXPECT_EQ(signerFor(store, "anna@example.com"), "anna");
            }
            EXPECT_EQ(signerFor(store, "anna@example.com"), "anna");
            ++reloads;
        },
        [&] {
            m_store.folder(".", 0777);
            const int before = reloads;
            while (reloads < before + 8) {
                std::this_thread::yield();
            }
            m_store.folder(".", 0755);
        });
}

} // namespace
