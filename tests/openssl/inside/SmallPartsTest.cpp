// Small things that the rest is made of: times, identifiers, texts, PEM, paddings.
#include "openssl/ObjectText.h"
#include "openssl/PaddedDecryption.h"
#include "openssl/Pem.h"
#include "openssl/RawValues.h"
#include "openssl/RsaGeneration.h"
#include "openssl/TimeComparison.h"

#include <authority/Authority.h>

#include <openssl/err.h>

#include <gtest/gtest.h>

#include <limits>

using namespace Norvane::Crypto::openssl;
using norvauthority::Bytes;
namespace der = norvauthority::der;

namespace {

using TimePtr = Owned<ASN1_TIME, ASN1_TIME_free>;

TimePtr timeOf(int type, const std::string& text) {
    TimePtr time(ASN1_TIME_new());
    time->type = type;
    EXPECT_EQ(ASN1_STRING_set(time.get(), text.data(), static_cast<int>(text.size())), 1);
    return time;
}

} // namespace

TEST(CompareTime, BeforeTheSameAndAfter) {
    // 946684800 is 2000-01-01 00:00:00 UTC; an offset and a time without seconds are what the installed comparison does not take.
    for (const auto& time :
         {timeOf(V_ASN1_UTCTIME, "000101000000Z"), timeOf(V_ASN1_UTCTIME, "000101010000+0100"),
          timeOf(V_ASN1_UTCTIME, "0001010000Z"), timeOf(V_ASN1_GENERALIZEDTIME, "20000101000000.5Z")}) {
        EXPECT_EQ(compareTime(time.get(), 946684799), 1);
        EXPECT_EQ(compareTime(time.get(), 946684800), -1) << "the same moment";
        EXPECT_EQ(compareTime(time.get(), 946684801), -1);
        EXPECT_EQ(compareTime(time.get(), 0), 1);
        EXPECT_EQ(compareTime(time.get(), 1), 1);
        EXPECT_EQ(compareTime(time.get(), std::numeric_limits<std::time_t>::max()), -1) << "beyond the calendar";
        EXPECT_EQ(compareTime(time.get(), std::numeric_limits<std::time_t>::min()), 1);
    }
    EXPECT_EQ(compareTime(timeOf(V_ASN1_UTCTIME, "no time").get(), 0), 0);
    EXPECT_EQ(ERR_peek_error(), 0U);
}

// OpenSSL takes time in the square of the digits of a number.
TEST(ObjectText, NumbersOf256DigitsAtMost) {
    for (const char digit : {'0', '1', '9'}) {
        EXPECT_TRUE(mayBeIdentifier("1." + std::string(256, digit) + ".1"));
        EXPECT_TRUE(mayBeIdentifier(std::string(256, digit)));
        EXPECT_FALSE(mayBeIdentifier("1." + std::string(257, digit) + ".1"));
        EXPECT_FALSE(mayBeIdentifier(std::string(257, digit)));
    }
    EXPECT_FALSE(mayBeIdentifier(std::string("1.2\0", 4)));
}

TEST(RawValues, WhatIsNotThereIsNothing) {
    EXPECT_EQ(objectOf({}), nullptr);
    EXPECT_EQ(nidOf({}), NID_undef);
    EXPECT_EQ(digitsOf({}), "");
    EXPECT_EQ(nameOf({}), "");
    EXPECT_FALSE(momentOf({}));
    EXPECT_EQ(distinguishedNameOf({}), nullptr);
    const Bytes identifier = der::oid("1.2.840.113549.1.1.1");
    EXPECT_EQ(digitsOf(identifier), "1.2.840.113549.1.1.1");
    EXPECT_EQ(digitsOf(der::concat({identifier, {0}})), "") << "more than one element";
    EXPECT_EQ(digitsOf(der::oid("0.0")), "0.0");
    EXPECT_EQ(ERR_peek_error(), 0U);
}

TEST(RsaGeneration, ANullKeyIsNotWritten) {
    const BioPtr out(BIO_new(BIO_s_mem()));
    const auto expectRefused = [&](bool written) {
        EXPECT_FALSE(written);
        EXPECT_EQ(ERR_GET_LIB(ERR_peek_error()), ERR_LIB_RSA);
        EXPECT_EQ(ERR_GET_REASON(ERR_peek_error()), ERR_R_PASSED_NULL_PARAMETER);
        EXPECT_EQ(ERR_peek_error(), ERR_peek_last_error());
        ERR_clear_error();
        EXPECT_EQ(BIO_ctrl_pending(out.get()), 0U);
    };
    expectRefused(writeRsaPublicPem(out.get(), nullptr));
    expectRefused(writeRsaPrivatePem(out.get(), nullptr));
}

TEST(PaddedDecryption, WhatOpensslDoesNotDecryptIsNothing) {
    const CipherContextPtr context(EVP_CIPHER_CTX_new());
    const Bytes key(32, 1);
    ASSERT_EQ(EVP_EncryptInit_ex(context.get(), EVP_aes_256_cbc(), nullptr, key.data(), key.data()), 1);
    PaddedDecryption decryption(context.get()); // a context that encrypts
    const Bytes encrypted(64, 1);
    EXPECT_FALSE(decryption.update(encrypted));
    ERR_clear_error();
}
