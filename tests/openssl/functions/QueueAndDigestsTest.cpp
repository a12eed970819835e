// The error queue, what is remembered of digests and ciphers, and the deadline of a connection. This file stands in for functions of
// OpenSSL's, which go on to the real ones, to count calls and to name the provider.
#include "openssl/Deadline.h"
#include "openssl/DefaultCiphers.h"
#include "openssl/Digests.h"
#include "openssl/ErrorQueue.h"
#include "openssl/Pointers.h"

#include "support/Interpose.h"

#include <openssl/err.h>
#include <openssl/objects.h>
#include <openssl/provider.h>
#include <openssl/ssl.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <new>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace {

int s_lookedUp = 0;
int s_begun = 0;
bool s_ofAnother = false;

} // namespace

extern "C" const EVP_MD* EVP_get_digestbyname(const char* name) {
    ++s_lookedUp;
    return norvtest::next<&EVP_get_digestbyname>("EVP_get_digestbyname")(name);
}
extern "C" int EVP_DigestInit_ex(EVP_MD_CTX* context, const EVP_MD* digest, ENGINE* engine) {
    ++s_begun;
    return norvtest::next<&EVP_DigestInit_ex>("EVP_DigestInit_ex")(context, digest, engine);
}
extern "C" const char* OSSL_PROVIDER_get0_name(const OSSL_PROVIDER* provider) {
    return s_ofAnother ? "another" : norvtest::next<&OSSL_PROVIDER_get0_name>("OSSL_PROVIDER_get0_name")(provider);
}

namespace {

using namespace Norvane::Crypto::openssl;
using norvtest::During;

class ErrorQueueFunctions : public testing::Test {
protected:
    void SetUp() override { ERR_clear_error(); }
    void TearDown() override { ERR_clear_error(); }
};

TEST_F(ErrorQueueFunctions, AMarkDropsItsOwnErrorsAndLeavesThoseBefore) {
    { const ErrorMark nothing; }
    ERR_raise(ERR_LIB_USER, 1);
    {
        const ErrorMark mark;
        ERR_raise(ERR_LIB_USER, 2);
        ERR_raise(ERR_LIB_USER, 3);
    }
    { const ErrorMark nothing; }
    EXPECT_EQ(ERR_GET_REASON(ERR_get_error()), 1);
    EXPECT_EQ(ERR_get_error(), 0UL);
    {
        const ErrorMark mark;
        ERR_raise(ERR_LIB_USER, 2);
    }
    EXPECT_EQ(ERR_get_error(), 0UL);
}

TEST_F(ErrorQueueFunctions, WantOfMemoryIsFoundAmongOnesOwnErrors) {
    const auto ranOut = [](const std::vector<int>& reasons) {
        const ErrorMark mark;
        for (const int reason : reasons) {
            ERR_raise(ERR_LIB_ASN1, reason);
        }
        return mark.ranOutOfMemory();
    };
    EXPECT_FALSE(ranOut({}));
    EXPECT_FALSE(ranOut({101}));
    EXPECT_FALSE(ranOut({101, 102}));
    EXPECT_TRUE(ranOut({ERR_R_MALLOC_FAILURE}));
    EXPECT_TRUE(ranOut({ERR_R_MALLOC_FAILURE, 101}));
    EXPECT_TRUE(ranOut({101, ERR_R_MALLOC_FAILURE}));
    EXPECT_TRUE(ranOut({101, ERR_R_MALLOC_FAILURE, 102}));
    // With others in front, which may be of any kind, only the last one tells.
    ERR_raise(ERR_LIB_USER, ERR_R_MALLOC_FAILURE);
    EXPECT_FALSE(ranOut({101}));
    EXPECT_TRUE(ranOut({101, ERR_R_MALLOC_FAILURE}));
    EXPECT_EQ(ERR_GET_LIB(ERR_get_error()), ERR_LIB_USER);
    EXPECT_EQ(ERR_get_error(), 0UL);
    const ErrorMark mark;
    ERR_raise(ERR_LIB_ASN1, ERR_R_MALLOC_FAILURE);
    EXPECT_THROW(mark.throwWithoutMemory(), std::bad_alloc);
    EXPECT_NO_THROW(mark.throwWithoutMemory());
}

TEST_F(ErrorQueueFunctions, AMissingTextEndsTheLine) {
    queueError("the_function", ERR_LIB_BIO, ERR_R_MALLOC_FAILURE);
    const std::string whole = drainErrorQueue();
    EXPECT_NE(whole.find(": BIO routines / the_function / malloc failure; "), std::string::npos) << whole;
    for (const char* missing : {static_cast<const char*>(nullptr), ""}) {
        queueError(missing, ERR_LIB_BIO, ERR_R_MALLOC_FAILURE);
        queueError("the_function", ERR_LIB_BIO, ERR_R_MALLOC_FAILURE);
        EXPECT_EQ(drainErrorQueue(), whole.substr(0, whole.find("the_function")));
        EXPECT_EQ(ERR_peek_error(), 0UL);
    }
    EXPECT_EQ(drainErrorQueue(), "");
}

TEST(DigestFunctions, AreFoundByTheirNumbersOnceEach) {
    const auto byName = [](int nid) -> const EVP_MD* {
        const char* name = OBJ_nid2sn(nid);
        return name == nullptr ? nullptr : EVP_get_digestbyname(name);
    };
    for (int nid = -3; nid != 1400; ++nid) {
        const EVP_MD* const expected = byName(nid);
        ERR_clear_error();
        EXPECT_EQ(digestByNid(nid), expected) << nid;
        EXPECT_EQ(ERR_peek_error(), 0UL);
        s_lookedUp = 0;
        EXPECT_EQ(digestByNid(nid), expected) << nid;
        if (expected != nullptr && nid < 1200) {
            EXPECT_EQ(s_lookedUp, 0) << nid;
        }
    }
    EXPECT_EQ(digestByNid(1000000), nullptr);
    EXPECT_EQ(digestByNid(-1000000), nullptr);
    EXPECT_NE(digestByNid(NID_sha256), nullptr);
}

// What an application's own provider computes is not kept: it may be unloaded.
TEST(DigestFunctions, OnlyTheDefaultProvidersAreKept) {
    static bool isKept = false;
    if (std::exchange(isKept, true)) {
        GTEST_SKIP() << "what is kept stays so: this is seen once in a process";
    }
    const DigestContextPtr context(EVP_MD_CTX_new());
    {
        const During<bool> another(s_ofAnother, true);
        for (int turn = 0; turn != 3; ++turn) {
            s_begun = 0;
            EXPECT_TRUE(beginDigest(context.get(), digestByNid(NID_sha224)));
            EXPECT_EQ(s_begun, 1) << turn;
        }
    }
    EXPECT_TRUE(beginDigest(context.get(), digestByNid(NID_sha224)));
    s_begun = 0;
    EXPECT_TRUE(beginDigest(context.get(), digestByNid(NID_sha224)));
    EXPECT_EQ(s_begun, 0);
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EXPECT_EQ(EVP_DigestFinal_ex(context.get(), digest, &length), 1);
    EXPECT_EQ(length, 28U);
    EXPECT_FALSE(beginDigest(DigestContextPtr(EVP_MD_CTX_new()).get(), nullptr));
    ERR_clear_error();
}

TEST(CipherFunctions, OnlyTheDefaultProvidersAreKept) {
    static bool isKept = false;
    if (std::exchange(isKept, true)) {
        GTEST_SKIP() << "what is kept stays so: this is seen once in a process";
    }
    {
        const During<bool> another(s_ofAnother, true);
        EXPECT_EQ(implementationOf(EVP_aes_192_cbc()), EVP_aes_192_cbc());
        EXPECT_EQ(implementationOf(EVP_aes_192_cbc()), EVP_aes_192_cbc());
    }
    const EVP_CIPHER* const kept = implementationOf(EVP_aes_192_cbc());
    EXPECT_NE(kept, EVP_aes_192_cbc());
    EXPECT_EQ(implementationOf(EVP_aes_192_cbc()), kept);
    EXPECT_EQ(implementationOf(EVP_aes_128_ecb()), EVP_aes_128_ecb());
}

class DeadlineFunctions : public testing::Test {
protected:
    using Clock = std::chrono::steady_clock;

    void SetUp() override {
        ASSERT_NE(m_ssl, nullptr);
        BIO* source = BIO_new_mem_buf("abc", 3);
        SSL_set_bio(m_ssl.get(), source, BIO_new(BIO_s_null()));
    }
    /// What reading an octet answers, where the last attempt was to be repeated.
    int read() {
        char octet = 0;
        BIO_set_retry_read(SSL_get_rbio(m_ssl.get()));
        errno = 0;
        return BIO_read(SSL_get_rbio(m_ssl.get()), &octet, 1);
    }

    Owned<SSL_CTX, SSL_CTX_free> m_context{SSL_CTX_new(TLS_method())};
    Owned<SSL, SSL_free> m_ssl{SSL_new(m_context.get())};
};

TEST_F(DeadlineFunctions, NothingIsReadOnceItHasCome) {
    {
        const Deadline past(m_ssl.get(), Clock::now() - std::chrono::seconds(1));
        EXPECT_EQ(read(), -1);
        EXPECT_EQ(errno, ETIMEDOUT);
        EXPECT_FALSE(BIO_should_retry(SSL_get_rbio(m_ssl.get())));
        EXPECT_EQ(BIO_pending(SSL_get_rbio(m_ssl.get())), 3) << "only reading fails";
    }
    EXPECT_EQ(BIO_get_callback_ex(SSL_get_rbio(m_ssl.get())), nullptr);
    EXPECT_EQ(BIO_get_callback_arg(SSL_get_rbio(m_ssl.get())), nullptr);
    EXPECT_EQ(read(), 1);
    {
        const Deadline future(m_ssl.get(), Clock::now() + std::chrono::hours(1));
        EXPECT_EQ(read(), 1);
    }
    {
        const Deadline none(m_ssl.get(), std::nullopt);
        EXPECT_EQ(read(), 1);
    }
}

} // namespace
