// What the library keeps to itself around TLS: SIGPIPE kept from a thread, and the locks for OpenSSL's old hooks. Both are
// compiled into this program.

#include "openssl/Locking.h"
#include "openssl/SigpipeGuard.h"

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <thread>
#include <vector>

using Norvane::Crypto::openssl::LockTable;
using Norvane::Crypto::openssl::SigpipeGuard;

namespace {

sigset_t onlySigpipe() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGPIPE);
    return set;
}

bool isBlocked() {
    sigset_t now;
    pthread_sigmask(SIG_SETMASK, nullptr, &now);
    return sigismember(&now, SIGPIPE) == 1;
}

bool isPending() {
    sigset_t now;
    sigpending(&now);
    return sigismember(&now, SIGPIPE) == 1;
}

/// Writes to a socket whose other end is closed.
void writeToNobody() {
    int ends[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, ends));
    close(ends[1]);
    EXPECT_EQ(-1, write(ends[0], "x", 1));
    EXPECT_EQ(EPIPE, errno);
    close(ends[0]);
}

std::atomic<int> s_delivered{0};
void countSignal(int) {
    ++s_delivered;
}

/// With a handler of the program's own; the thread's mask and what is pending are put back.
class SigpipeGuardTest : public testing::Test {
protected:
    void SetUp() override {
        struct sigaction action {};
        action.sa_handler = countSignal;
        sigaction(SIGPIPE, &action, nullptr);
        s_delivered = 0;
    }
    void TearDown() override {
        const sigset_t pipe = onlySigpipe();
        pthread_sigmask(SIG_UNBLOCK, &pipe, nullptr);
        EXPECT_FALSE(isPending());
    }
};

TEST_F(SigpipeGuardTest, WithoutTheGuardAWriteRaisesIt) {
    writeToNobody();
    EXPECT_EQ(1, s_delivered);
}

TEST_F(SigpipeGuardTest, WhatAWriteRaisedIsConsumed) {
    {
        const SigpipeGuard guard;
        EXPECT_TRUE(isBlocked());
        writeToNobody();
        writeToNobody();
        EXPECT_TRUE(isPending());
    }
    EXPECT_FALSE(isBlocked());
    EXPECT_FALSE(isPending());
    EXPECT_EQ(0, s_delivered);
}

TEST_F(SigpipeGuardTest, GuardsNest) {
    {
        const SigpipeGuard outer;
        {
            const SigpipeGuard inner;
            writeToNobody();
        }
        EXPECT_TRUE(isBlocked());
        EXPECT_FALSE(isPending());
    }
    EXPECT_FALSE(isBlocked());
    EXPECT_EQ(0, s_delivered);
}

TEST_F(SigpipeGuardTest, OneThatWasPendingBeforeStays) {
    const sigset_t pipe = onlySigpipe();
    pthread_sigmask(SIG_BLOCK, &pipe, nullptr);
    raise(SIGPIPE);
    {
        const SigpipeGuard guard;
        writeToNobody();
    }
    EXPECT_TRUE(isBlocked()) << "the caller's own mask";
    EXPECT_TRUE(isPending());
    EXPECT_EQ(0, s_delivered);
    pthread_sigmask(SIG_UNBLOCK, &pipe, nullptr);
    EXPECT_EQ(1, s_delivered);
}

TEST_F(SigpipeGuardTest, OneThatAnotherProcessSentMeanwhileIsDelivered) {
    {
        const SigpipeGuard guard;
        const pid_t child = fork();
        if (child == 0) {
            kill(getppid(), SIGPIPE);
            _exit(0);
        }
        ASSERT_EQ(child, waitpid(child, nullptr, 0));
        EXPECT_TRUE(isPending());
    }
    EXPECT_EQ(1, s_delivered);
}

TEST_F(SigpipeGuardTest, ErrnoIsLeftAsItWas) {
    {
        errno = ECONNRESET;
        const SigpipeGuard guard;
        EXPECT_EQ(ECONNRESET, errno);
    }
    EXPECT_EQ(ECONNRESET, errno);
}

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

TEST(LockTable, LocksAreIndependent) {
    LockTable& locks = table(2);
    locks.change(1, 0);
    locks.change(1, 1);
    locks.change(2, 0);
    locks.change(1, 0);
    locks.change(0, 0);
    locks.change(0, 1);
}

TEST(LockTable, MayBeInstalledAgainAndAgain) {
    Norvane::Crypto::openssl::installLocking();
    Norvane::Crypto::openssl::installLocking();
}

} // namespace
