#include "support/Keys.h"
#include "support/Slots.h"
#include "support/Thrown.h"
#include "support/X509Testing.h"

#include <norvcrypto/KeyStore.h>

#include <type_traits>
#include <vector>

using namespace Norvane;
using namespace Norvane::Crypto;
using namespace Norvane::Crypto::NVX509;
using namespace x509testing;

namespace {

class KeyStoreTest : public QuietQueue {};

// A constructor from bool that converts by itself would make a pair out of any pointer.
static_assert(!std::is_convertible_v<bool, KeyCertificatePair>);
static_assert(!std::is_convertible_v<const char*, KeyCertificatePair>);
static_assert(!std::is_convertible_v<bool, RefKeyStore>);
static_assert(!std::is_copy_constructible_v<_KeyCertificatePair>);
static_assert(!std::is_copy_constructible_v<KeyStore>);

RefCertificate certificate(const char* name) {
    return read(issue({.subject = {{"CN", name}}, .key = anyKey()}));
}

RefKey privateKey() {
    return norvtest::privateKeyOf(anyKey());
}

EmailAddress address(const char* text) {
    return EmailAddress::rfc5321Parse(text, false);
}

/// Answers with what the test gave it, and notes what it was asked.
class Plugin : public KeyStorePlugin {
public:
    explicit Plugin(bool* gone = nullptr) : m_gone(gone) {}
    ~Plugin() override {
        if (m_gone != nullptr) {
            *m_gone = true;
        }
    }
    KeyCertificatePair find(const DistinguishedName& issuer, const ASN1::Integer& serial) override {
        asked.push_back("find " + issuer.asString() + " " + serial.hex());
        return byIssuer;
    }
    RefCertificate findEncryptionCertificate(const EmailAddress& recipient) override {
        asked.push_back("findEncryptionCertificate " + recipient.address());
        return encryption;
    }
    KeyCertificatePair findSigningKey(const EmailAddress& sender) override {
        asked.push_back("findSigningKey " + sender.address());
        return signing;
    }
    KeyCertificatePair findDecryptionKey(const EmailAddress& recipient) override {
        asked.push_back("findDecryptionKey " + recipient.address());
        return decryption;
    }

    KeyCertificatePair byIssuer{true};
    RefCertificate encryption;
    KeyCertificatePair signing{true};
    KeyCertificatePair decryption{true};
    std::vector<std::string> asked;

private:
    bool* m_gone;
};

/// A store with plug-ins that the test still reaches.
struct Store {
    explicit Store(int count) : store(true) {
        for (int i = 0; i < count; ++i) {
            plugins.push_back(new Plugin);
            store->add(RefKeyStorePlugin(plugins.back()));
        }
    }
    RefKeyStore store;
    std::vector<Plugin*> plugins;
};

const DistinguishedName& issuerName() {
    static const DistinguishedName name(std::string("CN=Root"));
    return name;
}

const ASN1::Integer& serialNumber() {
    static const ASN1::RefInteger serial(norvauthority::fromHex("02010a").data(), 3);
    return *serial;
}

// Pairs

TEST_F(KeyStoreTest, PairsHoldWhatTheyAreGiven) {
    const RefKey key = privateKey();
    const auto leaf = certificate("Leaf");
    const std::list<RefCertificate> chain{certificate("Sub"), certificate("Root")};
    const KeyCertificatePair pair(key, leaf, chain);
    EXPECT_EQ(&*pair->key, &*key);
    EXPECT_TRUE(pair->certificate == leaf);
    ASSERT_EQ(pair->chain.size(), 2U);
    EXPECT_EQ(pair->chain.front()->subject().asString(), "CN=Sub");
    EXPECT_EQ(pair->chain.back()->subject().asString(), "CN=Root");
    const KeyCertificatePair withoutChain(key, leaf);
    EXPECT_TRUE(withoutChain->certificate == leaf);
    EXPECT_TRUE(withoutChain->chain.empty());
}

TEST_F(KeyStoreTest, PairsAreCreatedEmptyOrNotAtAll) {
    const KeyCertificatePair empty(true);
    ASSERT_TRUE(empty);
    EXPECT_TRUE(empty->key.isNull());
    EXPECT_TRUE(empty->certificate.isNull());
    EXPECT_TRUE(empty->chain.empty());
    EXPECT_FALSE(KeyCertificatePair(false));
}

TEST_F(KeyStoreTest, PairsThatDoNotBelongTogetherAreNotRefused) {
    const KeyCertificatePair pair(RefKey(), certificate("Leaf"));
    EXPECT_TRUE(pair->key.isNull());
    EXPECT_FALSE(pair->certificate.isNull());
}

TEST_F(KeyStoreTest, CopiesOfAPairShareItsBody) {
    const KeyCertificatePair pair(true);
    const KeyCertificatePair copy = pair;
    copy->certificate = certificate("Leaf");
    EXPECT_EQ(pair->certificate->subject().asString(), "CN=Leaf");
}

using KeyStoreDeathTest = KeyStoreTest;

TEST_F(KeyStoreDeathTest, DereferencingANullPairIsTheSharedPointersAssertion) {
    const KeyCertificatePair none(false);
    EXPECT_DEATH(static_cast<void>(none->certificate.isNull()), "");
}

// Look-ups

TEST_F(KeyStoreTest, WithoutPluginsThereIsNoAnswer) {
    const RefKeyStore store(true);
    EXPECT_FALSE(store->find(issuerName(), serialNumber()));
    EXPECT_FALSE(store->findSigningKey(address("a@example.org")));
    EXPECT_FALSE(store->findDecryptionKey(address("a@example.org")));
    EXPECT_TRUE(store->findEncryptionCertificate(address("a@example.org")).isNull());
}

TEST_F(KeyStoreTest, PluginsAreAskedTheSameQuestion) {
    const Store held(1);
    EXPECT_FALSE(held.store->find(issuerName(), serialNumber()));
    EXPECT_FALSE(held.store->findSigningKey(address("s@example.org")));
    EXPECT_FALSE(held.store->findDecryptionKey(address("d@example.org")));
    EXPECT_TRUE(held.store->findEncryptionCertificate(address("e@example.org")).isNull());
    EXPECT_EQ(held.plugins[0]->asked,
              (std::vector<std::string>{"find CN=Root 0a", "findSigningKey s@example.org",
                                        "findDecryptionKey d@example.org", "findEncryptionCertificate e@example.org"}));
}

TEST_F(KeyStoreTest, APairWithoutCertificateIsNoAnswer) {
    const Store held(2);
    held.plugins[0]->byIssuer = KeyCertificatePair(privateKey(), RefCertificate());
    held.plugins[1]->byIssuer = KeyCertificatePair(privateKey(), certificate("Second"));
    const auto pair = held.store->find(issuerName(), serialNumber());
    ASSERT_TRUE(pair);
    EXPECT_EQ(pair.get(), held.plugins[1]->byIssuer.get()) << "the plug-in's own body, shared";
}

TEST_F(KeyStoreTest, TheFirstAnswerWinsAndNobodyElseIsAsked) {
    const Store held(2);
    for (auto* plugin : held.plugins) {
        plugin->byIssuer = KeyCertificatePair(privateKey(), certificate("A"));
        plugin->signing = KeyCertificatePair(privateKey(), certificate("B"));
        plugin->decryption = KeyCertificatePair(privateKey(), certificate("C"));
        plugin->encryption = certificate("D");
    }
    EXPECT_EQ(held.store->find(issuerName(), serialNumber()).get(), held.plugins[0]->byIssuer.get());
    EXPECT_EQ(held.store->findSigningKey(address("a@example.org")).get(), held.plugins[0]->signing.get());
    EXPECT_EQ(held.store->findDecryptionKey(address("a@example.org")).get(), held.plugins[0]->decryption.get());
    EXPECT_EQ(&*held.store->findEncryptionCertificate(address("a@example.org")), &*held.plugins[0]->encryption);
    EXPECT_TRUE(held.plugins[1]->asked.empty());
}

TEST_F(KeyStoreTest, EachLookUpPassesOverPluginsWithoutAnswer) {
    const Store held(3);
    held.plugins[2]->signing = KeyCertificatePair(privateKey(), certificate("S"));
    held.plugins[2]->decryption = KeyCertificatePair(privateKey(), certificate("D"));
    held.plugins[2]->encryption = certificate("E");
    EXPECT_EQ(held.store->findSigningKey(address("a@example.org"))->certificate->subject().asString(), "CN=S");
    EXPECT_EQ(held.store->findDecryptionKey(address("a@example.org"))->certificate->subject().asString(), "CN=D");
    EXPECT_EQ(held.store->findEncryptionCertificate(address("a@example.org"))->subject().asString(), "CN=E");
    EXPECT_EQ(held.plugins[1]->asked.size(), 3U);
}

TEST_F(KeyStoreTest, EmptyPluginHandlesAreNotAsked) {
    const RefKeyStore store(true);
    store->add(RefKeyStorePlugin());
    EXPECT_FALSE(store->find(issuerName(), serialNumber()));
    EXPECT_FALSE(store->findSigningKey(address("a@example.org")));
    EXPECT_FALSE(store->findDecryptionKey(address("a@example.org")));
    EXPECT_TRUE(store->findEncryptionCertificate(address("a@example.org")).isNull());
}

TEST_F(KeyStoreTest, WhatAPluginThrowsReachesTheCaller) {
    struct Broken : Plugin {
        KeyCertificatePair findSigningKey(const EmailAddress&) override { throw Exception("Broken", 4, "test", 1); }
    };
    const RefKeyStore store(true);
    store->add(RefKeyStorePlugin(new Broken));
    EXPECT_THROW(static_cast<void>(store->findSigningKey(address("a@example.org"))), Exception);
}

TEST_F(KeyStoreDeathTest, ANullPairEndsTheProcessAndSaysWhy) {
    const Store held(1);
    held.plugins[0]->byIssuer = KeyCertificatePair(false);
    held.plugins[0]->signing = KeyCertificatePair(false);
    held.plugins[0]->decryption = KeyCertificatePair(false);
    EXPECT_EXIT(static_cast<void>(held.store->find(issuerName(), serialNumber())), testing::KilledBySignal(SIGABRT),
                "key store plug-in returned a null pair from find\\(\\)");
    EXPECT_EXIT(static_cast<void>(held.store->findSigningKey(address("a@example.org"))),
                testing::KilledBySignal(SIGABRT), "null pair from findSigningKey\\(\\)");
    EXPECT_EXIT(static_cast<void>(held.store->findDecryptionKey(address("a@example.org"))),
                testing::KilledBySignal(SIGABRT), "null pair from findDecryptionKey\\(\\)");
}

// Handles

TEST_F(KeyStoreTest, PluginsLiveAsLongAsTheirStore) {
    bool gone = false;
    {
        const RefKeyStore store(true);
        store->add(RefKeyStorePlugin(new Plugin(&gone)));
        EXPECT_FALSE(gone);
    }
    EXPECT_TRUE(gone);
}

TEST_F(KeyStoreTest, AHandleKeepsAPluginBeyondItsStore) {
    bool gone = false;
    RefKeyStorePlugin plugin(new Plugin(&gone));
    EXPECT_EQ(plugin->referenceCount(), 1);
    {
        const RefKeyStore store(true);
        store->add(plugin);
    }
    EXPECT_FALSE(gone);
    plugin = RefKeyStorePlugin();
    EXPECT_TRUE(gone);
}

TEST_F(KeyStoreTest, NullPluginIsRefused) {
    const auto thrown =
        norvtest::thrownBy([] { const RefKeyStorePlugin handle(static_cast<KeyStorePlugin*>(nullptr)); });
    norvtest::expectFailure(thrown, "RefCounted constructor for RefImpl failed.", 4, "", 0);
}

TEST_F(KeyStoreTest, PluginOperationsKeepTheirSlots) {
    EXPECT_EQ(norvtest::slotOf(&KeyStorePlugin::find), 2U);
    EXPECT_EQ(norvtest::slotOf(&KeyStorePlugin::findEncryptionCertificate), 3U);
    EXPECT_EQ(norvtest::slotOf(&KeyStorePlugin::findSigningKey), 4U);
    EXPECT_EQ(norvtest::slotOf(&KeyStorePlugin::findDecryptionKey), 5U);
}

TEST_F(KeyStoreTest, StoresAreCreatedOrNotAtAll) {
    EXPECT_TRUE(RefKeyStore(false).isNull());
    const RefKeyStore store(true);
    EXPECT_EQ(store->referenceCount(), 1);
    const RefKeyStore copy = store;
    EXPECT_EQ(&*copy, &*store);
}

} // namespace
