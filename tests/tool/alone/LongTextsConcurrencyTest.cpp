// Structures in long texts, which are taken into memory: one at a time, in however many threads many inputs are worked on.

#include "files/Input.h"
#include "read/StructureFile.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

using norvcrypt::Inputs;
using norvcrypt::StructureFile;

/// Hexadecimal digits of a structure of so many octets.
std::string digitsOf(std::size_t octets) {
    std::string text = "30840000000006092A864886F70D010702";
    const std::size_t content = octets - 6;
    for (int at = 0; at != 8; ++at) {
        text[4 + static_cast<std::size_t>(at)] = "0123456789ABCDEF"[content >> (28 - 4 * at) & 15U];
    }
    return text + std::string(2 * octets - text.size(), '0') + "\n";
}

class LongTextsConcurrencyTest : public testing::Test {
protected:
    /// How many of `threads` are at work at a time, at the most.
    int mostAtWork(const std::string& text, int threads) {
        m_folder.write("text", text);
        std::atomic<int> atWork{0};
        std::atomic<int> most{0};
        std::atomic<int> ready{0};
        const auto work = [&] {
            Inputs own(&m_shared);
            ++ready;
            while (ready != threads) {
                std::this_thread::yield();
            }
            const StructureFile file(own, m_folder.path("text"));
            const int now = ++atWork;
            for (int before = most; before < now && !most.compare_exchange_weak(before, now);) {
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            --atWork;
        };
        std::vector<std::future<void>> all;
        for (int at = 0; at != threads; ++at) {
            all.push_back(std::async(std::launch::async, work));
        }
        for (std::future<void>& one : all) {
            one.get();
        }
        return most;
    }

    norvtest::TemporaryFolder m_folder;
    Inputs m_shared;
};

TEST_F(LongTextsConcurrencyTest, OneIsInMemoryAtATime) {
    EXPECT_EQ(mostAtWork(digitsOf(700000), 4), 1);
}

TEST_F(LongTextsConcurrencyTest, OneThreadMayHaveSeveral) {
    m_folder.write("text", digitsOf(700000));
    Inputs own(&m_shared);
    const auto one = std::make_unique<StructureFile>(own, m_folder.path("text"));
    const auto other = std::make_unique<StructureFile>(own, m_folder.path("text"));
    EXPECT_EQ(one->contentType().name, "pkcs7-signedData");
    EXPECT_EQ(other->contentType().name, "pkcs7-signedData");
}

TEST_F(LongTextsConcurrencyTest, ShortOnesAndThoseOfOneInputWaitForNobody) {
    const std::string text = digitsOf(700000);
    m_folder.write("long", text);
    m_folder.write("text", digitsOf(1000));
    Inputs own(&m_shared);
    const StructureFile holding(own, m_folder.path("long"));
    // They would wait for ever.
    std::async(std::launch::async, [&] {
        Inputs others(&m_shared);
        const StructureFile brief(others, m_folder.path("text"));
        Inputs single;
        const StructureFile alone(single, m_folder.path("long"));
    }).get();
}

} // namespace
