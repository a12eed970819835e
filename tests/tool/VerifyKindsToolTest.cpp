// norvcrypt verify: signatures of the openssl program in every scheme and form, and where a content goes.

#include "support/SigningToolTest.h"

#include <unistd.h>

using namespace interop;
using norvauthority::Identity;

namespace {

class VerifyKindsToolTest : public SigningToolTest {
protected:
    void SetUp() override {
        SigningToolTest::SetUp();
        work.write("erin.pem", erin().certificate.pem());
        work.write("erin.key", erin().key.pkcs8Pem());
    }
    /// Signs "body" into "sig".
    void openssl(const std::string& signer, const std::vector<std::string>& more) {
        std::vector<std::string> arguments{"openssl", "cms",           "-sign", "-binary", "-signer", signer + ".pem",
                                           "-inkey",  signer + ".key", "-in",   "body",    "-out",    "sig"};
        if (std::find(more.begin(), more.end(), "-outform") == more.end())
            arguments.insert(arguments.end(), {"-outform", "DER"});
        arguments.insert(arguments.end(), more.begin(), more.end());
        const Answer answer = run({.arguments = arguments, .directory = work.directory()});
        ASSERT_EQ(0, answer.status) << answer.err;
        before = work.names();
    }
    Answer verify(const std::vector<std::string>& more, const std::string& input = "") {
        std::vector<std::string> arguments{"verify", "--signature", "sig"};
        arguments.insert(arguments.end(), more.begin(), more.end());
        return tool(arguments, input);
    }
    /// Detached with the body in a file and in a pipe; attached, in both encodings.
    void expectGoodInEveryForm(const std::string& signer, const Identity& identity, std::vector<std::string> more,
                               const std::string& details) {
        const auto expect = [&](const Answer& answer) {
            EXPECT_EQ(0, answer.status) << answer.out << answer.err;
            const std::vector<std::string> lines = linesOf(answer.out);
            ASSERT_EQ(4U, lines.size());
            EXPECT_EQ("signer 1: good signature, certificate SHA-256 " + identity.certificate.sha256() +
                          " CN=" + signer + ",O=Interop,C=DE",
                      lines[0]);
            EXPECT_EQ(0U, lines[3].find("details of signer 1: " + details + ", says to have signed at 20")) << lines[3];
        };
        openssl(signer, more);
        expect(verify({"--in", "body"}));
        expect(verify({}, body));
        EXPECT_EQ(1, verify({}, body + "x").status);
        for (const char* form : {"DER", "PEM"}) {
            for (const bool streamed : {false, true}) {
                std::vector<std::string> attached = more;
                attached.insert(attached.end(), {"-nodetach", "-outform", form});
                // OpenSSL 3.0 fails to encode RSASSA-PSS when it streams.
                if (streamed && details.find("PSS") != std::string::npos)
                    continue;
                if (streamed)
                    attached.emplace_back("-stream");
                openssl(signer, attached);
                expect(verify({"--embedded"}));
                expect(verify({"--in", "body"}));
                expect(tool({"verify", "--signature", "-", "--embedded"}, work.read("sig")));
                expect(verify({"--embedded", "--out", "content"}));
                EXPECT_EQ(body, work.read("content"));
                unlink(work.path("content").c_str());
            }
        }
    }
};

TEST_F(VerifyKindsToolTest, RsaWithPss) {
    expectGoodInEveryForm("alice", alice(), {"-keyopt", "rsa_padding_mode:pss", "-md", "sha512"},
                          "signature algorithm RSASSA-PSS, digest sha512");
}

TEST_F(VerifyKindsToolTest, Ecdsa) {
    expectGoodInEveryForm("erin", erin(), {"-md", "sha384"}, "signature algorithm ecdsa-with-SHA384, digest sha384");
}

TEST_F(VerifyKindsToolTest, SignerByKeyIdentifier) {
    expectGoodInEveryForm("alice", alice(), {"-keyid"}, "signature algorithm rsaEncryption, digest sha256");
    // With a certificate that is given, and with one of somebody else.
    openssl("alice", {"-keyid", "-nocerts"});
    EXPECT_EQ(0, verify({"--in", "body", "--cert", "alice.pem"}).status);
    const Answer refused = verify({"--in", "body", "--cert", "erin.pem"});
    EXPECT_EQ(1, refused.status);
    EXPECT_EQ(0U, refused.out.find("signer 1: NOT VERIFIED, no certificate with key identifier ")) << refused.out;
}

// What OpenSSL keeps for older algorithms takes a tenth of a short run to load.
TEST_F(VerifyKindsToolTest, OldDigestsAreLoadedForThoseWhoNameThem) {
    const auto loads = [&](const std::vector<std::string>& more) {
        std::vector<std::string> arguments{"verify", "--signature", "sig"};
        arguments.insert(arguments.end(), more.begin(), more.end());
        const Answer answer = norvcrypt(
            Command{.arguments = arguments, .directory = work.directory(), .environment = {{"LD_DEBUG", "files"}}});
        EXPECT_EQ(0, answer.status) << answer.out;
        EXPECT_EQ(0U, answer.out.find("signer 1: good signature, ")) << answer.out;
        EXPECT_NE(std::string::npos, answer.err.find("libcrypto.so")) << "the loader tells what it loads";
        return answer.err.find("legacy.so") != std::string::npos;
    };
    work.write("body", "a body that is short enough to be looked through\r\n");
    openssl("alice", {"-md", "sha256"});
    EXPECT_FALSE(loads({"--in", "body"}));
    EXPECT_TRUE(loads({"--in", "body", "--cert", "alice.pem"})) << "who knows what is in there";
    openssl("alice", {"-md", "sha256", "-nodetach"});
    EXPECT_FALSE(loads({"--embedded"}));
    for (const char* signedAttributes : {"-md", "-noattr"}) { // -md twice changes nothing
        std::vector<std::string> more{"-md", "md4", "-provider", "legacy", "-provider", "default", signedAttributes};
        if (more.back() == "-md")
            more.emplace_back("md4");
        openssl("alice", more);
        EXPECT_TRUE(loads({"--in", "body"}));
        more.insert(more.end(), {"-outform", "PEM"});
        openssl("alice", more);
        EXPECT_TRUE(loads({"--in", "body"}));
    }
}

TEST_F(VerifyKindsToolTest, AnAlgorithmThatIsNotSupportedIsNamed) {
    openssl("alice", {"-noattr"});
    std::string der = work.read("sig");
    const std::size_t at = der.rfind(std::string("\x2a\x86\x48\x86\xf7\x0d\x01\x01\x01", 9));
    ASSERT_NE(std::string::npos, at);
    der[at + 8] = '\x7f';
    work.write("sig", der);
    const Answer answer = verify({"--in", "body"});
    EXPECT_EQ(2, answer.status);
    EXPECT_EQ(0U, answer.out.find("signer 1: NOT JUDGED, ")) << answer.out;
    EXPECT_NE(std::string::npos, linesOf(answer.out).at(0).find("1.2.840.113549.1.1.127")) << answer.out;
}

TEST_F(VerifyKindsToolTest, TheContentIsWrittenOnlyWhenEverySignatureIsGood) {
    work.write("content", std::string("precious"));
    openssl("alice", {"-nodetach"});
    const std::string der = work.read("sig");
    std::string changed = der;
    changed[changed.find(body) + body.size() / 2] ^= 1;
    work.write("sig", changed);
    EXPECT_EQ(1, verify({"--embedded", "--out", "content"}).status);
    EXPECT_EQ("precious", work.read("content"));
    // One certificate too few, an unknown algorithm, an end that is missing.
    work.write("sig", der);
    EXPECT_EQ(1, verify({"--embedded", "--out", "content", "--cert", "erin.pem"}).status);
    changed = der;
    changed[changed.rfind(std::string("\x2a\x86\x48\x86\xf7\x0d\x01\x01\x01", 9)) + 8] = '\x7f';
    work.write("sig", changed);
    EXPECT_EQ(2, verify({"--embedded", "--out", "content"}).status);
    work.write("sig", der.substr(0, der.size() - 1));
    EXPECT_EQ(2, verify({"--embedded", "--out", "content"}).status);
    EXPECT_EQ("precious", work.read("content"));
    EXPECT_EQ(before, work.names());
    work.write("sig", der);
    EXPECT_EQ(0, verify({"--embedded", "--out", "content"}).status);
    EXPECT_EQ(body, work.read("content"));
}

TEST_F(VerifyKindsToolTest, PlacesForTheContent) {
    openssl("alice", {"-nodetach"});
    expectFailure(verify({"--embedded", "--out", "-"}), "the verdict goes to standard output");
    expectFailure(verify({"--embedded", "--out", "none/content"}),
                  "cannot write none/content: No such file or directory");
    expectFailure(verify({"--in", "body", "--out", "content"}), "--out");
    expectFailure(verify({"--embedded", "--out", "sig"}), "cannot write sig: it is an input too, which would be lost");
    EXPECT_EQ(2, verify({"--embedded", "--out", "/dev/full"}).status);
}

// More than is ever kept in memory, through a pipe.
TEST_F(VerifyKindsToolTest, LongContentThroughAPipe) {
    std::string longBody;
    while (longBody.size() < 5U << 20U)
        longBody += body;
    work.write("body", longBody);
    openssl("alice", {"-nodetach", "-stream"});
    const Answer answer = tool({"verify", "--signature", "-", "--embedded", "--out", "content"}, work.read("sig"));
    EXPECT_EQ(0, answer.status) << answer.err;
    EXPECT_TRUE(longBody == work.read("content"));
}

} // namespace
