#pragma once

/// \file
/// The process that signals go to. It has one worker, which does everything else, and starts it anew when it ends.
///
/// The worker runs libmilter, which has signals of its own: SIGHUP would end it. So this process takes them all and tells the worker in
/// words.
///
///     SIGHUP           "reload"
///     SIGTERM, SIGINT  "stop"; the second one ends the worker at once
///
/// and the worker says "ready", "failed WHY", "reloaded", "reload-failed WHY" and, when asked with "ping", "pong"; before it is ready, and when
/// that changes, "stop-timeout SECONDS": how long it takes to stop at most.

#include "daemon/Channel.h"
#include "daemon/Log.h"

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <sys/types.h>

namespace norvmilter {

class Supervisor {
public:
    using Clock = std::chrono::steady_clock;
    using Milliseconds = std::chrono::milliseconds;

    struct Times {
        Milliseconds firstPause{100}; ///< between the end of a worker and the next; doubled each time
        Milliseconds longestPause{30000};
        Milliseconds steady{60000}; ///< a worker that ran so long makes the pause the first one again
        Milliseconds ping{10000};
        Milliseconds silence{90000}; ///< a worker that does not answer so long is ended
        Milliseconds stop{60000};    ///< what a worker takes to stop that does not say it
        Milliseconds beyond{10000};  ///< one that was told to stop is ended so long after it should have
    };
    /// What the worker does in its process, which ends with what this returns. \param restarts how many there were before
    using Work = std::function<int(Channel channel, unsigned long restarts)>;
    struct Hooks {
        std::function<void()> ready = [] {};                                        ///< the first worker takes mail
        std::function<void(const std::string&)> failed = [](const std::string&) {}; ///< it never did
    };

    Supervisor(Log& log, Work work, Times times, Hooks hooks);
    Supervisor(const Supervisor&) = delete;
    Supervisor& operator=(const Supervisor&) = delete;
    ~Supervisor() = default;

    /// Until it is told to stop: 0. 1: the first worker could not start. There must be no other threads.
    [[nodiscard]] int run();

private:
    void start();
    void stop();
    void takeSignals();
    void hear();
    void heard(const std::string& text);
    void reap();
    void lookAtTimes();
    [[nodiscard]] int untilNext() const;
    void end(const char* reason);

    Log& m_log;
    Work m_work;
    Times m_times;
    Hooks m_hooks;
    Descriptor m_signals;
    std::optional<Channel> m_channel;
    pid_t m_worker = -1;
    unsigned long m_starts = 0;
    bool m_wasReady = false; // any worker
    bool m_isReady = false;  // this one
    bool m_isReloadWanted = false;
    bool m_isStopping = false;
    std::optional<int> m_result;
    std::string m_failure;
    Milliseconds m_pause;
    Clock::time_point m_startedAt;
    Clock::time_point m_heardAt;
    Clock::time_point m_pingAt;
    Clock::time_point m_aliveAt;
    Clock::time_point m_startAt;
    Clock::time_point m_killAt = Clock::time_point::max();
};

} // namespace norvmilter
