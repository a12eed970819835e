// What is told of messages that take their time.
#include "front/Progress.h"

#include <atomic>
#include <chrono>
#include <gtest/gtest.h>
#include <thread>

using norvmilter::Progress;
using std::chrono::milliseconds;

namespace {

/// True as soon as `isIt`; false after a minute.
template <class Condition> bool waitUntil(Condition isIt) {
    for (int waited = 0; waited < 12000 && !isIt(); ++waited)
        std::this_thread::sleep_for(milliseconds(5));
    return isIt();
}

} // namespace

// An MTA that does not read keeps the call waiting as long as libmilter waits for it.
TEST(MilterProgress, OneThatDoesNotReadKeepsNobodyElseWaiting) {
    Progress progress(milliseconds(1));
    std::atomic<bool> isBlocked{false};
    std::atomic<bool> isRead{false};
    std::atomic<int> calls{0};
    const Progress::Task blocked(progress, [&] {
        if (++calls > 1)
            return;
        isBlocked = true;
        waitUntil([&] { return isRead.load(); });
        isBlocked = false;
    });
    ASSERT_TRUE(waitUntil([&] { return isBlocked.load(); }));
    {
        std::atomic<int> told{0};
        const Progress::Task other(progress, [&] { ++told; });
        EXPECT_TRUE(waitUntil([&] { return told >= 2; })) << "it is told of as well";
    }
    EXPECT_GT(progress.longest(), milliseconds(0)) << "the watchdog gets its answer";
    EXPECT_TRUE(isBlocked) << "all of this happened meanwhile";
    isRead = true;
}

TEST(MilterProgress, NobodyIsToldOfOnceItIsOver) {
    Progress progress(milliseconds(1));
    for (int i = 0; i < 50; ++i) {
        std::atomic<int> telling{0};
        std::atomic<int> told{0};
        {
            const Progress::Task task(progress, [&] {
                EXPECT_EQ(1, ++telling) << "one at a time";
                std::this_thread::sleep_for(milliseconds(2));
                --telling;
                ++told;
            });
            ASSERT_TRUE(waitUntil([&] { return told >= 1; }));
        }
        EXPECT_EQ(0, telling) << "the call is over when the task is";
    }
    EXPECT_EQ(Progress::Clock::duration::zero(), progress.longest());
}

TEST(MilterProgress, WhatIsAllowedMoreCountsFromThenOn) {
    Progress progress(milliseconds(1));
    const Progress::Task patient(
        progress, [] {}, std::chrono::hours(1));
    std::this_thread::sleep_for(milliseconds(2));
    EXPECT_EQ(Progress::Clock::duration::zero(), progress.longest());
    {
        const Progress::Task brief(
            progress, [] {}, milliseconds(1));
        const Progress::Task other(progress, [] {});
        EXPECT_TRUE(waitUntil([&] { return progress.longest() > milliseconds(5); })) << "whoever began before it";
    }
    EXPECT_EQ(Progress::Clock::duration::zero(), progress.longest());
    const Progress::Task over(
        progress, [] {}, milliseconds(1));
    EXPECT_TRUE(waitUntil([&] { return progress.longest() > milliseconds(0); }));
}
