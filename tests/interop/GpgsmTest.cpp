// gpgsm: what one side signs or encrypts, the other accepts and decrypts; the tool imports its PKCS#12 files.

#include "support/JudgedEncryption.h"
#include "support/JudgedPkcs12.h"
#include "support/JudgedSignatures.h"

using namespace interop;
using norvauthority::Bytes;

namespace {

class GpgsmTest : public JudgedSignatures {
protected:
    void SetUp() override {
        if (!hasGpgsm())
            GTEST_SKIP() << "gpgsm is not installed";
        JudgedSignatures::SetUp();
        makeGpgsmHome();
    }
    /// Alice signs "body" into "sig".
    void signs(bool detached) {
        std::vector<std::string> arguments{"--local-user", "alice@example.org", "--output", "sig", "--sign"};
        if (detached)
            arguments.emplace_back("--detach-sign");
        arguments.emplace_back("body");
        const Answer answer = gpgsmWith("x", arguments);
        ASSERT_EQ(0, answer.status) << answer.err;
    }
};

TEST_F(GpgsmTest, AcceptsOurSignatures) {
    for (const char* digest : {"sha256", "sha512"}) {
        toolSigns("alice", digest);
        const Answer good = in({"gpgsm", "--batch", "--status-fd", "1", "--verify", "sig", "body"});
        EXPECT_EQ(0, good.status) << good.err;
        EXPECT_NE(std::string::npos, good.out.find("[GNUPG:] GOODSIG")) << good.out << good.err;
        work.write("other", body + "x");
        EXPECT_NE(0, in({"gpgsm", "--batch", "--verify", "sig", "other"}).status);
    }
}

TEST_F(GpgsmTest, WeAcceptItsSignatures) {
    importIntoGpgsm("alice");
    for (const bool detached : {true, false}) {
        signs(detached);
        toolAccepts(detached ? "gpgsm, detached" : "gpgsm, attached", detached);
    }
}

TEST_F(GpgsmTest, AcceptsWhatTheLibrarySigns) {
    const Bytes content = cmstest::bodyOf(20000);
    librarySigns(alice(), content);
    succeeds({"gpgsm", "--batch", "--verify", "sig", "body"});
    Bytes altered = content;
    altered[7] ^= 1U;
    work.write("altered", altered);
    EXPECT_NE(0, in({"gpgsm", "--batch", "--verify", "sig", "altered"}).status);
}

TEST_F(GpgsmTest, SignsWhatTheLibraryAccepts) {
    const Bytes content = cmstest::bodyOf(20000);
    work.write("body", content);
    importIntoGpgsm("alice");
    for (const bool detached : {true, false}) {
        signs(detached);
        EXPECT_TRUE(libraryAccepts(alice(), content)) << (detached ? "detached" : "attached");
    }
}

using GpgsmEncryptionTest = JudgedEncryption;

TEST_F(GpgsmEncryptionTest, EachSideDecryptsWhatTheOtherEncrypts) {
    if (!hasGpgsm())
        GTEST_SKIP() << "gpgsm is not installed";
    makeGpgsmHome();
    // It answers 2 when it lacks the key of a recipient that comes before the one whose key it has.
    for (const char* who : {"alice", "bob"})
        importIntoGpgsm(who);
    succeeds({"gpgsm", "--batch", "--import", "carol.pem"});
    exchangeAll(
        Program::gpgsm,
        [&](const Exchange& exchange) {
            std::vector<std::string> arguments{"gpgsm",    "--batch", "--cipher-algo", exchange.cipher.gpgsm,
                                               "--output", "msg"};
            for (const std::string& who : recipientsOf(exchange))
                arguments.insert(arguments.end(), {"--recipient", who + "@example.org"});
            arguments.insert(arguments.end(), {"--encrypt", "body"});
            succeeds(arguments);
        },
        [&] {
            const Answer answer = gpgsmWith("x", {"--output", "out", "--decrypt", "msg"});
            ASSERT_EQ(0, answer.status) << answer.err;
        });
}

using GpgsmPkcs12Test = JudgedPkcs12;

TEST_F(GpgsmPkcs12Test, GpgsmsFiles) {
    if (!hasGpgsm()) {
        GTEST_SKIP() << "gpgsm is not installed";
    }
    makeGpgsmHome();
    succeedsWithSomeSalt([&] {
        opensslExports({"-keypbe", "PBE-SHA1-3DES", "-certpbe", "PBE-SHA1-3DES", "-macalg", "sha1", "-in", "alice.pem",
                        "-inkey", "alice.key"});
        return gpgsmWith("secret", {"--import", "file.p12"});
    });
    succeedsWithSomeSalt([&] {
        const Answer written =
            gpgsmWith("secret", {"--output", "gpgsm.p12", "--export-secret-key-p12", "alice@example.org"});
        EXPECT_EQ(0, written.status) << written.err;
        return in({"openssl", "pkcs12", "-legacy", "-in", "gpgsm.p12", "-passin", "pass:secret", "-nodes", "-out",
                   "/dev/null"});
    });
    expectImported(alice(), "gpgsm.p12");
    work.write("pass", std::string("another\n"));
    EXPECT_EQ(1, imports("gpgsm.p12").status);
}

} // namespace
