// What a program gets that sets up OpenSSL's secure heap, which it can do but once.

#include "../Store.h"
#include "support/Thrown.h"

#include <gmock/gmock.h>
#include <openssl/crypto.h>

using namespace keystoretesting;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class DirectoryKeyStoreSecureHeapTest : public DirectoryKeyStoreTest {
protected:
    static void SetUpTestSuite() { ASSERT_NE(CRYPTO_secure_malloc_init(1U << 16U, 16), 0); }
};

TEST_F(DirectoryKeyStoreSecureHeapTest, HoldsTheSecretNumbersOfAnRsaKeyAndIsGivenBack) {
    m_store.add("x", "*\n");
    const auto before = CRYPTO_secure_used();
    {
        const auto store = open();
        EXPECT_THAT(problemsOf(store), IsEmpty());
        EXPECT_GE(CRYPTO_secure_used() - before, 2048U / 8U * 7U / 2U); // d, p, q, and the three of the CRT
    }
    EXPECT_EQ(CRYPTO_secure_used(), before);
}

TEST_F(DirectoryKeyStoreSecureHeapTest, HoldsTheSecretNumbersOfOtherKeysToo) {
    using norvauthority::Key;
    const auto root = identity("root");
    for (const Key& key : {Key::ec(), Key::dsa(), Key::ed25519()}) {
        m_store.add("x", "*\n", identity("x", {.key = key, .issuer = &root}));
        const auto before = CRYPTO_secure_used();
        const auto store = open();
        EXPECT_THAT(problemsOf(store), IsEmpty());
        EXPECT_GE(CRYPTO_secure_used() - before, 20U);
    }
}

// Going on would take every key away that nothing is wrong with.
TEST_F(DirectoryKeyStoreSecureHeapTest, WhenItIsFullALoadFailsAsAWholeAndTheOldContentServesOn) {
    m_store.add("x", "*\n");
    const auto store = open();
    std::vector<void*> taken;
    while (void* piece = CRYPTO_secure_malloc(64, __FILE__, __LINE__)) {
        taken.push_back(piece);
    }
    ERR_clear_error();
    const auto thrown = norvtest::thrownBy([&] { store->reload(); });
    for (void* piece : taken) {
        CRYPTO_secure_free(piece, __FILE__, __LINE__);
    }
    EXPECT_EQ(norvtest::detailOf(thrown),
              m_store.path() +
                  ": OpenSSL's secure heap has no room for the keys; a reload takes room for both contents");
    EXPECT_EQ(signerFor(store, "a@x.example"), "x");
    store->reload();
    EXPECT_EQ(signerFor(store, "a@x.example"), "x");
}

TEST_F(DirectoryKeyStoreSecureHeapTest, ABadKeyIsStillReportedAsOne) {
    m_store.add("x", "*\n");
    m_store.file("x/key.pem", "no key");
    EXPECT_THAT(problemsOf(open()), ElementsAre("x/key.pem: holds no private key in PEM form"));
}

} // namespace
