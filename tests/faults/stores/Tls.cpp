#include "Operations.h"

#include "support/Tls.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <thread>

namespace faultsofstores {

namespace NVSSL = Norvane::Crypto::NVSSL;

namespace {

constexpr std::size_t s_transfer = 5000;
const std::string s_sent(s_transfer, 's');
const std::string s_answer(s_transfer, 'a');

/// All of it, or an exception.
void sendAll(Norvane::Socket& socket, const std::string& text) {
    if (tlstesting::send(socket, text) != static_cast<int>(text.size())) {
        throw Norvane::Exception("sendAll", 4, "test", 1);
    }
}
std::string receiveAll(Norvane::Socket& socket, std::size_t length) {
    std::string all;
    std::vector<Norvane::uchar_t> piece(16384);
    while (all.size() < length) {
        const int count = socket.receive(piece.data(), 16384);
        if (count <= 0) {
            break;
        }
        all.append(reinterpret_cast<const char*>(piece.data()), static_cast<std::size_t>(count));
    }
    return all;
}

/// The other end, in a thread without faults, which is let go whatever becomes of this one.
class Peer {
public:
    Peer(std::function<void()> work, std::function<void()> letGo) : m_letGo(std::move(letGo)) {
        const faults::Pause pause;
        m_thread = std::thread([this, run = std::move(work)] {
            try {
                run();
            } catch (const Norvane::Exception&) { // of a failure on this side
            }
            ERR_clear_error();
            m_over = true;
        });
    }
    ~Peer() {
        const faults::Pause pause;
        while (!m_over) {
            m_letGo();
            usleep(500);
        }
        m_thread.join();
    }
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;

private:
    std::function<void()> m_letGo;
    std::atomic<bool> m_over{false};
    std::thread m_thread;
};

/// Listens, for one connection: one that only lets a peer go must not be left for the next.
struct Server {
    explicit Server(const NVSSL::RefContext& context) : listening(tlstesting::listener(context)) {}
    NVSSL::SSLSocket listening;
    Norvane::SocketAddress address = listening.localAddress();
};
/// Keeps no sessions, which would count as memory that is not given back.
NVSSL::RefContext servingContext() {
    const NVSSL::RefContext context = tlstesting::serverContext();
    SSL_CTX_set_session_cache_mode(context, SSL_SESS_CACHE_OFF);
    return context;
}
std::shared_ptr<Server> serverOn(const NVSSL::RefContext& context) {
    const faults::Pause pause;
    return std::make_shared<Server>(context);
}

NVSSL::ConnectionOptions trusting() {
    NVSSL::ConnectionOptions options;
    options.requireTrust = true;
    options.hostName = "localhost";
    options.timeLimit = 60000;
    return options;
}

} // namespace

Operation connects(const std::string& name, const Identity& trusted, int version, bool bad) {
    const NVSSL::RefContext serving = servingContext();
    const auto context = std::make_shared<NVSSL::RefContext>(tlstesting::only(tlstesting::clientContext(), version));
    tlstesting::trust(*context, trusted);
    SSL_CTX_set_verify(*context, SSL_VERIFY_PEER, nullptr);
    return {.name = "TLS client " + name,
            .act =
                [=] {
                    const auto server = serverOn(serving);
                    const Peer peer(
                        [server] {
                            Norvane::Socket socket = server->listening.accept();
                            if (receiveAll(socket, s_transfer) == s_sent) {
                                sendAll(socket, s_answer);
                            }
                        },
                        [server] { // a connection that ends at once
                            Norvane::Socket socket(true);
                            try {
                                socket.connect(server->address);
                            } catch (const Norvane::Exception&) {
                            }
                        });
                    NVSSL::SSLSocket socket(*context, server->address, trusting());
                    sendAll(socket, s_sent);
                    const std::string answer = receiveAll(socket, s_transfer);
                    if (answer == s_answer) {
                        return Answer{Answer::done};
                    }
                    return answer == s_answer.substr(0, answer.size()) ? Answer{Answer::refused, "the end came early"}
                                                                       : Answer{Answer::wrong, "other bytes"};
                },
            .mustRefuse = bad,
            .mayRefuse = true,
            .weight = 4};
}

Operation accepts() {
    const NVSSL::RefContext serving = servingContext();
    const auto context = std::make_shared<NVSSL::RefContext>(tlstesting::clientContext());
    return {.name = "TLS server",
            .act =
                [=] {
                    const auto server = serverOn(serving);
                    const Peer peer(
                        [=] {
                            NVSSL::SSLSocket socket(*context, server->address);
                            sendAll(socket, s_sent);
                            receiveAll(socket, s_transfer);
                        },
                        [server] { // whoever is still waiting to be accepted
                            pollfd ready{server->listening.descriptor(), POLLIN, 0};
                            if (poll(&ready, 1, 1) == 1) {
                                close(accept(ready.fd, nullptr, nullptr));
                            }
                        });
                    Norvane::Socket socket = server->listening.accept();
                    const std::string received = receiveAll(socket, s_transfer);
                    if (received != s_sent) {
                        return received == s_sent.substr(0, received.size())
                                   ? Answer{Answer::refused, "the end came early"}
                                   : Answer{Answer::wrong, "other bytes"};
                    }
                    sendAll(socket, s_answer);
                    return Answer{Answer::done};
                },
            .mayRefuse = true,
            .weight = 4};
}

} // namespace faultsofstores
