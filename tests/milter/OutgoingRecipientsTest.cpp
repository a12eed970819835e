// Outgoing messages: who gets them together, who by themselves, and which rule says so.

#include "OutgoingMail.h"

namespace {

using namespace miltertesting;

TEST_F(Outgoing, NoCertificateNamesAllWhoHaveNone) {
    const Outcome outcome = handled(m_world, rule("possible", "must"),
                                    mailOf({"zoe@c.example", "bert@b.example", "yan@c.example"}, "zoe@c.example"));
    EXPECT_EQ(outcome.action, Action::reject);
    EXPECT_EQ(outcome.reply.text, "no certificate to encrypt to for zoe@c.example, yan@c.example");
    EXPECT_TRUE(outcome.submissions.empty());
}

/// Two who get it encrypted, one who gets it signed.
TEST_F(Outgoing, SplitsRecipientsWithAndWithoutCertificates) {
    const Message message =
        mailOf({"bert@b.example", "zoe@c.example", "cleo@b.example"}, "bert@b.example, zoe@c.example, cleo@b.example");
    const Outcome outcome = handled(m_world, rule("possible", "possible"), message);
    ASSERT_EQ(outcome.action, Action::change);
    EXPECT_THAT(outcome.removeRecipients, ElementsAre("zoe@c.example"));
    const Found encrypted = read(delivered(message, outcome).text(), {&cleo()});
    EXPECT_TRUE(encrypted.isEncrypted());
    EXPECT_EQ(encrypted.recipients(), 2U);
    EXPECT_THAT(encrypted.content, HasSubstr("this is all."));
    ASSERT_EQ(outcome.submissions.size(), 1U);
    EXPECT_EQ(outcome.submissions.front().sender, "anna@a.example");
    EXPECT_THAT(outcome.submissions.front().recipients, ElementsAre("zoe@c.example"));
    const Found clear = read(octetsOf(outcome.submissions.front()), {});
    EXPECT_TRUE(clear.isSigned());
    EXPECT_FALSE(clear.isEncrypted());
}

TEST_F(Outgoing, RefusesToSplitWhereThePolicySaysSo) {
    const Message message = mailOf({"bert@b.example", "zoe@c.example"}, "bert@b.example, zoe@c.example");
    const Outcome outcome = handled(m_world, rule("possible", "possible", "mixed = \"reject\"\n"), message);
    EXPECT_EQ(outcome.action, Action::reject);
    EXPECT_EQ(outcome.reply.text,
              "the recipients must not all get the same message: send it to each of them separately");
    const Outcome nowhere = handled(m_world, rule("possible", "possible"), message, "");
    EXPECT_EQ(nowhere.action, Action::reject);
    EXPECT_THAT(nowhere.reply.text, HasSubstr("outgoing.submit is not set"));
}

TEST_F(Outgoing, HiddenRecipientsGetMessagesOfTheirOwn) {
    Message message = mailOf({"bert@b.example", "cleo@b.example"}, "bert@b.example");
    message.header.push_back({"Bcc", " cleo@b.example"});
    const Outcome outcome = handled(m_world, rule("possible", "must"), message);
    ASSERT_EQ(outcome.action, Action::change);
    const Delivered mail = delivered(message, outcome);
    EXPECT_TRUE(mail.values("Bcc").empty());
    EXPECT_EQ(read(mail.text(), {&bert()}).recipients(), 1U);
    EXPECT_EQ(read(mail.text(), {&cleo()}).answer.verdict, SMime::Verdict::noKey);
    EXPECT_THAT(outcome.removeRecipients, ElementsAre("cleo@b.example"));
    ASSERT_EQ(outcome.submissions.size(), 1U);
    EXPECT_THAT(outcome.submissions.front().recipients, ElementsAre("cleo@b.example"));
    const std::string own = octetsOf(outcome.submissions.front());
    EXPECT_EQ(own.find("\nBcc:"), std::string::npos);
    EXPECT_EQ(read(own, {&bert()}).answer.verdict, SMime::Verdict::noKey);
    EXPECT_THAT(read(own, {&cleo()}).content, HasSubstr("this is all."));

    const Outcome refused = handled(m_world, rule("possible", "must", "mixed = \"reject\"\n"), message);
    EXPECT_EQ(refused.action, Action::reject);
}

TEST_F(Outgoing, AHiddenRecipientWhoStandsTwiceGetsOneMessage) {
    const Message message = mailOf({"cleo@b.example", "bert@b.example", "cleo@b.example"}, "bert@b.example");
    const Outcome outcome = handled(m_world, rule("never", "must"), message);
    ASSERT_EQ(outcome.action, Action::change) << outcome.reply.text;
    ASSERT_EQ(outcome.submissions.size(), 1U);
    EXPECT_THAT(outcome.submissions.front().recipients, ElementsAre("bert@b.example"));
    EXPECT_THAT(outcome.removeRecipients, ElementsAre("bert@b.example"));
    EXPECT_EQ(read(delivered(message, outcome).text(), {&cleo()}).recipients(), 1U);
}

/// Nobody stands in To: each is hidden from the others, and one of them keeps the message.
TEST_F(Outgoing, AllRecipientsHidden) {
    const Message message = mailOf({"bert@b.example", "cleo@b.example"}, "undisclosed-recipients:;");
    const Outcome outcome = handled(m_world, rule("never", "must"), message);
    ASSERT_EQ(outcome.action, Action::change) << outcome.reply.text;
    EXPECT_EQ(outcome.submissions.size(), 1U);
    EXPECT_EQ(read(delivered(message, outcome).text(), {&bert()}).recipients(), 1U);
}

TEST_F(Outgoing, HiddenRecipientsOfClearMailNeedNoMessageOfTheirOwn) {
    Message message = mailOf({"bert@b.example", "cleo@b.example"}, "bert@b.example");
    message.header.push_back({"Bcc", " cleo@b.example"});
    const Outcome outcome = handled(m_world, rule("never", "never"), message);
    ASSERT_EQ(outcome.action, Action::change);
    EXPECT_TRUE(outcome.submissions.empty());
    EXPECT_TRUE(delivered(message, outcome).values("Bcc").empty());
    EXPECT_FALSE(outcome.body);
}

/// A recipient who is named in another form than in the envelope is not hidden.
TEST_F(Outgoing, DomainsAreComparedWithoutCase) {
    const Message message = mailOf({"bert@b.example", "cleo@B.EXAMPLE"}, "Bert <bert@B.Example>, cleo@b.example");
    const Outcome outcome = handled(m_world, rule("never", "must"), message);
    ASSERT_EQ(outcome.action, Action::change) << outcome.reply.text;
    EXPECT_TRUE(outcome.submissions.empty());
    EXPECT_EQ(read(delivered(message, outcome).text(), {&bert()}).recipients(), 2U);
}

TEST_F(Outgoing, RulesAreAskedInTheirOrderForEachRecipient) {
    const std::string rules = "[[outgoing.rule]]\nname = \"partners\"\nsender = \"*@a.example\"\n"
                              "recipient = \"*@b.example\"\nencrypt = \"must\"\nsign = \"never\"\n" +
                              rule("must", "never");
    const Message message = mailOf({"bert@b.example", "zoe@c.example"}, "bert@b.example, zoe@c.example");
    const Outcome outcome = handled(m_world, rules, message);
    ASSERT_EQ(outcome.action, Action::change) << outcome.reply.text;
    const Found encrypted = read(delivered(message, outcome).text(), {&bert()});
    EXPECT_TRUE(encrypted.isEncrypted());
    EXPECT_FALSE(encrypted.isSigned());
    ASSERT_EQ(outcome.submissions.size(), 1U);
    EXPECT_TRUE(read(octetsOf(outcome.submissions.front()), {}).isSigned());
    EXPECT_EQ(outcome.told("rule"), "partners (line 13)");
}

/// Every spelling of a mailbox that a rule says "must" for, and what an MTA would send on to it.
TEST_F(Outgoing, NoSpellingGetsAroundMust) {
    const std::string rules =
        "[[outgoing.rule]]\nname = \"friend\"\nrecipient = \"Friend@b.example\"\nencrypt = \"must\"\n"
        "[[outgoing.rule]]\nname = \"letters\"\nrecipient = \"*@b\xc3\xbc"
        "cher.example\"\nencrypt = \"must\"\n" +
        rule("possible", "never");
    const std::string deep = "friend%b.example%1%2%3%4%5%6%7%8%9%10%11%12%13%14%15%16%17%18@a.example";
    for (const std::string recipient :
         {"friend@b.example", "FRIEND@b.example", "fRIEND@B.EXAMPLE", "\"friend\"@b.example", "\"f\\riend\"@b.example",
          "friend@b.example.", "friend%b.example@a.example", "friend%b.example", "b.example!friend@a.example",
          "b.example!friend", "\"friend@b.example\"@a.example", "FRIEND%b.example%c.example@a.example",
          "c.example!b.example!friend@a.example", deep.c_str(), "x@xn--bcher-kva.example", "x@B\303\274cher.example",
          // What Postfix takes for the same mailbox, and hands on as the client wrote it.
          "friend@b.example (c)", "(c)friend@b.example", "friend(c)@b.example", "friend@b.(c)example",
          "friend @b.example", "friend@ b.example", "friend@b . example", " friend@b.example", "friend@b.example ",
          "friend@\tb.example", "\"friend\" @b.example", "@x.example:friend@b.example",
          "@x.example,@y.example:friend@b.example", "g:friend@b.example;", "friend@b.example;", "<friend@b.example>",
          "(c)<friend@b.example>", "f\\riend@b.example", "friend@b\\.example", "fri\"\"end@b.example",
          "\"fri\"\"end\"@b.example", "\"fri\"end@b.example", "friend@\"b.example\"", "friend@b.\"example\"",
          "friend%b.example(c)@a.example", "friend%\"b.example\"@a.example", "\"friend @b.example\"@a.example",
          "\"friend(c)@b.example\"@a.example", "x@[a:friend@b.example", "friend@\x01b.example", "friend@b.example\x7f",
          "\"friend", "\"friend\\\"",
          // What an MTA completes, which did not say with what.
          "friend", "friend@", "friend@.", "postmaster", "\"no body\""}) {
        SCOPED_TRACE(recipient);
        const Outcome outcome = handled(m_world, rules, mailOf({recipient}, "bert@b.example"));
        EXPECT_EQ(outcome.action, Action::reject);
        EXPECT_THAT(outcome.reply.text, StartsWith("no certificate to encrypt to for "));
    }
    for (const std::string recipient :
         {"friends@b.example", "friend@c.example", "friend%c.example@a.example", "\"no body\"@c.example",
          "\"(a) \\\" <b>\"@c.example", "x@[IPv6:2001:db8::1]", "x@[192.0.2.1]"})
        EXPECT_EQ(handled(m_world, rules, mailOf({recipient}, recipient)).action, Action::change) << recipient;
    // The store is asked for the address as it is given.
    const std::string must = "[[outgoing.rule]]\nname = \"bert\"\nrecipient = \"BERT@b.example\"\nencrypt = \"must\"\n";
    EXPECT_EQ(handled(m_world, must, mailOf()).action, Action::change);
    EXPECT_EQ(handled(m_world, must, mailOf({"Bert@b.example"})).reply.text,
              "no certificate to encrypt to for Bert@b.example");
}

/// What the MTA makes of a recipient counts beside what the client wrote, whichever is the stricter.
TEST_F(Outgoing, NothingThatTheMtaMakesOfARecipientGetsAroundMust) {
    const std::string rules =
        "[[outgoing.rule]]\nname = \"zoe\"\nrecipient = \"zoe@*\"\nencrypt = \"never\"\n"
        "[[outgoing.rule]]\nname = \"friend\"\nrecipient = \"Friend@b.example\"\nencrypt = \"must\"\n" +
        rule("possible", "possible");
    const auto sent = [&](const std::string& written, const std::string& resolved) {
        Message message = mailOf({written}, "bert@b.example");
        message.envelope.resolved[written] = resolved;
        return handled(m_world, rules, message);
    };
    for (const auto& [written, resolved] : std::vector<std::pair<std::string, std::string>>{
             {"friend", "friend@b.example"},
             {"zoe@c.example", "friend@b.example"},
             {"zoe@c.example", "FRIEND@B.example."},
             {"friend@b.example", "zoe@c.example"},
             {"friend@b.example (c)", "zoe@c.example"},
             {"zoe@c.example", "friend%b.example@a.example"},
             {"zoe@c.example", "friend@b.example@a.example"},
             {"zoe@c.example", "a b friend%b.example@a.example"},
             {"zoe@c.example", "\"friend@b.example\"@a.example"},
             {"zoe@c.example", "\"friend\"@b.example"},
             {"zoe@c.example", "zoe@c.example (c)"},
             {"zoe@c.example", "<friend@b.example>"},
             {"zoe@c.example", "zoe@c.example\x01"},
             {"zoe@c.example", "zoe 1%2%3%4%5%6%7%8%9%10%11%12%13%14%15%16%17%18@c.example"},
             {"friend", "friend"},
             {"friend", "zoe"},
             {"friend", ""},
             {"friend", "friend@"}}) {
        SCOPED_TRACE(written + " as " + resolved);
        const Outcome outcome = sent(written, resolved);
        EXPECT_EQ(outcome.action, Action::reject);
        EXPECT_EQ(outcome.reply.text.substr(0, outcome.reply.text.find(" (")),
                  "no certificate to encrypt to for " + written.substr(0, written.find(" (")));
    }
    // Those in local parts without their quotation marks are nothing else than what they are with them.
    for (const auto& [written, resolved] :
         std::vector<std::pair<std::string, std::string>>{{"root", "root@a.example"},
                                                          {"root@a.example", "root"},
                                                          {"friend", "friend@c.example"},
                                                          {"\"no body\"@c.example", "no body@c.example"},
                                                          {"\"no body\"@c.example", "\"no body\"@c.example"},
                                                          {"\"a\\\"b\\\\\"@c.example", "a\"b\\@c.example"},
                                                          {"\"(a) <b>\"@c.example", "(a) <b>@c.example"},
                                                          {"zoe@c.example", "zoe@c.example"}}) {
        SCOPED_TRACE(written + " as " + resolved);
        EXPECT_EQ(sent(written, resolved).action, Action::change);
    }
    // A name of the host itself, as some MTAs have it, is no address for a pattern.
    const std::string others = "[[outgoing.rule]]\nname = \"own\"\nrecipient = \"*@a.example\"\nencrypt = \"never\"\n" +
                               rule("possible", "must");
    Message own = mailOf({"root@a.example", "anna@a.example"}, "root@a.example, anna@a.example");
    own.envelope.resolved["root@a.example"] = "root";
    EXPECT_EQ(handled(m_world, others, own).action, Action::change);
    // The message goes to whom the client named, encrypted to that one's certificate.
    const std::string must = "[[outgoing.rule]]\nname = \"c\"\nrecipient = \"*@c.example\"\nencrypt = \"must\"\n";
    Message message = mailOf({"bert@b.example", "cleo@b.example"}, "bert@b.example, cleo@b.example");
    message.envelope.resolved["bert@b.example"] = "zoe@c.example";
    const Outcome outcome = handled(m_world, must, message);
    ASSERT_EQ(outcome.action, Action::change) << outcome.reply.text;
    EXPECT_EQ(read(delivered(message, outcome).text(), {&bert()}).recipients(), 1U);
    ASSERT_EQ(outcome.submissions.size(), 1U);
    EXPECT_THAT(outcome.submissions.front().recipients, ElementsAre("cleo@b.example"));
}

/// Of addresses that have no form in which they could be compared nobody is another one.
TEST_F(Outgoing, HiddenRecipientsWhoCannotBeCompared) {
    const std::string domain = "\xe2\x98\x95.example";
    m_world.add("shown", bert(), "shown@" + domain, false);
    m_world.add("hidden", cleo(), "hidden@" + domain, false);
    const Message message = mailOf({"shown@" + domain, "hidden@" + domain}, "shown@" + domain);
    const Outcome outcome = handled(m_world, rule("never", "must"), message);
    ASSERT_EQ(outcome.action, Action::change) << outcome.reply.text;
    ASSERT_EQ(outcome.submissions.size(), 1U);
    EXPECT_EQ(read(octetsOf(outcome.submissions.front()), {}).recipients(), 1U);
    EXPECT_EQ(read(delivered(message, outcome).text(), {}).recipients(), 1U);
}

TEST_F(Outgoing, ManyHiddenRecipientsAreBounded) {
    m_world.add("all", bert(), "*@many.example", false);
    std::vector<std::string> recipients;
    for (int index = 0; index < 60; ++index)
        recipients.push_back("r" + std::to_string(index) + "@many.example");
    const Outcome outcome = handled(m_world, rule("never", "must"), mailOf(recipients));
    EXPECT_EQ(outcome.action, Action::reject);
    EXPECT_EQ(outcome.reply.enhanced, "5.5.3");
    EXPECT_TRUE(outcome.submissions.empty());

    recipients.resize(10);
    const std::string small = "[outgoing]\nsubmit = \"smtp://127.0.0.1:1\"\nseparate_bytes = 20000\n";
    const Outcome large =
        handled(m_world, rule("never", "must"), mailOf(recipients, "bert@b.example", std::string(8000, 'x')), small);
    EXPECT_EQ(large.action, Action::reject);
    EXPECT_EQ(large.reply.enhanced, "5.3.4");
}

TEST_F(Outgoing, AHundredThousandRecipients) {
    std::vector<std::string> recipients;
    for (int index = 0; index < 100000; ++index)
        recipients.push_back("r" + std::to_string(index) + "@c.example");
    const Message message = mailOf(recipients);
    const Outcome clear = handled(m_world, rule("possible", "never"), message);
    EXPECT_EQ(clear.action, Action::change);
    EXPECT_TRUE(clear.submissions.empty());
    const Outcome must = handled(m_world, rule("possible", "must"), message);
    EXPECT_EQ(must.action, Action::reject);
    EXPECT_LE(must.reply.text.size(), 400U);
    EXPECT_THAT(must.reply.text, HasSubstr("no certificate to encrypt to for r0@c.example, r1@c.example, "));
    Deadline over(Deadline::Clock::now());
    const Outcome late = m_world.engine(rule("possible", "must"), canSplit).handle(message, over);
    EXPECT_EQ(late.action, Action::tempfail);
    EXPECT_EQ(late.told("reason"), "the time for judging the message is over");
}

} // namespace
