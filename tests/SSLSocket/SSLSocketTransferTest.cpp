// What goes over an SSL socket, and how that ends.

#include "support/Thrown.h"
#include "support/Tls.h"

#include <gmock/gmock.h>

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>

using namespace Norvane;
using namespace Norvane::Crypto;
using namespace Norvane::Crypto::NVSSL;
using namespace tlstesting;

namespace {

class SSLSocketTransferTest : public TlsTest {};

/// One byte of room is enough for calls that are not to fill it.
uchar_t s_byte;

int drain(SSLSocket& socket) {
    errno = EPERM;
    std::array<uchar_t, 16384> bytes{};
    return socket.receive(bytes.data(), bytes.size());
}

/// A failure with an SSL error's number after the text.
void expectNumber(const SocketException& thrown, unsigned int line, int number) {
    expectFailure(thrown, "SocketException", 4, "SSLSocket", line);
    ASSERT_EQ(2U, thrown.parameters().size());
    EXPECT_EQ(Exception::Parameter(number), thrown.parameters()[1]);
}

TEST_F(SSLSocketTransferTest, ReceivingNoBytesOrTooManyTouchesNothing) {
    Connection both = connected();
    send(both.server, "kept");
    for (const unsigned int length : {0U, 0x80000000U, 0xffffffffU}) {
        errno = EPERM;
        EXPECT_EQ(0, both.client.receive(&s_byte, length));
        EXPECT_EQ(EPERM, errno);
    }
    EXPECT_EQ("kept", receive(both.client));
}

TEST_F(SSLSocketTransferTest, SendingNoBytesOrTooManySendsNothing) {
    Connection both = connected();
    for (const unsigned int length : {0U, 0x80000000U, 0xffffffffU}) {
        EXPECT_EQ(0, both.client.send(&s_byte, length));
    }
    send(both.client, "next");
    EXPECT_EQ("next", receive(both.server));
}

TEST_F(SSLSocketTransferTest, NonBlockingReceiveWithoutBytesAnswersZeroAndEagain) {
    Connection both = connected();
    both.client.blocking(false);
    errno = 0;
    EXPECT_EQ(0, both.client.receive(&s_byte, 1));
    EXPECT_EQ(EAGAIN, errno);
    send(both.server, "y");
    while (both.client.receive(&s_byte, 1) == 0) {
        ASSERT_EQ(EAGAIN, errno);
    }
    EXPECT_EQ('y', s_byte);
}

TEST_F(SSLSocketTransferTest, NonBlockingReceiveOfHalfARecordAnswersZeroAndEagain) {
    // The peer speaks through a plain pipe of ours, that passes its record on in two pieces.
    Connection both = connected();
    both.client.blocking(false);
    BIO* record = BIO_new(BIO_s_mem());
    SSL_set0_wbio(both.server, record);
    send(both.server, "in two pieces");
    char* bytes = nullptr;
    const long length = BIO_get_mem_data(record, &bytes);
    const std::string whole(bytes, static_cast<std::size_t>(length));
    ASSERT_EQ(7, write(both.server.descriptor(), whole.data(), 7));
    for (int i = 0; i < 3; ++i) {
        errno = 0;
        EXPECT_EQ(0, both.client.receive(&s_byte, 1));
        EXPECT_EQ(EAGAIN, errno);
    }
    ASSERT_EQ(length - 7, write(both.server.descriptor(), whole.data() + 7, whole.size() - 7));
    both.client.blocking(true);
    EXPECT_EQ("in two pieces", receive(both.client));
}

// Flagged in the header: what does not fit into the buffer waits inside OpenSSL, where the readiness wait does not look.
TEST_F(SSLSocketTransferTest, DecryptedBytesDoNotCountAsReadableDeliberately) {
    Connection both = connected();
    both.client.blocking(false);
    send(both.server, "ab");
    while (both.client.receive(&s_byte, 1) == 0) {
        ASSERT_EQ(EAGAIN, errno);
    }
    EXPECT_EQ('a', s_byte);
    EXPECT_EQ(1, SSL_pending(both.client));
    errno = 0;
    EXPECT_EQ(0, both.client.receive(&s_byte, 1));
    EXPECT_EQ(EAGAIN, errno);
    send(both.server, "c");
    both.client.blocking(true);
    EXPECT_EQ(1, both.client.receive(&s_byte, 1));
    EXPECT_EQ('b', s_byte) << "nothing is lost";
}

TEST_F(SSLSocketTransferTest, BlockingReceiveWaitsWithDecryptedBytesAtHandDeliberately) {
    Connection both = connected();
    send(both.server, "ab");
    EXPECT_EQ(1, both.client.receive(&s_byte, 1));
    auto waiting = std::async(std::launch::async, [&] { return receive(both.client); });
    EXPECT_EQ(std::future_status::timeout, waiting.wait_for(std::chrono::milliseconds(50)));
    send(both.server, "c");
    EXPECT_EQ("b", waiting.get());
}

TEST_F(SSLSocketTransferTest, BufferOfARecordLeavesNothingBehind) {
    Connection both = connected();
    const std::string record(16384, 'r');
    auto sender = std::async(std::launch::async, [&] { return send(both.server, record) + send(both.server, "!"); });
    EXPECT_EQ(record + "!", receive(both.client, record.size() + 1));
    EXPECT_EQ(16385, sender.get());
    EXPECT_EQ(0, SSL_pending(both.client));
}

TEST_F(SSLSocketTransferTest, LargeBodiesArriveWhole) {
    Connection both = connected();
    std::string body;
    for (unsigned int state = 7; body.size() < 3000000;) {
        state = state * 1664525U + 1013904223U;
        body.push_back(static_cast<char>(state >> 24U));
    }
    auto sender = std::async(std::launch::async, [&] { return send(both.client, body); });
    EXPECT_TRUE(receive(both.server, body.size()) == body);
    EXPECT_EQ(static_cast<int>(body.size()), sender.get());
}

TEST_F(SSLSocketTransferTest, OrderlyCloseOfThePeerReadsAsZeroAgainAndAgain) {
    Connection both = connected();
    send(both.server, "last");
    both.server.close();
    EXPECT_EQ("last", receive(both.client));
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(0, drain(both.client));
        EXPECT_EQ(0, errno) << "the end, not EAGAIN";
        EXPECT_TRUE(errorQueueIsEmpty());
    }
    EXPECT_EQ(SSL_RECEIVED_SHUTDOWN, SSL_get_shutdown(both.client));
}

TEST_F(SSLSocketTransferTest, ReceivingAfterACloseNotifyDoesNotWaitForThePlainConnectionToEnd) {
    Connection both = connected();
    EXPECT_EQ(0, SSL_shutdown(both.server)); // the notify alone: the plain connection stays
    EXPECT_EQ(0, drain(both.client));
    EXPECT_EQ(0, drain(both.client));
    EXPECT_EQ(0, errno);
    both.client.blocking(false);
    EXPECT_EQ(0, drain(both.client));
    EXPECT_EQ(0, errno) << "the end, not EAGAIN";
}

TEST_F(SSLSocketTransferTest, CloseWithoutNotifyReadsAsZeroAgainAndAgainAndStaysRecognisable) {
    for (const int version : {TLS1_2_VERSION, TLS1_3_VERSION}) {
        Connection both = connected(only(clientContext(), version), serverContext());
        send(both.server, "last");
        SSL_set_quiet_shutdown(both.server, 1);
        both.server.close();
        EXPECT_EQ("last", receive(both.client));
        for (int i = 0; i < 3; ++i) {
            EXPECT_EQ(0, drain(both.client));
            EXPECT_EQ(0, errno);
            EXPECT_TRUE(errorQueueIsEmpty());
            EXPECT_EQ(0, SSL_get_shutdown(both.client) & SSL_RECEIVED_SHUTDOWN);
        }
    }
}

TEST_F(SSLSocketTransferTest, CloseInTheMiddleOfARecordReadsAsZeroToo) {
    Connection both = connected();
    SSL_set_quiet_shutdown(both.server, 1);
    ASSERT_EQ(3, write(both.server.descriptor(), "\x17\x03\x03", 3));
    both.server.close();
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(0, drain(both.client));
        EXPECT_TRUE(errorQueueIsEmpty());
    }
    EXPECT_EQ(0, SSL_get_shutdown(both.client) & SSL_RECEIVED_SHUTDOWN);
}

TEST_F(SSLSocketTransferTest, PeerThatClosedItsHalfIsStillAnswered) {
    Connection both = connected();
    both.server.shutdown(false, true); // a plain end, no notify
    EXPECT_EQ(0, drain(both.client));
    EXPECT_EQ(6, send(both.client, "answer"));
    EXPECT_EQ("answer", receive(both.server));
}

TEST_F(SSLSocketTransferTest, NonBlockingSocketTellsTheEndFromNothingYet) {
    Connection both = connected();
    both.client.blocking(false);
    EXPECT_EQ(0, drain(both.client));
    EXPECT_EQ(EAGAIN, errno);
    both.server.close();
    while (drain(both.client) == 0 && errno == EAGAIN) {
    }
    EXPECT_EQ(0, errno);
}

// A renegotiation that this side begins has to read before it can write.
TEST_F(SSLSocketTransferTest, SendThatHasToReadFirstAnswersZeroWithoutThrowing) {
    Connection both = connected(only(clientContext(), TLS1_2_VERSION), serverContext());
    both.client.blocking(false);
    ASSERT_EQ(1, SSL_renegotiate(both.client));
    EXPECT_EQ(0, send(both.client, "later"));
    EXPECT_EQ(SSL_ERROR_WANT_READ, SSL_get_error(both.client, -1));
    EXPECT_TRUE(errorQueueIsEmpty());
}

TEST_F(SSLSocketTransferTest, RenegotiationThatTheServerBeginsIsServedWhileReading) {
    Connection both = connected(only(clientContext(), TLS1_2_VERSION), serverContext());
    ASSERT_EQ(1, SSL_renegotiate(both.server));
    auto client = std::async(std::launch::async, [&] {
        const std::string got = receive(both.client); // the handshake again, and then bytes
        send(both.client, "thanks");
        return got;
    });
    EXPECT_EQ(5, send(both.server, "again"));
    EXPECT_EQ("thanks", receive(both.server));
    EXPECT_EQ("again", client.get());
    EXPECT_EQ(1, SSL_num_renegotiations(both.client));
}

TEST_F(SSLSocketTransferTest, RenegotiationThatAClientBeginsIsRefused) {
    Connection both = connected(only(clientContext(), TLS1_2_VERSION), serverContext());
    ASSERT_EQ(1, SSL_renegotiate(both.client));
    auto client = std::async(std::launch::async, [&] { return send(both.client, "anew"); });
    EXPECT_EQ("", receive(both.server)) << "the client gives up then";
    EXPECT_THAT(getErrString(), testing::HasSubstr("alert handshake failure; "));
    EXPECT_EQ(0, client.get());
}

TEST_F(SSLSocketTransferTest, EndWithinARenegotiationFailsSendingWithCode6) {
    Connection both = connected(only(clientContext(), TLS1_2_VERSION), serverContext());
    both.server.blocking(false);
    ASSERT_EQ(1, SSL_renegotiate(both.server));
    send(both.server, "x");
    both.server.shutdown(false, true);
    EXPECT_EQ("x", receive(both.client)); // begins the handshake that nobody answers
    EXPECT_EQ(0, drain(both.client));
    expectNumber(thrownBy<SocketException>([&] { send(both.client, "y"); }), 198, SSL_ERROR_ZERO_RETURN);
}

TEST_F(SSLSocketTransferTest, KeyUpdateInTheMiddleChangesNothing) {
    Connection both = connected(only(clientContext(), TLS1_3_VERSION), serverContext());
    ASSERT_EQ(1, SSL_key_update(both.server, SSL_KEY_UPDATE_REQUESTED));
    send(both.server, "one");
    EXPECT_EQ("one", receive(both.client));
    send(both.client, "two");
    EXPECT_EQ("two", receive(both.server));
}

TEST_F(SSLSocketTransferTest, SendOnAFatalProtocolErrorAnswersZeroAndEmptiesTheQueue) {
    Connection both = connected();
    SSL_set_shutdown(both.client, SSL_SENT_SHUTDOWN); // this side has closed: writing is a protocol error
    EXPECT_EQ(0, send(both.client, "x"));
    EXPECT_TRUE(errorQueueIsEmpty());
}

TEST_F(SSLSocketTransferTest, SendToAPeerThatIsGoneFailsAtLine198WithCode5) {
    Connection both = connected();
    SSL_set_quiet_shutdown(both.server, 1);
    both.server.close();
    const auto thrown = thrownBy<SocketException>([&] {
        for (int i = 0; i < 1000; ++i) {
            send(both.client, std::string(1000, 'x')); // the first ones are taken before the reset comes back
        }
    });
    expectFailure(thrown, "SocketException", 4, "SSLSocket", 198);
    ASSERT_EQ(2U, thrown.parameters().size());
    EXPECT_EQ(Exception::Parameter(std::string("virtual int Norvane::Crypto::NVSSL::SSLSocketImpl::send(const "
                                               "Norvane::uchar_t*, Norvane::uint_t)")),
              thrown.parameters()[0]);
    EXPECT_EQ(Exception::Parameter(5), thrown.parameters()[1]);
    EXPECT_THAT(reasonOf(thrown),
                testing::AnyOf(testing::HasSubstr("Broken pipe"), testing::HasSubstr("reset by peer")));
    EXPECT_TRUE(errorQueueIsEmpty());
}

TEST_F(SSLSocketTransferTest, GarbageFromThePeerFailsAtLine249WithCode1) {
    Connection both = connected();
    ASSERT_EQ(32, write(both.server.descriptor(), "HTTP/1.1 400 Bad Request\r\nA: b\r\n", 32));
    const auto thrown = thrownBy<SocketException>([&] { drain(both.client); });
    expectFailure(thrown, "SocketException", 4, "SSLSocket", 249);
    ASSERT_EQ(2U, thrown.parameters().size());
    EXPECT_EQ(Exception::Parameter(std::string(
                  "virtual int Norvane::Crypto::NVSSL::SSLSocketImpl::receive(Norvane::uchar_t*, Norvane::uint_t)")),
              thrown.parameters()[0]);
    EXPECT_EQ(Exception::Parameter(1), thrown.parameters()[1]);
    EXPECT_THAT(reasonOf(thrown), testing::HasSubstr("SSL routines"));
    EXPECT_TRUE(errorQueueIsEmpty());
    // and the connection is of no more use
    expectNumber(thrownBy<SocketException>([&] { drain(both.client); }), 249, SSL_ERROR_SYSCALL);
    expectNumber(thrownBy<SocketException>([&] { send(both.client, "more"); }), 198, SSL_ERROR_SYSCALL);
}

TEST_F(SSLSocketTransferTest, ResetFailsAtLine249WithCode5) {
    Connection both = connected();
    const linger atOnce{1, 0};
    ASSERT_EQ(0, setsockopt(both.server.descriptor(), SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce));
    SSL_set_quiet_shutdown(both.server, 1);
    both.server.close();
    const auto thrown = thrownBy<SocketException>([&] { drain(both.client); });
    expectNumber(thrown, 249, 5);
    EXPECT_THAT(reasonOf(thrown), testing::HasSubstr("Connection reset by peer"));
    EXPECT_TRUE(errorQueueIsEmpty());
}

TEST_F(SSLSocketTransferTest, StaleErrorsDoNotTurnAWaitIntoAFailure) {
    Connection both = connected();
    both.client.blocking(false);
    ASSERT_EQ(2, write(both.server.descriptor(), "\x17\x03", 2)); // readable, yet no record
    ERR_raise(ERR_LIB_SSL, SSL_R_BAD_LENGTH);
    EXPECT_EQ(0, drain(both.client));
    EXPECT_EQ(EAGAIN, errno);
}

TEST_F(SSLSocketTransferTest, NonBlockingSendGoesOnUntilAllIsTaken) {
    Connection both = connected();
    both.client.blocking(false);
    const std::string body(8000000, 'b'); // more than the system keeps for a peer that does not read
    auto reader = std::async(std::launch::async, [&] { return receive(both.server, body.size()).size(); });
    EXPECT_EQ(8000000, send(both.client, body));
    EXPECT_EQ(body.size(), reader.get());
}

TEST_F(SSLSocketTransferTest, TimeLimitEndsTheWaitForBytes) {
    Connection both = connected();
    both.client.timeLimit(30);
    expectFailure(thrownBy<SocketException>([&] { drain(both.client); }), "SocketImpl::readable", 4, "SocketImpl");
    ASSERT_EQ(2, write(both.server.descriptor(), "\x17\x03", 2)); // the beginning of a record
    expectFailure(thrownBy<SocketException>([&] { drain(both.client); }), "SocketImpl::readable", 4, "SocketImpl");
}

TEST_F(SSLSocketTransferTest, TimeLimitEndsASendThatNobodyReads) {
    Connection both = connected();
    both.client.timeLimit(30);
    const auto thrown = thrownBy<SocketException>([&] { send(both.client, std::string(20000000, 's')); });
    expectNumber(thrown, 198, SSL_ERROR_WANT_WRITE);
}

TEST_F(SSLSocketTransferTest, TimeLimitEndsTheCloseNotifyThatNobodyReads) {
    Connection both = connected();
    both.client.timeLimit(30);
    const std::string noise(1000000, 'n');
    while (::send(both.client.descriptor(), noise.data(), noise.size(), MSG_DONTWAIT | MSG_NOSIGNAL) > 0) {
    }
    both.client.close(); // comes back
    EXPECT_TRUE(both.client.isNull());
}

TEST_F(SSLSocketTransferTest, ShutdownFromAnotherThreadEndsAWaitingReceive) {
    Connection both = connected();
    auto waiting = std::async(std::launch::async, [&] { return drain(both.client); });
    both.client.shutdown();
    EXPECT_EQ(0, waiting.get());
}

} // namespace
