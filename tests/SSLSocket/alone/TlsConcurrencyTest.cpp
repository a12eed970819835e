// Meant for the thread sanitizer: what many threads share where TLS is spoken.

#include "support/Tls.h"

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

using namespace Norvane;
using namespace tlstesting;

namespace {

constexpr int threadCount = 8;
constexpr int rounds = 4;

class TlsConcurrencyTest : public TlsTest {};

template <class Work> void inThreads(Work work) {
    std::vector<std::thread> threads;
    for (int i = 0; i < threadCount; ++i) {
        threads.emplace_back([=] { work(i); });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

TEST_F(TlsConcurrencyTest, SocketsOfEightThreadsShareOneContext) {
    // Every thread makes its own pairs on the same two contexts, copies of their handles included.
    const RefContext forServer = serverContext();
    const RefContext forClient = clientContext();
    trust(forClient, root());
    std::atomic<int> served{0};
    inThreads([&](int i) {
        for (int round = 0; round < rounds; ++round) {
            Connection both = connected(forClient, forServer);
            const std::string text = std::to_string(i * 100 + round);
            send(both.client, text);
            EXPECT_EQ(text, receive(both.server));
            send(both.server, text);
            EXPECT_EQ(text, receive(both.client));
            EXPECT_EQ(X509_V_OK, SSL_get_verify_result(both.client));
            ++served;
        }
    });
    EXPECT_EQ(threadCount * rounds, served);
    EXPECT_EQ(1, forServer->referenceCount());
}

TEST_F(TlsConcurrencyTest, EightThreadsAcceptOnOneListener) {
    SSLSocket listening = listener(serverContext());
    const SocketAddress address = listening.localAddress();
    std::vector<std::thread> servers;
    for (int i = 0; i < threadCount; ++i) {
        servers.emplace_back([listening]() mutable {
            for (int round = 0; round < rounds; ++round) {
                Socket peer = listening.accept();
                send(peer, receive(peer));
                EXPECT_EQ("", receive(peer));
            }
        });
    }
    const RefContext forClient = clientContext();
    inThreads([&](int i) {
        for (int round = 0; round < rounds; ++round) {
            SSLSocket socket = dial(forClient, address);
            send(socket, std::to_string(i));
            EXPECT_EQ(std::to_string(i), receive(socket));
        }
    });
    for (std::thread& server : servers) {
        server.join();
    }
}

TEST_F(TlsConcurrencyTest, SendersAndReceiversOfOneSocketExcludeEachOther) {
    Connection both = connected();
    constexpr int pieces = 40;
    std::vector<std::thread> senders;
    for (int i = 0; i < 4; ++i) {
        senders.emplace_back([client = both.client]() mutable {
            for (int n = 0; n < pieces; ++n) {
                EXPECT_EQ(500, send(client, std::string(500, 's')));
            }
        });
    }
    std::atomic<std::size_t> received{0};
    constexpr std::size_t all = 4UL * pieces * 500;
    both.server.blocking(false); // so that no receiver keeps the lock while it waits
    std::vector<std::thread> receivers;
    for (int i = 0; i < 4; ++i) {
        receivers.emplace_back([server = both.server, &received]() mutable {
            while (received < all) {
                received += receive(server).size();
            }
        });
    }
    for (auto* threads : {&senders, &receivers}) {
        for (std::thread& thread : *threads) {
            thread.join();
        }
    }
    EXPECT_EQ(all, received);
}

/// Lets a test hold the socket's own lock.
class Holdable : public Norvane::Crypto::NVSSL::SSLSocketImpl {
public:
    using SSLSocketImpl::SSLSocketImpl;
    Norvane::Mutex& lock() { return *m_mutex; }
};

TEST_F(TlsConcurrencyTest, SendAndReceiveTakeTheSocketsOwnLock) {
    SSLSocket listening = listener(serverContext());
    auto accepted = std::async(std::launch::async, [&] { return listening.accept(); });
    RefContext forClient = clientContext();
    Socket client(Norvane::makeReference<Holdable, Norvane::SocketImpl>(forClient, listening.localAddress()));
    Socket peer = accepted.get();
    send(peer, "there");
    std::future<int> sending;
    std::future<std::string> receiving;
    {
        const Norvane::Synchronized held(dynamic_cast<Holdable&>(*client).lock());
        sending = std::async(std::launch::async, [&] { return send(client, "here"); });
        receiving = std::async(std::launch::async, [&] { return receive(client); });
        constexpr std::chrono::milliseconds moment(50);
        EXPECT_EQ(std::future_status::timeout, sending.wait_for(moment));
        EXPECT_EQ(std::future_status::timeout, receiving.wait_for(moment));
    }
    EXPECT_EQ(4, sending.get());
    EXPECT_EQ("there", receiving.get());
}

TEST_F(TlsConcurrencyTest, ContextsAreMadeAndReleasedInEightThreads) {
    inThreads([](int i) {
        for (int round = 0; round < rounds; ++round) {
            const RefContext made = i % 2 == 0 ? serverContext() : clientContext();
            EXPECT_EQ(i % 2 == 0, made->privateKeyIsValid());
        }
    });
}

} // namespace
