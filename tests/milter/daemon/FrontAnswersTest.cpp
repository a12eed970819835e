// The front: what is judged becomes calls of libmilter, an answer, and a line in the log.
#include "milter/support/FrontBench.h"
#include "submit/Submit.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <new>
#include <stdexcept>
#include <thread>

using namespace norvmilter;
using norvtest::Asking;
using norvtest::changing;
using norvtest::FrontBench;
using norvtest::lastCall;
using norvtest::spilled;
using testing::ElementsAre;
using testing::HasSubstr;

TEST(MilterFront, ChangesAreMadeInTheirOrder) {
    Outcome outcome = changing();
    outcome.edits = {{HeaderEdit::Kind::remove, "Content-Type", 2, ""},
                     {HeaderEdit::Kind::remove, "Content-Type", 1, ""},
                     {HeaderEdit::Kind::insert, "Authentication-Results", 0, " mx;\n smime=pass"},
                     {HeaderEdit::Kind::append, "Content-Type", 0, " text/plain"}};
    const std::string body(200000, 'x');
    outcome.body = spilled(body);
    FrontBench bench([&](const auto&, const auto&) { return outcome; });
    Asking asking(bench);
    asking.negotiate();
    asking.connect();
    asking.message();
    asking.context.calls.clear();
    EXPECT_EQ(SMFIS_CONTINUE, asking.end());
    EXPECT_THAT(asking.context.calls, ElementsAre("chgheader Content-Type 2 (null)", "chgheader Content-Type 1 (null)",
                                                  "insheader 0 Authentication-Results: mx;\n smime=pass",
                                                  "addheader Content-Type: text/plain", "replacebody 65535",
                                                  "replacebody 65535", "replacebody 65535", "replacebody 3395"));
    EXPECT_EQ(body, asking.context.body);
}

TEST(MilterFront, ABodyBecomesEmpty) {
    Outcome outcome = changing();
    outcome.body = spilled("");
    FrontBench bench([&](const auto&, const auto&) { return outcome; });
    Asking asking(bench);
    asking.negotiate();
    asking.connect();
    asking.message();
    EXPECT_EQ(SMFIS_CONTINUE, asking.end());
    EXPECT_EQ("replacebody 0", lastCall(asking));
}

TEST(MilterFront, NoValueMakesAFieldOfItsOwn) {
    Outcome outcome = changing();
    outcome.edits = {{HeaderEdit::Kind::append, "X-A", 0, std::string(" a\r\n b\0c", 8)}};
    FrontBench bench([&](const auto&, const auto&) { return outcome; });
    Asking asking(bench);
    asking.negotiate();
    asking.connect();
    asking.message();
    asking.end();
    EXPECT_EQ("addheader X-A: a\n bc", lastCall(asking));
}

TEST(MilterFront, RepliesGoOutAsTheyAre) {
    const auto answered = [](int code, const std::string& text) {
        Outcome outcome;
        outcome.action = code < 500 ? Outcome::Action::tempfail : Outcome::Action::reject;
        outcome.reply = {code, "5.7.1", text};
        FrontBench bench([&](const auto&, const auto&) { return outcome; });
        Asking asking(bench);
        asking.negotiate();
        asking.connect();
        asking.message();
        const sfsistat status = asking.end();
        return std::pair(status, lastCall(asking));
    };
    EXPECT_EQ(std::pair(SMFIS_REJECT, std::string("setreply 550 5.7.1 no certificate for b@b.example")),
              answered(550, "no certificate for b@b.example"));
    EXPECT_EQ(std::pair(SMFIS_TEMPFAIL, std::string("setreply 451 5.7.1 later")), answered(451, "later"));
    EXPECT_EQ(std::pair(SMFIS_REJECT, std::string("setreply 550 5.7.1 100%%?bad?")), answered(550, "100%\nbad\x80"));
    // A code that is none of a refusal refuses for a while.
    EXPECT_EQ(std::pair(SMFIS_TEMPFAIL, std::string("setreply 451 5.7.1 odd")), answered(250, "odd"));
    EXPECT_EQ(900U + std::string("setreply 550 5.7.1 ").size(), answered(550, std::string(5000, 'x')).second.size());
}

TEST(MilterFront, WhatTheJudgeThrowsIsTemporaryAndSecret) {
    const auto answered = [](auto failure) {
        FrontBench bench([&](const auto&, const auto&) -> Outcome { throw failure; });
        Asking asking(bench);
        asking.negotiate();
        asking.connect();
        asking.message();
        const sfsistat result = asking.end();
        EXPECT_EQ("setreply 451 4.3.0 mail cannot be judged now, please try again later", lastCall(asking));
        EXPECT_EQ(0U, bench.front().inHand());
        return std::pair(result, bench.log.lines.back());
    };
    const auto [status, line] = answered(Temporary("/etc/store: Input/output error"));
    EXPECT_EQ(SMFIS_TEMPFAIL, status);
    EXPECT_THAT(line, HasSubstr("level=warning event=message"));
    EXPECT_THAT(line, HasSubstr("action=tempfail"));
    EXPECT_THAT(line, HasSubstr("reason=\"/etc/store: Input/output error\""));
    EXPECT_EQ(SMFIS_TEMPFAIL, answered(std::bad_alloc()).first);
    EXPECT_EQ(SMFIS_TEMPFAIL, answered(std::logic_error("wrong")).first);
    EXPECT_EQ(SMFIS_TEMPFAIL, answered(Norvane::Exception("Here", 4, "file", 1)).first);
}

TEST(MilterFront, SubmissionsComeBehindTheChangesAndBeforeTheAnswer) {
    Outcome outcome = changing();
    outcome.submissions = {{"a@a.example", {"c@c.example"}, spilled("X: 1\r\n\r\nsecret\r\n")}};
    outcome.removeRecipients = {"c@c.example"};
    std::vector<std::string> order;
    FrontBench bench([&](const auto&, const auto&) { return outcome; });
    Asking* asked = nullptr;
    bench.generation.submit = [&](const std::vector<Submission>& submissions) {
        EXPECT_EQ(1U, submissions.size());
        order = asked->context.calls;
        order.emplace_back("submitted");
    };
    Asking asking(bench);
    asked = &asking;
    asking.negotiate();
    asking.connect();
    asking.context.calls.clear();
    asking.message("hello\r\n", {"<b@b.example>", "<c@c.example>"});
    EXPECT_EQ(SMFIS_CONTINUE, asking.end());
    EXPECT_THAT(order, ElementsAre("delrcpt <c@c.example>", "submitted"));
    EXPECT_EQ("delrcpt <c@c.example>", lastCall(asking));

    // All of them elsewhere: nothing is left to deliver.
    asking.context.calls.clear();
    outcome.removeRecipients = {"b@b.example"};
    asking.message();
    EXPECT_EQ(SMFIS_DISCARD, asking.end());
    EXPECT_THAT(bench.log.lines.back(), HasSubstr("action=discard"));
    EXPECT_THAT(bench.metrics.text(), HasSubstr("norvcrypt_milter_submitted_total 2\n"));
}

// A worker ends that judges a message for too long. A slow server that takes another is no reason: all of it would come once more.
TEST(MilterFront, HandingOverMayTakeItsTime) {
    FrontBench* all = nullptr;
    Progress::Clock::duration judging{};
    Progress::Clock::duration submitting{};
    const auto longestSoFar = [&all] {
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
        return all->front().progress().longest();
    };
    FrontBench bench([&](const auto&, const auto&) {
        judging = longestSoFar();
        Outcome outcome = changing();
        outcome.submissions.push_back({"a@a.example", {"c@b.example"}, spilled("x")});
        return outcome;
    });
    bench.generation.submit = [&](const auto&) { submitting = longestSoFar(); };
    all = &bench;
    Asking asking(bench);
    asking.negotiate();
    asking.connect();
    asking.message();
    EXPECT_EQ(SMFIS_CONTINUE, asking.end());
    EXPECT_GE(judging, std::chrono::milliseconds(2));
    EXPECT_EQ(Progress::Clock::duration::zero(), submitting);
}

TEST(MilterFront, SubmissionsThatFailStopTheMessage) {
    Outcome outcome = changing();
    outcome.submissions = {{"a@a.example", {"c@c.example"}, spilled("X: 1\r\n\r\nsecret\r\n")}};
    outcome.edits = {{HeaderEdit::Kind::append, "X-A", 0, " a"}};
    outcome.tell("direction", "outgoing");
    bool isPermanent = false;
    FrontBench bench([&](const auto&, const auto&) { return outcome; });
    bench.generation.submit = [&](const std::vector<Submission>&) {
        throw SubmissionFailure("RCPT TO:<c@c.example>: said no", isPermanent);
    };
    Asking asking(bench);
    asking.negotiate();
    asking.connect();
    asking.context.calls.clear();
    asking.message("hello\r\n", {"<b@b.example>", "<c@c.example>"});
    EXPECT_EQ(SMFIS_TEMPFAIL, asking.end());
    EXPECT_EQ("setreply 451 4.3.0 mail cannot be judged now, please try again later", lastCall(asking));
    EXPECT_THAT(bench.log.lines.back(), HasSubstr("direction=outgoing"));
    EXPECT_THAT(bench.log.lines.back(), HasSubstr("reason=\"submission: RCPT TO:<c@c.example>: said no\""));
    isPermanent = true;
    asking.message("hello\r\n", {"<b@b.example>", "<c@c.example>"});
    EXPECT_EQ(SMFIS_REJECT, asking.end());
    EXPECT_EQ("setreply 550 5.7.1 a part was refused: RCPT TO:<c@c.example>: said no", lastCall(asking));
    EXPECT_THAT(bench.metrics.text(), HasSubstr("norvcrypt_milter_submission_failures_total 2\n"));
}

TEST(MilterFront, AChangeThatTheMtaDoesNotTakeStopsTheMessage) {
    Outcome outcome = changing();
    outcome.edits = {{HeaderEdit::Kind::remove, "X-A", 1, ""}, {HeaderEdit::Kind::append, "X-A", 0, " a"}};
    outcome.body = spilled("new\r\n");
    for (int good = 0; good < 3; ++good) {
        FrontBench bench([&](const auto&, const auto&) { return outcome; });
        Asking asking(bench);
        asking.negotiate();
        asking.connect();
        asking.message();
        asking.context.callsUntilFailure = good;
        EXPECT_EQ(SMFIS_TEMPFAIL, asking.end()) << good;
    }
}

// Or they would go out again each time that the message is tried again.
TEST(MilterFront, NothingIsSubmittedOfAMessageThatCannotBeChanged) {
    Outcome outcome = changing();
    outcome.edits = {{HeaderEdit::Kind::append, "X-A", 0, " a"}};
    outcome.submissions = {{"a@a.example", {"c@c.example"}, spilled("X: 1\r\n\r\nsecret\r\n")}};
    outcome.removeRecipients = {"c@c.example"};
    int submitted = 0;
    const auto answered = [&](unsigned long actions, int good) {
        FrontBench bench([&](const auto&, const auto&) { return outcome; });
        bench.generation.submit = [&](const auto&) { ++submitted; };
        Asking asking(bench);
        asking.negotiate(actions);
        asking.connect();
        asking.message("hello\r\n", {"<b@b.example>", "<c@c.example>"});
        asking.context.callsUntilFailure = good;
        return asking.end();
    };
    EXPECT_EQ(SMFIS_TEMPFAIL, answered(norvtest::allActions, 0));
    EXPECT_EQ(SMFIS_TEMPFAIL, answered(norvtest::allActions, 1));
    // One that cannot take recipients away cannot have a message split.
    EXPECT_EQ(SMFIS_TEMPFAIL, answered(norvtest::allActions & ~static_cast<unsigned long>(SMFIF_DELRCPT), -1));
    EXPECT_EQ(0, submitted);
    EXPECT_EQ(SMFIS_CONTINUE, answered(norvtest::allActions, -1));
    EXPECT_EQ(1, submitted);
}

TEST(MilterFront, ABodyThatCannotBeReadAgainStopsTheMessage) {
    Outcome outcome = changing();
    outcome.body = spilled("new\r\n");
    outcome.tell("direction", "incoming");
    FrontBench bench([&](const auto&, const auto&) { return outcome; });
    Asking asking(bench);
    asking.negotiate();
    asking.connect();
    asking.message();
    asking.context.throwsAtBody = true;
    EXPECT_EQ(SMFIS_TEMPFAIL, asking.end());
    EXPECT_THAT(bench.log.lines.back(), HasSubstr("action=tempfail")) << "the line of the message";
    EXPECT_THAT(bench.log.lines.back(), HasSubstr("direction=incoming"));
}

TEST(MilterFront, AnMtaThatTakesNoRecipientsAway) {
    Outcome outcome = changing();
    outcome.removeRecipients = {"b@b.example"};
    FrontBench bench([&](const auto&, const auto&) { return outcome; });
    Asking asking(bench);
    asking.negotiate(norvtest::allActions & ~static_cast<unsigned long>(SMFIF_DELRCPT));
    asking.connect();
    asking.message();
    EXPECT_EQ(SMFIS_TEMPFAIL, asking.end());
}

TEST(MilterFront, OneLineAMessageWhateverItHolds) {
    Outcome outcome;
    outcome.tell("verdict", "accepted");
    outcome.tell("smime", "pass");
    outcome.tell("signer", "x\nlevel=error event=forged \"quoted\"");
    outcome.tell("action", "sign");
    FrontBench bench([&](const auto&, const auto&) { return outcome; });
    Asking asking(bench);
    asking.negotiate();
    asking.connect();
    asking.context.macros["i"] = "4F2C1";
    asking.sender("<evil\n@a.example>");
    asking.end();
    const std::string& line = bench.log.lines.back();
    EXPECT_EQ(0U,
              line.find("level=info event=message queue=4F2C1 action=pass client=\"\" listener=\"\" authenticated=\"\" "
                        "sender=\"evil\\x0A@a.example\" recipients=0 bytes=2 ms="));
    EXPECT_THAT(
        line, testing::EndsWith(
                  "verdict=accepted smime=pass signer=\"x\\x0Alevel=error event=forged \\\"quoted\\\"\" wanted=sign"));
    EXPECT_THAT(bench.metrics.text(), HasSubstr("norvcrypt_milter_verdicts_total{verdict=\"pass\"} 1\n"));
}
