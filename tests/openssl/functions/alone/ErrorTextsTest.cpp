// The texts of errors in a process in which nothing else of OpenSSL has started: OpenSSL loads them with the first error.
#include "openssl/ErrorQueue.h"

#include <openssl/err.h>

#include <gtest/gtest.h>

namespace {

TEST(ErrorTexts, AreThereForTheFirstError) {
    ASSERT_EQ(ERR_lib_error_string(ERR_PACK(ERR_LIB_BIO, 0, 0)), nullptr) << "or there is nothing to be tested";
    Norvane::Crypto::openssl::queueError("the_function", ERR_LIB_BIO, ERR_R_MALLOC_FAILURE);
    const std::string text = Norvane::Crypto::openssl::drainErrorQueue();
    EXPECT_NE(text.find(": BIO routines / the_function / malloc failure; "), std::string::npos) << text;
}

} // namespace
