// Content keys under other symmetric keys and under passwords, at the bounds of their lengths, and with one thing wrong at a time.
#include "openssl/KeyUnwrapping.h"
#include "openssl/ContentCipher.h"

#include "CMSStreamReader/HandMade.h"

#include <openssl/err.h>

#include <gtest/gtest.h>

#include <openssl/evp.h>

#include <climits>

namespace {

using namespace Norvane::Crypto::openssl;
using norvauthority::Bytes;
namespace der = norvauthority::der;

const Bytes s_kek(16, 0x17);
const Bytes s_vector(16, 9);

Bytes identifier(const std::string& name, const Bytes& parameters = {}) {
    return der::sequence({der::oid(name), parameters});
}

Bytes octetsOf(const WipedBytes& bytes) {
    return {bytes.octets().begin(), bytes.octets().end()};
}

Bytes unwrapped(const std::string& wrap, const Bytes& kek, const Bytes& wrapped) {
    const AlgorithmPtr algorithm = decodeAlgorithm(identifier(wrap));
    const Bytes key = octetsOf(unwrapKey(*algorithm, kek, wrapped));
    EXPECT_EQ(ERR_peek_error(), 0UL);
    return key;
}

constexpr const char* s_aes128Wrap = "2.16.840.1.101.3.4.1.5";

// RFC 3394, 4.1 and 4.6.
TEST(KeyUnwrapping, PublishedKeys) {
    EXPECT_EQ(unwrapped(s_aes128Wrap, norvauthority::fromHex("000102030405060708090A0B0C0D0E0F"),
                        norvauthority::fromHex("1FA68B0A8112B447AEF34BD8FB5A7B829D3E862371D2CFE5")),
              norvauthority::fromHex("00112233445566778899AABBCCDDEEFF"));
    EXPECT_EQ(unwrapped("2.16.840.1.101.3.4.1.45",
                        norvauthority::fromHex("000102030405060708090A0B0C0D0E0F101112131415161718191A1B1C1D1E1F"),
                        norvauthority::fromHex(
                            "28C9F404C4B810F4CBCCB35CFB87F8263F5786E2D80ED326CBC7F0E71A99F43BFB988B9B7A02DD21")),
              norvauthority::fromHex("00112233445566778899AABBCCDDEEFF000102030405060708090A0B0C0D0E0F"));
}

TEST(KeyUnwrapping, WrappedKeysAreBounded) {
    const Bytes longest(1016, 0x42);
    const Bytes wrapped = cmstest::aesWrapped(s_kek, longest);
    ASSERT_EQ(wrapped.size(), 1024U);
    EXPECT_EQ(unwrapped(s_aes128Wrap, s_kek, wrapped), longest);
    EXPECT_EQ(unwrapped(s_aes128Wrap, s_kek, cmstest::aesWrapped(s_kek, Bytes(1024, 0x42))), Bytes());
    EXPECT_EQ(unwrapped(s_aes128Wrap, s_kek, {}), Bytes());
    EXPECT_EQ(unwrapped(s_aes128Wrap, s_kek, Bytes(23, 1)), Bytes());
    EXPECT_EQ(unwrapped(s_aes128Wrap, Bytes(32, 0x17), wrapped), Bytes()) << "a key-encryption key of another length";
    EXPECT_EQ(unwrapped(s_aes128Wrap, Bytes(15, 0x17), wrapped), Bytes());
    EXPECT_EQ(unwrapped("1.2.3.4", s_kek, wrapped), Bytes());
    EXPECT_EQ(keyEncryptionKeyLength(*decodeAlgorithm(identifier(s_aes128Wrap))), 16U);
    EXPECT_EQ(keyEncryptionKeyLength(*decodeAlgorithm(identifier("1.2.3.4"))), 0U);
}

/// A content key under a password, and how it departs from a sound one.
struct Password {
    std::string iterations = "2";
    Bytes keyLength{};
    Bytes salt = der::octetString(Bytes(8, 1));
    std::optional<Bytes> parameters{};
    Bytes inner = identifier("AES-256-CBC", der::octetString(s_vector));
    std::string encryption = "1.2.840.113549.1.9.16.3.9";

    [[nodiscard]] Bytes derivation() const {
        return identifier("1.2.840.113549.1.5.12", parameters
                                                       ? *parameters
                                                       : der::sequence({salt, der::integer(iterations), keyLength,
                                                                        identifier("hmacWithSHA256", der::null())}));
    }
    [[nodiscard]] Bytes open(const Bytes& wrapped) const {
        const AlgorithmPtr derived = decodeAlgorithm(derivation());
        const AlgorithmPtr encrypted = decodeAlgorithm(identifier(encryption, inner));
        const Bytes password{'p', 'w'};
        const Bytes key = octetsOf(openPasswordKey({derived.get(), encrypted.get()}, password, wrapped));
        EXPECT_EQ(ERR_peek_error(), 0UL);
        return key;
    }
    [[nodiscard]] std::optional<std::int64_t> counted() const {
        const AlgorithmPtr derived = decodeAlgorithm(derivation());
        const AlgorithmPtr encrypted = decodeAlgorithm(identifier(encryption, inner));
        return iterationsOf({derived.get(), encrypted.get()});
    }
    [[nodiscard]] std::string unsupported() const {
        const AlgorithmPtr derived = decodeAlgorithm(derivation());
        const AlgorithmPtr encrypted = decodeAlgorithm(identifier(encryption, inner));
        return unsupportedPassword({derived.get(), encrypted.get()});
    }
};

/// What the password stands for, with the salt and the iterations above.
Bytes derivedKey(std::size_t length = 32) {
    Bytes key(length);
    const Bytes salt(8, 1);
    EXPECT_EQ(PKCS5_PBKDF2_HMAC("pw", 2, salt.data(), 8, 2, EVP_sha256(), static_cast<int>(length), key.data()), 1);
    return key;
}

/// These octets, encrypted twice (RFC 3211, 2.3.1).
Bytes encryptedTwice(const EVP_CIPHER* cipher, const Bytes& key, const Bytes& vector, Bytes octets) {
    const cmstest::CipherContext context(EVP_CIPHER_CTX_new(), EVP_CIPHER_CTX_free);
    EXPECT_EQ(EVP_EncryptInit_ex(context.get(), cipher, nullptr, key.data(), vector.data()), 1);
    EVP_CIPHER_CTX_set_padding(context.get(), 0);
    for (int turn = 0; turn < 2; ++turn) {
        int count = 0;
        EXPECT_EQ(
            EVP_EncryptUpdate(context.get(), octets.data(), &count, octets.data(), static_cast<int>(octets.size())), 1);
    }
    return octets;
}

/// A length, three check octets and the octets of a key, with padding to so many in all.
Bytes formatted(std::size_t length, const Bytes& key, std::size_t all) {
    Bytes octets{static_cast<unsigned char>(length), static_cast<unsigned char>(~key[0]),
                 static_cast<unsigned char>(~key[1]), static_cast<unsigned char>(~key[2])};
    der::append(octets, key);
    octets.resize(all, 0x77);
    return octets;
}

Bytes sound(const Bytes& key, std::size_t all) {
    return encryptedTwice(EVP_aes_256_cbc(), derivedKey(), s_vector, formatted(key.size(), key, all));
}

TEST(PasswordKeys, KeysOfEveryLengthThatFits) {
    for (const std::size_t length : {3U, 4U, 16U, 28U}) {
        const Bytes key(length, 0x42);
        EXPECT_EQ(Password().open(sound(key, 32)), key) << length;
    }
    const Bytes longest(255, 0x42);
    EXPECT_EQ(Password().open(sound(longest, 1024)), longest);
    EXPECT_EQ(Password().open(sound(longest, 1040)), Bytes());
    const auto claimed = [](std::size_t length) {
        return encryptedTwice(EVP_aes_256_cbc(), derivedKey(), s_vector, formatted(length, Bytes(28, 0x42), 32));
    };
    EXPECT_EQ(Password().open(claimed(28)), Bytes(28, 0x42));
    for (const std::size_t length : {0U, 1U, 2U, 29U, 32U, 36U, 255U}) {
        EXPECT_EQ(Password().open(claimed(length)), Bytes()) << length;
    }
}

TEST(PasswordKeys, EachCheckOctetIsLookedAt) {
    const Bytes key(16, 0x42);
    for (const std::size_t place : {1U, 2U, 3U}) {
        Bytes octets = formatted(16, key, 32);
        octets[place] ^= 0x10U;
        EXPECT_EQ(Password().open(encryptedTwice(EVP_aes_256_cbc(), derivedKey(), s_vector, octets)), Bytes()) << place;
    }
}

TEST(PasswordKeys, WholeBlocksAndTwoAtLeast) {
    const Bytes whole = sound(Bytes(16, 0x42), 32);
    for (const std::size_t length : {0U, 1U, 8U, 15U, 16U, 17U, 24U, 31U}) {
        EXPECT_EQ(Password().open(Bytes(whole.begin(), whole.begin() + static_cast<long>(length))), Bytes()) << length;
    }
    EXPECT_EQ(Password().open(Bytes(40, 1)), Bytes());
    // A cipher without blocks, which unsupportedPassword names.
    const Password stream{.inner = identifier("2.16.840.1.101.3.4.1.44", der::octetString(s_vector))};
    EXPECT_EQ(stream.open(Bytes(32, 1)), Bytes());
    EXPECT_NE(stream.unsupported(), "");
    // Blocks of eight octets.
    const Bytes vector(8, 9);
    const Bytes key(8, 0x42);
    const Password small{.inner = identifier("1.2.840.113549.3.7", der::octetString(vector))};
    EXPECT_EQ(small.unsupported(), "");
    EXPECT_EQ(small.open(encryptedTwice(EVP_des_ede3_cbc(), derivedKey(24), vector, formatted(8, key, 16))), key);
}

// Zeroes are what the key is before it is derived.
TEST(PasswordKeys, WithoutADerivationNothingOpens) {
    const Bytes key(16, 0x42);
    const Bytes underZeroes = encryptedTwice(EVP_aes_256_cbc(), Bytes(32, 0), s_vector, formatted(16, key, 32));
    const Bytes right = sound(key, 32);
    EXPECT_EQ(Password().open(right), key);
    for (const Password& password :
         {Password{.iterations = "0"}, Password{.iterations = "-1"}, Password{.iterations = "80000000"},
          Password{.iterations = "100000002"}, Password{.iterations = "10000000000000002"},
          Password{.keyLength = der::integer("10")}, Password{.keyLength = der::integer("21")},
          Password{.keyLength = der::integer("-20")}, Password{.keyLength = der::integer("10000000000000000020")},
          Password{.salt = identifier("1.2.3.4")}, Password{.parameters = der::null()},
          Password{.parameters = der::sequence({})}, Password{.parameters = Bytes()}}) {
        EXPECT_EQ(password.open(underZeroes), Bytes());
        EXPECT_EQ(password.open(right), Bytes());
    }
    EXPECT_EQ(Password{.keyLength = der::integer("20")}.open(right), key) << "32 octets, as the cipher takes";
}

TEST(PasswordKeys, IterationsAreCountedAsOpensslCounts) {
    EXPECT_EQ(Password{.iterations = "1"}.counted(), 1);
    EXPECT_EQ(Password{.iterations = "7fffffff"}.counted(), INT_MAX);
    EXPECT_EQ(Password{.iterations = "80000000"}.counted(), std::nullopt);
    EXPECT_EQ(Password{.iterations = "100000000000000000"}.counted(), std::nullopt);
    EXPECT_EQ(Password{.iterations = "0"}.counted(), 0);
    EXPECT_EQ(Password{.iterations = "-1"}.counted(), 0);
    EXPECT_EQ(Password{.iterations = "-100000000000000000"}.counted(), 0);
    EXPECT_EQ(Password{.parameters = der::null()}.counted(), 0);
    EXPECT_EQ(iterationsOf({nullptr, nullptr}), 0);
}

TEST(PasswordKeys, WhatIsNotSupportedIsNamed) {
    EXPECT_EQ(Password().unsupported(), "");
    EXPECT_EQ(Password{.parameters = der::null()}.unsupported(), "") << "damage";
    EXPECT_EQ(Password{.salt = identifier("1.2.3.4")}.unsupported(), "PBKDF2 with a salt of another source");
    EXPECT_EQ(Password{.encryption = "2.16.840.1.101.3.4.1.2"}.unsupported(), "AES-128-CBC (2.16.840.1.101.3.4.1.2)");
    EXPECT_EQ(Password{.inner = der::null()}.unsupported(), "");
    EXPECT_EQ(Password{.inner = identifier("1.2.3.4")}.unsupported(), "id-alg-PWRI-KEK with 1.2.3.4");
}

// OpenSSL has RC2 in a provider of its own, which a machine may not have: the password would look wrong.
TEST(PasswordKeys, ACipherThatIsNotThereIsNotSupported) {
    ASSERT_EQ(EVP_set_default_properties(nullptr, "provider=default"), 1);
    const Bytes parameters = der::sequence({der::integer("3a"), der::octetString(Bytes(8, 9))}); // RFC 2268, 6
    const Password password{.inner = identifier("1.2.840.113549.3.2", parameters)};
    EXPECT_EQ(password.unsupported(), "id-alg-PWRI-KEK with RC2-CBC (1.2.840.113549.3.2)");
    EXPECT_EQ(password.open(Bytes(16, 1)), Bytes());
    ASSERT_EQ(EVP_set_default_properties(nullptr, ""), 1);
    EXPECT_EQ(password.unsupported(), "");
}

} // namespace
