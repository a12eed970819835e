#pragma once

// The eight ciphers as their publications describe them, and one way through the streams for texts.

#include "support/Started.h"
#include "support/Streams.h"

#include <authority/Authority.h>
#include <norvcrypto/Encryption.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace ciphertest {

using Norvane::Buffer;
using Norvane::Crypto::Cipher;
using Norvane::Crypto::DecrypterMediaOut;
using Norvane::Crypto::EncrypterMediaOut;

struct Facts {
    Cipher cipher;
    int number;
    const char* name; ///< OpenSSL's
    unsigned int keyLength;
    unsigned int blockLength;
};

inline const std::vector<Facts>& allCiphers() {
    static const std::vector<Facts> all{{Norvane::Crypto::DES_CBC, 31, "DES-CBC", 8, 8},
                                        {Norvane::Crypto::IDEA_CBC, 34, "IDEA-CBC", 16, 8},
                                        {Norvane::Crypto::DES_EDE3_CBC, 44, "DES-EDE3-CBC", 24, 8},
                                        {Norvane::Crypto::BF_CBC, 91, "BF-CBC", 16, 8},
                                        {Norvane::Crypto::CAST5_CBC, 108, "CAST5-CBC", 16, 8},
                                        {Norvane::Crypto::AES_128_CBC, 419, "AES-128-CBC", 16, 16},
                                        {Norvane::Crypto::AES_192_CBC, 423, "AES-192-CBC", 24, 16},
                                        {Norvane::Crypto::AES_256_CBC, 427, "AES-256-CBC", 32, 16}};
    return all;
}

/// A test that runs once for each cipher.
class EachCipher : public testing::TestWithParam<Facts> {};
inline std::string nameOf(const testing::TestParamInfo<Facts>& info) {
    std::string name = info.param.name;
    std::erase(name, '-');
    return name;
}

inline std::string fromHex(const std::string& hex) {
    const auto bytes = norvauthority::fromHex(hex);
    return {bytes.begin(), bytes.end()};
}
inline std::string toHex(const std::string& bytes) {
    return norvauthority::toHex({bytes.begin(), bytes.end()});
}

/// `length` bytes that do not repeat soon.
inline std::string sampleBytes(std::size_t length) {
    std::string bytes;
    for (unsigned int state = 1; bytes.size() < length;) {
        state = state * 1664525U + 1013904223U;
        bytes += static_cast<char>(state >> 24U);
    }
    return bytes;
}

/// A key and an IV for a cipher: 00 01 02 ... and a0 a1 a2 ...
inline Buffer keyFor(const Facts& facts) {
    return norvtest::bufferOf(
        fromHex("000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f").substr(0, facts.keyLength));
}
inline Buffer ivFor(const Facts& facts) {
    return norvtest::bufferOf(fromHex("a0a1a2a3a4a5a6a7a8a9aaabacadaeaf").substr(0, facts.blockLength));
}

/// `text` through a stream of either kind, in pieces; what the target got.
template <class Stream>
std::string through(Stream stream, const std::string& text, std::size_t piece = ~std::size_t{}) {
    Norvane::MemoryMediaOut target;
    stream.attach(target);
    for (std::size_t at = 0; at < text.size(); at += std::min(piece, text.size() - at)) {
        stream.write(norvtest::bufferOf(text.substr(at, piece)));
    }
    stream.end();
    EXPECT_TRUE(target.ended());
    return norvtest::textOf(target.content());
}

inline std::string encrypted(const Facts& facts, const std::string& text) {
    return through(EncrypterMediaOut(facts.cipher, keyFor(facts), ivFor(facts)), text);
}
inline std::string decrypted(const Facts& facts, const std::string& text) {
    return through(DecrypterMediaOut(facts.cipher, keyFor(facts), ivFor(facts)), text);
}

} // namespace ciphertest
