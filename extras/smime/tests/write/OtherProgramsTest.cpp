// What the writer writes, read by GMime's own S/MIME, gpgsm and NSS.

#include "GmimeParts.h"
#include "Writing.h"

#include "support/JudgedTest.h"

#include <cstdlib>

namespace {

using namespace smimetest;
using testing::HasSubstr;

const std::string mail = "From: alice@example.org\nTo: bob@example.org\nSubject: Lunch\n"
                         "Content-Type: text/plain; charset=utf-8\n\nAt noon in the caf\xc3\xa9? \nFrom me.\n";
const std::string part =
    "Content-Type: text/plain; charset=utf-8\r\nContent-Transfer-Encoding: quoted-printable\r\n\r\n"
    "At noon in the caf=C3=A9?=20\r\n=46rom me.\r\n";

/// The octets of the structure: the last part, or all of the body.
std::string structureOf(const std::string& sent) {
    const std::size_t header = sent.rfind("Content-Transfer-Encoding: base64");
    const std::size_t from = sent.find("\r\n\r\n", header) + 4;
    const std::size_t end = std::min(sent.find("\r\n--", from), sent.size());
    Buffer octets;
    EXPECT_TRUE(norvtest::bufferOf(sent.substr(from, end - from)).decodeBase64(octets));
    return norvtest::textOf(octets);
}

class SmimeOtherProgramsTest : public interop::JudgedTest {
protected:
    void SetUp() override {
        JudgedTest::SetUp();
        put("alice", interop::alice());
        put("bob", interop::bob());
        beside = wrapped(mail, {signedBy({&interop::alice()})});
        inside = wrapped(mail, {opaquelySignedBy(interop::alice())});
        encrypted = wrapped(mail, {encryptedFor({&interop::bob()})});
        work.write("body", firstPart(beside));
        work.write("detached", structureOf(beside));
        work.write("opaque", structureOf(inside));
        work.write("encrypted", structureOf(encrypted));
        EXPECT_EQ(firstPart(beside), part);
    }

    std::string beside;
    std::string inside;
    std::string encrypted;
};

TEST_F(SmimeOtherProgramsTest, GpgsmAndGmimeWithItReadThem) {
    if (!hasGpgsm()) {
        GTEST_SKIP() << "gpgsm is not installed";
    }
    makeGpgsmHome();
    importIntoGpgsm("bob");
    succeeds({"gpgsm", "--batch", "--verify", "detached", "body"});
    succeeds({"gpgsm", "--batch", "--verify", "opaque"});
    const interop::Answer clear = gpgsmWith("x", {"--decrypt", "encrypted"});
    EXPECT_EQ(clear.out, part) << clear.err;

    setenv("GNUPGHOME", work.path("gnupg").c_str(), 1);
    for (const std::string& sent : {beside, withLf(beside)}) {
        EXPECT_EQ(verdictOfGmime(sent), "valid");
    }
    EXPECT_EQ(verdictOfGmime(inside), "valid");
    std::string forged = beside;
    forged.replace(forged.find("noon"), 4, "nine");
    EXPECT_NE(verdictOfGmime(forged), "valid");
    unsetenv("GNUPGHOME");
}

TEST_F(SmimeOtherProgramsTest, NssReadsThem) {
    if (!hasNss()) {
        GTEST_SKIP() << "the tools of NSS are not installed";
    }
    makeNssDatabase();
    importIntoNss("bob");
    succeeds({"cmsutil", "-D", "-d", "nss", "-i", "detached", "-c", "body", "-o", "out"});
    EXPECT_EQ(work.read("out"), part);
    succeeds({"cmsutil", "-D", "-d", "nss", "-i", "opaque", "-o", "out"});
    EXPECT_EQ(work.read("out"), part);
    succeeds({"cmsutil", "-D", "-d", "nss", "-i", "encrypted", "-o", "out"});
    EXPECT_EQ(work.read("out"), part);
}

TEST_F(SmimeOtherProgramsTest, TheOpensslProgramReadsThem) {
    work.write("beside", beside);
    work.write("feeds", withLf(beside));
    work.write("inside", inside);
    work.write("secret", encrypted);
    for (const char* const name : {"beside", "feeds", "inside"}) {
        const interop::Answer answer = in({"openssl", "cms", "-verify", "-in", name, "-CAfile", "root.pem"});
        EXPECT_EQ(answer.status, 0) << answer.err;
        EXPECT_EQ(answer.out, part);
    }
    const interop::Answer clear =
        in({"openssl", "cms", "-decrypt", "-in", "secret", "-recip", "bob.pem", "-inkey", "bob.key"});
    EXPECT_EQ(clear.out, part) << clear.err;
}

} // namespace
