// Published vectors of the eight ciphers, and bodies that another program encrypted.

#include "support/Ciphers.h"

using namespace ciphertest;
using namespace Norvane::Crypto;

namespace {

struct Vector {
    const char* publication;
    Cipher cipher;
    const char* key;
    const char* iv;
    const char* plain;
    const char* secret; ///< without the block of padding that the streams add
};

const std::vector<Vector> published{
    {"FIPS PUB 81, table C1", DES_CBC, "0123456789abcdef", "1234567890abcdef",
     "4e6f77206973207468652074696d6520666f7220616c6c20", "e5c7cdde872bf27c43e934008c389c0f683788499a7c05f6"},
    {"Blowfish's chaining vector: 7654321 Now is the time for, filled up with zeroes", BF_CBC,
     "0123456789abcdeff0e1d2c3b4a59687", "fedcba9876543210",
     "37363534333231204e6f77206973207468652074696d6520666f722000000000",
     "6b77b4d63006dee605b156e27403979358deb9e7154616d959f1652bd5ff92cc"},
    {"RFC 2144, B.1", CAST5_CBC, "0123456712345678234567893456789a", "0000000000000000", "0123456789abcdef",
     "238b4fe5847e44b2"},
    {"NIST SP 800-38A, F.2.1", AES_128_CBC, "2b7e151628aed2a6abf7158809cf4f3c", "000102030405060708090a0b0c0d0e0f",
     "6bc1bee22e409f96e93d7e117393172aae2d8a571e03ac9c9eb76fac45af8e51"
     "30c81c46a35ce411e5fbc1191a0a52eff69f2445df4f9b17ad2b417be66c3710",
     "7649abac8119b246cee98e9b12e9197d5086cb9b507219ee95db113a917678b2"
     "73bed6b8e3c1743b7116e69e222295163ff1caa1681fac09120eca307586e1a7"},
    {"NIST SP 800-38A, F.2.3", AES_192_CBC, "8e73b0f7da0e6452c810f32b809079e562f8ead2522c6b7b",
     "000102030405060708090a0b0c0d0e0f",
     "6bc1bee22e409f96e93d7e117393172aae2d8a571e03ac9c9eb76fac45af8e51"
     "30c81c46a35ce411e5fbc1191a0a52eff69f2445df4f9b17ad2b417be66c3710",
     "4f021db243bc633d7178183a9fa071e8b4d9ada9ad7dedf4e5e738763f69145a"
     "571b242012fb7ae07fa9baac3df102e008b0e27988598881d920a9e64f5615cd"},
    {"NIST SP 800-38A, F.2.5", AES_256_CBC, "603deb1015ca71be2b73aef0857d77811f352c073b6108d72d9810a30914dff4",
     "000102030405060708090a0b0c0d0e0f",
     "6bc1bee22e409f96e93d7e117393172aae2d8a571e03ac9c9eb76fac45af8e51"
     "30c81c46a35ce411e5fbc1191a0a52eff69f2445df4f9b17ad2b417be66c3710",
     "f58c4c04d6e5f1ba779eabfb5f7bfbd69cfc4e967edb808d679f777bc6702c7d"
     "39f23369a9d9bacfa530e26304231461b2eb05e2c39be9fcda6c19078c6a9d1b"},
};

Buffer bytes(const char* hex) {
    return norvtest::bufferOf(fromHex(hex));
}

TEST(PublishedVectors, AreWhatTheEncrypterWrites) {
    for (const Vector& vector : published) {
        SCOPED_TRACE(vector.publication);
        const std::string plain = fromHex(vector.plain);
        const std::string secret =
            through(EncrypterMediaOut(vector.cipher, bytes(vector.key), bytes(vector.iv)), plain);
        EXPECT_EQ(toHex(secret.substr(0, plain.size())), vector.secret);
        EXPECT_EQ(secret.size(), plain.size() + bytes(vector.iv).length()) << "whole blocks get a block of padding";
        EXPECT_EQ(through(DecrypterMediaOut(vector.cipher, bytes(vector.key), bytes(vector.iv)), secret), plain);
    }
}

TEST(PublishedVectors, AreReadByTheDecrypterBlockByBlock) {
    for (const Vector& vector : published) {
        SCOPED_TRACE(vector.publication);
        // The last block is held back until the end, which it does not reach: it is no padding.
        DecrypterMediaOut decrypter(vector.cipher, bytes(vector.key), bytes(vector.iv));
        Norvane::MemoryMediaOut clear;
        decrypter.attach(clear);
        decrypter.write(bytes(vector.secret));
        decrypter.write(bytes(vector.iv)); // any further block
        EXPECT_EQ(toHex(norvtest::textOf(clear.content())), vector.plain);
    }
}

/// Where a publication has single blocks only, they are chained here: each plain block is xored with the secret block
/// before it, as the mode says.
struct Blocks {
    const char* publication;
    Cipher cipher;
    const char* key;
    std::vector<std::pair<const char*, const char*>> blocks; ///< plain and secret
};

const std::vector<Blocks> publishedBlocks{
    {"NIST SP 800-67, appendix B.1",
     DES_EDE3_CBC,
     "0123456789abcdef23456789abcdef01456789abcdef0123",
     {{"5468652071756663", "a826fd8ce53b855f"},
      {"6b2062726f776e20", "cce21c8112256fe6"},
      {"666f78206a756d70", "68d5c05dd9b6b900"}}},
    {"IDEA's reference data",
     IDEA_CBC,
     "00010002000300040005000600070008",
     {{"0000000100020003", "11fbed2b01986de5"},
      {"0102030405060708", "540e5fea18c2f8b1"},
      {"0019324b647d96af", "9f0a0ab6e10ced78"},
      {"f5202d5b9c671b08", "cf18fd7355e2c5c5"},
      {"fae6d2beaa96826e", "85df52005608193d"}}},
    {"IDEA's reference data, another key",
     IDEA_CBC,
     "0005000a000f00140019001e00230028",
     {{"0102030405060708", "3ec04780beff6e20"}}},
    {"IDEA's reference data, a third key",
     IDEA_CBC,
     "3a984e2000195db32ee501c8c47cea60",
     {{"0102030405060708", "97bcd8200780da86"}}},
};

TEST(PublishedBlocks, ChainThroughBothStreams) {
    for (const Blocks& vector : publishedBlocks) {
        SCOPED_TRACE(vector.publication);
        const std::string iv = fromHex("a0a1a2a3a4a5a6a7");
        std::string plain;
        std::string secret;
        std::string before = iv;
        for (const auto& [plainBlock, secretBlock] : vector.blocks) {
            const std::string block = fromHex(plainBlock);
            for (std::size_t at = 0; at < block.size(); ++at) {
                plain += static_cast<char>(block[at] ^ before[at]);
            }
            before = fromHex(secretBlock);
            secret += before;
        }
        const std::string written =
            through(EncrypterMediaOut(vector.cipher, bytes(vector.key), norvtest::bufferOf(iv)), plain);
        EXPECT_EQ(toHex(written.substr(0, plain.size())), toHex(secret));
        EXPECT_EQ(through(DecrypterMediaOut(vector.cipher, bytes(vector.key), norvtest::bufferOf(iv)), written), plain);
    }
}

// Made by: openssl enc -CIPHER -K 000102... -iv a0a1a2... (as many bytes as it takes), the old ciphers with -provider
// legacy -provider default.
struct Foreign {
    Cipher cipher;
    const char* secret;
};
const char* const body = "The body of a mail, of thirty-seven by";
const std::vector<Foreign> foreign{
    {DES_CBC, "5d9ce82461c73e638b3b775a72e91137fc2f5b219cc05d83c0df6711dd0acf42e869a9d99f956756"},
    {DES_EDE3_CBC, "b2ca62d26570f233ed72b6bdd86a4cdd60d844287c8f8ec41a3c00846d201f5e9f7361bb99bdab29"},
    {BF_CBC, "a0f6fcb9d0fcc9dc22038f373fa175d49f06531717312dc6e1e1534aef447dc210fd5c27f47933be"},
    {CAST5_CBC, "f8edd20fdf16230ebf6d6061ce5226ce198e969ddec2c2c1ddab670f0c519f1e85a059f642c9fb48"},
    {AES_128_CBC, "1b073fd4868e4527fbe9b20150e09f9bbd7e6093365358424cfff0c17dce3f885b7cd30250f3a328e7753610b9067a03"},
    {AES_192_CBC, "812b84f875d86473b07e45c9ec9dea323c223cb763a3304e5baafe3c33850939b8e01c12f1e8d77e4f6f51fb83849ce0"},
    {AES_256_CBC, "0e80f586bb053a3bbf03ccd18fe5d424dcfb95731c76854284bf1b148f2ecb1d0a4521177ae18a6e5fd04c22fb9182e9"},
};

TEST(ForeignBodies, AreWrittenAndReadAsOpenSslsProgramDoes) {
    for (const Foreign& one : foreign) {
        const auto facts = std::find_if(allCiphers().begin(), allCiphers().end(),
                                        [&](const Facts& candidate) { return candidate.cipher == one.cipher; });
        SCOPED_TRACE(facts->name);
        EXPECT_EQ(toHex(encrypted(*facts, body)), one.secret);
        EXPECT_EQ(decrypted(*facts, fromHex(one.secret)), body);
    }
}

} // namespace
