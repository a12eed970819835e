// Outgoing messages: signed, encrypted or refused, as the rules have it, and what they look like then.

#include "OutgoingMail.h"

namespace {

using namespace miltertesting;

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

    // The header belongs into what is signed; outside of it the subject would be read by everybody.
    const std::string protecting = "protect_header = true\n";
    EXPECT_EQ(handled(m_world, rule("must", "never", protecting), isSigned).action, Action::pass);
    EXPECT_THAT(handled(m_world, rule("never", "possible", protecting), isSigned).reply.text,
                HasSubstr("signed or encrypted already cannot be protected"));

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

/// What a sender asked of the delivery goes along with what is split off, of each recipient their own.
TEST_F(Outgoing, SplitMessagesAskForTheSameNotices) {
    Message message = mailOf({"bert@b.example", "cleo@b.example"});
    message.envelope.senderParameters = {"RET=HDRS", "ENVID=1"};
    message.envelope.recipientParameters = {{"bert@b.example", {"NOTIFY=NEVER"}},
                                            {"cleo@b.example", {"NOTIFY=SUCCESS", "ORCPT=rfc822;c@b.example"}}};
    const Outcome outcome = handled(m_world, rule("never", "possible"), message);
    ASSERT_EQ(outcome.submissions.size(), 1U);
    const Submission& one = outcome.submissions.front();
    ASSERT_EQ(one.recipients.size(), 1U);
    EXPECT_EQ(one.senderParameters, message.envelope.senderParameters);
    EXPECT_EQ(one.recipientParameters, (std::map<std::string, std::vector<std::string>>{
                                           *message.envelope.recipientParameters.find(one.recipients.front())}));
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
        const Outcome passed = handled(m_world, rule("possible", "never"), *message);
        EXPECT_EQ(passed.action, Action::pass);
        EXPECT_NE(passed.told("unsigned"), "");
        EXPECT_EQ(passed.told("signer"), "") << "nobody signed it";
    }
}

/// Each costs an MTA a walk through the header.
TEST_F(Outgoing, ManyFieldsThatAreTakenOut) {
    Message message = mailOf();
    for (int index = 0; index < 1000; ++index) {
        message.header.push_back({"Bcc", " cleo@b.example"});
        message.header.push_back({"X-Norvcrypt-Signature", " pass"});
    }
    const Outcome most = handled(m_world, rule("never", "never"), message);
    EXPECT_TRUE(delivered(message, most).values("Bcc").empty());
    EXPECT_EQ(most.edits.size(), 2000U);
    message.header.push_back({"Resent-Bcc", " cleo@b.example"});
    for (const bool tooLarge : {false, true}) {
        message.tooLarge = tooLarge;
        const Outcome more = handled(m_world, rule("possible", "possible"), message);
        EXPECT_EQ(more.action, Action::reject);
        EXPECT_EQ(more.reply.text, "more than 2000 header fields would have to be taken out of the message (Bcc)");
        EXPECT_TRUE(more.edits.empty());
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
