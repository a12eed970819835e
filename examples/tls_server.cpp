// Serves one TLS connection and sends back what comes in:
//
//     tls_server 127.0.0.1:0 server.pem server.key clients.pem
//
// server.pem holds the server's certificate and then those of its issuers, clients.pem the certificates that clients are
// verified with. Prints the address that it listens on, and for the client the subject of its certificate or why it is not
// trusted; only a trusted client is answered.

#include <norvcmsg/File.h>
#include <norvcrypto/Crypto.h>
#include <norvcrypto/SSLSocket.h>

#include <openssl/ssl.h>

#include <poll.h>

#include <array>
#include <cstdio>
#include <iterator>
#include <list>
#include <string>

using namespace Norvane;
using namespace Norvane::Crypto;

namespace {

std::list<NVX509::RefCertificate> readChain(const std::string& file) {
    std::list<NVX509::RefCertificate> chain;
    NVX509::CertificateFactory().read(file, chain);
    chain.remove_if([](const NVX509::RefCertificate& certificate) { return certificate.isNull(); });
    if (chain.empty()) {
        throw Exception("readChain", 4, nullptr, 0).stringParameter(file + " holds no certificate");
    }
    return chain;
}

RefKey readKey(const std::string& file) {
    Buffer pem;
    FileMediaIn(File::Path(file)).read(pem, 0);
    RefKey key(Key::PRIVATE_KEY);
    key->readPEM(pem);
    return key;
}

/// Loads the server's own identity. The context takes over what is appended to the path: the certificates must not free
/// it as well.
void identify(NVSSL::RefContext& context, const std::string& chainFile, const std::string& keyFile) {
    const std::list<NVX509::RefCertificate> chain = readChain(chainFile);
    context->certificate(chain.front());
    for (auto issuer = std::next(chain.begin()); issuer != chain.end(); ++issuer) {
        context->appendToCertificatePath(*issuer);
        (*issuer)->relinquishOwnerShip();
    }
    context->privateKey(readKey(keyFile));
}

/// Asks clients for certificates of these authorities, and lets the rest of the program decide about what verification
/// found.
void askClients(NVSSL::RefContext& context, const std::string& authorities) {
    if (SSL_CTX_load_verify_locations(context, authorities.c_str(), nullptr) != 1) {
        throw Exception("askClients", 4, nullptr, 0).stringParameter(authorities + ": " + getErrString());
    }
    SSL_CTX_set_client_CA_list(context, SSL_load_client_CA_file(authorities.c_str()));
    SSL_CTX_set_verify(context, SSL_VERIFY_PEER, [](int, X509_STORE_CTX*) { return 1; });
}

/// A client without a certificate has the result X509_V_OK: both have to be looked at.
bool isTrusted(const NVSSL::SSLSocket& client) {
    X509* certificate = SSL_get0_peer_certificate(client);
    const long result = SSL_get_verify_result(client);
    if (certificate == nullptr || result != X509_V_OK) {
        std::printf("not trusted: %s\n",
                    certificate == nullptr ? "no certificate" : X509_verify_cert_error_string(result));
        return false;
    }
    const NVX509::RefCertificate shown = NVX509::CertificateFactory()(certificate, false);
    std::printf("%s\n", displayName(shown->subject()).c_str());
    return true;
}

void echo(Socket& client) {
    std::array<unsigned char, 16384> piece{}; // a whole TLS record: with less, bytes could stay behind
    while (const int length = client.receive(piece.data(), static_cast<unsigned int>(piece.size()))) {
        if (client.send(piece.data(), static_cast<unsigned int>(length)) != length) {
            return;
        }
    }
}

void serve(const std::string& address, const std::string& chainFile, const std::string& keyFile,
           const std::string& authorities) {
    NVSSL::ContextFactory factory;
    factory.init();
    NVSSL::RefContext context = factory.create(NVSSL::ContextFactory::SSL_V23, false);
    identify(context, chainFile, keyFile);
    askClients(context, authorities);

    const SocketAddress where(address);
    NVSSL::SSLSocket listener(context, where.family());
    listener.bind(where);
    listener.listen();
    std::printf("%s\n", listener.localAddress().asString().c_str());
    std::fflush(stdout);
    pollfd arriving{listener.descriptor(), POLLIN, 0};
    poll(&arriving, 1, -1);    // for as long as no client comes
    listener.timeLimit(30000); // for each wait of the handshake
    // A server of many clients catches what a bad handshake throws, and goes on.
    NVSSL::SSLSocket client(listener.accept());
    client.timeLimit(30000);
    if (isTrusted(client)) {
        echo(client);
    }
}

} // namespace

int main(int count, char** arguments) {
    if (count != 5) {
        std::fputs("usage: tls_server ADDRESS:PORT CHAIN KEY CLIENTS\n", stderr);
        return 2;
    }
    initialize();
    try {
        serve(arguments[1], arguments[2], arguments[3], arguments[4]);
        return 0;
    } catch (const Exception& failure) {
        std::fprintf(stderr, "%s\n", failure.asString().c_str());
        return 2;
    }
}
