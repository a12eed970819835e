// The appliance-wide context, on its fixed paths: each test has a file tree of its own, in a process of its own.

#include "support/PrivateRoot.h"
#include "support/Thrown.h"
#include "support/Tls.h"

#include <gmock/gmock.h>

#include <cstdio>
#include <memory>
#include <string>
#include <thread>
#include <vector>

using namespace Norvane;
using namespace tlstesting;
using norvauthority::Crl;
using norvauthority::issue;
using norvauthority::issueList;
using norvauthority::Key;
using norvtest::inPrivateRoot;
using norvtest::put;

namespace {

const std::string keyFile = "/migadmin/etc/cert/server/apps/server.key";
const std::string chainFile = "/migadmin/etc/cert/server/apps/server.crt";
const std::string trustedFile = "/etc/cacert.pem";
const std::string trustedFolder = "/migadmin/etc/cert/server/ca";
const std::string crlFolder = "/migadmin/etc/cert/server/crl";

using Ssl = std::unique_ptr<SSL, decltype(&SSL_free)>;

Ssl shared() {
    return {norvSSL_CTX::norvSSL_new(), &SSL_free};
}
Ssl on(const RefContext& context) {
    return {SSL_new(context), &SSL_free};
}
int initialized(norvSSL_CTX::NORV_SSL_CTX_TYPE type = norvSSL_CTX::NORV_SSL_CTX_SERVER) {
    return norvSSL_CTX::init(type);
}

/// The name under which OpenSSL looks for what an authority issued.
std::string hashed(const Identity& authority, const std::string& ending) {
    char text[9];
    std::snprintf(text, sizeof text, "%08lx",
                  X509_NAME_hash(X509_get_subject_name(authority.certificate.x509().get())));
    return std::string("/") + text + ending;
}

void putIdentity() {
    put(keyFile, server().key.pkcs8Pem());
    put(chainFile, server().certificate.pem() + root().certificate.pem());
}
void putTrusted() {
    put(trustedFile, root().certificate.pem());
}
void putList(const Identity& authority, const Crl& list) {
    put(crlFolder + hashed(authority, ".r0"), list.pem());
}
void putAll() {
    putIdentity();
    putTrusted();
}

/// Shakes hands in memory. True when both ends are through.
bool shakeHands(SSL* client, SSL* server) {
    BIO* here = nullptr;
    BIO* there = nullptr;
    BIO_new_bio_pair(&here, 1 << 16, &there, 1 << 16);
    SSL_set_bio(client, here, here);
    SSL_set_bio(server, there, there);
    SSL_set_connect_state(client);
    SSL_set_accept_state(server);
    for (int i = 0; i < 20 && !(SSL_is_init_finished(client) && SSL_is_init_finished(server)); ++i) {
        SSL_do_handshake(client);
        SSL_do_handshake(server);
    }
    return SSL_is_init_finished(client) == 1 && SSL_is_init_finished(server) == 1;
}

/// What the shared context, a server, finds about a client.
long resultFor(const Identity& peer) {
    const Ssl server = shared();
    const Ssl client = on(context(clientSide, &peer));
    EXPECT_TRUE(shakeHands(client.get(), server.get())) << "a handshake never ends for the certificate's sake";
    EXPECT_NE(nullptr, SSL_get0_peer_certificate(server.get()));
    return SSL_get_verify_result(server.get());
}

class NorvSSLSharedTest : public TlsTest {
protected:
    void SetUp() override {
        static const bool allowed = norvtest::privateRootIsAllowed();
        if (!allowed) {
            GTEST_SKIP() << "a mount namespace of the test's own is not allowed here";
        }
        TlsTest::SetUp();
        server(); // keys are made once, not in each child
        client();
    }
};

TEST_F(NorvSSLSharedTest, BeforeAnyInitThereIsNoConnection) {
    inPrivateRoot([] {
        putAll();
        EXPECT_EQ(nullptr, norvSSL_CTX::norvSSL_new());
    });
}

TEST_F(NorvSSLSharedTest, TheMachinesOwnFilesAreOutOfReach) {
    inPrivateRoot([] {
        EXPECT_FALSE(std::filesystem::exists("/migadmin"));
        EXPECT_FALSE(std::filesystem::exists(trustedFile));
        putAll();
    });
    inPrivateRoot([] { EXPECT_FALSE(std::filesystem::exists("/migadmin")); });
}

TEST_F(NorvSSLSharedTest, IdentityIsThatOfTheFiles) {
    inPrivateRoot([] {
        putAll();
        EXPECT_EQ(0, initialized());
        const Ssl made = shared();
        ASSERT_NE(nullptr, made);
        EXPECT_EQ(1, SSL_is_server(made.get()));
        EXPECT_EQ(0, X509_cmp(server().certificate.x509().get(), SSL_get_certificate(made.get())));
        STACK_OF(X509)* chain = nullptr;
        SSL_CTX_get0_chain_certs(SSL_get_SSL_CTX(made.get()), &chain);
        ASSERT_EQ(1, sk_X509_num(chain));
        EXPECT_EQ(0, X509_cmp(root().certificate.x509().get(), sk_X509_value(chain, 0)));
        EXPECT_TRUE(norvtest::errorQueueIsEmpty());
    });
}

TEST_F(NorvSSLSharedTest, ContextIsSetUpAsPromised) {
    inPrivateRoot([] {
        putAll();
        initialized();
        const Ssl made = shared();
        ASSERT_NE(nullptr, made);
        SSL_CTX* context = SSL_get_SSL_CTX(made.get());
        const std::uint64_t options = SSL_CTX_get_options(context);
        const std::uint64_t wanted = SSL_OP_ALL | SSL_OP_NO_SSLv3 | SSL_OP_NO_TLSv1 | SSL_OP_NO_TLSv1_1;
        EXPECT_EQ(wanted, options & wanted);
        EXPECT_EQ(0U, options & (SSL_OP_NO_TLSv1_2 | SSL_OP_NO_TLSv1_3 | SSL_OP_NO_EXTENDED_MASTER_SECRET |
                                 SSL_OP_ALLOW_UNSAFE_LEGACY_RENEGOTIATION | SSL_OP_DISABLE_TLSEXT_CA_NAMES));
        EXPECT_EQ(SSL_SESS_CACHE_OFF, SSL_CTX_get_session_cache_mode(context));
        EXPECT_EQ(SSL_VERIFY_PEER, SSL_CTX_get_verify_mode(context));
        EXPECT_EQ(nullptr, SSL_CTX_get_verify_callback(context));
        EXPECT_EQ(0, SSL_CTX_get_mode(context) & SSL_MODE_AUTO_RETRY);
        EXPECT_EQ(0U, SSL_CTX_get_num_tickets(context));
        const auto flags = X509_VERIFY_PARAM_get_flags(X509_STORE_get0_param(SSL_CTX_get_cert_store(context)));
        EXPECT_EQ(12UL, flags & 12UL) << "lists are looked at for the whole chain";
        const STACK_OF(X509_NAME)* names = SSL_CTX_get_client_CA_list(context);
        ASSERT_EQ(1, sk_X509_NAME_num(names));
        EXPECT_EQ(0,
                  X509_NAME_cmp(sk_X509_NAME_value(names, 0), X509_get_subject_name(root().certificate.x509().get())));
    });
}

TEST_F(NorvSSLSharedTest, MissingKeyMakesNoContext) {
    inPrivateRoot([] {
        putAll();
        std::filesystem::remove(keyFile);
        EXPECT_EQ(0, initialized());
        EXPECT_EQ(nullptr, norvSSL_CTX::norvSSL_new());
        EXPECT_THAT(Norvane::Crypto::getErrString(), testing::HasSubstr("No such file or directory"))
            << "the reason is left to the caller";
    });
}

TEST_F(NorvSSLSharedTest, MissingCertificateMakesNoContext) {
    inPrivateRoot([] {
        putAll();
        std::filesystem::remove(chainFile);
        EXPECT_EQ(0, initialized());
        EXPECT_EQ(nullptr, norvSSL_CTX::norvSSL_new());
    });
}

TEST_F(NorvSSLSharedTest, KeyOfAnotherCertificateMakesNoContext) {
    inPrivateRoot([] {
        putAll();
        put(keyFile, client().key.pkcs8Pem());
        EXPECT_EQ(0, initialized());
        EXPECT_EQ(nullptr, norvSSL_CTX::norvSSL_new());
    });
}

TEST_F(NorvSSLSharedTest, UnreadableIdentityMakesNoContext) {
    for (const std::string& file : {keyFile, chainFile}) {
        for (const std::string content : {"", "no PEM", "-----BEGIN CERTIFICATE-----\nAAAA\n"}) {
            inPrivateRoot([&] {
                putAll();
                put(file, content);
                EXPECT_EQ(0, initialized());
                EXPECT_EQ(nullptr, norvSSL_CTX::norvSSL_new());
            });
        }
    }
}

TEST_F(NorvSSLSharedTest, WithoutTrustedCertificatesNoPeerIsAskedDeliberately) {
    for (const bool unreadable : {false, true}) {
        inPrivateRoot([&] {
            putIdentity();
            if (unreadable) {
                put(trustedFile, "no PEM");
            }
            EXPECT_EQ(0, initialized());
            const Ssl server = shared();
            ASSERT_NE(nullptr, server);
            SSL_CTX* context = SSL_get_SSL_CTX(server.get());
            EXPECT_EQ(1, SSL_CTX_check_private_key(context)) << "it carries the identity";
            EXPECT_EQ(SSL_VERIFY_NONE, SSL_CTX_get_verify_mode(context));
            EXPECT_EQ(0, std::max(0, sk_X509_NAME_num(SSL_CTX_get_client_CA_list(context))));
            EXPECT_EQ(SSL_SESS_CACHE_OFF, SSL_CTX_get_session_cache_mode(context)) << "what came before is done";
            const Ssl peer = on(tlstesting::context(clientSide, &client()));
            EXPECT_TRUE(shakeHands(peer.get(), server.get()));
            EXPECT_EQ(nullptr, SSL_get0_peer_certificate(server.get()));
            EXPECT_EQ(0,
                      X509_cmp(SSL_get0_peer_certificate(peer.get()), tlstesting::server().certificate.x509().get()));
        });
    }
}

TEST_F(NorvSSLSharedTest, MissingFoldersDoNotMatter) {
    inPrivateRoot([] {
        putAll();
        initialized();
        EXPECT_EQ(X509_V_OK, resultFor(client()));
    });
}

TEST_F(NorvSSLSharedTest, ClientTypeMakesClientsWithTheSameIdentity) {
    for (const int type : {1, 2, -1}) {
        inPrivateRoot([=] {
            putAll();
            initialized(static_cast<norvSSL_CTX::NORV_SSL_CTX_TYPE>(type));
            const Ssl made = shared();
            ASSERT_NE(nullptr, made);
            EXPECT_EQ(0, SSL_is_server(made.get()));
            const RefContext asking = serverContext();
            SSL_CTX_set_verify(asking, SSL_VERIFY_PEER, [](int, X509_STORE_CTX*) { return 1; });
            const Ssl peer = on(asking);
            EXPECT_TRUE(shakeHands(made.get(), peer.get()));
            EXPECT_EQ(0, X509_cmp(SSL_get0_peer_certificate(peer.get()), server().certificate.x509().get()));
            EXPECT_EQ(X509_V_OK, SSL_get_verify_result(made.get()));
        });
    }
}

TEST_F(NorvSSLSharedTest, ClientLetsARevokedServerPassAndTellsIt) {
    inPrivateRoot([] {
        putAll();
        putList(root(), issueList({.issuer = &root(), .revoked = {{.serial = server().serial}}}));
        initialized(norvSSL_CTX::NORV_SSL_CTX_CLIENT);
        const Ssl made = shared();
        const Ssl peer = on(serverContext());
        EXPECT_TRUE(shakeHands(made.get(), peer.get()));
        EXPECT_EQ(X509_V_ERR_CERT_REVOKED, SSL_get_verify_result(made.get()));
    });
}

TEST_F(NorvSSLSharedTest, PeersPassAndTheResultTellsWhatIsWrongWithThem) {
    const Identity revoked = issued("revoked", {.serial = "bad"});
    const Identity expired = issued("expired", {.notAfter = norvauthority::Time::fromNow(-60)});
    const Identity early = issued("early", {.notBefore = norvauthority::Time::fromNow(3600)});
    const Identity alone = issue({.subject = {{"CN", "alone"}}, .key = Key::ec()});
    const Identity stranger = issue({.subject = {{"CN", "other root"}}, .key = Key::ec(), .ca = true});
    const Identity unknown = issue({.subject = {{"CN", "unknown"}}, .key = Key::ec(), .issuer = &stranger});
    const Identity forged = issued("forged", {.signingKey = Key::ec()});
    inPrivateRoot([&] {
        putAll();
        putList(root(), issueList({.issuer = &root(), .revoked = {{.serial = "bad"}}}));
        initialized();
        EXPECT_EQ(X509_V_OK, resultFor(client()));
        EXPECT_EQ(X509_V_ERR_CERT_REVOKED, resultFor(revoked));
        EXPECT_EQ(X509_V_ERR_CERT_HAS_EXPIRED, resultFor(expired));
        EXPECT_EQ(X509_V_ERR_CERT_NOT_YET_VALID, resultFor(early));
        EXPECT_EQ(X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT, resultFor(alone));
        EXPECT_EQ(X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY, resultFor(unknown));
        EXPECT_EQ(X509_V_ERR_CERT_SIGNATURE_FAILURE, resultFor(forged));
    });
}

TEST_F(NorvSSLSharedTest, PeerWithoutACertificatePassesAndItsResultIsOkDeliberately) {
    inPrivateRoot([] {
        putAll();
        initialized();
        const Ssl server = shared();
        const Ssl peer = on(clientContext());
        EXPECT_TRUE(shakeHands(peer.get(), server.get()));
        EXPECT_EQ(nullptr, SSL_get0_peer_certificate(server.get()));
        EXPECT_EQ(X509_V_OK, SSL_get_verify_result(server.get()));
    });
}

TEST_F(NorvSSLSharedTest, IssuerWithoutAListOnFilePasses) {
    const Identity other = issue({.subject = {{"CN", "second root"}}, .key = Key::ec(), .ca = true, .keyUsage = 0x06U});
    const Identity peer = issue({.subject = {{"CN", "peer"}}, .key = Key::ec(), .issuer = &other});
    inPrivateRoot([&] {
        putAll();
        put(trustedFolder + hashed(other, ".0"), other.certificate.pem());
        putList(root(), issueList({.issuer = &root()}));
        initialized();
        EXPECT_EQ(X509_V_OK, resultFor(peer)) << "trusted by the folder, no list of its issuer";
        EXPECT_EQ(X509_V_OK, resultFor(client()));
    });
}

TEST_F(NorvSSLSharedTest, ListsOfTheWholeChainCount) {
    const Identity middle = issued("middle", {.serial = "31", .ca = true, .keyUsage = 0x06U});
    const Identity peer = issue({.subject = {{"CN", "peer"}}, .key = Key::ec(), .issuer = &middle});
    inPrivateRoot([&] {
        putAll();
        put(trustedFolder + hashed(middle, ".0"), middle.certificate.pem());
        initialized();
        EXPECT_EQ(X509_V_OK, resultFor(peer));
        putList(root(), issueList({.issuer = &root(), .revoked = {{.serial = "31"}}}));
        initialized();
        EXPECT_EQ(X509_V_ERR_CERT_REVOKED, resultFor(peer)) << "its issuer is revoked";
    });
}

TEST_F(NorvSSLSharedTest, StaleListIsAFailureOfTheVerificationAlone) {
    inPrivateRoot([] {
        putAll();
        putList(root(), issueList({.issuer = &root(),
                                   .thisUpdate = norvauthority::Time::fromNow(-7200),
                                   .nextUpdate = norvauthority::Time::fromNow(-3600)}));
        initialized();
        EXPECT_EQ(X509_V_ERR_CRL_HAS_EXPIRED, resultFor(client()));
    });
}

// What an operator meets who forgets `openssl rehash`.
TEST_F(NorvSSLSharedTest, ListThatIsNotFiledByHashIsNotSeenDeliberately) {
    inPrivateRoot([] {
        putAll();
        put(crlFolder + "/root.crl", issueList({.issuer = &root(), .revoked = {{.serial = client().serial}}}).pem());
        initialized();
        EXPECT_EQ(X509_V_OK, resultFor(client()));
    });
}

TEST_F(NorvSSLSharedTest, OldProtocolsAreTurnedOff) {
    inPrivateRoot([] {
        putAll();
        initialized();
        const Ssl server = shared();
        const Ssl old = on(context(clientSide, nullptr, ContextFactory::TLS_V1));
        EXPECT_FALSE(shakeHands(old.get(), server.get()));
        ERR_clear_error();
        for (const int version : {TLS1_2_VERSION, TLS1_3_VERSION}) {
            const Ssl again = shared();
            const Ssl peer = on(only(clientContext(), version));
            EXPECT_TRUE(shakeHands(peer.get(), again.get()));
            EXPECT_EQ(version, SSL_version(again.get()));
        }
    });
}

TEST_F(NorvSSLSharedTest, SecondInitReplacesTheContextAndInstallsTheHooksAgain) {
    inPrivateRoot([] {
        putAll();
        initialized();
        const Ssl first = shared();
        initialized();
        const Ssl second = shared();
        EXPECT_NE(SSL_get_SSL_CTX(first.get()), SSL_get_SSL_CTX(second.get()));
        const Ssl peer = on(clientContext());
        EXPECT_TRUE(shakeHands(peer.get(), first.get())) << "the earlier context is not freed";
        std::vector<std::thread> threads; // locking still works
        for (int i = 0; i < 4; ++i) {
            threads.emplace_back([] { EXPECT_EQ(X509_V_OK, resultFor(client())); });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
    });
}

TEST_F(NorvSSLSharedTest, SecondInitThatFailsTakesTheContextAway) {
    inPrivateRoot([] {
        putAll();
        initialized();
        EXPECT_NE(nullptr, shared());
        std::filesystem::remove(keyFile);
        EXPECT_EQ(0, initialized());
        EXPECT_EQ(nullptr, norvSSL_CTX::norvSSL_new());
        ERR_clear_error();
    });
}

} // namespace
