// What the tool answers to common mistakes: the exit code, by one table for all commands, and words that a person understands.

#include "support/ToolTest.h"

#include <nlohmann/json.hpp>

#include <filesystem>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

using namespace interop;
namespace fs = std::filesystem;

namespace {

constexpr const char* passphrase = "swordfish";

class AnswersToolTest : public ToolTest {
protected:
    AnswersToolTest() {
        for (const auto& [name, identity] : {std::pair{"alice", &alice()}, {"bob", &bob()}}) {
            work.write(std::string(name) + ".pem", identity->certificate.pem());
            secret(std::string(name) + ".key", identity->key.pkcs8Pem());
        }
        work.write("root.pem", root().certificate.pem());
        secret("locked.key", alice().key.encryptedPem(passphrase));
        secret("secret", std::string(passphrase) + "\n");
        work.write("body", sampleBody());
        work.write("empty", std::string());
        work.write("text", std::string("just a text\n"));
        work.write("pgp.asc", std::string("-----BEGIN PGP MESSAGE-----\n\nhQEMA0RjlLwAAAAAAQf9GyPpC5nWbxS1hR\n=abcd\n"
                                          "-----END PGP MESSAGE-----\n"));
        shell("openssl pkcs12 -export -inkey alice.key -in alice.pem -passout file:secret -out alice.p12");
        shell("openssl pkcs12 -export -nomac -inkey alice.key -in alice.pem -passout file:secret -out nomac.p12");
        shell("openssl crl2pkcs7 -nocrl -certfile alice.pem -outform DER -out certificates.p7c");
        EXPECT_EQ(0,
                  tool({"sign", "--cert", "alice.pem", "--key", "alice.key", "--in", "body", "--out", "sig"}).status);
        EXPECT_EQ(0, tool({"encrypt", "--to", "bob.pem", "--in", "body", "--out", "msg"}).status);
        work.write("cut.p7s", work.read("sig").substr(0, 300));
        work.write("cut.p7m", work.read("msg").substr(0, 300));
        work.write("cut.key", alice().key.pkcs8Pem().substr(0, 300));
        work.write("cut.p12", work.read("alice.p12").substr(0, 300));
        fs::create_directories(work.path("store/alice"));
        work.write("store/alice/cert.pem", alice().certificate.pem());
        secret("store/alice/key.pem", alice().key.pkcs8Pem());
        work.write("store/alice/owners.txt", std::string("alice@example.org\n"));
    }

    void secret(const std::string& name, const std::string& content) const {
        work.write(name, content);
        chmod(work.path(name).c_str(), 0600);
    }
    void shell(const std::string& line) const {
        const Answer answer = run({.arguments = {"/bin/sh", "-c", line}, .directory = work.directory()});
        ASSERT_EQ(0, answer.status) << line << "\n" << answer.err;
    }
    /// A command line in words, and what it answers with.
    void expectAnswer(int status, const std::string& line, const std::string& text = "") {
        SCOPED_TRACE(line);
        std::vector<std::string> arguments;
        std::istringstream words(line);
        for (std::string word; words >> word;)
            arguments.push_back(word);
        const Answer answer = tool(arguments);
        EXPECT_EQ(status, answer.status) << answer.err;
        EXPECT_NE(std::string::npos, (answer.err + answer.out).find(text)) << "not told: " << text << "\n"
                                                                           << answer.err << answer.out;
        // No name of a class, place in a source or reason of OpenSSL as it stands.
        for (const char* raw : {"::", "(code ", "routines", "asn1 encoding", "0x4", "0x6", "0x1"})
            EXPECT_EQ(std::string::npos, answer.err.find(raw)) << answer.err;
    }
};

TEST_F(AnswersToolTest, ExitCodesFollowTheTable) {
    // 0: done, or yes.
    expectAnswer(0, "verify --signature sig --in body");
    expectAnswer(0, "verify --signature sig --in body --ca root.pem");
    expectAnswer(0, "chain alice.pem --ca root.pem");
    expectAnswer(0, "decrypt --cert bob.pem --key bob.key --in msg --out clear");
    expectAnswer(0, "sign --cert alice.pem --key locked.key --passphrase-file secret --in body --out other");
    expectAnswer(0, "sign --p12 alice.p12 --passphrase-file secret --in body --out other");
    expectAnswer(0, "sign --store store --from alice@example.org --in body --out other");
    expectAnswer(0, "bindings find alice@example.org --store store");
    expectAnswer(0, "p12 alice.p12 --passphrase-file secret --out-dir taken");
    expectAnswer(0, "inspect sig alice.pem msg");
    expectAnswer(0, "digest body");
    // 1: no.
    work.write("other-body", std::string("another"));
    secret("wrong", "wrong\n");
    expectAnswer(1, "verify --signature sig --in other-body");
    expectAnswer(1, "verify --signature sig --in body --ca bob.pem");
    expectAnswer(1, "verify --signature certificates.p7c --in body", "certificates alone");
    expectAnswer(1, "chain alice.pem --ca bob.pem");
    expectAnswer(1, "decrypt --cert alice.pem --key alice.key --in msg");
    for (const char* command :
         {"sign --in body", "decrypt --in msg", "smime sign --in text", "smime verify --in text"}) {
        expectAnswer(1, std::string(command) + " --cert alice.pem --key locked.key --passphrase-file wrong",
                     "the passphrase for the private key in locked.key is wrong");
        expectAnswer(1, std::string(command) + " --p12 alice.p12 --passphrase-file wrong",
                     "wrong passphrase for alice.p12");
    }
    expectAnswer(1, "p12 alice.p12 --passphrase-file wrong --out-dir none", "wrong passphrase for alice.p12");
    expectAnswer(1, "request --key locked.key --passphrase-file wrong --subject CN=x",
                 "is wrong, or the file is damaged");
    expectAnswer(1, "sign --store store --from nobody@example.org --in body", "nobody@example.org");
    expectAnswer(1, "encrypt --store store --to-address nobody@example.org --in body", "nobody@example.org");
    expectAnswer(1, "bindings find nobody@example.org --store store");
    work.write("mail", std::string("From: nobody@example.org\r\nTo: bob@example.org\r\n\r\nhello\r\n"));
    expectAnswer(1, "smime sign --store store --in mail", "no key to sign with for nobody@example.org");
    expectAnswer(1, "smime encrypt --store store --in mail", "no certificate for bob@example.org");
    expectAnswer(1, "smime verify --in mail", "nothing of the message is signed");
    // 2: it could not be asked.
    for (const char* command : {"sign --cert none --key alice.key --in body", "verify --signature none --in body",
                                "encrypt --to none --in body", "decrypt --cert bob.pem --key bob.key --in none",
                                "chain none --ca root.pem", "chain alice.pem --ca none", "inspect none", "digest none",
                                "p12 none --passphrase-file secret --out-dir none", "smime verify --in none",
                                "smime sign --cert alice.pem --key alice.key --in none", "inspect --tree none",
                                "smime encrypt --to bob.pem --in none", "request --key none --subject CN=x",
                                "tls connect localhost:1 --ca none", "tls serve 0 --cert none --key alice.key",
                                ("cipher encrypt --cipher aes-128-cbc --key-hex 00112233445566778899aabbccddeeff "
                                 "--iv-hex 00112233445566778899aabbccddeeff --in none")})
        expectAnswer(2, command, "No such file or directory");
    expectAnswer(2, "bindings list --store none", "none");
    expectAnswer(2, "sign --in body", "--cert is required");
    expectAnswer(2, "digest --type nonsense body", "nonsense");
    expectAnswer(2, "encrypt --to bob.pem --cipher nonsense --in body", "nonsense");
    expectAnswer(2, "genkey --kind nonsense --out x", "no kind of key: nonsense");
    expectAnswer(2, "sign --cert alice.pem --key bob.key --in body", "Private key does not match certificate");
}

TEST_F(AnswersToolTest, MistakesAreToldInPlainWords) {
    expectAnswer(2, "verify --signature empty --in body", "no CMS structure in empty: it is empty");
    expectAnswer(2, "decrypt --cert bob.pem --key bob.key --in empty", "no CMS structure in empty: it is empty");
    expectAnswer(2, "sign --cert empty --key alice.key --in body", "no certificate in empty: it is empty");
    expectAnswer(2, "sign --cert alice.pem --key empty --in body", "no private key in empty: it is empty");
    expectAnswer(2, "p12 empty --passphrase-file secret --out-dir x", "no PKCS#12 structure in empty: it is empty");
    expectAnswer(2, "inspect empty", "empty: it is empty");

    expectAnswer(2, "verify --signature cut.p7s --in body", "the source ended before the structure");
    expectAnswer(2, "decrypt --cert bob.pem --key bob.key --in cut.p7m", "cut.p7m");
    expectAnswer(2, "sign --cert alice.pem --key cut.key --in body", "its last line is missing or damaged");
    expectAnswer(2, "p12 cut.p12 --passphrase-file secret --out-dir x", "it is damaged or cut off");
    expectAnswer(2, "inspect cut.p12", "it ends before its announced length");
    expectAnswer(2, "inspect cut.p7s");

    expectAnswer(2, "decrypt --cert bob.pem --key bob.key --in sig",
                 "holds no encrypted body but what norvcrypt verify reads");
    expectAnswer(2, "verify --signature msg --in body", "which norvcrypt decrypt reads");
    for (const char* command :
         {"verify --in body --signature", "decrypt --cert bob.pem --key bob.key --in", "inspect",
          "sign --in body --key alice.key --cert", "sign --in body --cert alice.pem --key", "chain --ca root.pem"})
        expectAnswer(2, std::string(command) + " pgp.asc", "OpenPGP armour, which gpg reads");

    expectAnswer(2, "sign --cert alice.key --key alice.pem --in body", "--cert and --key are swapped");
    expectAnswer(2, "sign --cert alice.key --key alice.key --in body",
                 "no certificate in alice.key: it holds a private key");
    expectAnswer(2, "sign --cert alice.pem --key alice.p12 --in body",
                 "no private key in alice.p12: it holds a PKCS#12 structure (--p12 and norvcrypt p12 take those)");
    expectAnswer(2, "p12 alice.pem --passphrase-file secret --out-dir x",
                 "no PKCS#12 structure in alice.pem: it holds a certificate");
    expectAnswer(2, "p12 nomac.p12 --passphrase-file secret --out-dir x", "it has no checksum (MAC)");
    expectAnswer(2, "verify --signature alice.pem --in body", "no CMS structure in alice.pem: it holds a certificate");

    expectAnswer(2, "tls connect localhost:1", "Connection refused");
    expectAnswer(2, "tls connect localhost", "write it as mail.example.org:465");
    expectAnswer(2, "tls connect nosuch.invalid:443", "cannot find the host: nosuch.invalid");
    expectAnswer(2, "sign --cert alice.pem --key alice.key --in body --out /dev/full",
                 "cannot write /dev/full: No space left on device");
}

TEST_F(AnswersToolTest, OddPassphrasesAreNamed) {
    const std::vector<std::pair<std::string, std::string>> odd{
        {"swordfish ", "ends with a blank, which counts"},
        {" swordfish", "begins with a blank, which counts"},
        {"", "is empty"},
        {"p\xC3\xA4ss", "has letters beyond ASCII, here in UTF-8"},
        {"p\xE4ss", "is no UTF-8"},
        {"\xEF\xBB\xBFswordfish", "begins with a byte order mark"},
    };
    for (const auto& [text, told] : odd) {
        secret("odd", text + "\n");
        expectAnswer(1, "p12 alice.p12 --passphrase-file odd --out-dir x", "(the first line of odd " + told);
        expectAnswer(1, "sign --cert alice.pem --key locked.key --passphrase-file odd --in body",
                     "(the first line of odd " + told);
    }
    // A line end of another system is none of it.
    secret("odd", std::string(passphrase) + "\r\n");
    expectAnswer(0, "sign --cert alice.pem --key locked.key --passphrase-file odd --in body --out sig");
}

// Nobody looks for another passphrase then.
TEST_F(AnswersToolTest, AKeyThatIsEncryptedInAnUnknownWayIsNotUnderAnotherPassphrase) {
    shell("openssl pkcs8 -topk8 -in alice.key -passout file:secret -outform DER -out derived.key");
    std::string key = work.read("derived.key");
    const std::string derivation = "\x2A\x86\x48\x86\xF7\x0D\x01\x05\x0C"; // PBKDF2: 1.2.840.113549.1.5.12
    const std::size_t at = key.find(derivation);
    ASSERT_NE(std::string::npos, at);
    expectAnswer(0, "sign --cert alice.pem --key derived.key --passphrase-file secret --in body --out sig");
    key[at + derivation.size() - 1] = '\x63';
    secret("derived.key", key);
    expectAnswer(2, "sign --cert alice.pem --key derived.key --passphrase-file secret --in body --out sig",
                 "cannot read the private key in derived.key: it is encrypted in a way that is not supported");
}

TEST_F(AnswersToolTest, WarningsComeBesideTheResult) {
    chmod(work.path("alice.key").c_str(), 0644);
    expectAnswer(0, "sign --cert alice.pem --key alice.key --in body --out sig",
                 "warning: others can read the private key in alice.key: chmod go= alice.key");
    // The mode says nothing about an encrypted one.
    chmod(work.path("locked.key").c_str(), 0644);
    EXPECT_EQ("", tool({"sign", "--cert", "alice.pem", "--key", "locked.key", "--passphrase-file", "secret", "--in",
                        "body", "--out", "sig"})
                      .err);
    norvauthority::CertificateRequest request{.subject = {{"CN", "Late"}}, .key = alice().key, .issuer = &root()};
    request.notAfter = norvauthority::Time::fromNow(-60);
    work.write("late.pem", norvauthority::issue(request).certificate.pem());
    chmod(work.path("alice.key").c_str(), 0600);
    expectAnswer(0, "sign --cert late.pem --key alice.key --in body --out sig",
                 "warning: the certificate in late.pem has expired");
    shell(
        "openssl req -x509 -newkey rsa:1024 -nodes -keyout weak.key -subj /CN=weak -days 2 -out weak.pem 2>/dev/null");
    const std::string weak = "warning: the certificate in weak.pem has a key too short to be safe: RSA with 1024 bits";
    expectAnswer(0, "sign --cert weak.pem --key weak.key --in body --out sig", weak);
    expectAnswer(0, "encrypt --to weak.pem --in body --out msg", weak);
}

TEST_F(AnswersToolTest, NoPlaceForWhatIsHeldBack) {
    work.write("long", std::string(3U << 20U, 'x'));
    ASSERT_EQ(0, tool({"encrypt", "--to", "bob.pem", "--in", "long", "--out", "long.p7m"}).status);
    const std::vector<std::string> arguments{"decrypt", "--cert", "bob.pem", "--key", "bob.key", "--in", "long.p7m"};
    const Answer answer = norvcrypt(
        Command{.arguments = arguments, .directory = work.directory(), .environment = {{"TMPDIR", "/nonexistent"}}});
    EXPECT_EQ(2, answer.status);
    EXPECT_EQ("", answer.out);
    EXPECT_EQ("norvcrypt: cannot make a temporary file from /nonexistent/norvcrypt-XXXXXX: No such file or directory\n",
              answer.err);
}

TEST_F(AnswersToolTest, DebugTellsAll) {
    const Answer plain = tool({"sign", "--cert", "alice.pem", "--key", "bob.key", "--in", "body"});
    const Answer all = tool({"sign", "--debug", "--cert", "alice.pem", "--key", "bob.key", "--in", "body"});
    EXPECT_EQ(plain.status, all.status);
    EXPECT_NE(std::string::npos, all.err.find("CMS::SignerMediaOutImpl::SignerMediaOutImpl (code 4, ")) << all.err;
    EXPECT_EQ(std::string::npos, plain.err.find("(code 4")) << plain.err;
    const Answer raw = tool({"--debug", "inspect", "cut.key"});
    EXPECT_NE(std::string::npos, raw.err.find("PEM routines / ")) << raw.err;
}

} // namespace
