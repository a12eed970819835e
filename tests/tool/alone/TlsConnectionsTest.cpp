// The connections of norvcrypt tls serve, ended from another thread.

#include <tls/TlsConnections.h>

#include <gtest/gtest.h>

#include <array>
#include <memory>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

using norvcrypt::TlsConnections;

namespace {

/// A connection that was made and says nothing yet.
class TlsConnectionsTest : public testing::Test {
protected:
    TlsConnectionsTest() {
        EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, m_ends.data()));
        EXPECT_EQ(1, SSL_set_fd(ssl.get(), m_ends[0]));
    }
    ~TlsConnectionsTest() override {
        for (const int end : m_ends)
            close(end);
    }
    /// Whether the peer sees the end of it.
    [[nodiscard]] bool isCut() const {
        char byte = 0;
        return recv(m_ends[1], &byte, 1, MSG_DONTWAIT) == 0;
    }

    std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)> context{SSL_CTX_new(TLS_method()), SSL_CTX_free};
    std::unique_ptr<SSL, decltype(&SSL_free)> ssl{SSL_new(context.get()), SSL_free};

private:
    std::array<int, 2> m_ends{-1, -1};
};

constexpr std::chrono::seconds passed{-1};
constexpr std::chrono::seconds hour{3600};

TEST_F(TlsConnectionsTest, AHandshakeThatTakesTooLongIsEnded) {
    TlsConnections all(passed);
    all.begin(ssl.get());
    EXPECT_FALSE(all.wasTooSlow());
    std::thread([&all] { all.endSlowHandshakes(); }).join();
    EXPECT_TRUE(isCut());
    EXPECT_TRUE(all.wasTooSlow());
}

TEST_F(TlsConnectionsTest, OneThatIsThroughOrHasTimeIsLeftAlone) {
    TlsConnections young(hour);
    young.begin(ssl.get());
    young.endSlowHandshakes();
    TlsConnections through(passed);
    through.begin(ssl.get());
    through.established();
    through.endSlowHandshakes();
    EXPECT_FALSE(isCut());
    EXPECT_FALSE(young.wasTooSlow() || through.wasTooSlow());
}

TEST_F(TlsConnectionsTest, StoppingEndsWhatStands) {
    TlsConnections standing(hour);
    standing.begin(ssl.get());
    standing.established();
    EXPECT_FALSE(standing.isStopped());
    EXPECT_TRUE(standing.stop());
    EXPECT_FALSE(standing.stop()) << "the second time";
    EXPECT_TRUE(standing.isStopped() && isCut());
}

TEST_F(TlsConnectionsTest, WhatBeginsAfterTheStopIsEndedAtOnce) {
    TlsConnections all(hour);
    all.stop();
    all.begin(ssl.get());
    EXPECT_TRUE(isCut());
}

TEST_F(TlsConnectionsTest, WhatIsOverIsForgotten) {
    TlsConnections all(passed);
    all.begin(ssl.get());
    EXPECT_NE("nobody", all.peer());
    all.end();
    all.endSlowHandshakes();
    all.stop();
    EXPECT_FALSE(isCut());
    EXPECT_EQ("nobody", all.peer());
}

} // namespace
