// norvcrypt bindings: whom a store serves and why, what should be mended in it, and what hostile stores do to both; and
// the commands that take their certificates and keys from a store.

#include "support/Refusals.h"
#include "support/ToolTest.h"

#include <nlohmann/json.hpp>

#include <filesystem>
#include <sys/stat.h>

using namespace interop;
using namespace norvauthority;
using nlohmann::json;

namespace {

namespace fs = std::filesystem;

std::vector<std::string> keysOf(const nlohmann::ordered_json& object) {
    std::vector<std::string> keys;
    for (const auto& [key, value] : object.items())
        keys.push_back(key);
    return keys;
}

class BindingsToolTest : public ToolTest {
protected:
    void SetUp() override {
        folder("");
        before = work.names();
    }

    void folder(const std::string& name) const {
        fs::create_directories(work.path("store/" + name));
        chmod(work.path("store/" + name).c_str(), 0755);
    }
    void file(const std::string& name, const std::string& content, unsigned int mode = 0600) const {
        work.write("store/" + name, content);
        chmod(work.path("store/" + name).c_str(), mode);
    }
    /// A folder with certificate, key and patterns.
    void add(const std::string& name, const std::string& owners, const Identity& who, bool withKey = true) const {
        folder(name);
        file(name + "/cert.pem", who.certificate.pem());
        file(name + "/owners.txt", owners);
        if (withKey)
            file(name + "/key.pem", who.key.pkcs8Pem());
    }
    Answer bindings(const std::string& command, std::vector<std::string> more = {}) {
        std::vector<std::string> arguments{"bindings", command, "--store", "store"};
        arguments.insert(arguments.end(), more.begin(), more.end());
        return tool(arguments);
    }
    json jsonOf(const std::string& command, int status = 0, std::vector<std::string> more = {}) {
        more.emplace_back("--json");
        const Answer answer = bindings(command, more);
        EXPECT_EQ(status, answer.status) << answer.err;
        EXPECT_EQ("", answer.err);
        return json::parse(answer.out);
    }
    /// "kind folder/file:line", one for each problem that `check` tells.
    std::vector<std::string> problems() {
        const Answer answer = bindings("check", {"--json"});
        EXPECT_EQ("", answer.err);
        std::vector<std::string> lines;
        const json all = json::parse(answer.out);
        for (const json& one : all["problems"])
            lines.push_back(one["kind"].get<std::string>() + " " + one["folder"].get<std::string>() + "/" +
                            one.value("file", "") + (one.contains("line") ? ":" + one["line"].dump() : ""));
        EXPECT_EQ(lines.empty() ? 0 : 1, answer.status);
        return lines;
    }
    using Lines = std::vector<std::string>;
};

Identity person(const std::string& name, CertificateRequest request = {}) {
    request.subject = {{"CN", name}};
    if (!request.key)
        request.key = alice().key; // RSA: nothing is encrypted to other keys
    if (request.serial == "1")
        request.serial = toHex({name.begin(), name.end()});
    return issue(request);
}

// list

TEST_F(BindingsToolTest, ListTellsIdentitiesWithTheirPatterns) {
    add("anna", "anna@example.com\n# a comment\n\n*@example.com\n",
        person("Anna", {.key = erin().key, .keyUsage = 0x80}));
    file("anna/chain.pem", root().certificate.pem());
    add("partner", "", person("Partner"), false);
    folder("empty");
    const Answer answer = bindings("list", {"--json"});
    EXPECT_EQ(0, answer.status) << answer.err;
    const auto all = nlohmann::ordered_json::parse(answer.out);
    EXPECT_EQ((Lines{"store", "identities", "problems"}), keysOf(all));
    ASSERT_EQ(2U, all["identities"].size());
    const auto& anna = all["identities"][0];
    EXPECT_EQ((Lines{"folder", "subject", "issuer", "serial", "notBefore", "notAfter", "sha256", "selfSigned", "ca",
                     "publicKey", "signatureAlgorithm", "keyUsage", "key", "privateKey", "chain", "owners"}),
              keysOf(anna));
    EXPECT_EQ("anna", anna["folder"]);
    EXPECT_EQ("CN=Anna", anna["subject"]);
    EXPECT_EQ("EC", anna["key"]["algorithm"]);
    EXPECT_EQ(256, anna["key"]["bits"]);
    EXPECT_EQ(true, anna["privateKey"]);
    EXPECT_EQ("CN=Interop Root,O=Interop,C=DE", anna["chain"][0]["subject"]);
    EXPECT_EQ((json{{{"pattern", "anna@example.com"}, {"line", 1}}, {{"pattern", "*@example.com"}, {"line", 4}}}),
              json(anna["owners"]));
    EXPECT_EQ("partner", all["identities"][1]["folder"]);
    EXPECT_EQ(false, all["identities"][1]["privateKey"]);
    EXPECT_EQ(json::array(), json(all["identities"][1]["owners"]));
    EXPECT_EQ((json{{{"folder", "empty"}, {"file", "cert.pem"}, {"reason", "is missing"}}}), json(all["problems"]));
}

TEST_F(BindingsToolTest, ListShowsTheSameToPeople) {
    const Identity anna = person("Anna", {.key = erin().key});
    add("anna", "anna@example.com\n", anna);
    folder("empty");
    const Answer answer = bindings("list");
    EXPECT_EQ(0, answer.status) << answer.err;
    const Lines lines = linesOf(answer.out);
    EXPECT_EQ("anna: identity", lines.front());
    for (const std::string& line :
         Lines{"  subject: CN=Anna", "  sha256: " + anna.certificate.sha256(), "    algorithm: EC",
               "  privateKey: true", "  chain: none", "  owners: anna@example.com (line 1)"})
        EXPECT_NE(std::find(lines.begin(), lines.end(), line), lines.end()) << line << '\n' << answer.out;
    EXPECT_EQ("empty/cert.pem: skipped: is missing", lines.back());
}

TEST_F(BindingsToolTest, AnEmptyStoreHasNothingToTell) {
    EXPECT_EQ("", bindings("list").out);
    EXPECT_EQ((json{{"store", "store"}, {"identities", json::array()}, {"problems", json::array()}}), jsonOf("list"));
    EXPECT_EQ("identities: 0, problems: 0\n", bindings("check").out);
    EXPECT_EQ(1, bindings("find", {"a@b"}).status);
}

// find

TEST_F(BindingsToolTest, FindTellsWhatMatchedAndWhatWon) {
    add("anna", "*@example.com\nanna@example.com\n", person("Anna"));
    add("everybody", "*\n", person("Everybody"));
    add("old", "anna@*.com\n", person("Old", {.notAfter = Time::fromNow(-3600)}));
    add("partner", "anna@e*.com\n", person("Partner"), false);
    add("signer", "ann?@example.com\n", person("Signer", {.keyUsage = 0x80}));
    const json all = jsonOf("find", 0, {"anna@example.com"});
    EXPECT_EQ("anna@example.com", all["address"]);
    const auto match = [](const char* folder, const char* pattern, int line, int literals, const char* fitness) {
        return json{
            {"folder", folder}, {"pattern", pattern}, {"line", line}, {"literals", literals}, {"fitness", fitness}};
    };
    EXPECT_EQ((json{match("anna", "anna@example.com", 2, 16, "fit"), match("signer", "ann?@example.com", 1, 15, "fit"),
                    match("anna", "*@example.com", 1, 12, "fit"), match("partner", "anna@e*.com", 1, 10, "noKey"),
                    match("old", "anna@*.com", 1, 9, "outOfValidity"), match("everybody", "*", 1, 0, "fit")}),
              all["signing"]["matches"]);
    EXPECT_EQ("usageForbids", all["encryption"]["matches"][1]["fitness"]);
    EXPECT_EQ("fit", all["encryption"]["matches"][3]["fitness"]);
    for (const char* purpose : {"signing", "encryption", "decryption"}) {
        const json& winner = all[purpose]["winner"];
        EXPECT_EQ("anna", winner["folder"]) << purpose;
        EXPECT_EQ("anna@example.com", winner["pattern"]);
        EXPECT_EQ(2, winner["line"]);
        EXPECT_EQ(true, winner["privateKey"]);
        EXPECT_EQ("CN=Anna", winner["subject"]);
    }
}

TEST_F(BindingsToolTest, FindShowsTheSameToPeople) {
    add("anna", "anna@example.com\n", person("Anna", {.keyUsage = 0x80}));
    add("company", "*@example.com\n", person("Company"), false);
    const Answer answer = bindings("find", {"anna@EXAMPLE.com"});
    EXPECT_EQ(0, answer.status) << answer.err;
    Lines shown;
    for (const std::string& line : linesOf(answer.out))
        if (line.front() != ' ' || line.starts_with("  matches: ") || line.starts_with("  subject: "))
            shown.push_back(line);
    const std::string person = "  matches: anna@example.com (anna, line 1, 16 literal bytes): ";
    const std::string firm = "  matches: *@example.com (company, line 1, 12 literal bytes): ";
    EXPECT_EQ(
        (Lines{"signing: anna", "  subject: CN=Anna", person + "fit, won", firm + "it has no private key",
               "encryption: company", "  subject: CN=Company", person + "its key usage forbids it", firm + "fit, won",
               "decryption: nobody", person + "its key usage forbids it", firm + "it has no private key"}),
        shown);
}

TEST_F(BindingsToolTest, FindTellsThatAnExpiredCertificateWonForWantOfAValidOne) {
    add("old", "?*a@*\n", person("Old", {.notAfter = Time::fromNow(-3600)}));
    const Answer answer = bindings("find", {"anna@example.com"});
    EXPECT_EQ(0, answer.status) << answer.err;
    EXPECT_EQ("signing: old", linesOf(answer.out).front());
    EXPECT_NE(std::string::npos, answer.out.find("  matches: ?*a@* (old, line 1, 2 literal bytes): expired or not yet "
                                                 "valid, won for want of a valid one\n"))
        << answer.out;
}

TEST_F(BindingsToolTest, FindAnswersOneWhenNobodyServes) {
    add("anna", "anna@example.com\n", person("Anna"));
    const Answer answer = bindings("find", {"otto@example.com"});
    EXPECT_EQ(1, answer.status);
    EXPECT_EQ((Lines{"signing: nobody", "  matches: none", "encryption: nobody", "  matches: none",
                     "decryption: nobody", "  matches: none"}),
              linesOf(answer.out));
    EXPECT_EQ(nullptr, jsonOf("find", 1, {"otto@example.com"})["signing"]["winner"]);
}

TEST_F(BindingsToolTest, TheEmptyAddressIsServedByWhatMatchesEverything) {
    add("bounces", "*\n", person("Bounces"));
    add("others", "*@*\n", person("Others"));
    EXPECT_EQ("bounces", jsonOf("find", 0, {""})["signing"]["winner"]["folder"]);
}

TEST_F(BindingsToolTest, AddressesBeyondAsciiAreFound) {
    add("jorg", "j\xC3\xB6rg@m?ller.example\n", person("Jorg"));
    EXPECT_EQ("jorg", jsonOf("find", 0, {"j\xC3\xB6rg@m\xC3\xBCller.example"})["signing"]["winner"]["folder"]);
}

TEST_F(BindingsToolTest, WhatIsNoAddressIsBadUsage) {
    expectFailure(bindings("find", {"anna"}), "no mail address: anna");
    expectFailure(bindings("find", {"a\n@b"}), "no mail address: a\\x0A@b");
    expectFailure(bindings("find", {"[anna]"}), "no mail address: [anna]");
    expectFailure(bindings("find", {"++"}), "no mail address: ++");
    expectFailure(bindings("find"), "ADDRESS is required");
    expectFailure(tool({"bindings"}), "a command is missing: list, check or find");
    expectFailure(tool({"bindings", "find", "a@b"}), "--store is required");
}

TEST_F(BindingsToolTest, FindTellsThatAKindOfKeyCannotDoIt) {
    add("curve", "*@example.com\n", erin());
    const json all = jsonOf("find", 0, {"anna@example.com"});
    EXPECT_EQ("curve", all["signing"]["winner"]["folder"]);
    for (const char* purpose : {"encryption", "decryption"}) {
        EXPECT_EQ(nullptr, all[purpose]["winner"]);
        EXPECT_EQ("unsuitableKey", all[purpose]["matches"][0]["fitness"]);
    }
    EXPECT_NE(std::string::npos, bindings("find", {"anna@example.com"}).out.find("): its kind of key cannot do it\n"));
}

// check

TEST_F(BindingsToolTest, AStoreInOrderHasNoProblems) {
    add("anna", "anna@example.com\n", person("Anna"));
    add("company", "*@example.com\n*@*.example.com\n", person("Company"), false);
    const Answer answer = bindings("check");
    EXPECT_EQ(0, answer.status);
    EXPECT_EQ("identities: 2, problems: 0\n", answer.out);
    EXPECT_EQ(Lines{}, problems());
}

TEST_F(BindingsToolTest, EveryKindOfProblemIsTold) {
    add("a-expired", "", person("A", {.notAfter = Time::utc("200102030405Z")}));
    add("b-early", "", person("B", {.notBefore = Time::generalized("20990102030405Z")}));
    add("c-weak", "", person("C", {.key = Key::rsa(1024)}));
    add("d-curve", "", person("D", {.key = Key::ec("P-192")}));
    add("e-dsa", "", person("E", {.key = Key::dsa()}));
    add("f-copy", "", person("A", {.key = bob().key, .notAfter = Time::utc("200102030405Z")}));
    add("g-useless", "", person("G", {.keyUsage = 0x06}));
    add("h-other-key", "", person("H"));
    file("h-other-key/key.pem", Key::ec().pkcs8Pem());
    add("i-patterns", "alice\n*@example.com\n?*@example.com\n*@example.com\n", person("I"));
    const Answer answer = bindings("check");
    EXPECT_EQ(1, answer.status);
    const Lines lines = linesOf(answer.out);
    const Lines expected{
        "h-other-key/key.pem: the key does not belong to the certificate",
        "a-expired/cert.pem: the certificate expired at 2020-01-02T03:04:05Z",
        "b-early/cert.pem: the certificate is not valid before 2099-01-02T03:04:05Z",
        "c-weak/cert.pem: the RSA key has 1024 bits, fewer than 2048",
        "d-curve/cert.pem: the EC key has 192 bits, fewer than 224",
        "e-dsa/cert.pem: the DSA key has 1024 bits, fewer than 2048",
        "f-copy/cert.pem: the certificate expired at 2020-01-02T03:04:05Z",
        "f-copy/cert.pem: another certificate with the issuer and serial number of that of a-expired",
        "g-useless: neither signing nor encryption is possible with its key usage and its kind of key",
        "i-patterns/owners.txt:1: alice: never matches: it is no mail address, and has no wildcards",
        ("i-patterns/owners.txt:3: ?*@example.com: never wins: all that it matches is matched by *@example.com in line "
         "2 of i-patterns, which comes first"),
        ("i-patterns/owners.txt:4: *@example.com: never wins: the same pattern stands in line 2 of i-patterns, which "
         "comes first"),
        "identities: 9, problems: 12"};
    EXPECT_EQ(expected, lines);
    EXPECT_EQ((Lines{"unreadable h-other-key/key.pem", "expired a-expired/cert.pem", "notYetValid b-early/cert.pem",
                     "weakKey c-weak/cert.pem", "weakKey d-curve/cert.pem", "weakKey e-dsa/cert.pem",
                     "expired f-copy/cert.pem", "duplicate f-copy/cert.pem", "useless g-useless/",
                     "impossible i-patterns/owners.txt:1", "shadowed i-patterns/owners.txt:3",
                     "shadowed i-patterns/owners.txt:4"}),
              problems());
}

TEST_F(BindingsToolTest, KeysAtTheLimitsAreNotWeak) {
    add("rsa", "", alice());
    add("curve", "", person("Curve", {.key = Key::ec("P-224")}));
    EXPECT_EQ(Lines{}, problems());
}

TEST_F(BindingsToolTest, TheSameCertificateInTwoFoldersIsTold) {
    add("one", "", erin());
    add("two", "", erin());
    EXPECT_EQ("the same certificate as that of one", jsonOf("check", 1)["problems"][0]["reason"]);
}

TEST_F(BindingsToolTest, EqualSerialNumbersOfTwoIssuersAreInOrder) {
    add("one", "", person("One", {.serial = "7"}));
    add("two", "", person("Two", {.serial = "7"}));
    EXPECT_EQ(Lines{}, problems());
}

// A pattern that another folder has too is told only when that one answers for it always.
TEST_F(BindingsToolTest, AnEarlierPatternShadowsOnlyWhatItsIdentityReplaces) {
    const Time start = Time::fromNow(-86400);
    const Time end = Time::fromNow(86400);
    const auto of = [&](const std::string& name) { return person(name, {.notBefore = start, .notAfter = end}); };
    add("a", "*@example.com\n", of("A"));
    add("b", "*@EXAMPLE.com\n", of("B"));
    EXPECT_EQ(Lines{"shadowed b/owners.txt:1"}, problems());
    add("b", "*@example.com\n", person("B", {.notBefore = start, .notAfter = Time::fromNow(2 * 86400)}));
    EXPECT_EQ(Lines{}, problems()) << "the later one is valid for longer";
    add("b", "*@example.com\n", of("B"));
    fs::remove(work.path("store/a/key.pem"));
    EXPECT_EQ(Lines{}, problems()) << "the earlier one only encrypts";
    fs::remove(work.path("store/b/key.pem"));
    EXPECT_EQ(Lines{"shadowed b/owners.txt:1"}, problems()) << "neither does more";
    add("a", "*@example.com\n", person("A", {.notBefore = start, .notAfter = end, .keyUsage = 0x80}));
    add("b", "*@example.com\n", of("B"));
    EXPECT_EQ(Lines{}, problems()) << "the earlier one only signs";
    add("b", "*@example.com\n", person("B", {.notBefore = start, .notAfter = end, .keyUsage = 0xC0}));
    EXPECT_EQ(Lines{"shadowed b/owners.txt:1"}, problems());
}

// Stores as they come from elsewhere

TEST_F(BindingsToolTest, WindowsFilesCommentsAndEmptyFilesAreRead) {
    add("anna", "\xEF\xBB\xBF# owners\r\n\r\n  anna@example.com \r\n#end\r\n", person("Anna"));
    add("nobody", "", person("Nobody"));
    EXPECT_EQ((json{{{"pattern", "anna@example.com"}, {"line", 3}}}), jsonOf("list")["identities"][0]["owners"]);
    EXPECT_EQ("anna", jsonOf("find", 0, {"anna@example.com"})["signing"]["winner"]["folder"]);
    EXPECT_EQ(Lines{}, problems());
}

TEST_F(BindingsToolTest, PatternsThatAreNoTextAreRefusedWithTheirFile) {
    add("latin", "m\xFCller@example.com\n", person("Latin"));
    add("nul", std::string("a\0b@example.com\n", 16), person("Nul"));
    EXPECT_EQ((Lines{"unreadable latin/owners.txt", "unreadable nul/owners.txt"}), problems());
}

TEST_F(BindingsToolTest, FoldersThatCannotBeReadAreToldAndTheOthersServe) {
    add("anna", "anna@example.com\n", person("Anna"));
    add("broken", "*\n", person("Broken"));
    file("broken/cert.pem", "-----BEGIN CERTIFICATE-----\nMIIB\n-----END CERTIFICATE-----\n");
    add("open", "open@example.com\n", person("Open"));
    chmod(work.path("store/open/key.pem").c_str(), 0644);
    work.write("store/stray", "a file");
    fs::create_directory_symlink("anna", work.path("store/link"));
    EXPECT_EQ((Lines{"unreadable broken/cert.pem", "unreadable link/", "unreadable open/key.pem", "unreadable stray/"}),
              problems());
    const json found = jsonOf("find", 0, {"anna@example.com"});
    EXPECT_EQ("anna", found["signing"]["winner"]["folder"]);
    const json listed = jsonOf("list")["problems"];
    EXPECT_EQ(4U, listed.size());
    Lines skipped;
    for (const json& one : found["problems"])
        skipped.push_back(one["folder"]);
    EXPECT_EQ((Lines{"broken", "link", "stray"}), skipped) << "whose patterns match, or cannot be read";
    const std::string told = bindings("find", {"open@example.com"}).out;
    EXPECT_NE(std::string::npos, told.find("  matches: open@example.com (open, line 1, 16 literal bytes): it has no "
                                           "private key\n"));
    EXPECT_NE(std::string::npos, told.find("\nopen/key.pem: skipped: others than its owner may use it (mode 0644)"));
}

TEST_F(BindingsToolTest, NamesOfFoldersDriveNoTerminal) {
    add("evil\x1B[31m\nanna: identity", "*\n", person("Evil"));
    add("latin\xFC", "*@*\n", person("Latin"));
    EXPECT_EQ("evil\\x1B[31m\\x0Aanna: identity: identity", linesOf(bindings("list").out).front());
    const Answer found = bindings("find", {"a@b"});
    EXPECT_EQ("signing: latin\\xFC", linesOf(found.out).front());
    EXPECT_EQ(std::string::npos, found.out.find('\x1B'));
    const json all = jsonOf("list");
    EXPECT_EQ("evil\x1B[31m\nanna: identity", all["identities"][0]["folder"]);
    EXPECT_EQ("latin\\xFC", all["identities"][1]["folder"]);
}

TEST_F(BindingsToolTest, AStoreThatIsNoDirectoryCannotBeLoaded) {
    for (const char* command : {"list", "check"}) {
        expectFailure(tool({"bindings", command, "--store", "nowhere"}), "cannot load the store nowhere: ");
        expectFailure(tool({"bindings", command, "--store", "store\x1B"}), "cannot load the store store\\x1B: ");
    }
    expectFailure(tool({"bindings", "find", "a@b", "--store", "nowhere"}), "No such file or directory");
}

// No answer within the time that a test has would be a failure; the steps are counted where patterns are matched.
TEST_F(BindingsToolTest, LongPatternsAndAddressesAreAnswered) {
    std::string owners;
    std::string marks;
    for (int i = 0; i < 5000; ++i)
        marks += "?a";
    for (const std::string& pattern :
         {std::string(10'000, 'a') + "@example.com", std::string(10'000, '*') + "b", std::string(10'000, '?'),
          "*" + marks + "b*", "*" + std::string(10'000, 'a') + "?b*", marks})
        for (int i = 0; i < 10; ++i)
            owners += pattern + "\n";
    add("hostile", owners, person("Hostile"));
    add("anna", "*@example.com\n", person("Anna"));
    const std::string longest = std::string(64, 'a') + "@" + std::string(60, 'a') + "." + std::string(60, 'a') + "." +
                                std::string(59, 'a') + ".bb";
    EXPECT_EQ("hostile", jsonOf("find", 0, {longest + "b"})["signing"]["winner"]["folder"])
        << "ten thousand stars and a b";
    EXPECT_EQ("anna", jsonOf("find", 0, {"anna@example.com"})["signing"]["winner"]["folder"]);
    EXPECT_EQ(59U, problems().size()) << "all but the first one with stars";
    const Answer refused = bindings("find", {std::string(10'000, 'a') + "@example.com"});
    expectFailure(refused, "no mail address: aaaa");
    EXPECT_LT(refused.err.size(), 400U);
}

// sign

class StoreSignTest : public BindingsToolTest {
protected:
    void SetUp() override {
        BindingsToolTest::SetUp();
        add("alice", "alice@example.com\n", alice());
        file("alice/chain.pem", root().certificate.pem());
        add("others", "*@example.com\n", person("Others"));
        add("old", "old@example.com\n", person("Old", {.notAfter = Time::fromNow(-3600)}));
        add("partner", "partner@partner.example\n", person("Partner"), false);
        work.write("body", sampleBody());
        before = work.names();
    }
    Answer sign(const std::string& from, std::vector<std::string> more = {}) {
        std::vector<std::string> arguments{"sign", "--store", "store", "--from", from, "--in", "body", "--out", "sig"};
        arguments.insert(arguments.end(), more.begin(), more.end());
        return tool(arguments);
    }
};

TEST_F(StoreSignTest, SignsWithTheIdentityThatServesTheSender) {
    for (const auto& [from, pem] : {std::pair<std::string, std::string>{"alice@EXAMPLE.com", alice().certificate.pem()},
                                    {"bob@example.com", work.read("store/others/cert.pem")}}) {
        const Answer answer = sign(from);
        ASSERT_EQ(0, answer.status) << answer.err;
        EXPECT_EQ("", answer.err);
        const Answer judge =
            run(Command{.arguments = {"openssl", "cms", "-verify", "-binary", "-inform", "DER", "-in", "sig",
                                      "-content", "body", "-noverify", "-signer", "signer.pem", "-out", "verified"},
                        .directory = work.directory()});
        ASSERT_EQ(0, judge.status) << judge.err;
        EXPECT_EQ(sampleBody(), work.read("verified"));
        EXPECT_EQ(pem, work.read("signer.pem"));
    }
}

TEST_F(StoreSignTest, TheChainOfTheStoreGoesWithTheSignature) {
    ASSERT_EQ(0, sign("alice@example.com").status);
    const Answer told = tool({"inspect", "--json", "sig"});
    const json object = json::parse(told.out).at(0);
    EXPECT_EQ(2U, object["certificates"].size());
}

TEST_F(StoreSignTest, NobodyForTheSenderIsTold) {
    expectRefusal(sign("a@elsewhere.example"), "the store store has nothing for signing for a@elsewhere.example");
    expectRefusal(sign("partner@partner.example"),
                  "the store store has nothing for signing for partner@partner.example");
    expectFailure(sign("nobody"), "no mail address: nobody");
    folder("empty");
    file("empty/owners.txt", "a@elsewhere.example\n");
    expectRefusal(sign("a@elsewhere.example"), "and 1 of its files or folders are skipped");
}

TEST_F(StoreSignTest, AnExpiredCertificateDoesNotSign) {
    fs::remove_all(work.path("store/others"));
    expectRefusal(
        sign("old@example.com"),
        "the certificate of old in store, found for signing for old@example.com, is expired or not yet valid");
}

TEST_F(StoreSignTest, TheStoreStandsInsteadOfCertificateAndKey) {
    work.write("alice.pem", alice().certificate.pem());
    before = work.names();
    for (const char* option : {"--cert", "--key", "--chain", "--passphrase-file"})
        expectFailure(sign("alice@example.com", {option, "alice.pem"}), std::string(option) + " excludes --store");
    expectFailure(tool({"sign", "--store", "store"}), "--store requires --from");
    expectFailure(tool({"sign", "--from", "a@b"}), "--from requires --store");
    expectFailure(tool({"sign"}), "--cert is required");
    expectFailure(tool({"sign", "--store", "nowhere", "--from", "a@b"}), "cannot load the store nowhere");
}

// encrypt and decrypt

class StoreEncryptTest : public BindingsToolTest {
protected:
    void SetUp() override {
        BindingsToolTest::SetUp();
        add("alice", "alice@example.com\n*@sales.example.com\n", alice());
        add("old", "old@example.com\n", person("Old", {.key = bob().key, .notAfter = Time::fromNow(-3600)}));
        add("curve", "curve@example.com\n", erin());
        add("signer", "signer@example.com\n", person("Signer", {.key = carol().key, .keyUsage = 0x80}));
        work.write("body", sampleBody());
        work.write("bob.pem", bob().certificate.pem());
        work.write("bob.key", bob().key.pkcs8Pem());
        before = work.names();
    }
    Answer encrypt(const std::vector<std::string>& more) {
        std::vector<std::string> arguments{"encrypt", "--in", "body", "--out", "msg"};
        arguments.insert(arguments.end(), more.begin(), more.end());
        return tool(arguments);
    }
    Answer encryptTo(const std::vector<std::string>& addresses, std::vector<std::string> more = {}) {
        more.insert(more.end(), {"--store", "store"});
        for (const std::string& address : addresses)
            more.insert(more.end(), {"--to-address", address});
        return encrypt(more);
    }
    void expectDecrypted(const std::vector<std::string>& with) {
        std::vector<std::string> arguments{"decrypt", "--in", "msg", "--out", "clear"};
        arguments.insert(arguments.end(), with.begin(), with.end());
        const Answer answer = tool(arguments);
        EXPECT_EQ(0, answer.status) << answer.err;
        EXPECT_EQ(sampleBody(), work.read("clear"));
        fs::remove(work.path("clear"));
    }
    std::size_t recipients() { return json::parse(tool({"inspect", "--json", "msg"}).out).at(0)["recipients"].size(); }
};

TEST_F(StoreEncryptTest, WhomTheStoreNamesCanDecrypt) {
    const Answer answer = encryptTo({"alice@EXAMPLE.com"});
    ASSERT_EQ(0, answer.status) << answer.err;
    const Answer judge =
        run(Command{.arguments = {"openssl", "cms", "-decrypt", "-binary", "-inform", "DER", "-in", "msg", "-recip",
                                  "store/alice/cert.pem", "-inkey", "store/alice/key.pem", "-out", "judged"},
                    .directory = work.directory()});
    ASSERT_EQ(0, judge.status) << judge.err;
    EXPECT_EQ(sampleBody(), work.read("judged"));
    expectDecrypted({"--store", "store"});
}

TEST_F(StoreEncryptTest, RecipientsOfTheStoreAndOfFilesGoTogether) {
    ASSERT_EQ(0, encryptTo({"alice@example.com", "x@sales.example.com"}, {"--to", "bob.pem"}).status);
    EXPECT_EQ(2U, recipients()) << "one certificate that serves two addresses is one recipient";
    expectDecrypted({"--store", "store"});
    expectDecrypted({"--cert", "bob.pem", "--key", "bob.key"});
    expectDecrypted({"--cert", "bob.pem", "--key", "bob.key", "--store", "store"});
}

TEST_F(StoreEncryptTest, AnExpiredIdentityDecryptsButIsNotEncryptedTo) {
    ASSERT_EQ(0, encrypt({"--to", "store/old/cert.pem"}).status);
    expectDecrypted({"--store", "store"});
    fs::remove(work.path("msg"));
    expectRefusal(encryptTo({"old@example.com"}),
                  "the certificate of old in store, found for encryption for old@example.com, is expired");
}

TEST_F(StoreEncryptTest, WhoCannotBeEncryptedToIsTold) {
    expectRefusal(encryptTo({"alice@example.com", "nobody@elsewhere.example"}),
                  "the store store has nothing for encryption for nobody@elsewhere.example");
    expectRefusal(encryptTo({"signer@example.com"}), "has nothing for encryption for signer@example.com");
    expectRefusal(encryptTo({"curve@example.com"}), "has nothing for encryption for curve@example.com");
    expectFailure(encryptTo({"alice"}), "no mail address: alice");
    expectFailure(encrypt({"--store", "store"}), "--store requires --to-address");
    expectFailure(encrypt({"--to-address", "a@b"}), "--to-address requires --store");
    expectFailure(encrypt({"--store", "nowhere", "--to-address", "a@b"}), "cannot load the store nowhere");
}

TEST_F(StoreEncryptTest, AStoreWithoutTheKeyDoesNotDecrypt) {
    ASSERT_EQ(0, encrypt({"--to", "bob.pem"}).status);
    const Answer answer = tool({"decrypt", "--store", "store", "--in", "msg", "--out", "clear"});
    EXPECT_EQ(1, answer.status);
    EXPECT_NE(std::string::npos, answer.err.find("no key for it")) << answer.err;
    EXPECT_FALSE(work.exists("clear"));
}

// The key that nobody may use as it lies there was called missing, and nothing told of the file.
TEST_F(StoreEncryptTest, AKeyThatIsSkippedIsNamedToWhoDecryptsOrSigns) {
    ASSERT_EQ(0, encryptTo({"alice@example.com"}).status);
    fs::permissions(work.path("store/alice/key.pem"), fs::perms(0644));
    const std::string warning = "norvcrypt: warning: alice/key.pem in the store is skipped: others than its owner may "
                                "use it (mode 0644); chmod 600 makes it private\n";
    const Answer decrypted = tool({"decrypt", "--store", "store", "--in", "msg", "--out", "clear"});
    EXPECT_EQ(1, decrypted.status);
    EXPECT_EQ(0U, decrypted.err.find(warning)) << decrypted.err;
    EXPECT_NE(std::string::npos, decrypted.err.find("no key for it")) << decrypted.err;
    const Answer sent =
        tool({"sign", "--store", "store", "--from", "alice@example.com", "--in", "body", "--out", "sig"});
    EXPECT_EQ(1, sent.status);
    EXPECT_EQ(0U, sent.err.find(warning)) << sent.err;
    const Answer other = encryptTo({"alice@example.com"});
    EXPECT_EQ("", other.err) << "no key is asked for";
}

} // namespace
