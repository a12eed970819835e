// Where ciphers come from: OpenSSL's providers, which a program may change while it runs. What looking one up costs is
// counted in locks, since OpenSSL takes them for every table that it looks into.

#include "support/Ciphers.h"
#include "support/Interpose.h"

#include <openssl/evp.h>
#include <openssl/provider.h>

#include <pthread.h>

using namespace ciphertest;
using namespace Norvane::Crypto;

namespace {

thread_local int s_locks = 0;

} // namespace

extern "C" __attribute__((visibility("default"))) int pthread_rwlock_rdlock(pthread_rwlock_t* lock) noexcept {
    ++s_locks;
    return norvtest::next<&pthread_rwlock_rdlock>("pthread_rwlock_rdlock")(lock);
}

namespace {

template <class Work> int locksFor(Work work) {
    s_locks = 0;
    work();
    return s_locks;
}

const Facts& factsOf(Cipher cipher) {
    for (const Facts& facts : allCiphers()) {
        if (facts.cipher == cipher) {
            return facts;
        }
    }
    throw std::out_of_range("no such cipher");
}

class EncryptionProviders : public testing::TestWithParam<Cipher> {};

TEST_P(EncryptionProviders, ASecondStreamDoesNotLookItsCipherUp) {
    const Facts& facts = factsOf(GetParam());
    const auto key = keyFor(facts);
    const auto iv = ivFor(facts);
    const auto encrypting = [&] { EncrypterMediaOut(facts.cipher, key, iv); };
    const auto decrypting = [&] { DecrypterMediaOut(facts.cipher, key, iv); };
    const auto lookingUp = [&] {
        EVP_CIPHER_CTX* context = EVP_CIPHER_CTX_new();
        EXPECT_EQ(EVP_EncryptInit(context, initializeCipher(facts.cipher), key.data(), iv.data()), 1);
        EVP_CIPHER_CTX_free(context);
    };
    encrypting();
    lookingUp();
    const int theirs = locksFor(lookingUp);
    ASSERT_GT(theirs, 0) << "locks are not counted";
    EXPECT_LT(locksFor(encrypting), theirs);
    EXPECT_LT(locksFor(decrypting), theirs);
}

TEST_P(EncryptionProviders, AskingForValidatedImplementationsLaterIsHeeded) {
    const Facts& facts = factsOf(GetParam());
    const std::string secret = encrypted(facts, sampleBytes(100));
    ASSERT_EQ(EVP_default_properties_enable_fips(nullptr, 1), 1);
    EXPECT_THROW(EncrypterMediaOut(facts.cipher, keyFor(facts), ivFor(facts)), Norvane::Exception);
    EXPECT_THROW(DecrypterMediaOut(facts.cipher, keyFor(facts), ivFor(facts)), Norvane::Exception);
    ASSERT_EQ(EVP_default_properties_enable_fips(nullptr, 0), 1);
    EXPECT_EQ(encrypted(facts, sampleBytes(100)), secret);
}

TEST_P(EncryptionProviders, AThreadWithAnotherLibraryContextFindsWhatThatOneHas) {
    const Facts& facts = factsOf(GetParam());
    const std::string secret = encrypted(facts, sampleBytes(100));
    OSSL_LIB_CTX* empty = OSSL_LIB_CTX_new();
    OSSL_PROVIDER* nothing = OSSL_PROVIDER_load(empty, "null");
    ASSERT_NE(nothing, nullptr);
    OSSL_LIB_CTX* before = OSSL_LIB_CTX_set0_default(empty);
    EXPECT_THROW(EncrypterMediaOut(facts.cipher, keyFor(facts), ivFor(facts)), Norvane::Exception);
    OSSL_LIB_CTX_set0_default(before);
    EXPECT_EQ(encrypted(facts, sampleBytes(100)), secret);
    OSSL_PROVIDER_unload(nothing);
    OSSL_LIB_CTX_free(empty);
}

INSTANTIATE_TEST_SUITE_P(OfTheDefaultProvider, EncryptionProviders,
                         testing::Values(DES_EDE3_CBC, AES_128_CBC, AES_192_CBC, AES_256_CBC));

} // namespace
