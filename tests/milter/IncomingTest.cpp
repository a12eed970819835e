// Incoming messages: decrypted, verified, and what was found written into the header.

#include "World.h"

#include <norvcrypto/CMSSignedReader.h>

namespace {

using namespace miltertesting;
using namespace std::string_literals;

const std::string outer =
    "From: Anna <anna@a.example>\r\nTo: bert@b.example\r\nSubject: outside\r\nMessage-ID: <7@a.example>\r\n";
const std::string plain = outer + "Content-Type: text/plain\r\n\r\n" + textBody;

class Incoming : public testing::Test {
protected:
    void SetUp() override { m_world.add("bert", bert(), "bert@b.example", true); }

    Outcome handled(const Message& message, const std::string& incoming = "", const std::string& more = "") {
        const std::string table = incoming.empty() ? "" : "[incoming]\n" + incoming;
        return m_world.engine("", table + more).handle(message, Deadline());
    }
    Delivered received(const std::string& mail, const std::string& incoming = "") {
        const Message message = messageOf(mail);
        return delivered(message, handled(message, incoming));
    }
    /// The one result of a mail.
    std::string resultOf(const std::string& mail, const std::string& incoming = "") {
        return received(mail, incoming).value("Authentication-Results");
    }

    World m_world;
};

std::string replaced(std::string text, const std::string& what, const std::string& with) {
    const std::size_t at = text.find(what);
    EXPECT_NE(at, std::string::npos);
    return text.replace(at, what.size(), with);
}

TEST_F(Incoming, PlainMailIsUntouched) {
    for (const std::string& mail :
         {plain, outer + "\r\n", outer + "Content-Type: multipart/mixed; boundary=x\r\n\r\n--x\r\n\r\nhi\r\n--x--\r\n",
          outer + "Content-Type: multipart/signed; boundary=x; "
                  "protocol=\"application/pgp-signature\"\r\n\r\n--x\r\n\r\nhi\r\n"
                  "--x\r\nContent-Type: application/pgp-signature\r\n\r\nx\r\n--x--\r\n",
          outer + "Authentication-Results: other.example; smime=pass\r\n\r\nbody"}) {
        const Outcome outcome = handled(messageOf(mail));
        EXPECT_EQ(outcome.action, Action::pass) << mail;
        EXPECT_TRUE(outcome.edits.empty());
    }
    EXPECT_EQ(resultOf(plain, "announce_none = true\n"),
              " mx.example.org; smime=none reason=\"nothing of the message is signed or encrypted\"");
}

TEST_F(Incoming, ForgedFieldsAreRemoved) {
    Message message = messageOf(plain);
    message.header.insert(message.header.begin(), {{"Authentication-Results", " mx.example.org; smime=pass"},
                                                   {"authentication-results", " (x)\n \"MX.example.ORG\" 1; dkim=pass"},
                                                   {"Authentication-Results", " other.example; smime=pass"},
                                                   {"X-Norvcrypt-Signer", " ceo@a.example"},
                                                   {"x-norvcrypt-anything", " x"},
                                                   {"Authentication-Results ", " mx.example.org; spf=pass"},
                                                   {"Authentication-Results", " mx.example.org"},
                                                   // Fields of their own to those to whom a CR by itself ends a line.
                                                   {"X-A", " a\rAuthentication-Results: mx.example.org; smime=pass"},
                                                   {"X-A", " a: b\r\n c\r x\rX-Norvcrypt-Signer :\rX-B: d"},
                                                   {"X-A", " a\rAuthentication-Results:\r\n mx.example.org; none\r"},
                                                   {"X-C", " a\rAuthentication-Results: other.example; none\r"},
                                                   {"X-C", " X-Norvcrypt-Signer: a\r X-Norvcrypt-Signer: b\rX-D"}});
    const Outcome outcome = handled(message);
    EXPECT_EQ(outcome.action, Action::change);
    EXPECT_EQ(outcome.told("forged"), "9");
    EXPECT_FALSE(outcome.body);
    const Delivered mail = delivered(message, outcome);
    EXPECT_THAT(mail.values("Authentication-Results"), ElementsAre(" other.example; smime=pass"));
    EXPECT_EQ(mail.values("X-C").size(), 2U);
    EXPECT_EQ(mail.header.size(), messageOf(plain).header.size() + 3);
    // Whoever does not read signatures does not believe what others wrote either.
    EXPECT_EQ(handled(message, "decrypt = false\nverify = false\n").edits.size(), 9U);
}

TEST_F(Incoming, SignedByTheSender) {
    for (const SMime::SigningForm form : {SMime::SigningForm::multipartSigned, SMime::SigningForm::opaque}) {
        const std::string mail = wrapped(plain, {signedBy(anna(), form)});
        const Message message = messageOf(mail);
        const Outcome outcome = handled(message);
        EXPECT_EQ(outcome.action, Action::change);
        EXPECT_FALSE(outcome.body) << "a signed mail stays as it is";
        const Delivered got = delivered(message, outcome);
        const std::string part = form == SMime::SigningForm::opaque ? "1" : "2";
        EXPECT_THAT(got.value("Authentication-Results"),
                    StartsWith(" mx.example.org; smime=pass body.smime-part=" + part +
                               " body.smime-identifier=anna@a.example body.smime-serial=0"));
        EXPECT_THAT(got.value("Authentication-Results"), HasSubstr("body.smime-issuer=\"O=Example,CN=Mail CA\""));
        EXPECT_EQ(got.header.front().name, "Authentication-Results");
        EXPECT_EQ(octetsOf(std::vector<HeaderField>(got.header.begin() + 1, got.header.end())) + "\r\n" + got.body,
                  mail);
        EXPECT_EQ(outcome.told("smime"), "pass");
        EXPECT_EQ(outcome.told("signer"), "anna@a.example");
    }
}

TEST_F(Incoming, ChangedOnItsWay) {
    const std::string mail = replaced(wrapped(plain, {signedBy(anna())}), "this is all", "this is some");
    EXPECT_THAT(resultOf(mail),
                StartsWith(" mx.example.org; smime=fail reason=\"part 1: the body is not the one that was signed\""));
    const Outcome refused = handled(messageOf(mail), "refuse = [\"fail\"]\n");
    EXPECT_EQ(refused.action, Action::reject);
    EXPECT_EQ(refused.reply.code, 550);
    EXPECT_THAT(refused.reply.text, StartsWith("smime=fail: "));
    EXPECT_EQ(handled(messageOf(mail), "refuse = [\"policy\", \"permerror\"]\n").action, Action::change);
}

TEST_F(Incoming, SignersWhoAreNotBelieved) {
    const Identity other = norvauthority::issue({.subject = {{"CN", "Other CA"}},
                                                 .key = norvauthority::Key::fromPem(norvtest::storedKeyPem("carol")),
                                                 .ca = true});
    const auto signedAs = [&](const Identity& who) { return wrapped(plain, {signedBy(who)}); };
    // The chain ends at nobody: a later attempt will not find more.
    EXPECT_THAT(resultOf(signedAs(person("anna@a.example", "alice", {.issuer = &other}))),
                HasSubstr("smime=permerror"));
    // Somebody else than the sender.
    EXPECT_THAT(resultOf(signedAs(person("eve@a.example", "alice"))), HasSubstr("smime=policy"));
}

TEST_F(Incoming, RevokedSigner) {
    const Identity revoked = person("anna@a.example", "alice", {.serial = "abcd"});
    m_world.write(
        "lists.pem",
        norvauthority::issueList({.issuer = &root(), .revoked = {{.serial = "abcd"}}, .crlNumber = "1"}).pem());
    const std::string text = m_world.configuration("");
    const std::string more =
        replaced(text, "[trust]\n", "[trust]\nlists = [\"lists.pem\"]\nrevocation = \"required\"\n");
    const auto config = std::make_shared<const Config>(Config::parse(more, m_world.path("milter.toml")));
    const Engine engine(config, std::make_shared<Stores>(*config));
    const auto verdict = [&](const Identity& who) {
        const Message message = messageOf(wrapped(plain, {signedBy(who)}));
        return delivered(message, engine.handle(message, Deadline())).value("Authentication-Results");
    };
    EXPECT_THAT(verdict(revoked), HasSubstr("smime=fail"));
    EXPECT_THAT(verdict(revoked), HasSubstr("revoked"));
    EXPECT_THAT(verdict(revoked), HasSubstr("body.smime-serial=abcd"));
    EXPECT_THAT(verdict(anna()), HasSubstr("smime=pass"));

    const std::string none = replaced(text, "[trust]\n", "[trust]\nrevocation = \"required\"\n");
    const auto without = std::make_shared<const Config>(Config::parse(none, m_world.path("milter.toml")));
    const Engine noList(without, std::make_shared<Stores>(*without));
    const Message message = messageOf(wrapped(plain, {signedBy(anna())}));
    EXPECT_THAT(delivered(message, noList.handle(message, Deadline())).value("Authentication-Results"),
                HasSubstr("smime=temperror"));
}

TEST_F(Incoming, NobodyToTrust) {
    const auto config = std::make_shared<const Config>(Config::parse(
        "[milter]\nsocket=\"inet:1@127.0.0.1\"\nauthserv_id=\"mx.example.org\"\n", m_world.path("x.toml")));
    const Engine engine(config, std::make_shared<Stores>(*config));
    const Message message = messageOf(wrapped(plain, {signedBy(anna())}));
    EXPECT_THAT(delivered(message, engine.handle(message, Deadline())).value("Authentication-Results"),
                HasSubstr("smime=policy reason=\"the signature is good, and there are no"));
    const Message encrypted = messageOf(wrapped(plain, {encryptedTo({&bert()})}));
    EXPECT_THAT(delivered(encrypted, engine.handle(encrypted, Deadline())).value("Authentication-Results"),
                HasSubstr("smime=neutral"));
}

TEST_F(Incoming, EncryptedAndUnsigned) {
    for (const CMS::ContentCipher cipher : {CMS::ContentCipher::aes256Cbc, CMS::ContentCipher::aes256Gcm}) {
        SMime::EncryptOptions options = encryptedTo({&bert()});
        options.cipher = cipher;
        for (const char* const deliver : {"deliver = \"signed\"\n", "deliver = \"content\"\n"}) {
            const Delivered got = received(wrapped(plain, {options}), deliver);
            EXPECT_EQ(got.body, textBody);
            EXPECT_THAT(got.value("Content-Type"), StartsWith(" text/plain"));
            EXPECT_EQ(got.value("Subject"), " outside");
            EXPECT_EQ(got.value("Authentication-Results"),
                      " mx.example.org; smime=none reason=\"encrypted, and nobody signed it\"");
        }
    }
}

TEST_F(Incoming, SignedAndEncrypted) {
    const std::string mail = wrapped(plain, {signedBy(anna()), encryptedTo({&bert(), &cleo()})});
    const Delivered asSigned = received(mail);
    EXPECT_THAT(asSigned.value("Authentication-Results"), StartsWith(" mx.example.org; smime=pass body.smime-part=2"));
    EXPECT_THAT(asSigned.value("Content-Type"), StartsWith(" multipart/signed"));
    const Found again = read(asSigned.text(), {});
    EXPECT_EQ(again.answer.verdict, SMime::Verdict::signatureGood) << again.answer.detail;
    EXPECT_FALSE(again.isEncrypted());
    const Delivered content = received(mail, "deliver = \"content\"\n");
    EXPECT_THAT(content.value("Content-Type"), StartsWith(" text/plain"));
    EXPECT_EQ(content.body, textBody);
    EXPECT_THAT(content.value("Authentication-Results"), HasSubstr("smime=pass"));
    EXPECT_EQ(content.values("MIME-Version").size(), 1U);
    EXPECT_TRUE(content.values("Content-Disposition").empty());

    const std::string changed = replaced(wrapped(plain, {signedBy(anna())}), "this is all", "this is some");
    const Delivered wrong = received(wrapped(changed, {encryptedTo({&bert()})}));
    EXPECT_THAT(wrong.value("Authentication-Results"), HasSubstr("smime=fail"));
    EXPECT_THAT(wrong.body, HasSubstr("this is some"));
}

TEST_F(Incoming, WhatCannotBeReadIsDeliveredAsItCame) {
    const std::string noKey = wrapped(plain, {encryptedTo({&cleo()})});
    std::string damaged = wrapped(plain, {encryptedTo({&bert()})});
    damaged.resize(damaged.size() - 200);
    SMime::EncryptOptions gcm = encryptedTo({&bert()});
    gcm.cipher = CMS::ContentCipher::aes256Gcm;
    std::string forged = wrapped(plain, {gcm});
    const std::size_t at = forged.size() - 60;
    forged[at] = forged[at] == 'A' ? 'B' : 'A';
    const std::string compressed =
        outer + "Content-Type: application/pkcs7-mime; smime-type=compressed-data\r\n\r\nMIIB";
    for (const std::string& mail : {noKey, damaged, forged, compressed}) {
        const Message message = messageOf(mail);
        const Outcome outcome = handled(message);
        ASSERT_EQ(outcome.action, Action::change);
        EXPECT_FALSE(outcome.body);
        const Delivered got = delivered(message, outcome);
        EXPECT_EQ(got.header.size(), message.header.size() + 1);
        EXPECT_THAT(got.value("Authentication-Results"),
                    StartsWith(" mx.example.org; smime=neutral reason=\"part 1: "));
    }
    EXPECT_THAT(resultOf(noKey), HasSubstr("there is no key for any recipient"));
}

/// The text of a stranger around an encrypted part is not put together with what is in it.
TEST_F(Incoming, PartsAroundAnEncryptedOne) {
    const std::string inner = wrapped("Content-Type: text/plain\r\n\r\nsecret\r\n", {encryptedTo({&bert()})});
    const std::string mail = outer + "MIME-Version: 1.0\r\nContent-Type: multipart/mixed; boundary=b\r\n\r\n--b\r\n" +
                             "Content-Type: text/html\r\n\r\n<img src=\"http://evil.example/\r\n--b\r\n" +
                             inner.substr(inner.find("Content-")) + "\r\n--b--\r\n";
    const Message message = messageOf(mail);
    const Outcome outcome = handled(message);
    EXPECT_FALSE(outcome.body);
    EXPECT_THAT(delivered(message, outcome).value("Authentication-Results"),
                HasSubstr("smime=policy reason=\"parts of the message are not covered: text/html at 1.1\""));
}

TEST_F(Incoming, FooterOfAMailingList) {
    const std::string inner =
        wrapped("From: anna@a.example\r\nContent-Type: text/plain\r\n\r\nhello\r\n", {signedBy(anna())});
    const std::string mail = outer + "MIME-Version: 1.0\r\nContent-Type: multipart/mixed; boundary=b\r\n\r\n--b\r\n" +
                             inner.substr(inner.find("Content-")) + "\r\n--b\r\n\r\nfooter\r\n--b--\r\n";
    EXPECT_THAT(resultOf(mail), HasSubstr("smime=policy reason=\"parts of the message are not covered"));
}

const std::string fieldNameLetters = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789-";

/// A mail to Bert that holds this as it stands: the writer would leave fields outside.
std::string encryptedAsItStands(const std::string& inner) {
    Norvane::MemoryMediaOut out;
    CMS::EnvelopeWriter writer({CMS::EnvelopeRecipient(certificateOf(bert()))}, {});
    writer.attach(out);
    writer.write(norvtest::bufferOf(inner));
    writer.end();
    const norvauthority::Bytes bytes(out.content().data(), out.content().data() + out.content().length());
    std::string base64 = norvauthority::pem("X", bytes);
    base64 = base64.substr(base64.find('\n') + 1);
    base64.resize(base64.find("-----"));
    std::string body;
    for (const char one : base64)
        body += one == '\n' ? std::string("\r\n") : std::string(1, one);
    return outer +
           "Content-Type: application/pkcs7-mime; smime-type=enveloped-data\r\n"
           "Content-Transfer-Encoding: base64\r\n\r\n" +
           body;
}

/// What was encrypted has a header of its own, in which a stranger may write what he likes.
TEST_F(Incoming, HeaderOfWhatWasEncrypted) {
    const std::string inner = "From: ceo@a.example\r\nSubject: inside\r\nX-Norvcrypt-Signature: pass\r\n"
                              "Authentication-Results: mx.example.org; smime=pass\r\nReceived: from nowhere\r\n"
                              "Reply-To: evil@evil.example\r\nBcc: x@evil.example\r\n"
                              "Authentication-Results : mx.example.org; smime=pass\r\nReply-To\t: evil@evil.example\r\n"
                              "Bcc : x@evil.example\r\n: nothing\r\nno field: x\r\nb\xff: x\r\nKept: yes\r\n" +
                              // What an MTA takes for a name ends at a NUL.
                              "Authentication-Results\0x: mx.example.org; smime=pass\r\nFrom\0: ceo@a.example\r\n"
                              "Reply-To\0Kept: evil@evil.example\r\nX-Norvcrypt-\0: pass\r\n\0Bcc: x@evil.example\r\n"
                              "Reply-To\x0b: evil@evil.example\r\nSub\rBcc: x@evil.example\r\n"s +
                              "Content-Type: text/plain; hp=\"cipher\"\r\n\r\n" + textBody;
    const std::string mail = encryptedAsItStands(inner);
    for (const char* const deliver : {"deliver = \"signed\"\n", "deliver = \"content\"\n"}) {
        const Delivered got = received(mail, deliver);
        EXPECT_EQ(got.body, textBody);
        EXPECT_EQ(got.value("Subject"), " inside");
        EXPECT_EQ(got.value("From"), " Anna <anna@a.example>");
        EXPECT_TRUE(got.values("Reply-To").empty());
        EXPECT_TRUE(got.values("Bcc").empty());
        EXPECT_TRUE(got.values("Received").empty());
        EXPECT_EQ(got.value("Kept"), " yes");
        for (const HeaderField& field : got.header)
            EXPECT_EQ(field.name.find_first_not_of(fieldNameLetters), std::string::npos) << field.name;
        EXPECT_TRUE(got.values("X-Norvcrypt-Signature").empty());
        EXPECT_EQ(got.value("Authentication-Results"),
                  " mx.example.org; smime=none reason=\"encrypted, and nobody signed it\"");
    }
}

/// libmilter sends no field of more than 65,535 bytes; that it could not be added would tell the sender that it was decrypted.
TEST_F(Incoming, AFieldThatCannotBeAddedLeavesTheMessageAsItCame) {
    const auto mailWith = [](std::size_t length) {
        return encryptedAsItStands("X-Long: " + std::string(length - 7, 'x') +
                                   "\r\nContent-Type: text/plain; hp=\"cipher\"\r\n\r\n" + textBody);
    };
    EXPECT_EQ(received(mailWith(65000)).body, textBody);
    const std::string mail = mailWith(65001);
    for (const char* const more : {"", "refuse = [\"policy\"]\n", "deliver = \"content\"\n"}) {
        const Outcome outcome = handled(messageOf(mail), more);
        ASSERT_EQ(outcome.action, Action::change);
        EXPECT_FALSE(outcome.body);
        const Delivered got = delivered(messageOf(mail), outcome);
        EXPECT_THAT(got.value("Authentication-Results"), HasSubstr("smime=policy reason=\"a header field of what was"));
        EXPECT_TRUE(got.values("X-Long").empty());
        EXPECT_THAT(got.value("Content-Type"), HasSubstr("enveloped-data"));
    }
}

TEST_F(Incoming, DecryptsWithAKeyOnACurve) {
    const Identity eva =
        norvauthority::issue({.subject = {{"CN", "eva"}},
                              .key = norvauthority::Key::ec(),
                              .issuer = &root(),
                              .serial = "7777",
                              .alternativeNames = {norvauthority::GeneralName::email("eva@b.example")}});
    m_world.add("eva", eva, "eva@b.example", true);
    EXPECT_THAT(received(wrapped(plain, {encryptedTo({&eva})})).body, HasSubstr("this is all"));
}

/// Whether it could be decrypted is nothing that a sender gets to know: he could find the text out, asking often enough.
TEST_F(Incoming, EncryptedMailIsNeverRefused) {
    const std::string changed = replaced(wrapped(plain, {signedBy(anna())}), "this is all", "this is some");
    std::string damaged = wrapped(changed, {encryptedTo({&bert()})});
    damaged.resize(damaged.size() - 200);
    for (const std::string& mail :
         {wrapped(changed, {encryptedTo({&bert()})}), damaged,
          wrapped(plain, {signedBy(person("eve@a.example", "alice")), encryptedTo({&bert()})})})
        EXPECT_EQ(handled(messageOf(mail), "refuse = [\"fail\", \"policy\", \"permerror\"]\n").action, Action::change);
}

TEST_F(Incoming, ProtectedHeaderOfASignedMail) {
    SMime::WriteOptions how;
    how.protectHeader = true;
    const std::string mail = wrapped(plain, {signedBy(anna()), encryptedTo({&bert()})}, how);
    EXPECT_EQ(messageOf(mail).header[2].value, " [...]");
    for (const char* const deliver : {"deliver = \"signed\"\n", "deliver = \"content\"\n"}) {
        const Delivered got = received(mail, deliver);
        EXPECT_EQ(got.value("Subject"), " outside") << deliver;
        EXPECT_THAT(got.value("Authentication-Results"), HasSubstr("smime=pass"));
        if (std::string(deliver).find("signed") != std::string::npos) {
            EXPECT_EQ(read(got.text(), {}).answer.verdict, SMime::Verdict::signatureGood);
        }
    }
}

TEST_F(Incoming, ClientHeaders) {
    const std::string mail = wrapped(plain, {signedBy(anna()), encryptedTo({&bert()})});
    const Delivered got = received(mail, "client_headers = true\n");
    EXPECT_EQ(got.value("X-Norvcrypt-Signature"), " pass");
    EXPECT_EQ(got.value("X-Norvcrypt-Signer"), " anna@a.example");
    EXPECT_THAT(got.value("X-Norvcrypt-Encrypted"), StartsWith(" AES-256-CBC"));
    const Delivered wrong =
        received(replaced(wrapped(plain, {signedBy(anna())}), "this is all", "x"), "client_headers = true\n");
    EXPECT_EQ(wrong.value("X-Norvcrypt-Signature"), " fail");
    EXPECT_TRUE(wrong.values("X-Norvcrypt-Signer").empty());
}

TEST_F(Incoming, OnlyOneOfBothIsWanted) {
    const std::string mail = wrapped(plain, {signedBy(anna()), encryptedTo({&bert()})});
    const Delivered decrypted = received(mail, "verify = false\n");
    EXPECT_THAT(decrypted.value("Content-Type"), StartsWith(" multipart/signed"));
    EXPECT_TRUE(decrypted.values("Authentication-Results").empty());
    const Outcome verified = handled(messageOf(mail), "decrypt = false\n");
    EXPECT_FALSE(verified.body);
    const std::string isSigned = wrapped(plain, {signedBy(anna())});
    EXPECT_EQ(handled(messageOf(isSigned), "verify = false\n").action, Action::pass);
}

/// Names in certificates go into the header.
TEST_F(Incoming, NamesOfStrangers) {
    const std::string evil = "x\r\nX-Injected: yes\r\n\r\nbody\"; dkim=pass (\xc3\xa4" + std::string(1, '\0') + "\\";
    const std::string bytes = evil + "\xff\x80";
    const Identity ca = norvauthority::issue({.subject = {{"CN", evil}, {"O", std::string(5000, 'o')}},
                                              .key = norvauthority::Key::fromPem(norvtest::storedKeyPem("carol")),
                                              .ca = true});
    const Identity who = person("x", "alice",
                                {.subject = {{"CN", evil}, {"emailAddress", bytes, 22}},
                                 .issuer = &ca,
                                 .serial = std::string(400, '7'),
                                 .alternativeNames = {norvauthority::GeneralName::email(bytes + "@a.example")}});
    const Message message = messageOf(wrapped(plain, {signedBy(who)}));
    const Outcome outcome = handled(message, "client_headers = true\n");
    const Delivered got = delivered(message, outcome);
    EXPECT_TRUE(got.values("X-Injected").empty());
    const std::string value = got.value("Authentication-Results");
    EXPECT_LE(value.size(), 2000U);
    EXPECT_TRUE(std::ranges::all_of(value, [](char one) { return one >= ' ' && one <= '~'; })) << value;
    EXPECT_EQ(std::ranges::count(outsideOfQuotes(value), ';'), 1) << value;
    EXPECT_THAT(value, Not(HasSubstr("smime=pass")));
    EXPECT_EQ(handled(message, "refuse = [\"fail\", \"policy\", \"permerror\"]\n").reply.text.find('\n'),
              std::string::npos);
}

TEST_F(Incoming, ManyFieldsAndHugeOnes) {
    Message fields = messageOf(plain);
    for (int index = 0; index < 3000; ++index)
        fields.header.push_back({"X-Field", " value"});
    const Outcome many = handled(fields);
    EXPECT_EQ(many.action, Action::change);
    EXPECT_FALSE(many.body);
    EXPECT_THAT(delivered(fields, many).value("Authentication-Results"), HasSubstr("smime=policy"));
    Message forged = messageOf(plain);
    for (int index = 0; index < 1900; ++index)
        forged.header.push_back({"Authentication-Results", " mx.example.org; smime=pass"});
    EXPECT_TRUE(delivered(forged, handled(forged)).values("Authentication-Results").empty());
    for (int index = 1900; index < 2000; ++index)
        forged.header.push_back({"X-Norvcrypt-Signature", " pass"});
    EXPECT_EQ(handled(forged).told("forged"), "2000");
    forged.header.push_back({"X-Norvcrypt-Signature", " pass"});
    const Outcome more = handled(forged);
    EXPECT_EQ(more.action, Action::reject);
    EXPECT_EQ(more.reply.text, "more than 2000 header fields claim to be of the mail filter here");
    EXPECT_TRUE(more.edits.empty());
    Message length = messageOf(plain);
    length.header.push_back({"X-Long", " " + std::string(1000000, 'x')});
    EXPECT_EQ(handled(length).action, Action::change);
}

TEST_F(Incoming, TooLargeMessages) {
    Message message = messageOf(plain);
    message.tooLarge = true;
    message.header.push_back({"Authentication-Results", " mx.example.org; smime=pass"});
    EXPECT_EQ(
        delivered(message, handled(message)).value("Authentication-Results"),
        " mx.example.org; smime=policy reason=\"the message has more than 104857600 bytes and was not looked at\"");
    EXPECT_EQ(handled(message, "", "[limits]\ntoo_large = \"reject\"\n").action, Action::reject);
    EXPECT_EQ(handled(message, "", "[limits]\ntoo_large = \"tempfail\"\n").action, Action::tempfail);
}

TEST_F(Incoming, TheTimeIsOver) {
    const std::string body(300000, 'x');
    const std::string mail = wrapped(outer + "\r\n" + body, {signedBy(anna()), encryptedTo({&bert()})});
    const Outcome outcome =
        m_world.engine("").handle(messageOf(mail), Deadline(Deadline::Clock::now() - std::chrono::seconds(1)));
    EXPECT_EQ(outcome.action, Action::tempfail);
    EXPECT_EQ(outcome.reply.code, 451);
    EXPECT_EQ(outcome.told("reason"), "the time for judging the message is over");
}

TEST_F(Incoming, NoRoomForFiles) {
    const std::string text =
        replaced(m_world.configuration(""), "[milter]\n", "[milter]\nspool = \"/nonexistent/folder\"\n");
    const auto config = std::make_shared<const Config>(Config::parse(text, m_world.path("milter.toml")));
    const Engine engine(config, std::make_shared<Stores>(*config));
    const Message message = messageOf(wrapped(outer + "\r\n" + std::string(300000, 'x'), {encryptedTo({&bert()})}));
    const Outcome outcome = engine.handle(message, Deadline());
    EXPECT_EQ(outcome.action, Action::tempfail);
    EXPECT_THAT(outcome.told("reason"), HasSubstr("/nonexistent/folder"));
}

TEST_F(Incoming, EveryDirection) {
    const std::string rules =
        "[[direction]]\nlistener = \"SKIP\"\ndirection = \"ignore\"\n"
        "[[direction]]\nlistener = \"OUT\"\nnetworks = [\"192.0.2.0/24\", \"2001:db8::/33\"]\n"
        "direction = \"outgoing\"\n[[direction]]\nauthenticated = \"a*\"\ndirection = \"outgoing\"\n";
    const Config config =
        Config::parse("[milter]\nsocket=\"inet:1@127.0.0.1\"\nauthserv_id=\"mx\"\n" + rules, "x.toml");
    const Engine engine(std::make_shared<const Config>(config), std::make_shared<Stores>(config));
    const auto direction = [&](const std::string& listener, const std::string& who, const std::string& client) {
        Message message = messageOf(plain);
        message.envelope.listener = listener;
        message.envelope.authenticated = who;
        message.envelope.clientAddress = client;
        const Outcome outcome = engine.handle(message, Deadline());
        return outcome.told("direction") + ", " + outcome.told("by");
    };
    EXPECT_EQ(direction("SKIP", "anna", "192.0.2.1"), "ignore, direction in line 4");
    EXPECT_EQ(direction("OUT", "", "192.0.2.1"), "outgoing, direction in line 7");
    EXPECT_EQ(direction("OUT", "", "::ffff:192.0.2.1"), "outgoing, direction in line 7");
    EXPECT_EQ(direction("OUT", "", "2001:db8:7fff::1"), "outgoing, direction in line 7");
    EXPECT_EQ(direction("OUT", "", "2001:db8:8000::1"), "incoming, no direction fits");
    EXPECT_EQ(direction("OUT", "", "192.0.3.1"), "incoming, no direction fits");
    EXPECT_EQ(direction("OUT", "", ""), "incoming, no direction fits");
    EXPECT_EQ(direction("out", "", "192.0.2.1"), "incoming, no direction fits");
    EXPECT_EQ(direction("", "anna", ""), "outgoing, direction in line 11");
    EXPECT_EQ(direction("", "bert", ""), "incoming, no direction fits");
}

} // namespace
