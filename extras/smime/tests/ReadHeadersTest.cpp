// Which header fields the layers cover (RFC 9788; RFC 8551, 3.1).
#include "Mails.h"

using namespace smimetest;
using interop::alice;
using interop::bob;
using SMime::HeaderScheme;
using testing::ElementsAre;

namespace {

constexpr unsigned int detached = CMS_BINARY | CMS_CRLFEOL | CMS_DETACHED;

const std::string insideFields =
    "From: Alice <alice@example.org>\r\nTo: bob@example.org\r\nSubject: =?utf-8?q?gr=C3=BCn?=\r\n";

/// "Subject differs [...]", one a field.
std::vector<std::string> statesOf(const Answer& answer) {
    std::vector<std::string> states;
    for (const SMime::ProtectedField& field : answer.headers.fields)
        states.push_back(field.name + " " + nameOf(field.state) + " " + field.outside.value_or("-"));
    return states;
}

TEST(SMimeHeaders, SignedFieldsAreComparedWithThoseOutside) {
    const std::string entity = insideFields + "Content-Type: text/plain; hp=\"clear\"\r\n\r\nhello\r\n";
    const std::string outside = "Received: by relay\r\nfrom:  Alice\r\n <alice@example.org>\r\nSubject: win\r\n";
    const Outcome outcome = outcomeOf(outside + signedBy(alice(), entity, detached));
    EXPECT_EQ(outcome.answer.verdict, Verdict::signatureGood) << outcome.answer.detail;
    EXPECT_EQ(outcome.answer.headers.scheme, HeaderScheme::clear);
    EXPECT_TRUE(outcome.answer.headers.isSigned);
    EXPECT_FALSE(outcome.answer.headers.isEncrypted);
    EXPECT_THAT(statesOf(outcome.answer),
                ElementsAre("From same Alice <alice@example.org>", "To missing -", "Subject differs win"));
    EXPECT_EQ(outcome.answer.headers.fields[2].value, "gr\xc3\xbcn");
    EXPECT_THAT(outcome.answer.headers.outsideOnly, ElementsAre("received"));
    EXPECT_EQ(outcome.content, entity);
}

TEST(SMimeHeaders, WhatTheSenderObscuredIsToldFromWhatWasChanged) {
    const std::string entity = insideFields +
                               "HP-Outer: From: Alice <alice@example.org>\r\nHP-Outer: Subject: [...]\r\n"
                               "Content-Type: text/plain; hp=\"cipher\"\r\n\r\nhello\r\n";
    const std::string cipher = encryptedFor({&bob()}, signedBy(alice(), entity, detached));
    const Outcome outcome = outcomeOf("From: Alice <alice@example.org>\r\nSubject: [...]\r\n" + cipher);
    EXPECT_EQ(outcome.answer.verdict, Verdict::signatureGood) << outcome.answer.detail;
    EXPECT_EQ(outcome.answer.headers.scheme, HeaderScheme::cipher);
    EXPECT_TRUE(outcome.answer.headers.isSigned);
    EXPECT_TRUE(outcome.answer.headers.isEncrypted);
    EXPECT_THAT(statesOf(outcome.answer),
                ElementsAre("From same Alice <alice@example.org>", "To obscured -", "Subject obscured [...]"));
    const Outcome changed =
        outcomeOf("From: Alice <alice@example.org>\r\nTo: eve@x.example\r\nSubject: pay\r\n" + cipher);
    EXPECT_THAT(statesOf(changed.answer),
                ElementsAre("From same Alice <alice@example.org>", "To differs eve@x.example", "Subject differs pay"));
}

/// RFC 9788, 2.1.2 and 4.5.3: texts of the content of an encrypted message that begin with fields for older programs.
TEST(SMimeHeaders, TextsThatRepeatFieldsForOlderProgramsAreTold) {
    const std::string legacy = "; hp-legacy-display=\"1\"\r\n\r\nSubject: hidden\r\n\r\nhello\r\n";
    const std::string html = "Content-Type: text/html; charset=utf-8; HP-Legacy-Display=1\r\n\r\n<body></body>\r\n";
    const std::string entity =
        insideFields +
        "HP-Outer: Subject: [...]\r\n"
        "Content-Type: multipart/mixed; hp=\"cipher\"; boundary=m\r\n\r\n--m\r\n"
        "Content-Type: multipart/alternative; boundary=a\r\n\r\n--a\r\nContent-Type: text/plain" +
        legacy + "\r\n--a\r\n" + html +
        "\r\n--a--\r\n--m\r\nContent-Type: text/plain; hp-legacy-display=0\r\n\r\nx\r\n"
        "--m\r\nContent-Type: text/csv" +
        legacy + "--m\r\nContent-Type: message/rfc822\r\n\r\nContent-Type: text/plain" + legacy + "--m--\r\n";
    const Outcome outcome = outcomeOf(fieldsOfAlice + encryptedFor({&bob()}, signedBy(alice(), entity, detached)));
    EXPECT_EQ(outcome.answer.verdict, Verdict::signatureGood) << outcome.answer.detail;
    EXPECT_EQ(outcome.answer.headers.scheme, HeaderScheme::cipher);
    EXPECT_THAT(outcome.answer.headers.legacyDisplay, ElementsAre("1.1.1.1.1", "1.1.1.1.2"));
    EXPECT_EQ(outcome.content, entity) << "nothing is taken out of what was signed";
    const std::string alone = "Content-Type: text/plain; hp=\"cipher\"" + legacy;
    EXPECT_THAT(outcomeOf(fieldsOfAlice + encryptedFor({&bob()}, alone)).answer.headers.legacyDisplay,
                ElementsAre("1.1"));
    // Of what is signed alone nothing was hidden: such a text is shown as it stands.
    EXPECT_THAT(outcomeOf(fieldsOfAlice + signedBy(alice(), alone, detached)).answer.headers.legacyDisplay,
                ElementsAre());
    EXPECT_THAT(outcomeOf(fieldsOfAlice + alone).answer.headers.legacyDisplay, ElementsAre());
}

TEST(SMimeHeaders, FieldsInsideThatNobodyDeclaredAreNotTakenForProtected) {
    const std::string entity = insideFields + "Content-Type: text/plain\r\n\r\nhello\r\n";
    const Outcome outcome = outcomeOf(fieldsOfAlice + signedBy(alice(), entity, detached));
    EXPECT_EQ(outcome.answer.headers.scheme, HeaderScheme::none);
    EXPECT_TRUE(outcome.answer.headers.fields.empty());
}

TEST(SMimeHeaders, AnOlderParameterIsUnderstood) {
    const std::string entity = insideFields + "Content-Type: text/plain; protected-headers=\"v1\"\r\n\r\nhello\r\n";
    const Outcome outcome = outcomeOf(fieldsOfAlice + encryptedFor({&bob()}, entity));
    EXPECT_EQ(outcome.answer.headers.scheme, HeaderScheme::parameter);
    EXPECT_FALSE(outcome.answer.headers.isSigned);
    EXPECT_TRUE(outcome.answer.headers.isEncrypted);
}

TEST(SMimeHeaders, AWrappedMessageIsTheContent) {
    const std::string message = insideFields + "Content-Type: text/plain\r\n\r\nhello\r\n";
    for (const std::string& type : {std::string("message/rfc822"), std::string("message/rfc822; forwarded=no")}) {
        const std::string entity = std::string("Content-Type: ").append(type).append("\r\n\r\n").append(message);
        const Outcome outcome = outcomeOf(fieldsOfAlice + signedBy(alice(), entity, detached));
        EXPECT_EQ(outcome.answer.verdict, Verdict::signatureGood) << outcome.answer.detail;
        EXPECT_EQ(outcome.answer.headers.scheme, HeaderScheme::wrapped);
        EXPECT_THAT(statesOf(outcome.answer), ElementsAre("From same Alice <alice@example.org>",
                                                          "To same bob@example.org", "Subject differs outside"));
        EXPECT_EQ(outcome.content, message);
        EXPECT_EQ(outcome.answer.contentPath, "1.1.1");
    }
}

// Somebody else's message as the whole body is one that is forwarded.
TEST(SMimeHeaders, AForwardedMessageIsNotTakenForAWrappedOne) {
    const std::string entity = "Content-Type: message/rfc822\r\n\r\nFrom: bob@example.org\r\n\r\nhello\r\n";
    const Outcome outcome = outcomeOf(fieldsOfAlice + signedBy(alice(), entity, detached));
    EXPECT_EQ(outcome.answer.verdict, Verdict::signatureGood);
    EXPECT_EQ(outcome.answer.headers.scheme, HeaderScheme::none);
    EXPECT_EQ(outcome.content, entity);
    EXPECT_THAT(layersOf(outcome.answer), ElementsAre("multipart-signed 1 good", "forwarded 1.1 good"));
}

// RFC 2046, 5.2.1: a message has no encoding but those of its parts. One with another is not looked into to see whose it is.
TEST(SMimeHeaders, AnEncodedMessageIsNotTakenForAWrappedOne) {
    const std::string type = "Content-Type: message/rfc822\r\nContent-Transfer-Encoding: ";
    const std::string message = insideFields + "Content-Type: text/plain\r\n\r\nhello\r\n";
    for (const char* const encoding : {"base64", "quoted-printable", "x-other"}) {
        const std::string entity = std::string(type).append(encoding).append("\r\n\r\n").append(message);
        const Outcome outcome = outcomeOf(fieldsOfAlice + signedBy(alice(), entity, detached));
        EXPECT_EQ(outcome.answer.verdict, Verdict::signatureGood) << outcome.answer.detail;
        EXPECT_EQ(outcome.answer.headers.scheme, HeaderScheme::none) << encoding;
        EXPECT_EQ(outcome.content, entity);
    }
    EXPECT_EQ(outcomeOf(fieldsOfAlice + signedBy(alice(), type + "8bit\r\n\r\n" + message, detached)).content, message);
}

TEST(SMimeHeaders, AWholeMessageShowsTheProtectedFields) {
    const std::string entity =
        insideFields + "HP-Outer: Subject: [...]\r\nContent-Type: text/plain; hp=\"cipher\"\r\n\r\nhello\r\n";
    static const Keys keys({&bob()});
    SMime::ReadOptions options;
    options.keys = &keys;
    options.wholeMessage = true;
    const std::string outside = "Received: by relay\nSubject: [...]\nMIME-Version: 1.0\n";
    const Outcome outcome = outcomeOf(outside + encryptedFor({&bob()}, entity), options);
    EXPECT_EQ(outcome.content, "Received: by relay\r\n" + insideFields +
                                   "Content-Type: text/plain; hp=\"cipher\"\r\nMIME-Version: 1.0\r\n\r\nhello\r\n");
}

} // namespace
