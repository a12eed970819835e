// Small things that the rest is made of: times, identifiers, texts, PEM, paddings.
#include "openssl/ContentCipher.h"
#include "openssl/ObjectText.h"
#include "openssl/PaddedDecryption.h"
#include "openssl/Pem.h"
#include "openssl/RawValues.h"
#include "openssl/RsaGeneration.h"
#include "openssl/SignatureScheme.h"
#include "openssl/TimeComparison.h"

#include "support/Interpose.h"

#include <authority/Authority.h>

#include <openssl/asn1.h>
#include <openssl/err.h>
#include <openssl/rsa.h>

#include <gtest/gtest.h>

#include <limits>
#include <new>

namespace {

bool s_withoutMemory = false;

/// What OpenSSL leaves of a call that found no memory.
bool failsWithoutMemory() {
    if (s_withoutMemory) {
        ERR_raise(ERR_LIB_ASN1, ERR_R_MALLOC_FAILURE);
    }
    return s_withoutMemory;
}

} // namespace

extern "C" {

void* ASN1_TYPE_unpack_sequence(const ASN1_ITEM* item, const ASN1_TYPE* type) {
    return failsWithoutMemory() ? nullptr
                                : norvtest::next<&ASN1_TYPE_unpack_sequence>("ASN1_TYPE_unpack_sequence")(item, type);
}
RSA_PSS_PARAMS* d2i_RSA_PSS_PARAMS(RSA_PSS_PARAMS** reused, const unsigned char** at, long length) {
    return failsWithoutMemory() ? nullptr
                                : norvtest::next<&d2i_RSA_PSS_PARAMS>("d2i_RSA_PSS_PARAMS")(reused, at, length);
}
int EVP_DigestVerify(EVP_MD_CTX* context, const unsigned char* signature, size_t length, const unsigned char* text,
                     size_t count) {
    return failsWithoutMemory()
               ? 0
               : norvtest::next<&EVP_DigestVerify>("EVP_DigestVerify")(context, signature, length, text, count);
}

} // extern "C"

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

// Without memory nothing is known of a message: it is not called damaged, forged or unsupported.
TEST(WithoutMemory, NothingIsSaidOfAMessage) {
    const Bytes parameters = der::sequence({});
    const Bytes scheme = der::sequence({der::oid("1.2.840.113549.1.1.10"), parameters});
    const Bytes inner = der::sequence({der::oid("2.16.840.1.101.3.4.1.5")});
    const auto outer = decodeAlgorithm(der::sequence({der::oid("1.2.840.113549.1.9.16.3.9"), inner}));
    const auto edwards = norvauthority::Key::ed25519();
    SignatureScheme ofMessages;
    ofMessages.kind = SignatureScheme::Kind::ed25519;
    const Bytes octets(64, 1);
    const auto verified = [&] { return verify(ofMessages, nullptr, octets, octets, edwards.get()); };
    {
        const norvtest::During<bool> during(s_withoutMemory, true);
        EXPECT_THROW(static_cast<void>(signatureScheme(scheme)), std::bad_alloc);
        EXPECT_THROW(static_cast<void>(algorithmInParameters(*outer)), std::bad_alloc);
        EXPECT_THROW(static_cast<void>(verified()), std::bad_alloc);
    }
    EXPECT_TRUE(signatureScheme(scheme).isSound);
    EXPECT_NE(algorithmInParameters(*outer), nullptr);
    EXPECT_EQ(verified(), Verified::wrong);
    EXPECT_EQ(ERR_peek_error(), 0U);
}
