// norvcrypt smime verify, decrypt and inspect, over mails that openssl made.

#include "support/ToolTest.h"

#include <nlohmann/json.hpp>

#include <tuple>

using namespace interop;

namespace {

class SmimeReadToolTest : public ToolTest {
protected:
    SmimeReadToolTest() {
        work.write("root.pem", root().certificate.pem());
        for (const auto& [name, person] : {std::pair("alice", &alice()), std::pair("bob", &bob())}) {
            work.write(std::string(name) + ".pem", person->certificate.pem());
            work.write(std::string(name) + ".key", person->key.pkcs8Pem());
        }
        work.write("body", "Content-Type: text/plain\r\n\r\nhello\r\n");
    }
    /// A mail by `openssl cms`.
    void make(const std::string& mail, const std::vector<std::string>& arguments) {
        std::vector<std::string> all{"openssl", "cms", "-out", mail};
        all.insert(all.end(), arguments.begin(), arguments.end());
        const Answer made = run(Command{.arguments = all, .directory = work.directory()});
        ASSERT_EQ(made.status, 0) << made.err;
    }
    void makeSigned(const std::string& mail, const std::string& from = "alice@example.org",
                    const std::vector<std::string>& more = {}) {
        std::vector<std::string> arguments{"-sign", "-in", "body", "-signer", "alice.pem", "-inkey",   "alice.key",
                                           "-from", from,  "-to",  "bob@x.y", "-subject",  "greetings"};
        arguments.insert(arguments.end(), more.begin(), more.end());
        make(mail, arguments);
    }
};

TEST_F(SmimeReadToolTest, VerifiesWithAndWithoutTrust) {
    makeSigned("mail");
    const Answer unasked = tool({"smime", "verify", "--in", "mail", "--out", "content"});
    EXPECT_EQ(unasked.status, 0) << unasked.err;
    EXPECT_EQ(unasked.out.find("verdict: signature-good: trust was not checked\n"), 0U) << unasked.out;
    EXPECT_NE(unasked.out.find("a good signature does not tell who signed"), std::string::npos);
    EXPECT_EQ(work.read("content"), "Content-Type: text/plain\r\n\r\nhello\r\n");
    EXPECT_EQ(work.mode("content"), 0600U);

    const Answer trusted = tool({"smime", "verify", "--ca", "root.pem"}, work.read("mail"));
    EXPECT_EQ(trusted.status, 0) << trusted.out << trusted.err;
    EXPECT_EQ(trusted.out.find("verdict: accepted:"), 0U) << trusted.out;

    makeSigned("forged", "boss@example.org");
    const Answer forged = tool({"smime", "verify", "--ca", "root.pem", "--in", "forged", "--out", "nothing"});
    EXPECT_EQ(forged.status, 1);
    EXPECT_EQ(forged.out.find("verdict: refused:"), 0U) << forged.out;
    EXPECT_NE(forged.out.find("boss@example.org"), std::string::npos) << forged.out;
    EXPECT_FALSE(work.exists("nothing"));
    EXPECT_EQ(tool({"smime", "verify", "--ca", "root.pem", "--from", "alice@example.org", "--in", "forged"}).status, 0);
    EXPECT_EQ(tool({"smime", "verify", "--ca", "bob.pem", "--in", "mail"}).status, 1);
}

TEST_F(SmimeReadToolTest, RefusesWhatWasChangedAndWhatIsNotSigned) {
    makeSigned("mail");
    std::string mail = work.read("mail");
    mail.replace(mail.find("hello"), 5, "jello");
    const Answer changed = tool({"smime", "verify"}, mail);
    EXPECT_EQ(changed.status, 1);
    EXPECT_EQ(changed.out.find("verdict: refused: part 1: the body is not the one that was signed"), 0U) << changed.out;
    EXPECT_EQ(tool({"smime", "verify"}, "Subject: x\n\nhello\n").status, 1);
    EXPECT_EQ(tool({"smime", "verify"}, "").status, 1);
    EXPECT_EQ(tool({"smime", "verify"}, mail.substr(0, mail.size() / 2)).status, 2);
}

TEST_F(SmimeReadToolTest, AFooterIsRefusedUnlessTheSignedPartAloneIsAskedFor) {
    makeSigned("mail");
    const std::string mail = "From: alice@example.org\nContent-Type: multipart/mixed; boundary=l\n\n--l\n" +
                             work.read("mail") + "\n--l\nContent-Type: text/plain\n\nfooter\n--l--\n";
    const Answer whole = tool({"smime", "verify"}, mail);
    EXPECT_EQ(whole.status, 1);
    EXPECT_EQ(whole.out.find("verdict: signature-good, in part"), 0U) << whole.out;
    EXPECT_NE(whole.out.find("not covered: part"), std::string::npos) << whole.out;
    EXPECT_NE(whole.out.find(" 1.2, text/plain\n"), std::string::npos) << whole.out;
    EXPECT_EQ(tool({"smime", "verify", "--covered-only", "--out", "content"}, mail).status, 0);
    EXPECT_EQ(work.read("content"), "Content-Type: text/plain\r\n\r\nhello\r\n");
}

TEST_F(SmimeReadToolTest, DecryptsAndJudgesWhatIsWithin) {
    makeSigned("signed");
    make("mail", {"-encrypt", "-in", "signed", "-aes-256-cbc", "-from", "alice@example.org", "bob.pem"});
    const std::vector<std::string> decrypt{"smime", "decrypt", "--in", "mail", "--cert", "bob.pem", "--key", "bob.key"};
    const Answer clear = tool(decrypt);
    EXPECT_EQ(clear.status, 0) << clear.err;
    EXPECT_EQ(clear.out, "Content-Type: text/plain\r\n\r\nhello\r\n");
    EXPECT_NE(clear.err.find("not authenticated"), std::string::npos) << clear.err;

    std::vector<std::string> whole = decrypt;
    whole.emplace_back("--whole");
    EXPECT_EQ(tool(whole).out.find("From: alice@example.org\r\n"), 0U);

    const Answer closed =
        tool({"smime", "decrypt", "--in", "mail", "--cert", "alice.pem", "--key", "alice.key", "--out", "none"});
    EXPECT_EQ(closed.status, 1);
    EXPECT_NE(closed.err.find("there is no key for any recipient"), std::string::npos) << closed.err;
    EXPECT_FALSE(work.exists("none"));
    EXPECT_EQ(tool({"smime", "verify", "--in", "mail"}).status, 2);
    EXPECT_EQ(
        tool({"smime", "verify", "--in", "mail", "--ca", "root.pem", "--cert", "bob.pem", "--key", "bob.key"}).status,
        0);

    // Every reason, with what to do.
    std::vector<std::string> asked = decrypt;
    asked.insert(asked.end(), {"--ca", "bob.pem", "--revocation", "required", "--from", "boss@example.org"});
    const Answer refused = tool(asked);
    EXPECT_EQ(refused.status, 1);
    EXPECT_EQ(refused.out, "");
    for (const char* const text : {"reason (issuer-missing): ", "reason (sender-differs): ", "what to do: "})
        EXPECT_NE(refused.err.find(text), std::string::npos) << refused.err;

    before = work.names();
    expectFailure(tool({"smime", "decrypt", "--in", "mail"}), "give an identity to decrypt with");
}

TEST_F(SmimeReadToolTest, DecryptsWithWhatBothSidesHave) {
    work.write("password", std::string("swordfish\nanother line\n"));
    work.write("wrong", std::string("swordfight\n"));
    work.write("kek", std::string("000102030405060708090a0b0c0d0e0f\n"));
    makeSigned("signed");
    make("by-password", {"-encrypt", "-in", "signed", "-aes-256-cbc", "-pwri_password", "swordfish"});
    make("by-kek", {"-encrypt", "-in", "body", "-aes-256-gcm", "-secretkey", "000102030405060708090a0b0c0d0e0f",
                    "-secretkeyid", "c0ffee"});
    const std::string clear = "Content-Type: text/plain\r\n\r\nhello\r\n";
    for (const auto& [mail, option, file] :
         {std::tuple("by-password", "--password-file", "password"), std::tuple("by-kek", "--kek-file", "kek")}) {
        const Answer answer = tool({"smime", "decrypt", "--in", mail, option, file});
        EXPECT_EQ(answer.status, 0) << answer.err;
        EXPECT_EQ(answer.out, clear) << mail;
        // Beside identities that do not fit.
        EXPECT_EQ(tool({"smime", "decrypt", "--in", mail, "--cert", "bob.pem", "--key", "bob.key", option, file}).out,
                  clear);
        const Answer closed = tool({"smime", "decrypt", "--in", mail, "--cert", "bob.pem", "--key", "bob.key"});
        EXPECT_EQ(closed.status, 1);
        EXPECT_NE(closed.err.find("there is no key for any recipient"), std::string::npos) << closed.err;
        const Answer inspected = tool({"smime", "inspect", "--in", mail, option, file});
        EXPECT_EQ(inspected.status, 0);
        EXPECT_NE(inspected.out.find("opened with this key"), std::string::npos) << inspected.out;
        const bool isPassword = std::string(option) == "--password-file";
        EXPECT_NE(
            inspected.out.find(isPassword ? "  recipient: password, " : "  recipient: key-encryption key c0ffee, "),
            std::string::npos)
            << inspected.out;
    }
    // A signature within counts as ever.
    EXPECT_EQ(tool({"smime", "verify", "--in", "by-password", "--password-file", "password", "--ca", "root.pem",
                    "--from", "alice@example.org"})
                  .status,
              0);
    // Authenticated: without that a wrong key gives garbage now and then, in place of a failure.
    ASSERT_EQ(tool({"encrypt", "--password-file", "password", "--iterations", "1000", "--cipher", "aes-256-gcm", "--in",
                    "body", "--pem", "--out", "structure"})
                  .status,
              0);
    std::string structure = work.read("structure");
    structure = structure.substr(structure.find('\n') + 1);
    work.write("authenticated", "Content-Type: application/pkcs7-mime; smime-type=authEnveloped-data\n"
                                "Content-Transfer-Encoding: base64\n\n" +
                                    structure.substr(0, structure.find("-----")));
    EXPECT_EQ(tool({"smime", "decrypt", "--in", "authenticated", "--password-file", "password"}).out, clear);
    const Answer wrong =
        tool({"smime", "decrypt", "--in", "authenticated", "--password-file", "wrong", "--out", "nothing"});
    EXPECT_EQ(wrong.status, 1);
    EXPECT_NE(wrong.err.find("the password or key-encryption key is another one, or the message is damaged"),
              std::string::npos)
        << wrong.err;
    EXPECT_FALSE(work.exists("nothing"));
    EXPECT_EQ(tool({"smime", "decrypt", "--in", "by-password", "--kek-file", "kek"}).status, 1);
    EXPECT_EQ(tool({"smime", "decrypt", "--in", "by-password", "--password-file", "none"}).status, 2);
}

/// Each may be made to cost a second.
TEST_F(SmimeReadToolTest, OfStructuresWithAPasswordThreeAreOpened) {
    work.write("password", std::string("swordfish\n"));
    std::string mail = "From: alice@example.org\nContent-Type: multipart/mixed; boundary=many\n\n";
    for (int number = 0; number != 5; ++number) {
        make("part", {"-encrypt", "-in", "body", "-aes-256-cbc", "-pwri_password", "swordfish"});
        mail += "--many\n" + work.read("part") + "\n";
    }
    const Answer answer = tool({"smime", "inspect", "--password-file", "password", "--json"}, mail + "--many--\n");
    const auto layers = nlohmann::json::parse(answer.out).at("layers");
    ASSERT_EQ(layers.size(), 5U);
    for (std::size_t number = 0; number != 5; ++number)
        EXPECT_EQ(layers.at(number).at("status"), number < 3 ? "good" : "too-costly") << number;
}

TEST_F(SmimeReadToolTest, AWrongSignatureWithinIsWrittenOnlyWhenThatIsAskedFor) {
    makeSigned("signed");
    std::string inner = work.read("signed");
    inner.replace(inner.find("hello"), 5, "jello");
    work.write("signed", inner);
    make("mail", {"-encrypt", "-in", "signed", "-aes-256-cbc", "bob.pem"});
    const std::vector<std::string> decrypt{"smime", "decrypt", "--in", "mail", "--cert", "bob.pem", "--key", "bob.key"};
    const Answer refused = tool(decrypt);
    EXPECT_EQ(refused.status, 1);
    EXPECT_EQ(refused.out, "");
    std::vector<std::string> any = decrypt;
    any.emplace_back("--any-signature");
    const Answer taken = tool(any);
    EXPECT_EQ(taken.status, 0);
    EXPECT_EQ(taken.out, "Content-Type: text/plain\r\n\r\njello\r\n");
    EXPECT_NE(taken.err.find("the body is not the one that was signed"), std::string::npos) << taken.err;
}

TEST_F(SmimeReadToolTest, InspectsAndTellsPrograms) {
    makeSigned("mail");
    const Answer text = tool({"smime", "inspect", "--in", "mail"});
    EXPECT_EQ(text.status, 0);
    EXPECT_NE(text.out.find("part 1: signed (multipart/signed): good\n"), std::string::npos) << text.out;
    const Answer answer = tool({"smime", "verify", "--in", "mail", "--ca", "root.pem", "--json"});
    EXPECT_EQ(answer.status, 0);
    const auto json = nlohmann::json::parse(answer.out);
    EXPECT_EQ(json.at("verdict"), "accepted");
    EXPECT_EQ(json.at("trustChecked"), true);
    EXPECT_EQ(json.at("from"), nlohmann::json::array({"alice@example.org"}));
    const auto& layer = json.at("layers").at(0);
    EXPECT_EQ(layer.at("kind"), "multipart-signed");
    EXPECT_EQ(layer.at("part"), "1");
    EXPECT_EQ(layer.at("signers").at(0).at("verdict"), "good");
    EXPECT_EQ(layer.at("signers").at(0).at("senderRelation"), "from");
    EXPECT_TRUE(layer.at("signers").at(0).contains("trust"));
    EXPECT_EQ(json.at("notCovered"), nlohmann::json::array());
    EXPECT_EQ(tool({"smime", "inspect"}, "garbage").status, 0);
}

TEST_F(SmimeReadToolTest, InspectGoesInside) {
    work.write("body", "Content-Type: multipart/mixed; boundary=in\r\n\r\n--in\r\n\r\none\r\n--in\r\n"
                       "Content-Type: application/pdf; name=\"a\x1b.pdf\"\r\nContent-Transfer-Encoding: base64\r\n\r\n"
                       "MTIzNDU2Nzg5\r\n--in--\r\n");
    makeSigned("signed", "alice@example.org", {"-binary"});
    const std::string mail = "From: alice@example.org\nContent-Type: multipart/mixed; boundary=l\n\n--l\n" +
                             work.read("signed") + "\n--l\nContent-Type: text/plain\n\nfooter\n--l--\n";
    const Answer text = tool({"smime", "inspect"}, mail);
    EXPECT_EQ(text.status, 0) << text.err;
    for (const char* line : {"contains: part"
                             " 1.1.1.1, text/plain, 7bit, 3 bytes\n",
                             "contains: part"
                             " 1.1.1.2, application/pdf, named \"a\\x1B.pdf\", base64, 9 bytes\n",
                             "contains: part"
                             " 1.1.2, application/pkcs7-signature, named \"smime.p7s\", base64, ",
                             "contains: part"
                             " 1.2, text/plain, 7bit, 6 bytes\n",
                             "not covered: part"
                             " 1.2, text/plain\n"})
        EXPECT_NE(text.out.find(line), std::string::npos) << line << "in\n" << text.out;
    EXPECT_EQ(tool({"smime", "verify"}, mail).out.find("contains:"), std::string::npos);

    for (const std::vector<std::string>& command :
         {std::vector<std::string>{"smime", "inspect", "--json"}, {"inspect", "--json"}}) {
        const Answer answer = tool(command, mail);
        EXPECT_EQ(answer.status, 0) << answer.err;
        const auto json = nlohmann::json::parse(answer.out);
        const auto& parts = (json.is_array() ? json.at(0) : json).at("parts");
        ASSERT_EQ(parts.size(), 4U);
        EXPECT_EQ(parts.at(1), nlohmann::json({{"part", "1.1.1.2"},
                                               {"contentType", "application/pdf"},
                                               {"name", "a\x1b.pdf"},
                                               {"transferEncoding", "base64"},
                                               {"octets", 9}}));
        EXPECT_FALSE(parts.at(0).contains("name"));
    }
    // A mail without any layer, too.
    const Answer plain = tool({"inspect", "--json"}, "From: a@b.c\nContent-Type: text/html\n\n<p>\n");
    EXPECT_EQ(plain.status, 0) << plain.err;
    const auto json = nlohmann::json::parse(plain.out).at(0);
    EXPECT_EQ(json.at("type"), "mail");
    EXPECT_EQ(json.at("verdict"), "not-smime");
    EXPECT_EQ(json.at("parts").at(0).at("octets"), 4);
}

// What is read of it is told, and nobody takes that for all of it.
TEST_F(SmimeReadToolTest, AMailThatCannotBeReadToItsEndIsInspectedWithAnExitCodeOfItsOwn) {
    const std::string mail = "From: a@b.c\nMIME-Version: 1.0\nContent-Type: application/pkcs7-mime; "
                             "smime-type=enveloped-data\nContent-Transfer-Encoding: base64\n\nMIIB!!!AAAA\n";
    for (const std::vector<std::string>& command : {std::vector<std::string>{"smime", "inspect"}, {"inspect"}}) {
        const Answer answer = tool(command, mail);
        EXPECT_EQ(answer.status, 2) << answer.err;
        EXPECT_NE(answer.out.find("verdict: damaged"), std::string::npos) << answer.out;
    }
}

} // namespace
