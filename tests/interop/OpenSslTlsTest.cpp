// norvcrypt tls against OpenSSL's s_client and s_server.

#include "support/JudgedTls.h"

using namespace interop;

namespace {

constexpr TlsVersion tls12{"-tls1_2", "TLSv1.2"};
constexpr TlsVersion tls13{"-tls1_3", "TLSv1.3"};

class OpenSslTlsTest : public JudgedTls {
protected:
    Answer otherClient(const std::string& port, const std::string& certificate) override {
        std::vector<std::string> arguments{
            "openssl",       "s_client", "-connect", "localhost:" + port, "-CAfile", "ca.pem", "-verify_return_error",
            version().option};
        if (!certificate.empty())
            arguments.insert(arguments.end(), {"-cert", certificate + ".pem", "-key", certificate + ".key"});
        return timed(arguments, "hello\n");
    }
    /// Turns lines round.
    [[nodiscard]] std::vector<std::string> otherServer(const std::string& certificate, bool asks) const override {
        std::vector<std::string> arguments{
            "openssl", "s_server",           "-accept", "127.0.0.1:0",        "-rev",          "-naccept", "1",
            "-cert",   certificate + ".pem", "-key",    certificate + ".key", version().option};
        if (asks)
            arguments.insert(arguments.end(), {"-Verify", "1", "-verify_return_error", "-CAfile", "ca.pem"});
        return arguments;
    }
    [[nodiscard]] std::string answerOfOther() const override { return "olleh\n"; }
    /// It may not wait for the answer.
    void expectServed(const Answer& nobody) const override {
        EXPECT_NE(std::string::npos, nobody.out.find("CA names\nO = TLS Test, CN = Root\n")) << nobody.out;
    }
};

TEST_P(OpenSslTlsTest, EveryClientIsServedAndJudged) {
    everyClientIsServedAndJudged();
}

TEST_P(OpenSslTlsTest, EveryServerIsTalkedToAndJudged) {
    // What is said about the others does not depend on the program, nor on the version, that sends them.
    const bool all = version().told == std::string("TLSv1.3");
    everyServerIsTalkedToAndJudged(all ? std::vector<Peer>{good, revoked, expired, selfSigned, unknown, withoutList}
                                       : std::vector<Peer>{good, revoked});
}

TEST_P(OpenSslTlsTest, AServerThatAsksGetsTheClientsCertificate) {
    aServerThatAsksGetsTheClientsCertificate();
}

TEST_P(OpenSslTlsTest, AServerThatAsksRefusesTheClientWithout) {
    aServerThatAsksRefusesTheClientWithout();
}

INSTANTIATE_TEST_SUITE_P(Versions, OpenSslTlsTest, testing::Values(tls12, tls13));

} // namespace
