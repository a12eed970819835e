// TLS contexts of the factory.

#include "support/Slots.h"
#include "support/Thrown.h"
#include "support/Tls.h"

#include <gmock/gmock.h>

#include <openssl/conf.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <memory>
#include <type_traits>
#include <unistd.h>

using namespace Norvane;
using namespace Norvane::Crypto;
using namespace Norvane::Crypto::NVSSL;
using namespace tlstesting;
using testing::HasSubstr;

namespace {

const char* const createText =
    "virtual Norvane::Crypto::NVSSL::RefContext "
    "Norvane::Crypto::NVSSL::ContextFactory::create(Norvane::Crypto::NVSSL::ContextFactory::Method, bool)";
const char* const privateKeyText = "void Norvane::Crypto::NVSSL::Context::privateKey(const Norvane::Crypto::RefKey&)";
const char* const certificateText =
    "void Norvane::Crypto::NVSSL::Context::certificate(const Norvane::Crypto::NVX509::RefCertificate&)";
const char* const appendText =
    "void Norvane::Crypto::NVSSL::Context::appendToCertificatePath(const Norvane::Crypto::NVX509::RefCertificate&)";

class NorvSSLTest : public TlsTest {
protected:
    void TearDown() override { EXPECT_TRUE(errorQueueIsEmpty()); }
};

RefContext create(int method, bool client) {
    return ContextFactory().create(static_cast<ContextFactory::Method>(method), client);
}

STACK_OF(X509) * chainOf(const RefContext& context) {
    STACK_OF(X509)* chain = nullptr;
    SSL_CTX_get_extra_chain_certs_only(context, &chain);
    return chain;
}

std::unique_ptr<SSL, decltype(&SSL_free)> connectionOn(const RefContext& context) {
    return {SSL_new(context), &SSL_free};
}

/// How often OpenSSL freed what carries it.
int s_freed = 0;
void countFree(void* /*parent*/, void* mark, CRYPTO_EX_DATA* /*data*/, int /*index*/, long /*l*/, void* /*p*/) {
    s_freed += mark == nullptr ? 0 : 1;
}
int markIndex(int kind) {
    return CRYPTO_get_ex_new_index(kind, 0, nullptr, nullptr, nullptr, countFree);
}

TEST_F(NorvSSLTest, ClassesAreLaidOutAsPromised) {
    static_assert(std::is_base_of_v<RefImpl, Context> && !std::is_copy_constructible_v<Context>);
    static_assert(std::is_base_of_v<Ref<Context>, RefContext>);
    EXPECT_EQ(2U, norvtest::slotOf(&ContextFactory::create));
    EXPECT_EQ(1, ContextFactory::SSL_V2);
    EXPECT_EQ(2, ContextFactory::SSL_V3);
    EXPECT_EQ(3, ContextFactory::TLS_V1);
    EXPECT_EQ(4, ContextFactory::SSL_V23);
    EXPECT_EQ(0, norvSSL_CTX::NORV_SSL_CTX_SERVER);
    EXPECT_EQ(1, norvSSL_CTX::NORV_SSL_CTX_CLIENT);
}

TEST_F(NorvSSLTest, InvalidMethodForAClientFailsAtLine147) {
    for (const int method : {0, 5, -1, 23}) {
        const auto thrown = thrownBy([&] { create(method, clientSide); });
        expectFailure(thrown, createText, 4, "NorvSSL", 147);
        EXPECT_TRUE(thrown.parameters().empty());
    }
}

TEST_F(NorvSSLTest, InvalidMethodForAServerFailsAtLine169) {
    for (const int method : {0, 5, -1, 23}) {
        const auto thrown = thrownBy([&] { create(method, serverSide); });
        expectFailure(thrown, createText, 4, "NorvSSL", 169);
        EXPECT_TRUE(thrown.parameters().empty());
    }
}

TEST_F(NorvSSLTest, ProtocolsThatOpenSslLacksFailAtLine181WithItsText) {
#ifdef OPENSSL_NO_SSL3_METHOD
    const std::list<int> missing{1, 2};
#else
    const std::list<int> missing{1};
#endif
    for (const int method : missing) {
        for (const bool client : {true, false}) {
            const auto thrown = thrownBy([&] { create(method, client); });
            expectFailure(thrown, createText, 4, "NorvSSL", 181);
            EXPECT_THAT(detailOf(thrown), HasSubstr("SSL routines"));
            EXPECT_THAT(detailOf(thrown), HasSubstr("null ssl method passed; "));
        }
    }
}

TEST_F(NorvSSLTest, Tls10HasSecurityLevelZeroAndTheOthersKeepTheMachines) {
    SSL_CTX* machine = SSL_CTX_new(TLS_method());
    for (const bool client : {true, false}) {
        EXPECT_EQ(0, SSL_CTX_get_security_level(create(3, client)));
        EXPECT_EQ(SSL_CTX_get_security_level(machine), SSL_CTX_get_security_level(create(4, client)));
    }
    SSL_CTX_free(machine);
}

/// OpenSSL's configuration of the machine, as a file of that content would make it.
void configure(const std::string& settings) {
    const std::string path = testing::TempDir() + "norvssl-" + std::to_string(getpid()) + ".cnf";
    std::ofstream(path) << "openssl_conf = all\n[all]\nssl_conf = tls\n[tls]\nsystem_default = defaults\n[defaults]\n"
                        << settings << '\n';
    EXPECT_EQ(1, CONF_modules_load_file(path.c_str(), nullptr, 0));
    std::remove(path.c_str());
}

TEST_F(NorvSSLTest, Tls12IsTheLeastUnlessTheMachineAsksForMore) {
    for (const bool client : {true, false}) {
        EXPECT_EQ(TLS1_2_VERSION, SSL_CTX_get_min_proto_version(create(4, client)));
        configure("MinProtocol = TLSv1");
        EXPECT_EQ(TLS1_2_VERSION, SSL_CTX_get_min_proto_version(create(4, client)));
        configure("MinProtocol = TLSv1.3");
        EXPECT_EQ(TLS1_3_VERSION, SSL_CTX_get_min_proto_version(create(4, client)));
        configure("MinProtocol = None");
    }
}

TEST_F(NorvSSLTest, Tls11IsNotAgreedOnEvenAtSecurityLevelZero) {
    const auto weak = [](const RefContext& context) {
        SSL_CTX_set_security_level(context, 0);
        return context;
    };
    RefContext old(new Context(SSL_CTX_new(TLS_server_method())));
    old->certificate(certificateOf(server()));
    old->privateKey(keyOf(server()));
    only(old, TLS1_1_VERSION);
    SSLSocket listening = listener(weak(old));
    auto client = std::async(std::launch::async, [&] {
        return thrownBy<Norvane::SocketException>([&] { dial(weak(clientContext()), listening.localAddress()); });
    });
    expectFailure(thrownBy<Norvane::SocketException>([&] { static_cast<void>(listening.accept()); }), "SocketException",
                  4, "SSLSocket", 146);
    client.get();

    const RefContext willing = weak(clientContext());
    SSL_CTX_set_min_proto_version(willing, 0); // the program decides otherwise
    Connection both = connectedTo(listening, willing);
    EXPECT_EQ(TLS1_1_VERSION, SSL_version(both.client));
}

TEST_F(NorvSSLTest, MethodAndSideAreThoseAskedFor) {
    EXPECT_EQ(TLS_client_method(), SSL_CTX_get_ssl_method(create(4, clientSide)));
    EXPECT_EQ(TLS_server_method(), SSL_CTX_get_ssl_method(create(4, serverSide)));
    EXPECT_EQ(TLS1_VERSION, SSL_version(connectionOn(create(3, clientSide)).get()));
    EXPECT_FALSE(SSL_is_server(connectionOn(create(3, clientSide)).get()));
    EXPECT_TRUE(SSL_is_server(connectionOn(create(3, serverSide)).get()));
}

TEST_F(NorvSSLTest, NewContextsAskNobodyAndRetryNothing) {
    for (const bool client : {true, false}) {
        SSL_CTX* machine = SSL_CTX_new(client ? TLS_client_method() : TLS_server_method());
        const RefContext context = create(4, client);
        EXPECT_EQ(SSL_VERIFY_NONE, SSL_CTX_get_verify_mode(context));
        EXPECT_EQ(nullptr, SSL_CTX_get0_certificate(context));
        EXPECT_EQ(nullptr, SSL_CTX_get0_privatekey(context));
        EXPECT_EQ(SSL_CTX_get_session_cache_mode(machine), SSL_CTX_get_session_cache_mode(context));
        EXPECT_EQ(SSL_CTX_get_mode(machine) & ~SSL_MODE_AUTO_RETRY, SSL_CTX_get_mode(context));
        const auto tickets = client ? std::uint64_t{0} : std::uint64_t{SSL_OP_NO_TICKET};
        EXPECT_EQ(SSL_CTX_get_options(machine) | tickets, SSL_CTX_get_options(context));
        SSL_CTX_free(machine);
    }
}

TEST_F(NorvSSLTest, ServersSendNoSessionTickets) {
    for (const int version : {TLS1_2_VERSION, TLS1_3_VERSION}) {
        static int tickets;
        tickets = 0;
        const RefContext client = only(clientContext(), version);
        SSL_CTX_set_msg_callback(
            client, [](int isWritten, int, int type, const void* data, std::size_t length, SSL*, void*) {
                const bool received = isWritten == 0 && type == SSL3_RT_HANDSHAKE && length > 0;
                tickets += received && *static_cast<const unsigned char*>(data) == SSL3_MT_NEWSESSION_TICKET ? 1 : 0;
            });
        Connection both = connected(client, serverContext());
        send(both.server, "x");
        EXPECT_EQ("x", receive(both.client)); // what came before it was read as well
        EXPECT_EQ(0, tickets);
    }
}

TEST_F(NorvSSLTest, InitMayBeRepeated) {
    ContextFactory factory;
    factory.init();
    factory.init();
    EXPECT_NE(nullptr, static_cast<SSL_CTX*>(factory.create(ContextFactory::SSL_V23, true)));
}

TEST_F(NorvSSLTest, KeyAndCertificateThatBelongTogetherAreValid) {
    const RefContext context = create(4, serverSide);
    EXPECT_FALSE(context->privateKeyIsValid());
    context->certificate(certificateOf(server()));
    EXPECT_FALSE(context->privateKeyIsValid());
    context->privateKey(keyOf(server()));
    EXPECT_TRUE(context->privateKeyIsValid());
}

TEST_F(NorvSSLTest, KeyOfAnotherCertificateFailsAtLine31) {
    const RefContext context = create(4, serverSide);
    context->certificate(certificateOf(server()));
    const auto thrown = thrownBy([&] { context->privateKey(keyOf(client())); });
    expectFailure(thrown, privateKeyText, 4, "NorvSSL", 31);
    EXPECT_THAT(detailOf(thrown), HasSubstr("key values mismatch; "));
    EXPECT_FALSE(context->privateKeyIsValid());
}

TEST_F(NorvSSLTest, CertificateOfAnotherKeyDropsTheKey) {
    const RefContext context = create(4, serverSide);
    context->privateKey(keyOf(client()));
    context->certificate(certificateOf(server()));
    EXPECT_FALSE(context->privateKeyIsValid());
}

TEST_F(NorvSSLTest, EmptyKeysFailAtLine31) {
    const RefContext context = create(4, serverSide);
    for (const RefKey& key : {RefKey(), RefKey(Key::PRIVATE_KEY), RefKey(Key::PUBLIC_KEY)}) {
        const auto thrown = thrownBy([&] { context->privateKey(key); });
        expectFailure(thrown, privateKeyText, 4, "NorvSSL", 31);
        EXPECT_THAT(detailOf(thrown), HasSubstr("SSL routines / SSL_CTX_use_PrivateKey / "));
    }
}

TEST_F(NorvSSLTest, EmptyCertificatesFailAtLine42) {
    const RefContext context = create(4, serverSide);
    const NVX509::CertificateFactory factory;
    for (const auto& certificate : {NVX509::RefCertificate(), factory(nullptr, false)}) {
        const auto thrown = thrownBy([&] { context->certificate(certificate); });
        expectFailure(thrown, certificateText, 4, "NorvSSL", 42);
        EXPECT_THAT(detailOf(thrown), HasSubstr("SSL routines / SSL_CTX_use_certificate / "));
    }
}

TEST_F(NorvSSLTest, CertificateTooWeakForTheMachineFailsAtLine42) {
    const RefContext context = create(4, serverSide);
    SSL_CTX_set_security_level(context, 2);
    const Identity weak = norvauthority::issue({.subject = {{"CN", "weak"}}, .key = norvauthority::Key::rsa(1024)});
    const auto thrown = thrownBy([&] { context->certificate(certificateOf(weak)); });
    expectFailure(thrown, certificateText, 4, "NorvSSL", 42);
    EXPECT_THAT(detailOf(thrown), HasSubstr("ee key too small; "));
}

TEST_F(NorvSSLTest, EmptyCertificatesAreNotAppendedAndFailAtLine54) {
    const RefContext context = create(4, serverSide);
    const NVX509::CertificateFactory factory;
    for (const auto& certificate : {NVX509::RefCertificate(), factory(nullptr, false)}) {
        const auto thrown = thrownBy([&] { context->appendToCertificatePath(certificate); });
        expectFailure(thrown, appendText, 4, "NorvSSL", 54);
        EXPECT_THAT(detailOf(thrown), HasSubstr("SSL routines / SSL_CTX_ctrl / "));
    }
    EXPECT_EQ(0, std::max(0, sk_X509_num(chainOf(context))));
}

TEST_F(NorvSSLTest, SettersOfAContextAroundNullFail) {
    const RefContext context(new Context(nullptr));
    EXPECT_EQ(nullptr, static_cast<SSL_CTX*>(context));
    EXPECT_FALSE(context->privateKeyIsValid());
    expectFailure(thrownBy([&] { context->privateKey(keyOf(server())); }), privateKeyText, 4, "NorvSSL", 31);
    const auto certificate = certificateOf(server());
    expectFailure(thrownBy([&] { context->certificate(certificate); }), certificateText, 4, "NorvSSL", 42);
    expectFailure(thrownBy([&] { context->appendToCertificatePath(certificate); }), appendText, 4, "NorvSSL", 54);
}

TEST_F(NorvSSLTest, FailuresOfAnEarlierCallAreNotTold) {
    const RefContext context = create(4, serverSide);
    ERR_raise(ERR_LIB_SSL, SSL_R_BAD_LENGTH);
    const auto thrown = thrownBy([&] { context->privateKey(RefKey()); });
    EXPECT_THAT(detailOf(thrown), testing::Not(HasSubstr("bad length")));
    ERR_raise(ERR_LIB_SSL, SSL_R_BAD_LENGTH);
    EXPECT_THAT(detailOf(thrownBy([] { create(1, serverSide); })), testing::Not(HasSubstr("bad length")));
}

TEST_F(NorvSSLTest, EmptyPathChangesNothing) {
    const RefContext context = create(4, serverSide);
    context->certificate(certificateOf(server()));
    X509* before = SSL_CTX_get0_certificate(context);
    context->certificatePath({});
    EXPECT_EQ(before, SSL_CTX_get0_certificate(context));
    EXPECT_EQ(nullptr, chainOf(context));
}

TEST_F(NorvSSLTest, PathOfOneSetsTheCertificateAndAppendsNothing) {
    const RefContext context = create(4, serverSide);
    const auto certificate = certificateOf(server());
    context->certificatePath({certificate});
    EXPECT_EQ(0, X509_cmp(certificate, SSL_CTX_get0_certificate(context)));
    EXPECT_EQ(nullptr, chainOf(context));
}

TEST_F(NorvSSLTest, PathRunsFromTheCertificateTowardsTheRoot) {
    const Identity upper = issued("upper", {.ca = true});
    const std::list<NVX509::RefCertificate> path{certificateOf(server()), certificateOf(upper), certificateOf(root())};
    const RefContext context = create(4, serverSide);
    context->certificatePath(path);
    for (auto at = std::next(path.begin()); at != path.end(); ++at) {
        (*at)->relinquishOwnerShip(); // the context frees them
    }
    EXPECT_EQ(0, X509_cmp(path.front(), SSL_CTX_get0_certificate(context)));
    ASSERT_EQ(2, sk_X509_num(chainOf(context)));
    EXPECT_EQ(static_cast<X509*>(*std::next(path.begin())), sk_X509_value(chainOf(context), 0));
    EXPECT_EQ(static_cast<X509*>(path.back()), sk_X509_value(chainOf(context), 1));
}

TEST_F(NorvSSLTest, PathThatFailsInTheMiddleKeepsWhatCameBefore) {
    const RefContext context = create(4, serverSide);
    const auto upper = certificateOf(root());
    const auto thrown = thrownBy([&] {
        context->certificatePath({certificateOf(server()), upper, NVX509::RefCertificate()});
    });
    upper->relinquishOwnerShip();
    expectFailure(thrown, appendText, 4, "NorvSSL", 54);
    EXPECT_NE(nullptr, SSL_CTX_get0_certificate(context));
    EXPECT_EQ(1, sk_X509_num(chainOf(context)));
}

// The caller's own reference goes over to the context, deliberately.
TEST_F(NorvSSLTest, AppendingTakesOverTheCallersReferenceDeliberately) {
    static const int index = markIndex(CRYPTO_EX_INDEX_X509);
    auto certificate = certificateOf(root());
    X509_set_ex_data(certificate, index, &s_freed);
    s_freed = 0;
    {
        const RefContext context = create(4, serverSide);
        context->appendToCertificatePath(certificate);
        certificate->relinquishOwnerShip();
        certificate = NVX509::RefCertificate();
        EXPECT_EQ(0, s_freed) << "the context holds it";
    }
    EXPECT_EQ(1, s_freed) << "the context freed the one reference that there was";
}

TEST_F(NorvSSLTest, CertificateAndKeyOutliveTheirHandles) {
    const RefContext context = create(4, serverSide);
    {
        const auto certificate = certificateOf(server());
        const auto key = keyOf(server());
        context->certificate(certificate);
        context->privateKey(key);
    }
    EXPECT_TRUE(context->privateKeyIsValid());
}

TEST_F(NorvSSLTest, EmptyHandleHasNoContext) {
    const RefContext empty;
    EXPECT_EQ(nullptr, static_cast<SSL_CTX*>(empty));
    EXPECT_TRUE(empty.isNull());
    expectFailure(thrownBy([&] { static_cast<void>(empty->privateKeyIsValid()); }), "operator->", 1,
                  "include2/NorvRefcounted");
}

TEST_F(NorvSSLTest, HandleOnANullBodyIsRefused) {
    const auto thrown = thrownBy([] { const RefContext context(static_cast<Context*>(nullptr)); });
    expectFailure(thrown, "RefCounted constructor for RefImpl failed.", 4, "", 0);
}

TEST_F(NorvSSLTest, LastHandleFreesTheContext) {
    static const int index = markIndex(CRYPTO_EX_INDEX_SSL_CTX);
    s_freed = 0;
    RefContext second;
    {
        const RefContext first = create(4, clientSide);
        SSL_CTX_set_ex_data(first, index, &s_freed);
        EXPECT_EQ(1, first->referenceCount());
        second = first;
        EXPECT_EQ(2, first->referenceCount());
        EXPECT_EQ(static_cast<SSL_CTX*>(first), static_cast<SSL_CTX*>(second));
    }
    EXPECT_EQ(0, s_freed);
    second = RefContext();
    EXPECT_EQ(1, s_freed);
}

} // namespace
