// Sends standard input to a TLS server and prints what comes back, once it knows who the server is:
//
//     tls_client 192.0.2.1:465 mx.example.org trusted.pem <request
//
// Exits with 0 when the server's certificate is good for that name and its answer came to an orderly end, with 1 when the
// server is not to be trusted or cut the answer short, and with 2 for everything else.

#include <norvcrypto/Crypto.h>
#include <norvcrypto/SSLSocket.h>

#include <openssl/ssl.h>
#include <openssl/x509v3.h>

#include <array>
#include <cstdio>
#include <string>

using namespace Norvane;
using namespace Norvane::Crypto;

namespace {

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

/// The handshake lets every server pass: its certificate has to be looked at before the first byte is sent.
bool isTrusted(const NVSSL::SSLSocket& server, const std::string& name) {
    X509* certificate = SSL_get0_peer_certificate(server);
    const long result = SSL_get_verify_result(server); // X509_V_OK for a peer without a certificate, too
    if (certificate == nullptr || result != X509_V_OK) {
        std::fprintf(stderr, "not trusted: %s\n",
                     certificate == nullptr ? "no certificate" : X509_verify_cert_error_string(result));
        return false;
    }
    if (X509_check_host(certificate, name.c_str(), name.size(), 0, nullptr) != 1) {
        std::fprintf(stderr, "not trusted: the certificate is not that of %s\n", name.c_str());
        return false;
    }
    return true;
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

int converse(const std::string& address, const std::string& name, const std::string& trustedFile) {
    NVSSL::RefContext context = trusting(trustedFile);
    const SocketAddress where(address);
    NVSSL::SSLSocket server(context, where.family());
    server.timeLimit(30000); // before connecting: it holds for that and for the handshake too
    server.connect(where);
    if (!isTrusted(server, name)) {
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
    if (count != 4) {
        std::fputs("usage: tls_client ADDRESS:PORT NAME TRUSTED <request\n", stderr);
        return 2;
    }
    initialize();
    try {
        return converse(arguments[1], arguments[2], arguments[3]);
    } catch (const Exception& failure) {
        std::fprintf(stderr, "%s\n", failure.asString().c_str()); // OpenSSL's reasons are in it
        return 2;
    }
}
