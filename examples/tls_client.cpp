// Sends standard input to a TLS server and prints what comes back, if the server is who it should be:
//
//     tls_client 192.0.2.1:465 mx.example.org trusted.pem <request
//     tls_client --starttls 192.0.2.1:25 mx.example.org trusted.pem <request
//
// With --starttls it speaks SMTP first, until the server agrees to TLS. Exits with 0 when the answer came to an orderly end,
// with 1 when the server is not to be trusted or cut the answer short, and with 2 for everything else.

#include <norvcmsg/Buffer.h>
#include <norvcrypto/Crypto.h>
#include <norvcrypto/SSLSocket.h>

#include <openssl/ssl.h>

#include <array>
#include <cstdio>
#include <string>

using namespace Norvane;
using namespace Norvane::Crypto;

namespace {

constexpr std::size_t longestReply = 16384;

/// TLS for clients that trusts the certificates of a PEM file.
NVSSL::RefContext trusting(const std::string& file) {
    NVSSL::ContextFactory factory;
    factory.init();
    NVSSL::RefContext context = factory.create(NVSSL::ContextFactory::SSL_V23, true);
    if (SSL_CTX_load_verify_locations(context, file.c_str(), nullptr) != 1) {
        throw Exception("trusting", 4, nullptr, 0).stringParameter(file + ": " + getErrString());
    }
    return context;
}

/// What is asked of every connection of this program. Whether the peer is trusted is asked after the handshake, to tell why
/// not; `requireTrust` would end it there.
NVSSL::ConnectionOptions optionsFor(const std::string& name) {
    NVSSL::ConnectionOptions options;
    options.timeLimit = 30000;      // milliseconds, for each wait, that for the connection among them
    options.handshakeLimit = 10000; // for the whole handshake
    options.hostName = name;        // sent to the server, and compared with its certificate
    return options;
}

void say(Socket& server, const std::string& line) {
    server.send(reinterpret_cast<const uchar_t*>(line.data()), static_cast<uint_t>(line.size()));
}

/// Takes a reply of SMTP, which may have several lines, off what was received. False when it is not `code`.
bool replied(Socket& server, std::string& received, const std::string& code) {
    while (true) {
        const std::size_t end = received.find('\n');
        if (end == std::string::npos) {
            std::array<uchar_t, 512> piece{};
            const int length = server.receive(piece.data(), static_cast<uint_t>(piece.size()));
            if (length == 0 || received.size() > longestReply) {
                return false;
            }
            received.append(reinterpret_cast<const char*>(piece.data()), static_cast<std::size_t>(length));
            continue;
        }
        const std::string line = received.substr(0, end);
        received.erase(0, end + 1);
        if (line.compare(0, 3, code) != 0) {
            return false;
        }
        if (line.size() < 4 || line[3] != '-') {
            return true;
        }
    }
}

/// STARTTLS of SMTP (RFC 3207): plain text until the server agrees. What is left of its answers then was said by nobody knows
/// whom, and the upgrade refuses it.
NVSSL::SSLSocket startTls(NVSSL::RefContext& context, const SocketAddress& address,
                          const NVSSL::ConnectionOptions& options) {
    Socket plain(true);
    plain.timeLimit(options.timeLimit);
    plain.connect(address);
    std::string received;
    const auto step = [&](const std::string& command, const std::string& code) {
        say(plain, command);
        if (!replied(plain, received, code)) {
            throw Exception("startTls", 4, nullptr, 0).stringParameter("the server does not start TLS");
        }
    };
    step("", "220");
    step("EHLO client.example.org\r\n", "250");
    step("STARTTLS\r\n", "220");
    const Buffer unread(received.data(), static_cast<uint_t>(received.size()), false);
    return NVSSL::SSLSocket::upgradeClient(context, plain, unread, options);
}

/// The handshake lets every server pass: what it brought has to be looked at before the first byte is sent.
bool isTrusted(const NVSSL::SSLSocket& server) {
    const NVSSL::SessionFacts facts = server.session();
    if (facts.isTrusted()) {
        std::fprintf(stderr, "%s, %s\n", facts.protocol.c_str(), facts.cipher.c_str());
        return true;
    }
    std::fprintf(stderr, "not trusted: %s\n", facts.certificate.isNull() ? "no certificate" : facts.verifyText.c_str());
    return false;
}

/// True when all of the input was sent.
bool sendStandardInput(Socket& server) {
    std::array<unsigned char, 16384> piece{};
    while (const std::size_t length = std::fread(piece.data(), 1, piece.size(), stdin)) {
        if (server.send(piece.data(), static_cast<unsigned int>(length)) != static_cast<int>(length)) {
            return false;
        }
    }
    return std::ferror(stdin) == 0;
}

void printAnswer(Socket& server) {
    std::array<unsigned char, 16384> piece{}; // a whole TLS record: with less, bytes could stay behind
    while (const int length = server.receive(piece.data(), static_cast<unsigned int>(piece.size()))) {
        std::fwrite(piece.data(), 1, static_cast<std::size_t>(length), stdout);
    }
}

int converse(const std::string& address, const std::string& name, const std::string& trustedFile, bool starttls) {
    NVSSL::RefContext context = trusting(trustedFile);
    const SocketAddress where(address);
    const NVSSL::ConnectionOptions options = optionsFor(name);
    NVSSL::SSLSocket server = starttls ? startTls(context, where, options) : NVSSL::SSLSocket(context, where, options);
    if (!isTrusted(server)) {
        return 1;
    }
    if (!sendStandardInput(server)) {
        std::fputs("the request was not sent\n", stderr);
        return 2;
    }
    printAnswer(server);
    if ((SSL_get_shutdown(server) & SSL_RECEIVED_SHUTDOWN) == 0) {
        std::fputs("the answer was cut short\n", stderr);
        return 1;
    }
    return 0;
}

} // namespace

int main(int count, char** arguments) {
    const bool starttls = count == 5 && std::string(arguments[1]) == "--starttls";
    if (count != 4 && !starttls) {
        std::fputs("usage: tls_client [--starttls] ADDRESS:PORT NAME TRUSTED <request\n", stderr);
        return 2;
    }
    initialize();
    try {
        const int first = starttls ? 2 : 1;
        return converse(arguments[first], arguments[first + 1], arguments[first + 2], starttls);
    } catch (const Exception& failure) {
        std::fprintf(stderr, "%s\n", failure.asString().c_str()); // OpenSSL's reasons are in it
        return 2;
    }
}
