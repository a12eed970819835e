// norvcrypt encrypt: every option, every form of input and output, and what it refuses. OpenSSL tells what came out.

#include "support/ToolTest.h"

#include <sys/stat.h>
#include <unistd.h>

using namespace interop;

namespace {

class EncryptToolTest : public ToolTest {
protected:
    void SetUp() override {
        body = sampleBody();
        work.write("body", body);
        for (const auto& [name, identity] :
             {std::pair{"alice", &alice()}, std::pair{"bob", &bob()}, std::pair{"carol", &carol()}}) {
            work.write(std::string(name) + ".pem", identity->certificate.pem());
            work.write(std::string(name) + ".key", identity->key.pkcs8Pem());
        }
        before = work.names();
    }
    Answer encrypt(std::vector<std::string> more, const std::string& input = "") {
        more.insert(more.begin(), "encrypt");
        return tool(more, input);
    }
    void encrypts(const std::vector<std::string>& more, const std::string& input = "") {
        const Answer answer = encrypt(more, input);
        ASSERT_EQ(0, answer.status) << answer.err;
        ASSERT_EQ("", answer.out);
        ASSERT_EQ("", answer.err);
    }
    /// What OpenSSL decrypts with that person's key; nothing when it cannot.
    std::optional<std::string> decrypted(const std::string& who, const std::string& form = "DER") {
        const Answer answer = run({.arguments = {"openssl", "cms", "-decrypt", "-binary", "-inform", form, "-in", "msg",
                                                 "-recip", who + ".pem", "-inkey", who + ".key"},
                                   .directory = work.directory()});
        return answer.status == 0 ? std::optional(answer.out) : std::nullopt;
    }
    std::string printed() {
        return run({.arguments = {"openssl", "cms", "-cmsout", "-print", "-noout", "-inform", "DER", "-in", "msg"},
                    .directory = work.directory()})
            .out;
    }

    std::string body;
};

TEST_F(EncryptToolTest, FileToFileWithAes256ByDefault) {
    encrypts({"--to", "alice.pem", "--in", "body", "--out", "msg"});
    EXPECT_EQ(body, decrypted("alice"));
    EXPECT_NE(std::string::npos, printed().find("aes-256-cbc"));
    EXPECT_EQ('\x30', work.read("msg")[0]);
}

TEST_F(EncryptToolTest, StandardInputAndOutput) {
    for (const std::vector<std::string>& more :
         {std::vector<std::string>{}, std::vector<std::string>{"--in", "-", "--out", "-"}}) {
        std::vector<std::string> arguments{"--to", "alice.pem"};
        arguments.insert(arguments.end(), more.begin(), more.end());
        const Answer answer = encrypt(arguments, body);
        ASSERT_EQ(0, answer.status) << answer.err;
        work.write("msg", answer.out);
        EXPECT_EQ(body, decrypted("alice"));
    }
}

TEST_F(EncryptToolTest, SeveralCertificatesAfterOneOptionOrSeveralOptions) {
    for (const std::vector<std::string>& to : {std::vector<std::string>{"--to", "alice.pem", "bob.pem", "carol.pem"},
                                               {"--to", "alice.pem", "--to", "bob.pem", "--to", "carol.pem"},
                                               {"--to", "alice.pem", "bob.pem", "--to", "carol.pem"},
                                               {"--to=alice.pem", "--to=bob.pem", "carol.pem"}}) {
        std::vector<std::string> arguments = to;
        arguments.insert(arguments.end(), {"--in", "body", "--out", "msg"});
        encrypts(arguments);
        for (const char* who : {"alice", "bob", "carol"})
            EXPECT_EQ(body, decrypted(who)) << who;
    }
}

TEST_F(EncryptToolTest, NobodyElseCanReadIt) {
    encrypts({"--to", "alice.pem", "bob.pem", "--in", "body", "--out", "msg"});
    EXPECT_EQ(body, decrypted("bob"));
    EXPECT_EQ(std::nullopt, decrypted("carol"));
    EXPECT_EQ(std::string::npos, work.read("msg").find("line ends differ"));
}

TEST_F(EncryptToolTest, SameBodyNeverGivesTheSameBytes) {
    const Answer one = encrypt({"--to", "alice.pem"}, body);
    const Answer two = encrypt({"--to", "alice.pem"}, body);
    EXPECT_NE(one.out.substr(one.out.size() - 64), two.out.substr(two.out.size() - 64));
}

TEST_F(EncryptToolTest, EveryCipherIsTheOneInTheStructure) {
    for (const auto& [name, printedName] :
         {std::pair{"des-cbc", "des-cbc"}, std::pair{"idea-cbc", "idea-cbc"}, std::pair{"des-ede3-cbc", "des-ede3-cbc"},
          std::pair{"bf-cbc", "bf-cbc"}, std::pair{"cast5-cbc", "cast5-cbc"}, std::pair{"aes-128-cbc", "aes-128-cbc"},
          std::pair{"aes-192-cbc", "aes-192-cbc"}, std::pair{"AES-256-CBC", "aes-256-cbc"}}) {
        encrypts({"--cipher", name, "--to", "alice.pem", "--in", "body", "--out", "msg"});
        EXPECT_NE(std::string::npos, printed().find(std::string("algorithm: ") + printedName)) << name << printed();
    }
}

TEST_F(EncryptToolTest, UnknownCiphers) {
    for (const char* name : {"aes-256-ccm", "aes-256", "", "rc2-cbc", "aes-256-cbc\n"}) {
        const Answer answer = encrypt({"--cipher", name, "--to", "alice.pem", "--in", "body", "--out", "msg"});
        expectFailure(answer, "unknown cipher: ");
    }
}

TEST_F(EncryptToolTest, PemOutputIsAPkcs7Block) {
    encrypts({"--pem", "--to", "alice.pem", "--in", "body", "--out", "msg"});
    const std::vector<std::string> lines = linesOf(work.read("msg"));
    EXPECT_EQ("-----BEGIN PKCS7-----", lines.front());
    EXPECT_EQ("-----END PKCS7-----", lines.back());
    EXPECT_EQ(body, decrypted("alice", "PEM"));
}

TEST_F(EncryptToolTest, CertificatesInEveryForm) {
    work.write("alice.der", alice().certificate.der);
    work.write("text.pem", "a text in front\n" + bob().certificate.pem() + "and behind\n");
    encrypts({"--to", "alice.der", "text.pem", "--in", "body", "--out", "msg"});
    EXPECT_EQ(body, decrypted("alice"));
    EXPECT_EQ(body, decrypted("bob"));
}

TEST_F(EncryptToolTest, CertificateFromStandardInput) {
    encrypts({"--to", "-", "--in", "body", "--out", "msg"}, alice().certificate.pem());
    EXPECT_EQ(body, decrypted("alice"));
    work.write("msg2", std::string());
    before = work.names();
    expectFailure(encrypt({"--to", "-", "--out", "msg2"}, alice().certificate.pem()),
                  "standard input can be read only once");
}

TEST_F(EncryptToolTest, SeveralCertificatesInOneFileAreNotGuessedAt) {
    work.write("chain.pem", alice().certificate.pem() + root().certificate.pem());
    before = work.names();
    expectFailure(encrypt({"--to", "chain.pem", "--in", "body", "--out", "msg"}),
                  "chain.pem holds 2 certificates: give each recipient a file of its own");
}

TEST_F(EncryptToolTest, NoRecipientIsBadUsage) {
    expectFailure(encrypt({"--in", "body", "--out", "msg"}), "--to is required");
    expectFailure(encrypt({"--in", "body", "--out", "msg", "--to"}), "--to: ");
    expectFailure(encrypt({"--to", "", "--in", "body", "--out", "msg"}), "cannot open : No such file or directory");
}

TEST_F(EncryptToolTest, BadUsage) {
    expectFailure(encrypt({"--to", "alice.pem", "--nonsense"}), "--nonsense (norvcrypt encrypt --help tells more)\n");
    expectFailure(tool({"tls", "check", "--nonsense"}), "--nonsense (norvcrypt tls check --help tells more)\n");
    expectFailure(encrypt({"alice.pem"}), "alice.pem");
    expectFailure(encrypt({"--to", "alice.pem", "--in", "body", "--in", "body"}), "several inputs need --out-dir");
}

TEST_F(EncryptToolTest, CertificateNamedTwiceIsOneRecipient) {
    work.write("odd.pem",
               norvauthority::issue({.key = alice().key, .issuer = &root(), .serial = "-7f"}).certificate.pem());
    encrypts(
        {"--to", "alice.pem", "odd.pem", "--to", "bob.pem", "odd.pem", "alice.pem", "--in", "body", "--out", "msg"});
    const std::string text = printed();
    std::size_t count = 0;
    for (std::size_t at = text.find("issuer:"); at != std::string::npos; at = text.find("issuer:", at + 1))
        ++count;
    EXPECT_EQ(3U, count) << text;
    EXPECT_EQ(body, decrypted("alice"));
    EXPECT_EQ(body, decrypted("bob"));
}

TEST_F(EncryptToolTest, DoubtfulCertificatesServeWithAWarning) {
    using norvauthority::Time;
    constexpr long day = 86400;
    const auto put = [&](const std::string& name, norvauthority::CertificateRequest request) {
        request.key = alice().key;
        request.issuer = &root();
        work.write(name, norvauthority::issue(request).certificate.pem());
    };
    put("early.pem", {.notBefore = Time::fromNow(day), .notAfter = Time::fromNow(2 * day)});
    put("late.pem", {.notBefore = Time::fromNow(-2 * day), .notAfter = Time::fromNow(-day)});
    put("signing.pem", {.keyUsage = 0xC0});
    put("both.pem", {.notBefore = Time::fromNow(-2 * day), .notAfter = Time::fromNow(-day), .keyUsage = 0xC0});
    put("good.pem", {.keyUsage = 0x20});
    const std::string warning = "norvcrypt: warning: the certificate in ";
    const std::string usage = " is not meant for encryption: its key usage has no keyEncipherment\n";
    for (const auto& [name, warnings] :
         {std::pair{"early.pem", warning + "early.pem is not valid yet\n"},
          {"late.pem", warning + "late.pem has expired\n"},
          {"signing.pem", warning + "signing.pem" + usage},
          {"both.pem", warning + "both.pem has expired\n" + warning + "both.pem" + usage},
          {"good.pem", std::string()}}) {
        const Answer answer = encrypt({"--to", name, "bob.pem", "--in", "body", "--out", "msg"});
        EXPECT_EQ(0, answer.status);
        EXPECT_EQ(warnings, answer.err);
        EXPECT_EQ(body, decrypted("bob"));
    }
}

TEST_F(EncryptToolTest, UnreadableMaterial) {
    const auto with = [&](const std::string& certificate, const std::string& in) {
        return encrypt({"--to", "bob.pem", certificate, "--in", in, "--out", "msg"});
    };
    expectFailure(with("none", "body"), "cannot open none: No such file or directory");
    expectFailure(with("alice.key", "body"), "no certificate in alice.key");
    expectFailure(with("body", "body"), "body: no certificate, list, key or CMS structure");
    expectFailure(with(".", "body"), "cannot read .: Is a directory");
    expectFailure(with("alice.pem", "none"), "cannot open none: No such file or directory");
    expectFailure(with("alice.pem", "."), "cannot read .: Is a directory");
    norvauthority::Bytes der = alice().certificate.der;
    der.resize(der.size() - 1);
    work.write("alice.pem", der);
    expectFailure(with("alice.pem", "body"), "alice.pem: malformed: it ends before its announced length");
}

TEST_F(EncryptToolTest, FailureLeavesAnOldMessageAlone) {
    work.write("msg", std::string("precious"));
    before = work.names();
    expectFailure(encrypt({"--to", "alice.pem", "--in", "none", "--out", "msg"}), "cannot open none");
    expectFailure(encrypt({"--to", "none", "--in", "body", "--out", "msg"}), "cannot open none");
    EXPECT_EQ("precious", work.read("msg"));
}

TEST_F(EncryptToolTest, OutputReplacesAFileAndKeepsItsMode) {
    work.write("msg", std::string("old"));
    ASSERT_EQ(0, chmod(work.path("msg").c_str(), 0640));
    encrypts({"--to", "alice.pem", "--in", "body", "--out", "msg"});
    EXPECT_EQ(0640U, work.mode("msg"));
    EXPECT_EQ(body, decrypted("alice"));
}

TEST_F(EncryptToolTest, OutputOverTheInput) {
    work.write("msg", body);
    before = work.names();
    expectFailure(encrypt({"--to", "alice.pem", "--in", "msg", "--out", "msg"}),
                  "cannot read msg: it is the output too");
    EXPECT_EQ(body, work.read("msg"));
}

TEST_F(EncryptToolTest, PlacesThatCannotBeWrittenTo) {
    const auto to = [&](const std::string& out) {
        return encrypt({"--to", "alice.pem", "--in", "body", "--out", out});
    };
    expectFailure(to("none/msg"), "cannot write none/msg: No such file or directory");
    expectFailure(to("."), "cannot write .: Is a directory");
    expectFailure(to("/dev/full"), "cannot write /dev/full: No space left on device");
    expectFailure(encrypt({"--pem", "--to", "alice.pem", "--in", "body", "--out", "/dev/full"}),
                  "cannot write /dev/full: No space left on device");
}

TEST_F(EncryptToolTest, UnwritableStandardOutput) {
    const auto with = [&](Command command) {
        command.arguments = {"encrypt", "--to", "alice.pem", "--in", "body"};
        command.directory = work.directory();
        return norvcrypt(command);
    };
    expectFailure(with({.outputFile = "/dev/full"}), "cannot write standard output: No space left on device");
    expectFailure(with({.outputBroken = true}), "cannot write standard output: Broken pipe");
    expectFailure(with({.outputClosed = true}), "cannot write standard output: Bad file descriptor");
}

} // namespace
