#include "support/Grouping.h"
#include "support/Thrown.h"

#include <norvcrypto/Crypto.h>

#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

#include <gtest/gtest.h>

#include <thread>

namespace {

using Norvane::Crypto::getErrString;

class Errors : public testing::Test {
protected:
    Errors() {
        Norvane::Crypto::initialize();
        ERR_clear_error();
    }
    ~Errors() override { ERR_clear_error(); }

    static void queue(int library, int reason, const char* function) {
        ERR_new();
        ERR_set_debug("file.c", 1, function);
        ERR_set_error(library, reason, nullptr);
    }
};

TEST_F(Errors, EmptyQueueGivesTheEmptyText) {
    EXPECT_EQ(getErrString(), "");
}

TEST_F(Errors, OneErrorGivesCodeLibraryFunctionAndReason) {
    // Library 11 is X509, reason 116 a key value mismatch: 11 << 23 | 116.
    queue(ERR_LIB_X509, X509_R_KEY_VALUES_MISMATCH, "X509_check_private_key");
    EXPECT_EQ(getErrString(), "0x5800074: x509 certificate routines / X509_check_private_key / key values mismatch; ");
}

TEST_F(Errors, TwoErrorsStandOldestFirstEachWithItsEnd) {
    queue(ERR_LIB_EVP, EVP_R_UNSUPPORTED_ALGORITHM, "first_function");
    queue(ERR_LIB_BIO, ERR_R_MALLOC_FAILURE, "second_function");
    EXPECT_EQ(getErrString(), "0x300009c: digital envelope routines / first_function / unsupported algorithm; "
                              "0x100c0100: BIO routines / second_function / malloc failure; ");
}

TEST_F(Errors, TheQueueIsEmptyAfterwards) {
    queue(ERR_LIB_EVP, EVP_R_UNSUPPORTED_ALGORITHM, "f");
    getErrString();
    EXPECT_EQ(ERR_peek_error(), 0U);
    EXPECT_EQ(getErrString(), "");
}

TEST_F(Errors, AnErrorWithoutLibraryTextEndsTheResultAfterTheCodeAndEmptiesTheQueue) {
    ERR_raise(200, 5);
    queue(ERR_LIB_EVP, EVP_R_UNSUPPORTED_ALGORITHM, "never_shown");
    EXPECT_EQ(getErrString(), "0x64000005: ");
    EXPECT_EQ(ERR_peek_error(), 0U);
}

TEST_F(Errors, WhatStandsBeforeAnErrorWithoutTextIsKept) {
    queue(ERR_LIB_EVP, EVP_R_UNSUPPORTED_ALGORITHM, "f");
    ERR_raise(200, 5);
    EXPECT_EQ(getErrString(), "0x300009c: digital envelope routines / f / unsupported algorithm; 0x64000005: ");
}

TEST_F(Errors, AnErrorWithoutFunctionTextEndsTheResultAfterTheLibrary) {
    queue(ERR_LIB_EVP, EVP_R_UNSUPPORTED_ALGORITHM, nullptr);
    EXPECT_EQ(getErrString(), "0x300009c: digital envelope routines / ");
}

TEST_F(Errors, AnErrorWithoutReasonTextEndsTheResultAfterTheFunction) {
    queue(ERR_LIB_EVP, 4000, "f");
    EXPECT_EQ(getErrString(), "0x3000fa0: digital envelope routines / f / ");
    EXPECT_EQ(ERR_peek_error(), 0U);
}

TEST_F(Errors, CodesAreNotGroupedWhateverTheHostsLocale) {
    const norvtest::GroupingDigits grouping;
    queue(ERR_LIB_X509, X509_R_KEY_VALUES_MISMATCH, "X509_check_private_key");
    EXPECT_EQ(getErrString(), "0x5800074: x509 certificate routines / X509_check_private_key / key values mismatch; ");
}

TEST_F(Errors, AMissingFileIsToldInWords) {
    EXPECT_EQ(BIO_new_file("/nonexistent/file", "r"), nullptr);
    EXPECT_EQ(getErrString(), "0x80000002: system library / BIO_new_file / No such file or directory; "
                              "0x10000080: BIO routines / BIO_new_file / no such file; ");
}

TEST_F(Errors, ATlsReasonHasItsTextOnceTheTlsLayerWasStarted) {
    queue(ERR_LIB_SSL, 134, "f"); // certificate verify failed
    EXPECT_EQ(getErrString(), "0xa000086: SSL routines / f / certificate verify failed; ");
}

TEST_F(Errors, EachThreadHasItsOwnQueue) {
    queue(ERR_LIB_EVP, EVP_R_UNSUPPORTED_ALGORITHM, "f");
    std::string other = "not asked";
    std::thread([&] { other = getErrString(); }).join();
    EXPECT_EQ(other, "");
    EXPECT_NE(getErrString(), "");
}

TEST(StartAndStop, MayBeCalledTwice) {
    Norvane::Crypto::initialize();
    Norvane::Crypto::initialize();
    Norvane::Crypto::cleanup();
    Norvane::Crypto::cleanup();
    // Nothing was taken away for good: digests of both providers still start.
    Norvane::Crypto::initialize();
    EVP_MD_CTX* context = EVP_MD_CTX_new();
    EXPECT_EQ(EVP_DigestInit_ex(context, EVP_get_digestbyname("SHA256"), nullptr), 1);
    EXPECT_EQ(EVP_DigestInit_ex(context, EVP_get_digestbyname("MD4"), nullptr), 1);
    EVP_MD_CTX_free(context);
}

TEST(StartAndStop, LeavesTheErrorQueueAlone) {
    ERR_clear_error();
    ERR_raise(ERR_LIB_EVP, EVP_R_UNSUPPORTED_ALGORITHM);
    Norvane::Crypto::cleanup();
    EXPECT_NE(ERR_peek_error(), 0U);
    ERR_clear_error();
    Norvane::Crypto::initialize();
    EXPECT_TRUE(norvtest::errorQueueIsEmpty());
}

TEST(TracerHandle, IsNullAndStaysNullInCopies) {
    const Norvane::Crypto::TracerRef tracer;
    EXPECT_TRUE(tracer.isNull());
    const Norvane::Crypto::TracerRef copy(tracer);
    EXPECT_TRUE(copy.isNull());
    norvtest::expectFailure(norvtest::thrownBy([&] { static_cast<void>(copy.operator->()); }), "operator->", 1,
                            "include2/NorvRefcounted");
}

} // namespace
