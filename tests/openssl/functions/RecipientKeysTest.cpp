// Keys that receive: what they are called, what encrypting to them costs, and how a content key is wrapped for them.
#include "openssl/RecipientKeys.h"

#include "openssl/Signers.h"

#include "support/Interpose.h"
#include "support/SmallRsa.h"

#include <openssl/err.h>
#include <openssl/objects.h>

#include <gtest/gtest.h>

namespace {

std::size_t s_shorter = 0; ///< octets that are missing in what RSA encrypts
int s_refused = 0;         ///< which setting of OAEP is answered with 0

} // namespace

extern "C" {

int EVP_PKEY_CTX_set_rsa_padding(EVP_PKEY_CTX* context, int padding) {
    return s_refused == 1
               ? 0
               : norvtest::next<&EVP_PKEY_CTX_set_rsa_padding>("EVP_PKEY_CTX_set_rsa_padding")(context, padding);
}
int EVP_PKEY_CTX_set_rsa_oaep_md(EVP_PKEY_CTX* context, const EVP_MD* digest) {
    return s_refused == 2
               ? 0
               : norvtest::next<&EVP_PKEY_CTX_set_rsa_oaep_md>("EVP_PKEY_CTX_set_rsa_oaep_md")(context, digest);
}
int EVP_PKEY_CTX_set_rsa_mgf1_md(EVP_PKEY_CTX* context, const EVP_MD* digest) {
    return s_refused == 3
               ? 0
               : norvtest::next<&EVP_PKEY_CTX_set_rsa_mgf1_md>("EVP_PKEY_CTX_set_rsa_mgf1_md")(context, digest);
}
int EVP_PKEY_CTX_set0_rsa_oaep_label(EVP_PKEY_CTX* context, void* label, int length) {
    return s_refused == 4 ? 0
                          : norvtest::next<&EVP_PKEY_CTX_set0_rsa_oaep_label>("EVP_PKEY_CTX_set0_rsa_oaep_label")(
                                context, label, length);
}

int EVP_PKEY_encrypt(EVP_PKEY_CTX* context, unsigned char* out, size_t* length, const unsigned char* in, size_t count) {
    const int result = norvtest::next<&EVP_PKEY_encrypt>("EVP_PKEY_encrypt")(context, out, length, in, count);
    *length -= s_shorter;
    return result;
}

} // extern "C"

using namespace Norvane::Crypto::openssl;
using norvauthority::Bytes;
using norvauthority::fromHex;
using norvauthority::Key;
using norvtest::keyOfType;
using norvtest::number;
using norvtest::numberOfBits;

namespace {

constexpr std::uint64_t s_notUsed = ~std::uint64_t{0};

} // namespace

TEST(RecipientKeys, AreCalledAsOpensslCallsTheirType) {
    EXPECT_EQ(recipientKeyName(nullptr), "no key that can be decoded");
    EXPECT_EQ(recipientKeyName(Key::ec("P-256").get()), "EC on prime256v1");
    EXPECT_EQ(recipientKeyName(keyOfType("ED25519").get()), "ED25519");
    EXPECT_EQ(recipientKeyName(norvtest::pssKey(nullptr, nullptr, 0).get()), "RSA-PSS");
    EXPECT_EQ(recipientKeyName(KeyPtr(EVP_PKEY_new()).get()), "unknown") << "it has no type";
}

TEST(RecipientKeys, WhatEncryptingCosts) {
    const auto rsa = [](const char* exponent) {
        const Key key = norvtest::publicRsa(numberOfBits(2048), number(exponent));
        return encryptionWork(key.get(), recipientKeyKind(key.get()));
    };
    EXPECT_EQ(rsa("10001"), 68U);
    EXPECT_EQ(rsa("3"), 8U);
    EXPECT_EQ(rsa("2"), 8U);
    EXPECT_EQ(rsa("1"), s_notUsed) << "a power that leaves the content key as it is";
    EXPECT_EQ(rsa("0"), s_notUsed);
    const Key curve = Key::ec("P-256");
    EXPECT_EQ(encryptionWork(curve.get(), recipientKeyKind(curve.get())), 2 * verificationWork(curve.get()));
    const Key montgomery = keyOfType("X25519");
    EXPECT_EQ(encryptionWork(montgomery.get(), recipientKeyKind(montgomery.get())), verificationWork(curve.get()))
        << "two multiplications, each half of one on P-256";
    const Key edwards = keyOfType("ED25519");
    EXPECT_EQ(encryptionWork(edwards.get(), recipientKeyKind(edwards.get())), s_notUsed);
}

// RFC 8017, 7.2.1 and 7.1.1.
TEST(RecipientKeys, RoomInAnRsaKey) {
    const Key key = norvtest::publicRsa(numberOfBits(2048), number("10001"));
    EXPECT_EQ(rsaRoom(key.get(), nullptr), 256 - 11);
    const Oaep sha256{EVP_sha256(), EVP_sha1(), {}};
    EXPECT_EQ(rsaRoom(key.get(), &sha256), 256 - 2 * 32 - 2);
    const Oaep sha1{EVP_sha1(), EVP_sha256(), {}};
    EXPECT_EQ(rsaRoom(key.get(), &sha1), 256 - 2 * 20 - 2);
}

TEST(RecipientKeys, RsaGivesAsManyOctetsAsOpensslSays) {
    const Key key = Key::rsa();
    RsaEncryption encryption;
    ASSERT_TRUE(encryption.prepare(key.get(), nullptr));
    const Bytes contentKey(32, 1);
    EXPECT_EQ(encryption.encrypt(contentKey).value().size(), 256U);
    const norvtest::During<std::size_t> shorter(s_shorter, 3);
    EXPECT_EQ(encryption.encrypt(contentKey).value().size(), 253U);
}

TEST(RecipientKeys, KeysWithWhichNothingCanBeAgreed) {
    const KeyPtr none(EVP_PKEY_new());
    Norvane::Crypto::framing::Encoded ephemeral;
    Secret secret;
    EXPECT_FALSE(agreeWith(none.get(), ephemeral, secret));
    EXPECT_FALSE(agreeWith(keyOfType("ED25519").get(), ephemeral, secret));
    EXPECT_TRUE(ephemeral.empty());
    EXPECT_TRUE(agreeWith(keyOfType("X25519").get(), ephemeral, secret));
    EXPECT_EQ(ephemeral.size(), 32U);
    EXPECT_EQ(secret.size(), 32U);
    ERR_clear_error();
}

// RFC 3394, 4.1 and 4.6.
TEST(RecipientKeys, WrappingByAes) {
    const Bytes contentKey = fromHex("00112233445566778899AABBCCDDEEFF");
    const Bytes wrapping = fromHex("000102030405060708090A0B0C0D0E0F");
    EXPECT_EQ(wrapKey(NID_id_aes128_wrap, wrapping, contentKey).value(),
              fromHex("1FA68B0A8112B447AEF34BD8FB5A7B829D3E862371D2CFE5"));
    EXPECT_EQ(wrapKey(NID_id_aes256_wrap, fromHex("000102030405060708090A0B0C0D0E0F101112131415161718191A1B1C1D1E1F"),
                      fromHex("00112233445566778899AABBCCDDEEFF000102030405060708090A0B0C0D0E0F"))
                  .value(),
              fromHex("28C9F404C4B810F4CBCCB35CFB87F8263F5786E2D80ED326CBC7F0E71A99F43BFB988B9B7A02DD21"));
    EXPECT_EQ(wrapKey(NID_id_smime_alg_CMS3DESwrap, Bytes(24, 1), Bytes(24, 2)).value().size(), 40U); // RFC 3217, 3.1
    EXPECT_FALSE(wrapKey(NID_aes_128_cbc, wrapping, contentKey));
    EXPECT_FALSE(wrapKey(NID_id_aes256_wrap, wrapping, contentKey)) << "a key of another length";
    EXPECT_FALSE(wrapKey(NID_id_aes128_wrap, wrapping, Bytes(15, 1)));
    ERR_clear_error();
}

// RFC 3211, 2.3.1: its length, three octets turned over, the key, and padding to whole blocks, of which there are two at least.
TEST(RecipientKeys, WrappingUnderAPassword) {
    const Bytes wrapping(16, 3);
    const Bytes vector(16, 4);
    struct Case {
        std::size_t key;
        std::size_t wrapped;
    };
    for (const auto& [key, wrapped] :
         std::vector<Case>{{3, 32}, {12, 32}, {27, 32}, {28, 32}, {29, 48}, {32, 48}, {44, 48}, {45, 64}, {76, 80}}) {
        Bytes contentKey(key);
        for (std::size_t i = 0; i < key; ++i) {
            contentKey[i] = static_cast<unsigned char>(i * 7 + 1);
        }
        const auto made = wrapUnderPassword(EVP_aes_128_cbc(), wrapping, vector, contentKey);
        ASSERT_TRUE(made) << key;
        ASSERT_EQ(made->size(), wrapped);
        // Its last block is the vector of the first turn; what that gives is decrypted once more: RFC 3211, 2.3.2.
        const auto decrypted = [&](const Bytes& octets, const unsigned char* by) {
            const CipherContextPtr context(EVP_CIPHER_CTX_new());
            Bytes clear(octets.size() + 16);
            int count = 0;
            EXPECT_EQ(EVP_DecryptInit_ex(context.get(), EVP_aes_128_cbc(), nullptr, wrapping.data(), by), 1);
            EVP_CIPHER_CTX_set_padding(context.get(), 0);
            EXPECT_EQ(
                EVP_DecryptUpdate(context.get(), clear.data(), &count, octets.data(), static_cast<int>(octets.size())),
                1);
            clear.resize(static_cast<std::size_t>(count));
            return clear;
        };
        const Bytes lastBlocks(made->end() - 32, made->end());
        const Bytes lastOfInner = decrypted(lastBlocks, vector.data());
        const Bytes inner = decrypted(*made, lastOfInner.data() + 16);
        const Bytes clear = decrypted(inner, vector.data());
        ASSERT_EQ(clear.size(), wrapped);
        EXPECT_EQ(clear[0], key);
        for (std::size_t i = 0; i < 3; ++i) {
            EXPECT_EQ(clear[1 + i], 0xFF - contentKey[i]);
        }
        EXPECT_EQ(Bytes(clear.begin() + 4, clear.begin() + 4 + static_cast<std::ptrdiff_t>(key)), contentKey);
    }
    EXPECT_EQ(wrapUnderPassword(EVP_des_ede3_cbc(), Bytes(24, 1), Bytes(8, 1), Bytes(24, 1)).value().size(), 32U);
    for (const std::size_t key :
         {std::size_t{0}, std::size_t{2}, std::size_t{77}, std::size_t{255}, std::size_t{300}}) {
        EXPECT_FALSE(wrapUnderPassword(EVP_aes_128_cbc(), wrapping, vector, Bytes(key, 1))) << key;
    }
}

TEST(RecipientKeys, WhatOpensslDoesNotSetForOaep) {
    const Key key = Key::rsa();
    const auto taken = [&](const Oaep& oaep) {
        const KeyContextPtr context(EVP_PKEY_CTX_new(key.get(), nullptr));
        EXPECT_EQ(EVP_PKEY_encrypt_init(context.get()), 1);
        const bool result = setOaep(context.get(), oaep);
        ERR_clear_error();
        return result;
    };
    const Bytes label(10, 1);
    EXPECT_TRUE(taken({EVP_sha256(), EVP_sha512(), {}}));
    EXPECT_TRUE(taken({EVP_sha256(), EVP_sha512(), label}));
    for (s_refused = 1; s_refused <= 4; ++s_refused) {
        EXPECT_FALSE(taken({EVP_sha256(), EVP_sha512(), label})) << s_refused;
    }
    s_refused = 0;
    const KeyContextPtr signing(EVP_PKEY_CTX_new(key.get(), nullptr));
    ASSERT_EQ(EVP_PKEY_sign_init(signing.get()), 1);
    EXPECT_FALSE(setOaep(signing.get(), {EVP_sha256(), EVP_sha256(), {}}));
    ERR_clear_error();
}
