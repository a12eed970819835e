// Failures that nobody outside can provoke: OpenSSL's functions are defined here, fail once on demand, and otherwise
// forward.
#include "support/Cms.h"
#include "support/Interpose.h"

using namespace cmstest;
using Crypto::Hasher;

#define REPLACEMENT extern "C" __attribute__((visibility("default")))

namespace {

/// The name of the function that fails next.
const char* s_failing = "";
BIO* s_chain = nullptr;

bool failsNow(const char* function) {
    if (std::strcmp(s_failing, function) != 0) {
        return false;
    }
    s_failing = "";
    ERR_raise(ERR_LIB_USER, 42);
    return true;
}

} // namespace

REPLACEMENT PKCS7* PKCS7_new() {
    return failsNow("PKCS7_new") ? nullptr : norvtest::next<&PKCS7_new>("PKCS7_new")();
}
REPLACEMENT int PKCS7_set_type(PKCS7* structure, int type) {
    return failsNow("PKCS7_set_type") ? 0 : norvtest::next<&PKCS7_set_type>("PKCS7_set_type")(structure, type);
}
REPLACEMENT int PKCS7_add_certificate(PKCS7* structure, X509* certificate) {
    return failsNow("PKCS7_add_certificate")
               ? 0
               : norvtest::next<&PKCS7_add_certificate>("PKCS7_add_certificate")(structure, certificate);
}
REPLACEMENT BIO* PKCS7_dataInit(PKCS7* structure, BIO* sink) {
    s_chain = failsNow("PKCS7_dataInit") ? nullptr : norvtest::next<&PKCS7_dataInit>("PKCS7_dataInit")(structure, sink);
    return s_chain;
}
REPLACEMENT int PKCS7_dataFinal(PKCS7* structure, BIO* chain) {
    return failsNow("PKCS7_dataFinal") ? 0 : norvtest::next<&PKCS7_dataFinal>("PKCS7_dataFinal")(structure, chain);
}
REPLACEMENT int i2d_PKCS7_bio(BIO* out, const PKCS7* structure) {
    return failsNow("i2d_PKCS7_bio") ? 0 : norvtest::next<&i2d_PKCS7_bio>("i2d_PKCS7_bio")(out, structure);
}
REPLACEMENT BIO* BIO_new(const BIO_METHOD* method) {
    return method == BIO_s_null() && failsNow("BIO_new") ? nullptr : norvtest::next<&BIO_new>("BIO_new")(method);
}

namespace {

class Fault : public ::testing::Test {
protected:
    void TearDown() override {
        EXPECT_STREQ(s_failing, "") << "the fault was not reached";
        s_failing = "";
    }
    static Caught construction(const char* function) {
        const auto pair = pairOf(identities().rsa, {certificateOf(identities().authority)});
        s_failing = function;
        const Caught failure = caught([&] { const CMS::SignerMediaOut signer(Hasher::SHA256, pair); });
        EXPECT_EQ(ERR_peek_error(), 0UL);
        return failure;
    }
    static void expectConstructor(const Caught& failure, unsigned int line) {
        EXPECT_EQ(failure.where, "CMS::SignerMediaOutImpl::SignerMediaOutImpl");
        EXPECT_EQ(failure.code, 4);
        EXPECT_EQ(failure.file, "CMSSignerMedia");
        EXPECT_EQ(failure.line, line);
        ASSERT_EQ(failure.details.size(), 1U);
        EXPECT_EQ(failure.details.front().substr(0, 2), "0x");
    }
};

} // namespace

TEST_F(Fault, NoMemoryForAStructure) {
    const RecordedLog log;
    s_failing = "PKCS7_new";
    const Caught failure = caught([] { const CMS::RefContentInfo made(true); });
    EXPECT_EQ(failure.where, "CMS::RefContentInfo::RefContentInfo");
    EXPECT_EQ(failure.code, 4);
    EXPECT_EQ(failure.file, "CMS");
    EXPECT_EQ(failure.line, 404U);
    EXPECT_EQ(failure.details, std::vector<std::string>{"Creation failed"});
    EXPECT_TRUE(log.records().empty());
    ERR_clear_error();
}

TEST_F(Fault, TheStructureCannotBeTyped) {
    expectConstructor(construction("PKCS7_set_type"), 49);
}

TEST_F(Fault, TheKeyIsAskedForBeforeTheStructureIsTyped) {
    s_failing = "PKCS7_set_type";
    const NVX509::KeyCertificatePair pair(keyOf(identities().otherRsa), certificateOf(identities().rsa));
    const Caught failure = caught([&] { const CMS::SignerMediaOut signer(Hasher::SHA256, pair); });
    EXPECT_EQ(failure.line, 43U);
    EXPECT_STREQ(s_failing, "PKCS7_set_type") << "it was not called";
    s_failing = "";
}

TEST_F(Fault, TheStructureIsTypedBeforeTheDigestIsLookedUp) {
    const auto pair = pairOf(identities().rsa);
    s_failing = "PKCS7_set_type";
    expectConstructor(caught([&] { const CMS::SignerMediaOut signer(static_cast<Hasher::Type>(0), pair); }), 49);
}

TEST_F(Fault, TheChainIsNotMade) {
    expectConstructor(construction("PKCS7_dataInit"), 91);
}

TEST_F(Fault, TheSinkIsNotMade) {
    expectConstructor(construction("BIO_new"), 91);
}

TEST_F(Fault, ACertificateIsNotAdded) {
    const Caught failure = construction("PKCS7_add_certificate");
    EXPECT_EQ(failure.where, "CMS::SignerMediaOutImpl::SignerMediaOutImpl");
    EXPECT_EQ(failure.code, 4);
    EXPECT_GT(failure.line, 0U);
}

TEST_F(Fault, TheStructureIsNotFinished) {
    Norvane::MemoryMediaOut target;
    CMS::SignerMediaOut signer(Hasher::SHA256, pairOf(identities().rsa));
    signer.attach(target);
    s_failing = "PKCS7_dataFinal";
    const Caught failure = caught([&] { signer.end(); });
    EXPECT_EQ(failure.where, "CMS::SignerMediaOutImpl::end");
    EXPECT_EQ(failure.line, 147U);
    EXPECT_EQ(ERR_peek_error(), 0UL);
    EXPECT_EQ(target.content().length(), 0U);
    EXPECT_FALSE(target.ended());
}

TEST_F(Fault, TheStructureIsNotEncoded) {
    Norvane::MemoryMediaOut target;
    CMS::SignerMediaOut signer(Hasher::SHA256, pairOf(identities().rsa));
    signer.attach(target);
    s_failing = "i2d_PKCS7_bio";
    const Caught failure = caught([&] { signer.end(); });
    EXPECT_EQ(failure.where, "CMS::SignerMediaOutImpl::end");
    EXPECT_EQ(failure.code, 4);
    EXPECT_EQ(failure.file, "CMSSignerMedia");
    EXPECT_NE(failure.line, 147U);
    EXPECT_EQ(ERR_peek_error(), 0UL);
    EXPECT_FALSE(target.ended());
}

// The body passes the digest and is gone: no link of the chain collects it.
TEST_F(Fault, NoLinkOfTheChainKeepsTheBody) {
    CMS::SignerMediaOut signer(Hasher::SHA256, pairOf(identities().rsa));
    ASSERT_NE(s_chain, nullptr);
    EXPECT_NE(BIO_find_type(s_chain, BIO_TYPE_MD), nullptr);
    EXPECT_EQ(BIO_find_type(s_chain, BIO_TYPE_MEM), nullptr);
    const Bytes body = bodyOf(100000);
    signer.write(body.data(), 100000);
    signer.write(body.data(), 100000);
    EXPECT_EQ(BIO_pending(s_chain), 0);
}
