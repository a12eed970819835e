// norvcrypt tls connect and serve with one another, and with peers that speak no TLS.

#include "support/TlsPeers.h"

#include <norvcmsg/Socket.h>

#include <csignal>
#include <memory>

using namespace interop;
using Norvane::Socket;
using Norvane::SocketAddress;

namespace {

class TlsToolTest : public TlsTest {};

/// Bytes that show when some are lost; more than the connection itself can hold.
std::string manyBytes() {
    std::string bytes;
    while (bytes.size() < 4'000'000)
        bytes += sampleBody();
    return bytes;
}

TEST_F(TlsToolTest, BytesGoBothWaysUntilTheInputEnds) {
    Running server(this->server({"--echo", "--count", "1"}), work.directory());
    const Answer answer = connect(portOf(server), {"--ca", "ca.pem", "--crl", "crl"}, sampleBody());
    EXPECT_EQ(0, answer.status) << answer.err;
    EXPECT_EQ(sampleBody(), answer.out);
    const std::vector<std::string> told = linesOf(answer.err);
    ASSERT_EQ(5U, told.size()) << answer.err;
    EXPECT_EQ(0U, told[0].find("protocol TLSv1.3, cipher TLS_")) << told[0];
    EXPECT_EQ(0U, told[1].find("peer certificate 1: CN=good,O=TLS Test, issuer CN=Root,O=TLS Test, valid until 20"));
    EXPECT_EQ(0U, told[2].find("peer certificate 2: CN=Root,O=TLS Test, issuer CN=Root,O=TLS Test")) << told[2];
    EXPECT_EQ("verify result 0: ok", told[3]);
    EXPECT_EQ("the certificate is for localhost", told[4]);
    EXPECT_EQ(0, server.end());
    EXPECT_NE(std::string::npos, server.output().find("connection 1: no peer certificate\n")) << server.output();
    EXPECT_NE(std::string::npos,
              server.output().find("connection 1: closed, " + std::to_string(sampleBody().size()) + " bytes received"));
}

TEST_F(TlsToolTest, ManyBytesThatComeBackAtOnceBlockNobody) {
    Running server(this->server({"--echo", "--count", "1"}), work.directory());
    const std::string bytes = manyBytes();
    work.write("many", bytes);
    const Answer answer = connect(portOf(server), {"--send", "many"});
    EXPECT_EQ(0, answer.status) << answer.err;
    EXPECT_TRUE(answer.out == bytes);
}

TEST_F(TlsToolTest, AClientThatNeedsTrustSendsNothingToWhoHasNone) {
    Running server(this->server({"--count", "2"}), work.directory());
    const std::string port = portOf(server);
    work.write("stranger.pem", authorityOf("unknown").certificate.pem());
    const Answer untrusted = connect(port, {"--ca", "stranger.pem", "--require-trust"}, "secret");
    EXPECT_EQ(1, untrusted.status);
    EXPECT_NE(std::string::npos, untrusted.err.find("the peer is not trusted: nothing was copied\n")) << untrusted.err;
    const Answer otherName =
        timed({norvtest::norvcryptProgram, "tls", "connect", "127.0.0.1:" + port, "--ca", "ca.pem", "--require-trust"},
              "secret");
    EXPECT_EQ(1, otherName.status);
    EXPECT_NE(std::string::npos, otherName.err.find("verify result 0: ok\nthe certificate is not for 127.0.0.1\n"));
    EXPECT_EQ(0, server.end());
    EXPECT_NE(std::string::npos, server.output().find("connection 1: closed, 0 bytes received")) << server.output();
    EXPECT_NE(std::string::npos, server.output().find("connection 2: closed, 0 bytes received")) << server.output();
}

TEST_F(TlsToolTest, AClientThatNeedsTrustTalksToWhoHasIt) {
    Running server(this->server({"--echo", "--count", "1"}), work.directory());
    const Answer answer = connect(portOf(server), {"--ca", "ca.pem", "--crl", "crl", "--require-trust"}, "secret");
    EXPECT_EQ(0, answer.status) << answer.err;
    EXPECT_EQ("secret", answer.out);
    EXPECT_NE(std::string::npos, answer.err.find("the certificate is for localhost\n")) << answer.err;
}

// As for programs that give a host name: RFC 9525.
TEST_F(TlsToolTest, ACommonNameIsNoHostName) {
    using namespace norvauthority;
    const Identity named = issue({.subject = {{"CN", "localhost"}}, .key = Key::ec()});
    work.write("named.pem", named.certificate.pem());
    work.write("named.key", named.key.pkcs8Pem());
    Running server({norvtest::norvcryptProgram, "tls", "serve", "127.0.0.1:0", "--cert", "named.pem", "--key",
                    "named.key", "--count", "1"},
                   work.directory());
    const Answer answer = connect(portOf(server), {"--ca", "named.pem", "--require-trust"}, "secret");
    EXPECT_EQ(1, answer.status);
    EXPECT_NE(std::string::npos, answer.err.find("verify result 0: ok\nthe certificate is not for localhost\n"))
        << answer.err;
    EXPECT_EQ(0, server.end());
}

TEST_F(TlsToolTest, AServerOfManyNamesIsToldWhichIsMeant) {
    const auto certificateFor = [this](const std::string& host) {
        Running server({"openssl", "s_server", "-accept", "127.0.0.1:0", "-rev", "-naccept", "1", "-cert", "good.pem",
                        "-key", "good.key", "-servername", "localhost", "-cert2", "expired.pem", "-key2",
                        "expired.key"},
                       work.directory());
        return timed({norvtest::norvcryptProgram, "tls", "connect", host + ":" + server.port()}).err;
    };
    EXPECT_NE(std::string::npos, certificateFor("localhost").find("peer certificate 1: CN=expired,"));
    EXPECT_NE(std::string::npos, certificateFor("127.0.0.1").find("peer certificate 1: CN=good,")) << "no name";
}

TEST_F(TlsToolTest, WhatAListSaysDependsOnHowItIsFiledAndHowOldItIs) {
    using namespace norvauthority;
    const std::vector<Revoked> entries{{.serial = "11"}};
    work.write("unfiled.pem", issueList({.issuer = &authorityOf("good"), .revoked = entries}).pem());
    work.write("stale.pem", issueList({.issuer = &authorityOf("good"),
                                       .thisUpdate = Time::utc("250101000000Z"),
                                       .nextUpdate = Time::utc("250108000000Z")})
                                .pem());
    for (const std::string name : {"unfiled", "stale"}) {
        std::filesystem::create_directory(work.path(name));
        std::filesystem::rename(work.path(name + ".pem"), work.path(name + "/list.pem"));
    }
    ASSERT_EQ(0, run(Command{.arguments = {"openssl", "rehash", work.path("stale")}}).status);
    const auto judged = [this](const std::string& lists) {
        Running server({norvtest::norvcryptProgram, "tls", "serve", "127.0.0.1:0", "--cert", "revoked.pem", "--key",
                        "revoked.key", "--count", "1"},
                       work.directory());
        return connect(portOf(server), {"--ca", "ca.pem", "--crl", lists}).err;
    };
    EXPECT_NE(std::string::npos, judged("crl").find("\nverify result 23: certificate revoked\n"));
    EXPECT_NE(std::string::npos, judged("unfiled").find("\nverify result 0: ok\n")) << "never seen";
    EXPECT_NE(std::string::npos, judged("stale").find("\nverify result 12: CRL has expired\n"));
}

TEST_F(TlsToolTest, SeveralClientsAreServedAtOnce) {
    Running server(this->server({}), work.directory());
    const std::string port = portOf(server);
    std::vector<std::unique_ptr<Running>> clients;
    for (int at = 0; at < 5; ++at)
        clients.push_back(std::make_unique<Running>(
            std::vector<std::string>{norvtest::norvcryptProgram, "tls", "connect", "localhost:" + port},
            work.directory()));
    server.waitFor("connection 5: no peer certificate");
    EXPECT_EQ(std::string::npos, server.output().find("closed")) << server.output();
    for (const auto& client : clients)
        EXPECT_EQ(0, client->end()) << client->output();
    server.signal(SIGTERM);
    EXPECT_EQ(0, server.end());
}

TEST_F(TlsToolTest, ASignalEndsTheServerAndItsConnections) {
    for (const int signal : {SIGTERM, SIGINT}) {
        Running server(this->server({}), work.directory());
        Running client({norvtest::norvcryptProgram, "tls", "connect", "localhost:" + portOf(server)}, work.directory());
        server.waitFor("connection 1: no peer certificate");
        server.signal(signal);
        EXPECT_EQ(0, server.end()) << server.output();
        client.waitFor("the certificate is for localhost");
        client.waitFor("the connection ended without the peer's notice: bytes may be missing\n");
        EXPECT_EQ(0, client.end());
    }
}

TEST_F(TlsToolTest, ASignalDoesNotWaitForAClientThatSaysNothing) {
    Running server(this->server({}), work.directory());
    Socket silent(true);
    silent.connect(SocketAddress("127.0.0.1:" + portOf(server)));
    server.signal(SIGTERM);
    EXPECT_EQ(0, server.end()) << server.output();
}

TEST_F(TlsToolTest, ASignalThatTheCallerIgnoresStaysIgnored) {
    std::vector<std::string> arguments{"sh", "-c", "trap '' INT; exec \"$@\"", "sh"};
    const std::vector<std::string> serving = this->server({"--echo"});
    arguments.insert(arguments.end(), serving.begin(), serving.end());
    Running server(arguments, work.directory());
    const std::string port = portOf(server);
    server.signal(SIGINT);
    EXPECT_EQ("still there", connect(port, {}, "still there").out);
    server.signal(SIGTERM);
    EXPECT_EQ(0, server.end());
}

TEST_F(TlsToolTest, AClientThatFallsSilentIsGivenUp) {
    Running server(this->server({"--count", "1", "--time-limit", "1"}), work.directory());
    Running client(
        {norvtest::norvcryptProgram, "tls", "connect", "localhost:" + portOf(server), "--send", "/dev/stdin"},
        work.directory());
    server.waitFor("connection 1: said nothing for 1 seconds, 0 bytes received");
    EXPECT_EQ(0, server.end());
    client.waitFor("the peer ended the connection before everything was sent");
    EXPECT_EQ(2, client.end());
}

TEST_F(TlsToolTest, AServerThatFallsSilentIsGivenUpOnceItHasEverything) {
    Running server(this->server({}), work.directory());
    Running client({norvtest::norvcryptProgram, "tls", "connect", "localhost:" + portOf(server), "--time-limit", "1"},
                   work.directory());
    server.waitFor("connection 1: no peer certificate");
    client.waitFor("for localhost");
    server.signal(SIGSTOP);
    EXPECT_EQ(2, client.end());
    EXPECT_NE(std::string::npos, client.output().find("the peer neither answered nor ended for 1 seconds\n"));
}

TEST_F(TlsToolTest, AClientThatVanishesIsToldWithTheReasonAndTheBytes) {
    Running server(this->server({"--count", "1", "--echo"}), work.directory());
    Running client({norvtest::norvcryptProgram, "tls", "connect", "localhost:" + portOf(server), "--send", "/dev/zero"},
                   work.directory());
    client.waitFor("for localhost\n.");
    client.signal(SIGSTOP);
    client.signal(SIGKILL); // with bytes unread the connection is reset; without, it just ends
    server.waitFor("connection 1: (cut off|failed, (.*: )?(Connection reset by peer|Broken pipe)), "
                   "[1-9]\\d* bytes received");
    EXPECT_EQ(0, server.end());
}

TEST_F(TlsToolTest, NamesInCertificatesDriveNoTerminal) {
    using namespace norvauthority;
    const Identity evil = issue({.subject = {{"CN", "a\x1B[31m\nverify result 0: ok"}}, .key = Key::ec()});
    work.write("evil.pem", evil.certificate.pem());
    work.write("evil.key", evil.key.pkcs8Pem());
    Running server({norvtest::norvcryptProgram, "tls", "serve", "127.0.0.1:0", "--cert", "evil.pem", "--key",
                    "evil.key", "--count", "1"},
                   work.directory());
    const Answer answer = connect(portOf(server), {"--cert", "evil.pem", "--key", "evil.key"});
    EXPECT_EQ(0, server.end());
    for (const std::string& told : {answer.err, server.output()}) {
        EXPECT_NE(std::string::npos, told.find("peer certificate 1: CN=a\\1B[31m\\0Averify result 0: ok, ")) << told;
        EXPECT_EQ(std::string::npos, told.find('\x1B'));
    }
}

TEST_F(TlsToolTest, Ipv6) {
    try {
        Socket probe(true);
        probe.bind(SocketAddress("[::1]:0"));
    } catch (const Norvane::SocketException&) {
        GTEST_SKIP() << "this machine has no IPv6";
    }
    Running server(
        {norvtest::norvcryptProgram, "tls", "serve", "[::1]:0", "--cert", "good.pem", "--key", "good.key", "--echo"},
        work.directory());
    const std::string where = server.waitFor("listening on (\\[::1\\]:\\d+)");
    const Answer answer = timed({norvtest::norvcryptProgram, "tls", "connect", where, "--ca", "ca.pem"}, "hello");
    EXPECT_EQ(0, answer.status) << answer.err;
    EXPECT_EQ("hello", answer.out);
    EXPECT_NE(std::string::npos, answer.err.find("\nverify result 0: ok\nthe certificate is not for ::1\n"));
    server.waitFor("connection 1: from \\[::1\\]:\\d+\n");
    expectFailure(timed({norvtest::norvcryptProgram, "tls", "serve", where, "--cert", "good.pem", "--key", "good.key"}),
                  "cannot listen on " + where + ": ");
}

TEST_F(TlsToolTest, AListBesideTheOldOneCountsAtOnceAndOneInItsPlaceDoesNot) {
    using namespace norvauthority;
    // Of two lists that fit, OpenSSL takes the one that was made later; within one second, the one that it read first.
    const auto file = [this](const std::string& name, const std::vector<Revoked>& revoked, int hoursAgo) {
        work.write("crl/" + name, issueList({.issuer = &authorityOf("good"),
                                             .revoked = revoked,
                                             .thisUpdate = norvauthority::Time::fromNow(-3600 * hoursAgo)})
                                      .pem());
        ASSERT_EQ(0, run(Command{.arguments = {"openssl", "rehash", work.path("crl")}}).status);
    };
    file("root.crl", {}, 3);
    Running server(this->server({"--count", "3"}), work.directory());
    const std::string port = portOf(server);
    const auto judged = [&](int number) {
        EXPECT_EQ(0, connect(port, {"--cert", "good.pem", "--key", "good.key"}).status);
        return server.waitFor("connection " + std::to_string(number) + ": verify result (\\d+)");
    };
    EXPECT_EQ("0", judged(1));
    file("root.crl", {{.serial = "10"}}, 2);
    EXPECT_EQ("0", judged(2)) << "in its place";
    file("next.crl", {{.serial = "10"}}, 1);
    EXPECT_EQ("23", judged(3)) << "beside it";
}

TEST_F(TlsToolTest, AClientWithoutTlsDisturbsNobody) {
    Running server(this->server({"--echo", "--count", "2"}), work.directory());
    const std::string port = portOf(server);
    {
        Socket client(true);
        client.connect(SocketAddress("127.0.0.1:" + port));
        const std::string greeting = "EHLO client.example.org\r\n";
        client.send(reinterpret_cast<const Norvane::uchar_t*>(greeting.data()),
                    static_cast<Norvane::uint_t>(greeting.size()));
        server.waitFor("connection 1: from 127\\.0\\.0\\.1:\\d+\nconnection 1: no connection: ");
    }
    EXPECT_EQ("still there", connect(port, {}, "still there").out);
    EXPECT_EQ(0, server.end());
}

TEST_F(TlsToolTest, AServerThatSaysNothingIsGivenUp) {
    Socket listener(true);
    listener.bind(SocketAddress("127.0.0.1:0"));
    listener.listen();
    const std::string port = std::to_string(listener.localAddress().port());
    const Answer answer = connect(port, {"--time-limit", "1"});
    expectFailure(answer, "cannot connect to 127.0.0.1:" + port + ": the TLS handshake failed: ");
    EXPECT_NE(std::string::npos, answer.err.find("Connection timed out")) << answer.err;
}

TEST_F(TlsToolTest, NobodyListens) {
    Socket listener(true);
    listener.bind(SocketAddress("127.0.0.1:0")); // taken, and not listening
    const std::string port = std::to_string(listener.localAddress().port());
    expectFailure(timed({norvtest::norvcryptProgram, "tls", "connect", "127.0.0.1:" + port}), "Connection refused");
}

TEST_F(TlsToolTest, AnEncryptedKeyNeedsItsPassphrase) {
    const norvauthority::Key key = norvauthority::Key::fromPem(work.read("good.key"));
    work.write("encrypted.key", key.encryptedPem("open sesame"));
    work.write("passphrase", std::string("open sesame\n"));
    before = work.names();
    std::vector<std::string> arguments{
        norvtest::norvcryptProgram, "tls", "serve", "127.0.0.1:0", "--cert", "good.pem", "--key", "encrypted.key"};
    expectFailure(timed(arguments), "encrypted: give its passphrase with --passphrase-file");
    arguments.insert(arguments.end(), {"--passphrase-file", "passphrase", "--count", "1"});
    Running server(arguments, work.directory());
    EXPECT_EQ(0, connect(portOf(server), {}).status);
    EXPECT_EQ(0, server.end());
}

TEST_F(TlsToolTest, BadUsageIsToldOnOneLine) {
    expectFailure(timed({norvtest::norvcryptProgram, "tls"}), "a command is missing: connect, serve or check");
    expectFailure(timed({norvtest::norvcryptProgram, "tls", "serve", "0"}), "--cert is required");
    expectFailure(timed({norvtest::norvcryptProgram, "tls", "connect", "localhost:1", "--cert", "good.pem"}),
                  "--cert requires --key");
    for (const char* where :
         {"localhost", "localhost:", "localhost:0", "localhost:65536", ":25", "[]:25", "a:b", "::1:25"})
        expectFailure(timed({norvtest::norvcryptProgram, "tls", "connect", where}),
                      std::string("not a host and port: ") + where);
    for (const char* where : {"x", "-1", "65536", "localhost:0", "::1"})
        expectFailure(
            timed({norvtest::norvcryptProgram, "tls", "serve", "--cert", "good.pem", "--key", "good.key", "--", where}),
            std::string("not a port, nor an address and port: ") + where);
    for (const auto& [count, reason] : {std::pair{"0", "Value 0 not in range 1 to 18446744073709551615"},
                                        std::pair{"18446744073709551616", "Value 18446744073709551616 is too large"}})
        expectFailure(timed({norvtest::norvcryptProgram, "tls", "serve", "0", "--cert", "good.pem", "--key", "good.key",
                             "--count", count}),
                      std::string("--count: ") + reason + " (");
}

TEST_F(TlsToolTest, FilesThatDoNotFitAreToldBeforeAnybodyIsTalkedTo) {
    const auto connectWith = [this](const std::string& certificate, const std::string& key, const std::string& ca) {
        return connect("1", {"--cert", certificate, "--key", key, "--ca", ca});
    };
    expectFailure(connectWith("good.pem", "revoked.key", "ca.pem"),
                  "the private key in revoked.key is not that of the certificate in good.pem");
    expectFailure(connectWith("none.pem", "good.key", "ca.pem"), "cannot open none.pem: No such file or directory");
    expectFailure(connectWith("good.pem", "none.key", "ca.pem"), "cannot open none.key: No such file or directory");
    expectFailure(connectWith("good.pem", "good.key", "good.key"), "cannot read the trusted certificates in good.key");
    for (const std::string lists : {"none", "ca.pem"})
        expectFailure(connect("1", {"--crl", lists}), "cannot read the lists in " + lists + ": No");
    expectFailure(connect("1", {"--send", "none"}), "cannot open none: No such file or directory");
}

} // namespace
