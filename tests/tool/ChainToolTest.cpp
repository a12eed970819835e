// norvcrypt chain: the way from a certificate to whom is believed, and where it breaks.

#include "support/ToolTest.h"

#include <nlohmann/json.hpp>

#include <regex>

using namespace interop;
using namespace norvauthority;
using nlohmann::json;

namespace {

/// Judged by noon of 1 June 2026.
constexpr const char* moment = "2026-06-01T12:00:00Z";
const Time start = Time::utc("250101000000Z");
const Time end = Time::utc("301231235959Z");

Identity certificate(const std::string& name, const Identity* issuer, CertificateRequest request = {}) {
    static int serials = 0x100;
    request.subject = {{"O", "Tree"}, {"CN", name}};
    request.key = Key::ec();
    request.issuer = issuer;
    request.serial = std::to_string(++serials);
    request.notBefore = start;
    if (request.notAfter.der != Time::utc("260301000000Z").der)
        request.notAfter = end;
    return issue(request);
}

class ChainToolTest : public ToolTest {
protected:
    void SetUp() override {
        top = certificate("Top", nullptr, {.ca = true, .keyUsage = 0x06});
        middle = certificate("Middle", &top, {.ca = true, .keyUsage = 0x06});
        anna = certificate("Anna", &middle, {.alternativeNames = {GeneralName::email("anna@example.org")}});
        work.write("top.pem", top.certificate.pem());
        work.write("middle.pem", middle.certificate.pem());
        work.write("anna.pem", anna.certificate.pem());
        before = work.names();
    }

    Answer chain(const std::vector<std::string>& more) {
        std::vector<std::string> arguments{"chain", "--at", moment, "--ca", "top.pem"};
        arguments.insert(arguments.end(), more.begin(), more.end());
        return tool(arguments);
    }
    static std::string heading(const std::string& verdict) {
        return ": " + verdict + ", judged by " + moment + " for any purpose, revocation lists not looked at";
    }

    Identity top;
    Identity middle;
    Identity anna;
};

TEST_F(ChainToolTest, FromTheRootDown) {
    const Answer answer = chain({"anna.pem", "--untrusted", "middle.pem"});
    EXPECT_EQ(0, answer.status) << answer.err;
    EXPECT_EQ("", answer.err);
    EXPECT_EQ((std::vector<std::string>{"anna.pem" + heading("accepted"),
                                        "CN=Top,O=Tree (believed, until 2030-12-31T23:59:59Z)",
                                        "`- CN=Middle,O=Tree (until 2030-12-31T23:59:59Z)",
                                        "   `- CN=Anna,O=Tree (until 2030-12-31T23:59:59Z)"}),
              linesOf(answer.out));
}

TEST_F(ChainToolTest, OtherCertificatesOfTheFileHelp) {
    work.write("bundle.pem", anna.certificate.pem() + middle.certificate.pem());
    EXPECT_EQ(0, chain({"bundle.pem"}).status);
    const Answer input = tool({"chain", "--ca", "top.pem", "-", "--at", moment}, work.read("bundle.pem"));
    EXPECT_EQ(0, input.status) << input.err;
    EXPECT_EQ("standard input" + heading("accepted"), linesOf(input.out).at(0));
    // The first is the one that is judged.
    work.write("turned.pem", middle.certificate.pem() + anna.certificate.pem());
    EXPECT_EQ(3U, linesOf(chain({"turned.pem"}).out).size());
}

TEST_F(ChainToolTest, TheReasonStandsAtTheLinkThatBreaks) {
    const Identity expired =
        certificate("Middle", &top, {.notAfter = Time::utc("260301000000Z"), .ca = true, .keyUsage = 0x06});
    work.write("expired.pem", expired.certificate.pem());
    work.write("bert.pem", certificate("Bert", &expired).certificate.pem());
    const Answer answer = chain({"bert.pem", "--untrusted", "expired.pem"});
    EXPECT_EQ(1, answer.status) << answer.err;
    const std::vector<std::string> lines = linesOf(answer.out);
    ASSERT_EQ(6U, lines.size()) << answer.out;
    EXPECT_EQ("bert.pem" + heading("REFUSED"), lines[0]);
    EXPECT_EQ("CN=Top,O=Tree (believed, until 2030-12-31T23:59:59Z)", lines[1]);
    EXPECT_EQ("`- CN=Middle,O=Tree (until 2026-03-01T00:00:00Z)", lines[2]);
    EXPECT_EQ(0U, lines[3].find("      reason (certificate-expired): ")) << lines[3];
    EXPECT_NE(std::string::npos, lines[3].find("CN=Middle,O=Tree")) << lines[3];
    EXPECT_EQ(0U, lines[4].find("        what to do: ")) << lines[4];
    EXPECT_EQ("   `- CN=Bert,O=Tree (until 2030-12-31T23:59:59Z)", lines[5]);
}

TEST_F(ChainToolTest, WhoIsMissingStandsOnTop) {
    const Answer answer = chain({"anna.pem"});
    EXPECT_EQ(1, answer.status) << answer.err;
    const std::vector<std::string> lines = linesOf(answer.out);
    ASSERT_LE(4U, lines.size()) << answer.out;
    EXPECT_EQ("? CN=Middle,O=Tree is not there", lines[1]);
    EXPECT_EQ("`- CN=Anna,O=Tree (until 2030-12-31T23:59:59Z)", lines[2]);
    EXPECT_EQ(0U, lines[3].find("      reason (issuer-missing): ")) << lines[3];
}

TEST_F(ChainToolTest, RevocationOfEachCertificate) {
    work.write("lists.pem",
               issueList({.issuer = &top, .thisUpdate = start, .nextUpdate = end, .crlNumber = "1"}).pem() +
                   issueList({.issuer = &middle,
                              .revoked = {{.serial = anna.serial, .date = start}},
                              .thisUpdate = start,
                              .nextUpdate = end,
                              .crlNumber = "1"})
                       .pem());
    const Answer answer = chain({"anna.pem", "--untrusted", "middle.pem", "--crl", "lists.pem"});
    EXPECT_EQ(1, answer.status) << answer.err;
    const std::vector<std::string> lines = linesOf(answer.out);
    ASSERT_LE(5U, lines.size()) << answer.out;
    EXPECT_EQ("`- CN=Middle,O=Tree (until 2030-12-31T23:59:59Z, not revoked)", lines[2]);
    EXPECT_EQ("   `- CN=Anna,O=Tree (until 2030-12-31T23:59:59Z, revoked)", lines[3]);
    EXPECT_EQ(0U, lines[4].find("         reason (revoked): ")) << lines[4];
}

TEST_F(ChainToolTest, ForWhomAndForWhat) {
    const std::vector<std::string> anywhere{"anna.pem", "--untrusted", "middle.pem"};
    const auto with = [&](const std::vector<std::string>& more) {
        std::vector<std::string> all = anywhere;
        all.insert(all.end(), more.begin(), more.end());
        return chain(all);
    };
    EXPECT_EQ("  the certificate is for anna@example.org", linesOf(with({"--from", "anna@example.org"}).out).back());
    const Answer other = with({"--from", "bert@example.org"});
    EXPECT_EQ(1, other.status);
    EXPECT_NE(std::string::npos, other.out.find("\n  reason (sender-differs): ")) << other.out;
    work.write("signs.pem", certificate("Signs", &middle, {.keyUsage = 0x80}).certificate.pem());
    EXPECT_EQ(0, chain({"signs.pem", "--untrusted", "middle.pem", "--purpose", "sign"}).status);
    const Answer encrypting = chain({"signs.pem", "--untrusted", "middle.pem", "--purpose", "encrypt"});
    EXPECT_EQ(1, encrypting.status);
    EXPECT_NE(std::string::npos, encrypting.out.find("reason (key-usage-forbids): ")) << encrypting.out;
}

TEST_F(ChainToolTest, Json) {
    const Answer answer = chain({"anna.pem", "--json"});
    EXPECT_EQ(1, answer.status) << answer.err;
    const json facts = json::parse(answer.out);
    EXPECT_EQ("anna.pem", facts["file"]);
    EXPECT_EQ(json::array(), facts["problems"]);
    EXPECT_EQ(false, facts["trust"]["accepted"]);
    EXPECT_EQ("any", facts["trust"]["purpose"]);
    ASSERT_EQ(1U, facts["trust"]["reasons"].size());
    const json& reason = facts["trust"]["reasons"][0];
    EXPECT_EQ("issuer-missing", reason["code"]);
    EXPECT_EQ(1, reason["number"]);
    EXPECT_EQ(0, reason["depth"]);
    EXPECT_EQ(json({{"subject", "CN=Anna,O=Tree"}, {"sha256", anna.certificate.sha256()}}), reason["certificate"]);
    ASSERT_EQ(1U, facts["trust"]["chain"].size());
    EXPECT_EQ(json({{"depth", 0},
                    {"subject", "CN=Anna,O=Tree"},
                    {"issuer", "CN=Middle,O=Tree"},
                    {"serial", "0" + anna.serial},
                    {"sha256", anna.certificate.sha256()},
                    {"notBefore", "2025-01-01T00:00:00Z"},
                    {"notAfter", "2030-12-31T23:59:59Z"},
                    {"anchor", false},
                    {"fromMessage", true},
                    {"revocation", "not-looked-at"}}),
              facts["trust"]["chain"][0]);
}

TEST_F(ChainToolTest, KeysOfTheJsonInTheirOrder) {
    const auto keysOf = [](const nlohmann::ordered_json& object) {
        std::vector<std::string> keys;
        for (const auto& [key, value] : object.items())
            keys.push_back(key);
        return keys;
    };
    const auto facts = nlohmann::ordered_json::parse(chain({"anna.pem", "--json", "--from", "anna@example.org"}).out);
    EXPECT_EQ((std::vector<std::string>{"file", "trust", "problems"}), keysOf(facts));
    EXPECT_EQ((std::vector<std::string>{"accepted", "judgedAt", "validUntil", "purpose", "revocation", "reasons",
                                        "notes", "chain", "sender"}),
              keysOf(facts["trust"]));
    EXPECT_EQ((std::vector<std::string>{"code", "number", "depth", "certificate", "text", "advice"}),
              keysOf(facts["trust"]["reasons"][0]));
}

TEST_F(ChainToolTest, HostileNamesForgeNoLine) {
    work.write("evil.pem", issue({.subject = {{"CN", "evil\nCN=Top (believed)\x1B[2J"}},
                                  .key = Key::ec(),
                                  .issuer = &top,
                                  .serial = "666",
                                  .notBefore = start,
                                  .notAfter = Time::utc("260301000000Z")})
                               .certificate.pem());
    const Answer answer = chain({"evil.pem"});
    EXPECT_EQ(1, answer.status) << answer.err;
    EXPECT_EQ(5U, linesOf(answer.out).size()) << answer.out;
    EXPECT_EQ(std::string::npos, answer.out.find('\x1B'));
    const json facts = json::parse(chain({"evil.pem", "--json"}).out);
    EXPECT_EQ("certificate-expired", facts["trust"]["reasons"][0]["code"]);
}

TEST_F(ChainToolTest, WhatCannotBeAsked) {
    expectFailure(tool({"chain", "anna.pem"}), "--ca is required");
    expectFailure(tool({"chain", "--ca", "top.pem"}), "CERT is required");
    expectFailure(chain({"none"}), "cannot open none: No such file or directory");
    expectFailure(tool({"chain", "anna.pem", "--ca", "top.pem", "--at", "signing-time"}), "give --at a moment");
    for (const char* policy : {"", "1.2..3", "1.2.3.", ".1.2"})
        expectFailure(tool({"chain", "anna.pem", "--ca", "top.pem", "--policy", policy}), "not an object identifier");
    work.write("text", std::string("no certificate"));
    before = work.names();
    expectFailure(chain({"text"}), "text: no certificate, list, key or CMS structure");
    expectFailure(tool({"chain", "anna.pem", "--ca", "text"}), "there is nobody to believe: ");
}

TEST_F(ChainToolTest, HelpTellsAnExampleOfEachOption) {
    const Answer answer = tool({"chain", "--help"});
    EXPECT_EQ(0, answer.status);
    const std::string text = std::regex_replace(answer.out, std::regex("\\s+"), " ");
    for (const char* option :
         {"--ca", "--untrusted", "--crl", "--revocation", "--at", "--purpose", "--policy", "--from"})
        EXPECT_NE(std::string::npos, text.find(std::string(": ") + option + " ")) << option;
}

} // namespace
