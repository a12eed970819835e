// How OpenSSL is asked to decrypt, and failures of its that nobody outside can provoke.
#include "support/Envelope.h"
#include "support/Faults.h"

#include <utility>

using namespace cmstest;
using namespace norvtest;

namespace {

/// One call of PKCS7_decrypt.
struct Call {
    EVP_PKEY* key;
    X509* certificate;
    int flags;
    int recipients;
};
std::vector<Call> s_decrypted;

} // namespace

REPLACEMENT int PKCS7_decrypt(PKCS7* structure, EVP_PKEY* key, X509* certificate, BIO* out, int flags) {
    s_decrypted.push_back({key, certificate, flags, sk_PKCS7_RECIP_INFO_num(structure->d.enveloped->recipientinfo)});
    return fails("PKCS7_decrypt") ? 0 : FORWARD(PKCS7_decrypt, structure, key, certificate, out, flags);
}
REPLACEMENT OPENSSL_STACK* OPENSSL_sk_new_null() {
    return fails("OPENSSL_sk_new_null") ? nullptr : FORWARD(OPENSSL_sk_new_null);
}
REPLACEMENT int OPENSSL_sk_push(OPENSSL_STACK* stack, const void* data) {
    return fails("OPENSSL_sk_push") ? 0 : FORWARD(OPENSSL_sk_push, stack, data);
}

namespace {

Bytes structure() {
    const Bytes wrapped = wrappedFor(alice(), contentKey());
    return envelope({.recipients = {recipientInfo(bob(), wrapped), recipientInfo(alice(), wrapped)},
                     .content = contentElement(encryptedContent(bodyOf(1000)))});
}

class DecrypterFault : public ::testing::Test {
protected:
    void SetUp() override { s_decrypted.clear(); }
    void TearDown() override {
        EXPECT_STREQ(s_failing, "") << "the fault was not reached";
        s_failing = "";
    }
};

} // namespace

TEST_F(DecrypterFault, TheKeyGoesWithoutACertificateAndWithoutFlagsToItsOwnRecipient) {
    const RecordedLog log;
    PiecewiseIn in(structure());
    const auto pair = pairOf(alice());
    CMS::DecrypterMediaIn decrypter(in, storeOfPairs({pair}));
    Norvane::MemoryMediaOut out;
    decrypter.write(out);
    ASSERT_EQ(s_decrypted.size(), 1U);
    EXPECT_EQ(s_decrypted.front().key, static_cast<evp_pkey_st*>(pair->key));
    EXPECT_EQ(s_decrypted.front().certificate, nullptr);
    EXPECT_EQ(s_decrypted.front().flags, 0);
    EXPECT_EQ(s_decrypted.front().recipients, 1);
    EXPECT_TRUE(decrypter.decryptionSucceeded());
}

TEST_F(DecrypterFault, AForeignKeyIsNotTried) {
    const Opened opened =
        openedBy(structure(), storeOfPairs({NVX509::KeyCertificatePair(keyOf(carol()), certificateOf(alice()))}));
    EXPECT_EQ(opened.failed.size(), 2U);
    EXPECT_TRUE(s_decrypted.empty());
}

TEST_F(DecrypterFault, NothingIsDecryptedForWhoeverHasNoKey) {
    EXPECT_EQ(openedBy(structure(), storeOfKeys({})).failed.size(), 2U);
    EXPECT_TRUE(s_decrypted.empty());
}

TEST_F(DecrypterFault, WhateverFailsIsOneFailedRecipientAndTheNextTimeItOpens) {
    const Bytes message = envelope({.recipients = {recipientInfo(alice(), wrappedFor(alice(), contentKey()))},
                                    .content = contentElement(encryptedContent(bodyOf(1000)))});
    for (const char* function : {"PKCS7_decrypt", "OPENSSL_sk_new_null", "OPENSSL_sk_push"}) {
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
