// The tags of AES-GCM, computed from encrypted octets alone, against those that OpenSSL makes while it encrypts.

#include "openssl/GcmCheck.h"

#include <openssl/err.h>
#include <openssl/evp.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

namespace {

using namespace Norvane::Crypto::openssl;
using Octets = std::vector<unsigned char>;

struct Sealed {
    Octets encrypted;
    Octets tag;
};

const EVP_CIPHER* cipherFor(std::size_t keyLength) {
    return keyLength == 16 ? EVP_aes_128_gcm() : keyLength == 24 ? EVP_aes_192_gcm() : EVP_aes_256_gcm();
}

Sealed sealed(const Octets& key, const Octets& nonce, const Octets& associated, const Octets& clear) {
    Sealed result{Octets(clear.size() + 16), Octets(16)};
    const CipherContextPtr context(EVP_CIPHER_CTX_new());
    int count = 0;
    int last = 0;
    EXPECT_EQ(EVP_EncryptInit_ex(context.get(), cipherFor(key.size()), nullptr, nullptr, nullptr), 1);
    EXPECT_EQ(EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_AEAD_SET_IVLEN, static_cast<int>(nonce.size()), nullptr), 1);
    EXPECT_EQ(EVP_EncryptInit_ex(context.get(), nullptr, nullptr, key.data(), nonce.data()), 1);
    if (!associated.empty()) {
        EXPECT_EQ(
            EVP_EncryptUpdate(context.get(), nullptr, &count, associated.data(), static_cast<int>(associated.size())),
            1);
    }
    count = 0;
    EXPECT_EQ(
        EVP_EncryptUpdate(context.get(), result.encrypted.data(), &count, clear.data(), static_cast<int>(clear.size())),
        1);
    EXPECT_EQ(EVP_EncryptFinal_ex(context.get(), result.encrypted.data() + count, &last), 1);
    EXPECT_EQ(EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_AEAD_GET_TAG, 16, result.tag.data()), 1);
    result.encrypted.resize(clear.size());
    return result;
}

bool isRight(const Octets& key, const Octets& nonce, const Octets& associated, const Octets& encrypted,
             const Octets& tag, std::size_t piece = 1000) {
    GcmCheck check(cipherFor(key.size()), key, nonce);
    for (std::size_t at = 0; at < encrypted.size(); at += piece) {
        if (!check.update(std::span(encrypted).subspan(at, std::min(piece, encrypted.size() - at)))) {
            return false;
        }
    }
    return check.isRight(associated, tag);
}

class GcmCheckTest : public testing::Test {
protected:
    Octets random(std::size_t length) {
        Octets octets(length);
        std::ranges::generate(octets, [this] { return static_cast<unsigned char>(m_engine()); });
        return octets;
    }
    void TearDown() override { EXPECT_EQ(ERR_peek_error(), 0UL); }

private:
    std::mt19937 m_engine{1};
};

Octets fromHex(const std::string& text) {
    Octets octets;
    for (std::size_t i = 0; i + 1 < text.size(); i += 2) {
        octets.push_back(static_cast<unsigned char>(std::stoi(text.substr(i, 2), nullptr, 16)));
    }
    return octets;
}

// The Galois/Counter Mode of Operation (McGrew, Viega), test cases 4 and 16: 20 octets beside 60.
TEST_F(GcmCheckTest, PublishedTags) {
    const Octets nonce = fromHex("cafebabefacedbaddecaf888");
    const Octets associated = fromHex("feedfacedeadbeeffeedfacedeadbeefabaddad2");
    EXPECT_TRUE(
        isRight(fromHex("feffe9928665731c6d6a8f9467308308"), nonce, associated,
                fromHex("42831ec2217774244b7221b784d0d49ce3aa212f2c02a4e035c17e2329aca12e21d514b25466931c7d8f6a5aac"
                        "84aa051ba30b396a0aac973d58e091"),
                fromHex("5bc94fbc3221a5db94fae95ae7121a47")));
    EXPECT_TRUE(
        isRight(fromHex("feffe9928665731c6d6a8f9467308308feffe9928665731c6d6a8f9467308308"), nonce, associated,
                fromHex("522dc1f099567d07f47f37a32a84427d643a8cdcbfe5c0c97598a2bd2555d1aa8cb08e48590dbb3da7b08b1056"
                        "828838c5f61e6393ba7a0abcc9f662"),
                fromHex("76fc6ece0f4e1768cddf8853bb2d551b")));
}

TEST_F(GcmCheckTest, EveryLengthOfContentAndOfAssociatedOctets) {
    for (const std::size_t keyLength : {16U, 24U, 32U}) {
        const Octets key = random(keyLength);
        for (std::size_t length = 0; length != 70; ++length) {
            for (std::size_t beside = 0; beside < 70; beside += 1 + length % 5) {
                const Octets nonce = random(12);
                const Octets associated = random(beside);
                const Sealed made = sealed(key, nonce, associated, random(length));
                ASSERT_TRUE(isRight(key, nonce, associated, made.encrypted, made.tag, 1 + length % 19))
                    << keyLength << ' ' << length << ' ' << beside;
            }
        }
    }
}

TEST_F(GcmCheckTest, LongContentInAnyPiecesAndNoncesOfAnyLength) {
    const Octets key = random(32);
    for (const std::size_t length : {4095U, 65536U, 1000003U}) {
        for (const std::size_t nonceLength : {1U, 8U, 12U, 13U, 16U, 128U}) {
            const Octets nonce = random(nonceLength);
            const Octets associated = random(nonceLength * 7);
            const Sealed made = sealed(key, nonce, associated, random(length));
            for (const std::size_t piece : {7U, 4096U, 100000U}) {
                ASSERT_TRUE(isRight(key, nonce, associated, made.encrypted, made.tag, piece)) << length << ' ' << piece;
            }
        }
    }
}

TEST_F(GcmCheckTest, AnyChangedBitIsWrong) {
    const Octets key = random(16);
    const Octets nonce = random(12);
    const Octets associated = random(21);
    const Sealed made = sealed(key, nonce, associated, random(53));
    ASSERT_TRUE(isRight(key, nonce, associated, made.encrypted, made.tag));
    const auto changed = [](Octets octets, std::size_t bit) {
        octets[bit / 8] ^= static_cast<unsigned char>(1U << bit % 8);
        return octets;
    };
    for (std::size_t bit = 0; bit != 8 * made.encrypted.size(); ++bit) {
        ASSERT_FALSE(isRight(key, nonce, associated, changed(made.encrypted, bit), made.tag)) << bit;
    }
    for (std::size_t bit = 0; bit != 8 * associated.size(); ++bit) {
        ASSERT_FALSE(isRight(key, nonce, changed(associated, bit), made.encrypted, made.tag)) << bit;
    }
    for (std::size_t bit = 0; bit != 8 * made.tag.size(); ++bit) {
        ASSERT_FALSE(isRight(key, nonce, associated, made.encrypted, changed(made.tag, bit))) << bit;
    }
    for (std::size_t bit = 0; bit != 8 * nonce.size(); ++bit) {
        ASSERT_FALSE(isRight(key, changed(nonce, bit), associated, made.encrypted, made.tag)) << bit;
    }
}

TEST_F(GcmCheckTest, OctetsMovedAcrossTheBorderOrZerosAddedAreWrong) {
    const Octets key = random(32);
    const Octets nonce = random(12);
    const Octets associated = random(16);
    const Sealed made = sealed(key, nonce, associated, random(32));
    Octets longer = associated;
    longer.insert(longer.end(), made.encrypted.begin(), made.encrypted.begin() + 16);
    EXPECT_FALSE(isRight(key, nonce, longer, Octets(made.encrypted.begin() + 16, made.encrypted.end()), made.tag));
    Octets padded = made.encrypted;
    padded.push_back(0);
    EXPECT_FALSE(isRight(key, nonce, associated, padded, made.tag));
    padded = associated;
    padded.push_back(0);
    EXPECT_FALSE(isRight(key, nonce, padded, made.encrypted, made.tag));
    EXPECT_FALSE(isRight(key, nonce, {}, made.encrypted, made.tag));
}

TEST_F(GcmCheckTest, ShortTagsAreTheFirstOctetsAndNoTagIsWrong) {
    const Octets key = random(32);
    const Octets nonce = random(12);
    const Sealed made = sealed(key, nonce, {}, random(100));
    for (std::size_t length = 12; length != 17; ++length) {
        EXPECT_TRUE(isRight(key, nonce, {}, made.encrypted,
                            Octets(made.tag.begin(), made.tag.begin() + static_cast<long>(length))));
    }
    EXPECT_FALSE(isRight(key, nonce, {}, made.encrypted, {}));
    Octets longer = made.tag;
    longer.push_back(0);
    EXPECT_FALSE(isRight(key, nonce, {}, made.encrypted, longer));
}

} // namespace
