#include "daemon/Supervisor.h"

#include "daemon/Notify.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <poll.h>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <system_error>
#include <utility>

namespace norvmilter {

namespace {

/// How a process ended, for people.
std::string endOf(int status) {
    if (WIFSIGNALED(status))
        return std::string("signal ") + std::to_string(WTERMSIG(status)) + " (" + ::strsignal(WTERMSIG(status)) + ')';
    return "exit " + std::to_string(WEXITSTATUS(status));
}

} // namespace

Supervisor::Supervisor(Log& log, Work work, Times times, Hooks hooks)
    : m_log(log),
      m_work(std::move(work)),
      m_times(times),
      m_hooks(std::move(hooks)),
      m_pause(times.firstPause) {}

int Supervisor::run() {
    sigset_t mine;
    ::sigemptyset(&mine);
    for (const int number : {SIGHUP, SIGTERM, SIGINT, SIGCHLD})
        ::sigaddset(&mine, number);
    // Blocked in the worker, too: libmilter waits for them there.
    ::sigprocmask(SIG_BLOCK, &mine, nullptr);
    m_signals = Descriptor(::signalfd(-1, &mine, SFD_CLOEXEC | SFD_NONBLOCK));
    if (!m_signals)
        throw std::system_error(errno, std::generic_category(), "signalfd");
    start();
    while (!m_result) {
        std::array<pollfd, 2> waiting{
            {{m_signals.get(), POLLIN, 0}, {m_channel ? m_channel->descriptor() : -1, POLLIN, 0}}};
        ::poll(waiting.data(), waiting.size(), untilNext());
        hear();
        takeSignals();
        if (!m_result)
            lookAtTimes();
    }
    return *m_result;
}

void Supervisor::start() {
    auto [mine, workers] = Channel::make();
    const unsigned long restarts = m_starts++;
    m_worker = ::fork();
    if (m_worker == 0) {
        mine = Channel(Descriptor());
        m_channel.reset();
        m_signals.close();
        // What is typed at the terminal is for the supervisor.
        ::setpgid(0, 0);
        std::exit(m_work(std::move(workers), restarts));
    }
    const Clock::time_point now = Clock::now();
    m_isReady = false;
    m_startedAt = now;
    m_heardAt = now;
    m_pingAt = now + m_times.ping;
    if (m_worker < 0) {
        end(::strerror(errno));
        return;
    }
    m_channel.emplace(std::move(mine));
    m_log.event(LogLevel::debug, "worker-started",
                {{"pid", std::to_string(m_worker)}, {"restarts", std::to_string(restarts)}});
}

void Supervisor::takeSignals() {
    signalfd_siginfo one{};
    while (::read(m_signals.get(), &one, sizeof one) == sizeof one) {
        switch (one.ssi_signo) {
        case SIGHUP:
            // One that is only starting may have read everything already: it is told when it is ready.
            m_isReloadWanted = !(m_channel && m_isReady && m_channel->tell("reload"));
            break;
        case SIGCHLD:
            reap();
            break;
        default:
            stop();
        }
    }
}

void Supervisor::stop() {
    if (m_isStopping && m_worker > 0)
        ::kill(m_worker, SIGKILL);
    if (m_isStopping)
        return;
    m_isStopping = true;
    notifyManager("STOPPING=1");
    const Milliseconds most = m_times.stop + m_times.beyond;
    m_log.event(LogLevel::info, "stopping",
                {{"seconds", std::to_string(std::chrono::ceil<std::chrono::seconds>(most).count())}});
    if (m_worker <= 0) {
        m_result = 0;
        return;
    }
    m_killAt = Clock::now() + most;
    // One that is only starting has nothing in hand.
    if (!m_isReady || !m_channel || !m_channel->tell("stop"))
        ::kill(m_worker, SIGKILL);
}

void Supervisor::hear() {
    while (m_channel) {
        const std::optional<std::string> text = m_channel->hear();
        if (!text)
            m_channel.reset();
        else if (text->empty())
            return;
        else
            heard(*text);
    }
}

void Supervisor::heard(const std::string& text) {
    m_heardAt = Clock::now();
    const std::string word = text.substr(0, text.find(' '));
    if (word == "ready") {
        m_isReady = true;
        notifyManager("READY=1\nSTATUS=takes mail");
        if (std::exchange(m_isReloadWanted, false))
            m_channel->tell("reload");
        if (!std::exchange(m_wasReady, true))
            m_hooks.ready();
    } else if (word == "failed") {
        m_failure = text.substr(std::min(text.size(), word.size() + 1));
    } else if (word == "stop-timeout") {
        m_times.stop = std::chrono::seconds(std::strtoul(text.c_str() + word.size(), nullptr, 10));
    } else if (word == "reloaded" || word == "reload-failed") {
        notifyManager("STATUS=takes mail; last reload: " + std::string(word == "reloaded" ? "good" : "failed"));
    }
}

void Supervisor::reap() {
    int status = 0;
    if (m_worker <= 0 || ::waitpid(m_worker, &status, WNOHANG) != m_worker)
        return;
    hear(); // its last words
    m_worker = -1;
    m_channel.reset();
    if (m_isStopping) {
        m_log.event(LogLevel::info, "stopped", {{"worker", endOf(status)}});
        m_result = 0;
        return;
    }
    end(m_failure.empty() ? endOf(status).c_str() : m_failure.c_str());
    m_failure.clear();
}

void Supervisor::end(const char* reason) {
    if (!m_wasReady) {
        m_log.event(LogLevel::error, "start-failed", {{"reason", reason}});
        m_hooks.failed(reason);
        m_result = 1;
        return;
    }
    const Clock::time_point now = Clock::now();
    if (now - m_startedAt >= m_times.steady)
        m_pause = m_times.firstPause;
    m_startAt = now + m_pause;
    m_log.event(
        LogLevel::error, "worker-ended",
        {{"reason", reason}, {"pause_ms", std::to_string(m_pause.count())}, {"starts", std::to_string(m_starts)}});
    notifyManager("STATUS=the worker ended; it is started anew");
    m_pause = std::min(m_pause * 2, m_times.longestPause);
}

void Supervisor::lookAtTimes() {
    const Clock::time_point now = Clock::now();
    // systemd watches this process, and this process the worker.
    if (now >= m_aliveAt) {
        m_aliveAt = now + m_times.ping;
        notifyManager("WATCHDOG=1");
    }
    if (m_worker <= 0) {
        if (now >= m_startAt)
            start();
        return;
    }
    if (m_isStopping && now >= m_killAt) {
        m_log.event(LogLevel::error, "worker-killed", {{"reason", "did not stop in time"}});
        m_killAt = Clock::time_point::max();
        ::kill(m_worker, SIGKILL);
    }
    if (!m_isReady || m_isStopping)
        return;
    if (now - m_heardAt >= m_times.silence) {
        m_log.event(LogLevel::error, "worker-killed", {{"reason", "does not answer"}});
        m_heardAt = now;
        ::kill(m_worker, SIGKILL);
    }
    if (now >= m_pingAt) {
        m_pingAt = now + m_times.ping;
        m_channel ? static_cast<void>(m_channel->tell("ping")) : static_cast<void>(::kill(m_worker, SIGKILL));
    }
}

int Supervisor::untilNext() const {
    Clock::time_point next = m_worker <= 0 ? m_startAt : m_pingAt;
    if (m_worker > 0 && !m_isReady)
        next = Clock::now() + m_times.longestPause;
    if (m_isStopping)
        next = m_killAt;
    const auto left = std::chrono::ceil<Milliseconds>(std::min(next, m_aliveAt) - Clock::now());
    return static_cast<int>(std::clamp<Milliseconds::rep>(left.count(), 0, m_times.longestPause.count()));
}

} // namespace norvmilter
