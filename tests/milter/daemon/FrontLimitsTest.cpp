// The front: how much it takes from an MTA, and how long that waits.
#include "milter/support/FrontBench.h"
#include "support/TemporaryFolder.h"

#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <thread>

using namespace norvmilter;
using norvtest::Asking;
using norvtest::FrontBench;
using norvtest::lastCall;
using norvtest::Seen;
using testing::ElementsAre;
using testing::HasSubstr;

TEST(MilterFront, TooLargeMessagesAreNotKept) {
    Seen seen;
    FrontLimits limits;
    limits.messageBytes = 1000;
    FrontBench bench(seen.judge(), limits);
    Asking asking(bench);
    asking.negotiate();
    asking.connect();
    asking.message(std::string(900, 'x'));
    EXPECT_EQ(SMFIS_SKIP, asking.body(std::string(100, 'y')));
    EXPECT_EQ(SMFIS_SKIP, asking.body(std::string(100, 'y')));
    EXPECT_EQ(SMFIS_CONTINUE, asking.end());
    EXPECT_TRUE(seen.tooLarge.at(0));
    EXPECT_LT(seen.messages.at(0).size(), 1000U);
    EXPECT_THAT(bench.log.lines.back(), HasSubstr("bytes=1122"));
    asking.message();
    asking.end();
    EXPECT_FALSE(seen.tooLarge.at(1)) << "the next one";
}

// With no body there is no piece of it to count.
TEST(MilterFront, AHeaderAloneIsTooLargeAsWell) {
    Seen seen;
    FrontLimits limits;
    limits.messageBytes = 1000;
    FrontBench bench(seen.judge(), limits);
    Asking asking(bench);
    asking.negotiate();
    asking.connect();
    for (const std::size_t length : {980U, 2000U}) {
        asking.sender("<a@a.example>");
        asking.recipient("<b@b.example>");
        asking.header("X-Long", std::string(length, 'x'));
        asking.end();
    }
    EXPECT_THAT(seen.tooLarge, ElementsAre(false, true));
}

TEST(MilterFront, AHeaderHasItsLimits) {
    FrontLimits limits;
    limits.headerBytes = 100;
    limits.headerFields = 3;
    int judged = 0;
    FrontBench bench(norvtest::counting(judged), limits);
    Asking asking(bench);
    asking.negotiate();
    asking.connect();
    asking.message();
    EXPECT_EQ(SMFIS_NOREPLY, asking.header("X-Long", std::string(100, 'x')));
    EXPECT_EQ(SMFIS_REJECT, asking.end());
    EXPECT_EQ("setreply 552 5.3.4 the header of the message is too large", lastCall(asking));
    asking.message();
    for (int i = 0; i < 3; ++i)
        asking.header("X", "");
    EXPECT_EQ(SMFIS_REJECT, asking.end());
    EXPECT_EQ(0, judged);
}

// Each is kept as long as the message, and there may be thousands.
TEST(MilterFront, AddressesHaveTheirLimit) {
    Seen seen;
    FrontBench bench(seen.judge());
    Asking asking(bench);
    asking.negotiate();
    asking.connect();
    const std::string longest(991, 'x');
    EXPECT_EQ(SMFIS_REJECT, asking.sender("<" + longest + "0123456789@a.example>"));
    EXPECT_EQ("setreply 553 5.1.7 the address is too long", lastCall(asking));
    EXPECT_EQ(0U, bench.front().inHand());
    asking.sender("<a@a.example>");
    EXPECT_EQ(SMFIS_CONTINUE, asking.recipient("<" + longest + "@b.exampl>"));
    EXPECT_EQ(SMFIS_REJECT, asking.recipient("<" + longest + "@b.example>"));
    EXPECT_EQ("setreply 553 5.1.3 the address is too long", lastCall(asking));
    asking.context.calls.clear();
    asking.context.macros["{rcpt_addr}"] = longest + "@b.exampl";
    EXPECT_EQ(SMFIS_CONTINUE, asking.recipient("<b>"));
    asking.context.macros["{rcpt_addr}"] = longest + "@b.example";
    EXPECT_EQ(SMFIS_REJECT, asking.recipient("<c>"));
    EXPECT_EQ("setreply 553 5.1.3 the address is too long", lastCall(asking));
    asking.end();
    EXPECT_THAT(seen.envelopes.at(0).recipients, ElementsAre(longest + "@b.exampl", "b"));
    EXPECT_THAT(seen.envelopes.at(0).resolved, ElementsAre(testing::Pair("b", longest + "@b.exampl")));
}

TEST(MilterFront, RecipientsAndConnectionsHaveTheirLimits) {
    FrontLimits limits;
    limits.recipients = 2;
    limits.connections = 1;
    Seen seen;
    FrontBench bench(seen.judge(), limits);
    Asking asking(bench);
    asking.negotiate();
    EXPECT_EQ(SMFIS_CONTINUE, asking.connect());
    asking.sender("<a@a.example>");
    asking.recipient("<b@b.example>");
    asking.recipient("<c@c.example>");
    EXPECT_EQ(SMFIS_TEMPFAIL, asking.recipient("<d@d.example>"));
    EXPECT_EQ("setreply 452 4.5.3 too many recipients", lastCall(asking));
    asking.end();
    EXPECT_EQ(2U, seen.envelopes.at(0).recipients.size());
    {
        Asking second(bench);
        second.negotiate();
        EXPECT_EQ(SMFIS_TEMPFAIL, second.connect());
        EXPECT_EQ("setreply 421 4.3.2 mail filter: no more connections now", lastCall(second));
    }
    asking.close();
    EXPECT_THAT(bench.metrics.text(), HasSubstr("norvcrypt_milter_connections 0\n"));
    Asking third(bench);
    third.negotiate();
    EXPECT_EQ(SMFIS_CONTINUE, third.connect());
    EXPECT_THAT(bench.metrics.text(), HasSubstr("norvcrypt_milter_connections_refused_total 1\n"));
    EXPECT_THAT(bench.metrics.text(), HasSubstr("norvcrypt_milter_connections 1\n"));
}

TEST(MilterFront, WhileStoppingWhatIsInHandIsFinishedAndNothingBegins) {
    FrontBench bench;
    Asking asking(bench);
    asking.negotiate();
    asking.connect();
    asking.message();
    bench.front().drain();
    EXPECT_FALSE(bench.front().isDrained());
    const auto before = std::chrono::steady_clock::now();
    EXPECT_EQ(SMFIS_CONTINUE, asking.end());
    const bool isDrained = bench.front().isDrained();
    // A busy machine may have taken as long as the answer has.
    const bool isLate = std::chrono::steady_clock::now() - before >= std::chrono::milliseconds(300);
    EXPECT_TRUE(!isDrained || isLate) << "the answer is on its way";
    EXPECT_EQ(SMFIS_TEMPFAIL, asking.sender("<a@a.example>"));
    Asking late(bench);
    late.negotiate();
    EXPECT_EQ(SMFIS_TEMPFAIL, late.connect());
    std::this_thread::sleep_for(std::chrono::milliseconds(350));
    EXPECT_TRUE(bench.front().isDrained());
}

TEST(MilterFront, AFolderForBodiesThatVanished) {
    Seen seen;
    const norvtest::TemporaryFolder folder;
    FrontLimits limits;
    limits.spool = folder.path() + "/spool";
    std::filesystem::create_directory(limits.spool);
    FrontBench bench(seen.judge(), limits);
    Asking asking(bench);
    asking.negotiate();
    asking.connect();
    asking.message(std::string(100000, 'x'));
    EXPECT_TRUE(std::filesystem::is_empty(limits.spool)) << "files have no names";
    EXPECT_EQ(SMFIS_CONTINUE, asking.end());
    EXPECT_EQ(100000U + 22, seen.messages.at(0).size());

    std::filesystem::remove(limits.spool);
    asking.message(std::string(100000, 'x'));
    EXPECT_EQ(SMFIS_TEMPFAIL, asking.end());
    EXPECT_THAT(bench.log.lines.back(), HasSubstr("action=tempfail"));
    asking.message("short ones need none\r\n");
    EXPECT_EQ(SMFIS_CONTINUE, asking.end());
    EXPECT_EQ(2U, seen.messages.size());
}

TEST(MilterFront, TheMtaIsToldThatAMessageIsWorkedOn) {
    Asking* asked = nullptr;
    FrontBench bench([&](const auto&, const auto&) {
        for (int waited = 0; asked->context.progress < 2 && waited < 2000; ++waited)
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        return Outcome();
    });
    Asking asking(bench);
    asked = &asking;
    asking.negotiate();
    asking.connect();
    asking.message();
    EXPECT_EQ(SMFIS_CONTINUE, asking.end());
    EXPECT_GE(asking.context.progress, 2);
    EXPECT_EQ(std::chrono::steady_clock::duration::zero(), bench.front().progress().longest());
}
