// Failures that nobody outside can provoke: OpenSSL's functions are defined here, fail once on demand, and otherwise
// forward.
#include "support/Cms.h"
#include "support/Faults.h"

using namespace cmstest;
using Crypto::Hasher;
using namespace norvtest;

namespace {

BIO* s_chain = nullptr;
/// Where bytes lie that are to be digested there; how many were.
const Bytes* s_watched = nullptr;
std::size_t s_digestedThere = 0;

} // namespace

REPLACEMENT int X509_check_private_key(const X509* certificate, const EVP_PKEY* key) {
    note("X509_check_private_key");
    return FORWARD(X509_check_private_key, certificate, key);
}
REPLACEMENT PKCS7* PKCS7_new() {
    return failsNow("PKCS7_new") ? nullptr : FORWARD(PKCS7_new);
}
REPLACEMENT int PKCS7_set_type(PKCS7* structure, int type) {
    return failsNow("PKCS7_set_type") ? 0 : FORWARD(PKCS7_set_type, structure, type);
}
REPLACEMENT PKCS7_SIGNER_INFO* PKCS7_add_signature(PKCS7* structure, X509* certificate, EVP_PKEY* key,
                                                   const EVP_MD* digest) {
    return failsNow("PKCS7_add_signature") ? nullptr
                                           : FORWARD(PKCS7_add_signature, structure, certificate, key, digest);
}
REPLACEMENT int PKCS7_add_certificate(PKCS7* structure, X509* certificate) {
    return failsNow("PKCS7_add_certificate") ? 0 : FORWARD(PKCS7_add_certificate, structure, certificate);
}
REPLACEMENT int PKCS7_content_new(PKCS7* structure, int type) {
    return failsNow("PKCS7_content_new") ? 0 : FORWARD(PKCS7_content_new, structure, type);
}
REPLACEMENT BIO* PKCS7_dataInit(PKCS7* structure, BIO* sink) {
    s_chain = failsNow("PKCS7_dataInit") ? nullptr : FORWARD(PKCS7_dataInit, structure, sink);
    return s_chain;
}
REPLACEMENT int BIO_write(BIO* out, const void* data, int length) {
    if (out == s_chain) {
        note("BIO_write " + std::to_string(length));
        const auto* bytes = static_cast<const unsigned char*>(data);
        if (s_watched != nullptr && bytes >= s_watched->data() && bytes < s_watched->data() + s_watched->size()) {
            s_digestedThere += static_cast<std::size_t>(length);
        }
    }
    return FORWARD(BIO_write, out, data, length);
}
REPLACEMENT long BIO_ctrl(BIO* bio, int command, long number, void* argument) {
    if (bio == s_chain && command == BIO_CTRL_FLUSH) {
        note("BIO_ctrl " + std::to_string(command));
    }
    return FORWARD(BIO_ctrl, bio, command, number, argument);
}
REPLACEMENT long PKCS7_ctrl(PKCS7* structure, int command, long number, char* argument) {
    note("PKCS7_ctrl " + std::to_string(command) + " " + std::to_string(number));
    return FORWARD(PKCS7_ctrl, structure, command, number, argument);
}
REPLACEMENT int PKCS7_dataFinal(PKCS7* structure, BIO* chain) {
    return failsNow("PKCS7_dataFinal") ? 0 : FORWARD(PKCS7_dataFinal, structure, chain);
}
REPLACEMENT int i2d_PKCS7_bio(BIO* out, const PKCS7* structure) {
    return failsNow("i2d_PKCS7_bio") ? 0 : FORWARD(i2d_PKCS7_bio, out, structure);
}
REPLACEMENT BIO* BIO_new(const BIO_METHOD* method) {
    return method == BIO_s_null() && failsNow("BIO_new") ? nullptr : FORWARD(BIO_new, method);
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

TEST_F(Fault, TheCallsComeInTheirOrder) {
    const Bytes body = bodyOf(5000);
    const auto& ids = identities();
    const auto pair = pairOf(ids.rsa, {certificateOf(ids.authority), NVX509::RefCertificate(), certificateOf(ids.ec)});
    s_calls.clear();
    CMS::SignerMediaOut signer(Hasher::SHA256, pair);
    EXPECT_EQ(s_calls,
              (std::vector<std::string>{"PKCS7_new", "X509_check_private_key", "PKCS7_set_type", "PKCS7_add_signature",
                                        "PKCS7_add_certificate", "PKCS7_add_certificate", "PKCS7_add_certificate",
                                        "PKCS7_content_new", "PKCS7_dataInit", "BIO_new"}));
    Norvane::MemoryMediaOut target;
    signer.attach(target);
    s_calls.clear();
    signer.write(body.data(), 4000);
    EXPECT_TRUE(s_calls.empty());
    signer.write(body.data() + 4000, 1000);
    EXPECT_EQ(s_calls, std::vector<std::string>{"BIO_write 4000"});
    s_calls.clear();
    signer.end();
    EXPECT_EQ(s_calls, (std::vector<std::string>{"BIO_write 1000", "BIO_ctrl 11", "PKCS7_ctrl 1 1", "PKCS7_dataFinal",
                                                 "i2d_PKCS7_bio"}));
}

// Copied first and digested from the copy, it would be waited for in both steps.
TEST_F(Fault, ALongPieceIsDigestedWhereItLies) {
    const Bytes body = bodyOf(100000);
    const During<const Bytes*> watching(s_watched, &body);
    Norvane::MemoryMediaOut target;
    CMS::SignerMediaOut signer(Hasher::SHA256, pairOf(identities().rsa));
    signer.attach(target);
    signer.write(body.data(), 60000);
    signer.write(body.data() + 60000, 40000);
    EXPECT_EQ(s_digestedThere, body.size());
    signer.end();
    EXPECT_EQ(s_digestedThere, body.size()) << "once";
}

TEST_F(Fault, TheSignerIsNotAdded) {
    expectConstructor(construction("PKCS7_add_signature"), 63);
}

// Deliberate: whether the inner content was made is not asked.
TEST_F(Fault, ContentThatIsNotMadeIsPassedOver) {
    const auto pair = pairOf(identities().rsa);
    s_failing = "PKCS7_content_new";
    const CMS::SignerMediaOut signer(Hasher::SHA256, pair);
    EXPECT_EQ(ERR_peek_error(), 0UL);
}

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
    EXPECT_EQ(ERR_peek_error(), 0UL);
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
