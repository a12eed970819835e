// Several threads, each with streams of its own, IDEA among the ciphers.

#include "support/Ciphers.h"

#include <openssl/err.h>

#include <atomic>
#include <set>
#include <thread>

using namespace ciphertest;
using namespace Norvane::Crypto;

namespace {

constexpr int threadCount = 8;

/// Runs `work` in eight threads that start together; their results.
template <class Work> std::vector<std::string> together(Work work) {
    std::atomic<int> starting{threadCount};
    std::vector<std::string> results(threadCount);
    std::vector<std::thread> threads;
    for (int i = 0; i < threadCount; ++i) {
        threads.emplace_back([&, i] {
            --starting;
            while (starting > 0) {
                std::this_thread::yield();
            }
            results[static_cast<std::size_t>(i)] = work(i);
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    return results;
}

TEST(EncryptionConcurrency, EachThreadHasItsOwnStreams) {
    for (const Facts& facts : allCiphers()) {
        const auto bodies = together([&facts](int thread) {
            const std::string body = sampleBytes(3000 + static_cast<std::size_t>(thread));
            std::string secret;
            for (int round = 0; round < 5; ++round) {
                secret = through(EncrypterMediaOut(facts.cipher, keyFor(facts), ivFor(facts)), body, 333);
            }
            return through(DecrypterMediaOut(facts.cipher, keyFor(facts), ivFor(facts)), secret, 97);
        });
        for (std::size_t i = 0; i < bodies.size(); ++i) {
            EXPECT_EQ(bodies[i], sampleBytes(3000 + i)) << facts.name;
        }
    }
}

TEST(EncryptionConcurrency, AllCiphersAtOnceDoNotDisturbEachOther) {
    const auto results = together([](int thread) {
        const Facts& facts = allCiphers()[static_cast<std::size_t>(thread)];
        return encrypted(facts, sampleBytes(5000));
    });
    for (std::size_t i = 0; i < results.size(); ++i) {
        EXPECT_EQ(results[i], encrypted(allCiphers()[i], sampleBytes(5000)));
    }
}

TEST(EncryptionConcurrency, DescriptionsAreTheSameInEveryThread) {
    for (const Facts& facts : allCiphers()) {
        const auto answers = together(
            [&facts](int) { return std::to_string(reinterpret_cast<std::uintptr_t>(initializeCipher(facts.cipher))); });
        EXPECT_EQ(std::set<std::string>(answers.begin(), answers.end()).size(), 1U);
    }
}

TEST(EncryptionConcurrency, VectorsDiffer) {
    const auto vectors = together([](int) { return norvtest::textOf(IntializationVectorGenerator::generateIV(16)); });
    EXPECT_EQ(std::set<std::string>(vectors.begin(), vectors.end()).size(), vectors.size());
}

} // namespace
