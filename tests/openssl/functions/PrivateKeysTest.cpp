// Private keys in every form: what of them is decoded by which of OpenSSL's ways, and what is left in the error queue.
#include "openssl/PrivateKeys.h"

#include "openssl/Bios.h"

#include "support/Interpose.h"
#include "support/Keys.h"

#include <openssl/err.h>
#include <openssl/pem.h>

#include <gtest/gtest.h>

#include <string_view>

namespace {

int s_slowWays = 0; ///< decodings of a key by the object identifier of its kind
int s_forWriting = -1;

} // namespace

extern "C" {

EVP_PKEY* EVP_PKCS82PKEY(const PKCS8_PRIV_KEY_INFO* info) {
    ++s_slowWays;
    return norvtest::next<&EVP_PKCS82PKEY>("EVP_PKCS82PKEY")(info);
}
EVP_PKEY* d2i_PrivateKey_bio(BIO* source, EVP_PKEY** key) {
    ++s_slowWays;
    return norvtest::next<&d2i_PrivateKey_bio>("d2i_PrivateKey_bio")(source, key);
}

} // extern "C"

using namespace Norvane::Crypto::openssl;
using norvauthority::Bytes;
using norvauthority::Key;

namespace {

BioPtr sourceOf(const Bytes& octets) {
    return memorySource(octets.data(), static_cast<unsigned int>(octets.size()));
}

PrivateKeyReading readDer(const Bytes& octets) {
    const BioPtr source = sourceOf(octets);
    return readPrivateDer(octets.data(), octets.size(), source.get());
}

int passphrase(char* text, int size, int forWriting, void* /*data*/) {
    s_forWriting = forWriting;
    return static_cast<int>(std::string_view("secret").copy(text, static_cast<std::size_t>(size)));
}
int noPassphrase(char* /*text*/, int /*size*/, int /*forWriting*/, void* /*data*/) {
    return -1;
}

PrivateKeyReading readPem(const std::string& text, pem_password_cb* ask = noPassphrase) {
    const Bytes octets(text.begin(), text.end());
    const BioPtr source = sourceOf(octets);
    return readPrivatePem(source.get(), {ask, nullptr});
}

bool isKey(const PrivateKeyReading& reading, const Key& key) {
    return reading.key != nullptr && reading.refusal.empty() && EVP_PKEY_eq(reading.key.get(), key.get()) == 1;
}

/// What was queued before is there, nothing else is, and no mark was left.
void expectQueueAsBefore() {
    EXPECT_EQ(ERR_GET_REASON(ERR_peek_error()), 77);
    EXPECT_EQ(ERR_GET_REASON(ERR_peek_last_error()), 77);
    EXPECT_EQ(ERR_pop_to_mark(), 0);
    ERR_clear_error();
}

} // namespace

TEST(PrivateKeys, UsualKindsAreDecodedTheShortWay) {
    for (const Key& key : {Key::rsa(1024), Key::ec()}) {
        s_slowWays = 0;
        ERR_raise(ERR_LIB_USER, 77);
        EXPECT_TRUE(isKey(readDer(key.pkcs8()), key));
        expectQueueAsBefore();
        ERR_raise(ERR_LIB_USER, 77);
        EXPECT_TRUE(isKey(readPem(key.pkcs8Pem()), key));
        expectQueueAsBefore();
        EXPECT_EQ(s_slowWays, 0);
    }
}

TEST(PrivateKeys, OthersAreDecodedByTheirIdentifier) {
    for (const Key& key : {Key::ed25519(), Key::dsa()}) {
        s_slowWays = 0;
        ERR_raise(ERR_LIB_USER, 77);
        EXPECT_TRUE(isKey(readDer(key.pkcs8()), key));
        expectQueueAsBefore();
        EXPECT_EQ(s_slowWays, 1);
        ERR_raise(ERR_LIB_USER, 77);
        EXPECT_TRUE(isKey(readPem(key.pkcs8Pem()), key));
        expectQueueAsBefore();
        EXPECT_EQ(s_slowWays, 2);
    }
    const Key key = Key::rsa(1024);
    EXPECT_TRUE(isKey(readDer(key.traditionalDer()), key));
    EXPECT_TRUE(isKey(readPem(norvauthority::pem("RSA PRIVATE KEY", key.traditionalDer())), key));
    ERR_clear_error();
}

TEST(PrivateKeys, WhatIsNoneLeavesAReason) {
    for (const Bytes& none : {Bytes(), Bytes{0x30}, Bytes{0x30, 0x00}, Bytes{1, 2, 3}}) {
        EXPECT_EQ(readDer(none).key, nullptr);
        EXPECT_NE(ERR_peek_error(), 0U) << norvauthority::toHex(none);
        ERR_clear_error();
        EXPECT_EQ(readEncryptedDer(none.data(), none.size(), {}).key, nullptr);
        EXPECT_NE(ERR_peek_error(), 0U);
        ERR_clear_error();
        EXPECT_EQ(readPem(none.empty() ? "" : norvauthority::pem("PRIVATE KEY", none)).key, nullptr);
        EXPECT_NE(ERR_peek_error(), 0U);
        ERR_clear_error();
    }
    EXPECT_EQ(readPrivateInfo(nullptr).key, nullptr);
    EXPECT_EQ(ERR_GET_LIB(ERR_peek_error()), ERR_LIB_PEM) << "OpenSSL says nothing of what is not there";
    EXPECT_EQ(ERR_GET_REASON(ERR_peek_error()), ERR_R_ASN1_LIB);
    ERR_clear_error();
    ERR_raise(ERR_LIB_USER, 77);
    EXPECT_EQ(readDer({1, 2, 3}).key, nullptr);
    EXPECT_EQ(ERR_GET_REASON(ERR_peek_error()), 77);
    EXPECT_NE(ERR_GET_REASON(ERR_peek_last_error()), 77);
    EXPECT_EQ(ERR_pop_to_mark(), 0) << "no mark is left";
    ERR_clear_error();
}

TEST(PrivateKeys, ThePassphraseIsAskedForReading) {
    const Key key = Key::ec();
    const Bytes encrypted = norvtest::encryptedPkcs8(key.pkcs8(), 2048);
    s_forWriting = -1;
    EXPECT_TRUE(isKey(readEncryptedDer(encrypted.data(), encrypted.size(), {passphrase, nullptr}), key));
    EXPECT_EQ(s_forWriting, 0);
    EXPECT_EQ(readEncryptedDer(encrypted.data(), encrypted.size(), {noPassphrase, nullptr}).key, nullptr);
    EXPECT_EQ(ERR_GET_LIB(ERR_peek_last_error()), ERR_LIB_PEM);
    EXPECT_EQ(ERR_GET_REASON(ERR_peek_last_error()), PEM_R_BAD_PASSWORD_READ);
    ERR_clear_error();
    EXPECT_TRUE(isEncryptedDer(encrypted.data(), encrypted.size()));
    EXPECT_FALSE(isEncryptedDer(key.pkcs8().data(), key.pkcs8().size()));
    EXPECT_EQ(ERR_peek_error(), 0U);
}
