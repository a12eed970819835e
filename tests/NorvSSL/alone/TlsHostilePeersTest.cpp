// What a peer of a TLS connection may cost before anybody knows who it is: how often OpenSSL decodes a certificate, and
// how often it is made to read without any data to show for it.

#include "support/Interpose.h"
#include "support/Tls.h"

#include <gmock/gmock.h>

#include <openssl/core_names.h>
#include <openssl/hmac.h>
#include <openssl/kdf.h>

#include <sys/socket.h>

#include <algorithm>
#include <functional>
#include <memory>

using namespace Norvane;
using namespace Norvane::Crypto::NVSSL;
using namespace tlstesting;
using testing::HasSubstr;

namespace {

thread_local int s_decoded = 0; ///< certificates that this thread decoded
thread_local int s_reads = 0;

} // namespace

extern "C" {

X509* d2i_X509(X509** certificate, const unsigned char** der, long length) {
    ++s_decoded;
    return norvtest::next<&d2i_X509>("d2i_X509")(certificate, der, length);
}

int SSL_read(SSL* ssl, void* buffer, int length) {
    ++s_reads;
    return norvtest::next<&SSL_read>("SSL_read")(ssl, buffer, length);
}
}

namespace {

class TlsHostilePeersTest : public TlsTest {};

/// A chain certificate that OpenSSL would take long to decode or to use, and what a refusal of it says.
struct Costly {
    std::string name;
    Identity identity;
    std::string reason;
};

Identity withExplicitCurve() {
    EVP_PKEY* key = EVP_EC_gen("P-256");
    EVP_PKEY_set_utf8_string_param(key, OSSL_PKEY_PARAM_EC_ENCODING, OSSL_PKEY_EC_ENCODING_EXPLICIT);
    Identity identity = norvauthority::issue(
        {.subject = {{"CN", "explicit"}}, .key = norvauthority::Key::of(key), .ca = true, .keyUsage = 0x06U});
    EVP_PKEY_free(key);
    return identity;
}

/// So many distribution points under an issuer with a name of some 1,000 octets.
Identity withRelativePoints(std::size_t count) {
    const norvauthority::DistributionPoint point{.name = {{.relative = {{{"CN", "x"}}}}}};
    return norvauthority::issue({.subject = {{"CN", std::string(1000, 'n')}},
                                 .key = norvauthority::Key::ec(),
                                 .ca = true,
                                 .keyUsage = 0x06U,
                                 .crlDistributionPoints = {count, point}});
}

const std::vector<Costly>& costlyOnes() {
    static const std::vector<Costly> all{
        {"explicit curve", withExplicitCurve(), "explicit elliptic curve parameters; "},
        {"relative points", withRelativePoints(40), "too many distribution points relative to the issuer; "}};
    return all;
}

/// A context of OpenSSL's own, which sends whatever it is given: an identity and one more certificate.
RefContext plainContext(bool isClient, int version, const Identity& own, const Identity& further) {
    RefContext made(new Context(SSL_CTX_new(isClient ? TLS_client_method() : TLS_server_method())));
    SSL_CTX_set_security_level(made, 0);
    made->certificate(certificateOf(own));
    made->privateKey(keyOf(own));
    SSL_CTX_add_extra_chain_cert(made, further.certificate.x509().release());
    return only(made, version);
}

/// Asks for a certificate, and lets every client pass.
RefContext askingServer(int version) {
    const RefContext made = only(serverContext(), version);
    SSL_CTX_set_verify(made, SSL_VERIFY_PEER, [](int, X509_STORE_CTX*) { return 1; });
    return made;
}

/// The failure of a server of the library, with the client in another thread; an empty one when there is none.
std::string refusalByServer(const RefContext& forServer, const RefContext& forClient) {
    SSLSocket listening = listener(forServer);
    auto client = std::async(std::launch::async, [&] {
        try {
            SSLSocket socket = dial(forClient, listening.localAddress());
            receive(socket); // the alert, or the end
        } catch (const SocketException&) {
        }
        ERR_clear_error();
    });
    std::string reason;
    s_decoded = 0;
    try {
        static_cast<void>(listening.accept());
    } catch (const SocketException& thrown) {
        expectFailure(thrown, "SocketException", 4, "SSLSocket", 146);
        reason = detailOf(thrown);
    }
    client.get();
    return reason;
}

/// The same of a client, with the server in another thread; what the server was told is in `alert`.
std::string refusalByClient(const RefContext& forClient, const RefContext& forServer, std::string* alert = nullptr) {
    SSLSocket listening = listener(forServer);
    auto server = std::async(std::launch::async, [&]() -> std::string {
        try {
            static_cast<void>(listening.accept());
        } catch (const SocketException& thrown) {
            return detailOf(thrown);
        }
        return {};
    });
    std::string reason;
    s_decoded = 0;
    try {
        dial(forClient, listening.localAddress());
    } catch (const SocketException& thrown) {
        expectFailure(thrown, "SocketException", 4, "SSLSocket", 97);
        EXPECT_EQ("SSL_connect failed", detailOf(thrown));
        reason = reasonOf(thrown);
    }
    const std::string told = server.get();
    if (alert != nullptr) {
        *alert = told;
    }
    return reason;
}

constexpr std::array<int, 2> versions{TLS1_2_VERSION, TLS1_3_VERSION};

TEST_F(TlsHostilePeersTest, CostlyCertificatesOfClientsAreRefusedBeforeAnyOfTheChainIsDecoded) {
    for (const Costly& costly : costlyOnes()) {
        for (const int version : versions) {
            const std::string reason =
                refusalByServer(askingServer(version), plainContext(clientSide, version, client(), costly.identity));
            EXPECT_THAT(reason, HasSubstr(costly.reason)) << costly.name;
            EXPECT_THAT(reason, testing::EndsWith("length mismatch; ")) << costly.name;
            EXPECT_EQ(0, s_decoded) << costly.name << " in " << version;
            EXPECT_TRUE(errorQueueIsEmpty());
        }
    }
}

TEST_F(TlsHostilePeersTest, CostlyCertificatesOfServersAreRefusedAndTheServerIsTold) {
    for (const Costly& costly : costlyOnes()) {
        for (const int version : versions) {
            std::string alert;
            const std::string reason = refusalByClient(
                only(clientContext(), version), plainContext(serverSide, version, server(), costly.identity), &alert);
            EXPECT_THAT(reason, HasSubstr(costly.reason)) << costly.name;
            EXPECT_THAT(alert, HasSubstr("alert decode error; ")) << costly.name;
            EXPECT_EQ(0, s_decoded) << costly.name << " in " << version;
            EXPECT_TRUE(errorQueueIsEmpty());
        }
    }
}

TEST_F(TlsHostilePeersTest, HarmlessChainsAreDecodedAsEver) {
    const Identity few = withRelativePoints(10);
    for (const int version : versions) {
        EXPECT_EQ("", refusalByServer(askingServer(version), plainContext(clientSide, version, client(), few)));
        EXPECT_EQ(2, s_decoded);
        EXPECT_EQ("",
                  refusalByClient(only(clientContext(), version), plainContext(serverSide, version, server(), root())));
        EXPECT_EQ(2, s_decoded);
    }
}

TEST_F(TlsHostilePeersTest, CallbackOfTheProgramTakesItsPlaceAndMayHandOn) {
    static bool s_guarded;
    const auto own = [](int written, int version, int type, const void* data, std::size_t length, SSL* ssl,
                        void* more) {
        if (s_guarded) {
            refuseCostlyMessages(written, version, type, data, length, ssl, more);
        }
    };
    for (const bool guarded : {true, false}) {
        s_guarded = guarded;
        const RefContext forClient = clientContext();
        SSL_CTX_set_msg_callback(forClient, own);
        const auto& costly = costlyOnes().front();
        EXPECT_EQ(
            guarded,
            !refusalByClient(forClient, plainContext(serverSide, TLS1_3_VERSION, server(), costly.identity)).empty())
            << "a callback that does not hand on takes its place, deliberately";
    }
}

/// A certificate with a comment of that length.
Identity withComment(std::size_t length) {
    return norvauthority::issue(
        {.subject = {{"CN", "long"}},
         .key = server().key,
         .extensions = {{.oid = "2.16.840.1.113730.1.13",
                         .value = norvauthority::der::element(0x16, norvauthority::Bytes(length, 'c'))}}});
}

TEST_F(TlsHostilePeersTest, CertificatesThatComeToMoreThan64KibAreRefused) {
    const Identity fits = withComment(60000);
    const Identity exceeds = withComment(65500);
    ASSERT_LT(fits.certificate.der.size() + root().certificate.der.size(), 65000U);
    ASSERT_GT(exceeds.certificate.der.size() + root().certificate.der.size(), 65536U);
    for (const int version : versions) {
        EXPECT_EQ("", refusalByServer(askingServer(version), plainContext(clientSide, version, fits, root())));
        EXPECT_THAT(refusalByServer(askingServer(version), plainContext(clientSide, version, exceeds, root())),
                    HasSubstr("excessive message size; "));
        EXPECT_EQ(0, s_decoded);
        EXPECT_THAT(refusalByClient(only(clientContext(), version), plainContext(serverSide, version, exceeds, root())),
                    HasSubstr("excessive message size; "));
        EXPECT_EQ(0, s_decoded);
    }
}

TEST_F(TlsHostilePeersTest, BoundOfTheSizeIsThatOfEveryContext) {
    for (const bool isClient : {true, false}) {
        EXPECT_EQ(65536, SSL_CTX_get_max_cert_list(context(isClient)));
        EXPECT_EQ(65536, SSL_CTX_get_max_cert_list(context(isClient, nullptr, ContextFactory::TLS_V1)));
    }
}

/// What ends a side's `receive`, while the other does something without end; how many reads it took is in s_reads.
std::string floodOf(SSLSocket& side, SSLSocket& other, const std::function<bool()>& again) {
    auto flood = std::async(std::launch::async, [&] {
        constexpr int many = 1000;
        for (int i = 0; i < many && again(); ++i) {
        }
        other.shutdown(false, true);
        ERR_clear_error();
    });
    s_reads = 0;
    std::string reason = "none";
    try {
        while (!receive(side).empty()) {
        }
    } catch (const SocketException& thrown) {
        expectFailure(thrown, "SocketException", 4, "SSLSocket", 249);
        EXPECT_EQ(Exception::Parameter(SSL_ERROR_SSL), thrown.parameters().back());
        reason = reasonOf(thrown);
    }
    side.shutdown();
    flood.get();
    return reason;
}

/// The same of a client, with a server of OpenSSL's own that may send one more certificate.
std::string floodOf(int version, const std::function<bool(SSL*)>& again, const Identity* further = nullptr) {
    RefContext forServer(new Context(SSL_CTX_new(TLS_server_method())));
    forServer->certificate(certificateOf(server()));
    forServer->privateKey(keyOf(server()));
    if (further != nullptr) {
        SSL_CTX_add_extra_chain_cert(forServer, further->certificate.x509().release());
    }
    SSL_CTX_set_options(forServer, SSL_OP_NO_TICKET); // each handshake is a whole one
    SSL_CTX_set_session_cache_mode(forServer, SSL_SESS_CACHE_OFF);
    Connection both = connected(only(clientContext(), version), forServer);
    return floodOf(both.client, both.server, [&] { return again(both.server); });
}

TEST_F(TlsHostilePeersTest, KeyUpdatesWithoutEndEndTheConnection) {
    for (const int kind : {SSL_KEY_UPDATE_NOT_REQUESTED, SSL_KEY_UPDATE_REQUESTED}) {
        const std::string reason = floodOf(
            TLS1_3_VERSION, [kind](SSL* ssl) { return SSL_key_update(ssl, kind) == 1 && SSL_do_handshake(ssl) == 1; });
        EXPECT_THAT(reason, HasSubstr("too many key updates; "));
        EXPECT_LE(s_reads, 140) << "of a thousand";
    }
}

TEST_F(TlsHostilePeersTest, SessionTicketsWithoutEndEndTheConnection) {
    const std::string reason = floodOf(
        TLS1_3_VERSION, [](SSL* ssl) { return SSL_new_session_ticket(ssl) == 1 && SSL_do_handshake(ssl) == 1; });
    EXPECT_THAT(reason, HasSubstr("unexpected message; "));
    EXPECT_LE(s_reads, 90) << "a ticket has some hundred bytes, which count";
}

TEST_F(TlsHostilePeersTest, RenegotiationsWithoutEndEndTheConnection) {
    const Identity longOne = withComment(60000); // certificates pay for no handshakes
    for (const Identity* further : {static_cast<const Identity*>(nullptr), &longOne}) {
        int handshakes = 0;
        const auto again = [&](SSL* ssl) {
            SSL_clear_mode(ssl, SSL_MODE_AUTO_RETRY); // reading comes back after the handshake, without data
            char byte = 0;
            const bool done = SSL_renegotiate(ssl) == 1 && SSL_do_handshake(ssl) == 1 &&
                              SSL_get_error(ssl, SSL_peek(ssl, &byte, 1)) == SSL_ERROR_WANT_READ;
            handshakes += done ? 1 : 0;
            return done;
        };
        EXPECT_THAT(floodOf(TLS1_2_VERSION, again, further), HasSubstr("no renegotiation; "));
        EXPECT_GE(handshakes, 10);
        EXPECT_LE(handshakes, 30);
    }
}

/// A connection of TLS 1.2 that authenticates its records and does not encrypt them.
Connection unencrypted() {
    const auto weak = [](const RefContext& context) {
        EXPECT_EQ(1, SSL_CTX_set_cipher_list(context, "ECDHE-ECDSA-NULL-SHA:@SECLEVEL=0"));
        SSL_CTX_set_options(context, SSL_OP_NO_ENCRYPT_THEN_MAC);
        return only(context, TLS1_2_VERSION);
    };
    return connected(weak(clientContext()), weak(serverContext()));
}

/// Writes what OpenSSL would not into such a connection, by the keys of RFC 5246, 6.3 and the records of 6.2.3.1.
class Records {
public:
    explicit Records(const SSLSocket& side) : m_descriptor(side.descriptor()) {
        std::array<unsigned char, 48> secret{};
        std::array<unsigned char, 64> randoms{};
        SSL_SESSION_get_master_key(SSL_get_session(side), secret.data(), secret.size());
        SSL_get_server_random(side, randoms.data(), 32);
        SSL_get_client_random(side, randoms.data() + 32, 32);
        const std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)> derivation(
            EVP_PKEY_CTX_new_id(EVP_PKEY_TLS1_PRF, nullptr), EVP_PKEY_CTX_free);
        const std::string label = "key expansion";
        std::array<unsigned char, 2 * keyLength> keys{}; // the client's first
        std::size_t length = keys.size();
        EXPECT_EQ(1, EVP_PKEY_derive_init(derivation.get()));
        EXPECT_EQ(1, EVP_PKEY_CTX_set_tls1_prf_md(derivation.get(), EVP_sha256()));
        EXPECT_EQ(1, EVP_PKEY_CTX_set1_tls1_prf_secret(derivation.get(), secret.data(), secret.size()));
        EXPECT_EQ(1, EVP_PKEY_CTX_add1_tls1_prf_seed(derivation.get(),
                                                     reinterpret_cast<const unsigned char*>(label.data()),
                                                     static_cast<int>(label.size())));
        EXPECT_EQ(1, EVP_PKEY_CTX_add1_tls1_prf_seed(derivation.get(), randoms.data(), randoms.size()));
        EXPECT_EQ(1, EVP_PKEY_derive(derivation.get(), keys.data(), &length));
        std::copy_n(keys.begin() + (SSL_is_server(side) != 0 ? keyLength : 0), keyLength, m_key.begin());
    }

    /// A handshake record. False once the peer takes no more.
    bool send(const std::string& messages) {
        std::string authenticated;
        for (int shift = 56; shift >= 0; shift -= 8) {
            authenticated += static_cast<char>(m_number >> static_cast<unsigned int>(shift));
        }
        ++m_number;
        authenticated += header(messages.size()) + messages;
        std::array<unsigned char, keyLength> code{};
        HMAC(EVP_sha1(), m_key.data(), keyLength, reinterpret_cast<const unsigned char*>(authenticated.data()),
             authenticated.size(), code.data(), nullptr);
        const std::string record = header(messages.size() + keyLength) + messages +
                                   std::string(reinterpret_cast<const char*>(code.data()), code.size());
        std::array<char, 4096> answers{}; // are taken, so that the peer can go on
        static_cast<void>(::recv(m_descriptor, answers.data(), answers.size(), MSG_DONTWAIT));
        for (std::size_t sent = 0; sent < record.size();) {
            const auto count = ::send(m_descriptor, record.data() + sent, record.size() - sent, MSG_NOSIGNAL);
            if (count <= 0) {
                return false;
            }
            sent += static_cast<std::size_t>(count);
        }
        return true;
    }

private:
    static constexpr std::size_t keyLength = 20;

    static std::string header(std::size_t length) {
        return {'\x16', '\x03', '\x03', static_cast<char>(length >> 8U), static_cast<char>(length)};
    }

    int m_descriptor;
    std::array<unsigned char, keyLength> m_key{};
    std::uint64_t m_number = 1; // its Finished came before
};

// OpenSSL passes over them while the handshake goes on that the first one asked for, and would come back only at the end.
TEST_F(TlsHostilePeersTest, HelloRequestsWithoutEndEndTheConnection) {
    Connection both = unencrypted();
    Records records(both.server);
    ASSERT_TRUE(records.send(std::string(4, '\0')));
    EXPECT_THAT(floodOf(both.client, both.server, [&] { return records.send(std::string(16000, '\0')); }),
                HasSubstr("no renegotiation; "));
    EXPECT_LE(s_reads, 2);
    const auto thrown = thrownBy<SocketException>([&] { receive(both.client); });
    EXPECT_EQ(249U, thrown.lineNumber()) << "it is not the end of the stream";
    EXPECT_THAT(thrown.parameters(), testing::Contains(Exception::Parameter(SSL_ERROR_SYSCALL)));
}

TEST_F(TlsHostilePeersTest, HelloRequestsWithoutEndEndSendingToo) {
    Connection both = unencrypted();
    Records records(both.server);
    ASSERT_EQ(1, SSL_renegotiate(both.client)); // sending shakes hands first
    auto flood = std::async(std::launch::async, [&] {
        for (int i = 0; i < 1000 && records.send(std::string(16000, '\0')); ++i) {
        }
        both.server.shutdown(false, true);
    });
    EXPECT_EQ(0, tlstesting::send(both.client, "data"));
    both.client.shutdown();
    flood.get();
    EXPECT_TRUE(errorQueueIsEmpty());
}

// A server answers each of them with an alert, and reads on.
TEST_F(TlsHostilePeersTest, HellosOfAClientThatMayNotRenegotiateEndTheConnection) {
    for (const std::string& hello :
         {std::string("\x01\x00\x00\x00", 4), // and one that fills a record, which pays for none
          std::string("\x01\x00\x3f\xfc", 4) + std::string(16380, '\0')}) {
        Connection both = unencrypted();
        Records records(both.client);
        EXPECT_THAT(floodOf(both.server, both.client, [&] { return records.send(hello); }),
                    HasSubstr("no renegotiation; "));
        EXPECT_LE(s_reads, 70) << "of a thousand";
    }
}

TEST_F(TlsHostilePeersTest, AClientMayAskForRenegotiationNowAndThen) {
    Connection both = unencrypted();
    Records records(both.client);
    for (int i = 0; i < 60; ++i) {
        ASSERT_TRUE(records.send(std::string("\x01\x00\x00\x00", 4)));
    }
    both.client.shutdown(false, true);
    EXPECT_EQ("", receive(both.server));
}

/// Without certificates, which have no bearing on it.
RefContext withCipher(const RefContext& context, const std::string& name) {
    EXPECT_EQ(1, SSL_CTX_set_cipher_list(context, (name + ":@SECLEVEL=0").c_str()));
    SSL_CTX_set_psk_client_callback(
        context,
        [](SSL*, const char*, char* identity, unsigned int room, unsigned char* key, unsigned int) -> unsigned int {
            std::fill_n(identity, room, '\0');
            *identity = 'i';
            *key = 'k';
            return 1;
        });
    SSL_CTX_set_psk_server_callback(context, [](SSL*, const char*, unsigned char* key, unsigned int) -> unsigned int {
        *key = 'k';
        return 1;
    });
    return only(context, TLS1_2_VERSION);
}

/// A server whose client has to compute modulo a number of so many octets. It is no prime, which OpenSSL does not notice.
RefContext serverWithModulus(const std::string& cipher, std::size_t octets) {
    using namespace norvauthority;
    Bytes modulus(octets + 1, 0xA5);
    modulus.front() = 0; // positive
    const Bytes parameters = der::element(0x30, der::concat({der::element(0x02, modulus), der::element(0x02, {2})}));
    const unsigned char* at = parameters.data();
    RefContext made = withCipher(RefContext(new Context(SSL_CTX_new(TLS_server_method()))), cipher);
    SSL_CTX_use_psk_identity_hint(made, "hint");
    EVP_PKEY* const modular = d2i_KeyParams(EVP_PKEY_DH, nullptr, &at, static_cast<long>(parameters.size()));
    EXPECT_EQ(1, SSL_CTX_set0_tmp_dh_pkey(made, modular));
    return made;
}

TEST_F(TlsHostilePeersTest, ServersChooseNoLongerModulusThanThoseWithNames) {
    for (const std::string cipher : {"ADH-AES128-GCM-SHA256", "DHE-PSK-AES128-GCM-SHA256"}) {
        std::string alert;
        EXPECT_THAT(refusalByClient(withCipher(clientContext(), cipher), serverWithModulus(cipher, 1025), &alert),
                    HasSubstr("modulus too large; "));
        EXPECT_THAT(alert, HasSubstr("alert decode error; "));
        EXPECT_EQ("", refusalByClient(withCipher(clientContext(), cipher), serverWithModulus(cipher, 1024)));
    }
}

/// What `accept` throws when a client begins with so many times the same bytes.
std::string refusalOfBeginning(const std::string& record, int times) {
    SSLSocket listening = listener(serverContext());
    Socket stranger(true);
    stranger.connect(listening.localAddress());
    for (int i = 0; i < times; ++i) {
        tlstesting::send(stranger, record);
    }
    stranger.shutdown(false, true);
    return detailOf(thrownBy<SocketException>([&] { static_cast<void>(listening.accept()); }));
}

// OpenSSL's own bound, which the library relies on.
TEST_F(TlsHostilePeersTest, EmptyRecordsEndTheHandshake) {
    const std::string empty("\x16\x03\x01\x00\x00", 5);
    EXPECT_THAT(refusalOfBeginning(empty, 32), HasSubstr("unexpected eof"));
    EXPECT_THAT(refusalOfBeginning(empty, 33), HasSubstr("record too small; "));
}

TEST_F(TlsHostilePeersTest, KeyUpdatesAreFreeWhereDataComesWithThem) {
    Connection both = connected(only(clientContext(), TLS1_3_VERSION), serverContext());
    const std::string piece(8192, 'd');
    for (int i = 0; i < 300; ++i) {
        ASSERT_EQ(1, SSL_key_update(both.server, SSL_KEY_UPDATE_NOT_REQUESTED));
        ASSERT_EQ(8192, send(both.server, piece));
        ASSERT_EQ(piece, receive(both.client, piece.size()));
    }
}

} // namespace
