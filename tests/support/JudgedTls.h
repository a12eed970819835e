#pragma once

/// \file
/// norvcrypt tls against another program, in both roles: what is tested with each of them.

#include "support/TlsPeers.h"

#include <ostream>

namespace interop {

/// A version of the protocol: how the other program is held to it, and what norvcrypt says of it.
struct TlsVersion {
    const char* option;
    const char* told;
};

inline void PrintTo(const TlsVersion& version, std::ostream* out) {
    *out << version.told;
}

class JudgedTls : public TlsTest, public testing::WithParamInterface<TlsVersion> {
protected:
    static const TlsVersion& version() { return GetParam(); }

    /// The other program's client sends a line and ends. \param certificate empty for none
    virtual Answer otherClient(const std::string& port, const std::string& certificate) = 0;
    /// The other program's server, which answers the line "hello" with `answerOfOther`.
    [[nodiscard]] virtual std::vector<std::string> otherServer(const std::string& certificate, bool asks) const = 0;
    [[nodiscard]] virtual std::string answerOfOther() const = 0;
    /// Looks at what the other program's client told of a connection without a certificate.
    virtual void expectServed(const Answer& nobody) const = 0;

    void everyClientIsServedAndJudged() {
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
        expectServed(nobody);
        EXPECT_EQ(0, server.end());
        EXPECT_NE(std::string::npos, server.output().find("connection 7: no peer certificate\n")) << server.output();
    }
    void everyServerIsTalkedToAndJudged(const std::vector<Peer>& peers) {
        for (const Peer& peer : peers) {
            Running server(otherServer(peer.name, false), work.directory());
            const Answer answer = connect(server.port(), {"--ca", "ca.pem", "--crl", "crl"}, "hello\n");
            EXPECT_EQ(0, answer.status) << peer.name << ": " << answer.err;
            EXPECT_EQ(answerOfOther(), answer.out) << peer.name;
            EXPECT_NE(std::string::npos, answer.err.find(std::string("protocol ") + version().told)) << answer.err;
            EXPECT_NE(std::string::npos, answer.err.find(std::string("\n") + peer.result + "\n")) << answer.err;
        }
    }
    void aServerThatAsksGetsTheClientsCertificate() {
        Running server(otherServer("good", true), work.directory());
        const Answer answer = connect(
            server.port(), {"--cert", "withoutList.pem", "--key", "withoutList.key", "--ca", "ca.pem"}, "hello\n");
        EXPECT_EQ(0, answer.status) << answer.err;
        EXPECT_EQ(answerOfOther(), answer.out);
    }
    void aServerThatAsksRefusesTheClientWithout() {
        Running server(otherServer("good", true), work.directory());
        const Answer answer = connect(server.port(), {"--ca", "ca.pem"}, "hello\n");
        EXPECT_EQ(2, answer.status) << answer.err;
        EXPECT_EQ("", answer.out);
        // In TLS 1.3 the client is through before it is refused.
        const bool early = version().told == std::string("TLSv1.2");
        EXPECT_NE(std::string::npos,
                  answer.err.find(early ? "the TLS handshake failed: the peer gave up: " : "certificate required"))
            << answer.err;
    }
};

} // namespace interop
