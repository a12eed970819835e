// Who the peer is: certificates of both sides and what verification finds, on contexts that programs set up themselves.

#include "support/Thrown.h"
#include "support/Tls.h"

#include <openssl/x509v3.h>

#include <gmock/gmock.h>

using namespace Norvane;
using namespace Norvane::Crypto::NVSSL;
using namespace tlstesting;
using norvauthority::issue;
using norvauthority::Key;

namespace {

class SSLSocketVerifyTest : public TlsTest {};

constexpr int versions[] = {TLS1_2_VERSION, TLS1_3_VERSION};

/// Goes on whatever verification found.
int pass(int /*ok*/, X509_STORE_CTX* /*store*/) {
    return 1;
}

RefContext trustingClient(int version, const Identity* identity = nullptr) {
    RefContext made = only(context(clientSide, identity), version);
    trust(made, root());
    SSL_CTX_set_verify(made, SSL_VERIFY_PEER, nullptr);
    return made;
}

RefContext askingServer(int mode, int (*callback)(int, X509_STORE_CTX*) = nullptr) {
    RefContext made = serverContext();
    trust(made, root());
    SSL_CTX_set_verify(made, mode, callback);
    return made;
}

TEST_F(SSLSocketVerifyTest, TrustedServersVerifyAndStrangersDoNot) {
    const Identity alone = issue({.subject = {{"CN", "alone"}}, .key = Key::ec()});
    const Identity expired = issued("expired", {.notAfter = norvauthority::Time::fromNow(-60)});
    const Identity stranger = issue({.subject = {{"CN", "other root"}}, .key = Key::ec(), .ca = true});
    const Identity unknown = issue({.subject = {{"CN", "unknown"}}, .key = Key::ec(), .issuer = &stranger});
    const std::pair<const Identity*, long> cases[] = {
        {&server(), X509_V_OK},
        {&alone, X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT},
        {&expired, X509_V_ERR_CERT_HAS_EXPIRED},
        {&unknown, X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY},
    };
    for (const auto& [identity, result] : cases) {
        RefContext forClient = clientContext(); // asks nobody, and learns the result all the same
        trust(forClient, root());
        Connection both = connected(forClient, context(serverSide, identity));
        EXPECT_EQ(result, SSL_get_verify_result(both.client));
        EXPECT_TRUE(errorQueueIsEmpty());
        send(both.server, "banner");
        EXPECT_EQ("banner", receive(both.client)) << "the connection is usable";
    }
}

TEST_F(SSLSocketVerifyTest, RevokedServerIsToldByAContextThatHasTheList) {
    const auto list = norvauthority::issueList({.issuer = &root(), .revoked = {{.serial = server().serial}}});
    RefContext forClient = clientContext();
    trust(forClient, root());
    X509_STORE* store = SSL_CTX_get_cert_store(forClient);
    X509_STORE_add_crl(store, list.crl().get());
    X509_STORE_set_flags(store, X509_V_FLAG_CRL_CHECK);
    Connection both = connected(forClient, serverContext());
    EXPECT_EQ(X509_V_ERR_CERT_REVOKED, SSL_get_verify_result(both.client));
}

TEST_F(SSLSocketVerifyTest, ClientThatVerifiesRefusesAStrangerAndBothEndsSayWhy) {
    const Identity alone = issue({.subject = {{"CN", "alone"}}, .key = Key::ec()});
    for (const int version : versions) {
        SSLSocket listening = listener(context(serverSide, &alone));
        auto client = std::async(std::launch::async, [&] {
            const auto thrown =
                thrownBy<SocketException>([&] { dial(trustingClient(version), listening.localAddress()); });
            EXPECT_TRUE(errorQueueIsEmpty());
            return thrown;
        });
        const auto refused = thrownBy<SocketException>([&] { static_cast<void>(listening.accept()); });
        expectFailure(refused, "SocketException", 4, "SSLSocket", 146);
        EXPECT_THAT(detailOf(refused), testing::HasSubstr("unknown ca; "));
        const auto thrown = client.get();
        expectFailure(thrown, "SocketException", 4, "SSLSocket", 97);
        EXPECT_EQ("SSL_connect failed", detailOf(thrown));
        EXPECT_THAT(reasonOf(thrown), testing::HasSubstr("certificate verify failed; "));
    }
}

TEST_F(SSLSocketVerifyTest, ClientCertificateIsPresentedWhenAsked) {
    for (const int version : versions) {
        Connection both = connected(trustingClient(version, &client()),
                                    askingServer(SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT));
        X509* peer = SSL_get0_peer_certificate(both.server);
        ASSERT_NE(nullptr, peer);
        EXPECT_EQ(0, X509_cmp(peer, client().certificate.x509().get()));
        EXPECT_EQ(X509_V_OK, SSL_get_verify_result(both.server));
    }
}

TEST_F(SSLSocketVerifyTest, ClientWithoutACertificateHasTheResultOkDeliberately) {
    for (const int version : versions) {
        Connection both = connected(trustingClient(version), askingServer(SSL_VERIFY_PEER));
        EXPECT_EQ(nullptr, SSL_get0_peer_certificate(both.server));
        EXPECT_EQ(X509_V_OK, SSL_get_verify_result(both.server));
    }
}

TEST_F(SSLSocketVerifyTest, ClientWithoutTheCertificateThatAServerInsistsOnIsRefused) {
    SSLSocket listening = listener(askingServer(SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT));
    auto client = std::async(std::launch::async, [&] {
        return thrownBy<SocketException>([&] { dial(trustingClient(TLS1_2_VERSION), listening.localAddress()); });
    });
    const auto refused = thrownBy<SocketException>([&] { static_cast<void>(listening.accept()); });
    expectFailure(refused, "SocketException", 4, "SSLSocket", 146);
    EXPECT_THAT(detailOf(refused), testing::HasSubstr("peer did not return a certificate; "));
    expectFailure(client.get(), "SocketException", 4, "SSLSocket", 97);
}

// In TLS 1.3 the client's handshake is through before the server looks for the certificate.
TEST_F(SSLSocketVerifyTest, AlertThatEndsAConnectionReadsAsItsEndDeliberatelyWithTheReasonInTheQueue) {
    SSLSocket listening = listener(askingServer(SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT));
    auto client = std::async(std::launch::async, [&] {
        SSLSocket socket = dial(trustingClient(TLS1_3_VERSION), listening.localAddress());
        EXPECT_EQ("", receive(socket));
        EXPECT_THAT(Norvane::Crypto::getErrString(), testing::HasSubstr("alert certificate required; "));
        EXPECT_EQ("", receive(socket)) << "again";
        EXPECT_TRUE(errorQueueIsEmpty());
    });
    const auto refused = thrownBy<SocketException>([&] { static_cast<void>(listening.accept()); });
    expectFailure(refused, "SocketException", 4, "SSLSocket", 146);
    client.get();
}

TEST_F(SSLSocketVerifyTest, WrongClientsPassWhereTheServerLetsThemAndTheResultTells) {
    const Identity alone = issue({.subject = {{"CN", "alone"}}, .key = Key::ec()});
    const Identity expired = issued("expired", {.notAfter = norvauthority::Time::fromNow(-60)});
    const Identity forged = issued("forged", {.signingKey = Key::ec()});
    for (const int version : versions) {
        for (const auto& [identity, result] : {std::pair{&alone, X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT},
                                               std::pair{&expired, X509_V_ERR_CERT_HAS_EXPIRED},
                                               std::pair{&forged, X509_V_ERR_CERT_SIGNATURE_FAILURE}}) {
            Connection both = connected(trustingClient(version, identity), askingServer(SSL_VERIFY_PEER, pass));
            EXPECT_EQ(0, X509_cmp(SSL_get0_peer_certificate(both.server), identity->certificate.x509().get()));
            EXPECT_EQ(result, SSL_get_verify_result(both.server));
            EXPECT_TRUE(errorQueueIsEmpty());
        }
    }
}

TEST_F(SSLSocketVerifyTest, ChainOfTheContextIsSentAfterItsCertificate) {
    const Identity middle = issued("middle", {.ca = true, .keyUsage = 0x06U});
    const Identity leaf = issue({.subject = {{"CN", "leaf"}}, .key = Key::ec(), .issuer = &middle});
    const RefContext forServer = context(serverSide);
    const auto upper = certificateOf(middle);
    forServer->certificatePath({certificateOf(leaf), upper});
    upper->relinquishOwnerShip();
    forServer->privateKey(keyOf(leaf));
    Connection both = connected(trustingClient(TLS1_3_VERSION), forServer);
    STACK_OF(X509)* chain = SSL_get_peer_cert_chain(both.client);
    ASSERT_EQ(2, sk_X509_num(chain));
    EXPECT_EQ(0, X509_cmp(sk_X509_value(chain, 1), middle.certificate.x509().get()));
    EXPECT_EQ(X509_V_OK, SSL_get_verify_result(both.client));
}

TEST_F(SSLSocketVerifyTest, SecondConnectionOfAClientIsAFullHandshakeAgain) {
    // A session that came back would bring no certificate to verify.
    for (const int version : versions) {
        const RefContext forServer = askingServer(SSL_VERIFY_PEER);
        SSL_CTX_set_session_cache_mode(forServer, SSL_SESS_CACHE_OFF);
        const RefContext forClient = trustingClient(version, &client());
        Connection first = connected(forClient, forServer);
        SSL_SESSION* session = SSL_get1_session(first.client);
        EXPECT_EQ(0, SSL_SESSION_has_ticket(session));
        SSL_SESSION_free(session);
        Connection second = connected(forClient, forServer);
        EXPECT_EQ(0, SSL_session_reused(second.server));
        EXPECT_NE(nullptr, SSL_get0_peer_certificate(second.server));
    }
}

} // namespace
