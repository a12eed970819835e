// docs/json.md and what the commands print: each key that comes is on the page, and each key of its tables comes.

#include "support/Places.h"
#include "support/SigningToolTest.h"

#include <nlohmann/json.hpp>

#include <fstream>
#include <map>
#include <regex>
#include <set>

namespace interop {

namespace {

using nlohmann::json;
using Keys = std::set<std::string>;

std::string page() {
    std::ifstream file(std::string(norvtest::sourceDirectory) + "/docs/json.md", std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

/// From a heading to the next one of any level.
std::string section(const std::string& heading) {
    const std::string text = page();
    const std::size_t at = text.find("# " + heading);
    EXPECT_NE(at, std::string::npos) << heading;
    const std::size_t end = text.find("\n#", at);
    return text.substr(at, end - at);
}

Keys quotedIn(const std::string& text) {
    static const std::regex word("`([A-Za-z0-9-]+)`");
    Keys keys;
    for (std::sregex_iterator at(text.begin(), text.end(), word), end; at != end; ++at)
        keys.insert((*at)[1]);
    return keys;
}

/// What the first column of the tables of a section names.
Keys rowsOf(const std::string& heading) {
    std::istringstream lines(section(heading));
    Keys keys;
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with("| `"))
            keys.merge(quotedIn(line.substr(0, line.find(" | "))));
    }
    return keys;
}

/// The sections that tell the keys of an object under a key; those of other objects are told where the object around them is.
const std::map<std::string, std::string> headings{{"trust", "Trust object"},
                                                  {"explanation", "Explanation object"},
                                                  {"signers", "Signer object"},
                                                  {"certificate", "`norvcrypt inspect --json`"},
                                                  {"certificates", "`norvcrypt inspect --json`"}};

class JsonToolTest : public SigningToolTest {
protected:
    void SetUp() override {
        SigningToolTest::SetUp();
        work.write("body", "Content-Type: text/plain\r\n\r\nhello\r\n");
        work.write("bob.pem", bob().certificate.pem());
        work.write("bob.key", bob().key.pkcs8Pem());
    }
    void openssl(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), "openssl");
        const Answer made = run({.arguments = arguments, .directory = work.directory()});
        ASSERT_EQ(made.status, 0) << made.err;
    }
    void sign(const std::string& out, const std::vector<std::string>& more) {
        std::vector<std::string> arguments{"cms", "-sign", "-signer", "alice.pem", "-inkey", "alice.key", "-out", out};
        arguments.insert(arguments.end(), more.begin(), more.end());
        openssl(arguments);
    }
    /// Every key must be on the page where its object is told.
    void look(const json& value, const std::string& heading, bool isTop = false) {
        if (value.is_array()) {
            for (const json& one : value)
                look(one, heading, isTop);
            return;
        }
        if (!value.is_object())
            return;
        Keys told = quotedIn(section(heading));
        if (isTop)
            told.merge(quotedIn(section("Many inputs")));
        for (const auto& [key, inner] : value.items()) {
            EXPECT_TRUE(told.contains(key)) << key << " is not told in " << heading << ": " << value;
            seen[heading].insert(key);
            const auto other = headings.find(key);
            look(inner, other == headings.end() ? heading : other->second);
        }
    }
    json printed(const std::vector<std::string>& arguments, const std::string& heading, const std::string& input = "") {
        std::vector<std::string> all = arguments;
        all.emplace_back("--json");
        const Answer answer = tool(all, input);
        json value;
        EXPECT_NO_THROW(value = json::parse(answer.out)) << answer.err << answer.out;
        look(value, heading, true);
        return value;
    }
    void expectAllSeen(const std::string& heading, const Keys& elsewhere = {}) {
        for (const std::string& key : rowsOf(heading))
            EXPECT_TRUE(seen[heading].contains(key) || elsewhere.contains(key)) << key << " of " << heading;
    }

    std::map<std::string, Keys> seen;
};

TEST_F(JsonToolTest, OfVerdictsAndChains) {
    const std::string verify = "`norvcrypt verify --json`";
    sign("sig", {"-binary", "-in", "body", "-outform", "DER"});
    sign("whole", {"-binary", "-in", "body", "-outform", "DER", "-nodetach"});
    printed({"verify", "--signature", "sig", "--in", "body", "--ca", "root.pem", "--ca", "body", "--from",
             "alice@example.org"},
            verify);
    printed({"verify", "--signature", "whole", "--in", "body"}, verify);
    const json refused = printed({"verify", "--signature", "sig"}, verify, "Content-Type: text/plain\n\nhello\n");
    EXPECT_TRUE(refused.at("signers").at(0).contains("explanation")) << refused;
    printed({"verify", "--signature", "sig", "--in", "body", "--ca", "bob.pem", "--revocation", "available", "--from",
             "boss@example.org"},
            verify);
    // Told of bodies longer than anybody puts into a test of this.
    expectAllSeen(verify, {"notLooked"});
    expectAllSeen("Signer object", {"identifier", "senderRelation"});
    expectAllSeen("Explanation object");
    expectAllSeen("Trust object");
    const json chain = printed({"chain", "alice.pem", "--ca", "root.pem"}, "`norvcrypt chain --json`");
    EXPECT_EQ(chain.at("problems"), json::array());
}

TEST_F(JsonToolTest, OfMails) {
    const std::string mails = "`norvcrypt smime verify --json`, `smime decrypt --json`, `smime inspect --json`";
    const std::vector<std::string> lists{"from", "sender", "layers", "notCovered", "oddities"};
    std::vector<json> all;
    work.write("mail", "From: Alice <alice@example.org>\nSender: alice@example.org\nSubject: Lunch\n"
                       "Content-Type: text/plain\n\nhello\n");
    ASSERT_EQ(tool({"smime", "sign", "--cert", "alice.pem", "--key", "alice.key", "--protect-header", "--in", "mail",
                    "--out", "protected"})
                  .status,
              0);
    all.push_back(printed({"smime", "verify", "--in", "protected", "--ca", "root.pem", "--ca", "body"}, mails));
    EXPECT_EQ(all.back().at("problems").size(), 1U);

    sign("signed", {"-in", "body", "-from", "alice@example.org"});
    openssl({"cms", "-encrypt", "-in", "signed", "-aes-256-cbc", "-out", "both", "bob.pem"});
    all.push_back(printed(
        {"smime", "decrypt", "--in", "both", "--cert", "bob.pem", "--key", "bob.key", "--out", "clear"}, mails));
    all.push_back(printed({"smime", "inspect", "--in", "both"}, mails));
    EXPECT_EQ(all.back().at("layers").at(0).at("recipients").size(), 1U);
    all.push_back(printed({"smime", "inspect"}, mails,
                          "From: a@b.c\nContent-Type: multipart/mixed; boundary=l\n\n--l\n" + work.read("signed") +
                              "\n--l\nContent-Type: text/plain; name=footer\n\nfooter\n--line\n"));
    EXPECT_EQ(all.back().at("notCovered").size(), 1U);
    EXPECT_FALSE(all.back().at("oddities").empty());
    std::string changed = work.read("signed");
    changed.replace(changed.find("\nhello"), 6, "\n\nhello\n");
    all.push_back(printed({"smime", "verify"}, mails, changed));
    openssl({"crl2pkcs7", "-nocrl", "-certfile", "root.pem", "-out", "certificates"});
    const std::string pem = work.read("certificates");
    all.push_back(printed({"smime", "inspect"}, mails,
                          "Content-Type: application/pkcs7-mime; smime-type=certs-only\n"
                          "Content-Transfer-Encoding: base64\n\n" +
                              pem.substr(pem.find('\n') + 1, pem.find("-----END") - pem.find('\n') - 1)));
    const json& certificates = all.back().at("layers").at(0).at("certificates");
    ASSERT_EQ(certificates.size(), 1U);
    EXPECT_EQ(certificates.at(0).at("sha256"), root().certificate.sha256());
    all.push_back(printed({"smime", "inspect"}, mails, ""));
    for (const json& one : all) {
        for (const std::string& list : lists)
            EXPECT_TRUE(one.contains(list) && one.at(list).is_array()) << list << " of " << one;
    }
    expectAllSeen(mails);
    EXPECT_TRUE(seen["Signer object"].contains("identifier"));
    EXPECT_TRUE(seen["Signer object"].contains("senderRelation"));

    const Answer many = tool({"smime", "verify", "--in", "signed", "both", "nothing", "--out-dir", "out", "--json"});
    std::istringstream lines(many.out);
    for (std::string line; std::getline(lines, line);)
        look(json::parse(line), mails, true);
    for (const char* const key : {"exitCode", "output", "error"})
        EXPECT_TRUE(seen[mails].contains(key)) << key;
}

TEST_F(JsonToolTest, OfThingsThatAreInspected) {
    const std::string inspect = "`norvcrypt inspect --json`";
    openssl({"req", "-new", "-key", "bob.key", "-subj", "/CN=bob", "-addext",
             "subjectAltName=email:bob@example.org,DNS:example.org", "-out", "request"});
    openssl({"pkcs12", "-export", "-inkey", "bob.key", "-in", "bob.pem", "-passout", "pass:x", "-out", "p12"});
    openssl({"pkey", "-in", "bob.key", "-pubout", "-out", "public"});
    openssl({"pkey", "-in", "bob.key", "-aes256", "-passout", "pass:x", "-out", "encrypted"});
    openssl({"cms", "-encrypt", "-in", "body", "-outform", "DER", "-out", "enveloped", "bob.pem"});
    sign("sig", {"-in", "body", "-outform", "DER"});
    const json all = printed({"inspect", "alice.pem", "bob.key", "request", "p12", "public", "encrypted"}, inspect);
    EXPECT_EQ(all.size(), 6U) << all;
    Keys types;
    for (const json& one : all)
        types.insert(one.at("type").get<std::string>());
    EXPECT_EQ(types, (Keys{"certificate", "private-key", "request", "pkcs12", "public-key"}));
    for (const std::string file : {"enveloped", "sig"}) {
        const json one = json::parse(tool({"inspect", "--json", file}).out).at(0);
        const Keys told = quotedIn(section(inspect));
        EXPECT_EQ(one.at("type"), "cms");
        for (const auto& [key, value] : one.items())
            EXPECT_TRUE(told.contains(key)) << key << ": " << one;
    }
}

} // namespace

} // namespace interop
