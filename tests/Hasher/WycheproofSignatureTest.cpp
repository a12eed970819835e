// Published signature vectors, run through the verifier: those that are valid verify, those that are not do not.

#include "support/Places.h"
#include "support/Streams.h"
#include "support/Thrown.h"

#include <norvcrypto/Hasher.h>

#include <nlohmann/json.hpp>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>

namespace {

using Norvane::Crypto::Hasher;
using Norvane::Crypto::Key;
using Norvane::Crypto::RefKey;
using Norvane::Crypto::RefVerifier;

std::string fromHex(const std::string& hex) {
    std::string bytes;
    for (std::size_t i = 0; i + 1 < hex.size(); i += 2) {
        bytes += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
    }
    return bytes;
}

Hasher::Type digestOf(const std::string& name) {
    if (name == "SHA-256") {
        return Hasher::SHA256;
    }
    EXPECT_EQ(name, "SHA-512");
    return Hasher::SHA512;
}

enum class Verdict { good, wrong, refused };

Verdict verdictOn(const RefKey& key, Hasher::Type type, const nlohmann::json& test) {
    RefVerifier verifier(type);
    verifier->verificationKey(key);
    verifier->update(fromHex(test.at("msg")));
    try {
        return verifier->isValid(norvtest::bufferOf(fromHex(test.at("sig")))) ? Verdict::good : Verdict::wrong;
    } catch (const Norvane::Exception&) {
        return Verdict::refused;
    }
}

class Vectors : public testing::TestWithParam<const char*> {};

TEST_P(Vectors, AreJudgedAsPublished) {
    Norvane::Crypto::initialize();
    const auto path = norvtest::samplePath("wycheproof") / GetParam();
    if (!std::filesystem::exists(path)) {
        GTEST_SKIP() << "no vectors at " << path;
    }
    const auto file = nlohmann::json::parse(std::ifstream(path));
    std::size_t count = 0;
    for (const auto& group : file.at("testGroups")) {
        RefKey key(Key::PUBLIC_KEY);
        key->read(norvtest::bufferOf(fromHex(group.at("publicKeyDer"))), false);
        for (const auto& test : group.at("tests")) {
            const Verdict verdict = verdictOn(key, digestOf(group.at("sha")), test);
            const std::string result = test.at("result");
            const auto about = [&] { return "vector " + test.at("tcId").dump() + ": " + test.at("comment").dump(); };
            if (result == "valid") {
                EXPECT_EQ(verdict, Verdict::good) << about();
            } else if (result == "invalid") {
                EXPECT_NE(verdict, Verdict::good) << about();
            } else {
                EXPECT_EQ(result, "acceptable") << about();
            }
            EXPECT_TRUE(norvtest::errorQueueIsEmpty()) << about();
            ++count;
        }
    }
    EXPECT_EQ(count, file.at("numberOfTests").get<std::size_t>());
    EXPECT_GT(count, 200U);
}

INSTANTIATE_TEST_SUITE_P(Rsa, Vectors,
                         testing::Values("rsa_signature_2048_sha256_test.json", "rsa_signature_4096_sha512_test.json"));

} // namespace
