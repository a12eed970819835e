// norvcrypt sign and verify: every option, every form of input and output, every exit code.

#include "support/ToolTest.h"

#include <sys/stat.h>
#include <unistd.h>

using namespace interop;
using norvauthority::Identity;

namespace {

constexpr const char* trustLine =
    "Trust in the certificates was not checked: a good signature does not tell who signed.";

class SignVerifyToolTest : public ToolTest {
protected:
    void SetUp() override {
        body = sampleBody();
        work.write("body", body);
        work.write("alice.pem", alice().certificate.pem());
        work.write("alice.key", alice().key.pkcs8Pem());
        work.write("root.pem", root().certificate.pem());
        before = work.names();
    }

    Answer sign(const std::vector<std::string>& more, const std::string& input = "") {
        std::vector<std::string> arguments{"sign", "--cert", "alice.pem", "--key", "alice.key"};
        arguments.insert(arguments.end(), more.begin(), more.end());
        return tool(arguments, input);
    }
    /// Signs the body into "sig".
    void signBody(const std::vector<std::string>& more = {}) {
        std::vector<std::string> arguments{"--in", "body", "--out", "sig"};
        arguments.insert(arguments.end(), more.begin(), more.end());
        const Answer answer = sign(arguments);
        ASSERT_EQ(0, answer.status) << answer.err;
        ASSERT_EQ("", answer.out);
        ASSERT_EQ("", answer.err);
    }
    std::string goodLine(int number, const Identity& identity, const std::string& name) {
        return "signer " + std::to_string(number) + ": good signature, certificate SHA-256 " +
               identity.certificate.sha256() + " CN=" + name + ",O=Interop,C=DE";
    }
    static std::string bodyLine(const std::string& what, std::size_t length) {
        return "body: " + what + ", " + std::to_string(length) + " bytes";
    }
    void expectGoodOver(const std::string& bodyLine, const Answer& answer) {
        EXPECT_EQ(0, answer.status) << answer.err;
        EXPECT_EQ((std::vector<std::string>{goodLine(1, alice(), "alice"), bodyLine, trustLine}), linesOf(answer.out));
        EXPECT_EQ("", answer.err);
    }
    void expectGood(const Answer& answer, const std::string& name = "body") {
        expectGoodOver(bodyLine(name, body.size()), answer);
    }

    std::string body;
};

TEST_F(SignVerifyToolTest, FileToFile) {
    signBody();
    EXPECT_EQ('\x30', work.read("sig")[0]);
    expectGood(tool({"verify", "--signature", "sig", "--in", "body"}));
}

TEST_F(SignVerifyToolTest, StandardInputAndOutput) {
    const Answer signature = sign({}, body);
    ASSERT_EQ(0, signature.status) << signature.err;
    work.write("sig", signature.out);
    expectGood(tool({"verify", "--signature", "sig"}, body), "standard input");
}

TEST_F(SignVerifyToolTest, DashesAreStandardInputAndOutput) {
    const Answer signature = sign({"--in", "-", "--out", "-"}, body);
    ASSERT_EQ(0, signature.status) << signature.err;
    work.write("sig", signature.out);
    expectGood(tool({"verify", "--signature", "sig", "--in", "-"}, body), "standard input");
}

TEST_F(SignVerifyToolTest, SignatureFromStandardInput) {
    signBody();
    expectGood(tool({"verify", "--signature", "-", "--in", "body"}, work.read("sig")));
}

TEST_F(SignVerifyToolTest, SignatureAndBodyBothFromStandardInputIsBadUsage) {
    signBody();
    before = work.names();
    expectFailure(tool({"verify", "--signature", "-"}, work.read("sig")), "standard input can be read only once");
}

TEST_F(SignVerifyToolTest, PemOutputIsAPkcs7Block) {
    signBody({"--pem"});
    const std::vector<std::string> lines = linesOf(work.read("sig"));
    EXPECT_EQ("-----BEGIN PKCS7-----", lines.front());
    EXPECT_EQ("-----END PKCS7-----", lines.back());
    expectGood(tool({"verify", "--signature", "sig", "--in", "body"}));
}

TEST_F(SignVerifyToolTest, PemInputMaySayCmsOrPkcs7WithTextAround) {
    signBody();
    const std::string der = work.read("sig");
    for (const char* label : {"CMS", "PKCS7", "PKCS #7 SIGNED DATA"}) {
        // The digit 0 is the byte that a binary structure begins with.
        for (const char* leading : {"leading text\n", "0 leading text\n", "0\x06\n", "00", "0"}) {
            work.write("sig.pem", std::string(leading) + "\n" + norvauthority::pem(label, norvauthority::bytes(der)) +
                                      "trailing\n");
            expectGood(tool({"verify", "--signature", "sig.pem", "--in", "body"}));
        }
    }
}

TEST_F(SignVerifyToolTest, SeveralStructuresInOneFileAreRefused) {
    signBody();
    const std::string der = work.read("sig");
    const std::string text = norvauthority::pem("CMS", norvauthority::bytes(der));
    work.write("several", text + text);
    before = work.names();
    const std::vector<std::string> arguments{"verify", "--signature", "several", "--in", "body"};
    expectFailure(tool(arguments), "norvcrypt: more than one CMS structure in several\n");
    for (const std::string& more : {der, std::string("x"), std::string("\0\n0", 3)}) {
        work.write("several", der + more);
        expectFailure(tool(arguments), "norvcrypt: bytes follow the CMS structure in several\n");
    }
    // Padding says nothing.
    work.write("several", der + std::string("\0\0\r\n \t", 6));
    expectGood(tool(arguments));
}

TEST_F(SignVerifyToolTest, EmptyBody) {
    const Answer signature = sign({}, "");
    ASSERT_EQ(0, signature.status) << signature.err;
    work.write("sig", signature.out);
    expectGoodOver(bodyLine("standard input", 0), tool({"verify", "--signature", "sig"}, ""));
    EXPECT_EQ(1, tool({"verify", "--signature", "sig"}, "x").status);
}

TEST_F(SignVerifyToolTest, ChangedByteIsRefused) {
    signBody();
    std::string changed = body;
    changed[changed.size() / 2] ^= 1;
    const Answer answer = tool({"verify", "--signature", "sig"}, changed);
    EXPECT_EQ(1, answer.status);
    EXPECT_EQ((std::vector<std::string>{"signer 1: NOT VERIFIED, the signature does not belong to this body and "
                                        "certificate (event 0x3000052), certificate SHA-256 " +
                                            alice().certificate.sha256() + " CN=alice,O=Interop,C=DE",
                                        bodyLine("standard input", body.size()), trustLine}),
              linesOf(answer.out));
    EXPECT_EQ("", answer.err);
}

TEST_F(SignVerifyToolTest, EveryDigest) {
    for (const char* digest : {"sha1", "sha256", "sha384", "sha512", "SHA256"}) {
        signBody({"--digest", digest});
        expectGood(tool({"verify", "--signature", "sig", "--in", "body"}));
    }
}

TEST_F(SignVerifyToolTest, DigestIsTheOneInTheStructure) {
    signBody({"--digest", "sha512"});
    const Answer print = run({.arguments = {"openssl", "asn1parse", "-inform", "DER", "-in", work.path("sig")}});
    EXPECT_NE(std::string::npos, print.out.find(":sha512"));
    EXPECT_EQ(std::string::npos, print.out.find(":sha256\n"));
}

TEST_F(SignVerifyToolTest, UnknownDigest) {
    expectFailure(sign({"--digest", "sha257", "--in", "body", "--out", "sig"}), "unknown digest: sha257");
}

TEST_F(SignVerifyToolTest, DsaAndEcSigners) {
    for (const Identity* identity : {&dora(), &erin()}) {
        work.write("alice.pem", identity->certificate.pem());
        work.write("alice.key", identity->key.pkcs8Pem());
        signBody();
        const Answer answer = tool({"verify", "--signature", "sig", "--in", "body"});
        EXPECT_EQ(0, answer.status) << answer.out << answer.err;
        EXPECT_NE(std::string::npos, answer.out.find(identity->certificate.sha256()));
    }
}

TEST_F(SignVerifyToolTest, ChainTravelsInOrder) {
    const Identity other = norvauthority::issue({.subject = {{"CN", "Other"}}, .key = norvauthority::Key::ec()});
    work.write("alice.pem", alice().certificate.pem() + root().certificate.pem());
    work.write("chain.der", other.certificate.der);
    signBody({"--chain", "chain.der"});
    const std::string der = work.read("sig");
    const auto at = [&der](const Identity& identity) {
        return der.find(std::string(identity.certificate.der.begin(), identity.certificate.der.end()));
    };
    ASSERT_NE(std::string::npos, at(alice()));
    ASSERT_NE(std::string::npos, at(root()));
    ASSERT_NE(std::string::npos, at(other));
    EXPECT_LT(at(alice()), at(root()));
    EXPECT_LT(at(root()), at(other));
    expectGood(tool({"verify", "--signature", "sig", "--in", "body"}));
}

TEST_F(SignVerifyToolTest, CertificateAndKeyInEveryForm) {
    work.write("alice.pem", alice().certificate.der);
    for (const norvauthority::Bytes& key : {alice().key.pkcs8(), alice().key.traditionalDer()}) {
        work.write("alice.key", key);
        signBody();
        expectGood(tool({"verify", "--signature", "sig", "--in", "body"}));
    }
    work.write("alice.key", norvauthority::pem("RSA PRIVATE KEY", alice().key.traditionalDer()));
    signBody();
    expectGood(tool({"verify", "--signature", "sig", "--in", "body"}));
}

TEST_F(SignVerifyToolTest, CertificateBesideKeyInOneFile) {
    work.write("both", alice().certificate.pem() + alice().key.pkcs8Pem());
    const Answer answer = tool({"sign", "--cert", "both", "--key", "both", "--in", "body", "--out", "sig"});
    EXPECT_EQ(0, answer.status) << answer.err;
    expectGood(tool({"verify", "--signature", "sig", "--in", "body"}));
}

TEST_F(SignVerifyToolTest, EncryptedKeyTakesTheFirstLineOfThePassphraseFile) {
    work.write("alice.key", alice().key.encryptedPem("open sesame"));
    for (const char* content : {"open sesame", "open sesame\n", "open sesame\r\n", "open sesame\nsecond line\n"}) {
        work.write("pass", std::string(content));
        signBody({"--passphrase-file", "pass"});
        expectGood(tool({"verify", "--signature", "sig", "--in", "body"}));
    }
    // A carriage return alone ends no line.
    work.write("alice.key", alice().key.encryptedPem("open sesame\r"));
    work.write("pass", std::string("open sesame\r"));
    signBody({"--passphrase-file", "pass"});
}

TEST_F(SignVerifyToolTest, PassphraseFromStandardInput) {
    work.write("alice.key", alice().key.encryptedPem("open sesame"));
    const Answer answer = sign({"--passphrase-file", "-", "--in", "body", "--out", "sig"}, "open sesame\n");
    EXPECT_EQ(0, answer.status) << answer.err;
    expectGood(tool({"verify", "--signature", "sig", "--in", "body"}));
}

TEST_F(SignVerifyToolTest, EncryptedKeyUnderTheEmptyPassphrase) {
    work.write("alice.key", alice().key.encryptedPem(""));
    work.write("pass", std::string("\n"));
    signBody({"--passphrase-file", "pass"});
    expectGood(tool({"verify", "--signature", "sig", "--in", "body"}));
}

TEST_F(SignVerifyToolTest, KeyThatOpenSslEncryptedInDerOrInTheOldForm) {
    work.write("pass", std::string("open sesame\n"));
    const std::string clear = work.path("alice.key");
    const std::string coded = work.path("coded.key");
    const std::string pass = "file:" + work.path("pass");
    ASSERT_EQ(0, run({.arguments = {"openssl", "pkcs8", "-topk8", "-in", clear, "-outform", "DER", "-out", coded,
                                    "-passout", pass}})
                     .status);
    const std::vector<std::string> command{"sign", "--cert", "alice.pem", "--key", "coded.key", "--passphrase-file",
                                           "pass", "--in",   "body",      "--out", "sig"};
    EXPECT_EQ(0, tool(command).status);
    expectGood(tool({"verify", "--signature", "sig", "--in", "body"}));
    ASSERT_EQ(0, run({.arguments = {"openssl", "rsa", "-in", clear, "-traditional", "-aes128", "-out", coded,
                                    "-passout", pass}})
                     .status);
    EXPECT_NE(std::string::npos, work.read("coded.key").find("Proc-Type: 4,ENCRYPTED"));
    EXPECT_EQ(0, tool(command).status);
    expectGood(tool({"verify", "--signature", "sig", "--in", "body"}));
}

TEST_F(SignVerifyToolTest, EncryptedKeyWithoutPassphraseDoesNotPrompt) {
    work.write("alice.key", alice().key.encryptedPem("open sesame"));
    expectFailure(sign({"--in", "body", "--out", "sig"}, "open sesame\n"),
                  "the private key in alice.key is encrypted: give its passphrase with --passphrase-file");
}

TEST_F(SignVerifyToolTest, WrongPassphrase) {
    work.write("alice.key", alice().key.encryptedPem("open sesame"));
    work.write("pass", std::string("open barley\n"));
    before = work.names();
    expectFailure(sign({"--passphrase-file", "pass", "--in", "body", "--out", "sig"}),
                  "cannot read the private key in alice.key, the passphrase may be wrong: ");
}

TEST_F(SignVerifyToolTest, PassphrasesThatOpenSslWouldCutAreRefused) {
    work.write("alice.key", alice().key.encryptedPem("open sesame"));
    work.write("pass", std::string(1024, 'x'));
    before = work.names();
    expectFailure(sign({"--passphrase-file", "pass", "--in", "body", "--out", "sig"}), "longer than 1023 bytes");
    work.write("pass", std::string("a\0b\n", 4));
    expectFailure(sign({"--passphrase-file", "pass", "--in", "body", "--out", "sig"}), "holds a NUL byte");
}

TEST_F(SignVerifyToolTest, KeyOfSomebodyElse) {
    work.write("alice.key", erin().key.pkcs8Pem());
    expectFailure(sign({"--in", "body", "--out", "sig"}),
                  "norvcrypt: cannot sign body: CMS::SignerMediaOutImpl::SignerMediaOutImpl (code 4, "
                  "CMSSignerMedia:43): Private key does not match certificate");
}

TEST_F(SignVerifyToolTest, UnreadableMaterial) {
    const std::vector<std::string> good{"sign", "--cert", "alice.pem", "--key", "alice.key",
                                        "--in", "body",   "--out",     "sig"};
    const auto with = [&](std::size_t at, const std::string& value) {
        std::vector<std::string> arguments = good;
        arguments[at] = value;
        return tool(arguments);
    };
    expectFailure(with(2, "none"), "cannot open none: No such file or directory");
    expectFailure(with(2, "alice.key"), "no certificate in alice.key");
    expectFailure(with(2, "body"), "body: no certificate, list, key or CMS structure");
    expectFailure(with(4, "none"), "cannot open none: No such file or directory");
    expectFailure(with(4, "alice.pem"), "no private key in alice.pem");
    expectFailure(with(6, "none"), "cannot open none: No such file or directory");
    expectFailure(with(6, "."), "cannot read .: Is a directory");
}

TEST_F(SignVerifyToolTest, DamagedCertificateAndKey) {
    std::string pem = alice().certificate.pem();
    pem[100] = '!';
    work.write("alice.pem", pem);
    expectFailure(sign({"--in", "body", "--out", "sig"}), "alice.pem: a damaged PEM block: ");
    norvauthority::Bytes der = alice().certificate.der;
    der.resize(der.size() - 1);
    work.write("alice.pem", der);
    expectFailure(sign({"--in", "body", "--out", "sig"}), "alice.pem: malformed: it ends before its announced length");
    work.write("alice.pem", alice().certificate.pem());
    work.write("alice.key", norvauthority::pem("PRIVATE KEY", {0x30, 0x03, 0x02, 0x01, 0x05}));
    expectFailure(sign({"--in", "body", "--out", "sig"}),
                  "cannot read the private key in alice.key: Crypto::PrivateKey::read (code 4, Key:112): ");
}

TEST_F(SignVerifyToolTest, MissingOptionsAreBadUsage) {
    expectFailure(tool({"sign", "--cert", "alice.pem"}), "--key is required");
    expectFailure(tool({"sign", "--key", "alice.key"}), "--cert is required");
    expectFailure(tool({"verify"}), "--signature is required");
    expectFailure(tool({}), "A subcommand is required");
    expectFailure(tool({"sign", "--certificate", "x"}), "--certificate");
    expectFailure(tool({"digest", "--nonsense"}), "--nonsense");
    expectFailure(tool({"nonsense\x1B[31m\n"}),
                  "unknown command: nonsense\\x1B[31m\\x0A (norvcrypt --help tells more)");
}

TEST_F(SignVerifyToolTest, HelpAndVersionAreAnswers) {
    for (const char* option : {"--help", "--version"}) {
        const Answer answer = tool({option});
        EXPECT_EQ(0, answer.status);
        EXPECT_NE("", answer.out);
        EXPECT_EQ("", answer.err);
    }
    for (const char* command : {"sign", "verify", "encrypt", "decrypt", "genkey", "inspect", "digest", "demo"}) {
        const Answer answer = tool({command, "--help"});
        EXPECT_EQ(0, answer.status);
        EXPECT_NE(std::string::npos, answer.out.find(command));
        EXPECT_EQ("", answer.err);
    }
    EXPECT_NE(std::string::npos, tool({"sign", "--help"}).out.find("--passphrase-file"));
}

TEST_F(SignVerifyToolTest, FailureLeavesAnOldSignatureAlone) {
    work.write("sig", std::string("precious"));
    work.write("alice.key", erin().key.pkcs8Pem());
    EXPECT_EQ(2, sign({"--in", "body", "--out", "sig"}).status);
    EXPECT_EQ("precious", work.read("sig"));
    EXPECT_EQ(5U, work.names().size());
}

TEST_F(SignVerifyToolTest, OutputReplacesAFileAndKeepsItsMode) {
    work.write("sig", std::string("old"));
    ASSERT_EQ(0, chmod(work.path("sig").c_str(), 0640));
    signBody();
    EXPECT_EQ(0640U, work.mode("sig"));
    expectGood(tool({"verify", "--signature", "sig", "--in", "body"}));
}

TEST_F(SignVerifyToolTest, OutputThroughALinkReplacesItsTarget) {
    work.write("target", std::string("old"));
    ASSERT_EQ(0, run({.arguments = {"ln", "-s", "target", work.path("sig")}}).status);
    signBody();
    expectGood(tool({"verify", "--signature", "target", "--in", "body"}));
    EXPECT_EQ(0, run({.arguments = {"test", "-L", work.path("sig")}}).status);
}

TEST_F(SignVerifyToolTest, OutputKeepsTheOwnerOfTheFileThatItReplaces) {
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

TEST_F(SignVerifyToolTest, OutputThroughALinkThatLeadsNowhereIsRefused) {
    ASSERT_EQ(0, symlink("none", work.path("dangling").c_str()));
    ASSERT_EQ(0, symlink("circle", work.path("circle").c_str()));
    before = work.names();
    expectFailure(sign({"--in", "body", "--out", "dangling"}), "cannot write dangling: No such file or directory");
    expectFailure(sign({"--in", "body", "--out", "circle"}), "cannot write circle: Too many levels of symbolic links");
    EXPECT_EQ(0, run({.arguments = {"test", "-L", work.path("dangling")}}).status);
}

TEST_F(SignVerifyToolTest, OutputUnderTheLongestName) {
    const std::string name(255, 'n');
    const Answer answer = sign({"--in", "body", "--out", name});
    EXPECT_EQ(0, answer.status) << answer.err;
    expectGood(tool({"verify", "--signature", name, "--in", "body"}));
}

TEST_F(SignVerifyToolTest, OutputOverTheInput) {
    work.write("same", body);
    before = work.names();
    expectFailure(sign({"--in", "same", "--out", "same"}), "cannot read same: it is the output too");
    EXPECT_EQ(body, work.read("same"));
}

TEST_F(SignVerifyToolTest, NamesThatTheParserWouldTakeApart) {
    for (const char* name : {"[a,b]", "[]", "++", "\x01++", "%%", "{}"}) {
        work.write(name, body);
        const std::string signature = std::string(name) + ".p7s";
        ASSERT_EQ(0, sign({"--in", name, "--out", signature}).status) << name;
        // A byte that drives terminals is shown in its escaped form.
        const std::string shown = name[0] == '\x01' ? "\\x01++" : name;
        expectGood(tool({"verify", "--signature", signature, "--in", name}), shown);
    }
    before = work.names();
    expectFailure(tool({"verify", "--signature", "sig", "[extra]"}),
                  "The following argument was not expected: [extra] (");
}

TEST_F(SignVerifyToolTest, UnwritableOutput) {
    expectFailure(sign({"--in", "body", "--out", "none/sig"}), "cannot write none/sig: No such file or directory");
    expectFailure(sign({"--in", "body", "--out", "."}), "cannot write .: Is a directory");
    expectFailure(sign({"--in", "body", "--out", "/dev/full"}), "cannot write /dev/full: No space left on device");
}

TEST_F(SignVerifyToolTest, UnwritableStandardOutput) {
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

TEST_F(SignVerifyToolTest, VerdictThatCannotBeWrittenIsNoSuccess) {
    signBody();
    before = work.names();
    expectFailure(norvcrypt(Command{.arguments = {"verify", "--signature", "sig", "--in", "body"},
                                    .outputFile = "/dev/full",
                                    .directory = work.directory()}),
                  "cannot write standard output: No space left on device");
}

TEST_F(SignVerifyToolTest, GivenCertificateIsUsed) {
    signBody();
    work.write("several.pem", root().certificate.pem() + alice().certificate.pem());
    expectGood(tool({"verify", "--signature", "sig", "--in", "body", "--cert", "alice.pem"}));
    expectGood(tool({"verify", "--signature", "sig", "--in", "body", "--cert", "several.pem"}));
}

TEST_F(SignVerifyToolTest, GivenCertificateOfSomebodyElseIsRefused) {
    signBody();
    const Answer answer = tool({"verify", "--signature", "sig", "--in", "body", "--cert", "root.pem"});
    EXPECT_EQ(1, answer.status);
    EXPECT_EQ("signer 1: NOT VERIFIED, no certificate with issuer CN=Interop Root,O=Interop,C=DE serial number 2001",
              linesOf(answer.out).at(0));
}

TEST_F(SignVerifyToolTest, StrangersCertificateWithTheSameNameAndNumberDoesNotHideTheSigner) {
    const Identity impostor = norvauthority::issue(
        {.subject = {{"CN", "impostor"}}, .key = norvauthority::Key::rsa(), .issuer = &root(), .serial = "2001"});
    work.write("several.pem", impostor.certificate.pem() + alice().certificate.pem());
    signBody();
    expectGood(tool({"verify", "--signature", "sig", "--in", "body", "--cert", "several.pem"}));
    work.write("impostor.pem", impostor.certificate.pem());
    EXPECT_EQ(1, tool({"verify", "--signature", "sig", "--in", "body", "--cert", "impostor.pem"}).status);
}

TEST_F(SignVerifyToolTest, NegativeSerialNumbersVerify) {
    const Identity odd = norvauthority::issue(
        {.subject = {{"CN", "odd"}}, .key = norvauthority::Key::rsa(), .issuer = &root(), .serial = "-7f01"});
    work.write("alice.pem", odd.certificate.pem());
    work.write("alice.key", odd.key.pkcs8Pem());
    signBody();
    const Answer answer = tool({"verify", "--signature", "sig", "--in", "body"});
    EXPECT_EQ(0, answer.status) << answer.out << answer.err;
    const Answer refused = tool({"verify", "--signature", "sig", "--in", "body", "--cert", "root.pem"});
    EXPECT_EQ(1, refused.status);
    EXPECT_NE(std::string::npos, refused.out.find("serial number -7f01"));
}

TEST_F(SignVerifyToolTest, HostileNamesCannotForgeAVerdict) {
    const Identity evil =
        norvauthority::issue({.subject = {{"CN", "evil\nsigner 2: good signature\x1B[2J\xFF", V_ASN1_T61STRING}},
                              .key = norvauthority::Key::rsa(),
                              .issuer = &root(),
                              .serial = "66"});
    work.write("alice.pem", evil.certificate.pem());
    work.write("alice.key", evil.key.pkcs8Pem());
    signBody();
    const Answer answer = tool({"verify", "--signature", "sig"}, "another body");
    EXPECT_EQ(1, answer.status);
    EXPECT_EQ(3U, linesOf(answer.out).size());
    EXPECT_NE(std::string::npos, answer.out.find("CN=evil\\0Asigner 2: good signature\\1B[2J\xC3\xBF"));
}

TEST_F(SignVerifyToolTest, HostileFileNamesCannotForgeAnErrorLine) {
    expectFailure(tool({"verify", "--signature", "no\nnorvcrypt: good\xC2\x9B\xFF"}),
                  "cannot open no\\x0Anorvcrypt: good\\xC2\\x9B\\xFF: No such file or directory");
}

TEST_F(SignVerifyToolTest, StructuresThatAreNoSignature) {
    work.write("sig", std::string("no signature at all"));
    before = work.names();
    expectFailure(tool({"verify", "--signature", "sig", "--in", "body"}), "no CMS structure in sig");
    work.write("sig", std::string());
    expectFailure(tool({"verify", "--signature", "sig", "--in", "body"}), "no CMS structure in sig");
    work.write("sig", alice().certificate.der);
    expectFailure(tool({"verify", "--signature", "sig", "--in", "body"}), "ASN1 Decode failed:");
    work.write("sig", norvauthority::contentInfo(norvauthority::fromHex("2a864886f70d010701"),
                                                 norvauthority::der::octetString({0x61})));
    expectFailure(tool({"verify", "--signature", "sig", "--in", "body"}), "sig holds no signature but pkcs7-data");
    work.write("sig", norvauthority::contentInfo(norvauthority::fromHex("2a864886f70d01079080808003"), std::nullopt));
    expectFailure(tool({"verify", "--signature", "sig", "--in", "body"}),
                  "sig holds no signature but 1.2.840.113549.1.7.4294967299");
}

TEST_F(SignVerifyToolTest, TruncatedSignatureIsMalformed) {
    signBody();
    before = work.names();
    std::string der = work.read("sig");
    der.resize(der.size() - 1);
    work.write("sig", der);
    expectFailure(tool({"verify", "--signature", "sig", "--in", "body"}), "ASN1 Decode failed:");
}

TEST_F(SignVerifyToolTest, MissingBody) {
    signBody();
    before = work.names();
    expectFailure(tool({"verify", "--signature", "sig", "--in", "none"}),
                  "cannot open none: No such file or directory");
}

TEST_F(SignVerifyToolTest, EmptyNamesAreNoDefaults) {
    signBody();
    before = work.names();
    const std::string text = "cannot open : No such file or directory";
    expectFailure(tool({"verify", "--signature", "sig", "--in", "body", "--cert", ""}), text);
    expectFailure(tool({"verify", "--signature", "sig", "--in", ""}, body), text);
    expectFailure(tool({"verify", "--signature", "", "--in", "body"}), text);
    expectFailure(sign({"--in", "", "--out", "new"}, body), text);
    expectFailure(sign({"--in", "body", "--chain", "", "--out", "new"}), text);
    expectFailure(sign({"--in", "body", "--passphrase-file", "", "--out", "new"}), text);
    expectFailure(sign({"--in", "body", "--out", ""}), "cannot write : No such file or directory");
}

TEST_F(SignVerifyToolTest, EndlessSignatureIsNotTakenIntoMemory) {
    const Answer answer = run({.arguments = {"/bin/sh", "-c", "ulimit -t 100; exec \"$0\" verify --signature /dev/zero",
                                             norvtest::norvcryptProgram}});
    EXPECT_EQ(2, answer.status);
    EXPECT_EQ("norvcrypt: /dev/zero is larger than 256 MiB\n", answer.err);
}

TEST_F(SignVerifyToolTest, OutputBesideAnInputThatFailsIsNotLeftBehind) {
    expectFailure(sign({"--in", "none", "--out", "sig"}), "cannot open none: No such file or directory");
}

class WhichBodyToolTest : public SignVerifyToolTest {
protected:
    void SetUp() override {
        SignVerifyToolTest::SetUp();
        openssl({"-nodetach"}, "whole");
        openssl({}, "sig");
        before = work.names();
    }
    void openssl(const std::vector<std::string>& more, const std::string& out) {
        std::vector<std::string> arguments{"openssl",   "cms",    "-sign",     "-binary", "-outform", "DER",  "-signer",
                                           "alice.pem", "-inkey", "alice.key", "-in",     "body",     "-out", out};
        arguments.insert(arguments.end(), more.begin(), more.end());
        ASSERT_EQ(0, run(Command{.arguments = arguments, .directory = work.directory()}).status);
    }
    /// The attributes that "sig" signs, and in "stripped" the same signature without them.
    std::string stripAttributes() {
        const std::string der = work.read("sig");
        const auto* cursor = reinterpret_cast<const unsigned char*>(der.data());
        const norvauthority::Pkcs7Ptr structure(d2i_PKCS7(nullptr, &cursor, static_cast<long>(der.size())));
        PKCS7_SIGNER_INFO* signer = sk_PKCS7_SIGNER_INFO_value(structure->d.sign->signer_info, 0);
        unsigned char* set = nullptr;
        const int length =
            ASN1_item_i2d(reinterpret_cast<ASN1_VALUE*>(signer->auth_attr), &set, ASN1_ITEM_rptr(PKCS7_ATTR_VERIFY));
        std::string attributes(reinterpret_cast<const char*>(set), static_cast<std::size_t>(length));
        OPENSSL_free(set);
        sk_X509_ATTRIBUTE_pop_free(signer->auth_attr, X509_ATTRIBUTE_free);
        signer->auth_attr = nullptr;
        unsigned char* stripped = nullptr;
        const int strippedLength = i2d_PKCS7(structure.get(), &stripped);
        work.write("stripped", norvauthority::Bytes(stripped, stripped + strippedLength));
        OPENSSL_free(stripped);
        return attributes;
    }
};

TEST_F(WhichBodyToolTest, AContentIsJudgedWhenItIsAskedFor) {
    const Answer answer = tool({"verify", "--signature", "whole", "--embedded"});
    expectGoodOver(bodyLine("the content of whole", body.size()), answer);
}

// The sender decides whether there is a content: without a word about it he would choose what is judged.
TEST_F(WhichBodyToolTest, AContentIsNotJudgedUnasked) {
    expectFailure(tool({"verify", "--signature", "whole"}, body),
                  "norvcrypt: whole carries its content: give --embedded to judge that, or --in with the body that it "
                  "is to be compared with\n");
}

TEST_F(WhichBodyToolTest, ADetachedSignatureHasNoContentToJudge) {
    expectFailure(tool({"verify", "--signature", "sig", "--embedded"}),
                  "norvcrypt: sig carries no content, the signature is detached: give its body with --in\n");
}

TEST_F(WhichBodyToolTest, EitherTheContentOrABody) {
    expectFailure(tool({"verify", "--signature", "whole", "--embedded", "--in", "body"}), "--embedded");
}

TEST_F(WhichBodyToolTest, AContentMustBeTheBodyGiven) {
    expectGoodOver("body: body, " + std::to_string(body.size()) + " bytes, which is the content of whole",
                   tool({"verify", "--signature", "whole", "--in", "body"}));
    for (const std::string& other : {body + "x", body.substr(1), std::string()}) {
        const Answer answer = tool({"verify", "--signature", "whole", "--in", "-"}, other);
        EXPECT_EQ(1, answer.status);
        EXPECT_EQ(
            "signer 1: NOT VERIFIED, the body is not the content that the structure carries, certificate SHA-256 " +
                alice().certificate.sha256() + " CN=alice,O=Interop,C=DE",
            linesOf(answer.out).at(0));
        EXPECT_EQ("body: standard input, " + std::to_string(other.size()) + " bytes, which is not the content of whole",
                  linesOf(answer.out).at(1));
    }
}

// A signature over the encoding of attributes does not tell whether it is meant for them or for the body that they name.
TEST_F(WhichBodyToolTest, ASetOfAttributesIsNeitherSignedNorAccepted) {
    const std::string attributes = stripAttributes();
    ASSERT_EQ('1', attributes[0]);
    const Answer answer = tool({"verify", "--signature", "stripped"}, attributes);
    EXPECT_EQ(1, answer.status) << answer.out << answer.err;
    EXPECT_EQ(0U, answer.out.find("signer 1: NOT VERIFIED, the body is a set of attributes, so that the signature may "
                                  "have been made for another body, certificate SHA-256 "))
        << answer.out;
    work.write("attributes", attributes);
    before = work.names();
    expectFailure(sign({"--in", "attributes", "--out", "new"}),
                  "norvcrypt: will not sign attributes: it is a set of attributes, whose signature would be good for "
                  "another body, too\n");
    expectFailure(sign({"--out", "new"}, attributes), "will not sign standard input: ");
    work.write("attributes", attributes + "\n");
    EXPECT_EQ(0, sign({"--in", "attributes", "--out", "new"}).status);
}

TEST_F(WhichBodyToolTest, MoreThanAHundredSignersAreNotJudged) {
    const std::string der = work.read("sig");
    const auto* cursor = reinterpret_cast<const unsigned char*>(der.data());
    const norvauthority::Pkcs7Ptr structure(d2i_PKCS7(nullptr, &cursor, static_cast<long>(der.size())));
    auto* signers = structure->d.sign->signer_info;
    const auto* first = reinterpret_cast<const ASN1_VALUE*>(sk_PKCS7_SIGNER_INFO_value(signers, 0));
    while (sk_PKCS7_SIGNER_INFO_num(signers) < 101)
        sk_PKCS7_SIGNER_INFO_push(
            signers, reinterpret_cast<PKCS7_SIGNER_INFO*>(ASN1_item_dup(ASN1_ITEM_rptr(PKCS7_SIGNER_INFO), first)));
    unsigned char* out = nullptr;
    const int length = i2d_PKCS7(structure.get(), &out);
    work.write("many", norvauthority::Bytes(out, out + length));
    OPENSSL_free(out);
    before = work.names();
    expectFailure(tool({"verify", "--signature", "many", "--in", "body"}),
                  "norvcrypt: cannot judge the signatures in many: ");
    expectFailure(tool({"verify", "--signature", "many", "--in", "body"}), "more than 100 signers");
}

} // namespace
