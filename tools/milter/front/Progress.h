#pragma once

/// \file
/// Tells the MTA from time to time that a message is still worked on, so that it does not give up.
///
/// \code
/// Progress progress(std::chrono::seconds(10));
/// const Progress::Task task(progress, [context] { smfi_progress(context); });
/// ... // long work
/// \endcode

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <list>
#include <mutex>
#include <thread>

namespace norvmilter {

/// One thread for all messages, and one more for each that tells at the moment: an MTA that does not read what it is told keeps
/// nobody waiting but its own message. Any number of threads may have tasks.
class Progress {
public:
    using Clock = std::chrono::steady_clock;

    /// \param every the time between two calls for a task
    explicit Progress(Clock::duration every = std::chrono::seconds(10));
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;
    /// No task is left by then.
    ~Progress();

    class Task {
    public:
        /// \param tell is called from a thread of `progress`, by one at a time, never once this object is gone; it may take its
        /// time, and throws nothing \param allowed what it may take beyond any other task
        Task(Progress& progress, std::function<void()> tell, Clock::duration allowed = Clock::duration::zero());
        Task(const Task&) = delete;
        Task& operator=(const Task&) = delete;
        /// Waits for `tell`, if it is being called.
        ~Task();

    private:
        friend class Progress;
        void tellFrom(Clock::time_point now);

        Progress& m_progress;
        std::function<void()> m_tell;
        Clock::time_point m_counts; // from then on
        Clock::time_point m_next;
        std::atomic<bool> m_isTelling{false};
        std::thread m_telling;
        std::list<Task*>::iterator m_place;
    };

    /// How long the oldest task has been there, beyond what it was allowed; 0 without any.
    [[nodiscard]] Clock::duration longest() const;

private:
    void run();

    const Clock::duration m_every;
    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    std::list<Task*> m_tasks;
    bool m_ending = false;
    std::thread m_thread;
};

} // namespace norvmilter
