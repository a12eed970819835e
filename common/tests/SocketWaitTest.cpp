// Who waits, and for how long: non-blocking sockets and time limits.

#include <norvcmsg/Sleep.h>
#include <norvcmsg/Socket.h>

#include "Sockets.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace sockets;
using Norvane::Socket;
using Norvane::SocketAddress;

constexpr unsigned int soon = 20;

TEST(SocketWait, ANonBlockingSocketReportsThatThereIsNothingYet) {
    Pair pair;
    pair.client.blocking(false);
    errno = 0;
    EXPECT_EQ(receive(pair.client), "");
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_FALSE(pair.client.readable());
    send(pair.server, "now");
    pair.client.blocking(true);
    EXPECT_TRUE(pair.client.readable());
    pair.client.blocking(false);
    EXPECT_TRUE(pair.client.readable());
    EXPECT_EQ(receive(pair.client), "now");
    pair.server.close();
    pair.client.blocking(true);
    EXPECT_TRUE(pair.client.readable()) << "the end can be read";
    pair.client.blocking(false);
    EXPECT_EQ(receive(pair.client), "");
    EXPECT_EQ(errno, 0);
}

TEST(SocketWait, ANonBlockingSendTakesWhatFitsAndLosesNothing) {
    Pair pair;
    pair.client.blocking(false);
    const auto text = pattern(64'000'000);
    std::size_t sent = static_cast<std::size_t>(send(pair.client, text));
    EXPECT_GT(sent, 0U);
    ASSERT_LT(sent, text.size()) << "more than the system buffers";
    EXPECT_EQ(errno, EAGAIN);
    std::string got;
    std::thread reader([&] { got = receiveAll(pair.server); });
    while (sent < text.size()) {
        pair.client.blocking(true);
        EXPECT_TRUE(pair.client.writable());
        pair.client.blocking(false);
        sent += static_cast<std::size_t>(send(pair.client, text.substr(sent, 1'000'000)));
    }
    pair.client.shutdown();
    reader.join();
    EXPECT_TRUE(got == text);
}

TEST(SocketWait, ANonBlockingSocketThatIsFullTakesNothing) {
    Pair pair;
    pair.client.blocking(false);
    const auto text = pattern(1'000'000);
    while (send(pair.client, text) > 0) {
    }
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_FALSE(pair.client.writable());
    pair.client.blocking(true);
    pair.client.timeLimit(soon);
    EXPECT_EQ(failureOf([&] { send(pair.client, text); }), "SocketImpl::send (4): Connection timed out (110)");
}

TEST(SocketWait, ANonBlockingListenerAnswersNoHandle) {
    Socket listener = listening();
    listener.blocking(false);
    errno = 0;
    EXPECT_TRUE(listener.accept().isNull());
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_FALSE(listener.readable());
    Socket client(true);
    client.connect(listener.localAddress());
    listener.blocking(true);
    EXPECT_TRUE(listener.readable());
    listener.blocking(false);
    EXPECT_EQ(listener.accept().remoteAddress(), client.localAddress());
}

TEST(SocketWait, ANonBlockingConnectIsAskedLater) {
    Socket listener = listening();
    Socket client(true);
    client.blocking(false);
    client.connect(listener.localAddress());
    EXPECT_TRUE(errno == EINPROGRESS || errno == 0) << errno;
    Socket server = listener.accept();
    client.blocking(true);
    EXPECT_TRUE(client.writable());
    EXPECT_TRUE(client.connected());
    send(client, "hello");
    EXPECT_EQ(receive(server), "hello");
}

TEST(SocketWait, ANonBlockingConnectThatIsRefusedIsToldWhenAsked) {
    Socket closed = listening();
    const auto address = closed.localAddress();
    closed.close();
    Socket client(true);
    client.blocking(false);
    const auto refused = "SocketImpl::connect (4): " + address.asString() + ": Connection refused (111)";
    EXPECT_EQ(failureOf([&] {
                  client.connect(address);
                  client.blocking(true);
                  EXPECT_TRUE(client.writable());
                  static_cast<void>(client.connected());
              }),
              refused);
    EXPECT_FALSE(client.connected()) << "told once";
}

TEST(SocketWait, EveryWaitKeepsTheTimeLimit) {
    Pair pair;
    EXPECT_EQ(pair.client.timeLimit(), 0U);
    pair.client.timeLimit(soon);
    EXPECT_EQ(pair.client.timeLimit(), soon);
    EXPECT_EQ(failureOf([&] { receive(pair.client); }), "SocketImpl::receive (4): Connection timed out (110)");
    EXPECT_EQ(failureOf([&] { return pair.client.readable(); }),
              "SocketImpl::readable (4): Connection timed out (110)");
    send(pair.server, "late");
    EXPECT_EQ(receive(pair.client), "late") << "the connection stands as before";
    Socket listener = listening();
    listener.timeLimit(soon);
    EXPECT_EQ(failureOf([&] { return listener.accept(); }), "SocketImpl::accept (4): Connection timed out (110)");
}

TEST(SocketWait, AConnectToAHostThatDoesNotAnswerKeepsTheTimeLimit) {
    Socket listener(true);
    listener.bind(v4Any);
    listener.listen(0);
    // The kernel drops what comes once the queue is full.
    std::vector<Socket> waiting;
    std::string told = "none";
    while (waiting.size() < 10 && told == "none") {
        waiting.emplace_back(true);
        waiting.back().timeLimit(200);
        told = failureOf([&] { waiting.back().connect(listener.localAddress()); });
    }
    EXPECT_EQ(told, "SocketImpl::connect (4): " + listener.localAddress().asString() + ": Connection timed out (110)");
    EXPECT_EQ(waiting.back().descriptor(), -1);
}

TEST(SocketWait, ABlockingSocketWaitsForWhatComes) {
    Pair pair;
    std::thread later([&] {
        Norvane::pause(0, soon);
        send(pair.server, "later");
    });
    EXPECT_TRUE(pair.client.readable());
    EXPECT_EQ(receive(pair.client), "later");
    later.join();
}

} // namespace
