#include <norvcmsg/Socket.h>

#include "Sockets.h"
#include "support/Slots.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace sockets;
using Norvane::Socket;
using Norvane::SocketAddress;
using Norvane::SocketImpl;
using Norvane::uchar_t;

/// Ends the connection of `socket` with a reset.
void closeWithReset(Socket& socket) {
    const linger none{1, 0};
    ASSERT_EQ(setsockopt(socket.descriptor(), SOL_SOCKET, SO_LINGER, &none, sizeof none), 0);
    socket.close();
}

bool closesOnExec(const Socket& socket) {
    return (fcntl(socket.descriptor(), F_GETFD) & FD_CLOEXEC) != 0;
}

bool blocks(const Socket& socket) {
    return (fcntl(socket.descriptor(), F_GETFL) & O_NONBLOCK) == 0;
}

class SocketOf : public testing::TestWithParam<const char*> {
protected:
    void SetUp() override {
        try {
            m_listener = listening(m_address);
        } catch (const Norvane::SocketException& failure) {
            if (m_address.family() == AF_INET) {
                throw;
            }
            GTEST_SKIP() << "no IPv6 on the loopback interface: " << failure.what();
        }
    }
    const SocketAddress m_address{GetParam()};
    Socket m_listener;
};

TEST_P(SocketOf, BytesGoBothWaysAndTheEndIsTold) {
    Pair pair(m_listener);
    EXPECT_EQ(send(pair.client, "HELO"), 4);
    EXPECT_EQ(receive(pair.server), "HELO");
    EXPECT_EQ(send(pair.server, "250"), 3);
    EXPECT_EQ(receive(pair.client), "250");
    pair.client.close();
    EXPECT_TRUE(pair.client.isNull());
    errno = EAGAIN;
    EXPECT_EQ(receive(pair.server), "");
    EXPECT_EQ(errno, 0) << "the end, not a lack of bytes";
    EXPECT_EQ(receive(pair.server), "") << "again and again";
}

TEST_P(SocketOf, AddressesAreTold) {
    Pair pair(m_listener);
    EXPECT_NE(m_listener.localAddress().port(), 0);
    EXPECT_EQ(m_listener.localAddress().asINET().ipAddress(), m_address.asINET().ipAddress());
    EXPECT_EQ(pair.client.remoteAddress(), m_listener.localAddress());
    EXPECT_EQ(pair.server.remoteAddress(), pair.client.localAddress());
    EXPECT_EQ(pair.server.localAddress(), m_listener.localAddress());
    EXPECT_EQ(failureOf([&] { return m_listener.remoteAddress(); }), "SocketImpl::remoteAddress (1): not connected");
}

TEST_P(SocketOf, ABlockingSendTakesEverything) {
    Pair pair(m_listener);
    const auto text = pattern(8'000'000);
    std::string got;
    std::thread reader([&] { got = receiveAll(pair.server); });
    EXPECT_EQ(send(pair.client, text), 8'000'000);
    pair.client.shutdown(false, true);
    reader.join();
    EXPECT_EQ(got, text);
}

TEST_P(SocketOf, ARefusedConnectionIsToldAndAnotherAddressMayBeTried) {
    Socket closed = listening(m_address);
    const auto address = closed.localAddress();
    closed.close();
    Socket client(true);
    EXPECT_EQ(failureOf([&] { client.connect(address); }),
              "SocketImpl::connect (4): " + address.asString() + ": Connection refused (111)");
    EXPECT_EQ(client.descriptor(), -1);
    EXPECT_FALSE(client.connected());
    client.connect(m_listener.localAddress());
    EXPECT_TRUE(client.connected());
}

TEST_P(SocketOf, DescriptorsAreClosedInOtherPrograms) {
    const Pair pair(m_listener);
    EXPECT_TRUE(closesOnExec(m_listener));
    EXPECT_TRUE(closesOnExec(pair.client));
    EXPECT_TRUE(closesOnExec(pair.server));
}

TEST_P(SocketOf, TheSameAddressTwiceIsRefused) {
    EXPECT_EQ(failureOf([&] { listening(m_listener.localAddress()); }),
              "SocketImpl::bind (4): " + m_listener.localAddress().asString() + ": Address already in use (98)");
    Socket strict(true);
    strict.set(Socket::STREAM, false, false, m_address.family());
    EXPECT_EQ(failureOf([&] { strict.bind(m_listener.localAddress()); }),
              "SocketImpl::bind (4): " + m_listener.localAddress().asString() + ": Address already in use (98)");
    EXPECT_EQ(strict.descriptor(), -1);
}

TEST_P(SocketOf, AFadingConnectionKeepsThePortOnlyWithoutReuse) {
    const auto address = m_listener.localAddress();
    Pair pair(m_listener);
    // Who ends first keeps the port for a while.
    pair.server.close();
    EXPECT_EQ(receive(pair.client), "");
    pair.client.close();
    m_listener.close();
    Socket strict(true);
    strict.set(Socket::STREAM, false, false, address.family());
    EXPECT_EQ(failureOf([&] { strict.bind(address); }),
              "SocketImpl::bind (4): " + address.asString() + ": Address already in use (98)");
    EXPECT_EQ(listening(address).localAddress(), address);
}

INSTANTIATE_TEST_SUITE_P(Families, SocketOf, testing::Values("127.0.0.1:0", "[::1]:0"));

TEST(Socket, TheVirtualOperationsStandInTheirOrder) {
    EXPECT_EQ(norvtest::slotOf<Socket (SocketImpl::*)()>(&SocketImpl::accept), 2U);
    EXPECT_EQ(norvtest::slotOf(&SocketImpl::send), 3U);
    EXPECT_EQ(norvtest::slotOf(&SocketImpl::readable), 4U);
    EXPECT_EQ(norvtest::slotOf(&SocketImpl::connect), 5U);
    EXPECT_EQ(norvtest::slotOf(&SocketImpl::receive), 6U);
}

/// What a derived body may use.
class Derived : public SocketImpl {
public:
    bool readable() override { return true; }
    int receive(uchar_t* buffer, Norvane::uint_t length) override {
        const Norvane::Synchronized lock(m_mutex);
        errno = EAGAIN;
        return SocketImpl::readable() ? SocketImpl::receive(buffer, length) : 0;
    }
    [[nodiscard]] bool waits() const { return m_blocking; }
    [[nodiscard]] int own() const { return m_descriptor; }
};

TEST(Socket, ADerivedBodyOverridesAndUsesThePlainOperations) {
    class Handle : public Socket {
    public:
        Handle() : Socket(false) { reset(Norvane::makeReference<Derived, SocketImpl>()); }
        [[nodiscard]] Derived& derived() const { return static_cast<Derived&>(*bodyOrNull()); }
    };
    EXPECT_TRUE(Socket(false).isNull());
    Socket listener = listening();
    Socket client(true);
    client.connect(listener.localAddress());
    Handle server;
    ASSERT_TRUE(listener->accept(&*server));
    EXPECT_TRUE(server.readable()) << "the override answers";
    send(client, "bytes");
    EXPECT_EQ(receive(server), "bytes");
    EXPECT_TRUE(server.derived().waits());
    EXPECT_EQ(server.derived().own(), server.descriptor());
    const Socket plain = server;
    server.blocking(false);
    EXPECT_FALSE(server.derived().waits());
    EXPECT_EQ(receive(server), "");
    EXPECT_EQ(errno, EAGAIN);
    client.close();
    EXPECT_EQ(receive(server), "");
    EXPECT_EQ(errno, 0);
}

TEST(Socket, ATargetOfAcceptMustNotBeOpen) {
    Socket listener = listening();
    Pair pair(listener);
    EXPECT_EQ(failureOf([&] { EXPECT_FALSE(listener->accept(&*pair.server)); }),
              "SocketImpl::accept (4): Transport endpoint is already connected (106)");
    EXPECT_EQ(failureOf([&] { EXPECT_FALSE(listener->accept(nullptr)); }), "SocketImpl::accept (4): Bad address (14)");
}

TEST(Socket, AListenerNeverBlocksInTheSystem) {
    Socket listener(true);
    listener.bind(v4Any);
    listener.blocking(true);
    listener.listen();
    EXPECT_FALSE(blocks(listener)) << "a connection that vanishes must not make accept wait beyond the time limit";
    listener.blocking(true);
    EXPECT_FALSE(blocks(listener));
}

TEST(Socket, MovesAConnectionIntoAnotherBody) {
    Socket listener = listening(SocketAddress("127.0.0.1:0"));
    Socket from(true);
    from.timeLimit(1234);
    from.connect(listener.localAddress());
    from.blocking(false);
    Socket peer = listener.accept();
    const int descriptor = from.descriptor();
    Socket into(true);
    from->moveTo(*into);
    EXPECT_EQ(descriptor, into.descriptor());
    EXPECT_EQ(-1, from.descriptor());
    EXPECT_FALSE(into.isBlocking());
    EXPECT_EQ(1234U, into.timeLimit());
    from.close();
    EXPECT_EQ(1, into.send(reinterpret_cast<const uchar_t*>("x"), 1)) << "the first body closed nothing";
    uchar_t got = 0;
    EXPECT_EQ(1, peer.receive(&got, 1));
    EXPECT_EQ('x', got);

    const auto codeOf = [](Socket& socket, Socket& target) {
        try {
            socket->moveTo(*target);
        } catch (const Norvane::SocketException& failure) {
            EXPECT_EQ("SocketImpl::moveTo", failure.where());
            return failure.code();
        }
        return 0;
    };
    Socket closed(true);
    EXPECT_EQ(1, codeOf(closed, into));
    EXPECT_EQ(4, codeOf(peer, into)) << "the target is open";
    EXPECT_EQ(4, codeOf(into, into));
    EXPECT_EQ(4, codeOf(listener, closed)) << "it listens";
}

TEST(Socket, AnAcceptedSocketIsBlockingAndATargetKeepsItsMode) {
    Socket listener = listening();
    listener.blocking(false);
    Pair pair(listener);
    EXPECT_TRUE(pair.server.isBlocking());
    EXPECT_TRUE(blocks(pair.server));
    EXPECT_TRUE(blocks(pair.client));
    Socket target(true);
    target.blocking(false);
    Socket client(true);
    client.connect(listener.localAddress());
    ASSERT_TRUE(listener->accept(&*target));
    EXPECT_FALSE(blocks(target));
    target.blocking(true);
    EXPECT_TRUE(blocks(target));
}

TEST(Socket, SetTakesTcpOverBothFamiliesAlone) {
    Socket socket(true);
    EXPECT_EQ(failureOf([&] { socket.set(static_cast<Socket::Type>(2), false, true, AF_INET); }),
              "SocketImpl::set (4): Socket type not supported (94)");
    EXPECT_EQ(failureOf([&] { socket.set(Socket::STREAM, false, true, AF_UNIX); }),
              "SocketImpl::set (4): Address family not supported by protocol (97)");
    socket.set(Socket::STREAM, true, true, AF_INET);
    EXPECT_FALSE(socket.isBlocking());
    socket.set(Socket::STREAM, false, true, AF_INET);
    EXPECT_TRUE(socket.isBlocking());
    EXPECT_EQ(socket.descriptor(), -1) << "nothing is opened";
}

TEST(Socket, SetOfAConnectedSocketChangesItsModeAlone) {
    Pair pair;
    pair.client.set(Socket::STREAM, true, true, AF_INET6);
    EXPECT_FALSE(blocks(pair.client));
    pair.client.set(Socket::STREAM, false, true, AF_INET6);
    EXPECT_TRUE(blocks(pair.client));
    EXPECT_EQ(send(pair.client, "still there"), 11);
    EXPECT_EQ(receive(pair.server), "still there");
}

TEST(Socket, ListensWithoutAnAddressOnTheFamilyThatWasSet) {
    Socket socket(true);
    socket.set(Socket::STREAM, false, true, AF_INET);
    EXPECT_THROW(socket.connect(SocketAddress("[::1]:1")), Norvane::SocketException); // changes nothing of it
    socket.listen();
    EXPECT_EQ(socket.localAddress().asINET().ipAddress().asString(), "0.0.0.0");
    EXPECT_NE(socket.localAddress().port(), 0);
}

TEST(Socket, AnIpv6ListenerLeavesThePortToIpv4) {
    Socket v6(true);
    try {
        v6.bind(SocketAddress("[::]:0"));
    } catch (const Norvane::SocketException& failure) {
        GTEST_SKIP() << "no IPv6 here: " << failure.what();
    }
    v6.listen();
    const auto port = v6.localAddress().port();
    const Socket v4 = listening(SocketAddress(Norvane::IPAddress::fromText("0.0.0.0"), port));
    EXPECT_EQ(v4.localAddress().port(), port);
}

TEST(Socket, WhatIsNotOpenIsNotConnected) {
    Socket socket(true);
    uchar_t byte = 0;
    EXPECT_EQ(failureOf([&] { socket.send(&byte, 1); }), "SocketImpl::send (1): not connected");
    EXPECT_EQ(failureOf([&] { socket.receive(&byte, 1); }), "SocketImpl::receive (1): not connected");
    EXPECT_EQ(failureOf([&] { return socket.readable(); }), "SocketImpl::readable (1): not connected");
    EXPECT_EQ(failureOf([&] { return socket.writable(); }), "SocketImpl::writable (1): not connected");
    EXPECT_EQ(failureOf([&] { return socket.accept(); }), "SocketImpl::accept (1): not connected");
    EXPECT_EQ(failureOf([&] { socket.shutdown(); }), "SocketImpl::shutdown (1): not connected");
    EXPECT_EQ(failureOf([&] { socket.noDelay(true); }), "SocketImpl::noDelay (1): not connected");
    EXPECT_EQ(failureOf([&] { return socket.localAddress(); }), "SocketImpl::localAddress (1): not connected");
    EXPECT_EQ(failureOf([&] { return socket.remoteAddress(); }), "SocketImpl::remoteAddress (1): not connected");
    socket.bind(v4Any);
    EXPECT_EQ(failureOf([&] { socket.receive(&byte, 1); }), "SocketImpl::receive (1): not connected");
    EXPECT_EQ(failureOf([&] { return socket.accept(); }), "SocketImpl::accept (4): Invalid argument (22)");
    EXPECT_FALSE(socket.connected());
}

TEST(Socket, ANullAddressIsNone) {
    Socket socket(true);
    EXPECT_EQ(failureOf([&] { socket.connect(SocketAddress()); }), "SocketImpl::connect (4): no address");
    EXPECT_EQ(failureOf([&] { socket.bind(SocketAddress()); }), "SocketImpl::bind (4): no address");
}

TEST(Socket, ABoundSocketConnectsFromItsAddress) {
    Socket listener = listening();
    Socket client(true);
    client.bind(v4Any);
    const auto from = client.localAddress();
    client.connect(listener.localAddress());
    EXPECT_EQ(listener.accept().remoteAddress(), from);
    EXPECT_TRUE(blocks(client));
    EXPECT_EQ(failureOf([&] { client.connect(from); }),
              "SocketImpl::connect (4): " + from.asString() + ": Transport endpoint is already connected (106)");
    EXPECT_TRUE(client.connected()) << "the connection that stands is left alone";
}

TEST(Socket, TheConnectionClosesWithItsLastHandle) {
    Pair pair;
    Socket other = pair.client;
    pair.client.close();
    send(other, "open");
    EXPECT_EQ(receive(pair.server), "open");
    other = Socket();
    EXPECT_EQ(receive(pair.server), "");
}

TEST(Socket, EndingOneDirectionLeavesTheOther) {
    Pair pair;
    send(pair.client, "question");
    pair.client.shutdown(false, true);
    EXPECT_EQ(receiveAll(pair.server), "question");
    send(pair.server, "answer");
    EXPECT_EQ(receive(pair.client), "answer");
    pair.client.shutdown(false, false);
    pair.client.shutdown();
    EXPECT_EQ(receive(pair.client), "");
}

TEST(Socket, AResetByThePeerIsAFailureOfReceiving) {
    Pair pair;
    closeWithReset(pair.server);
    EXPECT_EQ(failureOf([&] { receive(pair.client); }), "SocketImpl::receive (4): Connection reset by peer (104)");
    EXPECT_NO_THROW(pair.client.shutdown()) << "ended already";
}

TEST(Socket, SendingIntoAResetConnectionRaisesNoSignal) {
    Pair pair;
    closeWithReset(pair.server);
    EXPECT_EQ(failureOf([&] { send(pair.client, "x"); }), "SocketImpl::send (4): Connection reset by peer (104)");
    EXPECT_EQ(failureOf([&] { send(pair.client, "x"); }), "SocketImpl::send (4): Broken pipe (32)");
}

TEST(Socket, SendingWhatAnIntDoesNotCountIsRefused) {
    Pair pair;
    const uchar_t byte = 0;
    EXPECT_EQ(failureOf([&] { pair.client.send(&byte, 0x80000000U); }), "SocketImpl::send (4): Message too long (90)");
    EXPECT_EQ(pair.client.send(nullptr, 0), 0);
    EXPECT_EQ(pair.client.receive(nullptr, 0), 0);
}

TEST(Socket, SmallPiecesMayGoAtOnce) {
    Pair pair;
    const auto isOn = [&] {
        int on = 0;
        socklen_t length = sizeof on;
        EXPECT_EQ(getsockopt(pair.client.descriptor(), 6, 1, &on, &length), 0); // TCP_NODELAY
        return on != 0;
    };
    pair.client.noDelay(true);
    EXPECT_TRUE(isOn());
    pair.client.noDelay(false);
    EXPECT_FALSE(isOn());
}

TEST(Socket, DescriptorsBeyondThoseOfSelectWork) {
    constexpr int beyond = 1100;
    rlimit limit{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    const rlimit before = limit;
    limit.rlim_cur = limit.rlim_max;
    if (limit.rlim_max < beyond + 100 || setrlimit(RLIMIT_NOFILE, &limit) != 0) {
        GTEST_SKIP() << "only " << limit.rlim_max << " descriptors are allowed";
    }
    std::vector<int> taken;
    while (taken.empty() || (taken.back() >= 0 && taken.back() < beyond)) {
        taken.push_back(dup(STDERR_FILENO));
    }
    {
        Pair pair;
        EXPECT_GT(pair.client.descriptor(), beyond);
        pair.server.timeLimit(10'000);
        send(pair.client, "x");
        EXPECT_TRUE(pair.server.readable());
        EXPECT_EQ(receive(pair.server), "x");
    }
    for (const int descriptor : taken) {
        ::close(descriptor);
    }
    setrlimit(RLIMIT_NOFILE, &before);
}

TEST(Socket, ANullHandleThrowsAsHandlesDo) {
    Socket none;
    EXPECT_THROW(none.listen(), Norvane::Exception);
    EXPECT_THROW(static_cast<void>(none.localAddress()), Norvane::Exception);
    EXPECT_NO_THROW(none.close());
}

} // namespace
