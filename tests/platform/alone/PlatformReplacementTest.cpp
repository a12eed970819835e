// A program that defines the platform's functions itself: the library calls these and not its own.

#define OPENSSL_SUPPRESS_DEPRECATED

#include "../platform/Platform.h"

#include <norvcrypto/Crypto.h>
#include <norvcrypto/KeyFactory.h>

#include <openssl/provider.h>
#include <openssl/rsa.h>

#include <gtest/gtest.h>

namespace {

int s_starts = 0;
int s_checks = 0;
int s_checkedBits = 0;

} // namespace

extern "C" {

int openssl_init_with_rng() {
    ++s_starts;
    return 0;
}

int fips_rsa_consistency_test(rsa_st* rsa) {
    ++s_checks;
    s_checkedBits = rsa == nullptr ? 0 : RSA_bits(rsa);
    return 0;
}
}

namespace {

TEST(PlatformReplacement, TheProgramsStartFunctionIsCalledInsteadOfTheLibrarys) {
    s_starts = 0;
    Norvane::Crypto::initialize();
    EXPECT_EQ(s_starts, 1);
    EXPECT_EQ(OSSL_PROVIDER_available(nullptr, "legacy"), 0) << "the library's own start function ran";
}

TEST(PlatformReplacement, TheProgramsConsistencyTestSeesTheGeneratedKeyAndItsAnswerIsIgnored) {
    s_checks = 0;
    Norvane::Crypto::KeyGenerator generator;
    const auto [publicKey, privateKey] = generator.rsaGenerateKeyPair(65537, 1024);
    EXPECT_EQ(s_checks, 1);
    EXPECT_EQ(s_checkedBits, 1024);
    EXPECT_NE(static_cast<evp_pkey_st*>(privateKey), nullptr);
}

TEST(PlatformReplacement, TheConsistencyTestIsAskedEvenWhenNothingWasGenerated) {
    s_checks = 0;
    s_checkedBits = -1;
    Norvane::Crypto::KeyGenerator generator;
    EXPECT_THROW(generator.rsaGenerateKeyPair(65537, 100), Norvane::Exception);
    EXPECT_EQ(s_checks, 1);
    EXPECT_EQ(s_checkedBits, 0);
}

} // namespace
