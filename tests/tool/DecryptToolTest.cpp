// norvcrypt decrypt: identities in every form, what is told of each recipient, and that nothing half decrypted stays.

#include "support/Refusals.h"
#include "support/ToolTest.h"

#include <sys/stat.h>
#include <unistd.h>

using namespace interop;
using norvauthority::Identity;

namespace {

const std::string issuer = "issuer CN=Interop Root,O=Interop,C=DE serial number ";

class DecryptToolTest : public ToolTest {
protected:
    void SetUp() override {
        body = sampleBody();
        put("alice", alice());
        put("bob", bob());
        put("carol", carol());
        encryptFor({"alice", "bob", "carol"});
        before = work.names();
    }
    void put(const std::string& name, const Identity& identity) {
        work.write(name + ".pem", identity.certificate.pem());
        work.write(name + ".key", identity.key.pkcs8Pem());
    }
    /// Encrypts the body into "msg".
    void encryptFor(const std::vector<std::string>& names, const std::vector<std::string>& more = {}) {
        std::vector<std::string> arguments{"encrypt", "--out", "msg", "--to"};
        for (const std::string& name : names)
            arguments.push_back(name + ".pem");
        arguments.insert(arguments.end(), more.begin(), more.end());
        const Answer answer = tool(arguments, body);
        ASSERT_EQ(0, answer.status) << answer.err;
    }
    Answer decrypt(std::vector<std::string> more, const std::string& input = "") {
        more.insert(more.begin(), "decrypt");
        return tool(more, input);
    }
    static std::string tried(int number, const std::string& serial, const std::string& result) {
        return "norvcrypt: recipient " + std::to_string(number) + ", " + issuer + serial + ": " + result;
    }
    static std::string noKey(int number, const std::string& serial) {
        return tried(number, serial, "no key for it (event 0x300005A)");
    }
    static std::string served(int number, const std::string& serial, const std::string& file, const Identity& who) {
        return tried(number, serial,
                     "decrypted with the key in " + file + ", certificate SHA-256 " + who.certificate.sha256());
    }
    void expectBody(const Answer& answer, const std::vector<std::string>& report) {
        EXPECT_EQ(0, answer.status);
        EXPECT_EQ(body, answer.out);
        EXPECT_EQ(report, linesOf(answer.err));
    }
    /// Nothing decrypted: exit code 1, the report, and not a byte anywhere.
    void expectRefused(const Answer& answer, const std::vector<std::string>& report) {
        EXPECT_EQ(1, answer.status);
        EXPECT_EQ("", answer.out);
        EXPECT_EQ(report, linesOf(answer.err));
        EXPECT_EQ(before, work.names());
    }
    /// PKCS#12 of a person, as OpenSSL makes it.
    void exportPkcs12(const std::string& name, const std::vector<std::string>& more = {}) {
        std::vector<std::string> arguments{"openssl",     "pkcs12",   "-export",  "-in",  name + ".pem", "-inkey",
                                           name + ".key", "-passout", "pass:x y", "-out", name + ".p12"};
        arguments.insert(arguments.end(), more.begin(), more.end());
        const Answer answer = run({.arguments = arguments, .directory = work.directory()});
        ASSERT_EQ(0, answer.status) << answer.err;
        work.write("pass", std::string("x y\n"));
    }

    const std::vector<std::string> asAlice{"--cert", "alice.pem", "--key", "alice.key", "--in", "msg"};
    std::string body;
};

TEST_F(DecryptToolTest, EachRecipientReadsTheBody) {
    expectBody(decrypt(asAlice), {served(1, "2001", "alice.key", alice())});
    expectBody(decrypt({"--cert", "bob.pem", "--key", "bob.key", "--in", "msg"}),
               {noKey(1, "2001"), served(2, "2004", "bob.key", bob())});
    expectBody(decrypt({"--cert", "carol.pem", "--key", "carol.key", "--in", "msg"}),
               {noKey(1, "2001"), noKey(2, "2004"), served(3, "2005", "carol.key", carol())});
}

TEST_F(DecryptToolTest, FileToFileKeepsTheBodyOffStandardOutput) {
    const Answer answer = decrypt({"--cert", "alice.pem", "--key", "alice.key", "--in", "msg", "--out", "out"});
    EXPECT_EQ(0, answer.status) << answer.err;
    EXPECT_EQ("", answer.out);
    EXPECT_EQ(body, work.read("out"));
}

TEST_F(DecryptToolTest, MessageFromStandardInput) {
    const std::vector<std::string> report{served(1, "2001", "alice.key", alice())};
    expectBody(decrypt({"--cert", "alice.pem", "--key", "alice.key"}, work.read("msg")), report);
    expectBody(decrypt({"--cert", "alice.pem", "--key", "alice.key", "--in", "-", "--out", "-"}, work.read("msg")),
               report);
}

TEST_F(DecryptToolTest, PemMaySayCmsOrPkcs7WithTextAround) {
    const norvauthority::Bytes der = norvauthority::bytes(work.read("msg"));
    for (const char* label : {"CMS", "PKCS7"})
        for (const char* leading : {"", "leading text\n", "0 leading text\n"}) {
            work.write("msg", leading + norvauthority::pem(label, der) + "trailing\n");
            expectBody(decrypt(asAlice), {served(1, "2001", "alice.key", alice())});
        }
}

TEST_F(DecryptToolTest, SeveralIdentitiesAreAskedPerRecipientAndTheirOrderDoesNotMatter) {
    encryptFor({"bob", "carol"});
    const std::vector<std::string> report{served(1, "2004", "bob.key", bob())};
    expectBody(decrypt({"--cert", "alice.pem", "--key", "alice.key", "--cert", "carol.pem", "--key", "carol.key",
                        "--cert", "bob.pem", "--key", "bob.key", "--in", "msg"}),
               report);
    // A key may stand in front of its certificate.
    expectBody(
        decrypt({"--key", "alice.key", "--cert", "alice.pem", "--key", "bob.key", "--cert", "bob.pem", "--in", "msg"}),
        report);
}

TEST_F(DecryptToolTest, StrangerIsRefusedWithAReasonForEachRecipient) {
    encryptFor({"alice", "bob"});
    const std::vector<std::string> report{noKey(1, "2001"), noKey(2, "2004")};
    expectRefused(decrypt({"--cert", "carol.pem", "--key", "carol.key", "--in", "msg"}), report);
    expectRefused(decrypt({"--cert", "carol.pem", "--key", "carol.key", "--in", "msg", "--out", "out"}), report);
}

TEST_F(DecryptToolTest, KeyThatDoesNotBelongToItsCertificate) {
    const std::string text = "the private key in bob.key does not belong to its certificate (event 0x300005B)";
    expectRefused(decrypt({"--cert", "alice.pem", "--key", "bob.key", "--in", "msg", "--out", "out"}),
                  {tried(1, "2001", text), noKey(2, "2004"), noKey(3, "2005")});
    // The next recipient is tried all the same, and an identity that is in order is preferred.
    expectBody(
        decrypt({"--cert", "alice.pem", "--key", "bob.key", "--cert", "bob.pem", "--key", "bob.key", "--in", "msg"}),
        {tried(1, "2001", text), served(2, "2004", "bob.key", bob())});
    expectBody(decrypt({"--cert", "alice.pem", "--key", "bob.key", "--cert", "alice.pem", "--key", "alice.key", "--in",
                        "msg"}),
               {served(1, "2001", "alice.key", alice())});
}

TEST_F(DecryptToolTest, KeyThatDecryptsNothing) {
    // Her certificate carries the issuer and serial number that the message names, with an EC key in it.
    work.write(
        "alice.pem",
        norvauthority::issue({.subject = {{"CN", "namesake"}}, .key = erin().key, .issuer = &root(), .serial = "2001"})
            .certificate.pem());
    work.write("erin.key", erin().key.pkcs8Pem());
    encryptFor({"bob"});
    put("bob", norvauthority::issue(
                   {.subject = {{"CN", "namesake"}}, .key = erin().key, .issuer = &root(), .serial = "2004"}));
    before = work.names();
    expectRefused(decrypt({"--cert", "bob.pem", "--key", "bob.key", "--in", "msg", "--out", "out"}),
                  {tried(1, "2004", "the private key in bob.key is no RSA key (event 0x300005B)")});
}

TEST_F(DecryptToolTest, CertificateWithAnotherIssuerOrSerialNumberIsNotTheRecipient) {
    encryptFor({"alice"});
    for (const auto& [issuedBy, serial] : {std::pair{&bob(), "2001"}, std::pair{&root(), "200100"}}) {
        work.write("alice.pem",
                   norvauthority::issue(
                       {.subject = {{"CN", "namesake"}}, .key = alice().key, .issuer = issuedBy, .serial = serial})
                       .certificate.pem());
        expectRefused(decrypt(asAlice), {noKey(1, "2001")});
    }
}

TEST_F(DecryptToolTest, RecipientWithANegativeSerialNumberCannotBeNamed) {
    put("odd",
        norvauthority::issue({.subject = {{"CN", "odd"}}, .key = alice().key, .issuer = &root(), .serial = "-7f01"}));
    encryptFor({"odd"});
    before = work.names();
    const auto nameless = [](int number) {
        return "norvcrypt: recipient " + std::to_string(number) +
               ", its serial number is negative, no key can be asked for (event 0x300005B)";
    };
    expectRefused(decrypt({"--cert", "odd.pem", "--key", "odd.key", "--in", "msg", "--out", "out"}), {nameless(1)});
    encryptFor({"bob", "odd"});
    expectRefused(decrypt(asAlice), {noKey(1, "2004"), nameless(2)});
    const Answer answer = decrypt({"--cert", "bob.pem", "--key", "bob.key", "--in", "msg"});
    EXPECT_EQ(0, answer.status) << answer.err;
    EXPECT_EQ(body, answer.out);
}

TEST_F(DecryptToolTest, EncryptedKeysTakeTheirPassphraseFiles) {
    work.write("alice.key", alice().key.encryptedPem("for alice"));
    work.write("bob.key", bob().key.encryptedPem("for bob"));
    work.write("alice.pass", std::string("for alice\n"));
    work.write("bob.pass", std::string("for bob\n"));
    encryptFor({"bob"});
    const std::vector<std::string> report{served(1, "2004", "bob.key", bob())};
    expectBody(decrypt({"--cert", "alice.pem", "--key", "alice.key", "--passphrase-file", "alice.pass", "--cert",
                        "bob.pem", "--key", "bob.key", "--passphrase-file", "bob.pass", "--in", "msg"}),
               report);
    before = work.names();
    expectRefusal(decrypt({"--cert", "bob.pem", "--key", "bob.key", "--passphrase-file", "alice.pass", "--in", "msg",
                           "--out", "out"}),
                  "the passphrase for the private key in bob.key is wrong, or the file is damaged\n");
    expectFailure(decrypt({"--cert", "bob.pem", "--key", "bob.key", "--in", "msg", "--out", "out"}, "for bob\n"),
                  "the private key in bob.key is encrypted: give its passphrase with --passphrase-file");
}

TEST_F(DecryptToolTest, Pkcs12Files) {
    exportPkcs12("bob");
    exportPkcs12("carol", {"-legacy"});
    encryptFor({"bob", "carol"});
    expectBody(decrypt({"--p12", "bob.p12", "--passphrase-file", "pass", "--in", "msg"}),
               {served(1, "2004", "bob.p12", bob())});
    expectBody(decrypt({"--p12", "carol.p12", "--passphrase-file", "pass", "--in", "msg"}),
               {noKey(1, "2004"), served(2, "2005", "carol.p12", carol())});
    // In any mixture, and with the passphrase in front.
    expectBody(decrypt({"--cert", "alice.pem", "--key", "alice.key", "--p12", "carol.p12", "--passphrase-file", "pass",
                        "--in", "msg"}),
               {noKey(1, "2004"), served(2, "2005", "carol.p12", carol())});
    expectBody(decrypt({"--passphrase-file", "pass", "--p12", "carol.p12", "--cert", "bob.pem", "--key", "bob.key",
                        "--in", "msg"}),
               {served(1, "2004", "bob.key", bob())});
}

TEST_F(DecryptToolTest, Pkcs12FilesThatCannotBeUsed) {
    exportPkcs12("alice");
    work.write("wrong", std::string("x z\n"));
    before = work.names();
    const auto with = [&](const std::string& file, const std::string& passphrase) {
        return decrypt({"--p12", file, "--passphrase-file", passphrase, "--in", "msg", "--out", "out"});
    };
    expectRefusal(with("alice.p12", "wrong"), "norvcrypt: wrong passphrase for alice.p12\n");
    expectFailure(with("alice.pem", "pass"), "no PKCS#12 structure in alice.pem: it holds a certificate\n");
    expectFailure(with("none", "pass"), "cannot open none: No such file or directory");
    expectFailure(with("alice.p12", "none"), "cannot open none: No such file or directory");
    exportPkcs12("alice", {"-nokeys"});
    expectFailure(with("alice.p12", "pass"), "no private key with its certificate in alice.p12");
    exportPkcs12("alice", {"-nocerts"});
    expectFailure(with("alice.p12", "pass"), "no private key with its certificate in alice.p12");
    const std::string whole = work.read("alice.p12");
    work.write("alice.p12", whole.substr(0, whole.size() / 2));
    expectFailure(with("alice.p12", "pass"), "cannot read the PKCS#12 file alice.p12: it is damaged or cut off");
}

TEST_F(DecryptToolTest, IncompleteIdentitiesAreBadUsage) {
    const std::vector<std::string> rest{"--in", "msg", "--out", "out"};
    const auto with = [&](std::vector<std::string> options) {
        options.insert(options.end(), rest.begin(), rest.end());
        return decrypt(options);
    };
    expectFailure(with({}), "give an identity to decrypt with: --cert and --key, or --p12");
    expectFailure(with({"--cert", "alice.pem"}), "--cert alice.pem needs --key");
    expectFailure(with({"--key", "alice.key"}), "--key alice.key needs --cert");
    expectFailure(with({"--passphrase-file", "pass"}), "--passphrase-file needs an identity");
    expectFailure(with({"--p12", "alice.p12"}), "--p12 alice.p12 needs --passphrase-file");
    expectFailure(with({"--cert", "alice.pem", "--cert", "bob.pem", "--key", "bob.key"}),
                  "--cert alice.pem needs --key");
    expectFailure(with({"--cert", "alice.pem", "--key", "alice.key", "--key", "bob.key"}),
                  "--key bob.key needs --cert");
    expectFailure(with({"--cert", "alice.pem", "--p12", "x.p12", "--passphrase-file", "pass"}),
                  "--cert alice.pem needs --key");
    expectFailure(with({"--p12", "x.p12", "--key", "alice.key"}), "--p12 x.p12 needs --passphrase-file");
    expectFailure(decrypt({"--cert", "alice.pem", "--key"}), "--key");
    expectFailure(with({"--cert", "alice.pem", "--key", "alice.key", "more"}), "more");
}

TEST_F(DecryptToolTest, UnreadableMaterial) {
    const std::vector<std::string> good{"--cert", "alice.pem", "--key", "alice.key", "--in", "msg", "--out", "out"};
    const auto with = [&](std::size_t at, const std::string& value) {
        std::vector<std::string> arguments = good;
        arguments[at] = value;
        return decrypt(arguments);
    };
    expectFailure(with(1, "none"), "cannot open none: No such file or directory");
    expectFailure(with(1, "alice.key"), "no certificate in alice.key");
    expectFailure(with(3, "none"), "cannot open none: No such file or directory");
    expectFailure(with(3, "alice.pem"), "no private key in alice.pem");
    expectFailure(with(5, "none"), "cannot open none: No such file or directory");
    expectFailure(with(5, "."), "cannot read .: Is a directory");
    expectFailure(with(7, "none/out"), "cannot write none/out: No such file or directory");
    expectFailure(with(7, "."), "cannot write .: Is a directory");
    expectFailure(decrypt({"--cert", "-", "--key", "alice.key", "--in", "-"}, alice().certificate.pem()),
                  "standard input can be read only once");
}

TEST_F(DecryptToolTest, OutputReplacesAFileOnlyWhenAKeyServed) {
    work.write("out", std::string("precious"));
    ASSERT_EQ(0, chmod(work.path("out").c_str(), 0640));
    before = work.names();
    encryptFor({"bob"});
    EXPECT_EQ(1, decrypt({"--cert", "alice.pem", "--key", "alice.key", "--in", "msg", "--out", "out"}).status);
    EXPECT_EQ("precious", work.read("out"));
    EXPECT_EQ(0, decrypt({"--cert", "bob.pem", "--key", "bob.key", "--in", "msg", "--out", "out"}).status);
    EXPECT_EQ(body, work.read("out"));
    EXPECT_EQ(0600U, work.mode("out"));
    EXPECT_EQ(before, work.names());
}

TEST_F(DecryptToolTest, OutputOverTheMessage) {
    const std::string message = work.read("msg");
    before = work.names();
    expectFailure(decrypt({"--cert", "alice.pem", "--key", "alice.key", "--in", "msg", "--out", "msg"}),
                  "cannot read msg: it is the output too");
    EXPECT_EQ(message, work.read("msg"));
}

} // namespace
