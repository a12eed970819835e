// SSL sockets of a program in which a timer's signal interrupts every system call that waits.

#include "support/Thrown.h"
#include "support/Tls.h"

#include <gmock/gmock.h>

#include <sys/socket.h>
#include <sys/time.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <thread>

using namespace Norvane;
using namespace tlstesting;

namespace {

std::atomic<int> s_signals = 0;

void count(int /*signal*/) {
    ++s_signals;
}

/// A signal every millisecond, for the thread of the test too.
class SSLSocketSignalsTest : public TlsTest {
protected:
    void SetUp() override {
        TlsTest::SetUp();
        server(); // not under fire
        struct sigaction action {};
        action.sa_handler = count; // without SA_RESTART
        sigaction(SIGALRM, &action, &m_before);
        const itimerval often{{0, 1000}, {0, 1000}};
        setitimer(ITIMER_REAL, &often, nullptr);
        s_signals = 0;
    }
    void TearDown() override {
        const itimerval never{};
        setitimer(ITIMER_REAL, &never, nullptr);
        sigaction(SIGALRM, &m_before, nullptr);
        // How many is the system's to say: it makes one of those that come before the thread runs again.
        EXPECT_GT(s_signals, 0);
    }

private:
    struct sigaction m_before {};
};

/// Ends both directions of a socket after a time that only a wait without end lasts.
class Rescue {
public:
    explicit Rescue(Socket socket)
        : m_thread([this, socket]() mutable {
              for (int i = 0; i < 200 && !m_over; ++i) {
                  std::this_thread::sleep_for(std::chrono::milliseconds(50));
              }
              socket.shutdown();
          }) {}
    Rescue(const Rescue&) = delete;
    Rescue& operator=(const Rescue&) = delete;
    ~Rescue() {
        m_over = true;
        m_thread.join();
    }

private:
    std::atomic<bool> m_over = false;
    std::thread m_thread;
};

TEST_F(SSLSocketSignalsTest, NeitherHandshakesNorTransfersAreInterrupted) {
    for (const Norvane::uint_t limit : {0U, 10000U}) {
        Connection both = connected();
        both.client.timeLimit(limit);
        const std::string body(4000000, 'b');
        auto echo = std::async(std::launch::async, [&] {
            const std::string got = receive(both.server, body.size());
            std::this_thread::sleep_for(std::chrono::milliseconds(20)); // lets the other wait
            return send(both.server, got);
        });
        EXPECT_EQ(static_cast<int>(body.size()), send(both.client, body));
        EXPECT_TRUE(receive(both.client, body.size()) == body);
        EXPECT_EQ(static_cast<int>(body.size()), echo.get());
    }
}

TEST_F(SSLSocketSignalsTest, TimeLimitEndsAHandshakeAllTheSame) {
    SSLSocket listening = listener(serverContext());
    listening.timeLimit(60);
    Socket silent(true);
    silent.connect(listening.localAddress());
    const Rescue rescue(silent);
    const auto thrown = thrownBy<SocketException>([&] { static_cast<void>(listening.accept()); });
    expectFailure(thrown, "SocketException", 4, "SSLSocket", 146);
    EXPECT_THAT(detailOf(thrown), testing::HasSubstr("Connection timed out; "));
}

TEST_F(SSLSocketSignalsTest, TimeLimitEndsASendThatNobodyReadsAllTheSame) {
    Connection both = connected();
    both.client.timeLimit(60);
    const Rescue rescue(both.client);
    const auto thrown = thrownBy<SocketException>([&] { send(both.client, std::string(20000000, 's')); });
    expectFailure(thrown, "SocketException", 4, "SSLSocket", 198);
    ASSERT_EQ(2U, thrown.parameters().size());
    EXPECT_EQ(Exception::Parameter(SSL_ERROR_WANT_WRITE), thrown.parameters()[1]);
}

TEST_F(SSLSocketSignalsTest, PeerThatIsSlowYetNotSilentKeepsTheLimit) {
    SSLSocket listening = listener(serverContext());
    listening.timeLimit(1500);
    Socket slow(true);
    slow.connect(listening.localAddress());
    std::thread writer([&] {
        const std::string hello("\x16\x03\x01\x01\x00\x01\x00\x00\xfc\x03\x03", 11);
        for (const char byte : hello) { // longer than the limit in all
            std::this_thread::sleep_for(std::chrono::milliseconds(150));
            ::send(slow.descriptor(), &byte, 1, MSG_NOSIGNAL);
        }
        slow.shutdown(false, true);
    });
    const auto thrown = thrownBy<SocketException>([&] { static_cast<void>(listening.accept()); });
    writer.join();
    expectFailure(thrown, "SocketException", 4, "SSLSocket", 146);
    EXPECT_THAT(detailOf(thrown), testing::HasSubstr("unexpected eof"));
}

} // namespace
