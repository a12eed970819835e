// Many connections: what they used is given back.

#include "support/Tls.h"

#include <sys/resource.h>

#include <atomic>
#include <filesystem>
#include <iterator>
#include <mutex>
#include <thread>
#include <vector>

using namespace Norvane;
using namespace tlstesting;

namespace {

class TlsSoakTest : public TlsTest {};

std::ptrdiff_t openDescriptors() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

/// Both sides of `count` connections one after another, on contexts of their own.
void shakeHandsOneAfterAnother(int count) {
    SSLSocket listening = listener(serverContext());
    const SocketAddress address = listening.localAddress();
    std::thread server([&] {
        for (int i = 0; i < count; ++i) {
            Socket peer = listening.accept();
            EXPECT_EQ("", receive(peer));
        }
    });
    const RefContext forClient = clientContext();
    for (int i = 0; i < count; ++i) {
        SSLSocket socket = dial(forClient, address);
        ASSERT_TRUE(SSL_is_init_finished(socket));
    }
    server.join();
}

TEST_F(TlsSoakTest, TenThousandHandshakesLeaveNoDescriptor) {
    shakeHandsOneAfterAnother(1); // what is made once is there
    const auto before = openDescriptors();
    constexpr int handshakes = 10000;
    constexpr int lanes = 2;
    std::vector<std::thread> threads;
    for (int lane = 0; lane < lanes; ++lane) {
        threads.emplace_back(shakeHandsOneAfterAnother, handshakes / lanes);
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(before, openDescriptors());
}

TEST_F(TlsSoakTest, AThousandHandshakesThatFailOnEitherSideLeaveNoDescriptor) {
    shakeHandsOneAfterAnother(1);
    const auto before = openDescriptors();
    {
        SSLSocket listening = listener(serverContext());
        Socket plain = tlstesting::listening(Socket(true));
        const RefContext forClient = clientContext();
        for (int i = 0; i < 1000; ++i) {
            Socket stranger(true);
            stranger.connect(listening.localAddress());
            send(stranger, "no TLS of any kind");
            EXPECT_THROW(static_cast<void>(listening.accept()), Norvane::SocketException);
            auto server = std::async(std::launch::async, [&] {
                Socket peer = plain.accept();
                send(peer, "no TLS of any kind");
                receive(peer);
            });
            EXPECT_THROW(dial(forClient, plain.localAddress()), Norvane::SocketException);
        }
    }
    EXPECT_EQ(before, openDescriptors());
}

TEST_F(TlsSoakTest, AThousandConnectionsAtOnceLeaveNoDescriptor) {
    constexpr std::size_t connections = 1000;
    constexpr std::size_t perThread = 125;
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    constexpr rlim_t needed = 2 * connections + 100;
    if (limit.rlim_cur < needed) {
        limit.rlim_cur = needed;
        if (limit.rlim_max < needed || setrlimit(RLIMIT_NOFILE, &limit) != 0) {
            GTEST_SKIP() << "no more than " << limit.rlim_max << " descriptors are allowed here";
        }
    }
    shakeHandsOneAfterAnother(1);
    const auto before = openDescriptors();
    {
        const RefContext forClient = clientContext();
        SSLSocket listening = listener(serverContext());
        std::mutex mutex;
        std::vector<Socket> servers;
        std::vector<SSLSocket> clients;
        std::vector<std::thread> threads;
        for (std::size_t i = 0; i < connections / perThread; ++i) {
            threads.emplace_back([&, acceptor = listening]() mutable {
                for (std::size_t n = 0; n < perThread; ++n) {
                    Socket peer = acceptor.accept();
                    const std::lock_guard lock(mutex);
                    servers.push_back(peer);
                }
            });
            threads.emplace_back([&] {
                for (std::size_t n = 0; n < perThread; ++n) {
                    SSLSocket socket = dial(forClient, listening.localAddress());
                    const std::lock_guard lock(mutex);
                    clients.push_back(socket);
                }
            });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
        ASSERT_EQ(connections, servers.size());
        ASSERT_EQ(connections, clients.size());
        EXPECT_GE(openDescriptors(), static_cast<std::ptrdiff_t>(2 * connections)) << "all at once";
        for (SSLSocket& socket : clients) {
            ASSERT_EQ(4, send(socket, "ping"));
        }
        for (Socket& peer : servers) {
            ASSERT_EQ("ping", receive(peer));
        }
    }
    EXPECT_EQ(before, openDescriptors());
}

} // namespace
