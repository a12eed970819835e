// The TLS examples, run as their readers would run them, against a client or server in this program.

#include "support/Judge.h"
#include "support/Places.h"
#include "support/Tls.h"

#include <norvcmsg/Buffer.h>

#include <gmock/gmock.h>

#include <cstdio>
#include <memory>

using namespace Norvane;
using namespace tlstesting;
using norvtest::Outcome;
using testing::HasSubstr;

namespace {

const std::string programs = norvtest::programDirectory;

class TlsExampleTest : public TlsTest {
protected:
    norvtest::TemporaryFolder m_folder;
};

/// Runs the client example against a server in this program.
class TlsClientExampleTest : public TlsExampleTest {
protected:
    template <class Serve> Outcome clientAgainst(const RefContext& context, const std::string& name, Serve serve) {
        SSLSocket listening = listener(context);
        auto outcome = std::async(std::launch::async, [&] {
            return norvtest::run("(echo question | " + programs + "tls_client " + listening.localAddress().asString() +
                                 " " + name + " " + m_folder.write("root.pem", root().certificate.pem()) + ")");
        });
        Socket client = listening.accept();
        serve(client);
        client.close();
        return outcome.get();
    }
    static void answer(Socket& client) {
        EXPECT_EQ("question\n", receive(client, 9));
        send(client, "answer\n");
    }
};

TEST_F(TlsClientExampleTest, PrintsTheAnswerOfATrustedServer) {
    const Outcome outcome = clientAgainst(serverContext(), "localhost", answer);
    EXPECT_EQ(0, outcome.code) << outcome.output;
    EXPECT_EQ("TLSv1.3, TLS_AES_256_GCM_SHA384\nanswer\n", outcome.output);
}

/// Runs the client with --starttls against a server in this program, which says `consent` to STARTTLS and then `serve`s.
class StartTlsExampleTest : public TlsExampleTest {
protected:
    template <class Serve> Outcome clientAgainst(const std::string& consent, Serve serve) {
        Socket listening = tlstesting::listening(Socket(true));
        auto outcome = std::async(std::launch::async, [&] {
            return norvtest::run("(echo question | " + programs + "tls_client --starttls " +
                                 listening.localAddress().asString() + " localhost " +
                                 m_folder.write("root.pem", root().certificate.pem()) + ")");
        });
        {
            Socket plain = listening.accept();
            send(plain, "220-relay.example\r\n220 at your service\r\n");
            EXPECT_EQ("EHLO client.example.org\r\n", receive(plain, 25));
            send(plain, "250-relay.example\r\n250 STARTTLS\r\n");
            EXPECT_EQ("STARTTLS\r\n", receive(plain, 10));
            send(plain, consent);
            serve(plain);
        }
        return outcome.get();
    }
};

TEST_F(StartTlsExampleTest, GoesOnUnderTls) {
    const Outcome outcome = clientAgainst("220 go ahead\r\n", [](Socket& plain) {
        RefContext context = serverContext();
        SSLSocket secured = SSLSocket::upgradeServer(context, plain, Buffer());
        EXPECT_EQ("question\n", receive(secured, 9));
        send(secured, "answer\n");
    });
    EXPECT_EQ(0, outcome.code) << outcome.output;
    EXPECT_EQ("TLSv1.3, TLS_AES_256_GCM_SHA384\nanswer\n", outcome.output);
}

TEST_F(StartTlsExampleTest, RefusesWhatSomebodyPutBehindTheConsent) {
    const Outcome outcome = clientAgainst("220 go ahead\r\n250 injected\r\n",
                                          [](Socket& plain) { EXPECT_EQ("", receive(plain)) << "no handshake"; });
    EXPECT_EQ(2, outcome.code);
    EXPECT_THAT(outcome.output, HasSubstr("14 bytes came in plain text before the handshake"));
}

TEST_F(StartTlsExampleTest, SendsNothingToAServerThatDoesNotStartTls) {
    const Outcome outcome = clientAgainst("454 not today\r\n", [](Socket& plain) { EXPECT_EQ("", receive(plain)); });
    EXPECT_EQ(2, outcome.code);
    EXPECT_THAT(outcome.output, HasSubstr("the server does not start TLS"));
}

TEST_F(TlsClientExampleTest, SendsNothingToAServerOfAnotherName) {
    const Outcome outcome =
        clientAgainst(serverContext(), "example.org", [](Socket& client) { EXPECT_EQ("", receive(client)); });
    EXPECT_EQ(1, outcome.code);
    EXPECT_EQ("not trusted: hostname mismatch\n", outcome.output);
}

TEST_F(TlsClientExampleTest, SendsNothingToAnUnknownServer) {
    const Identity alone = norvauthority::issue({.subject = {{"CN", "localhost"}}, .key = norvauthority::Key::ec()});
    const Outcome outcome =
        clientAgainst(context(serverSide, &alone), "localhost", [](Socket& client) { EXPECT_EQ("", receive(client)); });
    EXPECT_EQ(1, outcome.code);
    EXPECT_THAT(outcome.output, HasSubstr("not trusted: self-signed certificate"));
}

TEST_F(TlsClientExampleTest, NoticesAnAnswerThatWasCutShort) {
    const Outcome outcome = clientAgainst(serverContext(), "localhost", [](Socket& client) {
        answer(client);
        SSL_set_quiet_shutdown(SSLSocket(client), 1);
    });
    EXPECT_EQ(1, outcome.code);
    EXPECT_THAT(outcome.output, HasSubstr("the answer was cut short"));
}

TEST_F(TlsClientExampleTest, TellsItsUsageAndWhyItFails) {
    EXPECT_EQ(2, norvtest::run(programs + "tls_client").code);
    const std::string trusted = m_folder.write("root.pem", root().certificate.pem());
    const Outcome outcome = norvtest::run(programs + "tls_client 127.0.0.1:1 localhost " + trusted);
    EXPECT_EQ(2, outcome.code);
    EXPECT_THAT(outcome.output, HasSubstr("Connection refused"));
}

/// Runs the server example; its first line is where it listens.
class TlsServerExampleTest : public TlsExampleTest {
protected:
    void SetUp() override {
        TlsExampleTest::SetUp();
        const std::string command =
            programs + "tls_server 127.0.0.1:0 " +
            m_folder.write("server.pem", server().certificate.pem() + root().certificate.pem()) + " " +
            m_folder.write("server.key", server().key.pkcs8Pem()) + " " +
            m_folder.write("clients.pem", root().certificate.pem()) + " </dev/null 2>&1";
        m_output.reset(popen(command.c_str(), "r"));
        ASSERT_NE(nullptr, m_output);
        m_address = SocketAddress(line());
    }
    std::string line() {
        char text[256] = "";
        const char* read = std::fgets(text, sizeof text, m_output.get());
        const std::string whole = read == nullptr ? "" : read;
        return whole.substr(0, whole.find('\n'));
    }

    std::unique_ptr<FILE, decltype(&pclose)> m_output{nullptr, &pclose};
    SocketAddress m_address;
};

TEST_F(TlsServerExampleTest, AnswersATrustedClient) {
    const RefContext identified = context(clientSide, &client());
    trust(identified, root());
    SSLSocket socket = dial(identified, m_address);
    EXPECT_EQ(X509_V_OK, SSL_get_verify_result(socket));
    EXPECT_EQ(2, sk_X509_num(SSL_get_peer_cert_chain(socket)));
    send(socket, "hello");
    EXPECT_EQ("hello", receive(socket, 5));
    socket.close();
    EXPECT_EQ("CN=client", line());
    EXPECT_EQ(0, pclose(m_output.release()));
}

TEST_F(TlsServerExampleTest, AnswersNoClientWithoutACertificate) {
    SSLSocket socket = dial(clientContext(), m_address);
    EXPECT_EQ("", receive(socket));
    EXPECT_EQ("not trusted: no certificate", line());
}

TEST_F(TlsServerExampleTest, AnswersNoUnknownClient) {
    const Identity alone = norvauthority::issue({.subject = {{"CN", "alone"}}, .key = norvauthority::Key::ec()});
    SSLSocket socket = dial(context(clientSide, &alone), m_address);
    EXPECT_EQ("", receive(socket));
    EXPECT_THAT(line(), HasSubstr("not trusted: self-signed certificate"));
}

} // namespace
