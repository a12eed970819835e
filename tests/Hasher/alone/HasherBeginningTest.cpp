// How often a digest's implementation is looked up: once in a process, where it cannot change. A program of its own, since
// that is what a process remembers.

#include "support/Interpose.h"
#include "support/Thrown.h"

#include <norvcrypto/Crypto.h>
#include <norvcrypto/Hasher.h>

#include <openssl/crypto.h>
#include <openssl/evp.h>

#include <gtest/gtest.h>

#include <memory>

namespace {

int s_begun = 0;

} // namespace

extern "C" __attribute__((visibility("default"))) int EVP_DigestInit_ex(EVP_MD_CTX* context, const EVP_MD* digest,
                                                                        ENGINE* engine) {
    ++s_begun;
    return norvtest::next<&EVP_DigestInit_ex>("EVP_DigestInit_ex")(context, digest, engine);
}

namespace {

using namespace Norvane::Crypto;

// FIPS 180-2, the example "abc".
constexpr const char* s_abc = "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";

std::string digested(Hasher::Type type, const std::string& text) {
    Hasher hasher(type);
    hasher.update(text);
    hasher.finalize();
    return hasher.digestAsHexString();
}

int begunFor(Hasher::Type type) {
    s_begun = 0;
    digested(type, "abc");
    return s_begun;
}

class HasherBeginning : public testing::Test {
protected:
    void SetUp() override { initialize(); }
};

TEST_F(HasherBeginning, IsLookedUpOnceForTheDigestsInUse) {
    for (const Hasher::Type type : {Hasher::SHA1, Hasher::SHA224, Hasher::SHA256, Hasher::SHA384, Hasher::SHA512}) {
        EXPECT_LE(begunFor(type), 1);
        EXPECT_EQ(begunFor(type), 0) << type;
    }
    EXPECT_TRUE(norvtest::errorQueueIsEmpty());
}

TEST_F(HasherBeginning, OfOthersEachTime) {
    begunFor(Hasher::MD5);
    EXPECT_EQ(begunFor(Hasher::MD5), 1);
}

TEST_F(HasherBeginning, EachDigestStartsAnew) {
    EXPECT_EQ(digested(Hasher::SHA256, "something else"), digested(Hasher::SHA256, "something else"));
    EXPECT_EQ(digested(Hasher::SHA256, "abc"), s_abc);
    Hasher one(Hasher::SHA256);
    one.update(std::string("a"));
    EXPECT_EQ(digested(Hasher::SHA256, "abc"), s_abc);
    one.update(std::string("bc"));
    one.finalize();
    EXPECT_EQ(one.digestAsHexString(), s_abc);
}

TEST_F(HasherBeginning, IsLookedUpInAThreadWithALibraryContextOfItsOwn) {
    begunFor(Hasher::SHA256);
    const std::unique_ptr<OSSL_LIB_CTX, decltype(&OSSL_LIB_CTX_free)> own(OSSL_LIB_CTX_new(), OSSL_LIB_CTX_free);
    OSSL_LIB_CTX* const before = OSSL_LIB_CTX_set0_default(own.get());
    EXPECT_EQ(begunFor(Hasher::SHA256), 1);
    OSSL_LIB_CTX_set0_default(before);
    EXPECT_EQ(begunFor(Hasher::SHA256), 0);
}

TEST_F(HasherBeginning, IsLookedUpWhileValidatedImplementationsAreAskedFor) {
    begunFor(Hasher::SHA256);
    ASSERT_EQ(EVP_default_properties_enable_fips(nullptr, 1), 1);
    s_begun = 0;
    EXPECT_THROW(Hasher{Hasher::SHA256}, Norvane::Exception); // there are none here
    EXPECT_EQ(s_begun, 1);
    ASSERT_EQ(EVP_default_properties_enable_fips(nullptr, 0), 1);
    EXPECT_EQ(digested(Hasher::SHA256, "abc"), s_abc);
    getErrString();
}

} // namespace
