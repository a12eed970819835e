// What is asked of a connection before it is made: limits, host names, trust; and what it then tells as values.

#include "support/Tls.h"

#include <norvcmsg/Buffer.h>

#include <gmock/gmock.h>

#include <atomic>
#include <fcntl.h>
#include <memory>
#include <sys/socket.h>
#include <thread>

using namespace Norvane;
using namespace tlstesting;
using Norvane::Crypto::NVSSL::asciiHostName;
using Norvane::Crypto::NVSSL::ConnectionOptions;
using Norvane::Crypto::NVSSL::HostCheck;
using Norvane::Crypto::NVSSL::isIssuedTo;
using Norvane::Crypto::NVSSL::SessionFacts;
using norvauthority::GeneralName;
using norvauthority::Key;
using testing::HasSubstr;

namespace {

/// A handshake with nobody takes this long; one with somebody never does.
constexpr uint_t shortLimit = 200;

ConnectionOptions trusting(const std::string& host) {
    ConnectionOptions options;
    options.timeLimit = 20000;
    options.handshakeLimit = 20000;
    options.hostName = host;
    options.requireTrust = true;
    return options;
}

RefContext trustingContext() {
    RefContext made = clientContext();
    trust(made, root());
    return made;
}

Identity named(std::vector<GeneralName> names) {
    return issued("server", {.serial = "7", .alternativeNames = std::move(names)});
}

class SSLSocketOptionsTest : public TlsTest {
protected:
    /// What a client gets from a server with that identity: its facts, or the text of its failure.
    struct Outcome {
        SessionFacts client{};
        SessionFacts server{};
        std::string failure{};
        std::string reason{};
    };
    static Outcome meet(const ConnectionOptions& options, const Identity& identity,
                        RefContext client = trustingContext()) {
        return meet(options, context(serverSide, &identity), client);
    }
    static Outcome meet(const ConnectionOptions& options, RefContext server, RefContext client) {
        SSLSocket listening = listener(server);
        ConnectionOptions atServer;
        atServer.handshakeLimit = 20000;
        listening.options(atServer);
        Outcome outcome;
        auto serving = std::async(std::launch::async, [&] {
            try {
                SSLSocket accepted(listening.accept());
                outcome.server = accepted.session();
                receive(accepted);
            } catch (const SocketException&) { // the client would not have it
                outcome.server = {};
            }
        });
        try {
            const SSLSocket socket(client, listening.localAddress(), options);
            outcome.client = socket.session();
        } catch (const SocketException& thrown) {
            EXPECT_EQ("SocketException", thrown.where());
            EXPECT_EQ(4, thrown.code());
            EXPECT_EQ("SSLSocket", thrown.fileName());
            EXPECT_TRUE(errorQueueIsEmpty());
            outcome.failure = detailOf(thrown);
            outcome.reason = thrown.hasCause() ? detailOf(*thrown.cause()) : "";
        }
        serving.get();
        return outcome;
    }
};

TEST_F(SSLSocketOptionsTest, SessionTellsWhatWasAgreedOn) {
    const Outcome outcome = meet(trusting("localhost"), server(), only(trustingContext(), TLS1_3_VERSION));
    const SessionFacts& facts = outcome.client;
    EXPECT_EQ("", outcome.failure);
    EXPECT_EQ("TLSv1.3", facts.protocol);
    EXPECT_EQ("TLS_AES_256_GCM_SHA384", facts.cipher);
    EXPECT_EQ(256, facts.cipherBits);
    EXPECT_EQ("x25519", facts.group);
    ASSERT_FALSE(facts.certificate.isNull());
    EXPECT_TRUE(sameEncoding(certificateOf(server()), facts.certificate));
    ASSERT_EQ(1U, facts.chain.size());
    EXPECT_TRUE(sameEncoding(facts.certificate, facts.chain.front()));
    EXPECT_EQ(0, facts.verifyResult);
    EXPECT_EQ("ok", facts.verifyText);
    EXPECT_EQ(HostCheck::matches, facts.hostCheck);
    EXPECT_EQ("localhost", facts.serverName);
    EXPECT_EQ("", facts.applicationProtocol);
    EXPECT_FALSE(facts.isResumed);
    EXPECT_TRUE(facts.isTrusted());
    EXPECT_EQ("localhost", outcome.server.serverName);
    EXPECT_TRUE(outcome.server.certificate.isNull());
    EXPECT_TRUE(outcome.server.chain.empty());
    EXPECT_FALSE(outcome.server.isTrusted()) << "nobody showed a certificate";
}

TEST_F(SSLSocketOptionsTest, SessionOfTls12TellsTheGroupOfEcdheAndNoneOfRsa) {
    RefContext client = only(trustingContext(), TLS1_2_VERSION);
    SSL_CTX_set1_groups_list(client, "P-384:P-256"); // the second for the certificate
    const Outcome outcome = meet(trusting("localhost"), server(), client);
    EXPECT_EQ("secp384r1", outcome.client.group);
    EXPECT_EQ("secp384r1", outcome.server.group);
    const Identity rsa = norvauthority::issue({.subject = {{"CN", "rsa"}},
                                               .key = Key::rsa(),
                                               .issuer = &root(),
                                               .alternativeNames = {GeneralName::dns("localhost")}});
    SSL_CTX_set_cipher_list(client, "AES256-GCM-SHA384");
    const SessionFacts facts = meet(trusting("localhost"), rsa, client).client;
    EXPECT_EQ("TLSv1.2", facts.protocol);
    EXPECT_EQ("AES256-GCM-SHA384", facts.cipher);
    EXPECT_EQ("", facts.group);
}

TEST_F(SSLSocketOptionsTest, SessionTellsTheProtocolOfAlpn) {
    RefContext client = clientContext();
    RefContext forServer = serverContext();
    SSL_CTX_set_alpn_protos(client, reinterpret_cast<const unsigned char*>("\x04smtp\x04imap"), 10);
    SSL_CTX_set_alpn_select_cb(
        forServer,
        [](SSL*, const unsigned char** out, unsigned char* length, const unsigned char* offered, unsigned int, void*) {
            *out = offered + 6;
            *length = offered[5];
            return SSL_TLSEXT_ERR_OK;
        },
        nullptr);
    const Connection both = connected(client, forServer);
    EXPECT_EQ("imap", both.client.session().applicationProtocol);
    EXPECT_EQ("imap", both.server.session().applicationProtocol);
    EXPECT_EQ(HostCheck::notAsked, both.client.session().hostCheck);
    EXPECT_EQ("", both.server.session().serverName);
}

TEST_F(SSLSocketOptionsTest, SessionOfAServerHasTheClientsCertificateFirstInTheChain) {
    const Identity authority = issued("between", {.ca = true});
    const Identity person =
        norvauthority::issue({.subject = {{"CN", "person"}}, .key = Key::ec(), .issuer = &authority});
    RefContext identified = context(clientSide, &person);
    const auto between = certificateOf(authority);
    identified->appendToCertificatePath(between);
    between->relinquishOwnerShip();
    RefContext asking = serverContext();
    trust(asking, root());
    SSL_CTX_set_verify(asking, SSL_VERIFY_PEER, nullptr);
    const SessionFacts facts = connected(identified, asking).server.session();
    ASSERT_EQ(2U, facts.chain.size());
    EXPECT_TRUE(sameEncoding(certificateOf(person), facts.chain.front()));
    EXPECT_TRUE(sameEncoding(certificateOf(authority), facts.chain.back()));
    EXPECT_TRUE(facts.isTrusted());
}

TEST_F(SSLSocketOptionsTest, SessionTellsThatItWasResumed) {
    SSLSocket listening = listener(only(serverContext(), TLS1_2_VERSION));
    SSL_SESSION* session = nullptr;
    for (const bool again : {false, true}) {
        auto client = std::async(std::launch::async, [&] {
            Socket plain(true);
            plain.connect(listening.localAddress());
            SSL* ssl = SSL_new(clientContext());
            SSL_set_fd(ssl, plain.descriptor());
            SSL_set_session(ssl, session);
            EXPECT_EQ(1, SSL_connect(ssl));
            SSL_SESSION_free(session);
            session = SSL_get1_session(ssl);
            SSL_shutdown(ssl);
            SSL_free(ssl);
        });
        SSLSocket accepted(listening.accept());
        EXPECT_EQ(again, accepted.session().isResumed);
        EXPECT_EQ("", receive(accepted));
        client.get();
    }
    SSL_SESSION_free(session);
}

TEST_F(SSLSocketOptionsTest, SessionBeforeTheHandshakeIsRefused) {
    RefContext none = clientContext();
    const SSLSocket socket(none, AF_INET);
    const auto thrown = thrownBy<SocketException>([&] { static_cast<void>(socket.session()); });
    expectFailure(thrown, "SocketException", 1, "SSLSocket");
    EXPECT_EQ("not connected", detailOf(thrown));
}

TEST_F(SSLSocketOptionsTest, WrongHostNameIsRefusedInTheHandshakeOrToldAfterIt) {
    const Outcome refused = meet(trusting("example.org"), server());
    EXPECT_EQ("the peer is not trusted: hostname mismatch", refused.failure);
    EXPECT_THAT(refused.reason, HasSubstr("certificate verify failed"));
    ConnectionOptions lenient = trusting("example.org");
    lenient.requireTrust = false;
    const SessionFacts told = meet(lenient, server()).client;
    EXPECT_EQ(HostCheck::differs, told.hostCheck);
    EXPECT_EQ(X509_V_ERR_HOSTNAME_MISMATCH, told.verifyResult);
    EXPECT_FALSE(told.isTrusted());
}

TEST_F(SSLSocketOptionsTest, CommonNameAndPartialWildcardsAreNoHostNames) {
    EXPECT_EQ("the peer is not trusted: hostname mismatch",
              meet(trusting("server"), issued("server", {.serial = "8"})).failure);
    const Identity wild = named({GeneralName::dns("*.example.org"), GeneralName::dns("m*.example.net")});
    EXPECT_EQ("", meet(trusting("mx.example.org"), wild).failure);
    EXPECT_EQ("the peer is not trusted: hostname mismatch", meet(trusting("a.mx.example.org"), wild).failure);
    EXPECT_EQ("the peer is not trusted: hostname mismatch", meet(trusting("example.org"), wild).failure);
    EXPECT_EQ("the peer is not trusted: hostname mismatch", meet(trusting("mx.example.net"), wild).failure);
}

TEST_F(SSLSocketOptionsTest, IpAddressesAreComparedWithIpAddressesAloneAndNotSent) {
    const Identity good = named({GeneralName::ip("192.0.2.1"), GeneralName::ip("2001:db8::1")});
    const Outcome outcome = meet(trusting("192.0.2.1"), good);
    EXPECT_EQ("", outcome.failure);
    EXPECT_EQ(HostCheck::matches, outcome.client.hostCheck);
    EXPECT_EQ("", outcome.server.serverName);
    EXPECT_EQ("", meet(trusting("2001:DB8:0::1"), good).failure);
    EXPECT_EQ("the peer is not trusted: IP address mismatch", meet(trusting("192.0.2.2"), good).failure);
    EXPECT_EQ("the peer is not trusted: IP address mismatch",
              meet(trusting("192.0.2.1"), named({GeneralName::dns("192.0.2.1")})).failure);
}

TEST_F(SSLSocketOptionsTest, NamesInOtherScriptsAreConverted) {
    const Outcome outcome = meet(trusting("B\xC3\xBC"
                                          "cher.example."),
                                 named({GeneralName::dns("xn--bcher-kva.example")}));
    EXPECT_EQ("", outcome.failure);
    EXPECT_EQ("xn--bcher-kva.example", outcome.server.serverName);
    EXPECT_EQ(HostCheck::matches, outcome.client.hostCheck);
}

TEST_F(SSLSocketOptionsTest, AsciiHostNameConvertsAndRefuses) {
    EXPECT_EQ("MX.example.org", asciiHostName("MX.example.org."));
    EXPECT_EQ("xn--fa-hia.de", asciiHostName("fa\xC3\x9F.de")) << "IDNA 2008 keeps the sharp s";
    EXPECT_EQ("2001:db8::1", asciiHostName("2001:DB8:0:0::1"));
    EXPECT_EQ("192.0.2.1", asciiHostName("192.0.2.1"));
    EXPECT_EQ(std::string(63, 'a') + ".b", asciiHostName(std::string(63, 'a') + ".b"));
    const std::string long253 = std::string(62, 'a') + "." + std::string(62, 'a') + "." + std::string(62, 'a') + "." +
                                std::string(62, 'a') + ".b";
    ASSERT_EQ(253U, long253.size());
    EXPECT_EQ(long253, asciiHostName(long253));
    for (const std::string bad : {"", ".", "a..b", ".a", "a b", "a\n", "*.example.org", "[::1]", "fe80::1%lo",
                                  "user@host", "\xFF\xFE.example", "\xE2\x80\xAE.example"}) {
        const auto thrown = thrownBy([&] { static_cast<void>(asciiHostName(bad)); });
        expectFailure(thrown, "NVSSL::asciiHostName", 4, "NorvSSL");
        EXPECT_THAT(detailOf(thrown), testing::StartsWith("no host name")) << bad;
        EXPECT_THAT(detailOf(thrown), testing::Not(HasSubstr("\n")));
    }
    for (const std::string& bad : {std::string(64, 'a'), long253 + "c", std::string("a\0b", 3),
                                   std::string(100000, 'a'), "\xC3\xBC" + std::string(100000, 'a')}) {
        EXPECT_THROW(static_cast<void>(asciiHostName(bad)), Exception);
    }
}

TEST_F(SSLSocketOptionsTest, NameThatIsNoneIsRefusedBeforeAnythingIsConnected) {
    RefContext client = trustingContext();
    Socket listening(true);
    listening.bind(SocketAddress("127.0.0.1:0"));
    listening.listen();
    listening.blocking(false);
    const auto thrown =
        thrownBy([&] { const SSLSocket socket(client, listening.localAddress(), trusting("no host")); });
    expectFailure(thrown, "NVSSL::asciiHostName", 4, "NorvSSL");
    EXPECT_EQ("no host name: no host", detailOf(thrown));
    EXPECT_TRUE(listening.accept().isNull());
}

TEST_F(SSLSocketOptionsTest, IsIssuedToAsksOneCertificate) {
    EXPECT_TRUE(isIssuedTo(certificateOf(server()), "LOCALHOST"));
    EXPECT_FALSE(isIssuedTo(certificateOf(server()), "localhost.example"));
    EXPECT_FALSE(isIssuedTo(Norvane::Crypto::NVX509::RefCertificate(), "localhost"));
    EXPECT_TRUE(errorQueueIsEmpty());
}

// The text of an address is never a name, however it is written: a wildcard would match it.
TEST_F(SSLSocketOptionsTest, AddressesAreComparedWithAddressesAlone) {
    const auto issuedTo = [](const GeneralName& name) {
        return certificateOf(
            norvauthority::issue({.subject = {{"CN", "a"}}, .key = Key::ec(), .alternativeNames = {name}}));
    };
    const auto named = issuedTo(GeneralName::dns("192.0.2.1"));
    const auto wild = issuedTo(GeneralName::dns("*.0.2.1"));
    const auto addressed = issuedTo(GeneralName::ip("192.0.2.1"));
    for (const std::string text : {"192.0.2.1", "192.0.2.1.",
                                   "\xEF\xBC\x91"
                                   "92.0.2.1",
                                   "192\xE3\x80\x82"
                                   "0.2.1"}) {
        EXPECT_EQ("192.0.2.1", asciiHostName(text));
        EXPECT_FALSE(isIssuedTo(named, text)) << text;
        EXPECT_FALSE(isIssuedTo(wild, text)) << text;
        EXPECT_TRUE(isIssuedTo(addressed, text)) << text;
    }
}

TEST_F(SSLSocketOptionsTest, RequiredTrustHoldsWhateverTheContextLetsPass) {
    const Identity alone = norvauthority::issue(
        {.subject = {{"CN", "alone"}}, .key = Key::ec(), .alternativeNames = {GeneralName::dns("localhost")}});
    EXPECT_EQ("the peer is not trusted: self-signed certificate", meet(trusting("localhost"), alone).failure);
    RefContext lenient = trustingContext();
    SSL_CTX_set_cert_verify_callback(
        lenient,
        [](X509_STORE_CTX* store, void*) {
            X509_verify_cert(store);
            return 1; // as that of the appliance-wide context
        },
        nullptr);
    EXPECT_EQ("the peer is not trusted: self-signed certificate", meet(trusting("localhost"), alone, lenient).failure);
    EXPECT_EQ("the peer is not trusted: hostname mismatch", meet(trusting("example.org"), server(), lenient).failure);
    SSL_CTX_set_cert_verify_callback(
        lenient, [](X509_STORE_CTX*, void*) { return 1; }, nullptr); // looks at nothing
    EXPECT_EQ("the peer is not trusted: the certificate is that of another host",
              meet(trusting("example.org"), server(), lenient).failure);
}

TEST_F(SSLSocketOptionsTest, NothingGoesOverAConnectionThatIsNotTrusted) {
    RefContext lenient = trustingContext();
    SSL_CTX_set_cert_verify_callback(
        lenient, [](X509_STORE_CTX*, void*) { return 1; }, nullptr);
    SSLSocket listening = listener(serverContext());
    auto serving = std::async(std::launch::async, [&] {
        Socket accepted = listening.accept();
        EXPECT_EQ("", receive(accepted));
    });
    SSLSocket socket(lenient, AF_INET);
    socket.options(trusting("example.org"));
    EXPECT_THROW(socket.connect(listening.localAddress()), SocketException);
    EXPECT_EQ(1, thrownBy<SocketException>([&] { send(socket, "secret"); }).code());
    socket.close();
    serving.get();
}

/// Suites without certificates (RFC 8422, 2: ECDH_anon), which a program may allow at both ends.
RefContext anonymous(RefContext made) {
    EXPECT_EQ(1, SSL_CTX_set_cipher_list(made, "AECDH-AES256-SHA:@SECLEVEL=0"));
    return only(made, TLS1_2_VERSION);
}

TEST_F(SSLSocketOptionsTest, APeerWithoutACertificateIsNotTrusted) {
    ConnectionOptions options = trusting("localhost");
    EXPECT_EQ("the peer is not trusted: no certificate",
              meet(options, anonymous(context(serverSide)), anonymous(trustingContext())).failure);
    options.requireTrust = false;
    const SessionFacts facts = meet(options, anonymous(context(serverSide)), anonymous(trustingContext())).client;
    EXPECT_EQ("AECDH-AES256-SHA", facts.cipher);
    EXPECT_TRUE(facts.certificate.isNull());
    EXPECT_EQ(HostCheck::noCertificate, facts.hostCheck);
    EXPECT_FALSE(facts.isTrusted());
}

TEST_F(SSLSocketOptionsTest, ServersInsistOnTrustedClients) {
    RefContext asking = serverContext();
    trust(asking, root());
    ConnectionOptions options;
    options.requireTrust = true;
    options.handshakeLimit = 20000;
    asking->connectionOptions(options); // of the context this time
    SSLSocket listening = listener(asking);
    const Identity alone = norvauthority::issue({.subject = {{"CN", "alone"}}, .key = Key::ec()});
    const std::pair<const Identity*, std::string> cases[] = {{&client(), ""},
                                                             {nullptr, "peer did not return a certificate"},
                                                             {&alone, "not trusted: self-signed certificate"}};
    for (const auto& [identity, failure] : cases) {
        auto dialling = std::async(std::launch::async, [&, who = identity] {
            try {
                SSLSocket socket = dial(only(context(clientSide, who), TLS1_2_VERSION), listening.localAddress());
                send(socket, "hello");
            } catch (const SocketException&) { // turned away
                return;
            }
        });
        if (failure.empty()) {
            SSLSocket accepted(listening.accept());
            EXPECT_TRUE(accepted.session().isTrusted());
            EXPECT_EQ("hello", receive(accepted));
        } else {
            const auto thrown = thrownBy<SocketException>([&] { static_cast<void>(listening.accept()); });
            EXPECT_THAT(detailOf(thrown), HasSubstr(failure));
        }
        dialling.get();
    }
}

using SessionPtr = std::unique_ptr<SSL_SESSION, decltype(&SSL_SESSION_free)>;

/// Shakes hands as a client that keeps its session, as SSLSocket does not, and says something. Null when that failed.
SessionPtr comeBack(const RefContext& context, const SocketAddress& address, const SessionPtr& session) {
    Socket plain(true);
    plain.connect(address);
    const std::unique_ptr<SSL, decltype(&SSL_free)> ssl(SSL_new(context), SSL_free);
    SSL_set_fd(ssl.get(), plain.descriptor());
    if (session != nullptr) {
        EXPECT_EQ(1, SSL_set_session(ssl.get(), session.get()));
    }
    const bool done = SSL_connect(ssl.get()) == 1 && SSL_write(ssl.get(), "hello", 5) == 5;
    ERR_clear_error();
    SSL_shutdown(ssl.get()); // or the session would not be one to come back with
    return {done ? SSL_get1_session(ssl.get()) : nullptr, SSL_SESSION_free};
}

TEST_F(SSLSocketOptionsTest, ServersThatInsistOnTrustTakeClientsWithASession) {
    RefContext asking = serverContext();
    trust(asking, root());
    const RefContext client = only(context(clientSide, &tlstesting::client()), TLS1_2_VERSION);
    SSLSocket listening = listener(asking);
    SessionPtr session(nullptr, SSL_SESSION_free);
    for (const bool insists : {false, false, true, true}) {
        ConnectionOptions options;
        options.requireTrust = insists;
        listening.options(options);
        auto dialling =
            std::async(std::launch::async, [&] { return comeBack(client, listening.localAddress(), session); });
        const bool cameBack = session != nullptr;
        try {
            SSLSocket accepted(listening.accept());
            EXPECT_EQ(insists, accepted.session().isTrusted());
            EXPECT_EQ(cameBack && !insists, accepted.session().isResumed);
            EXPECT_EQ("hello", receive(accepted));
        } catch (const SocketException& refused) {
            ADD_FAILURE() << refused.what();
        }
        session = dialling.get();
        EXPECT_NE(nullptr, session);
    }
}

/// A peer of the plain kind, which answers nothing unless it is told to.
class SilentPeer {
public:
    SilentPeer() : m_listening(tlstesting::listening(Socket(true))) {}
    [[nodiscard]] SocketAddress address() const { return m_listening.localAddress(); }
    Socket accept() { return m_listening.accept(); }

private:
    Socket m_listening;
};

ConnectionOptions impatient() {
    ConnectionOptions options;
    options.handshakeLimit = shortLimit;
    return options;
}

// What is sent or received would go on with the handshake, and nobody would look at the peer.
TEST_F(SSLSocketOptionsTest, NothingGoesOverAConnectionWhoseHandshakeTookTooLong) {
    const Identity alone = norvauthority::issue({.subject = {{"CN", "alone"}}, .key = Key::ec()});
    SilentPeer peer;
    RefContext lenient = trustingContext();
    SSL_CTX_set_cert_verify_callback(
        lenient, [](X509_STORE_CTX*, void*) { return 1; }, nullptr);
    SSLSocket socket(lenient, AF_INET);
    ConnectionOptions options = trusting("localhost");
    options.handshakeLimit = shortLimit;
    socket.options(options);
    EXPECT_THROW(socket.connect(peer.address()), SocketException);
    auto late = std::async(std::launch::async, [&] {
        RefContext answering = context(serverSide, &alone);
        Socket plain = peer.accept();
        try {
            SSLSocket accepted = SSLSocket::upgradeServer(answering, plain, Norvane::Buffer());
            return receive(accepted);
        } catch (const SocketException&) {
            return std::string();
        }
    });
    EXPECT_EQ(1, thrownBy<SocketException>([&] { send(socket, "secret"); }).code());
    EXPECT_EQ(1, thrownBy<SocketException>([&] { receive(socket); }).code());
    socket.close();
    EXPECT_EQ("", late.get());
}

TEST_F(SSLSocketOptionsTest, PeerThatNeverAnswersEndsWithTheHandshakeLimit) {
    SilentPeer peer; // its system takes the connection
    RefContext client = clientContext();
    const auto thrown = thrownBy<SocketException>([&] { const SSLSocket socket(client, peer.address(), impatient()); });
    expectFailure(thrown, "SocketException", 4, "SSLSocket", 97);
    EXPECT_EQ("SSL_connect failed", detailOf(thrown));
    EXPECT_THAT(reasonOf(thrown), HasSubstr("Connection timed out"));
    EXPECT_TRUE(errorQueueIsEmpty());
}

TEST_F(SSLSocketOptionsTest, NonBlockingSocketWaitsForAHandshakeWithALimit) {
    SilentPeer peer;
    RefContext client = clientContext();
    SSLSocket socket(client, AF_INET);
    socket.blocking(false);
    socket.options(impatient());
    EXPECT_EQ(socket.options().handshakeLimit, impatient().handshakeLimit);
    const auto thrown = thrownBy<SocketException>([&] { socket.connect(peer.address()); });
    EXPECT_THAT(reasonOf(thrown), HasSubstr("Connection timed out"));
    EXPECT_NE(0, fcntl(socket.descriptor(), F_GETFL) & O_NONBLOCK);
}

TEST_F(SSLSocketOptionsTest, ClientThatNeverSpeaksEndsWithTheListenersLimit) {
    SSLSocket listening = listener(serverContext());
    listening.options(impatient());
    Socket client(true);
    client.connect(listening.localAddress());
    const auto thrown = thrownBy<SocketException>([&] { static_cast<void>(listening.accept()); });
    expectFailure(thrown, "SocketException", 4, "SSLSocket", 146);
    EXPECT_THAT(detailOf(thrown), HasSubstr("Connection timed out"));
}

/// A server that says something again and again, which gives no handshake, until the client is gone.
void babble(Socket plain, const std::string& first, const std::string& again, int pause) {
    try {
        send(plain, first);
        while (true) {
            send(plain, again);
            std::this_thread::sleep_for(std::chrono::milliseconds(pause));
        }
    } catch (const SocketException&) {
        return;
    }
}

TEST_F(SSLSocketOptionsTest, PeerThatSaysAByteNowAndThenEndsWithTheLimit) {
    SilentPeer peer;
    auto talking = std::async(std::launch::async, [&] {
        babble(peer.accept(), std::string("\x16\x03\x03\x3F\xFF", 5), std::string("\x02", 1),
               10); // a record of 16,383 bytes
    });
    RefContext client = clientContext();
    {
        const auto thrown =
            thrownBy<SocketException>([&] { const SSLSocket socket(client, peer.address(), impatient()); });
        EXPECT_THAT(reasonOf(thrown), HasSubstr("Connection timed out"));
    }
    talking.get();
}

TEST_F(SSLSocketOptionsTest, PeerThatNeverPausesEndsWithTheLimit) {
    SilentPeer peer;
    std::string requests; // records of one HelloRequest each, which OpenSSL passes over in a handshake
    for (int i = 0; i < 1000; ++i) {
        requests += std::string("\x16\x03\x03\x00\x04\x00\x00\x00\x00", 9);
    }
    auto talking = std::async(std::launch::async, [&] { babble(peer.accept(), "", requests, 0); });
    RefContext client = clientContext();
    SSL_CTX_set_msg_callback(client, nullptr); // it would end this sooner
    {
        const auto thrown =
            thrownBy<SocketException>([&] { const SSLSocket socket(client, peer.address(), impatient()); });
        EXPECT_THAT(reasonOf(thrown), HasSubstr("Connection timed out"));
    }
    talking.get();
}

TEST_F(SSLSocketOptionsTest, AcceptedConnectionHasTheTimeLimitOfTheOptions) {
    SSLSocket listening = listener(serverContext());
    ConnectionOptions options;
    options.timeLimit = 50;
    listening.timeLimit(20000); // for the handshake
    listening.options(options);
    Connection both = connectedTo(listening, clientContext());
    ASSERT_EQ(50U, both.server.timeLimit());
    auto silent = std::async(std::launch::async, [&] { return receive(both.client); });
    const auto thrown = thrownBy<SocketException>([&] { receive(both.server); });
    EXPECT_EQ("SocketImpl::readable", thrown.where());
    both.server.close();
    silent.get();
}

TEST_F(SSLSocketOptionsTest, AcceptedConnectionHasNoTimeLimitOfItsOwnWithoutOptions) {
    SSLSocket listening = listener(serverContext());
    listening.timeLimit(20000);
    EXPECT_EQ(0U, connectedTo(listening, clientContext()).server.timeLimit());
}

} // namespace
