// norvcrypt smime sign, encrypt and sign-encrypt: the openssl program reads what they write.

#include "support/Refusals.h"
#include "support/ToolTest.h"

#include <gmock/gmock.h>

#include <filesystem>

using namespace interop;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

namespace {

class SmimeWritingToolTest : public ToolTest {
protected:
    void SetUp() override {
        work.write("mail", mail);
        for (const auto& [name, identity] : std::map<std::string, const norvauthority::Identity*>{
                 {"alice", &alice()}, {"bob", &bob()}, {"carol", &carol()}}) {
            work.write(name + ".pem", identity->certificate.pem());
            work.write(name + ".key", identity->key.pkcs8Pem());
        }
        work.write("root.pem", root().certificate.pem());
        for (const char* const name : {"alice", "bob"}) {
            const std::string folder = work.path("store/" + std::string(name));
            std::filesystem::create_directories(folder);
            const std::string place = "store/" + std::string(name) + "/";
            work.write(place + "cert.pem", work.read(std::string(name) + ".pem"));
            work.write(place + "key.pem", work.read(std::string(name) + ".key"));
            std::filesystem::permissions(folder + "/key.pem", std::filesystem::perms(0600));
            work.write(place + "owners.txt", std::string(name) + "@example.org\n");
        }
        before = work.names();
    }

    Answer openssl(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), {"openssl", "cms"});
        return run(Command{.arguments = arguments, .directory = work.directory()});
    }
    /// What the openssl program finds signed in a file.
    std::string verified(const std::string& name) {
        const Answer answer = openssl({"-verify", "-in", name, "-CAfile", "root.pem"});
        EXPECT_EQ(0, answer.status) << answer.err << work.read(name);
        return answer.out;
    }
    std::string decrypted(const std::string& name, const std::string& who) {
        const Answer answer = openssl({"-decrypt", "-in", name, "-recip", who + ".pem", "-inkey", who + ".key"});
        EXPECT_EQ(0, answer.status) << answer.err << work.read(name);
        return answer.out;
    }
    /// Runs `norvcrypt smime` with "mail" in and "out" out.
    void writes(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), "smime");
        arguments.insert(arguments.end(), {"--in", "mail", "--out", "out"});
        const Answer answer = tool(arguments);
        EXPECT_EQ(0, answer.status) << answer.err;
        EXPECT_EQ("", answer.out);
        EXPECT_EQ("", answer.err);
    }
    void fails(std::vector<std::string> arguments, const std::string& text) {
        arguments.insert(arguments.begin(), "smime");
        arguments.insert(arguments.end(), {"--in", "mail", "--out", "out"});
        const bool nobody = text.find("there is no ") != std::string::npos;
        nobody ? expectRefusal(tool(arguments), text) : expectFailure(tool(arguments), text);
    }
    static std::string withCrLf(const std::string& text) {
        std::string out;
        for (const char byte : text)
            out += byte == '\n' ? "\r\n" : std::string(1, byte);
        return out;
    }

    const std::vector<std::string> asAlice{"--cert", "alice.pem", "--key", "alice.key"};
    const std::string header = "From: Alice <alice@example.org>\nTo: bob@example.org\nSubject: Lunch\n";
    const std::string mail = header + "Content-Type: text/plain; charset=utf-8\n\nAt noon in the caf\xc3\xa9?\n";
    const std::string part =
        "Content-Type: text/plain; charset=utf-8\r\nContent-Transfer-Encoding: quoted-printable\r\n\r\n"
        "At noon in the caf=C3=A9?\r\n";
};

TEST_F(SmimeWritingToolTest, SignsAMessageThatOpenSSLVerifies) {
    writes({"sign", "--cert", "alice.pem", "--key", "alice.key"});
    EXPECT_EQ(part, verified("out"));
    EXPECT_THAT(work.read("out"), StartsWith(header + "MIME-Version: 1.0\nContent-Type: multipart/signed;"));
    EXPECT_THAT(work.read("out"), Not(HasSubstr("\r")));
    writes({"sign", "--cert", "alice.pem", "--key", "alice.key", "--opaque", "--line-ends", "crlf", "--pss", "--digest",
            "sha512", "--chain", "root.pem"});
    EXPECT_EQ(part, verified("out"));
    EXPECT_THAT(work.read("out"),
                StartsWith(withCrLf(header) + "MIME-Version: 1.0\r\nContent-Type: application/pkcs7-mime; "
                                              "smime-type=signed-data;"));
}

TEST_F(SmimeWritingToolTest, KeepsTheLineEndsOfTheMessage) {
    work.write("mail", withCrLf(mail));
    writes({"sign", "--cert", "alice.pem", "--key", "alice.key"});
    EXPECT_THAT(work.read("out"), StartsWith(withCrLf(header) + "MIME-Version"));
    writes({"sign", "--cert", "alice.pem", "--key", "alice.key", "--line-ends", "lf"});
    EXPECT_THAT(work.read("out"), StartsWith(header + "MIME-Version"));
    EXPECT_EQ(part, verified("out"));
}

TEST_F(SmimeWritingToolTest, ReadsAPipeAndWritesOne) {
    std::vector<std::string> arguments{"smime", "sign"};
    arguments.insert(arguments.end(), asAlice.begin(), asAlice.end());
    const Answer answer = tool(arguments, mail + std::string(200000, '\n'));
    EXPECT_EQ(0, answer.status) << answer.err;
    EXPECT_EQ("", answer.err);
    work.write("out", answer.out);
    EXPECT_EQ(part.size() + 400000, verified("out").size());
}

TEST_F(SmimeWritingToolTest, FindsTheSenderOfTheMessageInAStore) {
    writes({"sign", "--store", "store"});
    EXPECT_EQ(part, verified("out"));
    work.write("mail", "From: Bob <bob@example.org>\n\nx");
    writes({"sign", "--store", "store", "--from", "alice@example.org"});
    const Answer signer =
        openssl({"-verify", "-in", "out", "-CAfile", "root.pem", "-signer", "who", "-out", "/dev/null"});
    EXPECT_EQ(0, signer.status) << signer.err;
    EXPECT_EQ(work.read("alice.pem"), work.read("who"));
}

TEST_F(SmimeWritingToolTest, EncryptsForRecipientsThatOpenSSLDecryptsFor) {
    writes({"encrypt", "--to", "bob.pem", "carol.pem"});
    EXPECT_EQ(part, decrypted("out", "bob"));
    EXPECT_EQ(part, decrypted("out", "carol"));
    EXPECT_THAT(work.read("out"), HasSubstr("smime-type=enveloped-data"));
    writes({"encrypt", "--to", "bob.pem", "--cipher", "AES-128-GCM"});
    EXPECT_EQ(part, decrypted("out", "bob"));
    EXPECT_THAT(work.read("out"), HasSubstr("smime-type=authEnveloped-data"));
    writes({"encrypt", "--store", "store", "--to-address", "alice@example.org", "--to", "carol.pem"});
    EXPECT_EQ(part, decrypted("out", "alice"));
    EXPECT_EQ(part, decrypted("out", "carol"));
}

TEST_F(SmimeWritingToolTest, EncryptsWithOaep) {
    const auto structureOf = [&](const std::string& name) {
        return openssl({"-cmsout", "-print", "-noout", "-in", name}).out;
    };
    writes({"encrypt", "--to", "bob.pem"});
    EXPECT_THAT(structureOf("out"), Not(HasSubstr("rsaesOaep")));
    writes({"encrypt", "--to", "bob.pem", "--oaep", "--oaep-digest", "sha384"});
    EXPECT_EQ(part, decrypted("out", "bob"));
    EXPECT_THAT(structureOf("out"), HasSubstr("rsaesOaep (1.2.840.113549.1.1.7)"));
    const norvauthority::Identity curve =
        norvauthority::issue({.subject = {{"CN", "curve"}}, .key = erin().key, .issuer = &root(), .keyUsage = 0x08});
    work.write("curve.pem", curve.certificate.pem());
    before = work.names();
    fails({"encrypt", "--to", "curve.pem", "--oaep"},
          "cannot encrypt mail: RSAES-OAEP is for RSA keys, and no certificate of a recipient has one");
}

TEST_F(SmimeWritingToolTest, EncryptsForThoseWhomTheMessageNames) {
    writes({"encrypt", "--store", "store"});
    EXPECT_EQ(part, decrypted("out", "bob"));
    writes({"encrypt", "--store", "store", "--to-self"});
    EXPECT_EQ(part, decrypted("out", "alice"));
}

TEST_F(SmimeWritingToolTest, SignsAndEncryptsInOneStep) {
    for (const std::vector<std::string>& more :
         {std::vector<std::string>{"--store", "store"},
          std::vector<std::string>{"--cert", "alice.pem", "--key", "alice.key", "--to", "bob.pem"},
          std::vector<std::string>{"--cert", "alice.pem", "--key", "alice.key", "--store", "store", "--to-self"}}) {
        std::vector<std::string> arguments{"sign-encrypt"};
        arguments.insert(arguments.end(), more.begin(), more.end());
        writes(arguments);
        work.write("inner", decrypted("out", "bob"));
        EXPECT_EQ(part, verified("inner"));
    }
    EXPECT_THAT(decrypted("out", "alice"), StartsWith("Content-Type: multipart/signed;"));
}

TEST_F(SmimeWritingToolTest, ProtectsTheHeader) {
    writes({"sign-encrypt", "--store", "store", "--protect-header"});
    EXPECT_THAT(work.read("out"), StartsWith("From: Alice <alice@example.org>\nTo: bob@example.org\nSubject: [...]\n"));
    work.write("inner", decrypted("out", "bob"));
    EXPECT_THAT(verified("inner"), StartsWith(withCrLf(header)));
    EXPECT_THAT(verified("inner"), HasSubstr("\r\n hp=\"cipher\"\r\n"));
}

TEST_F(SmimeWritingToolTest, TellsWhatIsMissing) {
    fails({"sign", "--store", "store", "--from", "carol@example.org"},
          "cannot sign mail: there is no key to sign with for carol@example.org");
    fails({"encrypt", "--store", "store", "--to-address", "carol@example.org", "dora@example.org"},
          "cannot encrypt mail: there is no certificate for carol@example.org, dora@example.org");
    fails({"encrypt", "--to", "bob.pem", "--cipher", "bf-cbc"}, "the cipher bf-cbc is not one of S/MIME");
    fails(
        {"encrypt", "--to", "bob.pem", "--cipher", "rot13"},
        "unknown cipher: rot13 (one of des-ede3-cbc, aes-128-cbc, aes-192-cbc, aes-256-cbc, aes-128-gcm, aes-192-gcm, "
        "aes-256-gcm)");
    fails({"encrypt", "--to", "bob.pem", "--to-self", "--store", "nowhere"}, "cannot load the store nowhere");
    work.write("both", work.read("bob.pem") + work.read("carol.pem"));
    before = work.names();
    fails({"encrypt", "--to", "both"}, "both holds 2 certificates: give each recipient a file of its own");
    work.write("mail", "Subject: x\n\ny");
    fails({"sign", "--store", "store"}, "cannot sign mail: the message has no From");
    fails({"encrypt", "--store", "store"}, "cannot encrypt mail: there is nobody to encrypt to");
}

TEST_F(SmimeWritingToolTest, AsksForOptionsThatHaveToBeThere) {
    for (const auto& [arguments, option] : std::vector<std::pair<std::vector<std::string>, std::string>>{
             {{"sign"}, "--cert"},
             {{"sign", "--cert", "alice.pem"}, "--key"},
             {{"sign", "--from", "alice@example.org"}, "--cert"},
             {{"encrypt"}, "--to"},
             {{"encrypt", "--to-address", "bob@example.org"}, "--store"},
             {{"encrypt", "--to", "bob.pem", "--to-self"}, "--store"},
             {{"sign-encrypt", "--cert", "alice.pem", "--key", "alice.key"}, "--to"},
             {{"sign-encrypt", "--to", "bob.pem"}, "--cert"}}) {
        std::vector<std::string> all{"smime"};
        all.insert(all.end(), arguments.begin(), arguments.end());
        const Answer answer = tool(all);
        EXPECT_EQ(2, answer.status);
        EXPECT_THAT(answer.err, HasSubstr(option + " is required")) << arguments.front();
    }
}

TEST_F(SmimeWritingToolTest, NeverReplacesItsInputAndLeavesNothingBehind) {
    std::vector<std::string> arguments{"smime", "sign", "--in", "mail", "--out", "mail"};
    arguments.insert(arguments.end(), asAlice.begin(), asAlice.end());
    expectFailure(tool(arguments), "it is the output too");
    EXPECT_EQ(mail, work.read("mail"));
}

} // namespace
