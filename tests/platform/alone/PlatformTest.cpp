// The library's own definitions of what the appliance's OpenSSL build adds.

#define OPENSSL_SUPPRESS_DEPRECATED

#include "../platform/Platform.h"
#include "support/Thrown.h"

#include <openssl/bn.h>
#include <openssl/evp.h>
#include <openssl/provider.h>
#include <openssl/rand.h>
#include <openssl/rsa.h>
#include <openssl/ssl.h>

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <string>

namespace {

struct Freeing {
    void operator()(RSA* rsa) const noexcept { RSA_free(rsa); }
};
using RsaPtr = std::unique_ptr<RSA, Freeing>;

RsaPtr generated() {
    return RsaPtr(RSA_generate_key(1024, 65537, nullptr, nullptr));
}

/// A pair put together from the public half of one and the private half of the other.
RsaPtr mixed(const RSA* publicHalf, const RSA* privateHalf) {
    RsaPtr rsa(RSA_new());
    RSA_set0_key(rsa.get(), BN_dup(RSA_get0_n(publicHalf)), BN_dup(RSA_get0_e(publicHalf)),
                 BN_dup(RSA_get0_d(privateHalf)));
    return rsa;
}

TEST(PlatformStart, AnswersOneAndLoadsTheDefaultAndTheLegacyProvider) {
    EXPECT_EQ(openssl_init_with_rng(), 1);
    EXPECT_EQ(OSSL_PROVIDER_available(nullptr, "default"), 1);
    EXPECT_EQ(OSSL_PROVIDER_available(nullptr, "legacy"), 1);
    EXPECT_EQ(RAND_status(), 1);
    EXPECT_TRUE(norvtest::errorQueueIsEmpty());
}

TEST(PlatformStart, EachProviderIsThereOnce) {
    ASSERT_EQ(openssl_init_with_rng(), 1);
    EVP_MD_free(
        EVP_MD_fetch(nullptr, "SHA256", nullptr)); // the first look-up is where OpenSSL starts its own providers
    std::map<std::string, int> counts;
    OSSL_PROVIDER_do_all(
        nullptr,
        [](OSSL_PROVIDER* provider, void* to) {
            ++(*static_cast<std::map<std::string, int>*>(to))[OSSL_PROVIDER_get0_name(provider)];
            return 1;
        },
        &counts);
    EXPECT_EQ(counts, (std::map<std::string, int>{{"default", 1}, {"legacy", 1}}));
}

TEST(PlatformStart, MayBeCalledAgain) {
    EXPECT_EQ(openssl_init_with_rng(), 1);
    EXPECT_EQ(openssl_init_with_rng(), 1);
}

TEST(PlatformConsistency, AcceptsAPairThatBelongsTogether) {
    const RsaPtr rsa = generated();
    EXPECT_EQ(fips_rsa_consistency_test(rsa.get()), 1);
}

TEST(PlatformConsistency, RefusesAPairPutTogetherFromTwo) {
    const RsaPtr one = generated();
    const RsaPtr two = generated();
    const RsaPtr rsa = mixed(one.get(), two.get());
    EXPECT_EQ(fips_rsa_consistency_test(rsa.get()), 0);
    ERR_clear_error();
}

TEST(PlatformConsistency, RefusesAPublicKeyAlone) {
    const RsaPtr pair = generated();
    const RsaPtr rsa(RSA_new());
    RSA_set0_key(rsa.get(), BN_dup(RSA_get0_n(pair.get())), BN_dup(RSA_get0_e(pair.get())), nullptr);
    EXPECT_EQ(fips_rsa_consistency_test(rsa.get()), 0);
    ERR_clear_error();
}

TEST(PlatformConsistency, AnswersZeroForNull) {
    EXPECT_EQ(fips_rsa_consistency_test(nullptr), 0);
    EXPECT_TRUE(norvtest::errorQueueIsEmpty());
}

TEST(PlatformVersions, TlsBefore12IsTurnedOff) {
    const unsigned long before12 = SSL_OP_NO_SSLv2 | SSL_OP_NO_SSLv3 | SSL_OP_NO_TLSv1 | SSL_OP_NO_TLSv1_1;
    EXPECT_EQ(ssl_version_options(), before12);
    EXPECT_EQ(ssl_version_options() & (SSL_OP_NO_TLSv1_2 | SSL_OP_NO_TLSv1_3), 0UL);
}

} // namespace
