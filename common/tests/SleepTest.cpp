#include <norvcmsg/Sleep.h>

#include <unistd.h> // together with the system's own sleep and pause

#include <pthread.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <thread>

namespace {

using Clock = std::chrono::steady_clock;

TEST(Sleep, LastsAtLeastItsTime) {
    const auto start = Clock::now();
    Norvane::pause(0, 3);
    EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(3));
    Norvane::pause(0, 0);
}

TEST(Sleep, TakesMoreThanAThousandMilliseconds) {
    const auto start = Clock::now();
    Norvane::pause(0, 1001);
    EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(1001));
}

TEST(Sleep, SignalsDoNotCutItShort) {
    struct sigaction action {};
    action.sa_handler = [](int) {};
    struct sigaction before {};
    ASSERT_EQ(::sigaction(SIGUSR1, &action, &before), 0);
    std::atomic<bool> done{false};
    const auto sleeper = ::pthread_self();
    std::thread disturber([&] {
        while (!done) {
            ::pthread_kill(sleeper, SIGUSR1);
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    });
    const auto start = Clock::now();
    Norvane::pause(0, 50);
    EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(50));
    done = true;
    disturber.join();
    ::sigaction(SIGUSR1, &before, nullptr);
}

} // namespace
