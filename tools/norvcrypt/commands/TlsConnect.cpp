#include "commands/TlsOptions.h"
#include "files/Output.h"
#include "openssl/OpenSsl.h"
#include "openssl/Reasons.h"
#include "tls/Peer.h"

#include <norvcmsg/Escape.h>
#include <norvcmsg/IPAddress.h>
#include <norvcrypto/Crypto.h>
#include <norvcrypto/SSLSocket.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <fcntl.h>
#include <memory>
#include <poll.h>
#include <unistd.h>

namespace norvcrypt {

namespace NVSSL = Norvane::Crypto::NVSSL;
using Norvane::SocketAddress;

namespace {

constexpr unsigned int milliseconds = 1000;

struct ConnectOptions {
    std::string where;
    TlsFiles files;
    std::optional<std::string> send;
    bool requireTrust = false;
    unsigned int timeLimit = 30;
};

struct Host {
    std::string name;
    std::uint16_t port = 0;
};

/// "mx.example.org:465", "192.0.2.1:465" or "[2001:db8::1]:465".
Host hostOf(const std::string& where) {
    const auto colon = where.rfind(':');
    Host host{where.substr(0, colon)};
    const char* const end = where.data() + where.size();
    const char* const digits = colon == std::string::npos ? end : where.data() + colon + 1;
    const auto [last, error] = std::from_chars(digits, end, host.port);
    const bool inBrackets = host.name.starts_with('[') && host.name.ends_with(']');
    const bool isAmbiguous = !inBrackets && host.name.find(':') != std::string::npos;
    if (inBrackets)
        host.name = host.name.substr(1, host.name.size() - 2);
    if (error != std::errc() || last != end || host.port == 0 || host.name.empty() || isAmbiguous)
        throw Failure("not a host and port: " + where + " (write it as mail.example.org:465)");
    return host;
}

bool isOfPlainConnection(const Norvane::SocketException& failure) {
    return failure.where() == "SocketImpl::connect";
}

/// The peer's address once, whoever put it in front of the reason.
std::string withoutPrefix(const std::string& reason, const std::string& address) {
    return address + (reason.starts_with(address) ? reason.substr(address.size()) : reason);
}

std::vector<SocketAddress> addressesOf(const Host& host) {
    try {
        return SocketAddress::resolve(host.name, host.port);
    } catch (const Norvane::Exception& failure) {
        throw Failure("cannot find the host: " + inPlainWords(failure));
    }
}

/// Tries the addresses of the host in turn until one accepts the plain connection.
NVSSL::SSLSocket connectTo(const Host& host, NVSSL::RefContext& context, unsigned int timeLimit) {
    const auto addresses = addressesOf(host);
    for (std::size_t at = 0;; ++at) {
        NVSSL::SSLSocket socket(context, addresses[at].family());
        socket.timeLimit(timeLimit * milliseconds);
        try {
            socket.connect(addresses[at]);
            return socket;
        } catch (const Norvane::SocketException& failure) {
            if (isOfPlainConnection(failure) && at + 1 < addresses.size())
                continue;
            throw Failure("cannot connect to " + withoutPrefix(reasonOf(failure), addresses[at].asString() + ": "));
        }
    }
}

/// What is to be sent: a file or standard input, which may be a terminal.
class Source {
public:
    explicit Source(const std::optional<std::string>& path) : m_name(path.value_or("standard input")) {
        if (path && *path != "-")
            m_descriptor = open(path->c_str(), O_RDONLY | O_CLOEXEC);
        if (m_descriptor < 0)
            throw Failure("cannot open " + m_name, errno);
    }
    ~Source() {
        if (m_descriptor != STDIN_FILENO)
            close(m_descriptor);
    }
    Source(const Source&) = delete;
    Source& operator=(const Source&) = delete;

    [[nodiscard]] int descriptor() const { return m_descriptor; }
    [[nodiscard]] bool isFile() const { return m_descriptor != STDIN_FILENO; }
    /// What is there, empty at the end.
    std::string read() {
        std::string bytes(pieceSize, '\0');
        const ssize_t count = ::read(m_descriptor, bytes.data(), bytes.size());
        if (count < 0 && errno != EINTR && errno != EAGAIN)
            throw Failure("cannot read " + m_name, errno);
        m_ended = count == 0;
        bytes.resize(count < 0 ? 0 : static_cast<std::size_t>(count));
        return bytes;
    }
    [[nodiscard]] bool ended() const { return m_ended; }

private:
    /// A connection that can be written to takes this much at once: nobody waits for a peer that waits for us.
    static constexpr std::size_t pieceSize = 4096;

    std::string m_name;
    int m_descriptor = STDIN_FILENO;
    bool m_ended = false;
};

/// Copies in both directions at once until the peer has ended.
class Copy {
public:
    Copy(NVSSL::SSLSocket& socket, Source& source, unsigned int timeLimit)
        : m_socket(socket),
          m_source(source),
          m_timeLimit(timeLimit) {
        // Receiving must not wait: what makes the connection readable may be no more than TLS talking to itself.
        m_socket.blocking(false);
    }

    void run() {
        while (!m_peerEnded) {
            const auto [peer, input] = wait();
            if (input != 0 && m_pending.empty() && !m_source.ended())
                takeInput();
            if ((peer & ~POLLOUT) != 0)
                receive();
            if ((peer & POLLOUT) != 0 && !m_peerEnded)
                send();
        }
        const TlsEnd end = endOf(m_socket);
        if (!end.alert.empty())
            throw Failure("the peer gave up: " + end.alert);
        if (!m_pending.empty() || (m_source.isFile() && !m_source.ended()))
            throw Failure("the peer ended the connection before everything was sent");
        if (!end.orderly)
            reportError("the connection ended without the peer's notice: bytes may be missing");
    }

private:
    /// What happened at the peer's and at the input's end.
    std::pair<int, int> wait() {
        const bool sending = !m_pending.empty();
        const bool reading = !sending && !m_source.ended();
        std::array<pollfd, 2> polled{
            {{m_socket.descriptor(), static_cast<short>(sending ? POLLIN | POLLOUT : POLLIN), 0},
             {reading ? m_source.descriptor() : -1, POLLIN, 0}}};
        // A person may take all the time to type, the peer may not once it has everything.
        const int limit = reading || m_timeLimit == 0 ? -1 : static_cast<int>(m_timeLimit * milliseconds);
        const int ready = poll(polled.data(), polled.size(), limit);
        if (ready == 0)
            throw Failure("the peer neither answered nor ended for " + std::to_string(m_timeLimit) + " seconds");
        if (ready < 0 && errno != EINTR)
            throw Failure("cannot wait", errno);
        return ready < 0 ? std::pair(0, 0) : std::pair<int, int>(polled[0].revents, polled[1].revents);
    }

    void takeInput() {
        m_pending = m_source.read();
        if (m_source.ended()) {
            // Ends our direction alone: the peer may still have much to say.
            ERR_clear_error();
            static_cast<void>(SSL_shutdown(m_socket));
        }
    }

    void receive() {
        std::array<Norvane::uchar_t, SSL3_RT_MAX_PLAIN_LENGTH> bytes{};
        errno = 0;
        const int count = m_socket.receive(bytes.data(), bytes.size());
        m_peerEnded = count == 0 && errno != EAGAIN;
        m_out.write(bytes.data(), static_cast<std::size_t>(count));
    }

    void send() {
        const auto length = static_cast<Norvane::uint_t>(m_pending.size());
        m_socket.blocking(true);
        const int sent = m_socket.send(reinterpret_cast<const Norvane::uchar_t*>(m_pending.data()), length);
        m_socket.blocking(false);
        if (static_cast<Norvane::uint_t>(sent) != length)
            throw Failure("the peer takes no more");
        m_pending.clear();
    }

    NVSSL::SSLSocket& m_socket;
    Source& m_source;
    Inputs m_inputs;
    OutputFile m_out{"-", m_inputs};
    unsigned int m_timeLimit;
    std::string m_pending;
    bool m_peerEnded = false;
};

/// What the server is told of the host, without a dot at the end (RFC 6066, 3); nothing for an address.
std::string serverName(const std::string& host) {
    try {
        std::string name = NVSSL::asciiHostName(host);
        return Norvane::IPAddress::fromText(name).isNull() ? name : "";
    } catch (const Norvane::Exception&) {
        return {}; // no host name: an address with an interface
    }
}

/// On standard error, since standard output is the peer's. The line is shown as it is.
void tell(const std::string& line) {
    const std::string text = line + "\n";
    static_cast<void>(!write(STDERR_FILENO, text.data(), text.size()));
}

Exit connect(const ConnectOptions& options) {
    const Host host = hostOf(options.where);
    const TlsStart start = [name = serverName(host.name)](SSL* connection) {
        if (!name.empty())
            SSL_set_tlsext_host_name(connection, name.c_str());
    };
    NVSSL::RefContext context = tlsContext(options.files, TlsSide::client, start);
    Source source(options.send);
    NVSSL::SSLSocket socket = connectTo(host, context, options.timeLimit);
    for (const std::string& line : describePeer(socket))
        tell(line);
    const bool matches = isForHost(socket, host.name);
    tell("the certificate is " + std::string(matches ? "for " : "not for ") + Norvane::escapeForDisplay(host.name));
    if (options.requireTrust && !(matches && isTrusted(socket))) {
        tell("the peer is not trusted: nothing was copied");
        return Exit::refused;
    }
    try {
        Copy(socket, source, options.timeLimit).run();
    } catch (const Norvane::SocketException& failure) {
        throw Failure("the connection failed: " + reasonOf(failure));
    }
    return Exit::good;
}

} // namespace

void addTlsConnect(Command& tls, Action& action) {
    auto options = std::make_shared<ConnectOptions>();
    Command* command = tls.command(
        "connect", "Connects as a client, tells about the peer on standard error, and copies bytes both ways until the "
                   "peer ends; whatever the peer's certificate is worth, unless --require-trust");
    command->option("HOST:PORT", options->where, "The server; an IPv6 address stands in brackets")->required();
    addTlsFiles(*command, options->files, TlsSide::client);
    command->option("--send", options->send, "What to send; without it standard input")->typeName("FILE");
    command->flag("--require-trust", options->requireTrust,
                  "Copy nothing and answer 1 unless the certificate verifies and is for the host");
    addTimeLimit(*command, options->timeLimit, "How many seconds the server may take each time; 0 for ever");
    command->example("norvcrypt tls connect localhost:4433 --ca root.pem --require-trust --send letter.eml");
    command->whenChosen([options, &action] { action = [options] { return connect(*options); }; });
}

} // namespace norvcrypt
