#include <norvcmsg/Socket.h>

#include <gtest/gtest.h>

#include <string>

namespace {

using Norvane::Socket;
using Norvane::SocketAddress;
using Norvane::uchar_t;

TEST(SocketTest, BytesGoBothWaysAndTheEndIsTold) {
    Socket listener(true);
    listener.bind(SocketAddress("127.0.0.1:0"));
    listener.listen();
    Socket client(true);
    client.connect(listener.localAddress());
    Socket server = listener.accept();
    EXPECT_EQ(server.remoteAddress(), client.localAddress());
    EXPECT_EQ(client.send(reinterpret_cast<const uchar_t*>("hello"), 5), 5);
    uchar_t buffer[16];
    EXPECT_EQ(server.receive(buffer, sizeof buffer), 5);
    client.close();
    EXPECT_EQ(server.receive(buffer, sizeof buffer), 0);
    EXPECT_EQ(errno, 0);
}

} // namespace
