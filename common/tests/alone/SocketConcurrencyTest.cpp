#include <norvcmsg/Sleep.h>
#include <norvcmsg/Socket.h>

#include "../Sockets.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace sockets;
using Norvane::Socket;

TEST(SocketConcurrency, OneThreadSendsWhileAnotherReceives) {
    Pair pair;
    const auto text = pattern(1'000'000);
    std::string atClient;
    std::string atServer;
    std::vector<std::thread> threads;
    threads.emplace_back([&] {
        send(pair.client, text);
        pair.client.shutdown(false, true);
    });
    threads.emplace_back([&] {
        send(pair.server, text);
        pair.server.shutdown(false, true);
    });
    threads.emplace_back([&] { atClient = receiveAll(pair.client); });
    threads.emplace_back([&] { atServer = receiveAll(pair.server); });
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_TRUE(atClient == text);
    EXPECT_TRUE(atServer == text);
}

TEST(SocketConcurrency, SeveralThreadsAcceptFromOneListener) {
    constexpr int threadCount = 4;
    constexpr int connections = 200;
    Socket listener = listening();
    std::atomic<int> answered = 0;
    std::vector<std::thread> servers;
    for (int i = 0; i < threadCount; ++i) {
        servers.emplace_back([&answered, own = listener]() mutable {
            const auto end = failureOf([&] {
                while (true) {
                    Socket peer = own.accept();
                    send(peer, receive(peer));
                    ++answered;
                }
            });
            EXPECT_EQ(end, "SocketImpl::accept (4): Invalid argument (22)");
        });
    }
    std::vector<std::thread> clients;
    for (int i = 0; i < threadCount; ++i) {
        clients.emplace_back([address = listener.localAddress()] {
            for (int each = 0; each < connections / threadCount; ++each) {
                Socket client(true);
                client.connect(address);
                send(client, "echo");
                EXPECT_EQ(receiveAll(client), "echo");
            }
        });
    }
    for (auto& thread : clients) {
        thread.join();
    }
    listener.shutdown();
    for (auto& thread : servers) {
        thread.join();
    }
    EXPECT_EQ(answered, connections);
}

TEST(SocketConcurrency, AnotherThreadEndsAWait) {
    Pair pair;
    std::thread ending([socket = pair.client]() mutable {
        Norvane::pause(0, 20);
        socket.shutdown();
    });
    EXPECT_EQ(receive(pair.client), "");
    EXPECT_EQ(receive(pair.server), "") << "the peer is told too";
    ending.join();
}

} // namespace
