// Connections beside each other, and beside a reload.
#include "milter/support/FrontBench.h"
#include "support/Threads.h"

#include <atomic>
#include <chrono>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>
#include <thread>

using namespace norvmilter;
using norvtest::Asking;
using norvtest::FrontBench;
using testing::HasSubstr;

TEST(MilterFrontConcurrency, ConnectionsWhileAllIsLoadedAnew) {
    FrontBench bench([](const auto& message, const auto&) {
        Outcome outcome;
        outcome.tell("direction", message.envelope.recipients.empty() ? "outgoing" : "incoming");
        return outcome;
    });
    bench.front();
    norvtest::together([&](int thread) {
        for (int i = 0; i < 20; ++i) {
            if (thread == 0) {
                bench.front().use(std::make_shared<const Generation>(bench.generation));
                static_cast<void>(bench.metrics.text());
                static_cast<void>(bench.front().isDrained());
                continue;
            }
            Asking asking(bench);
            asking.negotiate();
            asking.connect();
            asking.message();
            EXPECT_EQ(SMFIS_CONTINUE, asking.end());
        }
    });
    EXPECT_EQ(0U, bench.front().inHand());
    EXPECT_THAT(bench.metrics.text(),
                HasSubstr("norvcrypt_milter_messages_total{direction=\"incoming\",outcome=\"pass\"} 140\n"));
}

// Nobody joins libmilter's threads, and OpenSSL ends what it holds for a thread only while the process does not end.
TEST(MilterFrontConcurrency, ThreadsThatEndAreWaitedFor) {
    FrontBench bench([](const auto&, const auto&) { return Outcome(); });
    bench.front();
    std::atomic<bool> hasCalled{false};
    std::atomic<bool> hasEnded{false};
    std::thread([&] {
        {
            Asking asking(bench);
            asking.negotiate();
        }
        hasCalled = true;
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        hasEnded = true;
    }).detach();
    while (!hasCalled)
        std::this_thread::yield();
    norvmilter::awaitThreads(std::chrono::seconds(10));
    EXPECT_TRUE(hasEnded);
}
