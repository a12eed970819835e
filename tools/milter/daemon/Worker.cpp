#include "daemon/Worker.h"

#include "daemon/Loading.h"
#include "daemon/MetricsServer.h"
#include "daemon/Process.h"
#include "front/Callbacks.h"
#include "front/Failure.h"

#include <norvcmsg/Logger.h>

#include <atomic>
#include <condition_variable>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <memory>
#include <mutex>
#include <optional>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <utility>

namespace norvmilter {

namespace {

using Clock = std::chrono::steady_clock;

constexpr int messageStuck = 75;

/// What the libraries report goes the way of all events.
class LibraryEvents : public Norvane::LogSink {
public:
    explicit LibraryEvents(Log& log) : m_log(log) {}
    void record(const Norvane::LogRecord& record) override {
        std::string text;
        for (const std::string& field : record.fields)
            text += (text.empty() ? "" : " | ") + field;
        const LogLevel level = record.level < 0    ? LogLevel::error
                               : record.level == 0 ? LogLevel::warning
                                                   : LogLevel::debug;
        m_log.event(level, "library", {{"code", std::to_string(record.event)}, {"text", text}});
    }

private:
    Log& m_log;
};

class Worker {
public:
    Worker(const WorkerOptions& options, const Channel& channel, unsigned long restarts, Loaded loaded)
        : m_options(options),
          m_channel(channel),
          m_log(targetOf(*loaded.config), loaded.config->log.level),
          m_metrics(restarts),
          m_front(m_log, m_metrics, loaded.generation),
          m_config(loaded.config) {
        m_metrics.loadedAt(loaded.stores->loaded()->loadedAt);
        tellLoaded(m_log, loaded);
    }

    int run() {
        Norvane::Logger::instance(false).sink(std::make_shared<LibraryEvents>(m_log));
        listen();
        std::optional<MetricsServer> metrics;
        if (m_options.metricsSocket >= 0)
            metrics.emplace(m_options.metricsSocket, [this] { return m_metrics.text(); });
        std::thread loading([this] { load(); });
        std::thread listening([this] { obey(); });
        tellStopTimeout(*m_config);
        m_channel.tell("ready");
        const int result = smfi_main();
        m_hasEnded = true;
        if (result != MI_SUCCESS && m_exitCode == 0)
            m_exitCode = 1;
        listening.join();
        loading.join();
        // Those that wait for another connection do not end.
        awaitThreads(std::chrono::milliseconds(200));
        return m_exitCode;
    }

private:
    LogTarget targetOf(const Config& config) const {
        return m_options.isInBackground ? LogTarget::syslog : config.log.target;
    }

    void listen() {
        // Of a socket that listens already.
        ::getsockname(m_options.milterSocket, reinterpret_cast<sockaddr*>(&m_place), &m_placeLength);
        std::string socket = "fd:" + std::to_string(m_options.milterSocket);
        smfi_settimeout(static_cast<int>(m_config->milter.timeout));
        if (smfi_setconn(socket.data()) != MI_SUCCESS || smfi_register(callbacksFor(m_front)) != MI_SUCCESS ||
            smfi_opensocket(false) != MI_SUCCESS)
            throw std::runtime_error("libmilter does not take the socket over; what it says is in the system's log");
    }

    /// The thread that listens to the supervisor.
    void obey() {
        std::optional<Clock::time_point> stopAt;
        while (!m_hasEnded) {
            constexpr std::chrono::milliseconds often(20);
            constexpr std::chrono::milliseconds seldom(500);
            const bool hasText = waitToRead(m_channel.descriptor(), stopAt ? often : seldom);
            const std::optional<std::string> text = hasText && !m_isAlone ? m_channel.hear() : std::string();
            if (text && *text == "ping")
                m_channel.tell("pong");
            else if (text && *text == "reload")
                askToLoad(false);
            if (stopAt && (m_front.isDrained() || Clock::now() >= *stopAt))
                break;
            if (!text)
                leaveSockets();
            m_isAlone = m_isAlone || !text;
            if (m_isAlone)
                std::this_thread::sleep_for(often);
            if (!stopAt && (m_isAlone || (text && *text == "stop") || isStuck())) {
                m_front.drain();
                stopAt = Clock::now() + std::chrono::seconds(stopTimeout());
            }
        }
        askToLoad(true);
        endLibmilter();
    }

    /// The supervisor is gone: the sockets are for the next one, while what is in hand is finished. libmilter has to run until
    /// then, and takes a socket that fails for its end: it gets one that nobody knows of.
    void leaveSockets() {
        m_front.drain();
        if (m_options.metricsSocket >= 0)
            ::shutdown(m_options.metricsSocket, SHUT_RDWR);
        const Descriptor quiet(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
        sockaddr_storage none{};
        none.ss_family = AF_UNIX;
        // Without a name it gets one of the kernel's.
        if (!quiet || ::bind(quiet.get(), reinterpret_cast<const sockaddr*>(&none), sizeof none.ss_family) != 0 ||
            ::listen(quiet.get(), 1) != 0 || ::dup3(quiet.get(), m_options.milterSocket, O_CLOEXEC) < 0)
            return;
        const sockaddr_storage old = std::exchange(m_place, {});
        const socklen_t oldLength = std::exchange(m_placeLength, sizeof m_place);
        ::getsockname(m_options.milterSocket, reinterpret_cast<sockaddr*>(&m_place), &m_placeLength);
        // The old one is there for as long as libmilter waits on it. A connection to it wakes libmilter, which looks at the new
        // one then.
        connectTo(m_place, m_placeLength);
        connectTo(old, oldLength);
    }

    /// A message that is judged for much longer than it may be is one that nothing in this process ends.
    bool isStuck() {
        const std::chrono::seconds most = m_front.generation()->limits.perMessage;
        if (most.count() == 0 || m_front.progress().longest() < 4 * most + m_options.stuckGrace)
            return false;
        m_log.event(LogLevel::error, "message-stuck", {{"seconds", std::to_string(most.count())}});
        m_exitCode = messageStuck;
        return true;
    }

    void endLibmilter() {
        m_log.event(m_front.inHand() == 0 ? LogLevel::info : LogLevel::warning, "worker-stopping",
                    {{"in_hand", std::to_string(m_front.inHand())}});
        // What is to be told is told under a lock that libmilter keeps while it waits for connections, up to five seconds: it
        // gets some.
        std::thread connecting([this] { connectAgainAndAgain(); });
        smfi_stop();
        connecting.join();
        if (!m_hasEnded)
            std::_Exit(m_exitCode);
    }

    void connectAgainAndAgain() const {
        constexpr std::chrono::milliseconds pause(20);
        for (std::chrono::milliseconds waited{}; !m_hasEnded && waited < std::chrono::seconds(7); waited += pause) {
            connectTo(m_place, m_placeLength);
            std::this_thread::sleep_for(pause);
        }
    }

    static void connectTo(const sockaddr_storage& place, socklen_t length) {
        const Descriptor asking(::socket(place.ss_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
        static_cast<void>(::connect(asking.get(), reinterpret_cast<const sockaddr*>(&place), length));
    }

    /// The supervisor must not end what is still allowed to be finished.
    void tellStopTimeout(const Config& config) const {
        m_channel.tell("stop-timeout " + std::to_string(config.milter.stopTimeout));
    }

    unsigned int stopTimeout() {
        const std::lock_guard<std::mutex> guard(m_mutex);
        return m_config->milter.stopTimeout;
    }

    void askToLoad(bool end) {
        {
            const std::lock_guard<std::mutex> guard(m_mutex);
            (end ? m_loadingEnds : m_loadingWanted) = true;
        }
        m_changed.notify_all();
    }

    /// The thread that loads: what is asked for meanwhile is one more time.
    void load() {
        std::unique_lock<std::mutex> guard(m_mutex);
        while (true) {
            m_changed.wait(guard, [this] { return m_loadingWanted || m_loadingEnds; });
            if (m_loadingEnds)
                return;
            m_loadingWanted = false;
            guard.unlock();
            reloadIfItCan();
            guard.lock();
        }
    }

    void reloadIfItCan() noexcept {
        try {
            reload();
        } catch (const std::exception&) {
            // There was no memory for saying what failed: the old ones stay all the same.
            return;
        }
    }

    void reload() {
        try {
            const Loaded loaded = norvmilter::load(m_options.config);
            m_front.use(loaded.generation);
            m_log.use(targetOf(*loaded.config), loaded.config->log.level);
            smfi_settimeout(static_cast<int>(loaded.config->milter.timeout));
            {
                const std::lock_guard<std::mutex> guard(m_mutex);
                warnOfChanges(*loaded.config);
                m_config = loaded.config;
            }
            tellStopTimeout(*loaded.config);
            m_metrics.loadedAt(loaded.stores->loaded()->loadedAt);
            m_metrics.reloaded(true);
            tellLoaded(m_log, loaded);
            m_log.event(LogLevel::info, "reloaded");
            m_channel.tell("reloaded");
        } catch (const std::exception&) {
            const std::string reason = currentFailure();
            m_metrics.reloaded(false);
            m_log.event(LogLevel::error, "reload-failed", {{"reason", reason}});
            m_channel.tell("reload-failed " + reason);
        }
    }

    void warnOfChanges(const Config& config) {
        const auto warn = [this](bool isChanged, const char* key) {
            if (isChanged)
                m_log.event(LogLevel::warning, "needs-restart", {{"key", key}});
        };
        warn(config.milter.socket != m_config->milter.socket || config.milter.socketMode != m_config->milter.socketMode,
             "milter.socket");
        warn(config.milter.pidFile != m_config->milter.pidFile, "milter.pid_file");
        warn(config.metrics.socket != m_config->metrics.socket, "metrics.socket");
        warn(config.limits.memoryBytes != m_config->limits.memoryBytes, "limits.memory_bytes");
    }

    const WorkerOptions& m_options;
    const Channel& m_channel;
    Log m_log;
    Metrics m_metrics;
    Front m_front;
    sockaddr_storage m_place{}; // of the milter's socket
    socklen_t m_placeLength = sizeof(sockaddr_storage);
    std::atomic<bool> m_hasEnded{false};
    std::atomic<int> m_exitCode{0};
    bool m_isAlone = false; // the supervisor is gone
    std::mutex m_mutex;     // for all below
    std::condition_variable m_changed;
    std::shared_ptr<const Config> m_config;
    bool m_loadingWanted = false;
    bool m_loadingEnds = false;
};

} // namespace

int runWorker(const WorkerOptions& options, const Channel& channel, unsigned long restarts) {
    // What cannot be written is an error where it is written, and not the end of all messages.
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN);
    try {
        // Before any thread is there.
        confine(Config::load(options.config).limits.memoryBytes);
        // It is in use until the process ends: threads of libmilter outlive its main function.
        static Worker* const worker =
            std::make_unique<Worker>(options, channel, restarts, load(options.config)).release();
        return worker->run();
    } catch (const std::exception&) {
        channel.tell("failed " + currentFailure());
        return 1;
    }
}

} // namespace norvmilter
