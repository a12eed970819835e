// Header protection (RFC 9788) of what is written.

#include "GmimeParts.h"
#include "Writing.h"

namespace {

using namespace smimetest;
using testing::AllOf;
using testing::EndsWith;
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

TEST(SmimeHeaderProtectionTest, RepeatsNoLineThatWouldDescribeTheBody) {
    const std::string odd = "Content-" + std::string(1, '\0') + "Disposition: attachment\n";
    const std::string sent = wrapped(odd + mail, {signedBy({&person("alice")})}, protecting());
    EXPECT_THAT(sent, StartsWith("Received: from a by b\r\n"));
    EXPECT_THAT(verified(sent), StartsWith("From: Alice"));
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

// RFC 5322, 2.1.1: not even what repeats a field behind another name has longer lines.
// A return or NUL byte in front of the colon goes when the field is sent, and what is left is a Subject.
TEST(SmimeHeaderProtectionTest, HidesWhatBecomesASubject) {
    for (const std::string& field : {std::string("Subject\0: Lunch", 15), std::string("Subject\r: Lunch"),
                                     std::string("Subject: Dinner\nSUBJECT \r : Lunch")}) {
        const std::string sent =
            wrapped("From: alice@example.com\n" + field + "\n\nx", {encryptedFor({&person("bob")})}, protecting());
        EXPECT_THAT(sent, Not(HasSubstr("Lunch"))) << sent.substr(0, 200);
        EXPECT_THAT(sent, HasSubstr("[...]\r\n"));
        EXPECT_THAT(decrypted(sent, person("bob")), HasSubstr(": Lunch\r\n"));
    }
}

TEST(SmimeHeaderProtectionTest, RepeatsLongFieldsInLinesThatAreNotTooLong) {
    for (const std::string& value :
         {" " + std::string(980, 'x'), " a " + std::string(978, 'x') + " b", std::string(981, 'x')}) {
        const std::string field = "X-Long:" + value;
        const std::string sent = wrapped(field + "\n\nx\n", {encryptedFor({&person("bob")})}, protecting());
        const std::string inside = decrypted(sent, person("bob"));
        expectLines(inside, "\r\n", 990);
        EXPECT_THAT(sent, StartsWith(field + "\r\n"));
        EXPECT_THAT(inside, StartsWith(field + "\r\n"));
        const std::size_t at = inside.find("HP-Outer:");
        ASSERT_NE(at, std::string::npos);
        // Unfolded (RFC 5322, 2.2.3).
        std::string announced = inside.substr(at, inside.find("\r\nContent-Type", at) - at);
        std::erase_if(announced, [](char byte) { return byte == '\r' || byte == '\n'; });
        EXPECT_EQ(announced, "HP-Outer: " + field);
    }
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

/// The part in front of the "@" has one form alone (RFC 6532), the domain has two (RFC 5890).
TEST(SmimeHeaderProtectionTest, RefusesAddressesThatHaveNoFormInSevenBits) {
    const auto shells = std::vector<SMime::Wrapping>{signedBy({&person("alice")})};
    for (const char* const name : {"From", "Sender", "Reply-To", "to", "Cc"}) {
        EXPECT_EQ(refusalOf(std::string(name) + ": a@b.example, J <j\xc3\xbc@k.example>\n\nx", shells, protecting()),
                  "the field " + std::string(name) + " of the message has an address that cannot be written in 7 bits");
        const std::string sent = wrapped(std::string(name) + ": J\xc3\xbcrgen <j@b\xc3\xbc"
                                                             "cher.example>\n\nx",
                                         shells, protecting());
        EXPECT_THAT(sent, HasSubstr("?= <j@xn--bcher-kva.example>\r\n"));
        EXPECT_THAT(verified(sent), HasSubstr("?= <j@xn--bcher-kva.example>\r\n"));
    }
    for (const char* const noAddresses : {"To: a@b.example <\xc3\xa4", "To: \xc3\xa4:;", "To: \xc3\xa4"}) {
        EXPECT_THAT(wrapped(std::string(noAddresses) + "\n\nx", shells, protecting()), StartsWith("To: "));
    }
    EXPECT_EQ(readByGmime(wrapped("Subject: j\xc3\xbc@k.example\n\nx", shells, protecting())).subject,
              "j\xc3\xbc@k.example");
    EXPECT_THAT(wrapped("From: j\xc3\xbc@k.example\n\nx", shells), StartsWith("From: j\xc3\xbc@k.example\r\n"))
        << "outside it stays as it stands";
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

SMime::WriteOptions displaying() {
    SMime::WriteOptions how = protecting();
    how.legacyDisplay = true;
    return how;
}

/// What is encrypted of a mail with this Subject and these Content- fields and body.
std::string insideOf(const std::string& rest, const std::string& subject = "Thursday's meeting") {
    const std::string sent =
        wrapped("Subject: " + subject + "\n" + rest, {encryptedFor({&person("bob")})}, displaying());
    EXPECT_THAT(sent, HasSubstr("\r\nMIME-Version: 1.0\r\n"));
    EXPECT_THAT(sent, HasSubstr("Subject: [...]\r\n"));
    return decrypted(sent, person("bob"));
}

// RFC 9788, 5.2.2: a line for each field, an empty line, the text; 5.2.3: a div that is the first of the body.
TEST(SmimeLegacyDisplayTest, TextsBeginWithWhatIsHidden) {
    EXPECT_EQ(insideOf("Content-Type: text/plain; charset=UTF-8\n\nI think we should skip the meeting.\n"),
              "Subject: Thursday's meeting\r\nHP-Outer: Subject: [...]\r\n"
              "Content-Type: text/plain; charset=UTF-8;\r\n hp-legacy-display=\"1\";\r\n hp=\"cipher\"\r\n\r\n"
              "Subject: Thursday's meeting\r\n\r\nI think we should skip the meeting.\r\n");
    EXPECT_THAT(insideOf("\nx"),
                EndsWith("Content-Type: text/plain; charset=us-ascii;\r\n hp-legacy-display=\"1\";\r\n "
                         "hp=\"cipher\"\r\n\r\nSubject: Thursday's meeting\r\n\r\nx"));
    EXPECT_THAT(insideOf("\n"), EndsWith("\r\n\r\nSubject: Thursday's meeting\r\n\r\n")) << "a text of nothing";
    const std::string html =
        "Content-Type: text/html; charset=utf-8\n\n<!-- <body> --><HTML><Body class='a>b'\n id=x><p>Hi</p>"
        "</body></html>\n";
    EXPECT_THAT(
        insideOf(html, "1 < 2 & 3 > 2"),
        EndsWith("\r\n\r\n<!-- <body> --><HTML><Body class='a>b'\r\n id=x>"
                 "<div class=\"header-protection-legacy-display\"><pre>Subject: 1 &lt; 2 &amp; 3 &gt; 2</pre></div>\r\n"
                 "<p>Hi</p></body></html>\r\n"));
}

TEST(SmimeLegacyDisplayTest, InTheCharacterSetAndTheTransferEncodingOfTheText) {
    const std::string subject = "=?utf-8?q?Gr=C3=BC=C3=9Fe?=";
    const auto readBack = [&](const std::string& rest) {
        const std::string inside = insideOf(rest, subject);
        EXPECT_THAT(inside, HasSubstr("hp-legacy-display=\"1\"")) << inside;
        EXPECT_TRUE(std::ranges::none_of(inside, [](char byte) { return byte < 0; })) << inside;
        return withCrLf(withLf(readByGmime(inside).parts.at(0).content)); // GMime gives lines of texts with LF
    };
    const std::string utf8 = "Subject: Gr\xc3\xbc\xc3\x9f"
                             "e\r\n\r\n";
    const std::string latin = "Subject: Gr\xfc\xdf"
                              "e\r\n\r\n";
    EXPECT_EQ(readBack("\nplain\n"), utf8 + "plain\r\n");
    EXPECT_EQ(readBack("Content-Type: text/plain\n\nplain\n"), utf8 + "plain\r\n");
    EXPECT_EQ(readBack("Content-Type: text/plain; charset=us-ascii; format=flowed\n\nplain\n"), utf8 + "plain\r\n");
    EXPECT_THAT(insideOf("Content-Type: text/plain; charset=\"US-ASCII\"; format=flowed\n\nplain\n", subject),
                AllOf(HasSubstr("charset=utf-8"), HasSubstr("format=flowed"), Not(HasSubstr("US-ASCII"))));
    EXPECT_EQ(readBack("Content-Type: text/plain; charset=iso-8859-1\n\n\xe4\n"), latin + "\xe4\r\n");
    EXPECT_EQ(
        readBack(
            "Content-Type: text/plain; charset=utf-8\nContent-Transfer-Encoding: quoted-printable\n\n=C3=A4 a=\nb\n"),
        utf8 + "\xc3\xa4 ab\r\n");
    EXPECT_EQ(readBack("Content-Type: text/plain; charset=utf-8\nContent-Transfer-Encoding: base64\n\nw6QK\n"),
              utf8 + "\xc3\xa4\r\n");
    EXPECT_EQ(readBack("Content-Type: text/html; charset=utf-8\nContent-Transfer-Encoding: base64\n\nPGJvZHk+w6Q=\n"),
              "<body><div class=\"header-protection-legacy-display\"><pre>Subject: Gr\xc3\xbc\xc3\x9f"
              "e</pre></div>\r\n\xc3\xa4");
}

TEST(SmimeLegacyDisplayTest, InTheTextsThatAreShownFirstAlone) {
    const std::string inside = insideOf("Content-Type: multipart/mixed; boundary=m\n\n--m\n"
                                        "Content-Type: multipart/alternative; boundary=a\n\n--a\n\none\n--a\n"
                                        "Content-Type: text/html\n\n<body>two\n--a--\n--m\n\nthree\n--m\n"
                                        "Content-Type: message/rfc822\n\nSubject: y\n\nfour\n--m--\n");
    EXPECT_EQ(readByGmime(inside).parts.at(0).content, "Subject: Thursday's meeting\n\none");
    EXPECT_THAT(readByGmime(inside).parts.at(1).content, StartsWith("<body><div class="));
    EXPECT_THAT(inside,
                HasSubstr("--m\r\n\r\nthree\r\n--m\r\nContent-Type: message/rfc822\r\n\r\nSubject: y\r\n\r\nfour\r\n"));
}

/// As they would be without it.
TEST(SmimeLegacyDisplayTest, TextsWithoutAPlaceForItAreLeftAlone) {
    for (const char* const rest :
         {"Content-Type: text/html\n\nno body\n",
          "Content-Type: text/plain\nContent-Disposition: ATTACHMENT; filename=x\n\nx\n",
          "Content-Type: text/csv\n\na;b\n",
          "Content-Type: application/pdf\nContent-Transfer-Encoding: base64\n\nJVBERi0x\n",
          "Content-Type: text/plain; charset=utf-16\nContent-Transfer-Encoding: base64\n\nAGEACg==\n",
          "Content-Type: text/plain; charset=x-unheard-of\n\nx\n",
          // Nothing is read behind a quote that is not closed; and the first of two parameters counts.
          "Content-Type: multipart/mixed; boundary=b\n\n--b\nContent-Type: text/plain; charset=\"utf-8\n\nx\n--b--\n",
          ("Content-Type: multipart/mixed; boundary=b\n\n--b\n"
           "Content-Type: text/plain; hp-legacy-display=0\n\nx\n--b--\n"),
          "Content-Type: text/plain\nContent-Transfer-Encoding: quoted-printable\n\na==b\n",
          "Content-Type: text/html\nContent-Transfer-Encoding: quoted-printable\n\nno body\n",
          "Content-Type: text/html\nContent-Transfer-Encoding: quoted-printable\n\n<body>a==b\n",
          "Content-Type: text/plain\nContent-Transfer-Encoding: x-uuencode\n\nbegin\n"}) {
        const std::string whole = std::string("Subject: x\n") + rest;
        EXPECT_EQ(insideOf(rest, "x"),
                  decrypted(wrapped(whole, {encryptedFor({&person("bob")})}, protecting()), person("bob")))
            << rest;
    }
    const std::string ascii = insideOf("Content-Type: text/plain; charset=us-ascii\n\n\xe4\n", "=?utf-8?q?=C3=A4?=");
    EXPECT_THAT(ascii, Not(HasSubstr("hp-legacy-display"))) << "what is no ASCII is not called UTF-8";
}

TEST(SmimeLegacyDisplayTest, WhereSomethingIsHiddenAlone) {
    const std::string plain = "Subject: x\n\nhello\n";
    EXPECT_THAT(verified(wrapped(plain, {signedBy({&person("alice")})}, displaying())), Not(HasSubstr("legacy")));
    SMime::WriteOptions unprotected;
    unprotected.legacyDisplay = true;
    EXPECT_THAT(decrypted(wrapped(plain, {encryptedFor({&person("bob")})}, unprotected), person("bob")),
                Not(HasSubstr("legacy")));
    EXPECT_THAT(decrypted(wrapped("From: a@example.com\n\nhello\n", {encryptedFor({&person("bob")})}, displaying()),
                          person("bob")),
                EndsWith("\r\n\r\nhello\r\n"));
    // Within a signature, too; a line that cannot be read as two.
    const std::string both = wrapped("Subject: =?utf-8?q?a=0D=0AFrom=3A_b?=\n\nhello\n",
                                     {signedBy({&person("alice")}), encryptedFor({&person("bob")})}, displaying());
    EXPECT_THAT(verified(decrypted(both, person("bob"))), EndsWith("\r\n\r\nSubject: a  From: b\r\n\r\nhello\r\n"));
}

/// A long Subject in thousands of alternatives would be a long mail.
TEST(SmimeLegacyDisplayTest, LongSubjectsAndManyAlternativesAreBounded) {
    std::string many = "Content-Type: multipart/alternative; boundary=a\n\n";
    for (int number = 0; number < 1000; ++number)
        many += "--a\n\nx\n";
    const std::string inside = insideOf(many + "--a--\n", std::string(900, 's'));
    std::size_t count = 0;
    for (std::size_t at = inside.find("hp-legacy-display"); at != std::string::npos;
         at = inside.find("hp-legacy-display", at + 1))
        ++count;
    EXPECT_EQ(count, 16U);
    EXPECT_LT(inside.size(), 60000U);
    std::string words;
    while (words.size() <= 1000)
        words += "word ";
    EXPECT_THAT(insideOf("\nx", words), Not(HasSubstr("hp-legacy-display")));
}

} // namespace
