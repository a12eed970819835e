// The locks for OpenSSL's old hooks, which the library keeps to itself: compiled into this program.

#include "openssl/Locking.h"

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <thread>
#include <vector>

using Norvane::Crypto::openssl::LockTable;

namespace {

/// Tables are never destroyed, and neither is what keeps them within reach.
LockTable& table(std::size_t count) {
    static auto& all = *new std::vector<LockTable*>;
    all.push_back(new LockTable(count));
    return *all.back();
}

TEST(LockTableConcurrency, BitZeroLocksAndAnyOtherModeUnlocks) {
    constexpr int lock = 1;
    constexpr int unlock = 2;
    constexpr int forReading = 4;
    LockTable& locks = table(3);
    long counted = 0; // guarded by lock 2
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 8; ++thread) {
        threads.emplace_back([&, thread] {
            const int kind = thread % 2 == 0 ? forReading : 0; // readers exclude each other as well
            for (int i = 0; i < 1000; ++i) {
                locks.change(lock | kind, 2);
                ++counted;
                locks.change(unlock | kind, 2);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(8000, counted);
}

TEST(LockTable, WhoHoldsALockKeepsOthersOut) {
    LockTable& locks = table(1);
    locks.change(1, 0);
    std::promise<void> taken;
    std::future<void> isTaken = taken.get_future();
    std::thread other([&] {
        locks.change(1, 0);
        taken.set_value();
        locks.change(2, 0);
    });
    EXPECT_EQ(std::future_status::timeout, isTaken.wait_for(std::chrono::milliseconds(100)));
    locks.change(2, 0);
    EXPECT_EQ(std::future_status::ready, isTaken.wait_for(std::chrono::seconds(60)));
    other.join();
}

TEST(LockTable, WhoHoldsOneLockKeepsNobodyFromAnother) {
    LockTable& locks = table(2);
    locks.change(1, 0);
    std::promise<void> taken;
    std::thread other([&] {
        locks.change(1, 1);
        taken.set_value();
        locks.change(2, 1);
    });
    EXPECT_EQ(std::future_status::ready, taken.get_future().wait_for(std::chrono::seconds(10)));
    locks.change(2, 0);
    other.join();
}

// LeakSanitizer tells when an earlier table is out of reach.
TEST(LockTable, MayBeInstalledAgainAndAgain) {
    Norvane::Crypto::openssl::installLocking();
    Norvane::Crypto::openssl::installLocking();
}

} // namespace
