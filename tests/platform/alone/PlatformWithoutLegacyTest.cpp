// A host without OpenSSL's legacy provider, which some distributions have in a package of its own.

#include "support/Thrown.h"

#include <norvcrypto/Crypto.h>

#include <openssl/provider.h>

#include <gtest/gtest.h>

#include <cstdlib>

namespace {

TEST(PlatformWithoutLegacy, NothingOfThatStaysInTheErrorQueue) {
    ASSERT_EQ(setenv("OPENSSL_MODULES", "/nonexistent", 1), 0);
    Norvane::Crypto::initialize();
    ASSERT_EQ(OSSL_PROVIDER_available(nullptr, "legacy"), 0);
    EXPECT_EQ(OSSL_PROVIDER_available(nullptr, "default"), 1);
    EXPECT_TRUE(norvtest::errorQueueIsEmpty());
}

} // namespace
