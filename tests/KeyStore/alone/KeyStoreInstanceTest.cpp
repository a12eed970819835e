// In a process of its own: the process-wide store is made, replaced and taken away here.

#include "support/X509Testing.h"

#include <norvcrypto/KeyStore.h>

#include <dlfcn.h>

using namespace Norvane;
using namespace Norvane::Crypto::NVX509;
using namespace x509testing;

namespace {

class KeyStoreInstanceTest : public QuietQueue {
protected:
    void TearDown() override {
        RefKeyStore::instance(false, true);
        QuietQueue::TearDown();
    }
};

/// Has no answers, but asks for the process-wide store when it goes.
class Curious : public KeyStorePlugin {
public:
    explicit Curious(int& goneCount) : m_gone(goneCount) {}
    ~Curious() override {
        RefKeyStore::instance(false, false);
        ++m_gone;
    }
    KeyCertificatePair find(const DistinguishedName&, const Crypto::ASN1::Integer&) override {
        return KeyCertificatePair(true);
    }
    RefCertificate findEncryptionCertificate(const EmailAddress&) override { return {}; }
    KeyCertificatePair findSigningKey(const EmailAddress&) override { return KeyCertificatePair(true); }
    KeyCertificatePair findDecryptionKey(const EmailAddress&) override { return KeyCertificatePair(true); }

private:
    int& m_gone;
};

TEST_F(KeyStoreInstanceTest, ReadersGetTheStoreThatWasMade) {
    const auto made = RefKeyStore::instance(true, false);
    ASSERT_FALSE(made.isNull());
    EXPECT_EQ(&*RefKeyStore::instance(false, false), &*made);
    EXPECT_EQ(&*RefKeyStore::instance(false, false), &*made);
}

TEST_F(KeyStoreInstanceTest, AfterAResetThereIsNone) {
    const auto made = RefKeyStore::instance(true, false);
    EXPECT_TRUE(RefKeyStore::instance(false, true).isNull());
    EXPECT_TRUE(RefKeyStore::instance(false, false).isNull());
    EXPECT_EQ(made->referenceCount(), 1) << "the caller's own handle still holds it";
}

TEST_F(KeyStoreInstanceTest, MakingOneAgainReplacesIt) {
    const auto first = RefKeyStore::instance(true, false);
    const auto second = RefKeyStore::instance(true, false);
    EXPECT_NE(&*first, &*second);
    EXPECT_EQ(&*RefKeyStore::instance(false, false), &*second);
    EXPECT_EQ(first->referenceCount(), 1);
}

TEST_F(KeyStoreInstanceTest, CreateGoesBeforeReset) {
    const auto made = RefKeyStore::instance(true, true);
    ASSERT_FALSE(made.isNull());
    EXPECT_EQ(&*RefKeyStore::instance(false, false), &*made);
}

TEST_F(KeyStoreInstanceTest, AStoreOfTheCallersOwnIsNotTheProcessWideOne) {
    const auto made = RefKeyStore::instance(true, false);
    const RefKeyStore own(true);
    EXPECT_NE(&*RefKeyStore::instance(false, false), &*own);
}

TEST_F(KeyStoreInstanceTest, PluginsGoWithTheStoreAndMayAskForItMeanwhile) {
    int gone = 0;
    RefKeyStore::instance(true, false)->add(RefKeyStorePlugin(new Curious(gone)));
    RefKeyStore::instance(true, false)->add(RefKeyStorePlugin(new Curious(gone)));
    EXPECT_EQ(gone, 1) << "replaced";
    RefKeyStore::instance(false, true);
    EXPECT_EQ(gone, 2) << "taken away";
}

TEST_F(KeyStoreInstanceTest, TheStaticMutexExists) {
    EXPECT_NE(dlsym(RTLD_DEFAULT, "_ZN7Norvane6Crypto6NVX50911RefKeyStore7m_mutexE"), nullptr);
}

} // namespace
