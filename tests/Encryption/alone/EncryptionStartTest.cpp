// The start of the library without memory for IDEA: it goes on, and the first use of the cipher tells. A program of its
// own, since a cipher is added once in a process.

// IDEA is an OpenSSL cipher of a kind that is deprecated in OpenSSL 3.0.
#define OPENSSL_SUPPRESS_DEPRECATED

#include "support/Interpose.h"

#include <norvcrypto/Crypto.h>
#include <norvcrypto/Encryption.h>

#include <openssl/evp.h>

#include <gtest/gtest.h>

#include <new>

namespace {

bool s_failing = false;
const void* s_made = nullptr;

} // namespace

extern "C" __attribute__((visibility("default"))) EVP_CIPHER* EVP_CIPHER_meth_new(int type, int block, int key) {
    EVP_CIPHER* cipher =
        s_failing ? nullptr : norvtest::next<&EVP_CIPHER_meth_new>("EVP_CIPHER_meth_new")(type, block, key);
    s_made = cipher;
    return cipher;
}

namespace {

using namespace Norvane::Crypto;

TEST(Start, WithoutMemoryForIdeaGoesOnAndALaterUseAddsIt) {
    {
        const norvtest::During<bool> failing(s_failing, true);
        EXPECT_NO_THROW(initialize());
        EXPECT_EQ(EVP_get_cipherbyname("IDEA-CBC"), nullptr);
        EXPECT_THROW(initializeCipher(IDEA_CBC), std::bad_alloc);
        EXPECT_NE(initializeCipher(AES_128_CBC), nullptr);
    }
    initialize();
    EXPECT_NE(s_made, nullptr);
    EXPECT_EQ(EVP_get_cipherbyname("IDEA-CBC"), s_made);
    EXPECT_EQ(initializeCipher(IDEA_CBC), s_made);
}

} // namespace
