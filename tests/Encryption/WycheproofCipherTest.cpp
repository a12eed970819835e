// Published AES-CBC vectors through the streams: valid ones encrypt and decrypt as published, those with a bad padding
// throw at the end.

#include "support/Ciphers.h"
#include "support/Places.h"
#include "support/Thrown.h"

#include <nlohmann/json.hpp>

#include <filesystem>
#include <fstream>
#include <optional>

using namespace ciphertest;
using namespace norvtest;
using namespace Norvane::Crypto;

namespace {

Cipher cipherOf(int keySize) {
    return keySize == 128 ? AES_128_CBC : keySize == 192 ? AES_192_CBC : AES_256_CBC;
}

void checkValid(Cipher cipher, const Buffer& key, const Buffer& iv, const std::string& message,
                const std::string& secret) {
    EXPECT_EQ(toHex(through(EncrypterMediaOut(cipher, key, iv), message)), toHex(secret));
    EXPECT_EQ(toHex(through(DecrypterMediaOut(cipher, key, iv), secret)), toHex(message));
}

void checkInvalid(Cipher cipher, const Buffer& key, const Buffer& iv, const std::string& secret) {
    DecrypterMediaOut decrypter(cipher, key, iv);
    Norvane::MemoryMediaOut target;
    decrypter.attach(target);
    decrypter.write(bufferOf(secret));
    expectFailure(thrownBy([&] { decrypter.end(); }), "Crypto::Decrypter::update", 4, "Encryption", 264);
    EXPECT_FALSE(target.ended());
}

TEST(WycheproofCiphers, AesVectorsAreJudgedAsPublished) {
    const auto path = norvtest::samplePath("wycheproof/aes_cbc_pkcs5_test.json");
    if (!std::filesystem::exists(path)) {
        GTEST_SKIP() << "no vectors at " << path;
    }
    const auto file = nlohmann::json::parse(std::ifstream(path));
    std::size_t valid = 0;
    std::size_t invalid = 0;
    for (const auto& group : file.at("testGroups")) {
        const Cipher cipher = cipherOf(group.at("keySize"));
        for (const auto& test : group.at("tests")) {
            SCOPED_TRACE("vector " + test.at("tcId").dump() + ": " + test.at("comment").dump());
            const Buffer key = bufferOf(fromHex(test.at("key")));
            const Buffer iv = bufferOf(fromHex(test.at("iv")));
            if (test.at("result") == "valid") {
                ++valid;
                checkValid(cipher, key, iv, fromHex(test.at("msg")), fromHex(test.at("ct")));
            } else {
                EXPECT_EQ(test.at("result"), "invalid");
                ++invalid;
                checkInvalid(cipher, key, iv, fromHex(test.at("ct")));
            }
            EXPECT_TRUE(errorQueueIsEmpty());
        }
    }
    EXPECT_EQ(valid + invalid, file.at("numberOfTests").get<std::size_t>());
    EXPECT_GT(valid, 50U);
    EXPECT_GT(invalid, 100U);
}

} // namespace
