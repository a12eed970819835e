// norvcrypt encrypt: recipients of every kind and today's algorithms. OpenSSL tells what came out.

#include "support/PipedBodies.h"
#include "support/ToolTest.h"

#include <algorithm>

using namespace interop;
using norvauthority::Identity;

namespace {

const std::string keyHex = "000102030405060708090a0b0c0d0e0f101112131415161718191A1B1C1D1E1F";

class EncryptAlgorithmsToolTest : public ToolTest {
protected:
    void SetUp() override {
        body = sampleBody();
        work.write("body", body);
        put("alice", alice());
        put("bob", bob());
        for (const char* curve : {"P-256", "P-384", "P-521"})
            put(curve, norvauthority::issue({.subject = {{"CN", curve}},
                                             .key = norvauthority::Key::ec(curve),
                                             .issuer = &root(),
                                             .serial = "ec" + std::string(curve).substr(2, 2),
                                             .keyUsage = 0x08}));
        work.write("password", std::string("open sesame\nsecond line\n"));
        work.write("kek", keyHex + "\n");
        before = work.names();
    }
    void put(const std::string& name, const Identity& identity) {
        work.write(name + ".pem", identity.certificate.pem());
        work.write(name + ".key", identity.key.pkcs8Pem());
    }
    Answer encrypt(std::vector<std::string> more, const std::string& input = "") {
        more.insert(more.begin(), "encrypt");
        return tool(more, input);
    }
    void encryptBody(std::vector<std::string> more) {
        more.insert(more.end(), {"--in", "body", "--out", "msg"});
        const Answer answer = encrypt(more);
        ASSERT_EQ(0, answer.status) << answer.err;
        ASSERT_EQ("", answer.out);
        ASSERT_EQ("", answer.err);
    }
    void expectRefused(std::vector<std::string> more, const std::string& text) {
        more.insert(more.end(), {"--in", "body", "--out", "new"});
        expectFailure(encrypt(more), text);
    }
    /// What OpenSSL decrypts with these options, or why it does not.
    std::string decrypted(const std::vector<std::string>& more, const std::string& form = "DER") {
        std::vector<std::string> arguments{"openssl", "cms", "-decrypt", "-binary", "-inform", form, "-in", "msg"};
        arguments.insert(arguments.end(), more.begin(), more.end());
        const Answer answer = run({.arguments = arguments, .directory = work.directory()});
        return answer.status == 0 ? answer.out : answer.err;
    }
    std::string by(const std::string& who, const std::string& form = "DER") {
        return decrypted({"-recip", who + ".pem", "-inkey", who + ".key"}, form);
    }
    std::string byPassword(const std::string& form = "DER") {
        return decrypted({"-pwri_password", "open sesame"}, form);
    }
    std::string byKey(const std::string& form = "DER") {
        return decrypted({"-secretkey", keyHex, "-secretkeyid", "4b01"}, form);
    }
    std::string printed() {
        return run({.arguments = {"openssl", "cms", "-cmsout", "-print", "-noout", "-inform", "DER", "-in", "msg"},
                    .directory = work.directory()})
            .out;
    }
    bool isPrinted(const std::string& text) { return printed().find(text) != std::string::npos; }
    bool isBer() { return work.read("msg").starts_with("\x30\x80"); }

    std::string body;
};

TEST_F(EncryptAlgorithmsToolTest, WithoutOptionsItIsWhatPkcs7Has) {
    encryptBody({"--to", "alice.pem"});
    EXPECT_FALSE(isBer());
    EXPECT_TRUE(isPrinted("contentType: pkcs7-envelopedData"));
    EXPECT_TRUE(isPrinted("version: 0"));
    EXPECT_TRUE(isPrinted("algorithm: rsaEncryption"));
    EXPECT_TRUE(isPrinted("d.issuerAndSerialNumber"));
    const Answer answer = run({.arguments = {"openssl", "smime", "-decrypt", "-binary", "-inform", "DER", "-in", "msg",
                                             "-recip", "alice.pem", "-inkey", "alice.key"},
                               .directory = work.directory()});
    EXPECT_EQ(body, answer.out) << answer.err;
}

TEST_F(EncryptAlgorithmsToolTest, Oaep) {
    for (const auto& [digest, text] :
         {std::pair{"sha256", "sha256"}, std::pair{"sha384", "sha384"}, std::pair{"sha512", "sha512"},
          std::pair{"sha224", "sha224"}, std::pair{"SHA1", ""}}) { // which stands for itself by its absence
        encryptBody({"--oaep", "--oaep-digest", digest, "--to", "alice.pem", "bob.pem"});
        EXPECT_EQ(body, by("alice")) << digest;
        EXPECT_EQ(body, by("bob")) << digest;
        EXPECT_TRUE(isPrinted("algorithm: rsaesOaep"));
        EXPECT_NE(std::string::npos, printed().find(text));
    }
    encryptBody({"--oaep", "--to", "alice.pem"});
    EXPECT_TRUE(isPrinted("sha256"));
    EXPECT_EQ(body, by("alice"));
}

TEST_F(EncryptAlgorithmsToolTest, GcmGivesAuthEnvelopedData) {
    for (const char* cipher : {"aes-128-gcm", "aes-192-gcm", "AES-256-GCM"}) {
        encryptBody({"--cipher", cipher, "--to", "alice.pem", "P-256.pem"});
        EXPECT_EQ(body, by("alice")) << cipher;
        EXPECT_EQ(body, by("P-256")) << cipher;
        EXPECT_TRUE(isPrinted("id-smime-ct-authEnvelopedData")) << printed();
    }
}

TEST_F(EncryptAlgorithmsToolTest, CurvesOfCertificatesNeedNoOption) {
    for (const char* cipher : {"aes-128-cbc", "aes-256-cbc", "des-ede3-cbc", "aes-256-gcm"}) {
        encryptBody({"--cipher", cipher, "--to", "P-256.pem", "P-384.pem", "alice.pem", "P-521.pem"});
        for (const char* who : {"P-256", "P-384", "P-521", "alice"})
            EXPECT_EQ(body, by(who)) << cipher << who;
    }
}

TEST_F(EncryptAlgorithmsToolTest, RecipientsAreNamedByTheirKeyIdentifier) {
    encryptBody({"--key-identifier", "--to", "alice.pem", "P-256.pem"});
    EXPECT_EQ(body, by("alice"));
    EXPECT_EQ(body, by("P-256"));
    EXPECT_TRUE(isPrinted("d.subjectKeyIdentifier"));
    EXPECT_TRUE(isPrinted("d.rKeyId"));
    EXPECT_FALSE(isPrinted("d.issuerAndSerialNumber"));
    put("alice",
        norvauthority::issue(
            {.subject = {{"CN", "alice"}}, .key = alice().key, .issuer = &root(), .subjectKeyIdentifier = false}));
    before = work.names();
    expectRefused({"--key-identifier", "--to", "alice.pem"}, "the certificate has no subject key identifier");
}

TEST_F(EncryptAlgorithmsToolTest, Password) {
    encryptBody({"--password-file", "password"});
    EXPECT_EQ(body, byPassword());
    EXPECT_NE(body, decrypted({"-pwri_password", "open barley"}));
    EXPECT_EQ(std::string::npos, work.read("msg").find("open sesame"));
    const auto isHashed = [&](const std::string& hexTimes) {
        return run({.arguments = {"openssl", "asn1parse", "-inform", "DER", "-in", "msg"},
                    .directory = work.directory()})
                   .out.find("INTEGER           :" + hexTimes + "\n") != std::string::npos;
    };
    EXPECT_TRUE(isHashed("0927C0")); // 600,000
    encryptBody({"--password-file", "password", "--iterations", "2000"});
    EXPECT_TRUE(isHashed("07D0"));
    EXPECT_EQ(body, byPassword());
}

TEST_F(EncryptAlgorithmsToolTest, KeyEncryptionKeys) {
    encryptBody({"--kek-file", "kek", "--kek-id", "4B01"});
    EXPECT_EQ(body, byKey());
    std::string raw;
    for (char octet = 0; octet < 32; ++octet)
        raw += octet;
    for (const std::size_t length : {16U, 24U, 32U}) {
        work.write("raw", raw.substr(0, length));
        encryptBody({"--kek-file", "raw", "--kek-id", "4b01", "--cipher", "aes-256-gcm"});
        EXPECT_EQ(body, decrypted({"-secretkey", keyHex.substr(0, 2 * length), "-secretkeyid", "4b01"})) << length;
    }
}

TEST_F(EncryptAlgorithmsToolTest, AllKindsInOneMessage) {
    for (const bool pem : {false, true}) {
        std::vector<std::string> more{"--to", "alice.pem", "P-256.pem", "--password-file", "password", "--kek-file",
                                      "kek",  "--kek-id",  "4b01",      "--oaep"};
        if (pem)
            more.emplace_back("--pem");
        encryptBody(more);
        const std::string form = pem ? "PEM" : "DER";
        EXPECT_EQ(body, by("alice", form));
        EXPECT_EQ(body, by("P-256", form));
        EXPECT_EQ(body, byPassword(form));
        EXPECT_EQ(body, byKey(form));
    }
    EXPECT_TRUE(work.read("msg").starts_with("-----BEGIN CMS-----\n"));
    EXPECT_TRUE(work.read("msg").ends_with("\n-----END CMS-----\n"));
}

TEST_F(EncryptAlgorithmsToolTest, LongBodiesFromAPipeAreBer) {
    const std::string longer(1000001, 'x');
    work.write("body", longer);
    for (const char* cipher : {"aes-256-cbc", "aes-256-gcm"}) {
        encryptBody({"--cipher", cipher, "--to", "alice.pem"});
        EXPECT_FALSE(isBer());
        EXPECT_EQ(longer, by("alice"));
        const std::string arguments = std::string("encrypt --to alice.pem --out msg --cipher ") + cipher;
        ASSERT_EQ(0, pipedInto(arguments, longer, work).status);
        EXPECT_TRUE(isBer());
        EXPECT_EQ(longer, by("alice"));
        ASSERT_EQ(0, pipedInto(arguments, body, work).status);
        EXPECT_FALSE(isBer());
        EXPECT_EQ(body, by("alice"));
    }
    // A file as standard input is one whose length is known.
    const Answer answer = norvcrypt(Command{.arguments = {"encrypt", "--to", "alice.pem", "--out", "msg"},
                                            .inputFile = work.path("body"),
                                            .directory = work.directory()});
    ASSERT_EQ(0, answer.status) << answer.err;
    EXPECT_FALSE(isBer());
    EXPECT_EQ(longer, by("alice"));
}

TEST_F(EncryptAlgorithmsToolTest, EmptyBodyAndBodiesAroundAPiece) {
    for (const std::size_t length : {0U, 1U, 15U, 16U, 262143U, 262144U, 262145U}) {
        const std::string text(length, 'x');
        work.write("body", text);
        for (const char* cipher : {"aes-256-cbc", "aes-256-gcm"}) {
            encryptBody({"--cipher", cipher, "--to", "alice.pem"});
            EXPECT_EQ(text, by("alice")) << length << cipher;
            ASSERT_EQ(0, encrypt({"--cipher", cipher, "--to", "alice.pem", "--pem", "--out", "msg"}, text).status);
            EXPECT_EQ(text, by("alice", "PEM")) << length << cipher;
        }
    }
}

TEST_F(EncryptAlgorithmsToolTest, OptionsForWhatIsNotThere) {
    expectRefused({"--oaep", "--to", "P-256.pem"}, "--oaep is for RSA keys, and no recipient has one");
    expectRefused({"--oaep", "--password-file", "password"}, "--oaep is for RSA keys, and no recipient has one");
    expectRefused({"--oaep-digest", "sha256", "--to", "alice.pem"}, "--oaep-digest requires --oaep");
    expectRefused({"--iterations", "2000", "--to", "alice.pem"}, "--iterations requires --password-file");
    expectRefused({"--kek-file", "kek"}, "--kek-file requires --kek-id");
    expectRefused({"--kek-id", "01", "--to", "alice.pem"}, "--kek-id requires --kek-file");
    expectRefused({}, "--to is required");
    expectRefused({"--attached", "--to", "alice.pem"}, "--attached");
}

TEST_F(EncryptAlgorithmsToolTest, ValuesThatMakeNoSense) {
    expectRefused({"--oaep", "--oaep-digest", "sha257", "--to", "alice.pem"}, "unknown digest: sha257");
    expectRefused({"--oaep", "--oaep-digest", "md5", "--to", "alice.pem"}, "the certificate in alice.pem: ");
    for (const char* count : {"0", "999", "1000001", "-5", "99999999999999999999", "many"})
        expectRefused({"--password-file", "password", "--iterations", count}, "--iterations");
    for (const std::string& identifier : {std::string(), std::string("0"), std::string("0x"), std::string("zz"),
                                          std::string("01:02"), std::string(2050, '0')})
        expectRefused({"--kek-file", "kek", "--kek-id", identifier}, "--kek-id");
    expectRefused({"--cipher", "aes-256-ccm", "--to", "alice.pem"},
                  "aes-256-cbc, aes-128-gcm, aes-192-gcm, aes-256-gcm)");
    expectFailure(tool({"cipher", "encrypt", "--cipher", "aes-256-gcm", "--key-hex", "00", "--iv-hex", "00"}),
                  "unknown cipher: aes-256-gcm");
}

TEST_F(EncryptAlgorithmsToolTest, OldCiphersAreForRsaKeysAlone) {
    const std::string text =
        "this cipher is for recipients with RSA keys alone, and not with --oaep or --key-identifier";
    for (const char* cipher : {"des-cbc", "idea-cbc", "bf-cbc", "cast5-cbc"}) {
        expectRefused({"--cipher", cipher, "--to", "alice.pem", "P-256.pem"}, text);
        expectRefused({"--cipher", cipher, "--to", "alice.pem", "--oaep"}, text);
        expectRefused({"--cipher", cipher, "--to", "alice.pem", "--key-identifier"}, text);
        expectRefused({"--cipher", cipher, "--password-file", "password"}, text);
    }
}

TEST_F(EncryptAlgorithmsToolTest, FilesThatCannotBeUsed) {
    expectRefused({"--password-file", "none"}, "cannot open none: No such file or directory");
    expectRefused({"--kek-file", "none", "--kek-id", "01"}, "cannot open none: No such file or directory");
    work.write("nothing", std::string("\nsecond line\n"));
    work.write("short", std::string(15, 'x'));
    work.write("long", std::string(1025, 'x'));
    before = work.names();
    expectRefused({"--password-file", "nothing"}, "no password in the first line of nothing");
    expectRefused({"--password-file", "long"}, "longer than 1023 bytes");
    for (const char* name : {"short", "long", "nothing"})
        expectRefused({"--kek-file", name, "--kek-id", "01"},
                      "no key-encryption key in " + std::string(name) + ": it has 16, 24 or 32 bytes");
    // The file of a secret is an input like any other.
    expectFailure(encrypt({"--password-file", "password", "--in", "body", "--out", "password"}), "password");
    EXPECT_EQ("open sesame\nsecond line\n", work.read("password"));
}

TEST_F(EncryptAlgorithmsToolTest, KeysThatCannotEncrypt) {
    put("edward", norvauthority::issue({.key = norvauthority::Key::ed25519(), .issuer = &root(), .serial = "25519"}));
    put("dora", dora());
    before = work.names();
    expectRefused({"--to", "edward.pem"}, "nothing can be encrypted for the certificate in edward.pem: ");
    expectRefused({"--to", "edward.pem"}, "the key is ED25519, which cannot encrypt here");
    expectRefused({"--to", "alice.pem", "dora.pem"}, "nothing can be encrypted for the certificate in dora.pem: ");
}

TEST_F(EncryptAlgorithmsToolTest, CurveThatIsNotMeantForItServesWithAWarning) {
    put("erin", erin()); // digitalSignature, nonRepudiation and keyEncipherment
    const Answer answer = encrypt({"--to", "erin.pem", "--in", "body", "--out", "msg"});
    EXPECT_EQ(0, answer.status);
    EXPECT_EQ("norvcrypt: warning: the certificate in erin.pem is not meant for encryption: its key usage has no "
              "keyAgreement\n",
              answer.err);
    EXPECT_EQ(body, by("erin"));
}

TEST_F(EncryptAlgorithmsToolTest, MemoryDoesNotGrowWithTheBody) {
    expectConstantMemory("encrypt --to alice.pem", work);
    expectConstantMemory("encrypt --to alice.pem --cipher aes-256-gcm --pem", work);
}

} // namespace
