// What becomes of parts that do not arrive as they are sent: GMime's parser finds the same content in them afterwards.

#include "GmimeParts.h"
#include "Writing.h"

namespace {

using namespace smimetest;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

/// What is signed of a mail: 7-bit, with short lines, and good for OpenSSL.
std::string prepared(const std::string& mail) {
    const std::string sent = wrapped(mail, {signedBy({&person("alice")})});
    std::string part = verified(sent);
    EXPECT_TRUE(std::ranges::none_of(part, [](char byte) { return byte < 0 || byte == '\0'; })) << part;
    EXPECT_EQ(std::ranges::count(part, '\r'), std::ranges::count(part, '\n'));
    return part;
}

/// Likewise, and GMime reads the same parts.
std::string sameParts(const std::string& mail) {
    std::string part = prepared(mail);
    const GmimeMail before = readByGmime(mail);
    const GmimeMail after = readByGmime(part);
    EXPECT_EQ(before.parts.size(), after.parts.size());
    for (std::size_t at = 0; at < std::min(before.parts.size(), after.parts.size()); ++at) {
        EXPECT_EQ(before.parts[at].type, after.parts[at].type);
        EXPECT_EQ(before.parts[at].content, after.parts[at].content);
        EXPECT_EQ(before.parts[at].name, after.parts[at].name);
        EXPECT_EQ(before.parts[at].description, after.parts[at].description);
    }
    return part;
}

std::string text(const std::string& body, const std::string& transfer = "8bit") {
    return "Content-Type: text/plain; charset=utf-8\nContent-Transfer-Encoding: " + transfer + "\n\n" + body;
}

TEST(SmimePreparationTest, QuotesTextsThatAreNotSevenBit) {
    EXPECT_EQ(sameParts(text("Gr\xc3\xbc\xc3\x9f"
                             "e, und viel mehr Text\n")),
              "Content-Type: text/plain; charset=utf-8\r\nContent-Transfer-Encoding: quoted-printable\r\n\r\n"
              "Gr=C3=BC=C3=9Fe, und viel mehr Text\r\n");
    EXPECT_THAT(sameParts(text("\xd0\x9f\xd1\x80\xd0\xb8\xd0\xb2\xd0\xb5\xd1\x82")),
                HasSubstr("base64\r\n\r\n0J/RgNC40LLQtdGC\r\n"));
    EXPECT_THAT(sameParts(text("said to be 7-bit: \xc3\xa4", "7bit")), HasSubstr("quoted-printable"));
    EXPECT_THAT(sameParts("Content-Type: text/plain; charset=utf-8\n\nsaid to be nothing: \xc3\xa4"),
                HasSubstr("\r\nContent-Transfer-Encoding: quoted-printable\r\n\r\n"));
}

TEST(SmimePreparationTest, QuotesWhatRelaysChange) {
    EXPECT_THAT(sameParts(text("flowed \ntext\n", "7bit")), EndsWith("\r\n\r\nflowed=20\r\ntext\r\n"));
    EXPECT_THAT(sameParts(text("From me\n.\nto you\n", "7bit")), EndsWith("\r\n\r\n=46rom me\r\n=2E\r\nto you\r\n"));
    EXPECT_THAT(sameParts(text(std::string(991, 'x'), "7bit")), HasSubstr("quoted-printable"));
    EXPECT_THAT(sameParts(text(std::string(990, 'x'), "7bit")), Not(HasSubstr("quoted-printable")));
    EXPECT_THAT(prepared(text("a\rb\n", "7bit")), EndsWith("\r\n\r\na=0Db\r\n"));
}

// RFC 2045, 6.4; RFC 3464, 2.1; RFC 8098, 3.1; RFC 5965, 3: 7bit alone. Python's email reads what is quoted there as fields.
TEST(SmimePreparationTest, NeverEncodesPartsThatAreFields) {
    const std::string lines = "Reporting-MTA: dns; mx.example \r\n\r\nFrom me\r\n.\r\n";
    for (const char* const subtype : {"delivery-status", "disposition-notification", "feedback-report",
                                      "partial; id=a; number=1", "external-body"}) {
        for (const char* const transfer : {"7bit", "8bit", "binary"}) {
            EXPECT_EQ(prepared("Content-Type: message/" + std::string(subtype) +
                               "\r\nContent-Transfer-Encoding: " + transfer + "\r\n\r\n" + lines),
                      "Content-Type: message/" + std::string(subtype) + "\r\nContent-Transfer-Encoding: 7bit\r\n\r\n" +
                          lines);
        }
        EXPECT_THAT(prepared("Content-Type: message/" + std::string(subtype) +
                             "\r\n\r\nGr\xc3\xbc\xc3\x9f"
                             "e, which cannot be sent otherwise"),
                    HasSubstr("quoted-printable"));
    }
    EXPECT_THAT(prepared("Content-Type: message/global-delivery-status\r\n\r\n" + lines), // RFC 6533, 5
                HasSubstr("quoted-printable"));
}

TEST(SmimePreparationTest, SaysSevenBitOfWhatIsSo) {
    EXPECT_EQ(sameParts(text("ASCII\n")),
              "Content-Type: text/plain; charset=utf-8\r\nContent-Transfer-Encoding: 7bit\r\n\r\nASCII\r\n");
    EXPECT_EQ(sameParts("Content-Transfer-Encoding: 7BIT (yes)\nContent-Type: text/plain\n\nx"),
              "Content-Transfer-Encoding: 7BIT (yes)\r\nContent-Type: text/plain\r\n\r\nx");
}

TEST(SmimePreparationTest, KeepsTheBytesOfBinaryParts) {
    std::string bytes;
    for (int value = 0; value < 256; ++value) {
        bytes += static_cast<char>(value);
    }
    bytes += "\n\r\n\r\r\n";
    for (const char* const transfer : {"binary", "Binary (raw)"}) {
        const std::string mail = std::string("Content-Type: application/octet-stream\nContent-Transfer-Encoding: ") +
                                 transfer + "\n\n" + bytes;
        const std::string part = prepared(mail);
        EXPECT_THAT(part, HasSubstr("Content-Transfer-Encoding: base64\r\n"));
        EXPECT_EQ(readByGmime(part).parts.at(0).content, bytes);
    }
    const std::string inParts = "Content-Type: multipart/mixed; boundary=b\n\n--b\n"
                                "Content-Type: image/png\nContent-Transfer-Encoding: binary\n\n" +
                                bytes + "\n--b--\n";
    EXPECT_EQ(readByGmime(prepared(inParts)).parts.at(0).content, bytes);
    // A text of two bytes a character has bytes that look like line ends.
    const std::string utf16 =
        prepared("Content-Type: text/plain; charset=utf-16\nContent-Transfer-Encoding: binary\n\n" +
                 std::string("\n\x01\0a\r\n", 6));
    EXPECT_THAT(utf16, EndsWith("base64\r\n\r\nCgEAYQ0K\r\n"));
}

TEST(SmimePreparationTest, EncodesOtherPartsInBase64) {
    EXPECT_THAT(sameParts(withCrLf("Content-Type: application/json\n\n{\"a\": \"\xc3\xa4 and more that is plain\"}\n")),
                HasSubstr("Content-Transfer-Encoding: base64"));
    EXPECT_THAT(prepared(text(std::string("a\0b", 3))), HasSubstr("Content-Transfer-Encoding: base64"));
}

TEST(SmimePreparationTest, MendsEncodedPartsThatAreNotSevenBit) {
    EXPECT_EQ(sameParts(text("Gr=C3=BC=C3=9F"
                             "e=20\n",
                             "quoted-printable")),
              "Content-Type: text/plain; charset=utf-8\r\nContent-Transfer-Encoding: quoted-printable\r\n\r\n"
              "Gr=C3=BC=C3=9F"
              "e=20\r\n");
    EXPECT_THAT(sameParts(text("raw \xc3\xbc =3D\n", "Quoted-Printable")), EndsWith("\r\n\r\nraw =C3=BC =3D\r\n"));
    EXPECT_THAT(sameParts(text(std::string(2000, 'x') + "=C3=BC", "quoted-printable")), HasSubstr("x=\r\nx"));
    const std::string letters(1200, 'Q');
    EXPECT_THAT(sameParts(text(letters, "base64")), EndsWith("\r\n\r\n" + [&] {
                    std::string lines;
                    for (std::size_t at = 0; at < letters.size(); at += 76) {
                        lines += letters.substr(at, 76) + "\r\n";
                    }
                    return lines;
                }()));
    EXPECT_THAT(sameParts(text("UVFR\n", "base64")), EndsWith("base64\r\n\r\nUVFR\r\n"));
}

TEST(SmimePreparationTest, LeavesMalformedQuotedPrintableAsItStands) {
    for (const char* const body : {"a== \n", "a=4Z \n", "a= b \n", "From =4\n", "x \na=\r\n=", "=\tb\nFrom \n"}) {
        const std::string mail = text(body, "quoted-printable");
        EXPECT_EQ(sameParts(mail), withCrLf(withLf(mail)));
        EXPECT_EQ(verified(wrapped(mail, {opaquelySignedBy(person("alice"))})), withCrLf(withLf(mail)));
    }
    // More blanks than a line may have: some decoders drop all of them, some those that they look at.
    const std::string blanks = text("a" + std::string(77, ' ') + "\nb\n", "quoted-printable");
    EXPECT_EQ(sameParts(blanks), withCrLf(blanks));
}

TEST(SmimePreparationTest, EncodesTheContentOfMalformedQuotedPrintableThatCannotBeSent) {
    const std::string mail = text("a==\xe4\n", "quoted-printable");
    EXPECT_THAT(sameParts(mail), EndsWith("Content-Transfer-Encoding: base64\r\n\r\nYT095A0K\r\n"));
    const std::string sendable = text("a==\n\xe4=\n", "quoted-printable");
    EXPECT_THAT(sameParts(sendable), EndsWith("base64\r\n\r\nYT09DQrk\r\n"));
    EXPECT_THAT(sameParts(text("=\n=4" + std::string(991, 'x'), "quoted-printable")), HasSubstr("base64\r\n\r\nPTR4"));
    // Inside of a signature nothing has to be 7-bit.
    EXPECT_EQ(verified(wrapped(mail, {opaquelySignedBy(person("alice"))})), withCrLf(mail));
    EXPECT_EQ(decrypted(wrapped(mail, {encryptedFor({&person("bob")})}), person("bob")), withCrLf(mail));
}

TEST(SmimePreparationTest, DropsBlanksAtTheEndsOfQuotedLines) {
    EXPECT_THAT(prepared(text("a \t\nb= \nc \n \n", "quoted-printable")), EndsWith("\r\n\r\na\r\nb=\r\nc\r\n\r\n"));
}

const std::string nested = "Content-Type: multipart/mixed; boundary=\"outer b\"\n"
                           "Content-Transfer-Encoding: 8bit\n"
                           "\n"
                           "A preamble.\n"
                           "--outer b  \n"
                           "\n"
                           "no header, 7-bit\n"
                           "--outer bx is a line of the part\n"
                           "--outer b\n"
                           "Content-Type: multipart/alternative;\n boundary=inner\n"
                           "\n"
                           "--inner\n"
                           "Content-Type: text/plain; charset=iso-8859-1\n"
                           "\n"
                           "a bit of 8-bit text: \xe4\n"
                           "--outer  b\n"
                           "\n--inner\n"
                           "Content-Type: text/html; charset=utf-8\n"
                           "Content-Transfer-Encoding: 8bit\n"
                           "\n"
                           "<p>\xc3\xa4\xc3\xb6\xc3\xbc and more that is plain\n"
                           "\n--inner--\n"
                           "an epilogue\n"
                           "--outer b\n"
                           "Content-Type: application/pdf; name=\"x.pdf\"\n"
                           "Content-Transfer-Encoding: base64\n"
                           "\n"
                           "JVBERi0x\n"
                           "--outer b\n"
                           "\n"
                           "--outer b--  \n"
                           "the last epilogue";

TEST(SmimePreparationTest, ReachesPartsAtAnyDepth) {
    const std::string part = sameParts(nested);
    EXPECT_EQ(readByGmime(part).parts.size(), 5U);
    EXPECT_THAT(part, StartsWith("Content-Type: multipart/mixed; boundary=\"outer b\"\r\n"
                                 "Content-Transfer-Encoding: 7bit\r\n\r\nA preamble.\r\n--outer b\r\n"));
    EXPECT_THAT(part, HasSubstr("\r\nan epilogue\r\n--outer b\r\n"));
    EXPECT_THAT(part, EndsWith("\r\n--outer b--\r\nthe last epilogue"));
    EXPECT_THAT(part, HasSubstr("a bit of 8-bit text: =E4\r\n"));
    EXPECT_EQ(prepared(withCrLf(nested)), part);
}

TEST(SmimePreparationTest, LeavesPreamblesOutThatCannotBeSent) {
    const std::string part =
        sameParts("Content-Type: multipart/mixed; boundary=b\n\npre\xe4mble\n--b\n\nx\n--b--\nepi\xe4logue\n");
    EXPECT_EQ(part, "Content-Type: multipart/mixed; boundary=b\r\n\r\n--b\r\n\r\nx\r\n--b--\r\n");
}

TEST(SmimePreparationTest, ClosesAMultipartThatIsCutOff) {
    EXPECT_EQ(sameParts("Content-Type: multipart/mixed; boundary=b\n\n--b\n\nx"),
              "Content-Type: multipart/mixed; boundary=b\r\n\r\n--b\r\n\r\nx\r\n--b--\r\n");
    EXPECT_EQ(prepared("Content-Type: multipart/mixed; boundary=b\n\nnothing but a preamble\n"),
              "Content-Type: multipart/mixed; boundary=b\r\n\r\nnothing but a preamble\r\n");
    EXPECT_EQ(prepared("Content-Type: multipart/mixed; boundary=b\n\n--b--\n"),
              "Content-Type: multipart/mixed; boundary=b\r\n\r\n--b--\r\n");
}

// A delimiter on the line of the preamble would be none: what comes behind it, which nobody was shown, would be a part.
TEST(SmimePreparationTest, TheLastDelimiterOfAMultipartWithoutPartsHasALineOfItsOwn) {
    EXPECT_EQ(prepared("Content-Type: multipart/mixed; boundary=b\n\npreamble\n--b--\n--b\n\nhidden\n--b--\n"),
              "Content-Type: multipart/mixed; boundary=b\r\n\r\npreamble\r\n--b--\r\n--b\r\n\r\nhidden\r\n--b--\r\n");
    EXPECT_EQ(prepared("Content-Type: multipart/mixed; boundary=b\n\n--b--\nepilogue\n"),
              "Content-Type: multipart/mixed; boundary=b\r\n\r\n--b--\r\nepilogue\r\n");
}

// It is all that readers have of such a message, which is therefore not left out like other ones.
TEST(SmimePreparationTest, APreambleWithoutPartsStaysWhereItCannotBeSentAsItIs) {
    const std::string top = "Content-Type: multipart/mixed; boundary=b\nContent-Transfer-Encoding: 8bit\n\n";
    const std::string mail = top + "nothing but a preamble \xe4\n";
    EXPECT_EQ(decrypted(wrapped(mail, {encryptedFor({&person("bob")})}), person("bob")), withCrLf(mail));
    EXPECT_EQ(verified(wrapped(mail, {opaquelySignedBy(person("alice"))})), withCrLf(mail));
    const std::string within =
        "Content-Type: multipart/mixed; boundary=o\nContent-Transfer-Encoding: 8bit\n\n--o\n" + mail + "\n--o--\n";
    EXPECT_EQ(decrypted(wrapped(within, {encryptedFor({&person("bob")})}), person("bob")), withCrLf(within));
    EXPECT_EQ(refusalOf(mail, {signedBy({&person("alice")})}),
              "the message is a multipart without any part, and not text that can be sent");
}

TEST(SmimePreparationTest, KeepsPartsThatHaveNothing) {
    EXPECT_EQ(prepared("Content-Type: multipart/mixed; boundary=b\n\n--b\n--b\n\n--b\n\n\n--b\nContent-ID: <x>\n--b--"),
              "Content-Type: multipart/mixed; boundary=b\r\n\r\n--b\r\n\r\n\r\n--b\r\n\r\n\r\n--b\r\n\r\n\r\n"
              "--b\r\nContent-ID: <x>\r\n\r\n\r\n--b--\r\n");
}

TEST(SmimePreparationTest, ReachesForwardedMessages) {
    const std::string part = sameParts("Content-Type: multipart/mixed; boundary=b\n\n--b\n"
                                       "Content-Type: message/rfc822\nContent-Transfer-Encoding: 8bit\n\n"
                                       "From: J\xc3\xbcrgen <j@example.com>\n"
                                       "Subject: Gr\xc3\xbc\xc3\x9f"
                                       "e\n"
                                       "MIME-Version: 1.0\nContent-Type: text/plain; charset=utf-8\n\n"
                                       "text with \xc3\xa4 and more\n--b--\n");
    EXPECT_THAT(part, HasSubstr("Content-Type: message/rfc822\r\nContent-Transfer-Encoding: 7bit\r\n\r\nFrom: =?"));
    const std::string forwarded = part.substr(part.find("From:"));
    EXPECT_EQ(readByGmime(forwarded).subject, "Gr\xc3\xbc\xc3\x9f"
                                              "e");
    EXPECT_EQ(readByGmime(forwarded).from, "J\xc3\xbcrgen <j@example.com>");
}

// RFC 2046, 5.1.5: in a digest, parts are messages unless they say otherwise.
TEST(SmimePreparationTest, ReachesMessagesOfADigest) {
    const std::string digest = "Content-Type: multipart/digest; boundary=b\r\n\r\n--b\r\n";
    EXPECT_EQ(prepared(digest + "\r\nSubject: x\r\nContent-Type: text/plain; charset=utf-8\r\n\r\nsome text "
                                "\xc3\xa4\r\n--b--\r\n"),
              digest + "\r\nSubject: x\r\nContent-Type: text/plain; charset=utf-8\r\n"
                       "Content-Transfer-Encoding: quoted-printable\r\n\r\nsome text =C3=A4\r\n--b--\r\n");
    EXPECT_EQ(prepared(digest + "Content-Type: text/plain; charset=utf-8\r\n\r\nSubject: x\r\n\r\nsome text "
                                "\xc3\xa4\r\n--b--\r\n"),
              digest + "Content-Type: text/plain; charset=utf-8\r\nContent-Transfer-Encoding: quoted-printable\r\n\r\n"
                       "Subject: x\r\n\r\nsome text =C3=A4\r\n--b--\r\n");
}

/// What comes out where everything arrives: all of it inside of the signature.
std::string carried(const std::string& mail) {
    return verified(wrapped(mail, {opaquelySignedBy(person("alice"))}));
}

// RFC 2045, 6.4: what parts lie in is called 8bit where one of them is.
TEST(SmimePreparationTest, TellsOfEightBitPartsInWhatIsAroundThem) {
    const std::string plain = "--b\n\nplain\n";
    const std::string other = "--b\nContent-Type: application/x-other\nContent-Transfer-Encoding: x-other\n\n\xe4\n";
    const std::string line = "--b\nContent-Type: text/plain\nno field \xe4\n\nplain\n";
    const std::string top = "Content-Type: multipart/mixed; boundary=b\nContent-Transfer-Encoding: ";
    for (const std::string& parts :
         {other, line, plain + other, other + plain, plain + line + plain, plain + other + line + plain}) {
        for (const std::string word : {"8bit", "binary", "8BIT"}) {
            const std::string mail = top + word + "\n\n" + parts + "--b--\n";
            EXPECT_EQ(carried(mail), withCrLf(mail));
            const std::string within =
                "Content-Type: multipart/mixed; boundary=o\nContent-Transfer-Encoding: 8bit\n\n--o\n\n"
                "x\n--o\n" +
                mail + "\n--o--\n";
            EXPECT_EQ(carried(within), withCrLf(within));
        }
    }
    EXPECT_EQ(carried(top + "8bit\n\n" + plain + "--b--\n"), withCrLf(top + "7bit\n\n" + plain + "--b--\n"));
    // It was 8-bit, and is not any more.
    EXPECT_EQ(carried(top + "8bit\n\n--b\nContent-Type: text/plain\n\nplain and \xe4\n--b--\n"),
              withCrLf(top + "7bit\n\n--b\nContent-Type: text/plain\nContent-Transfer-Encoding: quoted-printable\n\n"
                             "plain and =E4\n--b--\n"));
}

/// A text in a multipart with this boundary, which is met inside once it is one.
TEST(SmimePreparationTest, LooksIntoMultipartsWithProperBoundaries) {
    const auto mail = [](const std::string& boundary) {
        return "Content-Type: multipart/mixed; boundary=\"" + boundary + "\"\n\n--" + boundary +
               "\nContent-Type: text/plain\n\nplain and \xe4\n--" + boundary + "--\n";
    };
    const std::string longest(200, 'b');
    for (const std::string& boundary : {std::string("b"), std::string("b~"), std::string("b c"), longest}) {
        EXPECT_THAT(prepared(mail(boundary)),
                    HasSubstr("quoted-printable\r\n\r\nplain and =E4\r\n--" + boundary + "--"));
    }
    for (const std::string& boundary :
         {std::string("b\x7f"), std::string("b\x1f"), std::string("b\t c"), longest + 'b'}) {
        EXPECT_EQ(
            refusalOf(mail(boundary), {signedBy({&person("alice")})}),
            "the message is a multipart without a proper boundary and is not 7-bit text with short lines: a signature "
            "beside it would not survive its way. Sign the message opaquely");
    }
}

// RFC 2045, 2.9 and 6.2: the lines of what is binary are no lines.
TEST(SmimePreparationTest, EncodesOctetsOrLines) {
    const auto part = [](const std::string& type, const std::string& transfer, const std::string& body) {
        return prepared("Content-Type: " + type + "\n" +
                        (transfer.empty() ? "" : "Content-Transfer-Encoding: " + transfer + "\n") + "\n" + body);
    };
    const std::string json = "Content-Type: application/json\r\n";
    const std::string base64 = "Content-Transfer-Encoding: base64\r\n\r\n";
    EXPECT_EQ(part("application/json", "", "{}\n"), json + "\r\n{}\r\n");
    EXPECT_EQ(part("application/json", "7bit", "{}\n"), json + "Content-Transfer-Encoding: 7bit\r\n\r\n{}\r\n");
    EXPECT_EQ(part("application/json", "8bit", "{}\n"), json + "Content-Transfer-Encoding: 7bit\r\n\r\n{}\r\n");
    EXPECT_EQ(part("application/json", "8bit", "\xc3\xa4\n"), json + base64 + "w6QNCg==\r\n") << "c3 a4 0d 0a";
    EXPECT_EQ(part("application/json", "binary", "\xc3\xa4\n"), json + base64 + "w6QK\r\n") << "c3 a4 0a";
    EXPECT_EQ(part("application/json", "binary", "{}\n"), json + base64 + "e30K\r\n");
    const std::string plain = "Content-Type: text/plain\r\n";
    EXPECT_EQ(part("text/plain", "binary", "hi\n"), plain + "Content-Transfer-Encoding: 7bit\r\n\r\nhi\r\n");
    EXPECT_EQ(part("text/plain", "binary", "plain and \xe4\n"),
              plain + "Content-Transfer-Encoding: quoted-printable\r\n\r\nplain and =E4\r\n");
    EXPECT_EQ(part("text/plain", "binary", std::string("h\0\n", 3)), plain + base64 + "aAAK\r\n") << "68 00 0a";
    EXPECT_EQ(part("text/plain", "8bit", std::string("h\0\n", 3)), plain + base64 + "aAANCg==\r\n");
}

TEST(SmimePreparationTest, EncodesFieldsOfPartsThatAreNotSevenBit) {
    const std::string part = sameParts("Content-Type: text/plain; charset=utf-8; name=\"\xc3\xbc.txt\"\n"
                                       "Content-Disposition: attachment; filename=\"r\xc3\xa9sum\xc3\xa9.txt\"\n"
                                       "Content-Description: caf\xc3\xa9\n"
                                       "\nx");
    EXPECT_EQ(readByGmime(part).parts.at(0).name, "r\xc3\xa9sum\xc3\xa9.txt");
    EXPECT_EQ(readByGmime(part).parts.at(0).description, "caf\xc3\xa9");
    // ISO-8859-1 is what no UTF-8 is taken for.
    EXPECT_EQ(readByGmime(prepared("Content-Description: caf\xe9\n\nx")).parts.at(0).description, "caf\xc3\xa9");
}

TEST(SmimePreparationTest, KeepsOddFieldsOfPartsFromBreakingOnTheirWay) {
    EXPECT_EQ(prepared("Content-Type: text/plain; \n \t \n charset=us-ascii \nContent-Language:\n\nx"),
              "Content-Type: text/plain;\r\n charset=us-ascii\r\nContent-Language:\r\n\r\nx");
    const std::string name(2000, 'n');
    const std::string part = prepared("Content-Type: text/plain; name=\"" + name + "\"\n\nx");
    expectLines(part + "\r\n", "\r\n", 998);
    EXPECT_EQ(readByGmime(part).parts.at(0).name, name);
    std::string words = "Content-Description:";
    for (int at = 0; at < 300; ++at) {
        words += " word" + std::to_string(at);
    }
    EXPECT_EQ(readByGmime(prepared(words + "\n\nx")).parts.at(0).description, words.substr(21));
    EXPECT_EQ(refusalOf("Content-ID: <" + std::string(1200, 'i') + ">\n\nx", {signedBy({&person("alice")})}),
              "the field Content-ID of the message has a line of 1214 characters that cannot be folded");
}

/// A forwarded message whose header has these lines in the middle.
std::string forwarded(const std::string& lines) {
    return "Content-Type: message/rfc822\nContent-Transfer-Encoding: 8bit\n\nSubject: x\n" + lines +
           "Content-Type: text/plain\n\ny\n";
}

TEST(SmimePreparationTest, KeepsLinesOfHeadersThatAreNoFields) {
    const std::string sevenBit =
        "Content-Type: message/rfc822\r\nContent-Transfer-Encoding: 7bit\r\n\r\nSubject: x\r\n";
    const std::string rest = "Content-Type: text/plain\r\n\r\ny\r\n";
    EXPECT_EQ(prepared(forwarded(">From a b\n")), sevenBit + ">From a b\r\n" + rest);
    EXPECT_EQ(prepared(forwarded("no field \n  \n and more\t\n")), sevenBit + "no field\r\n and more\r\n" + rest);
    // What a mailbox writes between messages is part of none.
    EXPECT_EQ(prepared(forwarded("From a@example.com Mon Jan  5 10:00:00 2026\n")), sevenBit + rest);
}

TEST(SmimePreparationTest, RefusesLinesOfHeadersThatWouldNotSurviveAndCarriesThemOpaquely) {
    const std::string parts = "Content-Type: multipart/mixed; boundary=m\n\n--m\n\nx\n--m\n";
    for (const std::string& lines :
         {std::string("caf\xe9 \n"), std::string("a\rb\n"), std::string("a\0b\n", 4), std::string(991, 'x') + "\n",
          std::string(".\n"), std::string("From a\n and more\n")}) {
        const std::string mail = forwarded(lines);
        EXPECT_EQ(refusalOf(parts + mail + "--m--\n", {signedBy({&person("alice")})}),
                  "the header of the part at 1.2.1 has a line that is no field and not 7-bit text with short lines: a "
                  "signature beside it would not survive its way. Sign the message opaquely");
        const bool isSevenBit = lines == ".\n" || lines.starts_with("From ");
        std::string kept = withCrLf(mail);
        if (isSevenBit) {
            kept.replace(kept.find("8bit"), 4, "7bit");
        }
        EXPECT_EQ(verified(wrapped(mail, {opaquelySignedBy(person("alice"))})), kept);
        EXPECT_EQ(decrypted(wrapped(mail, {encryptedFor({&person("bob")})}), person("bob")), kept);
    }
}

const std::string signedAlready =
    "Content-Type: multipart/signed; boundary=s; protocol=\"application/pkcs7-signature\"\n\n"
    "--s\nContent-Type: text/plain\n\ntrailing blank \nFrom me\n"
    "--s\nContent-Type: application/pkcs7-signature\n\nAA==\n--s--\n";

TEST(SmimePreparationTest, LeavesSignedPartsAsTheyAre) {
    EXPECT_EQ(prepared(signedAlready), withCrLf(signedAlready));
    const std::string inside = "Content-Type: multipart/mixed; boundary=m\n\n--m\n" + signedAlready + "\n--m--\n";
    EXPECT_EQ(prepared(inside), withCrLf(inside));
}

TEST(SmimePreparationTest, RefusesASignedPartThatWouldNotSurviveAndCarriesItOpaquely) {
    std::string mail = signedAlready;
    mail.replace(mail.find("trailing"), 8, "tr\xe4iling");
    const std::string inside = "Content-Type: multipart/mixed; boundary=m\n\n--m\n\nx\n--m\n" + mail + "\n--m--\n";
    EXPECT_EQ(
        refusalOf(inside, {signedBy({&person("alice")})}),
        "the part at 1.2 is signed already and is not 7-bit text with short lines: a signature beside it would not "
        "survive its "
        "way. Sign the message opaquely");
    EXPECT_THAT(refusalOf(mail, {signedBy({&person("alice")})}),
                StartsWith("the message is signed already and is not"));
    EXPECT_EQ(verified(wrapped(inside, {opaquelySignedBy(person("alice"))})), withCrLf(inside));
    EXPECT_EQ(decrypted(wrapped(inside, {encryptedFor({&person("bob")})}), person("bob")), withCrLf(inside));
    EXPECT_THAT(refusalOf("Content-Transfer-Encoding: X-Uuencode\n\n\xe4", {signedBy({&person("alice")})}),
                StartsWith("the message has the transfer encoding x-uuencode and is not 7-bit"));
    EXPECT_EQ(
        prepared("Content-Transfer-Encoding: x-uuencode\n\nbegin 644 x \n"),
        "Content-Transfer-Encoding: x-uuencode\r\nContent-Type: text/plain; charset=us-ascii\r\n\r\nbegin 644 x \r\n");
}

TEST(SmimePreparationTest, NeverMakesABoundaryOfEncodedText) {
    for (const char* const hidden : {"=2D-b", "-=\n-b", "=2d=2db"}) {
        const std::string mail = std::string("Content-Type: multipart/mixed; boundary=b\n\n--b\nContent-Type: "
                                             "text/plain\nContent-Transfer-Encoding: quoted-printable\n\n") +
                                 hidden + "\n\xe4\n--b--\n";
        EXPECT_EQ(readByGmime(sameParts(mail)).parts.size(), 1U);
    }
    const std::string fits =
        std::string("Content-Type: multipart/mixed; boundary=b\n\n--b\nContent-Type: text/plain\n\n") +
        std::string(75, 'x') + "--b\n\xe4\n--b--\n";
    EXPECT_EQ(readByGmime(sameParts(fits)).parts.size(), 1U);
}

TEST(SmimePreparationTest, BoundsWhatAStrangerMayChoose) {
    SMime::WriteOptions how;
    const auto shells = std::vector<SMime::Wrapping>{signedBy({&person("alice")})};
    how.budget.parts = 3;
    const std::string mail = "Content-Type: multipart/mixed; boundary=b\n\n--b\n\n--b\n\n--b\n\n--b--\n";
    EXPECT_EQ(refusalOf(mail, shells, how), "the message has more than 3 parts");
    how = {};
    std::string deep = "x";
    for (int level = 0; level < 21; ++level) {
        deep.insert(0, "Content-Type: message/rfc822\n\n");
    }
    EXPECT_EQ(refusalOf(deep, shells), "the parts of the message lie within one another more than 20 deep");
    std::string messages = "\r\nx";
    for (int level = 0; level < 20; ++level) {
        messages.insert(0, "Content-Type: message/rfc822\r\n\r\n");
    }
    EXPECT_EQ(prepared(messages), messages);
    std::string parts = "x";
    for (int level = 0; level < 20; ++level) {
        const std::string boundary = "b" + std::to_string(level);
        parts = "Content-Type: multipart/mixed; boundary=" + boundary + "\n\n--" + boundary + "\n" +
                (level == 0 ? "\n" : "") + parts + "\n--" + boundary + "--\n";
    }
    EXPECT_EQ(prepared(parts), withCrLf(parts));
    EXPECT_EQ(refusalOf("Content-Type: message/rfc822\n\n" + parts, shells),
              "the parts of the message lie within one another more than 20 deep");
    EXPECT_EQ(refusalOf("A: " + std::string(std::size_t{256} << 10U, 'x') + "\n\n", shells),
              "the header of the message has more than 262144 octets");
    EXPECT_EQ(refusalOf("Content-Type: multipart/mixed; boundary=b\n\n--b\nA: " +
                            std::string(std::size_t{256} << 10U, 'x') + "\n--b--",
                        shells),
              "the header of the part at 1.1 has more than 262144 octets");
    std::string many;
    for (int at = 0; at <= 2000; ++at) {
        many += "A: b\n";
    }
    EXPECT_EQ(refusalOf(many + "\n", shells), "the header of the message has more than 2000 fields");
}

} // namespace
