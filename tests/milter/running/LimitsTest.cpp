// Messages that take more than they may get, in a daemon whose reader of mails is made to.
#include "milter/running/MilterRunning.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using norvtest::MilterAnswer;
using norvtest::MilterPeer;
using testing::HasSubstr;

namespace {

class MilterLimits : public norvtest::MilterRunning {
protected:
    MilterLimits() : MilterRunning("milter_hungry_daemon") {}

    /// A message up to its last octet, with a field that says what it makes the reader do.
    static void begin(MilterPeer& peer, const std::string& queueId, const std::string& what) {
        ASSERT_TRUE(peer.header(queueId, "<a@a.example>", {"<b@b.example>"},
                                {{"From", " a@a.example"}, {"X-Test", " " + what}, {"Subject", " greetings"}}));
        ASSERT_TRUE(peer.body("hello\r\n"));
    }
};

} // namespace

TEST_F(MilterLimits, AMessageThatTakesAllMemoryIsForLater) {
    start("", "[limits]\nmemory_bytes = 67108864\n");
    MilterPeer other(socket());
    ASSERT_EQ('c', other.begin());
    begin(other, "OTHER", "nothing");
    MilterPeer peer(socket());
    ASSERT_EQ('c', peer.begin());
    for (const char* const queueId : {"HUNGRY1", "HUNGRY2"}) {
        begin(peer, queueId, "all memory");
        const MilterAnswer answer = peer.end();
        EXPECT_EQ('y', answer.kind);
        EXPECT_EQ("451 4.7.1 temporary trouble in the mail filter, try again later", answer.reply);
        wait("level=warning event=message queue=" + std::string(queueId) + " action=tempfail");
    }
    EXPECT_EQ(2, count("reason=\"out of memory\"")) << log();
    // Nobody else notices, neither the message that was in hand nor the next one of the same connection.
    EXPECT_EQ('c', other.end().kind);
    EXPECT_EQ('c', peer.message("NEXT", "hello\r\n").kind);
    const std::string text = metrics();
    EXPECT_THAT(text, HasSubstr("norvcrypt_milter_messages_total{direction=\"incoming\",outcome=\"tempfail\"} 2\n"));
    EXPECT_THAT(text, HasSubstr("norvcrypt_milter_messages_total{direction=\"incoming\",outcome=\"pass\"} 2\n"));
    EXPECT_THAT(text, HasSubstr("norvcrypt_milter_messages_in_hand 0\n"));
    EXPECT_EQ(1, count("event=worker-started"));
    EXPECT_EQ(0, stop());
}

TEST_F(MilterLimits, AMessageThatNeverEndsEndsTheWorker) {
    start("stop_timeout = 1\n", "[limits]\nseconds_per_message = 1\n");
    MilterPeer peer(socket());
    ASSERT_EQ('c', peer.begin());
    begin(peer, "STUCK", "never comes back");
    peer.send('E', "");
    wait("level=error event=message-stuck seconds=1");
    wait("event=worker-ended reason=\"exit 75\"");
    // It gets no answer, so that the MTA does what it is told to do without the filter: to come again later.
    while (const auto packet = peer.receive())
        EXPECT_EQ('p', packet->kind) << "that it is worked on";
    EXPECT_EQ(0, count("queue=STUCK"));
    expectMailPasses("NEXT");
    EXPECT_THAT(metrics(), HasSubstr("norvcrypt_milter_worker_restarts 1\n"));
    wait("event=worker-started", 2);
    EXPECT_EQ(2, count("event=worker-started"));
    EXPECT_EQ(0, stop());
}
