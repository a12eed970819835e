// Memory that is gone while a message comes in. The program has an allocator of its own, which fails when it is told to.
#include "front/Progress.h"
#include "milter/support/FrontBench.h"

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <gtest/gtest.h>
#include <new>
#include <thread>

using namespace norvmilter;
using norvtest::Asking;
using norvtest::FrontBench;

namespace {

thread_local bool isMemoryGone = false;
thread_local bool isSpared = false;
std::atomic<bool> isMemoryGoneForOthers{false}; ///< for threads that are not spared
std::atomic<int> refusals{0};

void* allocate(std::size_t size) {
    const bool isGone = isMemoryGone || (isMemoryGoneForOthers && !isSpared);
    void* memory = isGone ? nullptr : std::malloc(size == 0 ? 1 : size);
    if (memory == nullptr) {
        ++refusals;
        throw std::bad_alloc();
    }
    return memory;
}

/// True as soon as `isIt`; false after a minute.
template <class Condition> bool waitUntil(Condition isIt) {
    for (int waited = 0; waited < 12000 && !isIt(); ++waited)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    return isIt();
}

/// While it is there no memory is to be had.
struct NoMemory {
    NoMemory() { isMemoryGone = true; }
    NoMemory(const NoMemory&) = delete;
    NoMemory& operator=(const NoMemory&) = delete;
    ~NoMemory() { isMemoryGone = false; }
};

/// How a message ends of which a part came while there was no memory, and how the next one does.
template <class Part> void expectPutOff(Part part, const FrontLimits& limits = {}) {
    int judged = 0;
    FrontBench bench(norvtest::counting(judged), limits);
    Asking asking(bench);
    asking.negotiate();
    asking.connect();
    asking.message();
    part(asking);
    EXPECT_EQ(SMFIS_TEMPFAIL, asking.end());
    EXPECT_EQ(0, judged) << "a part of it is missing";
    asking.message();
    EXPECT_EQ(SMFIS_CONTINUE, asking.end());
    EXPECT_EQ(1, judged);
}

} // namespace

void* operator new(std::size_t size) {
    return allocate(size);
}
void* operator new[](std::size_t size) {
    return allocate(size);
}
void operator delete(void* memory) noexcept {
    std::free(memory);
}
void operator delete[](void* memory) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::size_t /*size*/) noexcept {
    std::free(memory);
}
void operator delete[](void* memory, std::size_t /*size*/) noexcept {
    std::free(memory);
}

// Neither a field of the header nor a piece of the body may be left out of what is judged, not even when there is no memory to
// say so.
TEST(MilterFrontMemory, AFieldThatWasLostPutsTheMessageOff) {
    expectPutOff([](Asking& asking) {
        // Made outside: the texts are libmilter's.
        std::string name = "Authentication-Results";
        std::string value = " " + std::string(1000, 'x');
        const NoMemory none;
        EXPECT_EQ(SMFIS_NOREPLY, asking.header(std::move(name), std::move(value)));
    });
}

TEST(MilterFrontMemory, APieceThatWasLostPutsTheMessageOff) {
    FrontLimits limits;
    limits.spool = "/nonexistent/spool";
    expectPutOff(
        [](Asking& asking) {
            std::string piece(200000, 'x');
            const NoMemory none;
            EXPECT_EQ(SMFIS_CONTINUE, asking.body(std::move(piece)));
        },
        limits);
}

TEST(MilterFrontMemory, ARecipientThatWasLostPutsTheMessageOff) {
    expectPutOff([](Asking& asking) {
        std::string path = "<" + std::string(100, 'x') + "@b.example>";
        asking.context.macros["i"] = std::string(100, 'q');
        const NoMemory none;
        EXPECT_EQ(SMFIS_TEMPFAIL, asking.recipient(std::move(path)));
    });
}

// A note less, and not the end of the worker with all messages that it has in hand.
TEST(MilterFrontMemory, AThreadThatThereIsNoMemoryForIsOneNoteLess) {
    isSpared = true;
    Progress progress(std::chrono::milliseconds(1));
    std::atomic<int> told{0};
    refusals = 0;
    isMemoryGoneForOthers = true;
    const Progress::Task task(progress, [&] { ++told; });
    EXPECT_TRUE(waitUntil([] { return refusals >= 3; }));
    EXPECT_EQ(0, told);
    isMemoryGoneForOthers = false;
    EXPECT_TRUE(waitUntil([&] { return told >= 1; }));
}
