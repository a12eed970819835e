// Contexts when OpenSSL refuses what cannot be made to fail from outside.

#include "support/Interpose.h"
#include "support/Thrown.h"
#include "support/Tls.h"

#include <gmock/gmock.h>

using namespace Norvane::Crypto;
using namespace tlstesting;
using norvtest::During;

namespace {

bool s_noContext = false;
bool s_noChain = false;

} // namespace

extern "C" {

SSL_CTX* SSL_CTX_new(const SSL_METHOD* method) {
    if (s_noContext) {
        ERR_raise(ERR_LIB_SSL, ERR_R_MALLOC_FAILURE);
        return nullptr;
    }
    return norvtest::next<&SSL_CTX_new>("SSL_CTX_new")(method);
}

long SSL_CTX_ctrl(SSL_CTX* context, int command, long number, void* pointer) {
    constexpr int extraChainCertificate = 14;
    if (s_noChain && command == extraChainCertificate) {
        ERR_raise(ERR_LIB_SSL, ERR_R_MALLOC_FAILURE);
        return 0;
    }
    return norvtest::next<&SSL_CTX_ctrl>("SSL_CTX_ctrl")(context, command, number, pointer);
}
}

namespace {

class NorvSSLFaultsTest : public TlsTest {
protected:
    void TearDown() override { EXPECT_TRUE(norvtest::errorQueueIsEmpty()); }
};

TEST_F(NorvSSLFaultsTest, ContextThatOpenSslDoesNotMakeFailsAtLine181) {
    const During<bool> failing(s_noContext, true);
    for (const bool client : {true, false}) {
        const auto thrown = thrownBy([&] { context(client); });
        expectFailure(thrown,
                      "virtual Norvane::Crypto::NVSSL::RefContext "
                      "Norvane::Crypto::NVSSL::ContextFactory::create(Norvane::Crypto::NVSSL::ContextFactory::Method, "
                      "bool)",
                      4, "NorvSSL", 181);
        EXPECT_THAT(detailOf(thrown), testing::HasSubstr("malloc failure; "));
    }
}

TEST_F(NorvSSLFaultsTest, CertificateThatIsNotAppendedStaysTheCallers) {
    const RefContext made = serverContext();
    const auto certificate = certificateOf(root());
    const During<bool> failing(s_noChain, true);
    const auto thrown = thrownBy([&] { made->appendToCertificatePath(certificate); });
    expectFailure(
        thrown,
        "void Norvane::Crypto::NVSSL::Context::appendToCertificatePath(const Norvane::Crypto::NVX509::RefCertificate&)",
        4, "NorvSSL", 54);
    EXPECT_THAT(detailOf(thrown), testing::HasSubstr("malloc failure; "));
}

TEST_F(NorvSSLFaultsTest, SharedContextThatOpenSslDoesNotMakeIsNull) {
    const During<bool> failing(s_noContext, true);
    EXPECT_EQ(0, Norvane::norvSSL_CTX::init(Norvane::norvSSL_CTX::NORV_SSL_CTX_SERVER));
    EXPECT_EQ(nullptr, Norvane::norvSSL_CTX::norvSSL_new());
    EXPECT_THAT(getErrString(), testing::HasSubstr("malloc failure; ")) << "the reason is left to the caller";
}

} // namespace
