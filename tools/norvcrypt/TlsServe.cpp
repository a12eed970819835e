#include "Output.h"
#include "Tls.h"

#include <norvcmsg/Escape.h>
#include <norvcmsg/Sleep.h>
#include <norvcrypto/SSLSocket.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <exception>
#include <map>
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
/// A client that connects and says nothing holds a worker no longer.
constexpr unsigned int handshakeLimit = 10'000;

struct ServeOptions {
    std::string where;
    TlsFiles files;
    bool echo = false;
    std::optional<std::uint64_t> count;
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

/// The error of the system behind a failure of the listener; 0 for a failure of one connection.
int listenerError(const Norvane::Exception& failure) {
    const auto& parameters = failure.parameters();
    const int* const error = parameters.empty() ? nullptr : std::get_if<int>(&parameters.back());
    return failure.where() == "SocketImpl::accept" && error != nullptr ? *error : 0;
}

/// The connections that are served at this moment, and the end of it all.
class Server {
public:
    Server(const Socket& listener, const ServeOptions& options)
        : m_listener(listener),
          m_echo(options.echo),
          m_left(options.count.value_or(UINT64_MAX)) {}

    /// What each worker does: one connection after another. Never throws: the first failure ends the server.
    void work() noexcept {
        try {
            while (takeTurn())
                serveOne();
        } catch (...) {
            const std::lock_guard lock(m_mutex);
            if (!m_failure)
                m_failure = std::current_exception();
            stopLocked();
        }
    }

    /// Ends the waiting for connections and those that stand. Any thread may call it.
    void stop() {
        const std::lock_guard lock(m_mutex);
        stopLocked();
    }

    /// Tells what ended it, if that was a failure.
    void rethrow() const {
        if (m_failure)
            std::rethrow_exception(m_failure);
    }

private:
    /// True when one more connection is to be waited for.
    bool takeTurn() {
        const std::lock_guard lock(m_mutex);
        return !m_stopped && m_left != 0 && m_left-- != 0;
    }

    void serveOne() {
        std::optional<NVSSL::SSLSocket> peer;
        try {
            peer = accept();
        } catch (const Norvane::Exception& failure) {
            tell(++m_number, {"no connection: " + Norvane::escapeForDisplay(failure.asString())});
        }
        if (!peer || peer->isNull())
            return;
        const std::uint64_t number = ++m_number;
        const bool admitted = admit(number, *peer);
        if (admitted)
            converse(number, *peer);
        const std::lock_guard lock(m_mutex);
        m_connections.erase(number);
    }

    /// The next connection; a null handle once the server was stopped. \throws what a handshake that failed throws
    NVSSL::SSLSocket accept() {
        while (true) {
            try {
                return NVSSL::SSLSocket(m_listener.accept());
            } catch (const Norvane::Exception& failure) {
                const int error = listenerError(failure);
                if (isStopped())
                    return NVSSL::SSLSocket(Socket());
                if (error == 0)
                    throw;
                if (error != ETIMEDOUT)
                    Norvane::pause(0, 100); // what is short now (descriptors, memory) may come back
            }
        }
    }

    bool isStopped() {
        const std::lock_guard lock(m_mutex);
        return m_stopped;
    }

    /// Has `stop` end this connection too; false when it is too late for it.
    bool admit(std::uint64_t number, const Socket& peer) {
        const std::lock_guard lock(m_mutex);
        if (!m_stopped)
            m_connections.emplace(number, peer);
        return !m_stopped;
    }

    void converse(std::uint64_t number, NVSSL::SSLSocket& peer) {
        std::vector<std::string> lines = describePeer(peer);
        std::uint64_t received = 0;
        std::string end;
        try {
            lines.insert(lines.begin(), "from " + peer.remoteAddress().asString());
            tell(number, lines);
            received = exchange(peer);
            const TlsEnd how = endOf(peer);
            end = how.orderly ? "closed" : how.alert.empty() ? "cut off" : "given up by the peer, " + how.alert;
        } catch (const Norvane::Exception& failure) {
            end = "failed, " + Norvane::escapeForDisplay(failure.asString());
        }
        tell(number, {end + ", " + std::to_string(received) + " bytes received"});
    }

    /// Takes what the peer sends until it ends; the number of bytes.
    std::uint64_t exchange(Socket& peer) const {
        std::array<Norvane::uchar_t, SSL3_RT_MAX_PLAIN_LENGTH> bytes{};
        std::uint64_t received = 0;
        for (int count = 0; (count = peer.receive(bytes.data(), bytes.size())) > 0;) {
            received += static_cast<std::uint64_t>(count);
            if (m_echo && peer.send(bytes.data(), static_cast<Norvane::uint_t>(count)) != count)
                break;
        }
        return received;
    }

    void stopLocked() {
        if (std::exchange(m_stopped, true))
            return;
        m_listener.shutdown();
        for (auto& [number, connection] : m_connections)
            connection.shutdown();
    }

    /// All lines about a connection stay together. \throws Failure: standard output takes no more
    void tell(std::uint64_t number, const std::vector<std::string>& lines) {
        TextOutput out;
        for (const std::string& line : lines)
            out.line("connection " + std::to_string(number) + ": " + line);
        const std::lock_guard lock(m_outputMutex);
        out.flush();
    }

    Socket m_listener;
    bool m_echo;
    std::uint64_t m_left;
    bool m_stopped = false;
    std::map<std::uint64_t, Socket> m_connections;
    std::exception_ptr m_failure;
    std::mutex m_mutex; ///< of the four above
    std::mutex m_outputMutex;
    std::atomic<std::uint64_t> m_number = 0;
};

/// Stops the server at the first SIGINT or SIGTERM; a second one ends the process as if nobody listened.
class StopOnSignal {
public:
    explicit StopOnSignal(Server& server) {
        sigemptyset(&m_signals);
        for (const int signal : {SIGINT, SIGTERM, wakeUp})
            sigaddset(&m_signals, signal);
        // Threads that are made from now on leave these signals to the one that waits for them.
        pthread_sigmask(SIG_BLOCK, &m_signals, nullptr);
        m_thread = std::thread([this, &server] {
            int signal = wakeUp;
            sigwait(&m_signals, &signal);
            if (signal == wakeUp)
                return;
            server.stop();
            sigset_t waking;
            sigemptyset(&waking);
            sigaddset(&waking, wakeUp);
            sigdelset(&m_signals, wakeUp);
            pthread_sigmask(SIG_UNBLOCK, &m_signals, nullptr);
            sigwait(&waking, &signal); // here a second signal finds a thread that takes it
        });
    }
    ~StopOnSignal() {
        pthread_kill(m_thread.native_handle(), wakeUp);
        m_thread.join();
    }
    StopOnSignal(const StopOnSignal&) = delete;
    StopOnSignal& operator=(const StopOnSignal&) = delete;

private:
    static constexpr int wakeUp = SIGUSR1;

    sigset_t m_signals{};
    std::thread m_thread;
};

Exit serve(const ServeOptions& options) {
    const SocketAddress address = listenerAddress(options.where);
    NVSSL::RefContext context = tlsContext(options.files, TlsSide::server);
    NVSSL::SSLSocket listener(context, address.family());
    listener.bind(address);
    listener.listen();
    listener.timeLimit(handshakeLimit);
    Server server(listener, options);
    const StopOnSignal stopping(server);
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

void addTlsServe(CLI::App& tls, Action& action) {
    auto options = std::make_shared<ServeOptions>();
    CLI::App* command = tls.add_subcommand(
        "serve", "Serves as many as 16 clients at once, each for as long as it stays, and tells about them on standard "
                 "output; no client is turned away. SIGTERM or SIGINT ends it");
    command
        ->add_option("PORT", options->where,
                     "The port, of every IPv4 address, or ADDRESS:PORT; for port 0 the system chooses")
        ->required();
    addTlsFiles(*command, options->files, TlsSide::server);
    command->add_flag("--echo", options->echo, "Send back what comes instead of dropping it");
    command->add_option("--count", options->count, "End after so many connections")
        ->type_name("N")
        ->check(CLI::PositiveNumber);
    command->callback([options, &action] { action = [options] { return serve(*options); }; });
}

} // namespace norvcrypt
