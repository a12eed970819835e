// STARTTLS: TLS over a plain connection that stands.

#include "support/Tls.h"

#include <norvcmsg/Buffer.h>

#include <gmock/gmock.h>

#include <fcntl.h>
#include <poll.h>

using namespace Norvane;
using namespace tlstesting;
using Norvane::Crypto::NVSSL::ConnectionOptions;
using testing::HasSubstr;

namespace {

constexpr const char* consent = "220 go ahead\r\n";

ConnectionOptions limited() {
    ConnectionOptions options;
    options.handshakeLimit = 20000;
    return options;
}

Buffer bufferOf(const std::string& text) {
    return {text.data(), static_cast<unsigned int>(text.size()), false};
}

class SSLSocketUpgradeTest : public TlsTest {
protected:
    Socket m_listening = listening(Socket(true));
    Socket m_client{true};
    Socket m_server;
    RefContext m_forClient = clientContext();
    RefContext m_forServer = serverContext();

    void SetUp() override {
        TlsTest::SetUp();
        m_client.connect(m_listening.localAddress());
        m_server = m_listening.accept();
    }
    static void waitForBytes(const Socket& socket) {
        pollfd polled{socket.descriptor(), POLLIN, 0};
        ASSERT_EQ(1, poll(&polled, 1, 20000));
    }
};

TEST_F(SSLSocketUpgradeTest, BothSidesGoOnUnderTls) {
    m_client.timeLimit(15000);
    Socket copy = m_client;
    auto serving = std::async(std::launch::async, [this] {
        EXPECT_EQ("STARTTLS\r\n", receive(m_server, 10));
        send(m_server, consent);
        SSLSocket secured = SSLSocket::upgradeServer(m_forServer, m_server, Buffer(), limited());
        EXPECT_EQ("EHLO", receive(secured, 4));
        EXPECT_EQ("relay.example", secured.session().serverName);
        send(secured, "250");
    });
    send(m_client, "STARTTLS\r\n");
    EXPECT_EQ(consent, receive(m_client, 14));
    const SocketAddress from = m_client.localAddress();
    ConnectionOptions options = limited();
    options.hostName = "relay.example";
    SSLSocket secured = SSLSocket::upgradeClient(m_forClient, m_client, Buffer(), options);
    EXPECT_EQ(from.asString(), secured.localAddress().asString());
    EXPECT_EQ(15000U, secured.timeLimit());
    EXPECT_TRUE(secured.isBlocking());
    EXPECT_EQ(-1, m_client.descriptor());
    EXPECT_EQ(1, thrownBy<SocketException>([&] { send(copy, "plain"); }).code()) << "no handle sends in plain text";
    send(secured, "EHLO");
    EXPECT_EQ("250", receive(secured, 3));
    EXPECT_EQ("TLSv1.3", secured.session().protocol);
    serving.get();
    EXPECT_EQ("", receive(secured));
}

TEST_F(SSLSocketUpgradeTest, PlainTextThatWasReceivedIsRefusedOnBothSides) {
    const std::string injected = "250 stay in plain text\r\n";
    for (auto* upgrade : {static_cast<SSLSocket (*)(RefContext&, Socket&, const Buffer&)>(&SSLSocket::upgradeClient),
                          static_cast<SSLSocket (*)(RefContext&, Socket&, const Buffer&)>(&SSLSocket::upgradeServer)}) {
        const auto thrown = thrownBy<SocketException>([&] { upgrade(m_forClient, m_client, bufferOf(injected)); });
        expectFailure(thrown, "SocketException", 4, "SSLSocket");
        EXPECT_EQ("24 bytes came in plain text before the handshake", detailOf(thrown));
        EXPECT_TRUE(m_client.connected()) << "for the program to close";
    }
}

TEST_F(SSLSocketUpgradeTest, PlainTextThatWaitsToBeReceivedIsRefusedByTheClient) {
    send(m_server, "250 injected\r\n");
    waitForBytes(m_client);
    const auto thrown = thrownBy<SocketException>(
        [&] { static_cast<void>(SSLSocket::upgradeClient(m_forClient, m_client, Buffer(), limited())); });
    EXPECT_EQ("14 or more bytes came in plain text before the handshake", detailOf(thrown));
    EXPECT_EQ("250 injected\r\n", receive(m_client, 14)) << "still there";
}

TEST_F(SSLSocketUpgradeTest, PlainTextWhereTheServerExpectsTlsEndsTheHandshake) {
    send(m_client, "EHLO in plain text\r\n");
    waitForBytes(m_server);
    const auto thrown = thrownBy<SocketException>(
        [&] { static_cast<void>(SSLSocket::upgradeServer(m_forServer, m_server, Buffer(), limited())); });
    expectFailure(thrown, "SocketException", 4, "SSLSocket", 146);
    EXPECT_THAT(detailOf(thrown), HasSubstr("SSL"));
    EXPECT_EQ(-1, m_server.descriptor()) << "nothing goes on in plain text";
}

TEST_F(SSLSocketUpgradeTest, PeerThatNeverAnswersEndsWithTheLimit) {
    ConnectionOptions options;
    options.handshakeLimit = 200;
    const auto thrown = thrownBy<SocketException>(
        [&] { static_cast<void>(SSLSocket::upgradeClient(m_forClient, m_client, Buffer(), options)); });
    EXPECT_THAT(reasonOf(thrown), HasSubstr("Connection timed out"));
    EXPECT_TRUE(errorQueueIsEmpty());
}

TEST_F(SSLSocketUpgradeTest, NonBlockingConnectionIsWaitedForAndStaysNonBlocking) {
    m_client.blocking(false);
    auto serving = std::async(std::launch::async, [this] {
        SSLSocket secured = SSLSocket::upgradeServer(m_forServer, m_server, Buffer());
        EXPECT_EQ("bye", receive(secured, 3));
    });
    SSLSocket secured = SSLSocket::upgradeClient(m_forClient, m_client, Buffer());
    EXPECT_FALSE(secured.isBlocking());
    EXPECT_NE(0, fcntl(secured.descriptor(), F_GETFL) & O_NONBLOCK);
    send(secured, "bye");
    serving.get();
}

TEST_F(SSLSocketUpgradeTest, WhatIsNoPlainConnectionIsRefused) {
    const auto refused = [this](Socket socket) {
        return thrownBy<SocketException>(
            [&] { static_cast<void>(SSLSocket::upgradeClient(m_forClient, socket, Buffer())); });
    };
    EXPECT_EQ("not connected", detailOf(refused(Socket(true))));
    EXPECT_EQ(1, refused(Socket(true)).code());
    EXPECT_EQ("not connected", detailOf(refused(m_listening)));
    EXPECT_EQ("speaks TLS already", detailOf(refused(connected().client)));
    RefContext none;
    const auto thrown = thrownBy([&] { static_cast<void>(SSLSocket::upgradeClient(none, m_client, Buffer())); });
    EXPECT_EQ("NVSSL::Context must not be empty.", detailOf(thrown));
    EXPECT_TRUE(m_client.connected());
}

} // namespace
