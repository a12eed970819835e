// Outgoing messages: who signs, and as whom.

#include "OutgoingMail.h"

namespace {

using namespace miltertesting;

/// Nobody gets out of his own rule by what he writes into From.
TEST_F(Outgoing, AFromThatTheSenderMayNotUseDoesNotChooseTheRule) {
    const std::string rules =
        "[[outgoing.rule]]\nname = \"house\"\nsender = \"*@A.example\"\nsign = \"possible\"\nencrypt = "
        "\"must\"\n";
    const auto sent = [&](const std::string& name, const std::string& from, const std::string& envelope,
                          const std::string& more = "") {
        Message message = mailOf({"zoe@c.example"}, "zoe@c.example");
        message.header[1] = {name, from};
        message.envelope.sender = envelope;
        return handled(m_world, rules, message, canSplit + more).action;
    };
    EXPECT_EQ(sent("From", " anna@a.example", "anna@a.example"), Action::reject);
    EXPECT_EQ(sent("From", " ANNA@a.example", "anna@a.example"), Action::reject);
    EXPECT_EQ(sent("From", " eve@else.example", "anna@a.example"), Action::reject);
    EXPECT_EQ(sent("From", " eve@else.example, anna@a.example", "bounce@else.example"), Action::reject);
    EXPECT_EQ(sent("From ", " anna@a.example", "bounce@else.example"), Action::reject);
    EXPECT_EQ(sent("From", " eve@else.example", "bounce@else.example"), Action::pass);
    EXPECT_EQ(sent("From", " eve@else.example", ""), Action::pass);
    // What Postfix takes for anna@a.example, and hands on as the client wrote it.
    for (const std::string envelope :
         {"anna@a.example (c)", "anna @a.example", "@x.example:anna@a.example", "an\"na\"@a.example"})
        EXPECT_EQ(sent("From", " eve@else.example", envelope), Action::reject) << envelope;
    const std::string allowed = "[[sender]]\nauthenticated = \"ANNA\"\nenvelope = \"Anna@A.example\"\n"
                                "from = [\"EVE@else.example\"]\n";
    EXPECT_EQ(sent("From", " eve@else.example", "anna@a.example", allowed), Action::pass);
}

TEST_F(Outgoing, NoKeyForTheSender) {
    Message message = mailOf();
    message.header[1].value = " otto@a.example";
    message.envelope.sender = "otto@a.example";
    const std::string text = "no key to sign with for otto@a.example";
    const Outcome passed = handled(m_world, rule("possible", "never"), message);
    EXPECT_EQ(passed.action, Action::pass);
    EXPECT_EQ(passed.told("unsigned"), text);
    const Outcome rejected = handled(m_world, rule("possible", "never"), message, "[outgoing]\nno_key = \"reject\"\n");
    EXPECT_EQ(rejected.action, Action::reject);
    EXPECT_EQ(rejected.reply.text, text);
    const Outcome must = handled(m_world, rule("must", "never"), message);
    EXPECT_EQ(must.action, Action::reject);
    EXPECT_EQ(must.reply.text, "the message must be signed: " + text);
    EXPECT_EQ(handled(m_world, rule("never", "never"), message, "[outgoing]\nno_key = \"reject\"\n").action,
              Action::pass);
}

/// Whoever may send cannot sign as somebody else by writing that name into From.
TEST_F(Outgoing, NobodySignsAsSomebodyElse) {
    Message message = mailOf();
    message.envelope.sender = "eve@a.example";
    message.envelope.authenticated = "eve";
    const Outcome refused = handled(m_world, rule("possible", "never"), message);
    EXPECT_EQ(refused.action, Action::reject);
    EXPECT_EQ(refused.reply.text, "the sender <eve@a.example> may not sign as anna@a.example");
    const std::string pass = "[outgoing]\nsender_mismatch = \"pass\"\n";
    EXPECT_EQ(handled(m_world, rule("possible", "never"), message, pass).action, Action::pass);
    EXPECT_EQ(handled(m_world, rule("must", "never"), message, pass).action, Action::reject);
    const std::string allowed = "[[sender]]\nauthenticated = \"eve\"\nfrom = [\"anna@a.example\"]\n";
    EXPECT_EQ(handled(m_world, rule("possible", "never"), message, allowed).action, Action::change);
    message.envelope.authenticated = "mallory";
    EXPECT_EQ(handled(m_world, rule("possible", "never"), message, allowed).action, Action::reject);
    // A bounce is from nobody, and goes on.
    message.envelope.sender.clear();
    EXPECT_EQ(handled(m_world, rule("possible", "never"), message).action, Action::pass);
    EXPECT_EQ(handled(m_world, rule("must", "never"), message).action, Action::reject);
}

TEST_F(Outgoing, OddFromFields) {
    const std::vector<std::pair<std::string, std::string>> cases{
        {" anna@a.example, eve@a.example", "the message has several From addresses"},
        {" anna@a.example\n , eve@a.example", "the message has several From addresses"},
        {"", "the message has no From"},
        {" ", "the message has no From"},
        {" undisclosed:;", "the message has no From"},
        {" anna@a.example@b.example", "From has what is no address: anna@a.example@b.example"},
        {" <>", "From has what is no address: "},
    };
    for (const auto& [from, why] : cases) {
        SCOPED_TRACE(from);
        Message message = mailOf();
        message.header[1].value = from;
        const Outcome passed = handled(m_world, rule("possible", "never"), message);
        EXPECT_EQ(passed.action, Action::pass);
        EXPECT_THAT(passed.told("unsigned"), StartsWith(why));
        const Outcome must = handled(m_world, rule("must", "never"), message);
        EXPECT_EQ(must.action, Action::reject);
        EXPECT_THAT(must.reply.text, StartsWith("the message must be signed: " + why));
    }
    Message two = mailOf();
    two.header.push_back({"From", " eve@a.example"});
    EXPECT_EQ(handled(m_world, rule("must", "never"), two).action, Action::reject);
    Message none = mailOf();
    none.header.erase(none.header.begin() + 1);
    EXPECT_EQ(handled(m_world, rule("must", "never"), none).action, Action::reject);
}

TEST_F(Outgoing, AddressesInQuotes) {
    m_world.add("odd", person("\"odd, one\"@a.example", "alice"), "\"odd, one\"@a.example", true);
    Message message = mailOf();
    message.header[1].value = " \"A, B <x>\" <\"odd, one\"@a.example>";
    message.envelope.sender = "\"odd, one\"@a.example";
    const Outcome outcome = handled(m_world, rule("must", "never"), message);
    ASSERT_EQ(outcome.action, Action::change) << outcome.reply.text;
    EXPECT_TRUE(read(delivered(message, outcome).text(), {}).isSigned());
}

TEST_F(Outgoing, AnExpiredPairDoesNotSign) {
    m_world.add("anna", person("anna@a.example", "alice", {.notAfter = norvauthority::Time::fromNow(-10)}),
                "anna@a.example", true);
    EXPECT_EQ(handled(m_world, rule("possible", "never"), mailOf()).action, Action::pass);
    const Outcome must = handled(m_world, rule("must", "never"), mailOf());
    EXPECT_EQ(must.action, Action::reject);
    EXPECT_THAT(must.reply.text, HasSubstr("is not valid now"));
}

} // namespace
