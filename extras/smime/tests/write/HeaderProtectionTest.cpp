// Header protection (RFC 9788) of what is written.

#include "GmimeParts.h"
#include "Writing.h"

namespace {

using namespace smimetest;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

const std::string mail = "Received: from a by b\n"
                         "From: Alice <alice@example.com>\n"
                         "To: bob@example.com\n"
                         "Bcc: secret@example.com\n"
                         "Subject: Lunch,\n tomorrow\n"
                         "Keywords: food\n"
                         "Comments: hungry\n"
                         "Resent-To: carol@example.com\n"
                         "HP-Outer: Subject: forged\n"
                         "X-Mine: kept\n"
                         "MIME-Version: 1.0\n"
                         "Content-Type: text/plain; charset=us-ascii;\n"
                         "\n"
                         "At noon?\n";

SMime::WriteOptions protecting() {
    SMime::WriteOptions how;
    how.protectHeader = true;
    return how;
}

TEST(SmimeHeaderProtectionTest, RepeatsTheHeaderInsideASignature) {
    const std::string sent = wrapped(mail, {signedBy({&person("alice")})}, protecting());
    EXPECT_EQ(verified(sent),
              "From: Alice <alice@example.com>\r\nTo: bob@example.com\r\nSubject: Lunch,\r\n tomorrow\r\n"
              "Keywords: food\r\nComments: hungry\r\nX-Mine: kept\r\n"
              "Content-Type: text/plain; charset=us-ascii;\r\n hp=\"clear\"\r\n\r\nAt noon?\r\n");
    EXPECT_THAT(sent, StartsWith("Received: from a by b\r\nFrom: Alice <alice@example.com>\r\nTo: bob@example.com\r\n"
                                 "Bcc: secret@example.com\r\nSubject: Lunch,\r\n tomorrow\r\nKeywords: food\r\n"
                                 "Comments: hungry\r\nResent-To: carol@example.com\r\nHP-Outer: Subject: forged\r\n"
                                 "X-Mine: kept\r\nMIME-Version: 1.0\r\n"));
}

TEST(SmimeHeaderProtectionTest, HidesTheSubjectOfEncryptedMail) {
    const std::string expected =
        "From: Alice <alice@example.com>\r\nTo: bob@example.com\r\nSubject: Lunch,\r\n tomorrow\r\n"
        "Keywords: food\r\nComments: hungry\r\nX-Mine: kept\r\n"
        "HP-Outer: From: Alice <alice@example.com>\r\nHP-Outer: To: bob@example.com\r\n"
        "HP-Outer: Subject: [...]\r\nHP-Outer: X-Mine: kept\r\n"
        "Content-Type: text/plain; charset=us-ascii;\r\n hp=\"cipher\"\r\n\r\nAt noon?\r\n";
    const std::string sent = wrapped(mail, {encryptedFor({&person("bob")})}, protecting());
    EXPECT_EQ(decrypted(sent, person("bob")), expected);
    EXPECT_THAT(sent, StartsWith("Received: from a by b\r\nFrom: Alice <alice@example.com>\r\nTo: bob@example.com\r\n"
                                 "Bcc: secret@example.com\r\nSubject: [...]\r\n"
                                 "Resent-To: carol@example.com\r\nHP-Outer: Subject: forged\r\n"
                                 "X-Mine: kept\r\nMIME-Version: 1.0\r\n"));
    const std::string both =
        wrapped(mail, {signedBy({&person("alice")}), encryptedFor({&person("bob")})}, protecting());
    const std::string inner = decrypted(both, person("bob"));
    EXPECT_THAT(inner, StartsWith("Content-Type: multipart/signed"));
    EXPECT_EQ(verified(inner), expected);
    EXPECT_THAT(both, Not(HasSubstr("Lunch")));
    EXPECT_THAT(both, Not(HasSubstr("food")));
}

TEST(SmimeHeaderProtectionTest, ShowsAllFieldsWithoutIt) {
    const std::string sent = wrapped(mail, {encryptedFor({&person("bob")})});
    EXPECT_THAT(sent, HasSubstr("Subject: Lunch,\r\n tomorrow\r\n"));
    EXPECT_EQ(decrypted(sent, person("bob")), "Content-Type: text/plain; charset=us-ascii;\r\n\r\nAt noon?\r\n");
}

TEST(SmimeHeaderProtectionTest, WritesFieldsInSevenBitsInsideAndOutside) {
    const std::string sent = wrapped("From: J\xc3\xbcrgen <j@example.com>\nSubject: Gr\xc3\xbc\xc3\x9f"
                                     "e\n\nx",
                                     {signedBy({&person("alice")})}, protecting());
    const std::string part = verified(sent);
    for (const std::string& text : {sent, part}) {
        EXPECT_TRUE(std::ranges::none_of(text, [](char byte) { return byte < 0; })) << text;
        EXPECT_EQ(readByGmime(text).subject, "Gr\xc3\xbc\xc3\x9f"
                                             "e");
        EXPECT_EQ(readByGmime(text).from, "J\xc3\xbcrgen <j@example.com>");
    }
    EXPECT_THAT(part, HasSubstr("Content-Type: text/plain; charset=us-ascii;\r\n hp=\"clear\"\r\n"));
}

TEST(SmimeHeaderProtectionTest, IsForWhatIsNotProtectedYet) {
    const std::string once = wrapped(mail, {signedBy({&person("alice")})});
    const std::string reason =
        "the header of a message that is signed or encrypted already cannot be protected: sign and "
        "encrypt it in one step";
    EXPECT_EQ(refusalOf(once, {encryptedFor({&person("bob")})}, protecting()), reason);
    EXPECT_EQ(
        refusalOf(wrapped(mail, {opaquelySignedBy(person("alice"))}), {encryptedFor({&person("bob")})}, protecting()),
        reason);
    EXPECT_EQ(refusalOf("Content-Type: text/plain; hp=clear\n\nx", {signedBy({&person("alice")})}, protecting()),
              "the header of the message is protected already");
}

TEST(SmimeHeaderProtectionTest, RefusesATypeThatTakesNoParameter) {
    for (const char* const type : {"text/plain; charset=\"utf-8", ""}) {
        EXPECT_EQ(
            refusalOf("Content-Type: " + std::string(type) + "\n\nx", {signedBy({&person("alice")})}, protecting()),
            "the Content-Type of the message is not one to which header protection can be added")
            << type;
    }
}

} // namespace
