// Outgoing messages: signed, encrypted, split or refused, as the rules have it.

#include "World.h"

namespace {

using namespace miltertesting;

/// [[outgoing.rule]] with these wishes, for everybody.
std::string rule(const std::string& sign, const std::string& encrypt, const std::string& more = "") {
    return "[[outgoing.rule]]\nname = \"all\"\nsign = \"" + sign + "\"\nencrypt = \"" + encrypt + "\"\n" + more;
}
const std::string canSplit = "[outgoing]\nsubmit = \"smtp://127.0.0.1:10026\"\n";

Outcome handled(World& world, const std::string& rules, const Message& message, const std::string& more = canSplit) {
    return world.engine(rules, more).handle(message, Deadline());
}

std::string octetsOf(const Submission& submission) {
    return contentOf(submission.whole.in());
}

class Outgoing : public testing::Test {
protected:
    void SetUp() override { m_world.addPeople(); }
    World m_world;
};

/// sign x encrypt x a certificate or none, one recipient.
TEST_F(Outgoing, EachCellForOneRecipient) {
    struct Cell {
        const char* sign;
        const char* encrypt;
        bool hasCertificate;
        bool isSigned;
        bool isEncrypted;
        const char* refusal; ///< empty: none
    };
    const char* const noCertificate = "no certificate to encrypt to for zoe@c.example";
    const std::vector<Cell> cells{
        {"never", "never", true, false, false, ""},     {"never", "never", false, false, false, ""},
        {"never", "possible", true, false, true, ""},   {"never", "possible", false, false, false, ""},
        {"never", "must", true, false, true, ""},       {"never", "must", false, false, false, noCertificate},
        {"possible", "never", true, true, false, ""},   {"possible", "never", false, true, false, ""},
        {"possible", "possible", true, true, true, ""}, {"possible", "possible", false, true, false, ""},
        {"possible", "must", true, true, true, ""},     {"possible", "must", false, false, false, noCertificate},
        {"must", "never", true, true, false, ""},       {"must", "never", false, true, false, ""},
        {"must", "possible", true, true, true, ""},     {"must", "possible", false, true, false, ""},
        {"must", "must", true, true, true, ""},         {"must", "must", false, false, false, noCertificate},
    };
    for (const Cell& cell : cells) {
        SCOPED_TRACE(std::string(cell.sign) + ' ' + cell.encrypt + (cell.hasCertificate ? " certificate" : " none"));
        const std::string recipient = cell.hasCertificate ? "bert@b.example" : "zoe@c.example";
        const Message message = mailOf({recipient}, recipient);
        const Outcome outcome = handled(m_world, rule(cell.sign, cell.encrypt), message);
        EXPECT_TRUE(outcome.submissions.empty());
        EXPECT_TRUE(outcome.removeRecipients.empty());
        if (*cell.refusal != '\0') {
            EXPECT_EQ(outcome.action, Action::reject);
            EXPECT_EQ(outcome.reply.code, 550);
            EXPECT_EQ(outcome.reply.enhanced, "5.7.1");
            EXPECT_EQ(outcome.reply.text, cell.refusal);
            EXPECT_TRUE(outcome.edits.empty());
            continue;
        }
        const bool isChanged = cell.isSigned || cell.isEncrypted;
        ASSERT_EQ(outcome.action, isChanged ? Action::change : Action::pass) << outcome.reply.text;
        const Delivered mail = delivered(message, outcome);
        EXPECT_EQ(mail.value("Subject"), " outside");
        EXPECT_EQ(mail.header.front().value, " from client\n\tby mx; today");
        const Found found = read(mail.text(), {&bert()});
        EXPECT_EQ(found.isSigned(), cell.isSigned);
        EXPECT_EQ(found.isEncrypted(), cell.isEncrypted);
        if (isChanged) {
            EXPECT_THAT(found.content, HasSubstr("this is all."));
        } else {
            EXPECT_EQ(mail.body, textBody);
        }
        if (cell.isEncrypted) {
            EXPECT_EQ(mail.text().find("this is all"), std::string::npos);
        }
        if (cell.isSigned) {
            EXPECT_EQ(found.answer.verdict, SMime::Verdict::signatureGood) << found.answer.detail;
        }
    }
}

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
          "c.example!b.example!friend@a.example", deep.c_str(), "x@xn--bcher-kva.example",
          "x@B\xc3\xbc"
          "cher.example"}) {
        SCOPED_TRACE(recipient);
        const Outcome outcome = handled(m_world, rules, mailOf({recipient}, "bert@b.example"));
        EXPECT_EQ(outcome.action, Action::reject);
        EXPECT_THAT(outcome.reply.text, StartsWith("no certificate to encrypt to for "));
    }
    for (const std::string recipient :
         {"friends@b.example", "friend@c.example", "friend%c.example@a.example", "friend"})
        EXPECT_EQ(handled(m_world, rules, mailOf({recipient}, recipient)).action, Action::change) << recipient;
    // The store is asked for the address as it is given.
    const std::string must = "[[outgoing.rule]]\nname = \"bert\"\nrecipient = \"BERT@b.example\"\nencrypt = \"must\"\n";
    EXPECT_EQ(handled(m_world, must, mailOf()).action, Action::change);
    EXPECT_EQ(handled(m_world, must, mailOf({"Bert@b.example"})).reply.text,
              "no certificate to encrypt to for Bert@b.example");
}

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

TEST_F(Outgoing, TrustMaterialThatIsMissingIsForLater) {
    m_world.write("roots.pem", "nothing\n");
    for (const char* const encrypt : {"possible", "must"}) {
        const Outcome outcome = handled(m_world, rule("never", encrypt), mailOf());
        EXPECT_EQ(outcome.action, Action::tempfail);
        EXPECT_EQ(outcome.reply.code, 451);
        EXPECT_EQ(outcome.told("reason"), "there are no trust anchors to judge certificates by");
    }
}

TEST_F(Outgoing, CertificatesThatTheVerdictRefuses) {
    const Identity other = norvauthority::issue({.subject = {{"CN", "Other CA"}},
                                                 .key = norvauthority::Key::fromPem(norvtest::storedKeyPem("carol")),
                                                 .ca = true});
    m_world.add("stranger", person("stranger@b.example", "bob", {.issuer = &other}), "stranger@b.example", false);
    m_world.add("old", person("old@b.example", "bob", {.notAfter = norvauthority::Time::fromNow(-10)}), "old@b.example",
                false);
    m_world.add("signer", person("signer@b.example", "bob", {.keyUsage = 0x80}), "signer@b.example", false);
    for (const char* const who : {"stranger@b.example", "old@b.example", "signer@b.example"}) {
        const Outcome must = handled(m_world, rule("never", "must"), mailOf({who}, who));
        EXPECT_EQ(must.action, Action::reject) << who;
        EXPECT_EQ(must.reply.text, std::string("no certificate to encrypt to for ") + who);
        EXPECT_EQ(handled(m_world, rule("never", "possible"), mailOf({who}, who)).action, Action::pass) << who;
    }
    // The next one in the order of precedence is taken.
    m_world.add("zz", bert(), "*@b.example", false);
    EXPECT_EQ(handled(m_world, rule("never", "must"), mailOf({"old@b.example"}, "old@b.example")).action,
              Action::change);
}

TEST_F(Outgoing, AnExpiredPairDoesNotSign) {
    m_world.add("anna", person("anna@a.example", "alice", {.notAfter = norvauthority::Time::fromNow(-10)}),
                "anna@a.example", true);
    EXPECT_EQ(handled(m_world, rule("possible", "never"), mailOf()).action, Action::pass);
    const Outcome must = handled(m_world, rule("must", "never"), mailOf());
    EXPECT_EQ(must.action, Action::reject);
    EXPECT_THAT(must.reply.text, HasSubstr("is not valid now"));
}

TEST_F(Outgoing, WhatIsSignedOrEncryptedAlready) {
    const std::string plain = octetsOf(mailOf().header) + "Content-Type: text/plain\r\n\r\n" + textBody;
    const auto sent = [](const std::string& mail) {
        Message message = messageOf(mail);
        message.envelope = mailOf().envelope;
        return message;
    };
    const Message isSigned = sent(wrapped(plain, {signedBy(anna())}));
    EXPECT_EQ(handled(m_world, rule("must", "never"), isSigned).action, Action::pass);
    const Outcome encrypted = handled(m_world, rule("must", "must"), isSigned);
    ASSERT_EQ(encrypted.action, Action::change);
    const Found found = read(delivered(isSigned, encrypted).text(), {&bert()});
    EXPECT_EQ(found.answer.layers.size(), 2U);
    EXPECT_EQ(found.answer.verdict, SMime::Verdict::signatureGood);

    const Message isEncrypted = sent(wrapped(plain, {encryptedTo({&cleo()})}));
    EXPECT_EQ(handled(m_world, rule("must", "must"), isEncrypted).action, Action::pass);
    // Who only says so is not believed.
    for (const char* const type : {" application/pkcs7-mime; smime-type=enveloped-data",
                                   " multipart/encrypted; boundary=x", " application/octet-stream; name=smime.p7m",
                                   " multipart/signed; protocol=\"application/pkcs7-signature\"; boundary=x"}) {
        SCOPED_TRACE(type);
        Message lie = mailOf();
        lie.header.push_back({"Content-Type", type});
        const Outcome outcome = handled(m_world, rule("never", "must"), lie);
        if (outcome.action == Action::reject)
            continue; // it may be one that cannot be encrypted
        ASSERT_EQ(outcome.action, Action::change);
        EXPECT_EQ(delivered(lie, outcome).text().find("this is all"), std::string::npos);
    }
}

TEST_F(Outgoing, FormsAndCiphers) {
    const Message message = mailOf();
    const Outcome opaque = handled(m_world, rule("must", "never", "form = \"opaque\"\n"), message);
    EXPECT_THAT(delivered(message, opaque).value("Content-Type"), HasSubstr("smime-type=signed-data"));
    const Outcome gcm = handled(m_world, rule("never", "must", "cipher = \"aes-256-gcm\"\noaep = true\n"), message);
    const Found found = read(delivered(message, gcm).text(), {&bert()});
    EXPECT_TRUE(found.answer.layers.front().authenticated);
    EXPECT_THAT(found.answer.layers.front().recipients.front().algorithm, HasSubstr("OAEP"));
    m_world.add("anna2", person("anna@a.example", "alice"), "anna@a.example", false);
    const Outcome toSelf = handled(m_world, rule("never", "must", "encrypt_to_sender = true\n"), message);
    EXPECT_EQ(read(delivered(message, toSelf).text(), {&bert()}).recipients(), 2U);
    const Outcome hidden = handled(m_world, rule("must", "must", "protect_header = true\n"), message);
    EXPECT_EQ(delivered(message, hidden).value("Subject"), " [...]");
}

/// What is folded, has 8-bit text or stands several times is sent on as it came.
TEST_F(Outgoing, OtherFieldsStayAsTheyAre) {
    Message message = mailOf();
    message.header.push_back({"X-Long", " a\n\tb\n  c"});
    message.header.push_back({"Received", " two"});
    message.header.push_back({"X-Eight", " \xc3\xa4\xff"});
    message.header.push_back({"Content-Type", " text/plain;\n\tcharset=utf-8"});
    message.header.push_back({"MIME-Version", " 1.0"});
    const Outcome outcome = handled(m_world, rule("must", "must"), message);
    ASSERT_EQ(outcome.action, Action::change);
    const Delivered mail = delivered(message, outcome);
    EXPECT_THAT(mail.values("X-Long"), ElementsAre(" a\n\tb\n  c"));
    EXPECT_THAT(mail.values("Received"), ElementsAre(" from client\n\tby mx; today", " two"));
    EXPECT_THAT(mail.values("X-Eight"), ElementsAre(" \xc3\xa4\xff"));
    EXPECT_EQ(mail.values("Content-Type").size(), 1U);
    EXPECT_THAT(mail.value("Content-Type"), HasSubstr("application/pkcs7-mime"));
    for (const HeaderEdit& edit : outcome.edits)
        EXPECT_TRUE(edit.name.starts_with("Content-") || edit.name == "MIME-Version") << edit.name;
}

TEST_F(Outgoing, EmptyAndOddBodies) {
    std::string binary;
    for (int index = 0; index < 1000; ++index)
        binary += static_cast<char>(index);
    for (const std::string& body : {std::string(), std::string("\r\n"), std::string("no end of line"), binary}) {
        const Message message = mailOf({"bert@b.example"}, "bert@b.example", body);
        const Outcome outcome = handled(m_world, rule("must", "must"), message);
        ASSERT_EQ(outcome.action, Action::change) << outcome.reply.text;
        EXPECT_EQ(read(delivered(message, outcome).text(), {&bert()}).answer.verdict, SMime::Verdict::signatureGood);
    }
}

TEST_F(Outgoing, TooLargeMessages) {
    Message message = mailOf();
    message.tooLarge = true;
    EXPECT_EQ(handled(m_world, rule("possible", "possible"), message).action, Action::pass);
    EXPECT_EQ(handled(m_world, rule("possible", "must"), message).action, Action::reject);
    EXPECT_EQ(handled(m_world, rule("must", "never"), message).action, Action::reject);
    EXPECT_EQ(handled(m_world, rule("possible", "never"), message, "[limits]\ntoo_large = \"tempfail\"\n").action,
              Action::tempfail);
}

TEST_F(Outgoing, TooLargeMessagesTellOfNobodyHidden) {
    Message message = mailOf();
    message.header.push_back({"Bcc", " cleo@b.example"});
    message.tooLarge = true;
    const Outcome passed = handled(m_world, rule("possible", "possible"), message);
    EXPECT_EQ(passed.action, Action::change);
    EXPECT_TRUE(delivered(message, passed).values("Bcc").empty());
    EXPECT_FALSE(passed.body);
    message.envelope.sender = "eve@a.example";
    EXPECT_EQ(handled(m_world, rule("possible", "possible"), message).reply.text,
              "the sender <eve@a.example> may not sign as anna@a.example");
}

/// Mail of one user to another of the same host comes by no other way.
TEST_F(Outgoing, UsersWriteNoResultsOfTheFilter) {
    Message message = mailOf({"bert@b.example", "cleo@b.example"});
    message.header.insert(message.header.begin(), {"Authentication-Results", " mx.example.org; smime=pass"});
    message.header.push_back({"X-Norvcrypt-Signature", " pass"});
    message.header.push_back({"Authentication-Results", " other.example; dkim=pass"});
    for (const bool tooLarge : {false, true}) {
        for (const char* const encrypt : {"never", "possible"}) {
            message.tooLarge = tooLarge;
            const Outcome outcome = handled(m_world, rule("never", encrypt), message);
            ASSERT_EQ(outcome.action, Action::change);
            const Delivered mail = delivered(message, outcome);
            EXPECT_EQ(mail.value("Authentication-Results"), " other.example; dkim=pass");
            EXPECT_TRUE(mail.values("X-Norvcrypt-Signature").empty());
            for (const Submission& one : outcome.submissions)
                EXPECT_THAT(octetsOf(one), Not(HasSubstr("smime=pass")));
        }
    }
}

/// RFC 5322, 4.5: blanks may stand in front of the colon.
TEST_F(Outgoing, BlanksBehindTheNameOfAField) {
    Message message = mailOf({"bert@b.example", "cleo@b.example"});
    message.header.push_back({"Bcc ", " cleo@b.example"});
    message.header.push_back({"Resent-Bcc \t", " cleo@b.example"});
    for (const char* const encrypt : {"never", "must"}) {
        const Outcome outcome = handled(m_world, rule("never", encrypt), message);
        ASSERT_EQ(outcome.action, Action::change);
        const Delivered mail = delivered(message, outcome);
        EXPECT_TRUE(mail.values("Bcc").empty() && mail.values("Resent-Bcc").empty());
        for (const Submission& one : outcome.submissions)
            EXPECT_THAT(octetsOf(one), Not(HasSubstr("Bcc")));
        for (const HeaderEdit& edit : outcome.edits)
            EXPECT_FALSE(edit.name.ends_with(' ') || edit.name.ends_with('\t')) << edit.name;
    }
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

/// Of keys that are not of RSA those that agree on a key are encrypted to, and the others are told of.
TEST_F(Outgoing, KeysOfOtherKinds) {
    const auto made = [](const norvauthority::Key& key, unsigned int usage) {
        return norvauthority::issue({.subject = {{"CN", "eva"}},
                                     .key = key,
                                     .issuer = &root(),
                                     .serial = std::to_string(7000 + usage),
                                     .keyUsage = usage,
                                     .alternativeNames = {norvauthority::GeneralName::email("eva@b.example")}});
    };
    const norvauthority::Key key = norvauthority::Key::ec();
    const Message message = mailOf({"eva@b.example"}, "eva@b.example");
    const Identity agrees = made(key, 0x88);
    m_world.add("eva", agrees, "eva@b.example", false);
    const Outcome outcome = handled(m_world, rule("possible", "must"), message);
    ASSERT_EQ(outcome.action, Action::change) << outcome.reply.text;
    const Found found = read(delivered(message, outcome).text(), {&agrees});
    EXPECT_TRUE(found.isEncrypted());
    EXPECT_THAT(found.content, HasSubstr("this is all."));
    // OAEP is for those who have a key for it.
    const Outcome oaep = handled(m_world, rule("possible", "must", "oaep = true\n"), message);
    ASSERT_EQ(oaep.action, Action::change) << oaep.reply.text;
    EXPECT_TRUE(read(delivered(message, oaep).text(), {&agrees}).isEncrypted());
    // digitalSignature; and keyEncipherment, which is for other keys.
    for (const unsigned int usage : {0x80U, 0x20U}) {
        m_world.add("eva", made(key, usage), "eva@b.example", false);
        EXPECT_EQ(handled(m_world, rule("possible", "must"), message).reply.text,
                  "no certificate to encrypt to for eva@b.example");
        const Message both = mailOf({"eva@b.example", "bert@b.example"}, "bert@b.example, eva@b.example");
        const Outcome split = handled(m_world, rule("possible", "possible"), both);
        EXPECT_EQ(split.action, Action::change) << split.reply.text;
        EXPECT_EQ(split.submissions.size(), 1U);
    }
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

TEST_F(Outgoing, HugeHeaders) {
    Message fields = mailOf();
    for (int index = 0; index < 3000; ++index)
        fields.header.push_back({"X-Field", " value"});
    Message length = mailOf();
    length.header.push_back({"X-Long", " " + std::string(1000000, 'x')});
    Message people = mailOf();
    for (int index = 0; index < 3000; ++index)
        people.header.push_back({"To", " r@c.example"});
    for (const Message* const message : {&fields, &length, &people}) {
        EXPECT_EQ(handled(m_world, rule("must", "must"), *message).action, Action::reject);
        EXPECT_EQ(handled(m_world, rule("never", "must"), *message).action, Action::reject);
        EXPECT_EQ(handled(m_world, rule("possible", "never"), *message).action, Action::pass);
    }
}

TEST_F(Outgoing, TheTimeIsOver) {
    const Engine engine = m_world.engine(rule("must", "must"), canSplit);
    const Message message = mailOf({"bert@b.example"}, "bert@b.example", std::string(300000, 'x'));
    const Outcome outcome = engine.handle(message, Deadline(Deadline::Clock::now()));
    EXPECT_EQ(outcome.action, Action::tempfail);
    EXPECT_EQ(outcome.reply.text, "temporary trouble in the mail filter, try again later");
}

} // namespace
