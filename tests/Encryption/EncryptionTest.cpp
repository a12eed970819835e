// The cipher table, the generator of initialisation vectors, and what the streams' constructors refuse.

#include "support/Ciphers.h"
#include "support/Grouping.h"
#include "support/Thrown.h"

#include <openssl/evp.h>

#include <set>
#include <type_traits>

using namespace ciphertest;
using namespace norvtest;
using Norvane::Crypto::initializeCipher;
using Norvane::Crypto::IntializationVectorGenerator;

namespace {

const char* const initializeCipherText = "const EVP_CIPHER* Norvane::Crypto::initializeCipher(Norvane::Crypto::Cipher)";

TEST_P(EachCipher, IsOpenSslsOfThatNumberWithItsLengths) {
    const EVP_CIPHER* cipher = initializeCipher(GetParam().cipher);
    ASSERT_NE(cipher, nullptr);
    EXPECT_EQ(static_cast<int>(GetParam().cipher), GetParam().number);
    EXPECT_EQ(EVP_CIPHER_get_nid(cipher), GetParam().number);
    EXPECT_STREQ(EVP_CIPHER_get0_name(cipher), GetParam().name);
    EXPECT_EQ(EVP_CIPHER_get_key_length(cipher), static_cast<int>(GetParam().keyLength));
    EXPECT_EQ(EVP_CIPHER_get_iv_length(cipher), static_cast<int>(GetParam().blockLength));
    EXPECT_EQ(EVP_CIPHER_get_block_size(cipher), static_cast<int>(GetParam().blockLength));
    EXPECT_EQ(EVP_CIPHER_get_mode(cipher), EVP_CIPH_CBC_MODE);
    EXPECT_EQ(initializeCipher(static_cast<Cipher>(GetParam().number)), cipher);
    EXPECT_TRUE(errorQueueIsEmpty());
}

TEST_P(EachCipher, IsFoundByOpenSslUnderItsNumber) {
    const EVP_CIPHER* found = EVP_get_cipherbynid(GetParam().number);
    ASSERT_NE(found, nullptr) << "OpenSSL decrypts structures with what it finds";
    EXPECT_EQ(EVP_CIPHER_get_key_length(found), static_cast<int>(GetParam().keyLength));
}

INSTANTIATE_TEST_SUITE_P(Ciphers, EachCipher, testing::ValuesIn(allCiphers()), nameOf);

TEST(InitializeCipher, AnotherNumberIsUnsupported) {
    const auto thrown = thrownBy([] { initializeCipher(static_cast<Cipher>(32)); });
    expectFailure(thrown, initializeCipherText, 4, "Encryption", 81);
    EXPECT_EQ(detailOf(thrown), "Unsupported CIPHER value 32");
}

TEST(InitializeCipher, NumbersBesideTheTableAreUnsupported) {
    for (const int number : {0, 30, 35, 43, 45, 90, 92, 107, 109, 418, 420, 422, 424, 426, 428, 2147483647}) {
        EXPECT_EQ(detailOf(thrownBy([number] { initializeCipher(static_cast<Cipher>(number)); })),
                  "Unsupported CIPHER value " + std::to_string(number));
    }
}

TEST(InitializeCipher, ANegativeNumberIsPrintedWithItsSign) {
    EXPECT_EQ(detailOf(thrownBy([] { initializeCipher(static_cast<Cipher>(-1)); })), "Unsupported CIPHER value -1");
    EXPECT_EQ(detailOf(thrownBy([] { initializeCipher(static_cast<Cipher>(-2147483647 - 1)); })),
              "Unsupported CIPHER value -2147483648");
}

TEST(InitializeCipher, TheHostsLocaleDoesNotGroupTheNumber) {
    const GroupingDigits grouping;
    EXPECT_EQ(detailOf(thrownBy([] { initializeCipher(static_cast<Cipher>(1234567)); })),
              "Unsupported CIPHER value 1234567");
}

TEST(InitializeCipher, AnUnsupportedNumberLeavesOpenSslsQueueAlone) {
    ERR_raise(ERR_LIB_USER, 42);
    thrownBy([] { initializeCipher(static_cast<Cipher>(32)); });
    EXPECT_FALSE(errorQueueIsEmpty());
}

TEST(InitializeCipher, CipherIsAPlainEnumerationOf32Bits) {
    static_assert(std::is_enum_v<Cipher> && std::is_convertible_v<Cipher, int> && sizeof(Cipher) == 4);
    static_assert(static_cast<Cipher>(-1) < 0);
}

TEST(VectorGenerator, InstanceIsNullAndThatIsDeliberate) {
    EXPECT_EQ(IntializationVectorGenerator::instance(), nullptr);
    EXPECT_EQ(IntializationVectorGenerator::instance(), nullptr);
}

TEST(VectorGenerator, GeneratesThroughTheNullInstance) {
    EXPECT_EQ(IntializationVectorGenerator::instance()->generateIV(16).length(), 16U);
    IntializationVectorGenerator generator;
    EXPECT_EQ(generator.generateIV(8).length(), 8U);
}

TEST(VectorGenerator, TwoVectorsDiffer) {
    const Buffer one = IntializationVectorGenerator::generateIV(16);
    const Buffer other = IntializationVectorGenerator::generateIV(16);
    EXPECT_EQ(one.length(), 16U);
    EXPECT_EQ(other.length(), 16U);
    EXPECT_FALSE(one == other);
}

TEST(VectorGenerator, ThousandVectorsAreAllDifferent) {
    std::set<std::string> seen;
    for (int i = 0; i < 1000; ++i) {
        seen.insert(textOf(IntializationVectorGenerator::generateIV(8)));
    }
    EXPECT_EQ(seen.size(), 1000U);
}

TEST(VectorGenerator, FillsEveryByte) {
    // Byte by byte, 64 vectors are not all zero in any place.
    std::string any(1000, '\0');
    for (int i = 0; i < 64; ++i) {
        const std::string vector = textOf(IntializationVectorGenerator::generateIV(1000));
        ASSERT_EQ(vector.size(), any.size());
        for (std::size_t at = 0; at < any.size(); ++at) {
            any[at] = static_cast<char>(any[at] | vector[at]);
        }
    }
    EXPECT_EQ(any.find('\0'), std::string::npos);
}

TEST(VectorGenerator, NoBytesGiveAnEmptyBuffer) {
    const Buffer none = IntializationVectorGenerator::generateIV(0);
    EXPECT_EQ(none.length(), 0U);
    EXPECT_TRUE(none.empty());
    EXPECT_TRUE(errorQueueIsEmpty());
}

TEST(VectorGenerator, ALengthThatOpenSslCannotCountIsAFailure) {
    for (const unsigned int length : {0x80000000U, 0xFFFFFFFFU}) {
        const auto thrown = thrownBy([length] { IntializationVectorGenerator::generateIV(length); });
        expectFailure(thrown, "Crypto::IntializationVectorGenerator::generateIV", 4, "Encryption", 26);
        EXPECT_NE(detailOf(thrown).find("RAND_bytes / argument out of range"), std::string::npos) << detailOf(thrown);
        EXPECT_TRUE(errorQueueIsEmpty());
    }
}

/// Both kinds of stream, with the texts of their failures.
template <class Stream> const char* contextText();
template <> const char* contextText<EncrypterMediaOut>() {
    return "Crypto::s_initializeEncryptionContext";
}
template <> const char* contextText<DecrypterMediaOut>() {
    return "Crypto::s_initializeDecryptionContext";
}

template <class Stream> class Constructor : public testing::Test {};
using Streams = testing::Types<EncrypterMediaOut, DecrypterMediaOut>;
TYPED_TEST_SUITE(Constructor, Streams);

TYPED_TEST(Constructor, RefusesAnUnsupportedCipher) {
    const auto thrown = thrownBy([] { TypeParam(static_cast<Cipher>(32), Buffer(64, 64), Buffer(64, 64)); });
    expectFailure(thrown, initializeCipherText, 4, "Encryption", 81);
    EXPECT_EQ(detailOf(thrown), "Unsupported CIPHER value 32");
}

TYPED_TEST(Constructor, RefusesAKeyThatIsTooShort) {
    for (const Facts& facts : allCiphers()) {
        const auto length = static_cast<int>(facts.keyLength) - 1;
        const auto thrown = thrownBy([&] { TypeParam(facts.cipher, Buffer(length, length), ivFor(facts)); });
        expectFailure(thrown, contextText<TypeParam>(), 4, "Encryption");
        EXPECT_EQ(detailOf(thrown), "The key has " + std::to_string(length) + " bytes, " + facts.name + " takes " +
                                        std::to_string(length + 1));
        EXPECT_TRUE(errorQueueIsEmpty());
    }
}

TYPED_TEST(Constructor, RefusesAnIvThatIsTooShort) {
    for (const Facts& facts : allCiphers()) {
        const auto length = static_cast<int>(facts.blockLength) - 1;
        const auto thrown = thrownBy([&] { TypeParam(facts.cipher, keyFor(facts), Buffer(length, length)); });
        expectFailure(thrown, contextText<TypeParam>(), 4, "Encryption");
        EXPECT_EQ(detailOf(thrown), "The IV has " + std::to_string(length) + " bytes, " + facts.name + " takes " +
                                        std::to_string(length + 1));
    }
}

TYPED_TEST(Constructor, RefusesAnEmptyKeyAndAnEmptyIv) {
    EXPECT_EQ(detailOf(thrownBy([] { TypeParam(Norvane::Crypto::AES_128_CBC, Buffer(), Buffer(16, 16)); })),
              "The key has 0 bytes, AES-128-CBC takes 16");
    EXPECT_EQ(detailOf(thrownBy([] { TypeParam(Norvane::Crypto::AES_128_CBC, Buffer(16, 16), Buffer()); })),
              "The IV has 0 bytes, AES-128-CBC takes 16");
}

TYPED_TEST(Constructor, CapacityDoesNotCountAsLength) {
    EXPECT_EQ(detailOf(thrownBy([] { TypeParam(Norvane::Crypto::BF_CBC, Buffer(64, 15), Buffer(64, 8)); })),
              "The key has 15 bytes, BF-CBC takes 16");
}

TYPED_TEST(Constructor, LeavesKeyAndIvAsTheyWere) {
    const Facts& facts = allCiphers().back();
    const Buffer key = keyFor(facts);
    const Buffer iv = ivFor(facts);
    EXPECT_EQ(through(TypeParam(facts.cipher, key, iv), encrypted(facts, "a body")).empty(), false);
    EXPECT_EQ(textOf(key), textOf(keyFor(facts)));
    EXPECT_EQ(textOf(iv), textOf(ivFor(facts)));
}

TEST_P(EachCipher, CutsAKeyAndAnIvThatAreTooLong) {
    const Facts& facts = GetParam();
    Buffer longKey = keyFor(facts);
    longKey.append(bufferOf("further bytes"));
    Buffer longIv = ivFor(facts);
    longIv.append(bufferOf("other ones"));
    const std::string secret = through(EncrypterMediaOut(facts.cipher, longKey, longIv), "a body");
    EXPECT_EQ(secret, encrypted(facts, "a body"));
    EXPECT_EQ(through(DecrypterMediaOut(facts.cipher, longKey, longIv), secret), "a body");
}

} // namespace
