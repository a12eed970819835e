#pragma once

/// \file
/// A body and the people whose signatures over it are made and verified by the tool.

#include "support/ToolTest.h"

namespace interop {

inline constexpr const char* trustLine =
    "Trust in the certificates was not checked: a good signature does not tell who signed.";

class SigningToolTest : public ToolTest {
protected:
    void SetUp() override {
        body = sampleBody();
        work.write("body", body);
        work.write("alice.pem", alice().certificate.pem());
        work.write("alice.key", alice().key.pkcs8Pem());
        work.write("root.pem", root().certificate.pem());
        before = work.names();
    }

    Answer sign(const std::vector<std::string>& more, const std::string& input = "") {
        std::vector<std::string> arguments{"sign", "--cert", "alice.pem", "--key", "alice.key"};
        arguments.insert(arguments.end(), more.begin(), more.end());
        return tool(arguments, input);
    }
    /// Signs the body into "sig".
    void signBody(const std::vector<std::string>& more = {}) {
        std::vector<std::string> arguments{"--in", "body", "--out", "sig"};
        arguments.insert(arguments.end(), more.begin(), more.end());
        const Answer answer = sign(arguments);
        ASSERT_EQ(0, answer.status) << answer.err;
        ASSERT_EQ("", answer.out);
        ASSERT_EQ("", answer.err);
    }
    std::string goodLine(int number, const norvauthority::Identity& identity, const std::string& name) {
        return "signer " + std::to_string(number) + ": good signature, certificate SHA-256 " +
               identity.certificate.sha256() + " CN=" + name + ",O=Interop,C=DE";
    }
    static std::string bodyLine(const std::string& what, std::size_t length) {
        return "body: " + what + ", " + std::to_string(length) + " bytes";
    }
    /// Those, and behind them what the one signer says of itself.
    static void expectLines(const std::vector<std::string>& expected, const Answer& answer) {
        std::vector<std::string> lines = linesOf(answer.out);
        ASSERT_EQ(expected.size() + 1, lines.size()) << answer.out;
        EXPECT_EQ(0U, lines.back().find("details of signer 1: signature algorithm ")) << answer.out;
        lines.pop_back();
        EXPECT_EQ(expected, lines);
    }
    void expectGoodOver(const std::string& bodyLine, const Answer& answer) {
        EXPECT_EQ(0, answer.status) << answer.err;
        expectLines({goodLine(1, alice(), "alice"), bodyLine, trustLine}, answer);
        EXPECT_EQ("", answer.err);
    }
    void expectGood(const Answer& answer, const std::string& name = "body") {
        expectGoodOver(bodyLine(name, body.size()), answer);
    }

    std::string body;
};

} // namespace interop
