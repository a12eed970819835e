// One call of OpenSSL's on a connection: what it answered, and what its error queue says of it. Connections lie in memory.
#include "openssl/Connection.h"

#include "openssl/Pointers.h"
#include "openssl/SocketBio.h"
#include "openssl/Tls.h"

#include <authority/Authority.h>

#include <openssl/err.h>
#include <openssl/ssl.h>

#include <gtest/gtest.h>

#include <sys/socket.h>

#include <cerrno>
#include <csignal>
#include <unistd.h>

using namespace Norvane::Crypto::openssl;
using norvauthority::Bytes;

namespace {

using SslPtr = Owned<SSL, SSL_free>;

/// Both ends of one; what one writes the other one reads.
struct Pair {
    SslPtr client;
    SslPtr server;
};

void queueSomething(const SSL* /*ssl*/, int where, int /*result*/) {
    if ((where & SSL_CB_HANDSHAKE_DONE) != 0) {
        ERR_raise(ERR_LIB_USER, 77);
    }
}

Pair unconnected() {
    static const auto identity = norvauthority::issue({.subject = {{"CN", "Server"}}, .key = norvauthority::Key::ec()});
    static const SslContextPtr serving = [] {
        SslContextPtr made = newSslContext(Protocol::negotiated, Side::server);
        SSL_CTX_use_certificate(made.get(), identity.certificate.x509().get());
        SSL_CTX_use_PrivateKey(made.get(), identity.key.get());
        return made;
    }();
    static const SslContextPtr asking = newSslContext(Protocol::negotiated, Side::client);
    Pair pair{SslPtr(SSL_new(asking.get())), SslPtr(SSL_new(serving.get()))};
    BIO* const toServer = BIO_new(BIO_s_mem());
    BIO* const toClient = BIO_new(BIO_s_mem());
    BIO_up_ref(toServer);
    BIO_up_ref(toClient);
    SSL_set_bio(pair.client.get(), toClient, toServer);
    SSL_set_bio(pair.server.get(), toServer, toClient);
    return pair;
}

/// The last answers of both.
std::pair<SslAnswer, SslAnswer> shakeHands(const Pair& pair) {
    SslAnswer atClient{-1, SSL_ERROR_WANT_READ};
    SslAnswer atServer = atClient;
    for (int turn = 0; turn < 4; ++turn) {
        if (atClient.wantsIo()) {
            atClient = connectOnce(pair.client.get());
        }
        if (atServer.wantsIo()) {
            atServer = acceptOnce(pair.server.get());
        }
    }
    return {atClient, atServer};
}

Pair connected() {
    Pair pair = unconnected();
    const auto [atClient, atServer] = shakeHands(pair);
    EXPECT_EQ(atClient.result, 1);
    EXPECT_EQ(atServer.result, 1);
    EXPECT_EQ(ERR_peek_error(), 0U);
    return pair;
}

/// A BIO to which nothing can be written; `errno` becomes what `s_errno` is, unless that is 0.
int s_errno = 0;
int failToWrite(BIO* /*bio*/, const char* /*data*/, int /*length*/) {
    if (s_errno != 0) {
        errno = s_errno;
    }
    return -1;
}
long controlNothing(BIO* /*bio*/, int command, long /*number*/, void* /*argument*/) {
    return command == BIO_CTRL_FLUSH ? 1 : 0;
}
BIO* deadEnd() {
    static const BioMethodPtr method = [] {
        BioMethodPtr made(BIO_meth_new(BIO_TYPE_SOURCE_SINK | 0x70, "dead end"));
        BIO_meth_set_write(made.get(), failToWrite);
        BIO_meth_set_ctrl(made.get(), controlNothing);
        return made;
    }();
    BIO* const bio = BIO_new(method.get());
    BIO_set_init(bio, 1);
    return bio;
}

const unsigned char s_octets[]{'o', 'c', 't', 'e', 't', 's'};

int s_freed = 0;
void countFreed(void* /*parent*/, void* data, CRYPTO_EX_DATA* /*all*/, int /*index*/, long /*number*/,
                void* /*pointer*/) {
    s_freed += data != nullptr ? 1 : 0;
}

} // namespace

TEST(Connection, AfterTheHandshakeAnEndIsNoErrorAndNothingIsQueued) {
    const Pair pair = unconnected();
    SSL_set_info_callback(pair.client.get(), queueSomething);
    const auto [atClient, atServer] = shakeHands(pair);
    EXPECT_EQ(atClient.result, 1);
    EXPECT_EQ(atClient.error, SSL_ERROR_NONE);
    EXPECT_EQ(ERR_peek_error(), 0U) << "of what was let through";
    for (const SSL* ssl : {pair.client.get(), pair.server.get()}) {
        EXPECT_NE(SSL_get_options(ssl) & SSL_OP_IGNORE_UNEXPECTED_EOF, 0U);
        EXPECT_NE(SSL_get_options(ssl) & SSL_OP_CLEANSE_PLAINTEXT, 0U);
    }
}

TEST(Connection, OctetsAreCountedInBothDirections) {
    const Pair pair = connected();
    const std::uint64_t before = bytesMoved(pair.client.get());
    EXPECT_EQ(before,
              BIO_number_read(SSL_get_rbio(pair.client.get())) + BIO_number_written(SSL_get_wbio(pair.client.get())));
    EXPECT_GT(before, 500U);
    EXPECT_EQ(writeOnce(pair.client.get(), s_octets, 6).result, 6);
    EXPECT_EQ(bytesMoved(pair.client.get()) - before, 6U + 5U + 1U + 16U); // RFC 8446, 5.2: header, type, tag
}

TEST(Connection, TheLastOctetInFrontOfTheEndIsRead) {
    const Pair pair = connected();
    ASSERT_EQ(writeOnce(pair.client.get(), s_octets, 1).result, 1);
    unsigned char got = 0;
    const SslAnswer answer = readOnce(pair.server.get(), &got, 1);
    EXPECT_EQ(BIO_eof(SSL_get_rbio(pair.server.get())), 1);
    EXPECT_EQ(answer.result, 1);
    EXPECT_EQ(answer.error, SSL_ERROR_NONE);
    EXPECT_EQ(got, 'o');
}

TEST(Connection, ACloseNotifyIsToldFromTheEndOfThePlainConnection) {
    {
        const Pair pair = connected();
        SSL_shutdown(pair.client.get());
        // Something stands behind it, so that the plain connection is not at its end.
        BIO_write(SSL_get_wbio(pair.client.get()), s_octets, 3);
        unsigned char got = 0;
        const SslAnswer answer = readOnce(pair.server.get(), &got, 1);
        EXPECT_EQ(answer.result, 0);
        EXPECT_EQ(answer.error, SSL_ERROR_ZERO_RETURN);
        EXPECT_TRUE(closedByPeer(pair.server.get()));
    }
    const Pair pair = connected();
    SSL_clear_options(pair.server.get(), SSL_OP_IGNORE_UNEXPECTED_EOF);
    BIO_set_mem_eof_return(SSL_get_rbio(pair.server.get()), 0);
    unsigned char got = 0;
    EXPECT_EQ(readOnce(pair.server.get(), &got, 1).result, 0);
    EXPECT_FALSE(closedByPeer(pair.server.get()));
    EXPECT_EQ(ERR_peek_error(), 0U);
}

// What a call before left in errno is no reason of this one.
TEST(Connection, TheReasonOfTheSystemJoinsTheQueue) {
    for (const int reason : {0, ECONNRESET}) {
        const Pair pair = connected();
        SSL_set0_wbio(pair.client.get(), deadEnd());
        s_errno = reason;
        errno = EPIPE;
        const SslAnswer answer = writeOnce(pair.client.get(), s_octets, 6);
        EXPECT_EQ(answer.result, -1);
        EXPECT_EQ(answer.error, SSL_ERROR_SYSCALL);
        if (reason == 0) {
            EXPECT_EQ(ERR_peek_error(), 0U);
        } else {
            EXPECT_EQ(ERR_GET_LIB(ERR_peek_error()), ERR_LIB_SYS);
            EXPECT_EQ(ERR_GET_REASON(ERR_peek_error()), reason);
        }
        ERR_clear_error();
    }
}

TEST(Connection, EndsAndIsFreed) {
    const int index = SSL_get_ex_new_index(0, nullptr, nullptr, nullptr, countFreed);
    Pair pair = connected();
    SSL_set_ex_data(pair.client.get(), index, &pair);
    s_freed = 0;
    shutdownAndFree(pair.client.release());
    EXPECT_EQ(s_freed, 1);
    unsigned char got = 0;
    EXPECT_EQ(readOnce(pair.server.get(), &got, 1).result, 0);
}

TEST(Connection, TheKernelIsNotAskedToEncrypt) {
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    {
        const Pair pair = unconnected();
        SSL_set_options(pair.client.get(), SSL_OP_ENABLE_KTLS);
        ASSERT_TRUE(setDescriptor(pair.client.get(), ends[0]));
        EXPECT_EQ(SSL_get_options(pair.client.get()) & SSL_OP_ENABLE_KTLS, 0U);
        EXPECT_EQ(SSL_get_fd(pair.client.get()), ends[0]);
    }
    close(ends[0]);
    close(ends[1]);
}

TEST(SocketBio, AsksToBeTriedAgainWhereThereIsNoRoomAndOnlyThere) {
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends), 0);
    const BioPtr bio = newSocketBio(ends[0]);
    Bytes octets(4096, 1);
    EXPECT_EQ(BIO_write(bio.get(), octets.data(), 1), 1);
    EXPECT_EQ(BIO_should_retry(bio.get()), 0);
    int written = 0;
    for (int count = 0; count < 10000 && written >= 0; ++count) {
        written = BIO_write(bio.get(), octets.data(), 4096);
    }
    EXPECT_EQ(written, -1);
    EXPECT_NE(BIO_should_retry(bio.get()), 0);
    EXPECT_NE(BIO_should_write(bio.get()), 0);
    while (recv(ends[1], octets.data(), octets.size(), 0) > 0) {
    }
    EXPECT_EQ(BIO_write(bio.get(), octets.data(), 4096), 4096);
    EXPECT_EQ(BIO_should_retry(bio.get()), 0) << "what was asked for before is over";
    close(ends[1]);
    EXPECT_EQ(BIO_write(bio.get(), octets.data(), 4096), -1) << "and no SIGPIPE";
    EXPECT_EQ(BIO_should_retry(bio.get()), 0);
    close(ends[0]);
    ERR_clear_error();
}
