// SSL sockets when OpenSSL answers what no peer can make it answer at will.

#include "support/Interpose.h"
#include "support/Thrown.h"
#include "support/Tls.h"

#include <gmock/gmock.h>

#include <cerrno>
#include <optional>
#include <vector>

using namespace Norvane;
using namespace Norvane::Crypto::NVSSL;
using namespace tlstesting;
using norvtest::During;

namespace {

/// What a call answers instead of being made, and what SSL_get_error says of it.
struct Answer {
    int result;
    int error;
};

/// Answers to be given one after the other; the real call is made when there are no more.
struct Script {
    std::vector<Answer> answers;
    std::size_t given = 0;
    int calls = 0;
    bool queueWasEmpty = true;
};

thread_local bool s_noConnection = false;
thread_local bool s_noDescriptor = false;
thread_local Script* s_connect = nullptr;
thread_local Script* s_accept = nullptr;
thread_local Script* s_read = nullptr;
thread_local Script* s_write = nullptr;
thread_local std::optional<int> s_error;
thread_local int s_shutdowns = 0;

template <class Real> int play(Script* script, Real real) {
    s_error.reset();
    if (script == nullptr) {
        return real();
    }
    ++script->calls;
    script->queueWasEmpty = script->queueWasEmpty && ERR_peek_error() == 0;
    if (script->given == script->answers.size()) {
        return real();
    }
    const Answer answer = script->answers[script->given++];
    s_error = answer.error;
    ERR_raise(ERR_LIB_SSL, SSL_R_BAD_LENGTH); // would be stale at the next call
    return answer.result;
}

} // namespace

extern "C" {

SSL* SSL_new(SSL_CTX* context) {
    return s_noConnection ? nullptr : norvtest::next<&SSL_new>("SSL_new")(context);
}

int SSL_set_fd(SSL* ssl, int descriptor) {
    return s_noDescriptor ? 0 : norvtest::next<&SSL_set_fd>("SSL_set_fd")(ssl, descriptor);
}

int SSL_connect(SSL* ssl) {
    return play(s_connect, [=] { return norvtest::next<&SSL_connect>("SSL_connect")(ssl); });
}

int SSL_accept(SSL* ssl) {
    return play(s_accept, [=] { return norvtest::next<&SSL_accept>("SSL_accept")(ssl); });
}

int SSL_read(SSL* ssl, void* buffer, int length) {
    return play(s_read, [=] { return norvtest::next<&SSL_read>("SSL_read")(ssl, buffer, length); });
}

int SSL_write(SSL* ssl, const void* data, int length) {
    return play(s_write, [=] { return norvtest::next<&SSL_write>("SSL_write")(ssl, data, length); });
}

int SSL_get_error(const SSL* ssl, int result) {
    return s_error ? *s_error : norvtest::next<&SSL_get_error>("SSL_get_error")(ssl, result);
}

int SSL_shutdown(SSL* ssl) {
    ++s_shutdowns;
    return norvtest::next<&SSL_shutdown>("SSL_shutdown")(ssl);
}
}

namespace {

class SSLSocketFaultsTest : public TlsTest {};

/// A server for one connection that nothing is said on.
struct Silent {
    Socket listener = listening(Socket(true));
    [[nodiscard]] SocketAddress address() const { return listener.localAddress(); }
};

/// A listening socket with a plain peer that has connected to it and says nothing.
struct Visited {
    SSLSocket listener = tlstesting::listener(serverContext());
    Socket peer = Socket(true);
    Visited() { peer.connect(listener.localAddress()); }
    void accept() { static_cast<void>(listener.accept()); }
};

TEST_F(SSLSocketFaultsTest, ConnectWithoutAnInstanceFailsAtLine69) {
    const Silent server;
    const During<bool> failing(s_noConnection, true);
    const auto thrown = thrownBy([&] { dial(clientContext(), server.address()); });
    expectFailure(thrown, "virtual void Norvane::Crypto::NVSSL::SSLSocketImpl::connect(const Norvane::SocketAddress&)",
                  4, "SSLSocket", 69);
    EXPECT_EQ("Could not create an SSL instance.", detailOf(thrown));
}

TEST_F(SSLSocketFaultsTest, ContextAroundNullMakesNoInstanceEither) {
    const Silent server;
    const RefContext around(new Context(nullptr));
    expectFailure(thrownBy([&] { dial(around, server.address()); }),
                  "virtual void Norvane::Crypto::NVSSL::SSLSocketImpl::connect(const Norvane::SocketAddress&)", 4,
                  "SSLSocket", 69);
}

TEST_F(SSLSocketFaultsTest, ConnectWithoutADescriptorFailsAtLine76) {
    const Silent server;
    const During<bool> failing(s_noDescriptor, true);
    const auto thrown = thrownBy<SocketException>([&] { dial(clientContext(), server.address()); });
    expectFailure(thrown, "SocketException", 4, "SSLSocket", 76);
    EXPECT_EQ("SSL_set_fd failed", detailOf(thrown));
}

TEST_F(SSLSocketFaultsTest, ConnectFailsAtLine97WhateverElseTheHandshakeAnswers) {
    const Silent server;
    for (const Answer answer :
         {Answer{0, SSL_ERROR_ZERO_RETURN}, Answer{0, SSL_ERROR_WANT_READ}, Answer{-1, SSL_ERROR_SSL},
          Answer{-1, SSL_ERROR_SYSCALL}, Answer{-1, SSL_ERROR_WANT_X509_LOOKUP}, Answer{-2, SSL_ERROR_WANT_READ}}) {
        Script script{{answer}};
        const During<Script*> playing(s_connect, &script);
        const auto thrown = thrownBy<SocketException>([&] { dial(clientContext(), server.address()); });
        expectFailure(thrown, "SocketException", 4, "SSLSocket", 97);
        EXPECT_EQ("SSL_connect failed", detailOf(thrown));
        EXPECT_EQ(1, script.calls);
    }
}

TEST_F(SSLSocketFaultsTest, FailedConnectKeepsTheConnectionUntilTheSocketGoes) {
    const Silent server;
    RefContext forClient = clientContext();
    SSLSocket client(forClient, 2);
    Script script{{{-1, SSL_ERROR_SSL}}};
    const During<Script*> playing(s_connect, &script);
    expectFailure(thrownBy<SocketException>([&] { client.connect(server.address()); }), "SocketException", 4,
                  "SSLSocket", 97);
    EXPECT_NE(nullptr, static_cast<SSL*>(client));
}

TEST_F(SSLSocketFaultsTest, HandshakesTryAgainAtOnceWithAnEmptyQueue) {
    Script connecting{{{-1, SSL_ERROR_WANT_READ}, {-1, SSL_ERROR_WANT_WRITE}, {-1, SSL_ERROR_WANT_READ}}};
    Script accepting{connecting.answers};
    SSLSocket listening = listener(serverContext());
    auto client = std::async(std::launch::async, [&] {
        ERR_raise(ERR_LIB_SSL, SSL_R_BAD_LENGTH);
        const During<Script*> playing(s_connect, &connecting);
        SSLSocket connected = dial(clientContext(), listening.localAddress());
        EXPECT_TRUE(errorQueueIsEmpty());
        return connected;
    });
    const During<Script*> playing(s_accept, &accepting);
    ERR_raise(ERR_LIB_SSL, SSL_R_BAD_LENGTH);
    Socket server = listening.accept();
    SSLSocket connected = client.get();
    EXPECT_EQ(4, connecting.calls);
    EXPECT_EQ(4, accepting.calls);
    EXPECT_TRUE(connecting.queueWasEmpty);
    EXPECT_TRUE(accepting.queueWasEmpty);
    send(connected, "there");
    EXPECT_EQ("there", receive(server));
}

TEST_F(SSLSocketFaultsTest, AcceptWithoutAnInstanceFailsAtLine119) {
    Visited server;
    const During<bool> failing(s_noConnection, true);
    const auto thrown = thrownBy([&] { server.accept(); });
    expectFailure(thrown, "virtual Norvane::Socket Norvane::Crypto::NVSSL::SSLSocketImpl::accept()", 4, "SSLSocket",
                  119);
    EXPECT_EQ("Could not create an SSL instance.", detailOf(thrown));
    EXPECT_EQ("", receive(server.peer)) << "the half-made socket is closed";
}

TEST_F(SSLSocketFaultsTest, AcceptWithoutADescriptorFailsAtLine125) {
    Visited server;
    const During<bool> failing(s_noDescriptor, true);
    const auto thrown = thrownBy<SocketException>([&] { server.accept(); });
    expectFailure(thrown, "SocketException", 4, "SSLSocket", 125);
    EXPECT_EQ("SSL_set_fd failed", detailOf(thrown));
    EXPECT_EQ("", receive(server.peer));
}

TEST_F(SSLSocketFaultsTest, AcceptFailsAtLine146WithOpenSslsErrorsWhateverElseTheHandshakeAnswers) {
    for (const Answer answer :
         {Answer{0, SSL_ERROR_ZERO_RETURN}, Answer{0, SSL_ERROR_WANT_READ}, Answer{-1, SSL_ERROR_SSL},
          Answer{-1, SSL_ERROR_SYSCALL}, Answer{-2, SSL_ERROR_WANT_WRITE}}) {
        Visited server;
        Script script{{answer}};
        const During<Script*> playing(s_accept, &script);
        const auto thrown = thrownBy<SocketException>([&] { server.accept(); });
        expectFailure(thrown, "SocketException", 4, "SSLSocket", 146);
        EXPECT_THAT(detailOf(thrown), testing::MatchesRegex("0xa00010f: SSL routines / .*bad length; "));
        EXPECT_EQ(1, script.calls);
        EXPECT_TRUE(errorQueueIsEmpty());
        EXPECT_EQ("", receive(server.peer)) << "the half-made socket is closed";
    }
}

TEST_F(SSLSocketFaultsTest, SendGivesUpWhenOpenSslWantsToRead) {
    Connection both = connected();
    Script script{{{-1, SSL_ERROR_WANT_READ}}};
    const During<Script*> playing(s_write, &script);
    EXPECT_EQ(0, send(both.client, "abc"));
    EXPECT_EQ(1, script.calls);
}

TEST_F(SSLSocketFaultsTest, SendTriesAgainAtOnceWhenOpenSslWantsToWrite) {
    Connection both = connected();
    Script script{{{-1, SSL_ERROR_WANT_WRITE}, {-1, SSL_ERROR_WANT_WRITE}}};
    const During<Script*> playing(s_write, &script);
    ERR_raise(ERR_LIB_SSL, SSL_R_BAD_LENGTH);
    EXPECT_EQ(3, send(both.client, "abc"));
    EXPECT_EQ(3, script.calls);
    EXPECT_TRUE(script.queueWasEmpty);
    EXPECT_EQ("abc", receive(both.server));
}

TEST_F(SSLSocketFaultsTest, SendAnswersWhatWasSentWhenOpenSslAnswersZero) {
    Connection both = connected();
    Script script{{{0, SSL_ERROR_ZERO_RETURN}}};
    const During<Script*> playing(s_write, &script);
    EXPECT_EQ(0, send(both.client, "abc"));
    EXPECT_EQ(1, script.calls);
}

TEST_F(SSLSocketFaultsTest, SendSwallowsProtocolErrorsAndEmptiesTheQueue) {
    Connection both = connected();
    Script script{{{-1, SSL_ERROR_SSL}}};
    const During<Script*> playing(s_write, &script);
    EXPECT_EQ(0, send(both.client, "abc"));
    EXPECT_EQ(1, script.calls);
    EXPECT_TRUE(errorQueueIsEmpty());
}

// OpenSSL takes all or nothing unless told otherwise; if it did not, the counts would add up like this.
TEST_F(SSLSocketFaultsTest, SendPassesTheWholeBufferEachTime) {
    Connection both = connected();
    Script script{{{2, SSL_ERROR_NONE}, {0, SSL_ERROR_ZERO_RETURN}}};
    {
        const During<Script*> playing(s_write, &script);
        EXPECT_EQ(2, send(both.client, "abc"));
    }
    Script again{{{2, SSL_ERROR_NONE}}};
    const During<Script*> playing(s_write, &again);
    EXPECT_EQ(5, send(both.client, "abc"));
    EXPECT_EQ("abc", receive(both.server)) << "from the start, not the rest";
}

TEST_F(SSLSocketFaultsTest, OtherErrorsOfSendFailAtLine198WithTheirNumber) {
    Connection both = connected();
    for (const int error : {SSL_ERROR_SYSCALL, SSL_ERROR_ZERO_RETURN, SSL_ERROR_WANT_X509_LOOKUP}) {
        Script script{{{-1, error}}};
        const During<Script*> playing(s_write, &script);
        const auto thrown = thrownBy<SocketException>([&] { send(both.client, "abc"); });
        expectFailure(thrown, "SocketException", 4, "SSLSocket", 198);
        ASSERT_EQ(2U, thrown.parameters().size());
        EXPECT_EQ(Exception::Parameter(error), thrown.parameters()[1]);
    }
}

TEST_F(SSLSocketFaultsTest, ReceiveTriesAgainWhateverOpenSslWants) {
    Connection both = connected();
    send(both.server, "abc");
    Script script{{{-1, SSL_ERROR_WANT_READ}, {-1, SSL_ERROR_WANT_WRITE}}};
    const During<Script*> playing(s_read, &script);
    EXPECT_EQ("abc", receive(both.client));
    EXPECT_EQ(3, script.calls);
    EXPECT_TRUE(script.queueWasEmpty);
}

TEST_F(SSLSocketFaultsTest, OtherErrorsOfReceiveFailAtLine249WithTheirNumber) {
    Connection both = connected();
    send(both.server, "abc");
    for (const int error : {SSL_ERROR_SSL, SSL_ERROR_SYSCALL, SSL_ERROR_WANT_X509_LOOKUP}) {
        Script script{{{-1, error}}};
        const During<Script*> playing(s_read, &script);
        const auto thrown = thrownBy<SocketException>([&] { receive(both.client); });
        expectFailure(thrown, "SocketException", 4, "SSLSocket", 249);
        ASSERT_EQ(2U, thrown.parameters().size());
        EXPECT_EQ(Exception::Parameter(error), thrown.parameters()[1]);
    }
    EXPECT_EQ("abc", receive(both.client));
}

TEST_F(SSLSocketFaultsTest, NoLengthNoCall) {
    Connection both = connected();
    send(both.server, "abc");
    Script script;
    const During<Script*> reading(s_read, &script);
    const During<Script*> writing(s_write, &script);
    uchar_t byte = 0;
    for (const unsigned int length : {0U, 0x80000000U}) {
        EXPECT_EQ(0, both.client.receive(&byte, length));
        EXPECT_EQ(0, both.client.send(&byte, length));
    }
    EXPECT_EQ(0, script.calls);
}

TEST_F(SSLSocketFaultsTest, DestructionShutsDownOnceAndNotAgainAfterTheCallers) {
    Connection both = connected();
    s_shutdowns = 0;
    both.client.close();
    EXPECT_EQ(1, s_shutdowns);
    Connection other = connected();
    SSL_shutdown(other.client);
    s_shutdowns = 0;
    other.client.close();
    EXPECT_EQ(0, s_shutdowns) << "a second call would wait for the peer";
}

} // namespace
