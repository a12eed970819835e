// The ciphers of contents: parameters at their bounds, what OpenSSL is asked when a content key does not fit, and what becomes of its
// refusals. This file stands in for some of OpenSSL's functions, which go on to the real ones unless a test says otherwise.
#include "openssl/AuthenticatedCipher.h"
#include "openssl/ContentCipher.h"
#include "openssl/ContentEncryption.h"
#include "openssl/GcmCheck.h"
#include "openssl/Idea.h"

#include "support/Interpose.h"
#include "support/Wiping.h"

#include <authority/Der.h>

#include <openssl/err.h>
#include <openssl/provider.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

namespace {

int s_askedForLength = 0;
bool s_noOtherLength = false;
bool s_noRandomKey = false;
bool s_finalFails = false;
bool s_counting = false; // of octets that nobody is to read
std::vector<std::int64_t> s_counted;

} // namespace

extern "C" int EVP_CIPHER_CTX_set_key_length(EVP_CIPHER_CTX* context, int length) {
    ++s_askedForLength;
    return s_noOtherLength
               ? 0
               : norvtest::next<&EVP_CIPHER_CTX_set_key_length>("EVP_CIPHER_CTX_set_key_length")(context, length);
}
extern "C" int EVP_CIPHER_CTX_rand_key(EVP_CIPHER_CTX* context, unsigned char* key) {
    return s_noRandomKey ? 0 : norvtest::next<&EVP_CIPHER_CTX_rand_key>("EVP_CIPHER_CTX_rand_key")(context, key);
}
extern "C" int EVP_EncryptFinal_ex(EVP_CIPHER_CTX* context, unsigned char* out, int* length) {
    return s_finalFails ? 0 : norvtest::next<&EVP_EncryptFinal_ex>("EVP_EncryptFinal_ex")(context, out, length);
}
extern "C" int EVP_EncryptUpdate(EVP_CIPHER_CTX* context, unsigned char* out, int* outLength, const unsigned char* in,
                                 int length) {
    if (s_counting) {
        s_counted.push_back(length);
        return 1;
    }
    return norvtest::next<&EVP_EncryptUpdate>("EVP_EncryptUpdate")(context, out, outLength, in, length);
}

namespace {

using namespace Norvane::Crypto::openssl;
using norvauthority::Bytes;
using norvtest::During;
namespace der = norvauthority::der;

Bytes identifier(const std::string& name, const Bytes& parameters = {}) {
    return der::sequence({der::oid(name), parameters});
}

AlgorithmPtr decoded(const Bytes& octets) {
    AlgorithmPtr algorithm = decodeAlgorithm(octets);
    EXPECT_NE(algorithm, nullptr);
    return algorithm;
}

WipedBytes keyOf(const Bytes& octets) {
    WipedBytes key(octets.size());
    std::copy(octets.begin(), octets.end(), key.data());
    return key;
}

/// Ciphers of long ago, while it lives.
class Legacy {
public:
    Legacy() : m_legacy(OSSL_PROVIDER_load(nullptr, "legacy")), m_usual(OSSL_PROVIDER_load(nullptr, "default")) {}
    ~Legacy() {
        OSSL_PROVIDER_unload(m_usual);
        OSSL_PROVIDER_unload(m_legacy);
    }
    Legacy(const Legacy&) = delete;
    Legacy& operator=(const Legacy&) = delete;
    [[nodiscard]] bool isThere() const { return m_legacy != nullptr && m_usual != nullptr; }

private:
    OSSL_PROVIDER* m_legacy;
    OSSL_PROVIDER* m_usual;
};

/// What comes out of a context for these octets, without padding.
Bytes decrypted(EVP_CIPHER_CTX* context, const Bytes& octets) {
    EVP_CIPHER_CTX_set_padding(context, 0);
    Bytes out(octets.size() + 16);
    int count = 0;
    EXPECT_EQ(EVP_DecryptUpdate(context, out.data(), &count, octets.data(), static_cast<int>(octets.size())), 1);
    out.resize(static_cast<std::size_t>(count));
    return out;
}

const Bytes s_clear(32, 0x5A);

TEST(ContentCipherFunctions, OnlyCiphersWithKeysOfAnyLengthAreAskedForAnother) {
    const AlgorithmPtr aes = decoded(identifier("AES-128-CBC", der::octetString(Bytes(16, 1))));
    for (const std::size_t length : {0U, 5U, 15U, 16U, 17U, 32U}) {
        const CipherContextPtr context = contextFor(aes.get());
        ASSERT_NE(context, nullptr);
        bool trusted = false;
        s_askedForLength = 0;
        EXPECT_TRUE(setContentKey(context.get(), keyOf(Bytes(length, 7)), trusted)) << length;
        EXPECT_EQ(s_askedForLength, 0) << length;
        EXPECT_TRUE(trusted) << "its padding tells";
    }
    const Legacy legacy;
    if (!legacy.isThere()) {
        GTEST_SKIP() << "the legacy provider is not installed";
    }
    // RC2 with an effective length of 128 bits (RFC 8018, B.2.3), and keys of other lengths.
    const Bytes vector(8, 1);
    const AlgorithmPtr rc2 =
        decoded(identifier("RC2-CBC", der::sequence({der::integer("3a"), der::octetString(vector)})));
    for (const std::size_t length : {5U, 16U, 24U}) {
        const Bytes key(length, 7);
        const CipherContextPtr sealing(EVP_CIPHER_CTX_new());
        ASSERT_EQ(EVP_EncryptInit_ex(sealing.get(), EVP_rc2_cbc(), nullptr, nullptr, nullptr), 1);
        ASSERT_EQ(EVP_CIPHER_CTX_set_key_length(sealing.get(), static_cast<int>(length)), 1);
        ASSERT_EQ(EVP_CIPHER_CTX_ctrl(sealing.get(), EVP_CTRL_SET_RC2_KEY_BITS, 128, nullptr), 1);
        ASSERT_EQ(EVP_EncryptInit_ex(sealing.get(), nullptr, nullptr, key.data(), vector.data()), 1);
        Bytes sealed(64);
        int count = 0;
        ASSERT_EQ(EVP_EncryptUpdate(sealing.get(), sealed.data(), &count, s_clear.data(), 32), 1);
        sealed.resize(static_cast<std::size_t>(count));
        const CipherContextPtr context = contextFor(rc2.get());
        ASSERT_NE(context, nullptr);
        bool trusted = false;
        s_askedForLength = 0;
        EXPECT_TRUE(setContentKey(context.get(), keyOf(key), trusted));
        EXPECT_EQ(s_askedForLength, length == 16 ? 0 : 1);
        EXPECT_EQ(decrypted(context.get(), sealed), s_clear) << length;
    }
    const CipherContextPtr context = contextFor(rc2.get());
    bool trusted = false;
    s_askedForLength = 0;
    EXPECT_TRUE(setContentKey(context.get(), WipedBytes(), trusted)) << "none was opened";
    EXPECT_EQ(s_askedForLength, 0);
    // Where the cipher does not take that length, a key that nobody knows decrypts, of the length that was announced.
    const During<bool> refusing(s_noOtherLength, true);
    const CipherContextPtr other = contextFor(rc2.get());
    ASSERT_NE(other, nullptr);
    EXPECT_TRUE(setContentKey(other.get(), keyOf(Bytes(24, 7)), trusted));
    EXPECT_GT(s_askedForLength, 0);
    EXPECT_TRUE(trusted) << "its padding tells";
    EXPECT_EQ(EVP_CIPHER_CTX_get_key_length(other.get()), 16);
    EXPECT_EQ(decrypted(other.get(), Bytes(16, 1)).size(), 16U);
    ERR_clear_error();
}

TEST(ContentCipherFunctions, WithoutARandomKeyNothingIsDecrypted) {
    const AlgorithmPtr aes = decoded(identifier("AES-128-CBC", der::octetString(Bytes(16, 1))));
    const CipherContextPtr context = contextFor(aes.get());
    const During<bool> failing(s_noRandomKey, true);
    bool trusted = false;
    EXPECT_FALSE(setContentKey(context.get(), keyOf(Bytes(5, 7)), trusted));
    auto gcm = AuthenticatedCipher::of(
        *decoded(identifier("2.16.840.1.101.3.4.1.6", der::sequence({der::octetString(Bytes(12, 3))}))));
    ASSERT_TRUE(gcm);
    EXPECT_FALSE(gcm->start(keyOf(Bytes(5, 7))));
}

TEST(ContentCipherFunctions, CiphersWithoutAVectorNeedNoParameters) {
    const CipherContextPtr context = contextFor(decoded(identifier("AES-128-ECB")).get());
    ASSERT_NE(context, nullptr);
    bool trusted = false;
    EXPECT_TRUE(setContentKey(context.get(), keyOf(Bytes(16, 7)), trusted));
    const CipherContextPtr sealing(EVP_CIPHER_CTX_new());
    EXPECT_EQ(EVP_EncryptInit_ex(sealing.get(), EVP_aes_128_ecb(), nullptr, Bytes(16, 7).data(), nullptr), 1);
    Bytes sealed(48);
    int count = 0;
    EXPECT_EQ(EVP_EncryptUpdate(sealing.get(), sealed.data(), &count, s_clear.data(), 32), 1);
    sealed.resize(static_cast<std::size_t>(count));
    EXPECT_EQ(decrypted(context.get(), sealed), s_clear);
    EXPECT_EQ(contextFor(decoded(identifier("AES-128-CBC")).get()), nullptr);
    EXPECT_EQ(contextFor(decoded(identifier("AES-128-CBC", der::octetString(Bytes(15, 1)))).get()), nullptr);
    EXPECT_EQ(contextFor(decoded(identifier("1.2.3.4")).get()), nullptr);
    EXPECT_FALSE(isAvailable(decoded(identifier("1.2.3.4")).get()));
    EXPECT_TRUE(isAvailable(decoded(identifier("AES-128-CBC")).get()));
    ERR_clear_error();
}

constexpr const char* s_gcm = "2.16.840.1.101.3.4.1.6";
constexpr const char* s_chaCha = "1.2.840.113549.1.9.16.3.18";

Bytes gcmParameters(std::size_t nonce, const Bytes& tagLength = {}) {
    return der::sequence({der::octetString(Bytes(nonce, 3)), tagLength});
}

// GCMParameters: the tag has 12 to 16 octets, 12 where none are named (RFC 5084, 3.2).
TEST(AuthenticatedCipherFunctions, TagsAndNoncesOfTheLengthsThatThereAre) {
    const auto tagLength = [](const Bytes& algorithm) -> std::size_t {
        const auto cipher = AuthenticatedCipher::of(*decoded(algorithm));
        EXPECT_EQ(ERR_peek_error(), 0UL);
        return cipher ? cipher->tagLength() : 0;
    };
    EXPECT_EQ(tagLength(identifier(s_gcm, gcmParameters(12))), 12U);
    for (const std::size_t length : {11U, 12U, 13U, 14U, 15U, 16U, 17U}) {
        EXPECT_EQ(tagLength(identifier(
                      s_gcm, gcmParameters(12, der::element(der::integerTag, {static_cast<unsigned char>(length)})))),
                  length < 12 || length > 16 ? 0 : length);
    }
    for (const Bytes& other :
         {der::integer("0c00"), der::integer("010c"), der::element(0x22, {0x0C}), der::element(der::integerTag, {}),
          der::integer("-4"), der::null(), der::concat({der::integer("c"), der::integer("c")})}) {
        EXPECT_EQ(tagLength(identifier(s_gcm, gcmParameters(12, other))), 0U) << norvauthority::toHex(other);
    }
    for (const std::size_t nonce : {0U, 1U, 12U, 128U, 129U}) {
        EXPECT_EQ(tagLength(identifier(s_gcm, gcmParameters(nonce))), nonce == 0 || nonce == 129 ? 0U : 12U) << nonce;
        EXPECT_EQ(unsupportedAuthenticatedCipher(decoded(identifier(s_gcm, gcmParameters(nonce))).get()),
                  nonce == 129 ? "id-aes128-GCM (2.16.840.1.101.3.4.1.6) with a nonce of 129 octets" : "");
    }
    // RFC 8103, 4: twelve octets.
    for (const std::size_t nonce : {0U, 11U, 12U, 13U, 129U}) {
        const Bytes algorithm = identifier(s_chaCha, der::octetString(Bytes(nonce, 3)));
        EXPECT_EQ(tagLength(algorithm), nonce == 12 ? 16U : 0U) << nonce;
        EXPECT_EQ(unsupportedAuthenticatedCipher(decoded(algorithm).get()), "");
    }
    EXPECT_EQ(unsupportedAuthenticatedCipher(decoded(identifier("1.2.3.4")).get()), "1.2.3.4");
    EXPECT_EQ(unsupportedAuthenticatedCipher(decoded(identifier(s_gcm)).get()), "") << "damage";
    EXPECT_EQ(unsupportedAuthenticatedCipher(nullptr), "no algorithm");
}

TEST(AuthenticatedCipherFunctions, WhatWasVerifiedIsDecryptedUnderNoncesOfEveryLength) {
    const Bytes key(16, 7);
    for (const std::size_t length : {1U, 12U, 13U, 128U}) {
        const Bytes nonce(length, 3);
        const CipherContextPtr sealing(EVP_CIPHER_CTX_new());
        ASSERT_EQ(EVP_EncryptInit_ex(sealing.get(), EVP_aes_128_gcm(), nullptr, nullptr, nullptr), 1);
        ASSERT_EQ(EVP_CIPHER_CTX_ctrl(sealing.get(), EVP_CTRL_AEAD_SET_IVLEN, static_cast<int>(length), nullptr), 1);
        ASSERT_EQ(EVP_EncryptInit_ex(sealing.get(), nullptr, nullptr, key.data(), nonce.data()), 1);
        Bytes sealed(32);
        int count = 0;
        ASSERT_EQ(EVP_EncryptUpdate(sealing.get(), sealed.data(), &count, s_clear.data(), 32), 1);
        auto cipher = AuthenticatedCipher::of(*decoded(identifier(s_gcm, gcmParameters(length))));
        ASSERT_TRUE(cipher);
        ASSERT_TRUE(cipher->start(keyOf(key)));
        EXPECT_EQ(decrypted(cipher->verified().get(), sealed), s_clear) << length;
        EXPECT_EQ(decrypted(cipher->verifying({}).get(), sealed), s_clear) << length;
    }
}

// NIST SP 800-38D, 5.2.1.1: 2^36 - 32 octets. They go to OpenSSL, which counts in int, by the gibibyte.
TEST(GcmCheckFunctions, ContentIsBoundedAndGoesInPiecesOfAGibibyte) {
    const Bytes key(16, 7);
    const Bytes nonce(12, 3);
    constexpr std::int64_t gibibyte = std::int64_t{1} << 30U;
    constexpr std::size_t most = (std::size_t{1} << 36U) - 32;
    static const unsigned char nothing = 0;
    {
        GcmCheck check(EVP_aes_128_gcm(), key, nonce);
        const During<bool> counting(s_counting, true);
        s_counted.clear();
        EXPECT_TRUE(check.update({&nothing, static_cast<std::size_t>(2 * gibibyte + 5)}));
        EXPECT_EQ(s_counted, (std::vector<std::int64_t>{gibibyte, gibibyte, 5}));
        EXPECT_TRUE(check.update({&nothing, most - static_cast<std::size_t>(2 * gibibyte + 5)}));
        s_counted.clear();
        EXPECT_FALSE(check.update({&nothing, 1}));
        EXPECT_TRUE(s_counted.empty());
    }
    GcmCheck check(EVP_aes_128_gcm(), key, nonce);
    const During<bool> counting(s_counting, true);
    EXPECT_FALSE(check.update({&nothing, most + 1}));
    EXPECT_TRUE(check.update({&nothing, most}));
}

// The hash key (NIST SP 800-38D, 7.1, step 1), with which tags are forged.
TEST(GcmCheckFunctions, TheHashKeyIsWiped) {
    const Bytes key(16, 7);
    const Bytes nonce(12, 3);
    const CipherContextPtr context(EVP_CIPHER_CTX_new());
    ASSERT_EQ(EVP_EncryptInit_ex(context.get(), EVP_aes_128_ecb(), nullptr, key.data(), nullptr), 1);
    Bytes hashKey(16);
    int count = 0;
    ASSERT_EQ(EVP_EncryptUpdate(context.get(), hashKey.data(), &count, Bytes(16, 0).data(), 16), 1);
    std::uint64_t words[2]{};
    for (std::size_t i = 0; i != hashKey.size(); ++i) {
        words[i / 8] = words[i / 8] << 8U | hashKey[i];
    }
    norvtest::wipesOf("", [&] {
        GcmCheck check(EVP_aes_128_gcm(), key, nonce);
        EXPECT_TRUE(check.update(s_clear));
        EXPECT_FALSE(check.isRight({}, Bytes(16, 0)));
    });
    // Alone, that is: OpenSSL wipes whole contexts in which it stands, too.
    const auto wipes = [](const void* secret) {
        return std::ranges::count(norvtest::wiped, std::string(static_cast<const char*>(secret), 16));
    };
    EXPECT_GE(wipes(hashKey.data()), 1) << "as octets";
    EXPECT_GE(wipes(words), 1) << "as numbers";
}

TEST(GcmCheckFunctions, WithoutANonceNothingIsChecked) {
    const Bytes key(16, 7);
    GcmCheck check(EVP_aes_128_gcm(), key, {});
    EXPECT_FALSE(check.update(s_clear));
    EXPECT_FALSE(check.isRight({}, Bytes(16, 0)));
    EXPECT_EQ(ERR_peek_error(), 0UL);
}

const ContentAlgorithm& aes128() {
    static const ContentAlgorithm algorithm{NID_aes_128_cbc, EVP_aes_128_cbc, 16, 16, 16, false, NID_id_aes128_wrap,
                                            EVP_aes_128_cbc, NID_aes_128_cbc};
    return algorithm;
}

TEST(ContentEncryptionFunctions, LastOctetsOfEveryNumberArePadded) {
    for (std::size_t length = 0; length != 16; ++length) {
        ContentEncryption encryption;
        ASSERT_TRUE(encryption.start(aes128(), {}));
        const Bytes key(encryption.key().octets().begin(), encryption.key().octets().end());
        ASSERT_EQ(key.size(), 16U);
        encryption.forgetKey();
        EXPECT_TRUE(encryption.key().octets().empty());
        Bytes octets(s_clear.begin(), s_clear.begin() + static_cast<long>(length));
        octets.resize(32);
        std::size_t count = length;
        ASSERT_TRUE(encryption.finish(octets.data(), count));
        ASSERT_EQ(count, 16U);
        octets.resize(count);
        const CipherContextPtr context = contextFor(decoded(encryption.identifier()).get());
        ASSERT_EQ(EVP_DecryptInit_ex(context.get(), nullptr, nullptr, key.data(), nullptr), 1);
        Bytes expected(s_clear.begin(), s_clear.begin() + static_cast<long>(length));
        expected.resize(16, static_cast<unsigned char>(16 - length)); // RFC 5652, 6.3
        EXPECT_EQ(decrypted(context.get(), octets), expected);
    }
    ContentEncryption encryption;
    ASSERT_TRUE(encryption.start(aes128(), {}));
    const During<bool> failing(s_finalFails, true);
    Bytes octets(32);
    std::size_t count = 3;
    EXPECT_FALSE(encryption.finish(octets.data(), count));
}

TEST(IdeaFunctions, IsACipherOfBlocksThatAreChained) {
    if (!isIdeaUsable()) {
        GTEST_SKIP() << "libgcrypt is not installed";
    }
    EXPECT_EQ(EVP_CIPHER_get_mode(ideaCbc()), EVP_CIPH_CBC_MODE);
    EXPECT_EQ(EVP_CIPHER_get_iv_length(ideaCbc()), 8);
    const Bytes key(16, 7);
    const Bytes vector(8, 1);
    const CipherContextPtr context(EVP_CIPHER_CTX_new());
    ASSERT_EQ(EVP_EncryptInit_ex(context.get(), ideaCbc(), nullptr, key.data(), vector.data()), 1);
    Bytes out(16);
    for (const unsigned int length : {1U, 5U, 7U}) {
        EXPECT_EQ(EVP_Cipher(context.get(), out.data(), s_clear.data(), length), 0) << "less than a block";
    }
    EXPECT_EQ(EVP_Cipher(context.get(), out.data(), s_clear.data(), 8), 1);
    // The context gets another cipher.
    ASSERT_EQ(EVP_EncryptInit_ex(context.get(), EVP_aes_128_cbc(), nullptr, key.data(), Bytes(16, 1).data()), 1);
    EXPECT_EQ(EVP_CIPHER_CTX_reset(context.get()), 1);
    ERR_clear_error();
}

} // namespace
