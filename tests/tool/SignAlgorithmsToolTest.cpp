// norvcrypt sign: attached bodies, signed attributes, further signature algorithms, several signers. OpenSSL and GnuTLS judge
// what came out.

#include "support/PipedBodies.h"
#include "support/ToolTest.h"

#include <algorithm>
#include <cstddef>

using namespace interop;
using norvauthority::Identity;

namespace {

class SignAlgorithmsToolTest : public ToolTest {
protected:
    void SetUp() override {
        body = sampleBody();
        work.write("body", body);
        work.write("root.pem", root().certificate.pem());
        put("alice", alice());
        put("bob", bob());
        put("erin", erin());
        before = work.names();
    }
    void put(const std::string& name, const Identity& identity) {
        work.write(name + ".pem", identity.certificate.pem());
        work.write(name + ".key", identity.key.pkcs8Pem());
    }
    void putNew(const std::string& name, const norvauthority::Key& key) {
        put(name, norvauthority::issue({.subject = {{"CN", name}},
                                        .key = key,
                                        .issuer = &root(),
                                        .serial = "77",
                                        .keyUsage = 0x80,
                                        .extendedKeyUsage = {"emailProtection"}}));
        before = work.names();
    }
    Answer sign(const std::vector<std::string>& who, const std::vector<std::string>& more,
                const std::string& input = "") {
        std::vector<std::string> arguments{"sign"};
        for (const std::string& one : who)
            arguments.insert(arguments.end(), {"--cert", one + ".pem", "--key", one + ".key"});
        arguments.insert(arguments.end(), more.begin(), more.end());
        return tool(arguments, input);
    }
    /// Signs the body into "sig".
    void signBody(const std::vector<std::string>& who, std::vector<std::string> more) {
        more.insert(more.end(), {"--in", "body", "--out", "sig"});
        const Answer answer = sign(who, more);
        ASSERT_EQ(0, answer.status) << answer.err;
        ASSERT_EQ("", answer.out);
        ASSERT_EQ("", answer.err);
    }
    /// The body that OpenSSL gives out for "sig", or why it refuses.
    std::string verified(const std::vector<std::string>& more = {}) {
        std::vector<std::string> arguments{"openssl",  "cms", "-verify", "-binary", "-CAfile",
                                           "root.pem", "-in", "sig",     "-out",    "clear"};
        if (std::ranges::find(more, "-inform") == more.end())
            arguments.insert(arguments.end(), {"-inform", "DER"});
        arguments.insert(arguments.end(), more.begin(), more.end());
        const Answer answer = run({.arguments = arguments, .directory = work.directory()});
        return answer.status == 0 ? work.read("clear") : answer.err;
    }
    std::string printed() {
        return run({.arguments = {"openssl", "cms", "-cmsout", "-print", "-noout", "-inform", "DER", "-in", "sig"},
                    .directory = work.directory()})
            .out;
    }
    bool isPrinted(const std::string& text) { return printed().find(text) != std::string::npos; }
    static std::size_t count(const std::string& text, const std::string& what) {
        std::size_t found = 0;
        for (std::size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1))
            ++found;
        return found;
    }
    bool isBer() { return work.read("sig").starts_with("\x30\x80"); }

    std::string body;
};

TEST_F(SignAlgorithmsToolTest, AttachedHasTheBodyInIt) {
    for (const char* who : {"alice", "erin"}) {
        for (const char* attributes : {"", "--signed-attributes"}) {
            std::vector<std::string> more{"--attached"};
            if (*attributes != '\0')
                more.emplace_back(attributes);
            signBody({who}, more);
            EXPECT_EQ(body, verified()) << who << attributes;
            EXPECT_NE(std::string::npos, work.read("sig").find(body)) << who;
        }
    }
}

TEST_F(SignAlgorithmsToolTest, AttributesThatAreSigned) {
    signBody({"alice"}, {"--signed-attributes"});
    EXPECT_EQ(body, verified({"-content", "body"}));
    for (const char* attribute :
         {"contentType", "messageDigest", "signingTime", "S/MIME Capabilities", "id-smime-aa-signingCertificateV2"})
        EXPECT_TRUE(isPrinted(attribute)) << attribute;
    // The same without: RSA over the body itself.
    signBody({"alice"}, {"--attached"});
    EXPECT_FALSE(isPrinted("messageDigest"));
}

TEST_F(SignAlgorithmsToolTest, EveryDigestWithSignedAttributes) {
    for (const char* digest :
         {"sha1", "sha224", "sha256", "sha384", "sha512", "sha3-224", "sha3-256", "sha3-384", "sha3-512"}) {
        signBody({"alice"}, {"--signed-attributes", "--digest", digest});
        EXPECT_EQ(body, verified({"-content", "body"})) << digest;
        EXPECT_TRUE(isPrinted(std::string("algorithm: ") + digest)) << digest;
    }
    for (const char* digest : {"sha256", "sha384", "sha512"}) {
        signBody({"erin"}, {"--signed-attributes", "--digest", digest});
        EXPECT_EQ(body, verified({"-content", "body"})) << digest;
    }
    before = work.names();
    for (const auto& [name, shown] : {std::pair{"md5", "MD5"}, std::pair{"sha512-256", "SHA512-256"}})
        expectFailure(sign({"alice"}, {"--attached", "--digest", name, "--in", "body", "--out", "new"}),
                      std::string("unsupported: the digest ") + shown + " for signatures");
    expectFailure(sign({"alice"}, {"--attached", "--digest", "sha257", "--in", "body", "--out", "new"}),
                  "unknown digest: sha257");
}

TEST_F(SignAlgorithmsToolTest, PssWithRsaKeys) {
    for (const std::vector<std::string>& more : {std::vector<std::string>{"--pss"},
                                                 {"--pss", "--signed-attributes"},
                                                 {"--pss", "--digest", "sha512", "--signed-attributes"}}) {
        signBody({"alice"}, more);
        EXPECT_EQ(body, verified({"-content", "body"}));
        EXPECT_TRUE(isPrinted("rsassaPss"));
    }
    signBody({"alice"}, {"--signed-attributes"});
    EXPECT_FALSE(isPrinted("rsassaPss"));
}

TEST_F(SignAlgorithmsToolTest, KeysForPssAloneNeedNoOption) {
    EVP_PKEY* key = EVP_PKEY_Q_keygen(nullptr, nullptr, "RSA-PSS", std::size_t{2048});
    if (key == nullptr) { // which OpenSSL makes through a context alone
        EVP_PKEY_CTX* context = EVP_PKEY_CTX_new_id(EVP_PKEY_RSA_PSS, nullptr);
        ASSERT_EQ(1, EVP_PKEY_keygen_init(context));
        ASSERT_EQ(1, EVP_PKEY_keygen(context, &key));
        EVP_PKEY_CTX_free(context);
    }
    putNew("paul", norvauthority::Key::of(key));
    EVP_PKEY_free(key);
    signBody({"paul"}, {});
    EXPECT_EQ(body, verified({"-content", "body"}));
    EXPECT_TRUE(isPrinted("rsassaPss"));
}

TEST_F(SignAlgorithmsToolTest, SignersAreNamedByTheirKeyIdentifier) {
    signBody({"alice"}, {"--key-identifier"});
    EXPECT_EQ(body, verified({"-content", "body"}));
    EXPECT_TRUE(isPrinted("d.subjectKeyIdentifier"));
    EXPECT_FALSE(isPrinted("d.issuerAndSerialNumber"));
    put("alice",
        norvauthority::issue(
            {.subject = {{"CN", "alice"}}, .key = alice().key, .issuer = &root(), .subjectKeyIdentifier = false}));
    before = work.names();
    expectFailure(sign({"alice"}, {"--key-identifier", "--in", "body", "--out", "new"}),
                  "signer 1: the certificate has no subject key identifier");
}

TEST_F(SignAlgorithmsToolTest, SeveralSigners) {
    for (const std::vector<std::string>& more :
         {std::vector<std::string>{}, {"--attached"}, {"--signed-attributes"}, {"--attached", "--pss"}}) {
        signBody({"alice", "erin", "bob"}, more);
        const bool attached = std::ranges::find(more, "--attached") != more.end();
        EXPECT_EQ(body, attached ? verified() : verified({"-content", "body"}));
        EXPECT_EQ(3U, count(printed(), "d.issuerAndSerialNumber"));
        EXPECT_EQ(more.size() == 2 ? 2U : 0U, count(printed(), "algorithm: rsassaPss"));
    }
}

TEST_F(SignAlgorithmsToolTest, TheSignerMayBeAPkcs12File) {
    work.write("pass", std::string("open sesame\n"));
    ASSERT_EQ(0, run({.arguments = {"openssl", "pkcs12", "-export", "-in", "alice.pem", "-inkey", "alice.key", "-out",
                                    "alice.p12", "-passout", "file:pass"},
                      .directory = work.directory()})
                     .status);
    const Answer answer = tool({"sign", "--p12", "alice.p12", "--passphrase-file", "pass", "--cert", "erin.pem",
                                "--key", "erin.key", "--in", "body", "--out", "sig"});
    ASSERT_EQ(0, answer.status) << answer.err;
    EXPECT_EQ(body, verified({"-content", "body"}));
    EXPECT_EQ(2U, count(printed(), "d.issuerAndSerialNumber"));
}

TEST_F(SignAlgorithmsToolTest, OtherCurves) {
    for (const char* curve : {"P-384", "P-521"}) {
        putNew("curt", norvauthority::Key::ec(curve));
        for (const std::vector<std::string>& more :
             {std::vector<std::string>{"--attached"}, {"--attached", "--signed-attributes"}}) {
            signBody({"curt"}, more);
            EXPECT_EQ(body, verified()) << curve;
        }
    }
}

// OpenSSL 3.0 does not verify these.
TEST_F(SignAlgorithmsToolTest, Ed25519SignsAttributesUnasked) {
    putNew("edward", norvauthority::Key::ed25519());
    signBody({"edward"}, {});
    EXPECT_TRUE(isPrinted("messageDigest"));
    EXPECT_TRUE(isPrinted("algorithm: sha512"));
    EXPECT_TRUE(isPrinted("algorithm: ED25519"));
    if (!installed("certtool"))
        GTEST_SKIP() << "certtool is not installed";
    const auto judged = [&](const std::vector<std::string>& more) {
        std::vector<std::string> arguments{"certtool", "--p7-verify", "--inder", "--load-ca-certificate",
                                           "root.pem", "--infile",    "sig"};
        arguments.insert(arguments.end(), more.begin(), more.end());
        const Answer answer = run({.arguments = arguments, .directory = work.directory()});
        return (answer.out + answer.err).find("Signature status: ok") != std::string::npos;
    };
    EXPECT_TRUE(judged({"--load-data", "body"}));
    EXPECT_FALSE(judged({"--load-data", "root.pem"}));
    signBody({"edward"}, {"--attached"});
    EXPECT_TRUE(judged({}));
}

TEST_F(SignAlgorithmsToolTest, PemIsLabelledByWhatIsInIt) {
    signBody({"alice"}, {"--pem"});
    EXPECT_TRUE(work.read("sig").starts_with("-----BEGIN PKCS7-----\n"));
    EXPECT_EQ(body, verified({"-inform", "PEM", "-content", "body"}));
    signBody({"alice"}, {"--pem", "--attached", "--key-identifier"});
    const std::vector<std::string> lines = linesOf(work.read("sig"));
    EXPECT_EQ("-----BEGIN CMS-----", lines.front());
    EXPECT_EQ("-----END CMS-----", lines.back());
    for (std::size_t at = 1; at + 2 < lines.size(); ++at)
        EXPECT_EQ(64U, lines[at].size()) << at;
    EXPECT_EQ(body, verified({"-inform", "PEM"}));
}

TEST_F(SignAlgorithmsToolTest, LongBodiesAreDerWhereDerCanBeWrittenAtOnce) {
    const std::string longer(1000001, 'x');
    work.write("body", longer);
    signBody({"alice"}, {"--attached", "--signed-attributes"});
    EXPECT_FALSE(isBer());
    EXPECT_EQ(longer, verified());
    signBody({"erin"}, {"--attached", "--signed-attributes"});
    EXPECT_TRUE(isBer());
    EXPECT_EQ(longer, verified());
    const std::string arguments = "sign --attached --cert alice.pem --key alice.key --out sig";
    ASSERT_EQ(0, pipedInto(arguments, longer, work).status);
    EXPECT_TRUE(isBer());
    EXPECT_EQ(longer, verified());
    // What ends within the first piece has a length that is known.
    ASSERT_EQ(0, pipedInto(arguments, body, work).status);
    EXPECT_FALSE(isBer());
    EXPECT_EQ(body, verified());
}

TEST_F(SignAlgorithmsToolTest, EmptyBodyAndBodiesAroundAPiece) {
    for (const std::size_t length : {0U, 1U, 262143U, 262144U, 262145U}) {
        const std::string text(length, 'x');
        work.write("body", text);
        for (const char* who : {"alice", "erin"}) {
            signBody({who}, {"--attached"});
            EXPECT_EQ(text, verified()) << length;
            ASSERT_EQ(0, sign({who}, {"--attached", "--out", "sig"}, text).status);
            EXPECT_EQ(text, verified()) << length;
        }
    }
}

TEST_F(SignAlgorithmsToolTest, SetOfAttributesIsSignedUnderAttributesAlone) {
    work.write("body", norvauthority::Bytes{0x31, 0x0F, 0x30, 0x0D, 0x06, 0x09, 0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D,
                                            0x01, 0x09, 0x03, 0x31, 0x00});
    before = work.names();
    for (const char* how : {"--attached", "--pss", "--key-identifier"})
        expectFailure(sign({"alice"}, {how, "--in", "body", "--out", "new"}),
                      "will not sign body: it is a set of attributes, whose signature would be good for another body");
    expectFailure(sign({"alice", "erin"}, {"--in", "body", "--out", "new"}), "will not sign body: ");
    signBody({"alice"}, {"--attached", "--signed-attributes"});
    EXPECT_EQ(work.read("body"), verified());
}

TEST_F(SignAlgorithmsToolTest, BadUsage) {
    expectFailure(sign({"erin"}, {"--pss", "--in", "body", "--out", "new"}),
                  "--pss is for RSA keys, and no signer has one");
    expectFailure(sign({"alice"}, {"--cipher", "aes-256-gcm", "--in", "body", "--out", "new"}), "--cipher");
    expectFailure(sign({"alice"}, {"--cert", "bob.pem", "--in", "body", "--out", "new"}), "--cert bob.pem needs --key");
    expectFailure(sign({"alice"}, {"--store", "store", "--from", "a@example.org", "--out", "new"}), "--store");
    expectFailure(sign({"alice", "none"}, {"--in", "body", "--out", "new"}),
                  "cannot open none.pem: No such file or directory");
    expectFailure(sign({"alice", "alice"}, {"--cert", "bob.pem", "--key", "alice.key", "--in", "body", "--out", "new"}),
                  "signer 3: the private key does not match the certificate");
}

TEST_F(SignAlgorithmsToolTest, KeysThatSignInOneFormAlone) {
    putNew("edward", norvauthority::Key::ed25519());
    expectFailure(sign({"edward"}, {"--digest", "sha256", "--in", "body", "--out", "new"}),
                  "signer 1: ED25519 signs with the digest SHA512, not with SHA256");
    put("dora", dora());
    before = work.names();
    expectFailure(sign({"dora"}, {"--attached", "--in", "body", "--out", "new"}),
                  "signer 1: unsupported: keys of type DSA do not sign here");
}

TEST_F(SignAlgorithmsToolTest, FilesThatCannotBeReadOrWritten) {
    expectFailure(sign({"alice"}, {"--attached", "--in", "none", "--out", "new"}),
                  "cannot open none: No such file or directory");
    expectFailure(sign({"alice"}, {"--attached", "--in", ".", "--out", "new"}), "cannot read .: Is a directory");
    for (const char* form : {"--attached", "--pem"})
        expectFailure(sign({"alice"}, {form, "--in", "body", "--out", "/dev/full"}),
                      "cannot write /dev/full: No space left on device");
    // Files of the kernel say to be empty, or a page long.
    for (const char* name : {"/proc/self/status", "/sys/kernel/uevent_seqnum"}) {
        if (!std::filesystem::exists(name))
            continue;
        const Answer answer = sign({"alice"}, {"--attached", "--in", name, "--out", "sig"});
        EXPECT_EQ(0, answer.status) << answer.err;
        EXPECT_NE("", verified());
    }
}

TEST_F(SignAlgorithmsToolTest, MemoryDoesNotGrowWithTheBody) {
    expectConstantMemory("sign --attached --signed-attributes --cert alice.pem --key alice.key", work);
    expectConstantMemory("sign --attached --cert erin.pem --key erin.key --pem", work);
}

} // namespace
