// norvcrypt decrypt: messages of the openssl program for recipients of every kind, under every mode, from every source.

#include "support/ToolTest.h"

#include <filesystem>

using namespace interop;
using norvauthority::Identity;

namespace {

class DecryptKindsToolTest : public ToolTest {
protected:
    void SetUp() override {
        body = sampleBody();
        for (const auto& [name, identity] : {std::pair{"alice", &alice()}, {"bob", &bob()}, {"erin", &erin()}}) {
            work.write(std::string(name) + ".pem", identity->certificate.pem());
            work.write(std::string(name) + ".key", identity->key.pkcs8Pem());
        }
        work.write("body", body);
        work.write("password", std::string("open sesame\n"));
        work.write("wrong", std::string("open barley\n"));
        work.write("kek", std::string("000102030405060708090A0B0C0D0E0F\n"));
        work.write("out", std::string("precious"));
    }
    /// Encrypts "body" into "msg".
    void encrypt(const std::vector<std::string>& more, const std::string& cipher = "-aes128") {
        std::vector<std::string> arguments{"openssl", "cms",  "-encrypt", "-binary", cipher,
                                           "-in",     "body", "-out",     "msg"};
        if (std::find(more.begin(), more.end(), "-outform") == more.end())
            arguments.insert(arguments.end(), {"-outform", "DER"});
        arguments.insert(arguments.end(), more.begin(), more.end());
        const Answer answer = run({.arguments = arguments, .directory = work.directory()});
        ASSERT_EQ(0, answer.status) << answer.err;
        before = work.names();
    }
    Answer decrypt(const std::vector<std::string>& more, const std::string& input = "") {
        std::vector<std::string> arguments{"decrypt"};
        arguments.insert(arguments.end(), more.begin(), more.end());
        return tool(arguments, input);
    }
    static std::vector<std::string> as(const std::string& name) {
        return {"--cert", name + ".pem", "--key", name + ".key"};
    }
    /// From the file, from a pipe, and into a file.
    void expectOpens(const std::vector<std::string>& keys, const std::string& lastLine) {
        std::vector<std::string> fromFile = keys;
        fromFile.insert(fromFile.end(), {"--in", "msg"});
        std::vector<std::string> toFile = fromFile;
        toFile.insert(toFile.end(), {"--out", "out"});
        for (const Answer& answer : {decrypt(fromFile), decrypt(keys, work.read("msg")), decrypt(toFile)}) {
            EXPECT_EQ(0, answer.status) << answer.err;
            EXPECT_TRUE(answer.out == body || work.read("out") == body);
            ASSERT_FALSE(linesOf(answer.err).empty());
            EXPECT_EQ("norvcrypt: " + lastLine, linesOf(answer.err).back());
        }
        EXPECT_TRUE(body == work.read("out"));
        work.write("out", std::string("precious"));
    }
    /// Exit code 1, and the output as it was.
    void expectRefused(std::vector<std::string> more, const std::string& lastLine) {
        more.insert(more.end(), {"--in", "msg", "--out", "out"});
        const Answer answer = decrypt(more);
        EXPECT_EQ(1, answer.status) << answer.err;
        EXPECT_EQ("", answer.out);
        ASSERT_FALSE(linesOf(answer.err).empty());
        EXPECT_EQ("norvcrypt: " + lastLine, linesOf(answer.err).back());
        EXPECT_EQ("precious", work.read("out"));
        EXPECT_EQ(before, work.names());
    }
    static std::string withKey(const std::string& recipient, const std::string& name, const Identity& who) {
        return "recipient 1, " + recipient + ": decrypted with the key in " + name + ".key, certificate SHA-256 " +
               who.certificate.sha256();
    }
    static std::string issuer(const std::string& serial) {
        return "issuer CN=Interop Root,O=Interop,C=DE serial number " + serial;
    }

    std::string body;
};

TEST_F(DecryptKindsToolTest, RsaWithOaep) {
    for (const std::vector<std::string>& digest :
         {std::vector<std::string>{}, {"-keyopt", "rsa_oaep_md:sha256"}, {"-keyopt", "rsa_mgf1_md:sha512"}}) {
        std::vector<std::string> more{"-recip", "alice.pem", "-keyopt", "rsa_padding_mode:oaep"};
        more.insert(more.end(), digest.begin(), digest.end());
        encrypt(more);
        expectOpens(as("alice"), withKey(issuer("2001"), "alice", alice()));
    }
    expectRefused(as("bob"), "recipient 1, " + issuer("2001") + ": no key for it (event 0x300005A)");
}

TEST_F(DecryptKindsToolTest, KeyIdentifiers) {
    encrypt({"-keyid", "-recip", "alice.pem"});
    const Answer print = run(
        {.arguments = {"openssl", "x509", "-in", work.path("alice.pem"), "-noout", "-ext", "subjectKeyIdentifier"}});
    std::string identifier = linesOf(print.out).at(1);
    std::erase_if(identifier, [](char one) { return one == ':' || one == ' '; });
    for (char& one : identifier)
        one = static_cast<char>(std::tolower(one));
    expectOpens(as("alice"), withKey("key identifier " + identifier, "alice", alice()));
    expectRefused(as("bob"), "recipient 1, key identifier " + identifier + ": no key for it (event 0x300005A)");
}

TEST_F(DecryptKindsToolTest, KeyAgreement) {
    for (const std::vector<std::string>& options :
         {std::vector<std::string>{}, {"-keyopt", "ecdh_kdf_md:sha256"}, {"-keyopt", "ecdh_cofactor_mode:1"}}) {
        std::vector<std::string> more{"-recip", "erin.pem"};
        more.insert(more.end(), options.begin(), options.end());
        encrypt(more);
        expectOpens(as("erin"), withKey(issuer("2003"), "erin", erin()));
    }
    expectRefused(as("bob"), "recipient 1, " + issuer("2003") + ": no key for it (event 0x300005A)");
    // A certificate of the same name with a key of another kind.
    const Identity namesake =
        norvauthority::issue({.subject = {{"CN", "namesake"}}, .key = bob().key, .issuer = &root(), .serial = "2003"});
    work.write("bob.pem", namesake.certificate.pem());
    expectRefused(as("bob"),
                  "recipient 1, " + issuer("2003") +
                      ": the private key in bob.key is none that agrees on keys in this way (event 0x300005B)");
}

TEST_F(DecryptKindsToolTest, Passwords) {
    encrypt({"-pwri_password", "open sesame"});
    expectOpens({"--password-file", "password"}, "recipient 1, password: decrypted with the password in password");
    expectRefused(
        {"--password-file", "wrong"},
        "recipient 1, password: decryption with the password in wrong failed, it is another one or the message "
        "is damaged");
    expectRefused(as("alice"), "recipient 1, password: no password was given (--password-file)");
}

TEST_F(DecryptKindsToolTest, KeyEncryptionKeys) {
    encrypt({"-secretkey", "000102030405060708090A0B0C0D0E0F", "-secretkeyid", "c0ffee"});
    const std::string good = "recipient 1, key-encryption key c0ffee: decrypted with the key-encryption key in kek";
    expectOpens({"--kek-file", "kek"}, good);
    std::string octets;
    for (char octet = 0; octet < 16; ++octet)
        octets += octet;
    for (const std::string& form : {octets, std::string("000102030405060708090a0b0c0d0e0f"),
                                    std::string("000102030405060708090a0b0c0d0e0f\r\n")}) {
        work.write("kek", form);
        expectOpens({"--kek-file", "kek"}, good);
    }
    expectRefused(as("alice"), "recipient 1, key-encryption key c0ffee: no key-encryption key was given (--kek-file)");
    for (const std::size_t length : {std::size_t{16}, std::size_t{32}}) {
        work.write("kek", std::string(length, '\xA5'));
        expectRefused({"--kek-file", "kek"},
                      "recipient 1, key-encryption key c0ffee: decryption with the key-encryption "
                      "key in kek failed, it is another one or the message is damaged");
    }
    for (const std::string& form : {std::string(), std::string(15, 'x'), std::string("0001\n"), std::string(33, 'a')}) {
        work.write("kek", form);
        expectFailure(decrypt({"--kek-file", "kek", "--in", "msg"}),
                      "norvcrypt: no key-encryption key in kek: it has 16, 24 or 32 bytes, or as many in hexadecimal "
                      "digits\n");
    }
}

TEST_F(DecryptKindsToolTest, EveryKindInOneMessage) {
    for (const bool streamed : {false, true}) {
        std::vector<std::string> more{"-recip",         "erin.pem",    "-recip",     "alice.pem",
                                      "-pwri_password", "open sesame", "-secretkey", "000102030405060708090A0B0C0D0E0F",
                                      "-secretkeyid",   "01"};
        if (streamed)
            more.emplace_back("-stream");
        encrypt(more);
        for (const std::vector<std::string>& keys :
             {as("erin"), as("alice"), {"--password-file", "password"}, {"--kek-file", "kek"}}) {
            std::vector<std::string> arguments = keys;
            arguments.insert(arguments.end(), {"--in", "msg"});
            const Answer answer = decrypt(arguments);
            EXPECT_EQ(0, answer.status) << answer.err;
            EXPECT_TRUE(body == answer.out);
        }
        // Nobody's key: each of the four is told.
        std::vector<std::string> bob = as("bob");
        bob.insert(bob.end(), {"--in", "msg"});
        const Answer answer = decrypt(bob);
        EXPECT_EQ(1, answer.status);
        EXPECT_EQ(4U, linesOf(answer.err).size()) << answer.err;
    }
}

// A key that fails is no reason not to try the next, from a pipe either: what it brought is read again then.
TEST_F(DecryptKindsToolTest, TheNextRecipientIsTriedFromAPipeToo) {
    std::string longBody;
    while (longBody.size() < 3U << 20U)
        longBody += body;
    work.write("body", longBody);
    encrypt({"-recip", "alice.pem", "-pwri_password", "open sesame"});
    std::vector<std::string> keys = as("alice");
    keys.insert(keys.end(), {"--password-file", "wrong"});
    std::filesystem::create_directory(work.path("spool"));
    const auto from = [&](const std::vector<std::string>& arguments, const std::string& input) {
        std::vector<std::string> all{"decrypt"};
        all.insert(all.end(), arguments.begin(), arguments.end());
        return norvcrypt(Command{.arguments = all,
                                 .input = input,
                                 .directory = work.directory(),
                                 .environment = {{"TMPDIR", work.path("spool")}}});
    };
    // Whichever of the two stands first in the structure; with the wrong password alone, and with both secrets.
    const Answer wrong = from({"--password-file", "wrong"}, work.read("msg"));
    EXPECT_EQ(1, wrong.status);
    const Answer answer = from(keys, work.read("msg"));
    EXPECT_EQ(0, answer.status) << answer.err;
    EXPECT_TRUE(longBody == answer.out);
    EXPECT_TRUE(std::filesystem::is_empty(work.path("spool")));
}

TEST_F(DecryptKindsToolTest, AuthenticatedContent) {
    for (const char* cipher : {"-aes-128-gcm", "-aes-192-gcm", "-aes-256-gcm"}) {
        encrypt({"-recip", "alice.pem"}, cipher);
        expectOpens(as("alice"), withKey(issuer("2001"), "alice", alice()));
    }
    encrypt({"-recip", "erin.pem"}, "-aes-256-gcm");
    expectOpens(as("erin"), withKey(issuer("2003"), "erin", erin()));
}

TEST_F(DecryptKindsToolTest, NothingComesOutOfATamperedAuthenticatedMessage) {
    std::string longBody;
    while (longBody.size() < 3U << 20U)
        longBody += body;
    for (const std::string& content : {body, longBody}) {
        work.write("body", content);
        encrypt({"-recip", "alice.pem"}, "-aes-256-gcm");
        const std::string der = work.read("msg");
        for (const std::size_t fromEnd : {std::size_t{1}, std::size_t{100}, content.size() - 1}) {
            std::string changed = der;
            changed[der.size() - fromEnd] = static_cast<char>(changed[der.size() - fromEnd] ^ 1);
            work.write("msg", changed);
            const std::string line = "recipient 1, " + issuer("2001") +
                                     ": decryption with the key in alice.key failed, the message is damaged (event "
                                     "0x300005B)";
            expectRefused(as("alice"), line);
            const Answer piped = decrypt(as("alice"), changed);
            EXPECT_EQ(1, piped.status);
            EXPECT_EQ("", piped.out);
        }
        // Cut off, which everybody can see.
        work.write("msg", der.substr(0, der.size() - 1));
        expectFailure(decrypt({"--cert", "alice.pem", "--key", "alice.key", "--in", "msg", "--out", "out"}),
                      "norvcrypt: cannot read the encrypted message in msg: it ends before its end\n");
        EXPECT_EQ("precious", work.read("out"));
    }
}

TEST_F(DecryptKindsToolTest, Pem) {
    for (const char* cipher : {"-aes256", "-aes-256-gcm"}) {
        encrypt({"-outform", "PEM", "-recip", "alice.pem"}, cipher);
        EXPECT_EQ(0U, work.read("msg").find("-----BEGIN CMS-----"));
        expectOpens(as("alice"), withKey(issuer("2001"), "alice", alice()));
    }
}

// A sender chooses how often a password is hashed: as often as this it takes hours.
TEST_F(DecryptKindsToolTest, APasswordThatWouldBeHashedTooOftenIsNotTried) {
    encrypt({"-pwri_password", "open sesame", "-recip", "alice.pem"});
    // PBKDF2 with 2048 iterations (02 02 08 00), made 32,512 thousand.
    std::string der = work.read("msg");
    const std::string pbkdf2("\x06\x09\x2a\x86\x48\x86\xf7\x0d\x01\x05\x0c", 11);
    const std::size_t at = der.find(pbkdf2);
    ASSERT_NE(std::string::npos, at);
    const std::size_t count = der.find(std::string("\x02\x02\x08\x00", 4), at);
    ASSERT_NE(std::string::npos, count);
    // The salt of eight octets gives two of them to the number.
    const std::size_t salt = der.find(std::string("\x04\x08", 2), at);
    ASSERT_EQ(count, salt + 10);
    der.replace(salt, 14,
                std::string("\x04\x06", 2) + der.substr(salt + 2, 6) + std::string("\x02\x04\x01\xF0\x00\x00", 6));
    work.write("msg", der);
    const Answer answer = decrypt({"--password-file", "password", "--in", "msg", "--out", "out"});
    EXPECT_EQ(2, answer.status) << answer.err;
    EXPECT_NE(std::string::npos, answer.err.find("passwordIterations")) << answer.err;
    EXPECT_EQ("precious", work.read("out"));
    // Who has another key reads it all the same.
    EXPECT_EQ(body,
              decrypt({"--cert", "alice.pem", "--key", "alice.key", "--password-file", "password", "--in", "msg"}).out);
}

TEST_F(DecryptKindsToolTest, SecretsFromStandardInputAndWrongFiles) {
    encrypt({"-pwri_password", "open sesame"});
    EXPECT_EQ(body, decrypt({"--password-file", "-", "--in", "msg"}, "open sesame\n").out);
    expectFailure(decrypt({"--password-file", "-"}, "open sesame\n"), "standard input can be read only once");
    expectFailure(decrypt({"--password-file", "none", "--in", "msg"}), "cannot open none: No such file or directory");
    expectFailure(decrypt({"--kek-file", "none", "--in", "msg"}), "cannot open none: No such file or directory");
}

} // namespace
