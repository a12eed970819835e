// The front: what libmilter tells becomes messages.
#include "milter/support/FrontBench.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>

using namespace norvmilter;
using norvtest::Asking;
using norvtest::changing;
using norvtest::FrontBench;
using norvtest::lastCall;
using norvtest::Seen;
using testing::ElementsAre;
using testing::HasSubstr;
using namespace std::string_literals;

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
    asking.context.macros["{rcpt_addr}"] = "bert@c.example";
    EXPECT_EQ(SMFIS_CONTINUE, asking.recipient("<bert@b.example>"));
    asking.context.macros.erase("{rcpt_addr}");
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
    EXPECT_THAT(envelope.resolved, ElementsAre(testing::Pair("bert@b.example", "bert@c.example")));
    EXPECT_THAT(asking.context.calls, ElementsAre("setsymlist 0 {daemon_name}", "setsymlist 2 i {auth_authen}",
                                                  "setsymlist 3 i {rcpt_addr}", "setsymlist 5 i"));
}

/// RFC 3461, 6531, 8689.
TEST(MilterFront, WhatIsAskedOfTheDeliveryIsKept) {
    Seen seen;
    FrontBench bench(seen.judge());
    Asking asking(bench);
    asking.connect();
    asking.sender("<anna@a.example>", {"SIZE=100", "ret=HDRS", "BODY=8BITMIME", "RET=FULL", "ENVID=QQ+3D314159",
                                       "smtputf8", "REQUIRETLS", "AUTH=<>", "RETURN=1"});
    asking.recipient("<bert@b.example>", {"NOTIFY=NEVER", "X=1", "ORCPT=rfc822;bert@b.example", "NOTIFY=SUCCESS"});
    asking.recipient("<carl@b.example>");
    asking.recipient("<bert@b.example>", {"NOTIFY=FAILURE"});
    asking.recipient("<d@b.example>", {"NOTIFY=NEVER\r\nRSET", "ORCPT=rfc822;d d", "ORCPT=" + std::string(1000, 'x')});
    asking.recipient("<e@b.example>", {"ORCPT=utf-8;\xC3\xA4@b.example"});
    asking.header("Subject", " greetings");
    asking.end();
    ASSERT_EQ(1U, seen.envelopes.size());
    const Envelope& envelope = seen.envelopes[0];
    EXPECT_THAT(envelope.senderParameters, ElementsAre("ret=HDRS", "ENVID=QQ+3D314159", "smtputf8", "REQUIRETLS"));
    EXPECT_THAT(envelope.recipientParameters,
                ElementsAre(testing::Pair("bert@b.example", ElementsAre("NOTIFY=NEVER", "ORCPT=rfc822;bert@b.example")),
                            testing::Pair("e@b.example", ElementsAre("ORCPT=utf-8;\xC3\xA4@b.example"))));
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

// "QUIT, but a new connection follows": the socket stays, and nothing is negotiated anew.
TEST(MilterFront, WhatWasAgreedOnHoldsForTheNextClientOverTheSameSocket) {
    Seen seen;
    Outcome outcome = changing();
    outcome.edits = {{HeaderEdit::Kind::insert, "X-A", 0, " value"}};
    outcome.removeRecipients = {"c@b.example"};
    FrontBench bench(seen.judge(outcome));
    Asking asking(bench);
    asking.negotiate();
    for (int client = 0; client < 3; ++client) {
        asking.context.calls.clear();
        asking.connect();
        asking.message("hello\r\n", {"<b@b.example>", "<c@b.example>"});
        EXPECT_EQ(SMFIS_NOREPLY, asking.header("X-B", "tight"));
        EXPECT_EQ(SMFIS_CONTINUE, asking.end());
        EXPECT_EQ("Subject: greetings\r\nX-B:tight\r\n\r\nhello\r\n", seen.messages.at(client));
        EXPECT_THAT(asking.context.calls, testing::Contains("insheader 0 X-A: value")) << client;
        EXPECT_EQ("delrcpt <c@b.example>", lastCall(asking)) << client;
        asking.close();
    }
    // Another socket, whose context lies where this one was.
    asking.negotiate(0x3F, 0x7F);
    asking.connect();
    asking.sender("<a@a.example>");
    asking.recipient("<b@b.example>");
    EXPECT_EQ(SMFIS_CONTINUE, asking.header("Subject", "greetings"));
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
