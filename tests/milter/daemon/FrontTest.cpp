// The front: what libmilter tells becomes messages, and what is judged becomes calls of libmilter.
#include "milter/support/FrontBench.h"
#include "submit/Submit.h"
#include "support/TemporaryFolder.h"

#include <arpa/inet.h>
#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <new>
#include <stdexcept>
#include <thread>

using namespace norvmilter;
using norvtest::Asking;
using norvtest::FrontBench;
using testing::ElementsAre;
using testing::HasSubstr;
using namespace std::string_literals;

namespace {

std::string read(Norvane::MediaIn source) {
    std::string text;
    source.read(text);
    return text;
}

/// Keeps what the judge saw.
struct Seen {
    std::vector<Envelope> envelopes;
    std::vector<std::string> messages;
    std::vector<bool> tooLarge;

    norvtest::Judge judge(Outcome outcome = {}) {
        return [this, outcome](const Message& message, const Deadline&) {
            envelopes.push_back(message.envelope);
            messages.push_back(read(message.whole()));
            tooLarge.push_back(message.tooLarge);
            return outcome;
        };
    }
};

Norvane::SwapBufferMediaOut spilled(const std::string& text) {
    Norvane::SwapBufferMediaOut out = spillIn("");
    out.write(reinterpret_cast<const unsigned char*>(text.data()), static_cast<unsigned int>(text.size()));
    out.end();
    return out;
}

Outcome changing() {
    Outcome outcome;
    outcome.action = Outcome::Action::change;
    return outcome;
}

std::string lastCall(const Asking& asking) {
    return asking.context.calls.empty() ? "" : asking.context.calls.back();
}

} // namespace

TEST(MilterFront, AMessageIsJudgedAsItCame) {
    Seen seen;
    FrontBench bench(seen.judge());
    Asking asking(bench);
    EXPECT_EQ(SMFIS_CONTINUE, asking.negotiate());
    sockaddr_in client{};
    client.sin_family = AF_INET;
    ::inet_pton(AF_INET, "192.0.2.7", &client.sin_addr);
    asking.context.macros["{daemon_name}"] = "OUT";
    EXPECT_EQ(SMFIS_CONTINUE, asking.connect(reinterpret_cast<sockaddr*>(&client)));
    asking.context.macros["{auth_authen}"] = "anna";
    EXPECT_EQ(SMFIS_CONTINUE, asking.sender("<anna@a.example>"));
    EXPECT_EQ(SMFIS_CONTINUE, asking.recipient("<bert@b.example>"));
    EXPECT_EQ(SMFIS_CONTINUE, asking.recipient("<\"carl <c>\"@c.example>"));
    EXPECT_EQ(SMFIS_NOREPLY, asking.header("Subject", "  two blanks,\n\tfolded"));
    EXPECT_EQ(SMFIS_NOREPLY, asking.header("X-Tight", "none"));
    EXPECT_EQ(SMFIS_CONTINUE, asking.body(std::string("line\r\n\0\xFF", 8)));
    EXPECT_EQ(SMFIS_CONTINUE, asking.body(".\r\n"));
    asking.context.macros["i"] = "4F2C1";
    EXPECT_EQ(SMFIS_CONTINUE, asking.end());

    ASSERT_EQ(1U, seen.messages.size());
    EXPECT_EQ("Subject:  two blanks,\r\n\tfolded\r\nX-Tight:none\r\n\r\nline\r\n\0\xFF.\r\n"s, seen.messages[0]);
    const Envelope& envelope = seen.envelopes[0];
    EXPECT_EQ("4F2C1", envelope.queueId);
    EXPECT_EQ("OUT", envelope.listener);
    EXPECT_EQ("anna", envelope.authenticated);
    EXPECT_EQ("192.0.2.7", envelope.clientAddress);
    EXPECT_EQ("anna@a.example", envelope.sender);
    EXPECT_THAT(envelope.recipients, ElementsAre("bert@b.example", "\"carl <c>\"@c.example"));
    EXPECT_THAT(asking.context.calls, ElementsAre("setsymlist 0 {daemon_name}", "setsymlist 2 i {auth_authen}",
                                                  "setsymlist 3 i", "setsymlist 5 i"));
}

TEST(MilterFront, AddressesOfClients) {
    const auto addressOf = [](int family, const char* text) {
        Seen seen;
        FrontBench bench(seen.judge());
        Asking asking(bench);
        sockaddr_in6 client{};
        client.sin6_family = static_cast<sa_family_t>(family);
        if (family == AF_INET6)
            ::inet_pton(AF_INET6, text, &client.sin6_addr);
        asking.negotiate();
        asking.connect(family == AF_UNSPEC ? nullptr : reinterpret_cast<sockaddr*>(&client));
        asking.message();
        asking.end();
        return seen.envelopes.at(0).clientAddress;
    };
    EXPECT_EQ("2001:db8::1", addressOf(AF_INET6, "2001:db8::1"));
    EXPECT_EQ("192.0.2.9", addressOf(AF_INET6, "::ffff:192.0.2.9"));
    EXPECT_EQ("", addressOf(AF_UNIX, ""));
    EXPECT_EQ("", addressOf(AF_UNSPEC, ""));
}

TEST(MilterFront, SeveralMessagesOfOneConnectionShareNothing) {
    Seen seen;
    FrontBench bench(seen.judge());
    Asking asking(bench);
    asking.negotiate();
    asking.connect();
    asking.context.macros["i"] = "FIRST";
    asking.message("one\r\n", {"<b@b.example>", "<c@c.example>"});
    asking.end();
    asking.message("given up\r\n");
    asking.abort();
    asking.context.macros["i"] = "SECOND";
    asking.message("two\r\n");
    asking.end();
    ASSERT_EQ(2U, seen.messages.size());
    EXPECT_EQ("Subject: greetings\r\n\r\ntwo\r\n", seen.messages[1]);
    EXPECT_EQ("SECOND", seen.envelopes[1].queueId);
    EXPECT_THAT(seen.envelopes[1].recipients, ElementsAre("b@b.example"));
    EXPECT_EQ(0U, bench.front().inHand());
    EXPECT_THAT(bench.metrics.text(), HasSubstr("norvcrypt_milter_aborted_total 1\n"));
}

TEST(MilterFront, AnMtaThatKnowsLess) {
    Seen seen;
    Outcome outcome = changing();
    outcome.edits = {{HeaderEdit::Kind::insert, "X-A", 0, " value"}};
    FrontBench bench(seen.judge(outcome));
    Asking asking(bench);
    // What protocol version 2 has.
    EXPECT_EQ(SMFIS_CONTINUE, asking.negotiate(0x3F, 0x7F));
    EXPECT_EQ(SMFIF_ADDHDRS | SMFIF_CHGHDRS | SMFIF_CHGBODY | SMFIF_DELRCPT, asking.agreedActions);
    EXPECT_EQ(SMFIP_NOHELO | SMFIP_NOEOH, asking.agreedSteps);
    asking.connect();
    asking.sender("<a@a.example>");
    asking.recipient("<b@b.example>");
    EXPECT_EQ(SMFIS_CONTINUE, asking.header("Subject", "greetings")) << "a reply is wanted";
    asking.body("hello\r\n");
    EXPECT_EQ(SMFIS_CONTINUE, asking.end());
    EXPECT_EQ("Subject: greetings\r\n\r\nhello\r\n", seen.messages.at(0));
    EXPECT_EQ("insheader 0 X-A:value", lastCall(asking));
}

TEST(MilterFront, AnMtaThatLetsNothingBeChangedIsRefused) {
    FrontBench bench;
    Asking asking(bench);
    EXPECT_EQ(SMFIS_REJECT, asking.negotiate(SMFIF_ADDHDRS | SMFIF_CHGHDRS));
    EXPECT_THAT(bench.log.lines.at(0), HasSubstr("event=mta-refused"));
}

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

TEST(MilterFront, AHeaderHasItsLimits) {
    FrontLimits limits;
    limits.headerBytes = 100;
    limits.headerFields = 3;
    int judged = 0;
    FrontBench bench(
        [&](const auto&, const auto&) {
            ++judged;
            return Outcome();
        },
        limits);
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
    asking.end();
    EXPECT_THAT(seen.envelopes.at(0).recipients, ElementsAre(longest + "@b.exampl"));
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
    EXPECT_EQ(SMFIS_CONTINUE, asking.end());
    EXPECT_FALSE(bench.front().isDrained()) << "the answer is on its way";
    EXPECT_EQ(SMFIS_TEMPFAIL, asking.sender("<a@a.example>"));
    Asking late(bench);
    late.negotiate();
    EXPECT_EQ(SMFIS_TEMPFAIL, late.connect());
    std::this_thread::sleep_for(std::chrono::milliseconds(350));
    EXPECT_TRUE(bench.front().isDrained());
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

TEST(MilterFront, AMessageIsFinishedByWhatItBeganWith) {
    std::vector<std::string> judges;
    FrontBench bench([&](const auto&, const auto&) {
        judges.emplace_back("old");
        return Outcome();
    });
    Asking asking(bench);
    asking.negotiate();
    asking.connect();
    asking.message();
    Generation next = bench.generation;
    next.judge = [&](const auto&, const auto&) {
        judges.emplace_back("new");
        return Outcome();
    };
    bench.front().use(std::make_shared<const Generation>(next));
    asking.end();
    asking.message();
    asking.end();
    EXPECT_THAT(judges, ElementsAre("old", "new"));
}

TEST(MilterFront, CallbacksOutOfOrderAreAnswered) {
    FrontBench bench;
    Asking asking(bench);
    EXPECT_EQ(SMFIS_TEMPFAIL, asking.end());
    EXPECT_EQ(SMFIS_TEMPFAIL, asking.recipient("<b@b.example>"));
    EXPECT_EQ(SMFIS_CONTINUE, asking.header("A", "b"));
    EXPECT_EQ(SMFIS_CONTINUE, asking.body("c"));
    asking.abort();
    asking.close();
    asking.abort();
    asking.sender("");
    asking.connect();
    EXPECT_EQ(0U, bench.front().inHand()) << "a new connection has no message";
    asking.sender("<a@a.example>");
    asking.sender("<b@b.example>");
    EXPECT_EQ(1U, bench.front().inHand());
    asking.close();
    EXPECT_EQ(0U, bench.front().inHand());
    EXPECT_EQ(nullptr, asking.context.kept);
}

TEST(MilterFront, OneLineAMessageWhateverItHolds) {
    Outcome outcome;
    outcome.tell("verdict", "pass");
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
    EXPECT_THAT(line,
                testing::EndsWith("verdict=pass signer=\"x\\x0Alevel=error event=forged \\\"quoted\\\"\" wanted=sign"));
    EXPECT_THAT(bench.metrics.text(), HasSubstr("norvcrypt_milter_verdicts_total{verdict=\"pass\"} 1\n"));
}
