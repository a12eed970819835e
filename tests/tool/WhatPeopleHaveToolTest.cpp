#include "support/SigningToolTest.h"

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

namespace interop {

namespace {

using testing::HasSubstr;
using testing::StartsWith;

const std::string text = "Content-Type: text/plain\r\n\r\nDear Bob,\r\nall is well.\r\n";

std::string withLines(const std::string& whole, const std::string& before, const std::string& after) {
    std::string changed;
    for (const std::string& line : linesOf(whole))
        changed += before + line + after;
    return changed;
}

std::string replacedIn(std::string whole, const std::string& what, const std::string& by) {
    for (std::size_t at = whole.find(what); at != std::string::npos; at = whole.find(what, at + by.size()))
        whole.replace(at, what.size(), by);
    return whole;
}

class WhatPeopleHaveToolTest : public SigningToolTest {
protected:
    void SetUp() override {
        SigningToolTest::SetUp();
        work.write("text", text);
    }
    /// What openssl cms writes.
    std::string made(const std::vector<std::string>& more) {
        std::vector<std::string> arguments{"openssl", "cms", "-in", "text"};
        arguments.insert(arguments.end(), more.begin(), more.end());
        const Answer answer = run({.arguments = arguments, .directory = work.directory()});
        EXPECT_EQ(0, answer.status) << answer.err;
        return answer.out;
    }
    std::string signedBy(const std::vector<std::string>& more) {
        std::vector<std::string> arguments{"-sign", "-binary", "-signer", "alice.pem", "-inkey", "alice.key"};
        arguments.insert(arguments.end(), more.begin(), more.end());
        return made(arguments);
    }
    std::string pem() {
        static const std::string one = signedBy({"-outform", "PEM"});
        return one;
    }
    std::string base64() {
        const std::string all = pem();
        const std::size_t start = all.find('\n') + 1;
        return all.substr(start, all.find("-----END") - start);
    }
    void expectVerified(const std::string& signature, const char* what) {
        SCOPED_TRACE(what);
        work.write("sig", signature);
        const Answer answer = tool({"verify", "--signature", "sig", "--in", "text"});
        EXPECT_EQ(0, answer.status) << answer.err;
        EXPECT_THAT(answer.out, StartsWith("signer 1: good signature"));
    }
};

TEST_F(WhatPeopleHaveToolTest, PemOfAnyLabelAndLayout) {
    expectVerified(pem(), "CMS");
    expectVerified(signedBy({"-outform", "DER"}) + "\r\n", "DER with a line end");
    expectVerified(replacedIn(pem(), " CMS-", " PKCS7-"), "PKCS7");
    expectVerified(replacedIn(pem(), " CMS-", " PKCS #7 SIGNED DATA-"), "PKCS #7 SIGNED DATA");
    expectVerified(replacedIn(pem(), " CMS-", " SIGNATURE-"), "a label of one's own");
    expectVerified(replacedIn(pem(), " CMS-", " CERTIFICATE-"), "the label of something else");
    expectVerified(replacedIn(replacedIn(pem(), "BEGIN CMS", "begin cms"), "END CMS", "end cms"), "small letters");
    expectVerified("\xEF\xBB\xBF" + withLines(pem(), "", " \r\n"), "byte order mark, blanks and CR LF");
    expectVerified(withLines(pem(), "  ", "\n"), "indented");
    expectVerified("Anna wrote:\n" + withLines(pem(), "> ", "\n") + "\nregards", "quoted");
    expectVerified(replacedIn(pem(), "\n", ""), "on one line");
    std::string wide = "\xFF\xFE";
    for (const char letter : pem())
        wide += {letter, '\0'};
    expectVerified(wide, "UTF-16");
}

TEST_F(WhatPeopleHaveToolTest, WithoutPem) {
    expectVerified(base64(), "base64");
    expectVerified("\n\n" + withLines(base64(), "", "\r\n") + "\n \n", "with empty lines");
    expectVerified("\xEF\xBB\xBF" + replacedIn(base64(), "\n", ""), "on one line");
    expectVerified(replacedIn(replacedIn(replacedIn(base64(), "=", ""), "+", "-"), "/", "_"),
                   "of URLs, without padding");
    const std::string der = signedBy({"-outform", "DER"});
    std::string digits;
    for (const char octet : der) {
        static constexpr const char* hex = "0123456789abcdef";
        digits += hex[static_cast<unsigned char>(octet) >> 4U];
        digits += hex[static_cast<unsigned char>(octet) & 15U];
    }
    expectVerified(digits + "\n", "hexadecimal digits");
    const std::string fields = "Content-Type: application/pkcs7-signature;\r\n name=smime.p7s\r\n";
    expectVerified(fields + "Content-Transfer-Encoding: base64\r\n\r\n" + base64() + "\r\n--b--\r\n",
                   "a part of a mail");
    expectVerified(fields + "Content-Transfer-Encoding: binary\r\n\r\n" + der, "a binary part of a mail");
}

TEST_F(WhatPeopleHaveToolTest, MailsThatAreStructures) {
    work.write("opaque", signedBy({"-nodetach"}));
    const Answer verified = tool({"verify", "--signature", "opaque", "--embedded", "--out", "content"});
    EXPECT_EQ(0, verified.status) << verified.err;
    EXPECT_EQ(text, work.read("content"));
    work.write("encrypted", made({"-encrypt", "-binary", "-aes256", "alice.pem"}));
    const Answer decrypted = tool({"decrypt", "--cert", "alice.pem", "--key", "alice.key", "--in", "encrypted"});
    EXPECT_EQ(0, decrypted.status) << decrypted.err;
    EXPECT_EQ(text, decrypted.out);
    const Answer inspected = tool({"inspect", "--json", "encrypted"});
    EXPECT_EQ(0, inspected.status) << inspected.err;
    const auto json = nlohmann::json::parse(inspected.out);
    ASSERT_EQ(2U, json.size()) << inspected.out;
    EXPECT_EQ("S/MIME message", json.at(0).at("type"));
    EXPECT_EQ("cms", json.at(1).at("type"));
}

TEST_F(WhatPeopleHaveToolTest, WholeMailsAreJudgedAsTheyAre) {
    const std::string mail = "From: alice@example.org\nTo: bob@example.org\n" + signedBy({});
    work.write("mail", mail);
    const Answer good = tool({"verify", "--signature", "mail"});
    EXPECT_EQ(0, good.status) << good.out << good.err;
    EXPECT_EQ(good.out, tool({"smime", "verify", "--in", "mail"}).out);
    const Answer inspected = tool({"inspect", "--json", "mail"});
    EXPECT_EQ(0, inspected.status) << inspected.err;
    const auto json = nlohmann::json::parse(inspected.out);
    ASSERT_EQ(1U, json.size());
    EXPECT_EQ("multipart-signed", json.at(0).at("layers").at(0).at("kind"));
    // As editors save it, and with line ends behind it.
    work.write("saved", "\xEF\xBB\xBF" + mail + "\n\r\n\n");
    for (const std::vector<std::string>& command :
         {std::vector<std::string>{"verify", "--signature", "saved"}, {"smime", "verify", "--in", "saved"}})
        EXPECT_EQ(0, tool(command).status) << command[0];
    EXPECT_THAT(tool({"inspect", "saved"}).out, HasSubstr("saved: S/MIME message\n"));

    // A relay added to the signed part.
    const std::size_t end = mail.find("all is well.") + 12;
    work.write("mail", mail.substr(0, end) + "\r\n-- \r\na list's footer" + mail.substr(end));
    const Answer refused = tool({"verify", "--signature", "mail"});
    EXPECT_EQ(1, refused.status);
    EXPECT_THAT(refused.out, HasSubstr("why it is refused: the signed text ended before the last 2 lines"));
    const Answer asJson = tool({"smime", "verify", "--in", "mail", "--json"});
    EXPECT_THAT(asJson.out, HasSubstr("\"footer-at-end\""));
    // With a body the mail is pointed on.
    before = work.names();
    expectFailure(tool({"verify", "--signature", "mail", "--in", "text"}), "it is a mail; norvcrypt smime verify");
    expectFailure(tool({"verify", "--signature", "-", "--in", "text"}, mail), "it is a mail; norvcrypt smime verify");
}

// Whoever made the signature does not choose that the body is not looked at.
TEST_F(WhatPeopleHaveToolTest, ABodyOnStandardInputIsNotPassedOverForAMail) {
    work.write("mail", "From: alice@example.org\n" + signedBy({}));
    before = work.names();
    expectFailure(tool({"verify", "--signature", "mail"}, "pay mallory"), "it is a mail; norvcrypt smime verify");
    const Answer piped = run(Command{
        .arguments = {"sh", "-c", "echo pay mallory | \"$0\" verify --signature mail", norvtest::norvcryptProgram},
        .directory = work.directory()});
    expectFailure(piped, "it is a mail; norvcrypt smime verify");
}

TEST_F(WhatPeopleHaveToolTest, AMailComesThroughAPipe) {
    const std::string mail = "From: alice@example.org\n" + signedBy({});
    const Answer good = tool({"verify", "--signature", "-"}, mail);
    EXPECT_EQ(0, good.status) << good.err;
    EXPECT_EQ(0U, good.out.find("verdict: signature-good: trust was not checked\n")) << good.out;
    const Answer asJson = tool({"verify", "--signature", "-", "--json"}, mail);
    EXPECT_THAT(asJson.out, HasSubstr("\"signature-good\""));
    std::string changed = mail;
    changed.replace(changed.find("Dear"), 4, "Near");
    EXPECT_EQ(1, tool({"verify", "--signature", "-"}, changed).status);
    // A pipe of another name.
    work.write("mail", mail);
    const Answer named = run(Command{
        .arguments = {"bash", "-c", "\"$0\" verify --signature <(cat mail) </dev/null", norvtest::norvcryptProgram},
        .directory = work.directory()});
    EXPECT_EQ(0, named.status) << named.err;
    // Longer than what is looked at to recognise it.
    EXPECT_EQ(0, tool({"verify", "--signature", "-"}, mail + std::string(100000, '\n')).status);
    // What is no mail, and needs a body, has none.
    before = work.names();
    expectFailure(tool({"verify", "--signature", "-"}, "MIIB"), "");
}

// As for a structure: those that are given stand in the place of those in the mail.
TEST_F(WhatPeopleHaveToolTest, AMailIsJudgedByTheCertificatesThatAreGiven) {
    work.write("bob.pem", bob().certificate.pem());
    work.write("mail", "From: alice@example.org\n" + signedBy({}));
    EXPECT_EQ(0, tool({"verify", "--signature", "mail", "--cert", "alice.pem"}).status);
    const Answer other = tool({"verify", "--signature", "mail", "--cert", "bob.pem"});
    EXPECT_EQ(1, other.status) << other.out;
    EXPECT_EQ(std::string::npos, other.out.find("signature-good")) << other.out;
}

// What is told about one of two structures would pass for a word on both.
TEST_F(WhatPeopleHaveToolTest, AStructureBesideADamagedOneIsNotTaken) {
    std::string damaged = pem();
    damaged[100] = '!';
    for (const std::string& both : {pem() + damaged, damaged + pem()}) {
        work.write("sig", both);
        before = work.names();
        expectFailure(tool({"verify", "--signature", "sig", "--in", "text"}),
                      "beside a CMS structure in sig: a damaged PEM block: its base64 is damaged");
    }
    expectVerified(alice().certificate.pem() + pem(), "a certificate is no other structure");
    expectVerified(pem() + "-----BEGIN PGP MESSAGE-----\n\nhQEMA0RjlLwAAAAAAQf9\n=abcd\n-----END PGP MESSAGE-----\n",
                   "nor is what another program reads");
}

TEST_F(WhatPeopleHaveToolTest, WhatIsNoStructureIsStillNone) {
    before = work.names();
    for (const std::string& content :
         {std::string("MIIB not base64 at all!"), std::string("0123456789"), std::string("SGVsbG8="),
          std::string("-----BEGIN CMS-----\nSGVsbG8=\n-----END CMS-----\n"), std::string("\xFF\xFE\x30"),
          std::string("> > >"), std::string("=")}) {
        const Answer answer = tool({"verify", "--signature", "-", "--in", "text"}, content);
        EXPECT_EQ(2, answer.status) << content;
        EXPECT_EQ("", answer.out);
        EXPECT_EQ(1U, linesOf(answer.err).size()) << answer.err;
    }
}

} // namespace

} // namespace interop
