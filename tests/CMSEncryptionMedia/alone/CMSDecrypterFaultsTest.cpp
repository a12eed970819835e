// How OpenSSL is asked to decrypt, and failures of its that nobody outside can provoke.
#include "support/Envelope.h"
#include "support/Faults.h"

#include <utility>

using namespace cmstest;
using namespace norvtest;

namespace {

/// The keys that were used, one for each private-key operation.
std::vector<EVP_PKEY*> s_operations;

} // namespace

REPLACEMENT int EVP_PKEY_decrypt(EVP_PKEY_CTX* context, unsigned char* out, std::size_t* outLength,
                                 const unsigned char* in, std::size_t length) {
    s_operations.push_back(EVP_PKEY_CTX_get0_pkey(context));
    return FORWARD(EVP_PKEY_decrypt, context, out, outLength, in, length);
}
REPLACEMENT EVP_CIPHER_CTX* EVP_CIPHER_CTX_new() {
    return fails("EVP_CIPHER_CTX_new") ? nullptr : FORWARD(EVP_CIPHER_CTX_new);
}
REPLACEMENT int EVP_CIPHER_CTX_rand_key(EVP_CIPHER_CTX* context, unsigned char* key) {
    return fails("EVP_CIPHER_CTX_rand_key") ? 0 : FORWARD(EVP_CIPHER_CTX_rand_key, context, key);
}
REPLACEMENT int EVP_DecryptInit_ex(EVP_CIPHER_CTX* context, const EVP_CIPHER* cipher, ENGINE* engine,
                                   const unsigned char* key, const unsigned char* vector) {
    return fails(key == nullptr ? "EVP_DecryptInit_ex: cipher" : "EVP_DecryptInit_ex: key")
               ? 0
               : FORWARD(EVP_DecryptInit_ex, context, cipher, engine, key, vector);
}
REPLACEMENT int EVP_DecryptUpdate(EVP_CIPHER_CTX* context, unsigned char* out, int* count, const unsigned char* in,
                                  int length) {
    return fails("EVP_DecryptUpdate") ? 0 : FORWARD(EVP_DecryptUpdate, context, out, count, in, length);
}

namespace {

Bytes structure() {
    const Bytes wrapped = wrappedFor(alice(), contentKey());
    return envelope({.recipients = {recipientInfo(bob(), wrapped), recipientInfo(alice(), wrapped)},
                     .content = contentElement(encryptedContent(bodyOf(1000)))});
}

class DecrypterFault : public ::testing::Test {
protected:
    void SetUp() override { s_operations.clear(); }
    void TearDown() override {
        EXPECT_STREQ(s_failing, "") << "the fault was not reached";
        s_failing = "";
    }
};

} // namespace

TEST_F(DecrypterFault, TheKeyIsUsedOnceForItsOwnRecipient) {
    const RecordedLog log;
    PiecewiseIn in(structure());
    const auto pair = pairOf(alice());
    CMS::DecrypterMediaIn decrypter(in, storeOfPairs({pair}));
    Norvane::MemoryMediaOut out;
    decrypter.write(out);
    EXPECT_EQ(s_operations, std::vector<EVP_PKEY*>{static_cast<evp_pkey_st*>(pair->key)});
    EXPECT_TRUE(decrypter.decryptionSucceeded());
}

TEST_F(DecrypterFault, AForeignKeyIsNotTried) {
    const Opened opened =
        openedBy(structure(), storeOfPairs({NVX509::KeyCertificatePair(keyOf(carol()), certificateOf(alice()))}));
    EXPECT_EQ(opened.failed.size(), 2U);
    EXPECT_TRUE(s_operations.empty());
}

TEST_F(DecrypterFault, NothingIsDecryptedForWhoeverHasNoKey) {
    EXPECT_EQ(openedBy(structure(), storeOfKeys({})).failed.size(), 2U);
    EXPECT_TRUE(s_operations.empty());
}

TEST_F(DecrypterFault, WhateverFailsIsOneFailedRecipientAndTheNextTimeItOpens) {
    const Bytes message = envelope({.recipients = {recipientInfo(alice(), wrappedFor(alice(), contentKey()))},
                                    .content = contentElement(encryptedContent(bodyOf(1000)))});
    for (const char* function : {"EVP_CIPHER_CTX_new", "EVP_CIPHER_CTX_rand_key", "EVP_DecryptInit_ex: cipher",
                                 "EVP_DecryptInit_ex: key", "EVP_DecryptUpdate"}) {
        const RecordedLog log;
        PiecewiseIn in(message);
        const char* next = function;
        const auto pair = pairOf(alice());
        CMS::DecrypterMediaIn decrypter(in, storeOf(new Answering([&] {
                                            s_failing = std::exchange(next, "");
                                            return pair;
                                        })));
        Norvane::MemoryMediaOut out;
        decrypter.write(out);
        EXPECT_FALSE(decrypter.decryptionSucceeded()) << function;
        EXPECT_EQ(decrypter.failed().size(), 1U);
        EXPECT_EQ(log.events(), std::vector<unsigned int>{0x300005B});
        EXPECT_EQ(out.content().length(), 0U);
        EXPECT_EQ(ERR_peek_error(), 0UL);
        decrypter.write(out);
        EXPECT_TRUE(decrypter.decryptionSucceeded()) << function;
        EXPECT_EQ(bytesOf(out.content()), bodyOf(1000));
    }
}
