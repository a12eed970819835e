// norvcrypt sign: where the signature goes, and what was there before.

#include "support/SigningToolTest.h"

#include <sys/stat.h>
#include <unistd.h>

using namespace interop;

namespace {

class SignOutputToolTest : public SigningToolTest {};

TEST_F(SignOutputToolTest, PemOutputIsAPkcs7Block) {
    signBody({"--pem"});
    const std::vector<std::string> lines = linesOf(work.read("sig"));
    EXPECT_EQ("-----BEGIN PKCS7-----", lines.front());
    EXPECT_EQ("-----END PKCS7-----", lines.back());
    expectGood(tool({"verify", "--signature", "sig", "--in", "body"}));
}

TEST_F(SignOutputToolTest, FailureLeavesAnOldSignatureAlone) {
    work.write("sig", std::string("precious"));
    work.write("alice.key", erin().key.pkcs8Pem());
    EXPECT_EQ(2, sign({"--in", "body", "--out", "sig"}).status);
    EXPECT_EQ("precious", work.read("sig"));
    EXPECT_EQ(5U, work.names().size());
}

TEST_F(SignOutputToolTest, OutputReplacesAFileAndKeepsItsMode) {
    work.write("sig", std::string("old"));
    ASSERT_EQ(0, chmod(work.path("sig").c_str(), 0640));
    signBody();
    EXPECT_EQ(0640U, work.mode("sig"));
    expectGood(tool({"verify", "--signature", "sig", "--in", "body"}));
}

TEST_F(SignOutputToolTest, OutputThroughALinkReplacesItsTarget) {
    work.write("target", std::string("old"));
    ASSERT_EQ(0, run({.arguments = {"ln", "-s", "target", work.path("sig")}}).status);
    signBody();
    expectGood(tool({"verify", "--signature", "target", "--in", "body"}));
    EXPECT_EQ(0, run({.arguments = {"test", "-L", work.path("sig")}}).status);
}

TEST_F(SignOutputToolTest, OutputKeepsTheOwnerOfTheFileThatItReplaces) {
    if (geteuid() != 0)
        GTEST_SKIP() << "only root can make a file of somebody else";
    work.write("sig", std::string("old"));
    ASSERT_EQ(0, chown(work.path("sig").c_str(), 1234, 2345));
    signBody();
    struct stat status {};
    ASSERT_EQ(0, stat(work.path("sig").c_str(), &status));
    EXPECT_EQ(1234U, status.st_uid);
    EXPECT_EQ(2345U, status.st_gid);
}

TEST_F(SignOutputToolTest, OutputThroughALinkThatLeadsNowhereIsRefused) {
    ASSERT_EQ(0, symlink("none", work.path("dangling").c_str()));
    ASSERT_EQ(0, symlink("circle", work.path("circle").c_str()));
    before = work.names();
    expectFailure(sign({"--in", "body", "--out", "dangling"}), "cannot write dangling: No such file or directory");
    expectFailure(sign({"--in", "body", "--out", "circle"}), "cannot write circle: Too many levels of symbolic links");
    EXPECT_EQ(0, run({.arguments = {"test", "-L", work.path("dangling")}}).status);
}

TEST_F(SignOutputToolTest, OutputUnderTheLongestName) {
    const std::string name(255, 'n');
    const Answer answer = sign({"--in", "body", "--out", name});
    EXPECT_EQ(0, answer.status) << answer.err;
    expectGood(tool({"verify", "--signature", name, "--in", "body"}));
}

TEST_F(SignOutputToolTest, OutputOverTheInput) {
    work.write("same", body);
    before = work.names();
    expectFailure(sign({"--in", "same", "--out", "same"}), "cannot read same: it is the output too");
    EXPECT_EQ(body, work.read("same"));
}

TEST_F(SignOutputToolTest, UnwritableOutput) {
    expectFailure(sign({"--in", "body", "--out", "none/sig"}), "cannot write none/sig: No such file or directory");
    expectFailure(sign({"--in", "body", "--out", "."}), "cannot write .: Is a directory");
    expectFailure(sign({"--in", "body", "--out", "/dev/full"}), "cannot write /dev/full: No space left on device");
}

TEST_F(SignOutputToolTest, UnwritableStandardOutput) {
    const std::vector<std::string> arguments{"sign", "--cert", "alice.pem", "--key", "alice.key"};
    const auto with = [&](Command command) {
        command.arguments = arguments;
        command.input = body;
        command.directory = work.directory();
        return norvcrypt(command);
    };
    expectFailure(with({.outputFile = "/dev/full"}), "cannot write standard output: No space left on device");
    expectFailure(with({.outputBroken = true}), "cannot write standard output: Broken pipe");
    expectFailure(with({.outputClosed = true}), "cannot write standard output: Bad file descriptor");
}

TEST_F(SignOutputToolTest, OutputBesideAnInputThatFailsIsNotLeftBehind) {
    expectFailure(sign({"--in", "none", "--out", "sig"}), "cannot open none: No such file or directory");
}

} // namespace
