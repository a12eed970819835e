// SSL sockets as their users see them: both ends in one process, over loopback.

#include "support/Slots.h"
#include "support/Thrown.h"
#include "support/Tls.h"

#include <openssl/x509v3.h>

#include <gmock/gmock.h>

#include <sys/socket.h>

#include <cerrno>
#include <type_traits>

using namespace Norvane;
using namespace Norvane::Crypto;
using namespace Norvane::Crypto::NVSSL;
using namespace tlstesting;

namespace {

class SSLSocketTest : public TlsTest {};

/// One byte of room is enough for calls that are not to fill it.
uchar_t s_byte;

TEST_F(SSLSocketTest, ClassesAreLaidOutAsPromised) {
    static_assert(std::is_base_of_v<Socket, SSLSocket> && std::is_base_of_v<SocketImpl, SSLSocketImpl>);
    static_assert(sizeof(SSLSocket) == sizeof(Socket), "no fields of its own");
    EXPECT_EQ(2U, norvtest::slotOf(static_cast<Socket (SSLSocketImpl::*)()>(&SSLSocketImpl::accept)));
    EXPECT_EQ(3U, norvtest::slotOf(&SSLSocketImpl::send));
    EXPECT_EQ(4U, norvtest::slotOf(&SSLSocketImpl::readable));
    EXPECT_EQ(5U, norvtest::slotOf(&SSLSocketImpl::connect));
    EXPECT_EQ(6U, norvtest::slotOf(&SSLSocketImpl::receive));
}

TEST_F(SSLSocketTest, BytesGoBothWays) {
    for (const int version : {TLS1_2_VERSION, TLS1_3_VERSION}) {
        Connection both = connected(only(clientContext(), version), serverContext());
        EXPECT_EQ(version, SSL_version(both.client));
        EXPECT_EQ(version, SSL_version(both.server));
        EXPECT_EQ(5, send(both.client, "hello"));
        EXPECT_EQ("hello", receive(both.server));
        EXPECT_EQ(6, send(both.server, "world!"));
        EXPECT_EQ("world!", receive(both.client));
        EXPECT_TRUE(errorQueueIsEmpty());
    }
}

TEST_F(SSLSocketTest, Tls10ContextsShakeHandsWithEachOther) {
    Connection both = connected(context(clientSide, nullptr, ContextFactory::TLS_V1),
                                context(serverSide, &server(), ContextFactory::TLS_V1));
    EXPECT_EQ(TLS1_VERSION, SSL_version(both.client));
    send(both.client, "old");
    EXPECT_EQ("old", receive(both.server));
}

TEST_F(SSLSocketTest, IPv6ConnectsAsWell) {
    RefContext forServer = serverContext();
    SSLSocket listening = tlstesting::listening(SSLSocket(forServer, 10), "[::1]:0");
    Connection both = connectedTo(listening, clientContext());
    EXPECT_TRUE(both.client.remoteAddress().asINET().ipAddress().isV6());
    send(both.client, "six");
    EXPECT_EQ("six", receive(both.server));
}

TEST_F(SSLSocketTest, UnknownFamilyIsRefused) {
    RefContext none;
    expectFailure(thrownBy<SocketException>([&] { const SSLSocket socket(none, 1); }), "SocketImpl::set", 4,
                  "SocketImpl");
}

TEST_F(SSLSocketTest, SocketConnectsLaterToo) {
    SSLSocket listening = listener(serverContext());
    auto accepted = std::async(std::launch::async, [&] { return listening.accept(); });
    RefContext forClient = clientContext();
    SSLSocket late(forClient, 2);
    EXPECT_EQ(nullptr, static_cast<SSL*>(late));
    late.connect(listening.localAddress());
    Socket peer = accepted.get();
    send(late, "late");
    EXPECT_EQ("late", receive(peer));
}

TEST_F(SSLSocketTest, ConversionYieldsTheLiveConnection) {
    Connection both = connected();
    SSL* const client = both.client;
    SSL* const peer = both.server;
    ASSERT_NE(nullptr, client);
    ASSERT_NE(nullptr, peer);
    EXPECT_TRUE(SSL_is_init_finished(client));
    EXPECT_FALSE(SSL_is_server(client));
    EXPECT_TRUE(SSL_is_server(peer));
    EXPECT_EQ(1, X509_check_host(SSL_get0_peer_certificate(client), "localhost", 0, 0, nullptr));
    EXPECT_EQ(both.client.descriptor(), SSL_get_fd(client));
}

// OpenSSL would hand the connection to the kernel, past the writes that raise no signal.
TEST_F(SSLSocketTest, ConnectionsStayOutOfTheKernelsTls) {
    const RefContext forClient = clientContext();
    SSL_CTX_set_options(forClient, SSL_OP_ENABLE_KTLS); // as the machine's configuration may
    Connection both = connected(forClient, serverContext());
    EXPECT_EQ(0U, SSL_get_options(both.client) & SSL_OP_ENABLE_KTLS);
}

TEST_F(SSLSocketTest, HandleOnAnotherKindOfSocketHasNoConnection) {
    EXPECT_EQ(nullptr, static_cast<SSL*>(SSLSocket(Socket())));
    EXPECT_TRUE(SSLSocket(Socket()).isNull());
    EXPECT_TRUE(SSLSocket(Socket(true)).isNull()) << "a plain socket";
    RefContext none;
    SSLSocket socket(none, 2);
    static_cast<Socket&>(socket) = Socket(true);
    EXPECT_EQ(nullptr, static_cast<SSL*>(socket));
}

TEST_F(SSLSocketTest, HandlesShareTheConnection) {
    Connection both = connected();
    const Socket plainHandle = both.client;
    SSLSocket again(plainHandle);
    EXPECT_EQ(static_cast<SSL*>(both.client), static_cast<SSL*>(again));
    send(again, "shared");
    EXPECT_EQ("shared", receive(both.server));
}

TEST_F(SSLSocketTest, SocketsKeepTheirContextAlive) {
    RefContext forClient = clientContext();
    Connection both = connected(forClient, serverContext());
    EXPECT_EQ(2, forClient->referenceCount());
    forClient = RefContext();
    send(both.client, "alive");
    EXPECT_EQ("alive", receive(both.server));
}

TEST_F(SSLSocketTest, EmptyContextIsNoticedOnlyAfterThePlainConnectionWasMade) {
    Socket plain = listening(Socket(true));
    RefContext none;
    SSLSocket socket(none, 2);
    const auto thrown = thrownBy([&] { socket.connect(plain.localAddress()); });
    expectFailure(thrown, "virtual void Norvane::Crypto::NVSSL::SSLSocketImpl::connect(const Norvane::SocketAddress&)",
                  4, "SSLSocket", 62);
    EXPECT_EQ("NVSSL::Context must not be empty.", detailOf(thrown));
    EXPECT_TRUE(socket.connected());
    EXPECT_EQ(socket.localAddress(), plain.accept().remoteAddress());
}

TEST_F(SSLSocketTest, ConnectingConstructorFailsLikeConnect) {
    Socket plain = listening(Socket(true));
    RefContext none;
    expectFailure(thrownBy([&] { const SSLSocket socket(none, plain.localAddress()); }),
                  "virtual void Norvane::Crypto::NVSSL::SSLSocketImpl::connect(const Norvane::SocketAddress&)", 4,
                  "SSLSocket", 62);
}

TEST_F(SSLSocketTest, PlainConnectionThatFailsIsToldAsThePlainSocketTellsIt) {
    Socket plain = listening(Socket(true));
    const SocketAddress nobody = plain.localAddress();
    plain.close();
    RefContext none;
    expectFailure(thrownBy<SocketException>([&] { const SSLSocket socket(none, nobody); }), "SocketImpl::connect", 4,
                  "SocketImpl");
}

TEST_F(SSLSocketTest, AcceptingOnAnEmptyContextFailsAtLine107) {
    SSLSocket listening = listener(RefContext());
    const auto thrown = thrownBy([&] { static_cast<void>(listening.accept()); });
    expectFailure(thrown, "virtual Norvane::Socket Norvane::Crypto::NVSSL::SSLSocketImpl::accept()", 4, "SSLSocket",
                  107);
    EXPECT_EQ("NVSSL::Context must not be empty.", detailOf(thrown));
}

TEST_F(SSLSocketTest, NonBlockingListenerWithoutAConnectionAnswersANullHandle) {
    SSLSocket listening = listener(serverContext());
    listening.blocking(false);
    errno = 0;
    EXPECT_TRUE(listening.accept().isNull());
    EXPECT_EQ(EAGAIN, errno);
}

TEST_F(SSLSocketTest, SendingWithoutAConnectionFailsAtLine163) {
    RefContext forClient = clientContext();
    SSLSocket socket(forClient, 2);
    const auto thrown = thrownBy<SocketException>([&] { send(socket, "x"); });
    expectFailure(thrown, "SocketException", 1, "SSLSocket", 163);
    EXPECT_TRUE(thrown.parameters().empty());
}

TEST_F(SSLSocketTest, ReceivingWithoutAConnectionFailsAtLine212) {
    RefContext forClient = clientContext();
    SSLSocket socket(forClient, 2);
    const auto thrown = thrownBy<SocketException>([&] { socket.receive(&s_byte, 0); });
    expectFailure(thrown, "SocketException", 1, "SSLSocket", 212);
    EXPECT_TRUE(thrown.parameters().empty());
}

TEST_F(SSLSocketTest, ReadableIsAlwaysTrue) {
    RefContext none;
    EXPECT_TRUE(SSLSocket(none, 2).readable()) << "not even open";
    Connection both = connected();
    EXPECT_TRUE(both.client.readable()) << "nothing to read";
}

TEST_F(SSLSocketTest, DestructionSendsOneCloseNotify) {
    Connection both = connected();
    both.client.close();
    EXPECT_EQ("", receive(both.server));
    EXPECT_EQ(SSL_RECEIVED_SHUTDOWN, SSL_get_shutdown(both.server));
}

TEST_F(SSLSocketTest, DestructionLeavesTheErrorQueueAsItWas) {
    Connection both = connected();
    ERR_raise(ERR_LIB_SSL, SSL_R_BAD_LENGTH);
    both.client.close();
    EXPECT_EQ(SSL_R_BAD_LENGTH, ERR_GET_REASON(ERR_peek_error()));
    ERR_get_error();
    EXPECT_TRUE(errorQueueIsEmpty());
}

TEST_F(SSLSocketTest, ServersWithoutACertificateFailBothEnds) {
    SSLSocket listening = listener(context(serverSide));
    auto client = std::async(std::launch::async, [&] {
        const auto thrown = thrownBy<SocketException>([&] { dial(clientContext(), listening.localAddress()); });
        EXPECT_TRUE(errorQueueIsEmpty());
        return thrown;
    });
    const auto refused = thrownBy<SocketException>([&] { static_cast<void>(listening.accept()); });
    expectFailure(refused, "SocketException", 4, "SSLSocket", 146);
    EXPECT_THAT(detailOf(refused), testing::HasSubstr("no shared cipher; "));
    EXPECT_TRUE(errorQueueIsEmpty());
    const auto thrown = client.get();
    expectFailure(thrown, "SocketException", 4, "SSLSocket", 97);
    EXPECT_EQ("SSL_connect failed", detailOf(thrown));
    EXPECT_THAT(reasonOf(thrown), testing::HasSubstr("handshake failure; "));
}

TEST_F(SSLSocketTest, ListenerGoesOnAfterAFailedHandshake) {
    SSLSocket listening = listener(serverContext());
    Socket stranger(true);
    stranger.connect(listening.localAddress());
    send(stranger, "EHLO mail.example.org\r\n");
    const auto refused = thrownBy<SocketException>([&] { static_cast<void>(listening.accept()); });
    expectFailure(refused, "SocketException", 4, "SSLSocket", 146);
    EXPECT_THAT(detailOf(refused), testing::HasSubstr("wrong version number; "));
    Connection both = connectedTo(listening, clientContext());
    send(both.client, "next");
    EXPECT_EQ("next", receive(both.server));
}

TEST_F(SSLSocketTest, ConnectingAgainAfterAResetFreesTheFormerConnection) {
    Socket plain = tlstesting::listening(Socket(true));
    auto resetting = std::async(std::launch::async, [&] {
        Socket peer = plain.accept();
        EXPECT_TRUE(peer.readable()); // closing with bytes unread resets
    });
    RefContext forClient = clientContext();
    SSLSocket client(forClient, 2);
    expectFailure(thrownBy<SocketException>([&] { client.connect(plain.localAddress()); }), "SocketException", 4,
                  "SSLSocket", 97);
    resetting.get();
    SSLSocket listening = listener(serverContext());
    listening.timeLimit(10000);
    expectFailure(thrownBy<SocketException>([&] { client.connect(listening.localAddress()); }), "SocketImpl::connect",
                  4, "SocketImpl"); // the system tells the reset once more
    auto accepted = std::async(std::launch::async, [&] { return listening.accept(); });
    client.connect(listening.localAddress());
    Socket peer = accepted.get();
    send(client, "at last");
    EXPECT_EQ("at last", receive(peer));
}

TEST_F(SSLSocketTest, ConnectingAgainSendsNothingOfTheFormerConnection) {
    for (const int version : {TLS1_2_VERSION, TLS1_3_VERSION}) {
        SSLSocket listening = listener(serverContext());
        listening.timeLimit(10000);
        RefContext forClient = only(clientContext(), version);
        SSLSocket client(forClient, 2);
        auto resetting = std::async(std::launch::async, [&] {
            SSLSocket peer(listening.accept());
            const linger reset{1, 0};
            setsockopt(peer.descriptor(), SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
            SSL_set_quiet_shutdown(peer, 1);
        });
        client.connect(listening.localAddress());
        resetting.get();
        EXPECT_THROW(receive(client), SocketException);
        EXPECT_THROW(client.connect(listening.localAddress()), SocketException); // the system tells the reset once more
        auto accepted = std::async(std::launch::async, [&] { return listening.accept(); });
        client.connect(listening.localAddress());
        Socket peer = accepted.get();
        send(client, "at last");
        EXPECT_EQ("at last", receive(peer));
    }
}

TEST_F(SSLSocketTest, NonBlockingClientShakesHandsWithoutEnd) {
    SSLSocket listening = listener(serverContext());
    auto accepted = std::async(std::launch::async, [&] { return listening.accept(); });
    RefContext forClient = clientContext();
    SSLSocket client(forClient, 2);
    client.blocking(false);
    client.connect(listening.localAddress()); // tries again and again until it is through
    Socket peer = accepted.get();
    EXPECT_TRUE(SSL_is_init_finished(client));
    send(client, "through");
    EXPECT_EQ("through", receive(peer));
}

TEST_F(SSLSocketTest, TimeLimitEndsAHandshakeWithASilentServer) {
    Socket silent = listening(Socket(true));
    RefContext forClient = clientContext();
    SSLSocket client(forClient, 2);
    client.timeLimit(30);
    const auto thrown = thrownBy<SocketException>([&] { client.connect(silent.localAddress()); });
    expectFailure(thrown, "SocketException", 4, "SSLSocket", 97);
    EXPECT_THAT(reasonOf(thrown), testing::HasSubstr("Connection timed out"));
    EXPECT_TRUE(errorQueueIsEmpty());
}

TEST_F(SSLSocketTest, TimeLimitOfTheListenerEndsAHandshakeWithASilentClient) {
    SSLSocket listening = listener(serverContext());
    listening.timeLimit(30);
    Socket silent(true);
    silent.connect(listening.localAddress());
    const auto thrown = thrownBy<SocketException>([&] { static_cast<void>(listening.accept()); });
    expectFailure(thrown, "SocketException", 4, "SSLSocket", 146);
    EXPECT_THAT(detailOf(thrown), testing::HasSubstr("Connection timed out; "));
}

} // namespace
