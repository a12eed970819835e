// TLS over loopback beside the same calls of raw OpenSSL on the same contexts: bytes one way, and handshakes. A thread of
// its own is the server.
#include "Support.h"

#include <norvcrypto/SSLSocket.h>

#include <openssl/ssl.h>

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <thread>

using namespace Norvane;
using namespace Norvane::Crypto;

namespace {

NVSSL::RefContext context(bool client) {
    NVSSL::RefContext made = NVSSL::ContextFactory().create(NVSSL::ContextFactory::SSL_V23, client);
    if (!client) {
        static const auto identity =
            norvauthority::issue({.subject = {{"CN", "localhost"}}, .key = norvauthority::Key::ec()});
        made->certificate(NVX509::CertificateFactory()(identity.certificate.x509().release(), true));
        made->privateKey(RefKey(new PrivateKey(identity.key.newReference())));
    }
    return made;
}

using Piece = std::array<unsigned char, bench::piece>;
constexpr int room = bench::piece;

/// One end as the library gives it.
class Ours {
public:
    using Listener = NVSSL::SSLSocket;
    static Listener listen(NVSSL::RefContext& context) {
        Listener listener(context, AF_INET);
        listener.bind(SocketAddress("127.0.0.1:0"));
        listener.listen();
        return listener;
    }
    static int portOf(const Listener& listener) { return listener.localAddress().port(); }

    Ours(NVSSL::RefContext& context, int port)
        : m_socket(NVSSL::SSLSocket(
              context, SocketAddress(IPAddress::fromText("127.0.0.1"), static_cast<std::uint16_t>(port)))) {}
    explicit Ours(Listener& listener, NVSSL::RefContext& /*context*/) : m_socket(listener.accept()) {}

    int send(const unsigned char* data, unsigned int length) { return m_socket.send(data, length); }
    int receive(Piece& piece) { return m_socket.receive(piece.data(), room); }

private:
    Socket m_socket;
};

/// One end as a program without the library would write it.
class Raw {
public:
    using Listener = int;
    static Listener listen(NVSSL::RefContext& /*context*/) {
        const Listener listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address = loopback(0);
        bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address);
        ::listen(listener, 4096);
        return listener;
    }
    static int portOf(Listener listener) {
        sockaddr_in address{};
        socklen_t length = sizeof address;
        getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length);
        return ntohs(address.sin_port);
    }

    Raw(NVSSL::RefContext& context, int port)
        : m_descriptor(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)),
          m_ssl(SSL_new(context)) {
        const sockaddr_in address = loopback(port);
        ::connect(m_descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address);
        SSL_set_fd(m_ssl, m_descriptor);
        SSL_connect(m_ssl);
    }
    explicit Raw(Listener& listener, NVSSL::RefContext& context)
        : m_descriptor(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC)),
          m_ssl(SSL_new(context)) {
        SSL_set_fd(m_ssl, m_descriptor);
        SSL_accept(m_ssl);
    }
    ~Raw() {
        SSL_shutdown(m_ssl);
        SSL_free(m_ssl);
        close(m_descriptor);
    }
    Raw(const Raw&) = delete;
    Raw& operator=(const Raw&) = delete;

    int send(const unsigned char* data, unsigned int length) {
        return SSL_write(m_ssl, data, static_cast<int>(length));
    }
    int receive(Piece& piece) { return SSL_read(m_ssl, piece.data(), room); }

private:
    static sockaddr_in loopback(int port) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<std::uint16_t>(port));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        return address;
    }

    int m_descriptor;
    SSL* m_ssl;
};

/// Bytes one way in pieces of 16 KB; the receiver answers with one byte when it has all of them.
template <class End> void transfer(benchmark::State& state) {
    const auto size = static_cast<std::size_t>(state.range(0));
    const auto& bytes = bench::body(size);
    NVSSL::RefContext forServer = context(false);
    NVSSL::RefContext forClient = context(true);
    auto listener = End::listen(forServer);
    std::thread server([&] {
        End end(listener, forServer);
        Piece piece;
        std::size_t got = 0;
        for (int count = 0; (count = end.receive(piece)) > 0;) {
            got += static_cast<std::size_t>(count);
            if (got == size) {
                got = 0;
                end.send(piece.data(), 1);
            }
        }
    });
    {
        End end(forClient, End::portOf(listener));
        Piece answer;
        for (auto _ : state) {
            bench::inPieces(bytes, size,
                            [&](const unsigned char* data, unsigned int length) { end.send(data, length); });
            if (end.receive(answer) != 1) {
                state.SkipWithError("no answer");
            }
        }
    }
    server.join();
    bench::countBytes(state);
}

/// A connection, its handshake on both sides and its end.
template <class End> void handshake(benchmark::State& state) {
    NVSSL::RefContext forServer = context(false);
    NVSSL::RefContext forClient = context(true);
    auto listener = End::listen(forServer);
    constexpr unsigned char more = 'm';
    constexpr unsigned char last = 'l';
    std::thread server([&] {
        Piece piece{};
        while (piece[0] != last) {
            End end(listener, forServer);
            end.receive(piece);
        }
    });
    const int port = End::portOf(listener);
    for (auto _ : state) {
        End end(forClient, port);
        end.send(&more, 1);
    }
    End(forClient, port).send(&last, 1);
    server.join();
}

void options(benchmark::internal::Benchmark* benchmark) {
    benchmark->Unit(benchmark::kMicrosecond)->UseRealTime()->MeasureProcessCPUTime();
}

BENCHMARK(transfer<Ours>)->Arg(1 << 20)->Arg(64 << 20)->Apply(options);
BENCHMARK(transfer<Raw>)->Arg(1 << 20)->Arg(64 << 20)->Apply(options);
BENCHMARK(handshake<Ours>)->Apply(options);
BENCHMARK(handshake<Raw>)->Apply(options);

} // namespace

int main(int argc, char** argv) {
    return bench::run(argc, argv);
}
