#include <norvcmsg/Mutex.h>

#include <gtest/gtest.h>

#include <stdexcept>
#include <thread>
#include <type_traits>
#include <vector>

namespace {

using Norvane::Mutex;
using Norvane::Synchronized;

bool isFree(Mutex& mutex) {
    bool taken = false;
    std::thread([&] {
        taken = mutex.try_lock();
        if (taken) {
            mutex.unlock();
        }
    }).join();
    return taken;
}

TEST(Mutex, IsHeldForTheLengthOfAScope) {
    Mutex mutex;
    EXPECT_TRUE(isFree(mutex));
    {
        const Synchronized guard(mutex);
        EXPECT_FALSE(isFree(mutex));
    }
    EXPECT_TRUE(isFree(mutex));
    {
        const Synchronized guard(&mutex);
        EXPECT_FALSE(isFree(mutex));
    }
    EXPECT_TRUE(isFree(mutex));
}

TEST(Mutex, IsFreeAgainAfterAnException) {
    Mutex mutex;
    EXPECT_THROW(
        {
            const Synchronized guard(mutex);
            throw std::runtime_error("inside");
        },
        std::runtime_error);
    EXPECT_TRUE(isFree(mutex));
}

TEST(Mutex, ANullLockIsNone) {
    EXPECT_NO_THROW(const Synchronized guard(nullptr));
}

TEST(Mutex, CannotBeCopied) {
    EXPECT_FALSE(std::is_copy_constructible_v<Mutex>);
    EXPECT_FALSE(std::is_copy_assignable_v<Mutex>);
    EXPECT_FALSE(std::is_copy_constructible_v<Synchronized>);
    EXPECT_FALSE((std::is_convertible_v<Mutex&, Synchronized>));
}

TEST(Mutex, NeedsNoInitialiserAtStartUp) {
    static constinit Mutex mutex;
    const Synchronized guard(mutex);
    EXPECT_TRUE(std::is_trivially_destructible_v<Mutex>);
}

TEST(MutexConcurrency, LetsOneThreadInAtATime) {
    Mutex mutex;
    int counter = 0;
    std::vector<std::thread> threads;
    threads.reserve(4);
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 5000; ++i) {
                if (t % 2 == 0) {
                    const Synchronized guard(mutex);
                    ++counter;
                } else {
                    const Synchronized guard(&mutex);
                    ++counter;
                }
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(counter, 20'000);
}

} // namespace
