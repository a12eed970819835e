// PKCS#12 files that other programs make: the tool imports what they hold, or says why not.

#include "support/JudgedTest.h"

#include <gtest/gtest.h>

#include <filesystem>

using namespace interop;
using norvauthority::Identity;

namespace {

class Pkcs12InteropTest : public JudgedTest {
protected:
    void SetUp() override {
        JudgedTest::SetUp();
        put("alice", alice());
        put("erin", erin());
        work.write("pass", std::string("secret\n"));
    }
    /// `openssl pkcs12 -export` into "file.p12" under "secret".
    void opensslExports(const std::vector<std::string>& more, const std::string& password = "secret") {
        std::vector<std::string> arguments{"openssl",  "pkcs12",   "-export",         "-out",
                                           "file.p12", "-passout", "pass:" + password};
        arguments.insert(arguments.end(), more.begin(), more.end());
        succeeds(arguments);
    }
    Answer imports(const std::string& file = "file.p12") {
        std::filesystem::remove_all(work.path("out"));
        return in({norvtest::norvcryptProgram, "p12", file, "--passphrase-file", "pass", "--out-dir", "out"});
    }
    /// The file gives this identity's key and certificate.
    void expectImported(const Identity& identity, const std::string& file = "file.p12") {
        const Answer answer = imports(file);
        EXPECT_EQ(0, answer.status) << answer.out << answer.err;
        EXPECT_EQ(identity.key.pkcs8Pem(), work.read("out/key.pem"));
        EXPECT_EQ(identity.certificate.pem(), work.read("out/cert.pem"));
    }
};

TEST_F(Pkcs12InteropTest, OpenSslsFilesOfToday) {
    for (const auto* who : {&alice(), &erin()}) {
        const std::string name = who == &alice() ? "alice" : "erin";
        opensslExports({"-in", name + ".pem", "-inkey", name + ".key"});
        expectImported(*who);
    }
}

TEST_F(Pkcs12InteropTest, OpenSslsOldFiles) {
    opensslExports({"-legacy", "-in", "alice.pem", "-inkey", "alice.key"}); // RC2-40 and 3DES
    expectImported(alice());
    opensslExports({"-legacy", "-descert", "-in", "erin.pem", "-inkey", "erin.key"});
    expectImported(erin());
    opensslExports({"-keypbe", "PBE-SHA1-RC4-128", "-certpbe", "PBE-SHA1-RC4-128", "-legacy", "-in", "alice.pem",
                    "-inkey", "alice.key"});
    expectImported(alice());
}

TEST_F(Pkcs12InteropTest, OpenSslsUnencryptedContentsUnderAMac) {
    opensslExports({"-keypbe", "NONE", "-certpbe", "NONE", "-in", "alice.pem", "-inkey", "alice.key"});
    expectImported(alice());
}

TEST_F(Pkcs12InteropTest, OpenSslsFileWithAChainGivesTheKeysOwnCertificate) {
    opensslExports({"-in", "alice.pem", "-inkey", "alice.key", "-certfile", "root.pem"});
    expectImported(alice());
    work.write("turned.pem", root().certificate.pem() + alice().certificate.pem());
    opensslExports({"-in", "turned.pem", "-inkey", "alice.key"});
    expectImported(alice());
}

TEST_F(Pkcs12InteropTest, OpenSslsKeyAlone) {
    opensslExports({"-nocerts", "-inkey", "alice.key", "-in", "alice.pem"});
    const Answer answer = imports();
    EXPECT_EQ(0, answer.status) << answer.err;
    EXPECT_EQ(alice().key.pkcs8Pem(), work.read("out/key.pem"));
    EXPECT_FALSE(work.exists("out/cert.pem"));
    EXPECT_NE(std::string::npos, answer.out.find("no certificate")) << answer.out;
}

TEST_F(Pkcs12InteropTest, OpenSslsCertificateAlone) {
    opensslExports({"-nokeys", "-in", "alice.pem"});
    const Answer answer = imports();
    EXPECT_EQ(1, answer.status);
    EXPECT_NE(std::string::npos, answer.err.find("no private key")) << answer.err;
    EXPECT_FALSE(work.exists("out"));
}

TEST_F(Pkcs12InteropTest, OpenSslsFileUnderAnotherPassword) {
    opensslExports({"-in", "alice.pem", "-inkey", "alice.key"}, "another");
    const Answer answer = imports();
    EXPECT_EQ(1, answer.status);
    EXPECT_EQ("norvcrypt: wrong passphrase for file.p12\n", answer.err);
    EXPECT_FALSE(work.exists("out"));
}

TEST_F(Pkcs12InteropTest, OpenSslsFileWithoutMac) {
    opensslExports({"-nomac", "-in", "alice.pem", "-inkey", "alice.key"});
    const Answer answer = imports();
    EXPECT_EQ(2, answer.status);
    EXPECT_NE(std::string::npos, answer.err.find("mac absent")) << answer.err;
    EXPECT_FALSE(work.exists("out"));
}

TEST_F(Pkcs12InteropTest, OpenSslsManyIterations) {
    opensslExports({"-iter", "100000", "-in", "erin.pem", "-inkey", "erin.key"});
    expectImported(erin());
    opensslExports({"-iter", "1", "-nomaciter", "-in", "erin.pem", "-inkey", "erin.key"});
    expectImported(erin());
}

TEST_F(Pkcs12InteropTest, OpenSslReadsWhatIsImported) {
    opensslExports({"-in", "erin.pem", "-inkey", "erin.key"});
    expectImported(erin());
    succeeds({"openssl", "pkey", "-in", "out/key.pem", "-check", "-noout"});
    const Answer key = in({"openssl", "pkey", "-in", "out/key.pem", "-pubout"});
    const Answer certificate = in({"openssl", "x509", "-in", "out/cert.pem", "-noout", "-pubkey"});
    EXPECT_EQ(key.out, certificate.out);
}

TEST_F(Pkcs12InteropTest, PasswordsBeyondAscii) {
    for (const char* password : {"p\xc3\xa4ssw\xc3\xb6rd", "\xe2\x82\xac 100"}) {
        opensslExports({"-in", "erin.pem", "-inkey", "erin.key"}, password);
        work.write("pass", std::string(password) + "\n");
        expectImported(erin());
    }
}

TEST_F(Pkcs12InteropTest, NssFiles) {
    if (!hasNss()) {
        GTEST_SKIP() << "the tools of NSS are not installed";
    }
    makeNssDatabase();
    opensslExports({"-in", "alice.pem", "-inkey", "alice.key", "-certfile", "root.pem", "-name", "alice"});
    succeeds({"pk12util", "-i", "file.p12", "-d", "nss", "-W", "secret"});
    succeeds({"pk12util", "-o", "nss.p12", "-d", "nss", "-n", "alice", "-W", "secret"});
    expectImported(alice(), "nss.p12");
    succeeds({"pk12util", "-o", "old.p12", "-d", "nss", "-n", "alice", "-W", "secret", "-c",
              "PKCS #12 V2 PBE With SHA-1 And 3KEY Triple DES-CBC", "-C",
              "PKCS #12 V2 PBE With SHA-1 And 40 Bit RC2 CBC", "-M", "SHA-1"});
    expectImported(alice(), "old.p12");
}

TEST_F(Pkcs12InteropTest, GpgsmsFiles) {
    if (!hasGpgsm()) {
        GTEST_SKIP() << "gpgsm is not installed";
    }
    makeGpgsmHome();
    opensslExports({"-keypbe", "PBE-SHA1-3DES", "-certpbe", "PBE-SHA1-3DES", "-macalg", "sha1", "-in", "alice.pem",
                    "-inkey", "alice.key"});
    const std::vector<std::string> gpgsm{"gpgsm",    "--batch",         "--yes", "--pinentry-mode",
                                         "loopback", "--passphrase-fd", "0"};
    auto import = gpgsm;
    import.insert(import.end(), {"--import", "file.p12"});
    succeeds(import, "secret\n");
    auto write = gpgsm;
    write.insert(write.end(), {"--output", "gpgsm.p12", "--export-secret-key-p12", "alice@example.org"});
    succeeds(write, "secret\n");
    expectImported(alice(), "gpgsm.p12");
    work.write("pass", std::string("another\n"));
    EXPECT_EQ(1, imports("gpgsm.p12").status);
}

} // namespace
