// norvcrypt tls against GnuTLS's gnutls-cli and gnutls-serv.

#include "support/JudgedTls.h"

using namespace interop;

namespace {

constexpr TlsVersion tls12{"NORMAL:-VERS-ALL:+VERS-TLS1.2", "TLSv1.2"};
constexpr TlsVersion tls13{"NORMAL:-VERS-ALL:+VERS-TLS1.3", "TLSv1.3"};

class GnuTlsTest : public JudgedTls {
protected:
    void SetUp() override {
        JudgedTls::SetUp();
        if (!(installed("gnutls-cli") && installed("gnutls-serv")))
            GTEST_SKIP() << "gnutls-cli and gnutls-serv are not installed";
    }
    Answer otherClient(const std::string& port, const std::string& certificate) override {
        std::vector<std::string> arguments{"gnutls-cli"};
        if (!certificate.empty())
            arguments.insert(arguments.end(),
                             {"--x509certfile", certificate + ".pem", "--x509keyfile", certificate + ".key"});
        arguments.insert(arguments.end(),
                         {"--x509cafile", "ca.pem", "--priority", version().option, "-p", port, "localhost"});
        return timed(arguments, "hello\n");
    }
    /// Sends lines back.
    [[nodiscard]] std::vector<std::string> otherServer(const std::string& certificate, bool asks) const override {
        std::vector<std::string> arguments{"gnutls-serv",
                                           "-p",
                                           "0",
                                           "--echo",
                                           "--x509certfile",
                                           certificate + ".pem",
                                           "--x509keyfile",
                                           certificate + ".key",
                                           "--priority",
                                           version().option,
                                           "--x509cafile",
                                           "ca.pem"};
        arguments.insert(arguments.end(), asks ? std::initializer_list<std::string>{"-r", "--verify-client-cert"}
                                               : std::initializer_list<std::string>{"-a"});
        return arguments;
    }
    [[nodiscard]] std::string answerOfOther() const override { return "hello\n"; }
    void expectServed(const Answer& nobody) const override {
        EXPECT_NE(std::string::npos, nobody.out.find("\nhello\n")) << nobody.out;
    }
};

TEST_P(GnuTlsTest, EveryClientIsServedAndJudged) {
    everyClientIsServedAndJudged();
}

TEST_P(GnuTlsTest, EveryServerIsTalkedToAndJudged) {
    everyServerIsTalkedToAndJudged({good, revoked});
}

TEST_P(GnuTlsTest, AServerThatAsksGetsTheClientsCertificate) {
    aServerThatAsksGetsTheClientsCertificate();
}

TEST_P(GnuTlsTest, AServerThatAsksRefusesTheClientWithout) {
    aServerThatAsksRefusesTheClientWithout();
}

INSTANTIATE_TEST_SUITE_P(Versions, GnuTlsTest, testing::Values(tls12, tls13));

} // namespace
