// Handshake messages of a peer as OpenSSL shows them before it reads them: what is refused is changed so that it must not
// be read, everything else stays as it came, damaged or not (RFC 5246, 7.4; RFC 8446, 4). This file stands in for the function of OpenSSL
// that tells what a handshake agrees on.
#include "openssl/PeerMessages.h"

#include "openssl/Pointers.h"

#include "support/Costly.h"
#include "support/Interpose.h"

#include <authority/Authority.h>

#include <openssl/dh.h>
#include <openssl/err.h>
#include <openssl/ssl.h>

#include <gtest/gtest.h>

#include <memory>

namespace {
const SSL_CIPHER* s_pending = nullptr;
} // namespace

extern "C" const SSL_CIPHER* SSL_get_pending_cipher(const SSL* ssl) {
    return s_pending != nullptr ? s_pending : norvtest::next<&SSL_get_pending_cipher>("SSL_get_pending_cipher")(ssl);
}

using namespace Norvane::Crypto::openssl;
using norvauthority::Bytes;
using norvtest::During;
namespace der = norvauthority::der;

namespace {

using ContextPtr = Owned<SSL_CTX, SSL_CTX_free>;
using SslPtr = Owned<SSL, SSL_free>;
using All = std::vector<Bytes>;

Bytes number(std::size_t value, std::size_t octets) {
    Bytes made(octets);
    for (std::size_t i = octets; i-- != 0; value >>= 8U) {
        made[i] = static_cast<unsigned char>(value);
    }
    return made;
}

/// A field behind its length.
Bytes prefixed(std::size_t lengthOctets, const Bytes& field) {
    return der::concat({number(field.size(), lengthOctets), field});
}

Bytes message(unsigned char type, const Bytes& body) {
    return der::concat({{type}, prefixed(3, body)});
}

SslPtr overMemory(const ContextPtr& context) {
    SslPtr ssl(SSL_new(context.get()));
    SSL_set_bio(ssl.get(), BIO_new(BIO_s_mem()), BIO_new(BIO_s_mem()));
    return ssl;
}

/// A client behind its handshake, of which `received` octets count.
SslPtr client(int version, std::size_t received) {
    static const auto identity = norvauthority::issue({.subject = {{"CN", "Server"}}, .key = norvauthority::Key::ec()});
    const ContextPtr serving(SSL_CTX_new(TLS_server_method()));
    SSL_CTX_use_certificate(serving.get(), identity.certificate.x509().get());
    SSL_CTX_use_PrivateKey(serving.get(), identity.key.get());
    const ContextPtr asking(SSL_CTX_new(TLS_client_method()));
    SSL_CTX_set_max_proto_version(asking.get(), version);
    SslPtr client = overMemory(asking);
    const SslPtr server = overMemory(serving);
    SSL_set_connect_state(client.get());
    SSL_set_accept_state(server.get());
    for (int turn = 0; turn < 4; ++turn) {
        for (const auto& [from, to] : {std::pair(client.get(), server.get()), std::pair(server.get(), client.get())}) {
            SSL_do_handshake(from);
            Bytes octets(BIO_ctrl_pending(SSL_get_wbio(from)));
            if (!octets.empty()) {
                BIO_read(SSL_get_wbio(from), octets.data(), static_cast<int>(octets.size()));
                BIO_write(SSL_get_rbio(to), octets.data(), static_cast<int>(octets.size()));
            }
        }
    }
    EXPECT_EQ(SSL_version(client.get()), version);
    EXPECT_NE(SSL_is_init_finished(client.get()), 0);
    BIO* const fresh = BIO_new(BIO_s_mem());
    Bytes octets(received);
    if (received != 0) {
        BIO_write(fresh, octets.data(), static_cast<int>(received));
        BIO_read(fresh, octets.data(), static_cast<int>(received));
    }
    SSL_set0_rbio(client.get(), fresh);
    ERR_clear_error();
    return client;
}
SslPtr tls12() {
    return client(TLS1_2_VERSION, 0);
}
SslPtr tls13(std::size_t received = 0) {
    return client(TLS1_3_VERSION, received);
}

/// What becomes of a message.
Bytes shown(SSL* ssl, Bytes octets, std::size_t length, bool isWritten = false, int contentType = SSL3_RT_HANDSHAKE) {
    refuseCostlyMessage(isWritten, contentType, octets.data(), length, ssl);
    return octets;
}
Bytes shown(SSL* ssl, const Bytes& octets) {
    return shown(ssl, octets, octets.size());
}

const Bytes& costly() {
    return norvtest::explicitIdentity().certificate.der;
}
const Bytes& ordinary() {
    static const Bytes made =
        norvauthority::issue({.subject = {{"CN", "Plain"}}, .key = norvauthority::Key::ec()}).certificate.der;
    return made;
}

Bytes certificates12(const std::vector<Bytes>& all) {
    Bytes list;
    for (const Bytes& each : all) {
        der::append(list, prefixed(3, each));
    }
    return message(SSL3_MT_CERTIFICATE, prefixed(3, list));
}

Bytes certificates13(const std::vector<Bytes>& all, const Bytes& context = {}) {
    Bytes list;
    for (const Bytes& each : all) {
        der::append(list, prefixed(3, each));
        der::append(list, prefixed(2, {0, 7, 0, 1, 9}));
    }
    return message(SSL3_MT_CERTIFICATE, der::concat({prefixed(1, context), prefixed(3, list)}));
}

/// With these octets at that place.
Bytes with(Bytes octets, std::size_t at, const Bytes& others) {
    std::copy(others.begin(), others.end(), octets.begin() + static_cast<std::ptrdiff_t>(at));
    return octets;
}

const Bytes s_tooLong{0xFF, 0xFF, 0xFF};

/// The last of `count` messages, each shown to the same connection.
Bytes last(SSL* ssl, const Bytes& octets, int count) {
    Bytes result;
    for (int i = 0; i < count; ++i) {
        result = shown(ssl, octets);
        if (i + 1 < count) {
            EXPECT_EQ(result, octets) << i;
        }
    }
    return result;
}

unsigned long reasonAndClear() {
    const unsigned long code = ERR_peek_error();
    ERR_clear_error();
    return code == 0 ? 0 : static_cast<unsigned long>(ERR_GET_REASON(code));
}

} // namespace

TEST(PeerMessages, ACostlyCertificateMakesTheListLongerThanAnyMessage) {
    const SslPtr older = tls12();
    const SslPtr newer = tls13();
    for (const auto& all : {All{costly()}, All{ordinary(), costly(), ordinary()}}) {
        EXPECT_EQ(shown(older.get(), certificates12(all)), with(certificates12(all), 4, s_tooLong));
        EXPECT_NE(reasonAndClear(), 0U);
        EXPECT_EQ(shown(newer.get(), certificates13(all)), with(certificates13(all), 5, s_tooLong));
        EXPECT_NE(reasonAndClear(), 0U);
        EXPECT_EQ(shown(newer.get(), certificates13(all, {1, 2, 3})),
                  with(certificates13(all, {1, 2, 3}), 8, s_tooLong));
        EXPECT_NE(reasonAndClear(), 0U);
    }
    for (const auto& all : {All(), All{ordinary(), ordinary()}}) {
        EXPECT_EQ(shown(older.get(), certificates12(all)), certificates12(all));
        EXPECT_EQ(shown(newer.get(), certificates13(all)), certificates13(all));
        EXPECT_EQ(reasonAndClear(), 0U);
    }
}

// OpenSSL refuses these: they are not for us to change.
TEST(PeerMessages, DamagedCertificatesStayAsTheyCame) {
    const SslPtr older = tls12();
    const SslPtr newer = tls13();
    const Bytes list = prefixed(3, costly());
    const std::vector<Bytes> damaged12{
        message(SSL3_MT_CERTIFICATE, {}),
        message(SSL3_MT_CERTIFICATE, {0, 0}),              // a length cut off
        message(SSL3_MT_CERTIFICATE, {0, 0, 2, 0}),        // a list cut off
        message(SSL3_MT_CERTIFICATE, prefixed(3, {0, 0})), // a length of a certificate cut off
        message(SSL3_MT_CERTIFICATE, prefixed(3, der::concat({{0, 0xFF, 0xFF}, list}))), // longer than the list
        message(SSL3_MT_CERTIFICATE,
                der::concat({number(list.size() + 1, 3), list})), // the list longer than the message
    };
    for (const Bytes& each : damaged12) {
        EXPECT_EQ(shown(older.get(), each), each);
    }
    for (const Bytes& each : damaged12) {
        const Bytes inner(each.begin() + 4, each.end());
        const Bytes newerOne = message(SSL3_MT_CERTIFICATE, der::concat({{0}, inner}));
        EXPECT_EQ(shown(newer.get(), newerOne), newerOne);
    }
    const Bytes plain = prefixed(3, ordinary());
    for (const Bytes& each :
         {message(SSL3_MT_CERTIFICATE, {1}), // the context cut off
          message(SSL3_MT_CERTIFICATE, der::concat({{0xFF}, prefixed(3, list)})),
          // extensions cut off, with a costly certificate where they would be
          message(SSL3_MT_CERTIFICATE, der::concat({{0}, prefixed(3, plain)})),
          message(SSL3_MT_CERTIFICATE, der::concat({{0}, prefixed(3, der::concat({plain, {0xFF, 0xFF}, list}))}))}) {
        EXPECT_EQ(shown(newer.get(), each), each);
    }
    EXPECT_EQ(reasonAndClear(), 0U);
}

TEST(PeerMessages, OnlyHandshakeMessagesThatCameAreLookedAt) {
    const SslPtr ssl = tls12();
    const Bytes bad = certificates12({costly()});
    EXPECT_EQ(shown(ssl.get(), bad, bad.size(), true), bad) << "our own";
    EXPECT_EQ(shown(ssl.get(), bad, bad.size(), false, SSL3_RT_APPLICATION_DATA), bad);
    EXPECT_EQ(shown(ssl.get(), bad, bad.size(), true, SSL3_RT_ALERT), bad);
    EXPECT_EQ(shown(nullptr, bad), bad);
    for (std::size_t length = 0; length < bad.size(); ++length) {
        EXPECT_EQ(shown(ssl.get(), bad, length), bad) << "cut to " << length;
    }
    Bytes other = bad;
    other[0] = SSL3_MT_CERTIFICATE_VERIFY;
    EXPECT_EQ(shown(ssl.get(), other), other);
    const ContextPtr datagrams(SSL_CTX_new(DTLS_client_method()));
    const SslPtr dtls = overMemory(datagrams);
    EXPECT_EQ(shown(dtls.get(), bad), bad);
    EXPECT_EQ(reasonAndClear(), 0U);
}

// The five octets of each message pay for none.
TEST(PeerMessages, SixtyFourMessagesAreFreeAndEachOtherOneIsOwed4096OtherOctets) {
    const Bytes update = message(SSL3_MT_KEY_UPDATE, {1});
    const Bytes refusedUpdate = with(update, 4, {0xFF});
    for (const auto& [received, allowed] :
         {std::pair(0, 64), std::pair(4095 + 65 * 5, 64), std::pair(4096 + 65 * 5, 65), std::pair(20000, 68)}) {
        const SslPtr ssl = tls13(static_cast<std::size_t>(received));
        EXPECT_EQ(last(ssl.get(), update, allowed + 1), refusedUpdate) << received;
        EXPECT_EQ(reasonAndClear(), static_cast<unsigned long>(SSL_R_TOO_MANY_KEY_UPDATES));
        EXPECT_EQ(shown(ssl.get(), update), refusedUpdate) << "from then on";
        ERR_clear_error();
    }
}

TEST(PeerMessages, AMessageWithoutItsFieldCountsToo) {
    const SslPtr ssl = tls13();
    const Bytes empty = message(SSL3_MT_KEY_UPDATE, {});
    EXPECT_EQ(last(ssl.get(), empty, 70), empty);
    EXPECT_EQ(reasonAndClear(), 0U);
    const Bytes update = message(SSL3_MT_KEY_UPDATE, {0});
    EXPECT_EQ(shown(ssl.get(), update), with(update, 4, {0xFF}));
    EXPECT_NE(reasonAndClear(), 0U);
}

TEST(PeerMessages, AHandshakeThatBeginsAnewCountsAsFour) {
    const Bytes hello = message(SSL3_MT_SERVER_HELLO, {3, 3, 7, 7, 7, 7});
    const SslPtr ssl = tls12();
    EXPECT_EQ(last(ssl.get(), hello, 17), with(hello, 4, {0xFF, 0xFF}));
    EXPECT_EQ(reasonAndClear(), static_cast<unsigned long>(SSL_R_NO_RENEGOTIATION));
}

/// What reading from a connection answers.
int readingFrom(SSL* ssl) {
    BIO_write(SSL_get_rbio(ssl), "octets", 6);
    std::array<char, 6> octets{};
    return BIO_read(SSL_get_rbio(ssl), octets.data(), 1);
}

TEST(PeerMessages, AHelloRequestTooManyEndsReadingAndIsToldOnce) {
    const Bytes request = message(SSL3_MT_HELLO_REQUEST, {});
    const SslPtr ssl = tls12();
    EXPECT_EQ(last(ssl.get(), request, 64), request);
    EXPECT_EQ(1, readingFrom(ssl.get()));
    EXPECT_EQ(5, BIO_read(SSL_get_rbio(ssl.get()), Bytes(5).data(), 5));
    EXPECT_EQ(-1, BIO_read(SSL_get_rbio(ssl.get()), Bytes(1).data(), 1));
    EXPECT_NE(0, BIO_should_retry(SSL_get_rbio(ssl.get()))) << "a wait from before";
    EXPECT_EQ(last(ssl.get(), request, 3), request);
    errno = 0;
    EXPECT_EQ(-1, BIO_read(SSL_get_rbio(ssl.get()), Bytes(1).data(), 1));
    EXPECT_EQ(EPROTO, errno);
    EXPECT_EQ(0, BIO_should_retry(SSL_get_rbio(ssl.get())));
    EXPECT_EQ(-1, readingFrom(ssl.get()));
    EXPECT_EQ(6U, BIO_ctrl_pending(SSL_get_rbio(ssl.get()))) << "nothing but reading is refused";
    EXPECT_EQ(reasonAndClear(), static_cast<unsigned long>(SSL_R_NO_RENEGOTIATION));
    EXPECT_EQ(0U, ERR_peek_error());
}

TEST(PeerMessages, OnlyAServersRefusalsOfRenegotiationCount) {
    const ContextPtr serving(SSL_CTX_new(TLS_server_method()));
    const SslPtr server = overMemory(serving);
    SSL_set_accept_state(server.get());
    const SslPtr asking = tls12();
    const ContextPtr datagrams(SSL_CTX_new(DTLS_server_method()));
    const SslPtr dtls = overMemory(datagrams);
    SSL_set_accept_state(dtls.get());
    const Bytes refusal{SSL3_AL_WARNING, SSL_AD_NO_RENEGOTIATION};
    const Bytes other{SSL3_AL_WARNING, SSL_AD_CLOSE_NOTIFY};
    for (int i = 0; i < 100; ++i) {
        shown(asking.get(), refusal, 2, true, SSL3_RT_ALERT);
        shown(dtls.get(), refusal, 2, true, SSL3_RT_ALERT);
        shown(nullptr, refusal, 2, true, SSL3_RT_ALERT);
        shown(server.get(), refusal, 2, false, SSL3_RT_ALERT);
        shown(server.get(), refusal, 1, true, SSL3_RT_ALERT);
        shown(server.get(), refusal, 2, true, SSL3_RT_APPLICATION_DATA);
        shown(server.get(), other, 2, true, SSL3_RT_ALERT);
    }
    for (SSL* const each : {asking.get(), dtls.get(), server.get()}) {
        EXPECT_EQ(1, readingFrom(each));
    }
    for (int i = 0; i < 65; ++i) {
        shown(server.get(), refusal, 2, true, SSL3_RT_ALERT);
    }
    EXPECT_EQ(-1, readingFrom(server.get()));
    EXPECT_EQ(reasonAndClear(), static_cast<unsigned long>(SSL_R_NO_RENEGOTIATION));
}

// After the handshake nothing is agreed on anew; ECDHE has no prime.
TEST(PeerMessages, ParametersOfOtherKeyExchangesAreLeftAlone) {
    const Bytes parameters = message(SSL3_MT_SERVER_KEY_EXCHANGE, prefixed(2, Bytes(1025, 9)));
    const SslPtr ssl = tls12();
    EXPECT_EQ(shown(ssl.get(), parameters), parameters);
    EXPECT_EQ(reasonAndClear(), 0U);
}

TEST(PeerMessages, APrimeThatIsTooLongHasNoLength) {
    const SslPtr ssl = tls12();
    const Bytes generator = prefixed(2, {2});
    const Bytes hint = prefixed(2, {'h', 'i'});
    const auto named = [&](const Bytes& suite, std::size_t inFront) {
        const During<const SSL_CIPHER*> pending(s_pending, SSL_CIPHER_find(ssl.get(), suite.data()));
        ASSERT_NE(s_pending, nullptr);
        const auto parameters = [&](std::size_t length) {
            const Bytes own = der::concat({prefixed(2, Bytes(length, 9)), generator, prefixed(2, Bytes(length, 3))});
            return message(SSL3_MT_SERVER_KEY_EXCHANGE, inFront == 0 ? own : der::concat({hint, own}));
        };
        EXPECT_EQ(shown(ssl.get(), parameters(1024)), parameters(1024));
        EXPECT_EQ(reasonAndClear(), 0U);
        const Bytes tooLong = parameters(1025);
        EXPECT_EQ(shown(ssl.get(), tooLong), with(tooLong, 4 + inFront, {0xFF, 0xFF}));
        EXPECT_EQ(reasonAndClear(), static_cast<unsigned long>(DH_R_MODULUS_TOO_LARGE));
        for (std::size_t length = 0; length < 4 + inFront + 2 + 1025; ++length) {
            EXPECT_EQ(shown(ssl.get(), tooLong, length), tooLong) << "cut to " << length;
        }
        EXPECT_EQ(reasonAndClear(), 0U);
    };
    named({0x00, 0x9E}, 0);           // TLS_DHE_RSA_WITH_AES_128_GCM_SHA256
    named({0x00, 0xAA}, hint.size()); // TLS_DHE_PSK_WITH_AES_128_GCM_SHA256
}

TEST(PeerMessages, ATicketTooManyHasNoLength) {
    // Lifetime, age and nonce stand in front of the ticket (RFC 8446, 4.6.1).
    const Bytes ticket = message(
        SSL3_MT_NEWSESSION_TICKET,
        der::concat(
            {{0, 0, 0x1C, 0x20, 9, 8, 7, 6}, prefixed(1, {5, 5, 5}), prefixed(2, Bytes(300, 4)), prefixed(2, {})}));
    const SslPtr newer = tls13();
    EXPECT_EQ(last(newer.get(), ticket, 65), with(ticket, 4 + 8 + 4, {0, 0}));
    EXPECT_EQ(reasonAndClear(), static_cast<unsigned long>(SSL_R_UNEXPECTED_MESSAGE));
    for (std::size_t length = 0; length < 4 + 8 + 4 + 2; ++length) {
        EXPECT_EQ(shown(newer.get(), ticket, length), ticket) << "cut to " << length;
    }
    EXPECT_EQ(reasonAndClear(), 0U);
    // TLS 1.2 has one in each handshake, which is counted itself.
    const SslPtr older = tls12();
    EXPECT_EQ(last(older.get(), ticket, 100), ticket);
    EXPECT_EQ(reasonAndClear(), 0U);
}

TEST(PeerMessages, CertificatesOf65536OctetsInAll) {
    const ContextPtr context(SSL_CTX_new(TLS_client_method()));
    boundPeers(context.get());
    EXPECT_EQ(SSL_CTX_get_max_cert_list(context.get()), 65536);
}
