// Messages that are handed to an MTA beside the one in hand.
#include "submit/Submit.h"
#include "message/Message.h"
#include "milter/support/FakeSmtp.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace norvmilter;
using norvtest::FakeSmtp;
using testing::_;
using testing::ElementsAre;
using testing::HasSubstr;

namespace {

Submission submission(const std::string& sender, const std::vector<std::string>& recipients, const std::string& whole) {
    Norvane::SwapBufferMediaOut out = spillIn("");
    out.write(reinterpret_cast<const unsigned char*>(whole.data()), static_cast<unsigned int>(whole.size()));
    out.end();
    return {sender, recipients, out};
}

const std::string shortMessage = "X: 1\r\n\r\nhello\r\n";

SubmitTo to(const FakeSmtp& server) {
    return {server.url(), "mx.a.example", std::chrono::seconds(5), std::chrono::seconds(10)};
}

/// What submitting throws: the text, and whether it is for good.
std::pair<std::string, bool> failureOf(const SubmitTo& where, const std::vector<Submission>& submissions) {
    try {
        submit(where, submissions);
    } catch (const SubmissionFailure& failure) {
        return {failure.what(), failure.isPermanent()};
    }
    return {"none", false};
}

} // namespace

TEST(MilterSubmit, OneMessageForSeveral) {
    FakeSmtp server;
    submit(to(server), {submission("anna@a.example", {"bert@b.example", "\"c >d\"@c.example"}, shortMessage)});
    EXPECT_THAT(server.commandsUntilQuit(),
                ElementsAre("EHLO mx.a.example", "MAIL FROM:<anna@a.example> SIZE=15 BODY=8BITMIME",
                            "RCPT TO:<bert@b.example>", "RCPT TO:<\"c >d\"@c.example>", "DATA", "QUIT"));
    EXPECT_THAT(server.messages(), ElementsAre(shortMessage));
}

TEST(MilterSubmit, AllAreAskedForBeforeTheFirstIsSent) {
    FakeSmtp server;
    submit(to(server), {submission("", {"b@b.example"}, shortMessage), submission("", {"c@c.example"}, shortMessage)});
    EXPECT_THAT(server.commandsUntilQuit(),
                ElementsAre("EHLO mx.a.example", "MAIL FROM:<> SIZE=15 BODY=8BITMIME", "RCPT TO:<b@b.example>", "RSET",
                            "MAIL FROM:<> SIZE=15 BODY=8BITMIME", "RCPT TO:<c@c.example>", "RSET",
                            "MAIL FROM:<> SIZE=15 BODY=8BITMIME", "RCPT TO:<b@b.example>", "DATA",
                            "MAIL FROM:<> SIZE=15 BODY=8BITMIME", "RCPT TO:<c@c.example>", "DATA", "QUIT"));
    EXPECT_EQ(2U, server.messages().size());
}

TEST(MilterSubmit, ManyAreAskedForOverSeveralConnections) {
    // A server that counts as Postfix does: a hundred RSET without a message, and it hangs up.
    int resets = 0;
    FakeSmtp server([&](const std::string& said) {
        if (said.starts_with("EHLO") || said == "(message)")
            resets = 0;
        return said == "RSET" && ++resets > 100 ? std::string() : FakeSmtp::usual(said);
    });
    submit(to(server), std::vector<Submission>(230, submission("", {"b@b.example"}, shortMessage)));
    EXPECT_EQ(230U, server.messages().size());
}

TEST(MilterSubmit, DotsAndLineEnds) {
    const auto sent = [](const std::string& message) {
        FakeSmtp server;
        submit(to(server), {submission("", {"b@b.example"}, message)});
        return server.messages().at(0);
    };
    EXPECT_EQ("X: 1\r\n\r\n..\r\n...two\r\n a.b\r\n", sent("X: 1\r\n\r\n.\r\n..two\r\n a.b\r\n"));
    EXPECT_EQ("X: 1\r\n\r\nno end\r\n", sent("X: 1\r\n\r\nno end"));
    // A line feed alone in front of a dot ends a message for some servers and is text for others.
    EXPECT_EQ("X: 1\r\n\r\na\r\n..\r\nb\r\n", sent("X: 1\r\n\r\na\n.\r\nb\r\n"));
    EXPECT_EQ("", sent(""));
    // Around the places where the content is cut into pieces.
    for (const std::size_t length : {16381UL, 16382UL, 16383UL, 16384UL, 16385UL}) {
        const std::string line(length, 'x');
        EXPECT_EQ(line + "\r\n..y\r\n", sent(line + "\r\n.y\r\n")) << length;
    }
    const std::string large(3000000, 'z');
    EXPECT_EQ(large + "\r\n", sent(large + "\r\n"));
}

TEST(MilterSubmit, RefusalsAreForGoodUntilTheFirstIsSent) {
    const auto refusing = [](const std::string& command, const std::string& answer, int which) {
        return [=, seen = 0](const std::string& said) mutable {
            return said == command && ++seen == which ? answer : FakeSmtp::usual(said);
        };
    };
    const std::vector<Submission> two{submission("", {"b@b.example"}, shortMessage),
                                      submission("", {"c@c.example"}, shortMessage)};
    {
        FakeSmtp server(refusing("RCPT TO:<c@c.example>", "550 5.1.1 nobody", 1));
        EXPECT_EQ(std::pair(std::string("RCPT TO:<c@c.example>: 550 5.1.1 nobody"), true), failureOf(to(server), two));
        EXPECT_TRUE(server.messages().empty());
    }
    {
        FakeSmtp server(refusing("RCPT TO:<c@c.example>", "451-4.2.0 later\r\n451 4.2.0 perhaps", 1));
        EXPECT_EQ(std::pair(std::string("RCPT TO:<c@c.example>: 451 4.2.0 later 4.2.0 perhaps"), false),
                  failureOf(to(server), two));
    }
    {
        FakeSmtp server(refusing("RCPT TO:<c@c.example>", "550 5.1.1 nobody now", 2));
        EXPECT_FALSE(failureOf(to(server), two).second) << "the first is out";
        EXPECT_EQ(1U, server.messages().size());
    }
    {
        FakeSmtp server(refusing("(message)", "554 5.6.0 not that", 1));
        EXPECT_EQ(std::pair(std::string("the message: 554 5.6.0 not that"), true), failureOf(to(server), two));
    }
}

TEST(MilterSubmit, ServersThatFailOnTheWay) {
    const std::vector<Submission> one{submission("a@a.example", {"b@b.example"}, shortMessage)};
    for (const std::string at : {"EHLO mx.a.example", "RCPT TO:<b@b.example>", "DATA", "(message)"}) {
        FakeSmtp server([&](const std::string& said) { return said == at ? "" : FakeSmtp::usual(said); });
        const auto [text, isPermanent] = failureOf(to(server), one);
        EXPECT_NE("none", text) << at;
        EXPECT_FALSE(isPermanent) << at;
    }
    for (const std::string odd : {"nonsense", "25", "999x", "250?x"}) {
        FakeSmtp server([&](const std::string& said) { return said == "DATA" ? odd : FakeSmtp::usual(said); });
        EXPECT_FALSE(failureOf(to(server), one).second) << odd;
    }
    {
        FakeSmtp server(
            [&](const std::string& said) { return said == "DATA" ? std::string(100000, '3') : FakeSmtp::usual(said); });
        EXPECT_EQ("the server answers with a line that has no end", failureOf(to(server), one).first);
    }
    {
        FakeSmtp server(FakeSmtp::usual, "");
        EXPECT_FALSE(failureOf(to(server), one).second) << "hangs up at once";
    }
    {
        FakeSmtp server(FakeSmtp::usual, "554 go away");
        EXPECT_NE("none", failureOf(to(server), one).first);
    }
}

TEST(MilterSubmit, SilentServersAndThoseThatAreNotThere) {
    const std::vector<Submission> one{submission("a@a.example", {"b@b.example"}, shortMessage)};
    FakeSmtp server([](const std::string& said) { return said == "DATA" ? "(nothing)" : FakeSmtp::usual(said); });
    SubmitTo where = to(server);
    where.silence = std::chrono::seconds(1);
    EXPECT_EQ(std::pair(std::string("the server does not answer in time"), false), failureOf(where, one));

    std::string gone;
    {
        const FakeSmtp ended;
        gone = ended.url();
    }
    EXPECT_THAT(failureOf({gone, ""}, one).first, HasSubstr(gone + ": "));
    EXPECT_FALSE(failureOf({"", ""}, one).second);
    // Nothing but SMTP is spoken.
    EXPECT_FALSE(failureOf({"file:///etc/passwd", ""}, one).second);
}

TEST(MilterSubmit, WhatAServerCannotTakeIsNotSent) {
    const auto plain = [](const std::string& said) {
        return said.starts_with("EHLO") ? std::string("250 fake") : FakeSmtp::usual(said);
    };
    FakeSmtp server(plain);
    EXPECT_EQ("none", failureOf(to(server), {submission("a@a.example", {"b@b.example"}, shortMessage)}).first);
    EXPECT_THAT(server.commands(), testing::Contains("MAIL FROM:<a@a.example>"));
    EXPECT_EQ(std::pair(std::string("the server takes no octets above 127, and the message has some"), true),
              failureOf(to(server), {submission("a@a.example", {"b@b.example"}, "X: 1\r\n\r\n\xC3\xA4\r\n")}));
    EXPECT_EQ(std::pair(std::string("the server takes no addresses with octets above 127"), true),
              failureOf(to(server), {submission("a@a.example", {"b\xC3\xA4@b.example"}, shortMessage)}));
    FakeSmtp able;
    EXPECT_EQ("none", failureOf(to(able), {submission("a@a.example", {"b\xC3\xA4@b.example"}, shortMessage)}).first);
    EXPECT_THAT(able.commands(), testing::Contains("MAIL FROM:<a@a.example> SIZE=15 BODY=8BITMIME SMTPUTF8"));
}

/// RFC 3461, 6531, 8689.
TEST(MilterSubmit, WhatIsAskedOfTheDeliveryIsAskedOfTheServer) {
    Submission asking = submission("a@a.example", {"b@b.example", "c@c.example"}, shortMessage);
    asking.senderParameters = {"RET=HDRS", "envid=x", "SMTPUTF8"};
    asking.recipientParameters = {{"b@b.example", {"notify=NEVER", "ORCPT=utf-8;\xC3\xA4@b.example"}}};
    const auto commandsOf = [&](const std::string& offers) {
        FakeSmtp server([&](const std::string& said) {
            return said.starts_with("EHLO") ? "250-fake\r\n" + offers + "250 HELP" : FakeSmtp::usual(said);
        });
        EXPECT_EQ("none", failureOf(to(server), {asking}).first) << offers;
        std::vector<std::string> commands = server.commandsUntilQuit();
        commands.resize(std::min<std::size_t>(commands.size(), 4));
        return commands;
    };
    EXPECT_THAT(commandsOf("250-DSN\r\n250-SMTPUTF8\r\n"),
                ElementsAre(_, "MAIL FROM:<a@a.example> SMTPUTF8 RET=HDRS envid=x",
                            "RCPT TO:<b@b.example> notify=NEVER ORCPT=utf-8;\xC3\xA4@b.example",
                            "RCPT TO:<c@c.example>"));
    EXPECT_THAT(commandsOf("250-DSN\r\n"), ElementsAre(_, "MAIL FROM:<a@a.example> RET=HDRS envid=x",
                                                       "RCPT TO:<b@b.example> notify=NEVER", "RCPT TO:<c@c.example>"));
    EXPECT_THAT(commandsOf(""), ElementsAre(_, "MAIL FROM:<a@a.example>", "RCPT TO:<b@b.example>", _));
    asking.senderParameters = {"REQUIRETLS"};
    EXPECT_THAT(commandsOf("250-REQUIRETLS\r\n"), testing::Contains("MAIL FROM:<a@a.example> REQUIRETLS"));
    FakeSmtp unable;
    EXPECT_EQ(std::pair(std::string("the server does not take REQUIRETLS, which the sender asks for"), true),
              failureOf(to(unable), {asking}));
    EXPECT_THAT(unable.commands(), testing::Not(testing::Contains(testing::StartsWith("MAIL"))));
}

/// RFC 6531, 3.5: without SMTPUTF8 such a header goes no further. Without being asked, the filter does not ask either.
TEST(MilterSubmit, InternationalHeadersGoWhereTheyAreTaken) {
    const auto answerTo = [](const std::string& message, const std::vector<std::string>& asked,
                             const std::string& offers) {
        FakeSmtp server([&](const std::string& said) {
            return said.starts_with("EHLO") ? "250-fake\r\n" + offers + "250 8BITMIME" : FakeSmtp::usual(said);
        });
        Submission one = submission("a@a.example", {"b@b.example"}, message);
        one.senderParameters = asked;
        return failureOf(to(server), {one});
    };
    const std::pair<std::string, bool> none{"none", false};
    const std::pair<std::string, bool> refused{
        "the server takes no header with octets above 127 (SMTPUTF8), and the sender's has some", true};
    const std::string inHeader = "X: 1\r\nSubject: \xC3\xA4\r\n\r\nbody\r\n";
    const std::string far = "X: " + std::string(20000, 'x') + "\r\n" + inHeader;
    for (const std::string& message : {inHeader, far}) {
        EXPECT_EQ(refused, answerTo(message, {"smtputf8"}, ""));
        EXPECT_EQ(none.first, answerTo(message, {"SMTPUTF8"}, "250-SMTPUTF8\r\n").first);
        EXPECT_EQ(none.first, answerTo(message, {}, "").first);
    }
    for (const std::string inBody : {"X: 1\r\n\r\n\xC3\xA4\r\n", "X: 1\n\n\xC3\xA4\n", "\r\n\xC3\xA4\r\n"}) {
        EXPECT_EQ(none.first, answerTo(inBody, {"SMTPUTF8"}, "").first);
    }
}

TEST(MilterSubmit, AddressesEndNoCommand) {
    for (const std::string bad : {"b@b.example>\r\nRSET", "b@b.example> NOTIFY=NEVER", "b b@b.example", "\"b@b.example",
                                  "\"a\\\"@b.example", "b\n@b.example",
                                  // What a backslash stands in front of ends a command as well.
                                  "\"b\\\r\nRSET\r\n\"@b.example", "\"b\\\n\"@b.example",
                                  // Servers that take a quotation mark behind a backslash for text see the end here.
                                  "b\\\"> NOTIFY=NEVER ORCPT=\"@b.example", "b\\"}) {
        FakeSmtp server;
        const auto [text, isPermanent] = failureOf(to(server), {submission("a@a.example", {bad}, shortMessage)});
        EXPECT_THAT(text, HasSubstr("an address that no command can hold")) << bad;
        EXPECT_TRUE(isPermanent);
        EXPECT_THAT(server.commands(), testing::Not(testing::Contains(testing::StartsWith("RCPT"))));
    }
}
