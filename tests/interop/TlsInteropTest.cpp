// norvcrypt tls against other programs, in both roles: OpenSSL's s_client and s_server, GnuTLS's gnutls-cli and
// gnutls-serv.

#include "support/TlsPeers.h"

#include <ostream>

using namespace interop;

namespace {

struct Version {
    const char* openssl;
    const char* gnutls;
    const char* told;
};

constexpr Version tls12{"-tls1_2", "NORMAL:-VERS-ALL:+VERS-TLS1.2", "TLSv1.2"};
constexpr Version tls13{"-tls1_3", "NORMAL:-VERS-ALL:+VERS-TLS1.3", "TLSv1.3"};

enum class Program { openssl, gnutls };

struct Other {
    Program program;
    Version version;
};

void PrintTo(const Other& other, std::ostream* out) {
    *out << (other.program == Program::openssl ? "OpenSSL, " : "GnuTLS, ") << other.version.told;
}

class TlsInteropTest : public TlsTest, public testing::WithParamInterface<Other> {
protected:
    void SetUp() override {
        TlsTest::SetUp();
        if (isGnutls() && !(installed("gnutls-cli") && installed("gnutls-serv")))
            GTEST_SKIP() << "gnutls-cli and gnutls-serv are not installed";
    }
    static bool isGnutls() { return GetParam().program == Program::gnutls; }
    static const Version& version() { return GetParam().version; }

    /// Another program's client sends a line and ends. \param certificate empty for none
    Answer otherClient(const std::string& port, const std::string& certificate) {
        std::vector<std::string> arguments =
            isGnutls() ? std::vector<std::string>{"gnutls-cli",     "--x509cafile", "ca.pem", "--priority",
                                                  version().gnutls, "-p",           port,     "localhost"}
                       : std::vector<std::string>{"openssl",
                                                  "s_client",
                                                  "-connect",
                                                  "localhost:" + port,
                                                  "-CAfile",
                                                  "ca.pem",
                                                  "-verify_return_error",
                                                  version().openssl};
        if (!certificate.empty()) {
            const std::string prefix = isGnutls() ? "--x509" : "-";
            const std::string suffix = isGnutls() ? "file" : "";
            arguments.insert(arguments.begin() + (isGnutls() ? 1 : 2), {prefix + "cert" + suffix, certificate + ".pem",
                                                                        prefix + "key" + suffix, certificate + ".key"});
        }
        return timed(arguments, "hello\n");
    }

    /// Another program's server: s_server turns lines round, gnutls-serv sends them back.
    static std::vector<std::string> otherServer(const std::string& certificate, bool asks) {
        std::vector<std::string> arguments;
        if (isGnutls()) {
            arguments = {"gnutls-serv",
                         "-p",
                         "0",
                         "--echo",
                         "--x509certfile",
                         certificate + ".pem",
                         "--x509keyfile",
                         certificate + ".key",
                         "--priority",
                         version().gnutls,
                         "--x509cafile",
                         "ca.pem"};
            arguments.insert(arguments.end(), asks ? std::initializer_list<std::string>{"-r", "--verify-client-cert"}
                                                   : std::initializer_list<std::string>{"-a"});
        } else {
            arguments = {
                "openssl", "s_server",           "-accept", "127.0.0.1:0",        "-rev",           "-naccept", "1",
                "-cert",   certificate + ".pem", "-key",    certificate + ".key", version().openssl};
            if (asks)
                arguments.insert(arguments.end(), {"-Verify", "1", "-verify_return_error", "-CAfile", "ca.pem"});
        }
        return arguments;
    }
    static std::string answerOfOther() { return isGnutls() ? "hello\n" : "olleh\n"; }
};

TEST_P(TlsInteropTest, EveryClientIsServedAndJudged) {
    const std::vector<Peer> peers{good, revoked, expired, selfSigned, unknown, withoutList};
    Running server(this->server({"--echo", "--count", std::to_string(peers.size() + 1)}), work.directory());
    const std::string port = portOf(server);
    std::size_t number = 0;
    for (const Peer& peer : peers) {
        const Answer answer = otherClient(port, peer.name);
        EXPECT_EQ(0, answer.status) << peer.name << ": " << answer.out << answer.err;
        const std::string start = "connection " + std::to_string(++number) + ": ";
        server.waitFor(start + "closed, 6 bytes received");
        const std::string told = server.output();
        EXPECT_NE(std::string::npos, told.find(start + "protocol " + version().told)) << told;
        EXPECT_NE(std::string::npos, told.find(start + "peer certificate 1: CN=" + peer.name + ",O=TLS Test, "))
            << told;
        EXPECT_NE(std::string::npos, told.find(start + peer.result + "\n")) << peer.name << " in " << told;
    }
    const Answer nobody = otherClient(port, "");
    EXPECT_EQ(0, nobody.status) << nobody.out << nobody.err;
    if (isGnutls())
        EXPECT_NE(std::string::npos, nobody.out.find("\nhello\n")) << nobody.out; // OpenSSL's may not wait for it
    else
        EXPECT_NE(std::string::npos, nobody.out.find("CA names\nO = TLS Test, CN = Root\n")) << nobody.out;
    EXPECT_EQ(0, server.end());
    EXPECT_NE(std::string::npos, server.output().find("connection 7: no peer certificate\n")) << server.output();
}

TEST_P(TlsInteropTest, EveryServerIsTalkedToAndJudged) {
    // What is said about the others does not depend on the program that sends them.
    const bool all = GetParam().program == Program::openssl && version().told == std::string("TLSv1.3");
    for (const Peer& peer : all ? std::vector<Peer>{good, revoked, expired, selfSigned, unknown, withoutList}
                                : std::vector<Peer>{good, revoked}) {
        Running server(otherServer(peer.name, false), work.directory());
        const Answer answer = connect(server.port(), {"--ca", "ca.pem", "--crl", "crl"}, "hello\n");
        EXPECT_EQ(0, answer.status) << peer.name << ": " << answer.err;
        EXPECT_EQ(answerOfOther(), answer.out) << peer.name;
        EXPECT_NE(std::string::npos, answer.err.find(std::string("protocol ") + version().told)) << answer.err;
        EXPECT_NE(std::string::npos, answer.err.find(std::string("\n") + peer.result + "\n")) << answer.err;
    }
}

TEST_P(TlsInteropTest, AServerThatAsksGetsTheClientsCertificate) {
    Running server(otherServer("good", true), work.directory());
    const Answer answer =
        connect(server.port(), {"--cert", "withoutList.pem", "--key", "withoutList.key", "--ca", "ca.pem"}, "hello\n");
    EXPECT_EQ(0, answer.status) << answer.err;
    EXPECT_EQ(answerOfOther(), answer.out);
}

TEST_P(TlsInteropTest, AServerThatAsksRefusesTheClientWithout) {
    Running server(otherServer("good", true), work.directory());
    const Answer answer = connect(server.port(), {"--ca", "ca.pem"}, "hello\n");
    EXPECT_EQ(2, answer.status) << answer.err;
    EXPECT_EQ("", answer.out);
    // In TLS 1.3 the client is through before it is refused.
    const bool early = version().told == std::string("TLSv1.2");
    EXPECT_NE(std::string::npos, answer.err.find(early ? "SSL_connect failed" : "the peer gave up: ")) << answer.err;
    EXPECT_NE(std::string::npos, answer.err.find(early ? " alert " : " alert certificate required")) << answer.err;
}

INSTANTIATE_TEST_SUITE_P(Programs, TlsInteropTest,
                         testing::Values(Other{Program::openssl, tls12}, Other{Program::openssl, tls13},
                                         Other{Program::gnutls, tls12}, Other{Program::gnutls, tls13}));

} // namespace
