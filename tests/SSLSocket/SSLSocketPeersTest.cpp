// Peers that misbehave in the middle of every phase: between two honest ends sits a relay that cuts one direction after a
// number of bytes. Whatever it does, the process goes on and each end gives a documented answer.

#include "support/Thrown.h"
#include "support/Tls.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <ctime>
#include <thread>

using namespace Norvane;
using namespace Norvane::Crypto::NVSSL;
using namespace tlstesting;

namespace {

/// What the relay does to both ends once its budget is spent.
enum class Act { close, reset, garbage, stall };
enum class Direction { toServer, toClient };

// Milliseconds. Only a relay that stalls lets them pass, which is then what is waited for.
constexpr Norvane::uint_t patience = 10000;
constexpr Norvane::uint_t littlePatience = 60;

/// Passes bytes on between a client and a server until `budget` bytes went in one direction.
class Relay {
public:
    Relay(const SocketAddress& target, Direction watched, std::size_t budget, Act act)
        : m_target(target),
          m_watched(watched),
          m_budget(budget),
          m_act(act),
          m_thread([this] { run(); }) {}
    ~Relay() { m_thread.join(); }
    Relay(const Relay&) = delete;
    Relay& operator=(const Relay&) = delete;
    [[nodiscard]] SocketAddress address() const { return m_listener.localAddress(); }
    /// Bytes that went in the watched direction.
    [[nodiscard]] std::size_t passed() const { return m_passed; }

private:
    void run() {
        Socket client = m_listener.accept();
        Socket server(true);
        server.connect(m_target);
        const int ends[2] = {client.descriptor(), server.descriptor()};
        while (pass(ends)) {
        }
    }

    /// False when the relay is over.
    bool pass(const int (&ends)[2]) {
        pollfd polled[2] = {{ends[0], POLLIN, 0}, {ends[1], POLLIN, 0}};
        if (poll(polled, 2, patience) <= 0) {
            return false;
        }
        for (const int from : {0, 1}) {
            if (polled[from].revents != 0 && !passFrom(ends[from], ends[1 - from], from == 0)) {
                return false;
            }
        }
        return true;
    }

    bool passFrom(int from, int to, bool fromClient) {
        char bytes[4096];
        const ssize_t count = recv(from, bytes, sizeof bytes, 0);
        if (count <= 0) {
            return false;
        }
        if (fromClient != (m_watched == Direction::toServer)) {
            send(to, bytes, static_cast<std::size_t>(count), MSG_NOSIGNAL);
            return true;
        }
        const std::size_t room = std::min(static_cast<std::size_t>(count), m_budget - m_passed);
        send(to, bytes, room, MSG_NOSIGNAL);
        m_passed += room;
        return m_passed < m_budget || act(from, to);
    }

    bool act(int from, int to) const {
        if (m_act == Act::stall) {
            return m_passed == m_budget; // goes on to swallow what comes
        }
        if (m_act == Act::garbage) {
            const std::string noise(300, '\xA5');
            send(to, noise.data(), noise.size(), MSG_NOSIGNAL);
        }
        if (m_act == Act::reset) {
            const linger atOnce{1, 0};
            setsockopt(from, SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
            setsockopt(to, SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
        }
        return false; // both close
    }

    SocketAddress m_target;
    Direction m_watched;
    std::size_t m_budget;
    Act m_act;
    std::size_t m_passed = 0;
    Socket m_listener = listening(Socket(true));
    std::thread m_thread;
};

/// Where an end failed and with which number; line 0 when all went well.
struct End {
    unsigned int line = 0;
    std::string where;
    int number = 0;
    bool complete = false;
};

/// Runs one end; what it may throw is written down.
template <class Work> End endOf(Work work) {
    End end;
    try {
        end.complete = work();
    } catch (const SocketException& thrown) {
        EXPECT_EQ(4, thrown.code());
        end.line = thrown.lineNumber();
        end.where = thrown.where();
        for (const auto& parameter : thrown.parameters()) {
            end.number = std::holds_alternative<int>(parameter) ? std::get<int>(parameter) : end.number;
        }
    }
    ERR_clear_error();
    return end;
}

/// Answers a question of five bytes with as many.
bool serve(SSLSocket& listening) {
    Socket peer = listening.accept();
    peer.timeLimit(listening.timeLimit());
    return receive(peer, 5) == "hello" && send(peer, "world") == 5;
}

bool ask(const RefContext& context, const SocketAddress& address, Norvane::uint_t limit = patience) {
    RefContext mine = context;
    SSLSocket socket(mine, 2);
    socket.timeLimit(limit);
    socket.connect(address);
    return send(socket, "hello") == 5 && receive(socket, 5) == "world";
}

/// The answers that are documented: of the handshake, of receive (a protocol error, a lost connection, a limit that
/// passed) and of send (a lost connection, a limit that passed). An end of the stream is no failure.
bool isDocumented(const End& end, unsigned int handshakeLine) {
    if (end.where == "SocketImpl::readable") {
        return end.number == ETIMEDOUT;
    }
    if (end.where != "SocketException") {
        return end.line == 0;
    }
    return end.line == handshakeLine ||
           (end.line == 249 && (end.number == SSL_ERROR_SSL || end.number == SSL_ERROR_SYSCALL)) ||
           (end.line == 198 && (end.number == SSL_ERROR_SYSCALL || end.number == SSL_ERROR_WANT_WRITE));
}

class SSLSocketCutTest : public TlsTest, public testing::WithParamInterface<Act> {
protected:
    void SetUp() override {
        TlsTest::SetUp();
        struct sigaction action {};
        sigaction(SIGPIPE, nullptr, &action);
        ASSERT_EQ(SIG_DFL, action.sa_handler) << "a SIGPIPE would end the process";
    }

    /// One conversation through a relay; the number of bytes that it passed on.
    static std::size_t converse(int version, Direction watched, std::size_t budget, Act act) {
        static const RefContext forServer = serverContext();
        const RefContext forClient = only(clientContext(), version);
        SSLSocket listening = listener(forServer);
        listening.timeLimit(patience); // the client gives up first
        const auto limit = act == Act::stall && budget < unlimited ? littlePatience : patience;
        std::size_t passed = 0;
        {
            Relay relay(listening.localAddress(), watched, budget, act);
            auto client = std::async(std::launch::async,
                                     [&] { return endOf([&] { return ask(forClient, relay.address(), limit); }); });
            const End server = endOf([&] { return serve(listening); });
            const End other = client.get();
            EXPECT_TRUE(isDocumented(server, 146)) << server.where << " " << server.line << " " << server.number;
            EXPECT_TRUE(isDocumented(other, 97)) << other.where << " " << other.line << " " << other.number;
            if (budget < unlimited) {
                EXPECT_FALSE(server.complete && other.complete) << "cut after " << budget;
            }
            passed = relay.passed();
        }
        return passed;
    }

    static constexpr std::size_t unlimited = 1U << 30U;
};

TEST_P(SSLSocketCutTest, CutsInEveryPhaseGiveADocumentedAnswer) {
    for (const int version : {TLS1_2_VERSION, TLS1_3_VERSION}) {
        for (const Direction watched : {Direction::toServer, Direction::toClient}) {
            const std::size_t whole = converse(version, watched, unlimited, GetParam());
            ASSERT_GT(whole, 200U);
            // The header and body of records, and what lies between them: every 41st byte, and the first of all.
            for (std::size_t budget = 1; budget + 60 < whole; budget += budget < 6 ? 4 : 41) {
                converse(version, watched, budget, GetParam());
            }
        }
    }
}

std::string nameOf(const testing::TestParamInfo<Act>& info) {
    const char* const names[] = {"Close", "Reset", "Garbage", "Stall"};
    return names[static_cast<std::size_t>(info.param)];
}
INSTANTIATE_TEST_SUITE_P(Peers, SSLSocketCutTest, testing::Values(Act::close, Act::reset, Act::garbage, Act::stall),
                         nameOf);

class SSLSocketPeersTest : public TlsTest {};

/// A scripted peer of a listening socket: what it says before it closes.
unsigned int lineOfAcceptAfter(const std::string& text) {
    SSLSocket listening = listener(serverContext());
    Socket peer(true);
    peer.connect(listening.localAddress());
    if (!text.empty()) {
        send(peer, text);
    }
    peer.shutdown(false, true);
    const End end = endOf([&] {
        static_cast<void>(listening.accept());
        return true;
    });
    return end.line;
}

TEST_F(SSLSocketPeersTest, StrangersThatSpeakNoTlsAreRefusedAtLine146) {
    const std::string http = "GET / HTTP/1.1\r\nHost: localhost\r\n\r\n";
    const std::string hugeRecord("\x16\x03\x01\xff\xff", 5);
    const std::string emptyRecord("\x16\x03\x01\x00\x00", 5);
    const std::string hugeHello("\x16\x03\x01\x00\x04\x01\xff\xff\xff", 9);
    const std::string ssl2Hello("\x80\x2e\x01\x00\x02\x00\x15\x00\x00\x00\x10", 11);
    const std::string alert("\x15\x03\x01\x00\x02\x02\x28", 7);
    const std::string early("\x17\x03\x03\x00\x05hello", 10);
    for (const std::string& text : {std::string(), http, hugeRecord, emptyRecord, hugeHello, ssl2Hello, alert, early,
                                    std::string(70000, '\0'), std::string(70000, '\x16')}) {
        EXPECT_EQ(146U, lineOfAcceptAfter(text)) << text.size();
    }
}

TEST_F(SSLSocketPeersTest, ServersThatSpeakNoTlsAreRefusedAtLine97) {
    for (const std::string& text : {std::string("220 mail.example.org ESMTP\r\n"), std::string(70000, '\xff')}) {
        Socket plain = listening(Socket(true));
        auto client = std::async(std::launch::async,
                                 [&] { return endOf([&] { return ask(clientContext(), plain.localAddress()); }); });
        Socket peer = plain.accept();
        endOf([&] { return send(peer, text) > 0; });
        EXPECT_EQ(97U, client.get().line);
    }
}

TEST_F(SSLSocketPeersTest, PeerThatVanishesWhileWeSendNeverRaisesSigpipe) {
    Connection both = connected();
    SSL_set_quiet_shutdown(both.server, 1);
    both.server.close();
    End last;
    for (int i = 0; i < 200 && last.line == 0; ++i) {
        last = endOf([&] { return send(both.client, std::string(20000, 'x')) > 0; });
    }
    EXPECT_EQ(198U, last.line);
    EXPECT_EQ(5, last.number);
    for (int i = 0; i < 3; ++i) { // nor does what is done afterwards
        EXPECT_TRUE(isDocumented(endOf([&] { return send(both.client, "more") > 0; }), 97));
        EXPECT_TRUE(isDocumented(endOf([&] { return receive(both.client).empty(); }), 97));
    }
    both.client.close(); // the close notify meets the closed connection
}

TEST_F(SSLSocketPeersTest, SignalsOfTheProgramAreLeftAlone) {
    sigset_t pipe;
    sigset_t before;
    sigemptyset(&pipe);
    sigaddset(&pipe, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipe, &before);
    raise(SIGPIPE); // one of the program's own, pending
    {
        Connection both = connected();
        both.server.close();
        for (int i = 0; i < 20; ++i) {
            endOf([&] { return send(both.client, std::string(20000, 'x')) > 0; });
        }
    }
    sigset_t now;
    pthread_sigmask(SIG_SETMASK, nullptr, &now);
    EXPECT_EQ(1, sigismember(&now, SIGPIPE));
    const timespec noWait{};
    EXPECT_EQ(SIGPIPE, sigtimedwait(&pipe, nullptr, &noWait)) << "it is still there";
    EXPECT_EQ(-1, sigtimedwait(&pipe, nullptr, &noWait));
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

} // namespace
