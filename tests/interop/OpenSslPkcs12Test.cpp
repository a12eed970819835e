// PKCS#12 files that OpenSSL makes: the tool imports what they hold, or says why not.

#include "support/JudgedPkcs12.h"

using namespace interop;

namespace {

using OpenSslPkcs12Test = JudgedPkcs12;

TEST_F(OpenSslPkcs12Test, OpenSslsFilesOfToday) {
    for (const auto* who : {&alice(), &erin()}) {
        const std::string name = who == &alice() ? "alice" : "erin";
        opensslExports({"-in", name + ".pem", "-inkey", name + ".key"});
        expectImported(*who);
    }
}

TEST_F(OpenSslPkcs12Test, OpenSslsOldFiles) {
    opensslExports({"-legacy", "-in", "alice.pem", "-inkey", "alice.key"}); // RC2-40 and 3DES
    expectImported(alice());
    opensslExports({"-legacy", "-descert", "-in", "erin.pem", "-inkey", "erin.key"});
    expectImported(erin());
    opensslExports({"-keypbe", "PBE-SHA1-RC4-128", "-certpbe", "PBE-SHA1-RC4-128", "-legacy", "-in", "alice.pem",
                    "-inkey", "alice.key"});
    expectImported(alice());
}

TEST_F(OpenSslPkcs12Test, OpenSslsUnencryptedContentsUnderAMac) {
    opensslExports({"-keypbe", "NONE", "-certpbe", "NONE", "-in", "alice.pem", "-inkey", "alice.key"});
    expectImported(alice());
}

TEST_F(OpenSslPkcs12Test, OpenSslsFileWithAChainGivesTheKeysOwnCertificate) {
    opensslExports({"-in", "alice.pem", "-inkey", "alice.key", "-certfile", "root.pem"});
    expectImported(alice());
    work.write("turned.pem", root().certificate.pem() + alice().certificate.pem());
    opensslExports({"-in", "turned.pem", "-inkey", "alice.key"});
    expectImported(alice());
}

TEST_F(OpenSslPkcs12Test, OpenSslsKeyAlone) {
    opensslExports({"-nocerts", "-inkey", "alice.key", "-in", "alice.pem"});
    const Answer answer = imports();
    EXPECT_EQ(0, answer.status) << answer.err;
    EXPECT_EQ(alice().key.pkcs8Pem(), work.read("out/key.pem"));
    EXPECT_FALSE(work.exists("out/cert.pem"));
    EXPECT_NE(std::string::npos, answer.out.find("no certificate")) << answer.out;
}

TEST_F(OpenSslPkcs12Test, OpenSslsCertificateAlone) {
    opensslExports({"-nokeys", "-in", "alice.pem"});
    const Answer answer = imports();
    EXPECT_EQ(1, answer.status);
    EXPECT_NE(std::string::npos, answer.err.find("no private key")) << answer.err;
    EXPECT_FALSE(work.exists("out"));
}

TEST_F(OpenSslPkcs12Test, OpenSslsFileUnderAnotherPassword) {
    opensslExports({"-in", "alice.pem", "-inkey", "alice.key"}, "another");
    const Answer answer = imports();
    EXPECT_EQ(1, answer.status);
    EXPECT_EQ("norvcrypt: wrong passphrase for file.p12\n", answer.err);
    EXPECT_FALSE(work.exists("out"));
}

TEST_F(OpenSslPkcs12Test, OpenSslsFileWithoutMac) {
    opensslExports({"-nomac", "-in", "alice.pem", "-inkey", "alice.key"});
    const Answer answer = imports();
    EXPECT_EQ(2, answer.status);
    EXPECT_NE(std::string::npos, answer.err.find("it has no checksum (MAC)")) << answer.err;
    EXPECT_FALSE(work.exists("out"));
}

TEST_F(OpenSslPkcs12Test, OpenSslsManyIterations) {
    opensslExports({"-iter", "100000", "-in", "erin.pem", "-inkey", "erin.key"});
    expectImported(erin());
    opensslExports({"-iter", "1", "-nomaciter", "-in", "erin.pem", "-inkey", "erin.key"});
    expectImported(erin());
}

TEST_F(OpenSslPkcs12Test, OpenSslReadsWhatIsImported) {
    opensslExports({"-in", "erin.pem", "-inkey", "erin.key"});
    expectImported(erin());
    succeeds({"openssl", "pkey", "-in", "out/key.pem", "-check", "-noout"});
    const Answer key = in({"openssl", "pkey", "-in", "out/key.pem", "-pubout"});
    const Answer certificate = in({"openssl", "x509", "-in", "out/cert.pem", "-noout", "-pubkey"});
    EXPECT_EQ(key.out, certificate.out);
}

TEST_F(OpenSslPkcs12Test, PasswordsBeyondAscii) {
    for (const char* password : {"p\xc3\xa4ssw\xc3\xb6rd", "\xe2\x82\xac 100"}) {
        opensslExports({"-in", "erin.pem", "-inkey", "erin.key"}, password);
        work.write("pass", std::string(password) + "\n");
        expectImported(erin());
    }
}

} // namespace
