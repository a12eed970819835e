// The texts of errors in a process that never asked OpenSSL for them: nothing of it has started here before.
#include "openssl/ErrorQueue.h"

#include <openssl/err.h>

#include <gtest/gtest.h>

namespace {

TEST(ErrorTexts, AreThereForTheFirstError) {
    Norvane::Crypto::openssl::queueError("the_function", ERR_LIB_BIO, ERR_R_MALLOC_FAILURE);
    const std::string text = Norvane::Crypto::openssl::drainErrorQueue();
    EXPECT_NE(text.find(": BIO routines / the_function / malloc failure; "), std::string::npos) << text;
}

} // namespace
