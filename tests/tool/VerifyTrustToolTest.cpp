// norvcrypt verify --ca: who is believed, by what, and what is said about it.

#include "support/SigningToolTest.h"
#include "support/Terminal.h"

#include <nlohmann/json.hpp>

#include <filesystem>
#include <set>

using namespace interop;
using namespace norvauthority;
using nlohmann::json;

namespace {

constexpr const char* asked = " for signing, revocation lists not looked at";

class VerifyTrustToolTest : public SigningToolTest {
protected:
    void SetUp() override {
        SigningToolTest::SetUp();
        signBody();
        work.write("other.pem",
                   issue({.subject = {{"CN", "Other Root"}}, .key = Key::ec(), .ca = true}).certificate.pem());
        before = work.names();
    }

    static std::vector<std::string> arguments(const std::vector<std::string>& more) {
        std::vector<std::string> all{"verify", "--signature", "sig", "--in", "body"};
        all.insert(all.end(), more.begin(), more.end());
        return all;
    }
    Answer verify(const std::vector<std::string>& more) { return tool(arguments(more)); }
    Answer believing(const std::vector<std::string>& more) {
        std::vector<std::string> all{"--ca", "root.pem"};
        all.insert(all.end(), more.begin(), more.end());
        return verify(all);
    }
    /// A good signature of alice, who is believed.
    static void expectAccepted(const Answer& answer, const std::string& by = asked) {
        EXPECT_EQ(0, answer.status) << answer.out << answer.err;
        EXPECT_EQ("", answer.err);
        expectTrustLine("accepted, judged by ", by, answer);
    }
    /// A good signature, and not believed for that reason.
    static void expectRefused(const std::string& code, const Answer& answer, const std::string& by = asked) {
        EXPECT_EQ(1, answer.status) << answer.out << answer.err;
        EXPECT_EQ("", answer.err);
        expectTrustLine("REFUSED, judged by ", by, answer);
        EXPECT_NE(std::string::npos, answer.out.find("\n  reason (" + code + "): ")) << answer.out;
    }
    static void expectTrustLine(const std::string& begin, const std::string& end, const Answer& answer) {
        const std::vector<std::string> lines = linesOf(answer.out);
        ASSERT_LT(3U, lines.size()) << answer.out << answer.err;
        EXPECT_EQ(0U, lines[0].find("signer 1: good signature, certificate SHA-256 ")) << answer.out;
        EXPECT_EQ(0U, lines[1].find("trust in signer 1: " + begin)) << answer.out;
        EXPECT_TRUE(lines[1].ends_with(end)) << answer.out;
        EXPECT_EQ(std::string::npos, answer.out.find(trustLine));
    }
};

TEST_F(VerifyTrustToolTest, AcceptedWhenTheRootIsBelieved) {
    const Answer answer = believing({});
    expectAccepted(answer);
    EXPECT_EQ(bodyLine("body", body.size()), linesOf(answer.out).at(2));
    EXPECT_EQ(4U, linesOf(answer.out).size()) << answer.out;
}

TEST_F(VerifyTrustToolTest, RefusedWhenSomebodyElseIsBelieved) {
    const Answer answer = verify({"--ca", "other.pem"});
    expectRefused("issuer-missing", answer);
    EXPECT_NE(std::string::npos, answer.out.find("CN=Interop Root,O=Interop,C=DE")) << answer.out;
    EXPECT_NE(std::string::npos, answer.out.find("\n    what to do: ")) << answer.out;
}

TEST_F(VerifyTrustToolTest, SeveralRootsInFilesAndDirectories) {
    expectAccepted(verify({"--ca", "other.pem", "--ca", "root.pem"}));
    std::filesystem::create_directory(work.path("roots"));
    work.write("roots/other.der",
               issue({.subject = {{"CN", "Third Root"}}, .key = Key::ec(), .ca = true}).certificate.der);
    work.write("roots/root", root().certificate.pem());
    expectAccepted(verify({"--ca", "roots"}));
}

TEST_F(VerifyTrustToolTest, ByAnotherMoment) {
    expectRefused("certificate-not-yet-valid", believing({"--at", "2001-02-03"}),
                  "2001-02-03T00:00:00Z for signing, revocation lists not looked at");
    expectRefused("certificate-not-yet-valid", believing({"--at", "2001-02-03T04:05:06Z"}),
                  "2001-02-03T04:05:06Z for signing, revocation lists not looked at");
    expectRefused("certificate-expired", believing({"--at", "2099-12-31"}),
                  "2099-12-31T00:00:00Z for signing, revocation lists not looked at");
}

TEST_F(VerifyTrustToolTest, MomentsThatAreNone) {
    for (const char* text :
         {"", "tomorrow", "2026-13-01", "2026-02-29", "2026-2-1", "2026-06-01 12:00:00", "1969-12-31",
          "2026-06-01T24:00:00Z", "2026-06-01T12:60:00Z", "2026-06-01T12:00:60Z", "2026-06-01T12:00:00"})
        expectFailure(believing({"--at", text}), std::string("--at ") + text +
                                                     " is no moment: give one as 2026-06-01, 2026-06-01T12:00:00Z or "
                                                     "signing-time");
    expectAccepted(believing({"--at", "2028-02-29"}), "2028-02-29T00:00:00Z" + std::string(asked));
}

TEST_F(VerifyTrustToolTest, ByTheTimeThatTheSignerStates) {
    expectAccepted(believing({"--at", "signing-time"}), " (now: the signer states no time)" + std::string(asked));
    signBody({"--signed-attributes"});
    expectAccepted(believing({"--at", "signing-time"}), " (when the signer says to have signed)" + std::string(asked));
}

TEST_F(VerifyTrustToolTest, RevocationLists) {
    work.write("empty.crl", issueList({.issuer = &root(), .crlNumber = "1"}).pem());
    work.write("alice.crl", issueList({.issuer = &root(), .revoked = {{.serial = "2001"}}, .crlNumber = "2"}).pem());
    const std::string available = " for signing, revocation lists looked at where there are any";
    const std::string required = " for signing, revocation lists required";
    expectAccepted(believing({"--crl", "empty.crl"}), available);
    expectRefused("revoked", believing({"--crl", "alice.crl"}), available);
    expectRefused("revoked", believing({"--crl", "alice.crl", "--revocation", "required"}), required);
    expectAccepted(believing({"--crl", "alice.crl", "--revocation", "none"}));
    expectAccepted(believing({"--crl", "empty.crl", "--revocation", "required"}), required);
    expectRefused("list-missing", believing({"--revocation", "required"}), required);
}

TEST_F(VerifyTrustToolTest, TheSenderOfTheMail) {
    const Answer answer = believing({"--from", "alice@Example.ORG"});
    expectAccepted(answer);
    EXPECT_EQ("  the certificate is for alice@Example.ORG", linesOf(answer.out).at(2));
    const Answer other = believing({"--from", "bob@example.org"});
    expectRefused("sender-differs", other);
    EXPECT_NE(std::string::npos, other.out.find("alice@example.org")) << other.out;
    expectRefused("sender-differs", believing({"--from", "alice@example.org", "--from", "bob@example.org"}));
    expectRefused("sender-differs", believing({"--from", "Alice@example.org"}));
    expectFailure(believing({"--from", "nobody\n"}), "no mail address: nobody\\x0A");
}

TEST_F(VerifyTrustToolTest, Purposes) {
    expectAccepted(believing({"--purpose", "encrypt"}), " for encryption, revocation lists not looked at");
    expectAccepted(believing({"--purpose", "any"}), " for any purpose, revocation lists not looked at");
    expectFailure(believing({"--purpose", "everything"}), "--purpose");
    expectFailure(believing({"--revocation", "sometimes"}), "--revocation");
}

TEST_F(VerifyTrustToolTest, Policies) {
    expectRefused("policy-missing", believing({"--policy", "1.2.3.4"}));
    expectFailure(believing({"--policy", "no policy"}), "no policy");
}

/// The signer sends its own certificate alone: what stands between it and the root is in the store.
TEST_F(VerifyTrustToolTest, CertificatesOfTheStoreHelpToFindAWay) {
    const Identity middle = issue({.subject = {{"CN", "Middle"}},
                                   .key = Key::ec(),
                                   .issuer = &root(),
                                   .serial = "77",
                                   .ca = true,
                                   .keyUsage = 6});
    const Identity dora = issue({.subject = {{"CN", "dora"}},
                                 .key = Key::ec(),
                                 .issuer = &middle,
                                 .serial = "78",
                                 .alternativeNames = {GeneralName::email("dora@example.org")}});
    work.write("dora.pem", dora.certificate.pem());
    work.write("dora.key", dora.key.pkcs8Pem());
    work.write("mail", std::string("From: dora@example.org\nSubject: x\n\nhello\n"));
    for (const char* const folder : {"store/middle", "empty"})
        std::filesystem::create_directories(work.path(folder));
    work.write("store/middle/cert.pem", middle.certificate.pem());
    work.write("store/middle/owners.txt", std::string("middle@example.org\n"));
    const auto made = [&](const std::vector<std::string>& arguments) {
        const Answer answer = tool(arguments);
        EXPECT_EQ(0, answer.status) << answer.err;
    };
    made({"sign", "--cert", "dora.pem", "--key", "dora.key", "--in", "body", "--out", "by-dora"});
    made({"smime", "sign", "--cert", "dora.pem", "--key", "dora.key", "--in", "mail", "--out", "signed"});
    for (const std::vector<std::string>& command :
         {std::vector<std::string>{"verify", "--signature", "by-dora", "--in", "body"},
          std::vector<std::string>{"smime", "verify", "--in", "signed"}}) {
        const auto with = [&](const std::string& store) {
            std::vector<std::string> all = command;
            all.insert(all.end(), {"--ca", "root.pem", "--store", store});
            return tool(all);
        };
        const Answer refused = with("empty");
        EXPECT_EQ(1, refused.status) << refused.err;
        EXPECT_NE(std::string::npos, refused.out.find("issuer-missing")) << refused.out;
        const Answer accepted = with("store");
        EXPECT_EQ(0, accepted.status) << accepted.out << accepted.err;
    }
}

TEST_F(VerifyTrustToolTest, TrustCannotBeAskedWithoutAnybodyToBelieve) {
    for (const char* option : {"--untrusted", "--crl", "--from", "--policy"})
        expectFailure(verify({option, "alice.pem"}), std::string(option) + " requires --ca");
    expectFailure(verify({"--revocation", "none"}), "--revocation requires --ca");
    expectFailure(verify({"--at", "2026-06-01"}), "--at requires --ca");
    expectFailure(verify({"--purpose", "sign"}), "--purpose requires --ca");
    expectFailure(verify({"--ca", "none"}), "cannot read none");
    expectFailure(verify({"--ca", "body"}), "there is nobody to believe: ");
    expectFailure(believing({"--crl", "none"}), "cannot read none");
    expectFailure(believing({"--untrusted", "none"}), "cannot read none");
}

TEST_F(VerifyTrustToolTest, WhatIsNotUsedIsTold) {
    std::filesystem::create_directory(work.path("roots"));
    work.write("roots/README", std::string("not a certificate"));
    work.write("roots/root.pem", root().certificate.pem());
    const Answer answer = verify({"--ca", "roots"});
    EXPECT_EQ(0, answer.status) << answer.out;
    ASSERT_EQ(1U, linesOf(answer.err).size()) << answer.err;
    EXPECT_EQ(0U, answer.err.find("norvcrypt: not used: roots/README: ")) << answer.err;
    const Answer inJson = verify({"--ca", "roots", "--json"});
    EXPECT_EQ("", inJson.err);
    const json problems = json::parse(inJson.out).at("problems");
    ASSERT_EQ(1U, problems.size());
    EXPECT_EQ(0U, problems[0].get<std::string>().find("roots/README: ")) << inJson.out;
}

TEST_F(VerifyTrustToolTest, OnlyWhoSignedIsAskedAbout) {
    work.write("body", std::string("another one"));
    const Answer answer = believing({});
    EXPECT_EQ(1, answer.status);
    EXPECT_EQ("trust in signer 1: not judged, there is no good signature", linesOf(answer.out).at(1));
    const json facts = json::parse(believing({"--json"}).out);
    EXPECT_EQ("refused", facts["verdict"]);
    EXPECT_FALSE(facts["signers"][0].contains("trust"));
}

TEST_F(VerifyTrustToolTest, TheContentOfWhoIsNotBelievedIsNotWritten) {
    ASSERT_EQ(0, sign({"--in", "body", "--attached", "--out", "attached"}).status);
    const auto write = [&](const char* ca) {
        return tool({"verify", "--signature", "attached", "--embedded", "--out", "content", "--ca", ca});
    };
    EXPECT_EQ(1, write("other.pem").status);
    EXPECT_FALSE(work.exists("content"));
    EXPECT_EQ(0, write("root.pem").status);
    EXPECT_EQ(body, work.read("content"));
}

TEST_F(VerifyTrustToolTest, AnOutputReplacesNoFileThatIsReadForTrust) {
    ASSERT_EQ(0, sign({"--in", "body", "--attached", "--out", "attached"}).status);
    std::filesystem::create_directory(work.path("roots"));
    work.write("roots/root.pem", root().certificate.pem());
    before = work.names();
    for (const char* ca : {"roots/root.pem", "roots"})
        expectFailure(tool({"verify", "--signature", "attached", "--embedded", "--out", "roots/root.pem", "--ca", ca}),
                      "input");
    EXPECT_EQ(root().certificate.pem(), work.read("roots/root.pem"));
}

TEST_F(VerifyTrustToolTest, JsonOfAnAcceptedSigner) {
    const Answer answer = believing({"--json", "--from", "alice@example.org", "--at", "2028-01-01"});
    EXPECT_EQ(0, answer.status) << answer.err;
    EXPECT_EQ("", answer.err);
    const json facts = json::parse(answer.out);
    EXPECT_EQ("good", facts["verdict"]);
    EXPECT_EQ(json({{"file", "body"}, {"embedded", false}, {"length", body.size()}}), facts["body"]);
    EXPECT_EQ(true, facts["trustChecked"]);
    EXPECT_EQ(json::array(), facts["problems"]);
    ASSERT_EQ(1U, facts["signers"].size());
    const json& signer = facts["signers"][0];
    EXPECT_EQ("good", signer["verdict"]);
    EXPECT_FALSE(signer.contains("reason"));
    EXPECT_EQ("CN=alice,O=Interop,C=DE", signer["certificate"]["subject"]);
    EXPECT_EQ("2001", signer["certificate"]["serial"]);
    EXPECT_EQ(alice().certificate.sha256(), signer["certificate"]["sha256"]);
    EXPECT_EQ("rsaEncryption", signer["signatureAlgorithm"]);
    EXPECT_EQ("sha256", signer["digestAlgorithm"]);
    const json& trust = signer["trust"];
    EXPECT_EQ(true, trust["accepted"]);
    EXPECT_EQ("2028-01-01T00:00:00Z", trust["judgedAt"]);
    EXPECT_LT("2028-01-01T00:00:00Z", trust["validUntil"].get<std::string>());
    EXPECT_EQ("sign", trust["purpose"]);
    EXPECT_EQ("none", trust["revocation"]);
    EXPECT_EQ(json::array(), trust["reasons"]);
    EXPECT_EQ(json::array(), trust["notes"]);
    ASSERT_EQ(2U, trust["chain"].size());
    EXPECT_EQ(alice().certificate.sha256(), trust["chain"][0]["sha256"]);
    EXPECT_EQ(false, trust["chain"][0]["anchor"]);
    EXPECT_EQ(root().certificate.sha256(), trust["chain"][1]["sha256"]);
    EXPECT_EQ(1, trust["chain"][1]["depth"]);
    EXPECT_EQ(true, trust["chain"][1]["anchor"]);
    EXPECT_EQ("not-looked-at", trust["chain"][0]["revocation"]);
    EXPECT_EQ(json({{"relation", "from"},
                    {"from", {"alice@example.org"}},
                    {"certified", {"alice@example.org"}},
                    {"uncertified", json::array()}}),
              trust["sender"]);
}

TEST_F(VerifyTrustToolTest, JsonOfARefusedSigner) {
    const Answer answer = believing({"--json", "--at", "2001-01-01", "--from", "bob@example.org"});
    EXPECT_EQ(1, answer.status) << answer.err;
    const json facts = json::parse(answer.out);
    EXPECT_EQ("refused", facts["verdict"]);
    const json& signer = facts["signers"][0];
    EXPECT_EQ("good", signer["verdict"]);
    const json& trust = signer["trust"];
    EXPECT_EQ(false, trust["accepted"]);
    std::set<std::pair<std::string, int>> reasons;
    for (const json& reason : trust["reasons"]) {
        reasons.emplace(reason["code"], reason["depth"]);
        EXPECT_NE("", reason["text"]);
        EXPECT_TRUE(reason["number"].is_number());
    }
    EXPECT_TRUE(reasons.contains({"certificate-not-yet-valid", 0})) << answer.out;
    EXPECT_TRUE(reasons.contains({"certificate-not-yet-valid", 1})) << answer.out;
    EXPECT_TRUE(reasons.contains({"sender-differs", 0})) << answer.out;
    EXPECT_EQ("none", trust["sender"]["relation"]);
    EXPECT_EQ(json({"bob@example.org"}), trust["sender"]["uncertified"]);
}

TEST_F(VerifyTrustToolTest, JsonWithoutTrust) {
    const json facts = json::parse(verify({"--json"}).out);
    EXPECT_EQ("good", facts["verdict"]);
    EXPECT_EQ(false, facts["trustChecked"]);
    EXPECT_FALSE(facts["signers"][0].contains("trust"));
    work.write("body", std::string("another one"));
    const Answer changed = verify({"--json"});
    EXPECT_EQ(1, changed.status);
    const json refused = json::parse(changed.out);
    EXPECT_EQ("refused", refused["verdict"]);
    EXPECT_EQ("refused", refused["signers"][0]["verdict"]);
    EXPECT_EQ("signature-wrong", refused["signers"][0]["reason"]);
    EXPECT_EQ("0x3000052", refused["signers"][0]["event"]);
    EXPECT_NE("", refused["signers"][0]["text"]);
}

TEST_F(VerifyTrustToolTest, JsonWithoutASigner) {
    ASSERT_EQ(0, run({.arguments = {"openssl", "crl2pkcs7", "-nocrl", "-certfile", "alice.pem", "-out", "certificates"},
                      .directory = work.directory()})
                     .status);
    const Answer answer = tool({"verify", "--signature", "certificates", "--in", "body", "--json", "--ca", "root.pem"});
    EXPECT_EQ(1, answer.status) << answer.err;
    const json facts = json::parse(answer.out);
    EXPECT_EQ("refused", facts["verdict"]);
    EXPECT_EQ(json::array(), facts["signers"]);
    EXPECT_EQ(true, facts["trustChecked"]);
}

TEST_F(VerifyTrustToolTest, ColoursOnTerminalsAlone) {
    const auto onTerminal = [&](const std::map<std::string, std::string>& environment, const char* ca) {
        const Terminal terminal;
        const Answer answer = norvcrypt(Command{.arguments = arguments({"--ca", ca}),
                                                .outputFile = terminal.path(),
                                                .directory = work.directory(),
                                                .environment = environment});
        EXPECT_EQ("", answer.err);
        return terminal.written();
    };
    const std::map<std::string, std::string> colourful{{"TERM", "xterm"}, {"NO_COLOR", ""}};
    EXPECT_NE(std::string::npos, onTerminal(colourful, "root.pem").find("\x1B[32maccepted\x1B[0m, judged by"));
    const std::string refused = onTerminal(colourful, "other.pem");
    EXPECT_NE(std::string::npos, refused.find("\x1B[1;31mREFUSED\x1B[0m, judged by"));
    EXPECT_NE(std::string::npos, refused.find("\x1B[1;31mreason\x1B[0m (issuer-missing): "));
    EXPECT_EQ(std::string::npos, onTerminal({{"TERM", "xterm"}, {"NO_COLOR", "1"}}, "other.pem").find('\x1B'));
    EXPECT_EQ(std::string::npos, onTerminal({{"TERM", "dumb"}, {"NO_COLOR", ""}}, "other.pem").find('\x1B'));
}

} // namespace
