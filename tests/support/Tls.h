#pragma once

// Both ends of TLS connections over loopback, in one process.

#include "support/Keys.h"
#include "support/Thrown.h"

#include <norvcrypto/Crypto.h>
#include <norvcrypto/SSLSocket.h>

#include <authority/Authority.h>

#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>

#include <gtest/gtest.h>

#include <array>
#include <future>
#include <list>
#include <string>
#include <utility>

namespace tlstesting {

using Norvane::Socket;
using Norvane::SocketAddress;
using Norvane::Crypto::NVSSL::ContextFactory;
using Norvane::Crypto::NVSSL::RefContext;
using Norvane::Crypto::NVSSL::SSLSocket;
using norvauthority::Identity;
using norvtest::detailOf;
using norvtest::errorQueueIsEmpty;
using norvtest::expectFailure;
using norvtest::thrownBy;

constexpr bool clientSide = true;
constexpr bool serverSide = false;

inline const Identity& root() {
    static const Identity identity = norvauthority::issue(
        {.subject = {{"CN", "TLS root"}}, .key = norvauthority::Key::ec(), .ca = true, .keyUsage = 0x06U});
    return identity;
}

/// A certificate under the root, with a key of its own.
inline Identity issued(const std::string& name, norvauthority::CertificateRequest request = {}) {
    request.subject = {{"CN", name}};
    request.key = norvauthority::Key::ec();
    request.issuer = &root();
    return norvauthority::issue(request);
}

inline const Identity& server() {
    static const Identity identity =
        issued("server", {.serial = "5", .alternativeNames = {norvauthority::GeneralName::dns("localhost")}});
    return identity;
}

inline const Identity& client() {
    static const Identity identity = issued("client", {.serial = "c"});
    return identity;
}

inline Norvane::Crypto::RefKey keyOf(const Identity& identity) {
    return norvtest::privateKeyOf(identity.key);
}

/// A certificate that owns its X509.
inline Norvane::Crypto::NVX509::RefCertificate certificateOf(const Identity& identity) {
    return Norvane::Crypto::NVX509::CertificateFactory()(identity.certificate.x509().release(), true);
}

/// A context with an identity, or without one.
inline RefContext context(bool client, const Identity* identity = nullptr,
                          ContextFactory::Method method = ContextFactory::SSL_V23) {
    ContextFactory factory;
    factory.init();
    RefContext made = factory.create(method, client);
    if (identity != nullptr) {
        made->certificate(certificateOf(*identity));
        made->privateKey(keyOf(*identity));
    }
    return made;
}

inline RefContext serverContext() {
    return context(serverSide, &server());
}
inline RefContext clientContext() {
    return context(clientSide);
}

/// Holds a context to one version of the protocol.
inline RefContext only(const RefContext& context, int version) {
    EXPECT_EQ(1, SSL_CTX_set_min_proto_version(context, version));
    EXPECT_EQ(1, SSL_CTX_set_max_proto_version(context, version));
    return context;
}

inline void trust(const RefContext& context, const Identity& authority) {
    const auto certificate = authority.certificate.x509();
    // OpenSSL looks at the extensions at the first use otherwise, and publishes them by means that ThreadSanitizer does not see in it.
    X509_check_purpose(certificate.get(), -1, 0);
    EXPECT_EQ(1, X509_STORE_add_cert(SSL_CTX_get_cert_store(context), certificate.get()));
}

/// A plain or TLS socket, made to listen on a port of the kernel's choice.
template <class AnySocket> AnySocket listening(AnySocket socket, const std::string& address = "127.0.0.1:0") {
    socket.bind(SocketAddress(address));
    socket.listen();
    return socket;
}

inline SSLSocket listener(RefContext context) {
    return listening(SSLSocket(context, 2));
}

inline SSLSocket dial(RefContext context, const SocketAddress& address) {
    return {context, address};
}

/// Both ends after the handshake.
struct Connection {
    SSLSocket client;
    SSLSocket server;
};

/// Connects to a listener and accepts there.
inline Connection connectedTo(SSLSocket& listening, const RefContext& clientContext) {
    auto client = std::async(std::launch::async, dial, clientContext, listening.localAddress());
    SSLSocket server(listening.accept());
    return {client.get(), server};
}

inline Connection connected(const RefContext& clientContext, const RefContext& serverContext) {
    SSLSocket listening = listener(serverContext);
    return connectedTo(listening, clientContext);
}

inline Connection connected() {
    return connected(clientContext(), serverContext());
}

inline int send(Socket& socket, const std::string& text) {
    return socket.send(reinterpret_cast<const Norvane::uchar_t*>(text.data()), static_cast<unsigned int>(text.size()));
}

/// What one `receive` brings.
inline std::string receive(Socket& socket) {
    std::array<Norvane::uchar_t, 16384> bytes{};
    const int length = socket.receive(bytes.data(), bytes.size());
    EXPECT_GE(length, 0);
    return {reinterpret_cast<const char*>(bytes.data()), static_cast<std::size_t>(length)};
}

/// `length` bytes, or fewer at the end of the stream.
inline std::string receive(Socket& socket, std::size_t length) {
    std::string all;
    while (all.size() < length) {
        const std::string some = receive(socket);
        if (some.empty()) {
            break;
        }
        all += some;
    }
    return all;
}

/// OpenSSL's reasons for a failure whose parameters are fixed.
inline std::string reasonOf(const Norvane::Exception& thrown) {
    if (!thrown.hasCause()) {
        return "<no cause>";
    }
    norvtest::expectFailure(*thrown.cause(), "OpenSSL", 4, "", 0);
    return norvtest::detailOf(*thrown.cause());
}

/// Starts the library once for the test program; each test begins with an empty queue.
class TlsTest : public testing::Test {
protected:
    static void SetUpTestSuite() { Norvane::Crypto::initialize(); }
    void SetUp() override { ERR_clear_error(); }
};

} // namespace tlstesting
