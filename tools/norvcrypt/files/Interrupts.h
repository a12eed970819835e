#pragma once

/// \file
/// Interrupts (SIGHUP, SIGINT, SIGTERM), and the temporary files with a name that none of them leaves behind.

#include <atomic>
#include <csignal>
#include <cstddef>
#include <mutex>
#include <optional>
#include <pthread.h>
#include <string>

namespace norvcrypt {

/// Has an interrupt take the temporary files away before it ends the process. Those that the caller ignores (nohup) stay
/// ignored. For a process with one thread; with several, `SharedInterrupts` as well.
void prepareInterrupts();

/// Holds back the interrupts while a temporary file is made, renamed or taken away.
class Uninterrupted {
public:
    Uninterrupted();
    ~Uninterrupted();
    Uninterrupted(const Uninterrupted&) = delete;
    Uninterrupted& operator=(const Uninterrupted&) = delete;

private:
    std::unique_lock<std::mutex> m_lock; ///< of all threads
    sigset_t m_before{};
};

/// The most threads that may write files at a time.
constexpr std::size_t mostWriters = 256;

/// Remembers the name of a temporary file; nothing when there are too many. Call it, and `forgetTemporary`, while
/// `Uninterrupted`.
std::optional<std::size_t> rememberTemporary(const std::string& name);
void forgetTemporary(std::size_t slot);

/// Interrupts while several threads write files: this thread alone gets them. Made before the others start, which inherit
/// that they get none.
class SharedInterrupts {
public:
    SharedInterrupts();
    /// No thread calls `wake` any more.
    ~SharedInterrupts();
    SharedInterrupts(const SharedInterrupts&) = delete;
    SharedInterrupts& operator=(const SharedInterrupts&) = delete;

    /// Waits in the thread that made this until another one calls `wake`. An interrupt meanwhile takes the temporary files
    /// away, after whoever is just naming one, and ends the process as it would have without us.
    void wait() const;
    void wake();

private:
    pthread_t m_waiting;
    std::atomic<bool> m_over{false};
    sigset_t m_awaited{};
    sigset_t m_before{};
};

} // namespace norvcrypt
