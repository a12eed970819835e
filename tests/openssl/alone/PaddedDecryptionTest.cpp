// Decrypting in pieces hands out what OpenSSL with padding hands out, piece by piece, and ends as it does.
#include "openssl/PaddedDecryption.h"

#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/provider.h>

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

using Norvane::Crypto::openssl::PaddedDecryption;

namespace {

using Bytes = std::vector<unsigned char>;
using Context = std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)>;

constexpr unsigned char s_key[EVP_MAX_KEY_LENGTH] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18};
constexpr unsigned char s_vector[EVP_MAX_IV_LENGTH] = {9, 8, 7};

Context started(const EVP_CIPHER* cipher) {
    Context context(EVP_CIPHER_CTX_new(), EVP_CIPHER_CTX_free);
    EXPECT_EQ(EVP_DecryptInit_ex(context.get(), cipher, nullptr, s_key, s_vector), 1);
    return context;
}

/// So that what is decrypted ends in these octets.
Bytes encryptedAround(const EVP_CIPHER* cipher, std::size_t before, const Bytes& ending) {
    Bytes clear(before, 'x');
    clear.insert(clear.end(), ending.begin(), ending.end());
    Bytes secret(clear.size() + EVP_MAX_BLOCK_LENGTH);
    const Context context(EVP_CIPHER_CTX_new(), EVP_CIPHER_CTX_free);
    int count = 0;
    EXPECT_EQ(EVP_EncryptInit_ex(context.get(), cipher, nullptr, s_key, s_vector), 1);
    EVP_CIPHER_CTX_set_padding(context.get(), 0);
    EXPECT_EQ(EVP_EncryptUpdate(context.get(), secret.data(), &count, clear.data(), static_cast<int>(clear.size())), 1);
    secret.resize(static_cast<std::size_t>(count)); // whole blocks
    return secret;
}

/// Decrypts in pieces that end at these places, and compares after each.
void expectSame(const EVP_CIPHER* cipher, const Bytes& secret, const std::vector<std::size_t>& ends) {
    const Context theirs = started(cipher);
    const Context context = started(cipher);
    PaddedDecryption ours(context.get());
    std::size_t at = 0;
    int count = 0;
    for (const std::size_t end : ends) {
        Bytes expected(end - at + EVP_MAX_BLOCK_LENGTH);
        ASSERT_EQ(
            EVP_DecryptUpdate(theirs.get(), expected.data(), &count, secret.data() + at, static_cast<int>(end - at)),
            1);
        expected.resize(static_cast<std::size_t>(count));
        const auto clear = ours.update({secret.data() + at, end - at});
        ASSERT_TRUE(clear);
        ASSERT_EQ(Bytes(clear->begin(), clear->end()), expected) << at << " to " << end;
        at = end;
    }
    Bytes expected(EVP_MAX_BLOCK_LENGTH);
    const bool good = EVP_DecryptFinal_ex(theirs.get(), expected.data(), &count) == 1;
    ERR_clear_error();
    const auto rest = ours.finish();
    ASSERT_EQ(rest.has_value(), good) << secret.size();
    if (good) {
        expected.resize(static_cast<std::size_t>(count));
        ASSERT_EQ(Bytes(rest->begin(), rest->end()), expected);
    }
    EXPECT_EQ(ERR_peek_error(), 0U);
}

class Decrypting : public testing::TestWithParam<const char*> {
protected:
    void SetUp() override {
        m_standard = OSSL_PROVIDER_load(nullptr, "default");
        m_legacy = OSSL_PROVIDER_load(nullptr, "legacy");
        m_cipher = EVP_CIPHER_fetch(nullptr, GetParam(), nullptr);
        ASSERT_NE(m_cipher, nullptr);
    }
    void TearDown() override {
        EVP_CIPHER_free(m_cipher);
        OSSL_PROVIDER_unload(m_legacy);
        OSSL_PROVIDER_unload(m_standard);
    }

    EVP_CIPHER* m_cipher = nullptr;

private:
    OSSL_PROVIDER* m_standard = nullptr;
    OSSL_PROVIDER* m_legacy = nullptr;
};

} // namespace

TEST_P(Decrypting, EveryLengthInEveryTwoPieces) {
    const auto block = static_cast<std::size_t>(EVP_CIPHER_get_block_size(m_cipher));
    const Bytes secret = encryptedAround(m_cipher, 4 * block, Bytes(block, static_cast<unsigned char>(block)));
    for (std::size_t length = 0; length <= secret.size(); ++length) {
        const Bytes cut(secret.begin(), secret.begin() + static_cast<std::ptrdiff_t>(length));
        for (std::size_t first = 0; first <= length; ++first) {
            ASSERT_NO_FATAL_FAILURE(expectSame(m_cipher, cut, {first, length}));
        }
    }
}

TEST_P(Decrypting, OctetByOctetAndTheLongestPieces) {
    const auto block = static_cast<std::size_t>(EVP_CIPHER_get_block_size(m_cipher));
    const Bytes secret = encryptedAround(m_cipher, 3 * PaddedDecryption::s_pieceLength, Bytes(block, 1));
    std::vector<std::size_t> each;
    for (std::size_t end = 1; end <= 5 * block; ++end) {
        each.push_back(end);
    }
    expectSame(m_cipher, Bytes(secret.begin(), secret.begin() + static_cast<std::ptrdiff_t>(5 * block)), each);
    for (const std::size_t odd : {0U, 1U, 7U}) {
        std::vector<std::size_t> ends;
        for (std::size_t end = PaddedDecryption::s_pieceLength - odd; end < secret.size();
             end += PaddedDecryption::s_pieceLength) {
            ends.push_back(end);
        }
        ends.push_back(secret.size());
        expectSame(m_cipher, secret, ends);
    }
}

TEST_P(Decrypting, EveryPaddingAndItsNeighbours) {
    const auto block = static_cast<std::size_t>(EVP_CIPHER_get_block_size(m_cipher));
    for (unsigned int last = 0; last != 256; ++last) {
        const auto octet = static_cast<unsigned char>(last);
        for (std::size_t same = 1; same <= block; ++same) { // so many octets at the end are alike
            Bytes ending(block, static_cast<unsigned char>(octet + 1));
            std::fill(ending.end() - static_cast<std::ptrdiff_t>(same), ending.end(), octet);
            const Bytes secret = encryptedAround(m_cipher, block, ending);
            ASSERT_NO_FATAL_FAILURE(expectSame(m_cipher, secret, {secret.size()}));
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Ciphers, Decrypting,
                         testing::Values("AES-256-CBC", "AES-128-ECB", "AES-256-CFB", "DES-EDE3-CBC", "RC2-CBC", "RC4"),
                         [](const auto& tested) {
                             std::string name = tested.param;
                             std::erase(name, '-');
                             return name;
                         });
