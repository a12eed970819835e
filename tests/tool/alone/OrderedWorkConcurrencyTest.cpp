// Many pieces of work in several threads: told in their order, with few of them waiting, and ended in order by a failure or an
// interrupt.

#include "files/Interrupts.h"
#include "many/OrderedWork.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

using norvcrypt::doInOrder;
using norvcrypt::Exit;
using norvcrypt::Report;

namespace {

constexpr std::size_t count = 2000;
constexpr unsigned int threads = 4;

Report numbered(std::size_t at) {
    return {.exit = at % 7 == 0 ? Exit::refused : Exit::good, .text = std::to_string(at)};
}

TEST(OrderedWorkConcurrencyTest, EachIsDoneOnceAndToldInOrder) {
    for (const unsigned int jobs : {1U, threads, 256U}) {
        std::vector<std::atomic<int>> done(count);
        std::vector<std::string> told;
        doInOrder(
            count, jobs,
            [&](std::size_t at) {
                ++done[at];
                if (at % 5 == 0)
                    std::this_thread::yield();
                return numbered(at);
            },
            [&](const Report& report) {
                EXPECT_EQ(told.size() % 7 == 0 ? Exit::refused : Exit::good, report.exit);
                told.push_back(report.text);
            });
        ASSERT_EQ(count, told.size());
        for (std::size_t at = 0; at != count; ++at) {
            EXPECT_EQ(std::to_string(at), told[at]);
            EXPECT_EQ(1, done[at]);
        }
    }
}

TEST(OrderedWorkConcurrencyTest, NothingIsNothing) {
    doInOrder(
        0, threads, [](std::size_t) -> Report { throw std::logic_error("there is none"); },
        [](const Report&) { FAIL(); });
}

// The first piece ends when no other can begin any more: the others wait for it then, however many there are.
TEST(OrderedWorkConcurrencyTest, WhoIsFarAheadWaits) {
    std::atomic<std::size_t> begun{0};
    std::atomic<std::size_t> told{0};
    std::atomic<std::size_t> most{0};
    doInOrder(
        count, threads,
        [&](std::size_t at) {
            ++begun;
            // All others are begun, or the ring of those that wait is full.
            for (std::size_t before = 0; at == 0 && before != begun;) {
                before = begun;
                std::this_thread::sleep_for(std::chrono::milliseconds(200));
            }
            const std::size_t now = begun; // in this order it is never more than there were at that moment
            const std::size_t ended = told;
            if (now > ended + most)
                most = now - ended;
            return numbered(at);
        },
        [&](const Report&) { ++told; });
    EXPECT_EQ(count, told);
    EXPECT_GE(threads * 16U, most);
    EXPECT_LE(1U, most);
}

TEST(OrderedWorkConcurrencyTest, AFailureEndsIt) {
    for (const unsigned int jobs : {1U, threads}) {
        std::atomic<std::size_t> done{0};
        EXPECT_THROW(doInOrder(
                         count, jobs,
                         [&](std::size_t at) {
                             ++done;
                             return at == 10 ? throw std::runtime_error("no") : numbered(at);
                         },
                         [](const Report&) {}),
                     std::runtime_error);
        EXPECT_GE(200U, done);
        std::size_t told = 0;
        EXPECT_THROW(doInOrder(count, jobs, numbered,
                               [&](const Report&) {
                                   if (++told == 5)
                                       throw std::runtime_error("nobody listens");
                               }),
                     std::runtime_error);
        EXPECT_EQ(5U, told);
    }
}

/// Runs `work` in a process of its own and answers how that ended.
template <class Work> int inAnotherProcess(Work work) {
    const pid_t child = fork();
    if (child == 0) {
        norvcrypt::prepareInterrupts();
        work();
        std::_Exit(0);
    }
    int status = 0;
    EXPECT_EQ(child, waitpid(child, &status, 0));
    return status;
}

std::string temporaryFile() {
    std::string name = (std::filesystem::temp_directory_path() / "norvcrypt.XXXXXX").string();
    const norvcrypt::Uninterrupted hold;
    const int descriptor = mkstemp(name.data());
    close(descriptor);
    EXPECT_TRUE(norvcrypt::rememberTemporary(name));
    return name;
}

TEST(OrderedWorkConcurrencyTest, AnInterruptTakesTheTemporaryFilesAway) {
    const auto folder = std::filesystem::temp_directory_path() / ("ordered-work-" + std::to_string(getpid()));
    ASSERT_TRUE(std::filesystem::create_directory(folder));
    for (const int number : {SIGHUP, SIGINT, SIGTERM}) {
        const int status = inAnotherProcess([&] {
            doInOrder(
                count, threads,
                [&](std::size_t at) {
                    std::ofstream(folder / std::to_string(at)) << temporaryFile();
                    if (at == 100)
                        kill(getpid(), number);
                    if (at >= 100)
                        std::this_thread::sleep_for(std::chrono::seconds(60));
                    return numbered(at);
                },
                [](const Report&) {});
        });
        EXPECT_TRUE(WIFSIGNALED(status)) << status;
        EXPECT_EQ(number, WTERMSIG(status));
        std::size_t begun = 0;
        for (const auto& entry : std::filesystem::directory_iterator(folder)) {
            std::string name;
            std::ifstream(entry.path()) >> name;
            // One that was just being written has none yet.
            EXPECT_TRUE(name.empty() || !std::filesystem::exists(name)) << name;
            std::filesystem::remove(entry.path());
            ++begun;
        }
        EXPECT_LE(90U, begun);
    }
    std::filesystem::remove_all(folder);
}

// Whoever waits may have seen already that all is over.
TEST(OrderedWorkConcurrencyTest, AWakingThatComesLateEndsNothing) {
    const int status = inAnotherProcess([] {
        norvcrypt::SharedInterrupts interrupts;
        std::thread([&] {
            interrupts.wake();
            interrupts.wake();
        }).join();
        interrupts.wait();
    });
    EXPECT_TRUE(WIFEXITED(status)) << status;
}

TEST(OrderedWorkConcurrencyTest, WhatTheCallerIgnoresStaysIgnored) {
    const int status = inAnotherProcess([] {
        static_cast<void>(std::signal(SIGHUP, SIG_IGN));
        doInOrder(
            count, threads,
            [](std::size_t at) {
                if (at == 100)
                    kill(getpid(), SIGHUP);
                return numbered(at);
            },
            [](const Report&) {});
    });
    EXPECT_TRUE(WIFEXITED(status)) << status;
}

} // namespace
