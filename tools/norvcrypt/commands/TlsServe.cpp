#include "commands/TlsOptions.h"
#include "files/Output.h"
#include "openssl/Reasons.h"
#include "tls/Peer.h"
#include "tls/TlsConnections.h"

#include <norvcmsg/Escape.h>
#include <norvcmsg/Sleep.h>
#include <norvcrypto/SSLSocket.h>

#include <array>
#include <atomic>
#include <charconv>
#include <chrono>
#include <csignal>
#include <exception>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace norvcrypt {

namespace NVSSL = Norvane::Crypto::NVSSL;
using Norvane::Socket;
using Norvane::SocketAddress;

namespace {

/// How many connections are served at once.
constexpr int workerCount = 16;
/// All of a handshake: a client that says nothing, or one byte at a time, holds a worker no longer.
constexpr std::chrono::seconds handshakeLimit{10};
constexpr unsigned int milliseconds = 1000;

struct ServeOptions {
    std::string where;
    TlsFiles files;
    bool echo = false;
    std::optional<std::uint64_t> count;
    unsigned int timeLimit = 300;
};

/// "4433" is that port of every IPv4 address; else an address and a port.
SocketAddress listenerAddress(const std::string& where) {
    std::uint16_t port = 0;
    const char* const end = where.data() + where.size();
    const auto [last, error] = std::from_chars(where.data(), end, port);
    if (error == std::errc() && last == end)
        return {Norvane::IPAddress::fromText("0.0.0.0"), port};
    try {
        return SocketAddress(where);
    } catch (const Norvane::SocketException&) {
        throw Failure("not a port, nor an address and port: " + where);
    }
}

/// Serves one connection after another in each thread that works for it.
class Server {
public:
    Server(const Socket& listener, TlsConnections& connections, const ServeOptions& options)
        : m_listener(listener),
          m_connections(connections),
          m_echo(options.echo),
          m_timeLimit(options.timeLimit),
          m_left(options.count.value_or(UINT64_MAX)) {}

    /// What each worker does. Never throws: the first failure ends the server.
    void work() noexcept {
        try {
            while (takeTurn())
                serveOne();
        } catch (...) {
            const std::lock_guard lock(m_mutex);
            if (!m_failure)
                m_failure = std::current_exception();
            stop();
        }
    }

    /// Ends the waiting for connections and those that stand. Any thread may call it.
    void stop() {
        if (m_connections.stop())
            m_listener.shutdown();
    }

    /// Tells what ended it, if that was a failure.
    void rethrow() const {
        if (m_failure)
            std::rethrow_exception(m_failure);
    }

private:
    /// Forgets this thread's connection when it is over.
    struct Turn {
        TlsConnections& connections;
        explicit Turn(TlsConnections& all) : connections(all) {}
        ~Turn() { connections.end(); }
        Turn(const Turn&) = delete;
        Turn& operator=(const Turn&) = delete;
    };

    /// True when one more connection is to be waited for.
    bool takeTurn() {
        const std::lock_guard lock(m_mutex);
        return !m_connections.isStopped() && m_left != 0 && m_left-- != 0;
    }

    void serveOne() {
        const Turn turn(m_connections);
        NVSSL::SSLSocket peer{Socket()};
        try {
            peer = accept();
        } catch (const Norvane::Exception& failure) {
            const std::string reason =
                m_connections.wasTooSlow()
                    ? "the handshake takes more than " + std::to_string(handshakeLimit.count()) + " seconds"
                    : reasonOf(failure);
            tell(++m_number, {"from " + m_connections.peer(), "no connection: " + reason});
        }
        if (!peer.isNull())
            converse(++m_number, peer);
    }

    /// The next connection; a null handle once the server was stopped. \throws what a handshake that failed throws
    NVSSL::SSLSocket accept() {
        while (true) {
            try {
                NVSSL::SSLSocket peer(m_listener.accept());
                m_connections.established();
                return peer;
            } catch (const Norvane::Exception& failure) {
                if (m_connections.isStopped())
                    return NVSSL::SSLSocket(Socket());
                if (failure.where() != "SocketImpl::accept")
                    throw;
                Norvane::pause(0, 100); // what is short now (descriptors, memory) may come back
            }
        }
    }

    void converse(std::uint64_t number, NVSSL::SSLSocket& peer) {
        std::uint64_t received = 0;
        std::string end;
        try {
            std::vector<std::string> lines = describePeer(peer);
            lines.insert(lines.begin(), "from " + m_connections.peer());
            tell(number, lines);
            peer.timeLimit(m_timeLimit * milliseconds);
            exchange(peer, received);
            const TlsEnd how = endOf(peer);
            end = how.orderly ? "closed" : how.alert.empty() ? "cut off" : "given up by the peer, " + how.alert;
        } catch (const Norvane::Exception& failure) {
            end = whyEnded(failure);
        }
        tell(number, {Norvane::escapeForDisplay(end) + ", " + std::to_string(received) + " bytes received"});
    }

    [[nodiscard]] std::string whyEnded(const Norvane::Exception& failure) const {
        const std::string limit = " for " + std::to_string(m_timeLimit) + " seconds";
        const auto& parameters = failure.parameters();
        const int* const number = parameters.empty() ? nullptr : std::get_if<int>(&parameters.back());
        if (failure.where() == "SocketImpl::readable")
            return "said nothing" + limit;
        if (number != nullptr && *number == SSL_ERROR_WANT_WRITE)
            return "took nothing" + limit;
        return "failed, " + reasonOf(failure);
    }

    /// Takes what the peer sends until it ends, and counts it.
    void exchange(Socket& peer, std::uint64_t& received) const {
        std::array<Norvane::uchar_t, SSL3_RT_MAX_PLAIN_LENGTH> bytes{};
        for (int count = 0; (count = peer.receive(bytes.data(), bytes.size())) > 0;) {
            received += static_cast<std::uint64_t>(count);
            if (m_echo && peer.send(bytes.data(), static_cast<Norvane::uint_t>(count)) != count)
                break;
        }
    }

    /// All lines about a connection stay together, and are shown as they are. \throws Failure: standard output takes no more
    void tell(std::uint64_t number, const std::vector<std::string>& lines) {
        TextOutput out;
        for (const std::string& line : lines)
            out.line("connection " + std::to_string(number) + ": " + line);
        const std::lock_guard lock(m_outputMutex);
        out.flush();
    }

    Socket m_listener;
    TlsConnections& m_connections;
    bool m_echo;
    unsigned int m_timeLimit;
    std::uint64_t m_left;
    std::exception_ptr m_failure;
    std::mutex m_mutex; ///< of the two above
    std::mutex m_outputMutex;
    std::atomic<std::uint64_t> m_number = 0;
};

/// Stops the server at the first SIGINT or SIGTERM; a second one ends the process as if nobody listened. While it waits
/// it ends the handshakes that take too long.
class Watch {
public:
    Watch(Server& server, TlsConnections& connections) {
        sigemptyset(&m_signals);
        sigaddset(&m_signals, wakeUp);
        for (const int signal : {SIGINT, SIGTERM}) {
            struct sigaction now {};
            // What the caller ignores stays ignored, which waiting for it would undo.
            if (sigaction(signal, nullptr, &now) == 0 && now.sa_handler != SIG_IGN)
                sigaddset(&m_signals, signal);
        }
        // Threads that are made from now on leave these signals to the one that waits for them.
        pthread_sigmask(SIG_BLOCK, &m_signals, nullptr);
        m_thread = std::thread([this, &server, &connections] {
            constexpr timespec second{1, 0};
            int signal = 0;
            while ((signal = sigtimedwait(&m_signals, nullptr, &second)) < 0)
                connections.endSlowHandshakes();
            if (signal != wakeUp)
                stop(server);
        });
    }
    ~Watch() {
        pthread_kill(m_thread.native_handle(), wakeUp);
        m_thread.join();
    }
    Watch(const Watch&) = delete;
    Watch& operator=(const Watch&) = delete;

private:
    static constexpr int wakeUp = SIGUSR1;

    void stop(Server& server) {
        server.stop();
        sigset_t waking;
        sigemptyset(&waking);
        sigaddset(&waking, wakeUp);
        sigdelset(&m_signals, wakeUp);
        pthread_sigmask(SIG_UNBLOCK, &m_signals, nullptr);
        int signal = 0;
        sigwait(&waking, &signal); // here a second signal finds a thread that takes it
    }

    sigset_t m_signals{};
    std::thread m_thread;
};

Exit serve(const ServeOptions& options) {
    const SocketAddress address = listenerAddress(options.where);
    TlsConnections connections(handshakeLimit);
    const TlsStart start = [&connections](SSL* connection) { connections.begin(connection); };
    NVSSL::RefContext context = tlsContext(options.files, TlsSide::server, start);
    NVSSL::SSLSocket listener(context, address.family());
    try {
        listener.bind(address);
        listener.listen();
    } catch (const Norvane::SocketException& failure) {
        throw Failure("cannot listen on " + address.asString(), failure);
    }
    Server server(listener, connections, options);
    const Watch watch(server, connections);
    TextOutput out;
    out.line("listening on " + listener.localAddress().asString());
    out.flush();
    std::array<std::thread, workerCount> workers;
    for (std::thread& worker : workers)
        worker = std::thread([&server] { server.work(); });
    for (std::thread& worker : workers)
        worker.join();
    server.rethrow();
    return Exit::good;
}

} // namespace

void addTlsServe(Command& tls, Action& action) {
    auto options = std::make_shared<ServeOptions>();
    Command* command = tls.command(
        "serve", "Serves as many as 16 clients at once, each until it ends or falls silent, and tells about them on "
                 "standard output; no client is turned away. SIGTERM or SIGINT ends it");
    command
        ->option("PORT", options->where,
                 "The port, of every IPv4 address, or ADDRESS:PORT; for port 0 the system chooses")
        ->required();
    addTlsFiles(*command, options->files, TlsSide::server);
    command->flag("--echo", options->echo, "Send back what comes instead of dropping it");
    command->option("--count", options->count, "End after so many connections")->typeName("N")->positive();
    addTimeLimit(*command, options->timeLimit,
                 "How many seconds a client may say nothing, or take nothing; 0 for ever");
    command->example("norvcrypt tls serve 127.0.0.1:4433 --cert server.pem --key server.key --echo --count 1");
    command->whenChosen([options, &action] { action = [options] { return serve(*options); }; });
}

} // namespace norvcrypt
