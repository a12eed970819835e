#pragma once

// Eight threads that do the same at the same time, among themselves or beside something else.

#include <openssl/err.h>

#include <atomic>
#include <thread>
#include <vector>

namespace norvtest {

inline constexpr int threadCount = 8;

inline void waitForAll(std::atomic<int>& missing) {
    --missing;
    while (missing > 0) {
        std::this_thread::yield();
    }
}

/// Runs `work` in eight threads that start together and end together: OpenSSL locks at a thread's first call and at its
/// end, which would put the work of a thread that ended early in order with that of a late one, and hide their races.
template <class Work> void together(Work work) {
    std::atomic<int> starting{threadCount};
    std::atomic<int> working{threadCount};
    std::vector<std::thread> threads;
    for (int i = 0; i < threadCount; ++i) {
        threads.emplace_back([&, i] {
            ERR_clear_error();
            waitForAll(starting);
            work(i);
            waitForAll(working);
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
}

/// Runs `work` in eight threads, again and again, until `main` is through and each thread had a turn.
template <class Work, class Main> void beside(Work work, Main main) {
    std::atomic<bool> over{false};
    std::atomic<int> waiting{threadCount};
    std::vector<std::thread> threads;
    for (int i = 0; i < threadCount; ++i) {
        threads.emplace_back([&] {
            work();
            --waiting;
            while (!over) {
                work();
            }
        });
    }
    while (waiting > 0) {
        std::this_thread::yield();
    }
    main();
    over = true;
    for (auto& thread : threads) {
        thread.join();
    }
}

} // namespace norvtest
