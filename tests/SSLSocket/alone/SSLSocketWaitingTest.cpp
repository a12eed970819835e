// SSL sockets on descriptors that the program made non-blocking by itself: OpenSSL's calls come back at once, and the
// library has to do the waiting. What happens depends on what is called, never on how long it takes: the peer does
// something when the library waits, or when it has called OpenSSL so often that it obviously does not.

#include "support/Interpose.h"
#include "support/Tls.h"

#include <gmock/gmock.h>

#include <atomic>
#include <chrono>
#include <fcntl.h>
#include <functional>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <thread>

using namespace Norvane;
using namespace tlstesting;
using norvtest::next;

namespace {

constexpr int obviously = 100;

/// What one thread's calls come to.
struct Watch {
    std::function<void()> act; ///< done once, at the first wait or the call that is one too many
    short events = 0;          ///< the wait that it is done at
    int calls = 0;             ///< of SSL_read and SSL_write
    int waits = 0;
    int slow = 0; ///< so many waits to come last for a while

    void once();
};
thread_local Watch* s_watch = nullptr;
thread_local bool s_full = false; ///< the system takes nothing more for a connection

void Watch::once() {
    if (act) {
        const norvtest::During<Watch*> unwatched(s_watch, nullptr);
        std::exchange(act, nullptr)();
    }
}

void counted() {
    if (s_watch != nullptr && ++s_watch->calls == obviously) {
        s_watch->once();
    }
}

} // namespace

extern "C" {

int SSL_read(SSL* ssl, void* buffer, int length) {
    counted();
    return next<&SSL_read>("SSL_read")(ssl, buffer, length);
}

int SSL_write(SSL* ssl, const void* data, int length) {
    counted();
    return next<&SSL_write>("SSL_write")(ssl, data, length);
}

// Under another name here, since the system's declaration promises that nobody reads what is handed in.
int pollWatched(pollfd* polled, nfds_t count, int limit) asm("poll");
int pollWatched(pollfd* polled, nfds_t count, int limit) {
    if (s_watch != nullptr && (polled->events & s_watch->events) != 0) {
        ++s_watch->waits;
        s_watch->once();
        if (s_watch->slow != 0) {
            --s_watch->slow;
            std::this_thread::sleep_for(std::chrono::milliseconds(600));
        }
    }
    if (s_full && (polled->events & POLLOUT) != 0) {
        return 0;
    }
    return next<&pollWatched>("poll")(polled, count, limit);
}

ssize_t send(int descriptor, const void* data, std::size_t length, int flags) {
    if (s_full) {
        errno = EAGAIN;
        return -1;
    }
    return next<&::send>("send")(descriptor, data, length, flags);
}
}

namespace {

class SSLSocketWaitingTest : public TlsTest {
protected:
    Connection m_both = connected();

    void SetUp() override {
        TlsTest::SetUp();
        const int flags = fcntl(m_both.client.descriptor(), F_GETFL);
        ASSERT_EQ(0, fcntl(m_both.client.descriptor(), F_SETFL, flags | O_NONBLOCK));
        ASSERT_TRUE(m_both.client.isBlocking()) << "as far as the library knows";
    }
};

TEST_F(SSLSocketWaitingTest, ReceiveWaitsBetweenTwoReads) {
    Watch watch{[this] { tlstesting::send(m_both.server, "at last"); }, POLLIN};
    const norvtest::During<Watch*> watching(s_watch, &watch);
    EXPECT_EQ("at last", receive(m_both.client));
    EXPECT_EQ(1, watch.waits);
    EXPECT_EQ(2, watch.calls);
}

TEST_F(SSLSocketWaitingTest, ReceiveWaitsOnceForEachPieceOfARecord) {
    const std::string header = "\x17\x03\x03";
    Watch watch{[&] { ASSERT_EQ(3, write(m_both.server.descriptor(), header.data(), 3)); }, POLLIN};
    const norvtest::During<Watch*> watching(s_watch, &watch);
    auto ending = std::async(std::launch::async, [this] { m_both.server.shutdown(false, true); });
    EXPECT_EQ("", receive(m_both.client));
    ending.get();
    EXPECT_LE(watch.calls, watch.waits + 2);
}

TEST_F(SSLSocketWaitingTest, SendWaitsBetweenTwoWrites) {
    const std::string body(8000000, 'b'); // more than the system keeps for a peer that does not read
    std::promise<void> mayRead;
    auto reader = std::async(std::launch::async, [&] {
        mayRead.get_future().wait();
        return receive(m_both.server, body.size()).size();
    });
    Watch watch{[&] { mayRead.set_value(); }, POLLOUT};
    {
        const norvtest::During<Watch*> watching(s_watch, &watch);
        EXPECT_EQ(8000000, tlstesting::send(m_both.client, body));
    }
    EXPECT_EQ(body.size(), reader.get());
    EXPECT_GT(watch.waits, 0);
    EXPECT_EQ(watch.calls, watch.waits + 1);
}

TEST_F(SSLSocketWaitingTest, TimeLimitEndsSuchASend) {
    m_both.client.timeLimit(30);
    Watch watch{[this] { m_both.client.shutdown(); }, 0};
    const norvtest::During<Watch*> watching(s_watch, &watch);
    const auto thrown =
        norvtest::thrownBy<SocketException>([&] { tlstesting::send(m_both.client, std::string(20000000, 's')); });
    EXPECT_EQ(198U, thrown.lineNumber());
    EXPECT_THAT(thrown.parameters(), testing::Contains(Exception::Parameter(SSL_ERROR_WANT_WRITE)));
    EXPECT_LT(watch.calls, obviously);
}

TEST_F(SSLSocketWaitingTest, TimeLimitOfSuchASendIsForEachWait) {
    m_both.client.timeLimit(1000);
    const int small = 65536;
    ASSERT_EQ(0, setsockopt(m_both.client.descriptor(), SOL_SOCKET, SO_SNDBUF, &small, sizeof small));
    const std::string body(8000000, 's');
    auto reader = std::async(std::launch::async, [&] { return receive(m_both.server, body.size()).size(); });
    Watch watch{{}, POLLOUT};
    watch.slow = 3;
    {
        const norvtest::During<Watch*> watching(s_watch, &watch);
        EXPECT_NO_THROW(EXPECT_EQ(8000000, tlstesting::send(m_both.client, body)));
    }
    m_both.client.shutdown();
    EXPECT_EQ(body.size(), reader.get());
    EXPECT_EQ(0, watch.slow);
}

// The handshake that the server asks for anew cannot begin, and what follows the request is there to be read.
TEST_F(SSLSocketWaitingTest, ReceiveOfANonBlockingSocketThatHasToWriteFirstAnswersEagain) {
    m_both = connected(only(clientContext(), TLS1_2_VERSION), serverContext());
    m_both.client.blocking(false);
    BIO* const writing = SSL_get_wbio(m_both.server);
    const auto before = BIO_number_written(writing);
    ASSERT_EQ(1, SSL_renegotiate(m_both.server));
    ASSERT_EQ(1, SSL_do_handshake(m_both.server));
    ASSERT_EQ(4, SSL_write(m_both.server, "more", 4));
    int arrived = 0;
    while (static_cast<std::uint64_t>(arrived) < BIO_number_written(writing) - before) {
        ASSERT_EQ(0, ioctl(m_both.client.descriptor(), FIONREAD, &arrived));
    }
    const norvtest::During<bool> full(s_full, true);
    Watch watch{[] { s_full = false; }, 0};
    const norvtest::During<Watch*> watching(s_watch, &watch);
    EXPECT_EQ("", receive(m_both.client));
    EXPECT_EQ(EAGAIN, errno);
    EXPECT_EQ(SSL_WRITING, SSL_want(m_both.client));
    EXPECT_EQ(1, watch.calls);
}

} // namespace
