// Explanations of bodies whose header fields and boundaries are written in ways that few programs choose, and budgets.
#include "Diagnosing.h"

#include <gmock/gmock.h>

namespace {

using namespace diagnosing;
using testing::ElementsAre;
using testing::HasSubstr;

/// A text, encoded with long lines, in a part with these fields around it.
std::string partsWith(const std::string& type, const std::string& delimiter, const std::string& fields,
                      const std::string& text) {
    return type + "\r\n\r\n" + delimiter + "\r\n" + fields + "\r\n" + text + "\r\n" + delimiter + "--\r\n";
}

// A quoted boundary may have its characters escaped (RFC 5322, 3.2.4).
TEST(DiagnosisForms, ABoundaryWithAnEscapedCharacterIsABoundary) {
    const std::string sent =
        partsWith("Content-Type: multipart/mixed; boundary=\"b\\1\"", "--b1",
                  "Content-Type: text/plain\r\nContent-Transfer-Encoding: 8bit\r\n", "f\xC3\xBCr Bob");
    const std::string arrived = replaced(replaced(sent, "8bit", "quoted-printable"), "f\xC3\xBCr Bob", "f=C3=BCr Bob");
    EXPECT_THAT(changesBetween(sent, arrived), ElementsAre("made-7-bit"));
}

// Blanks behind a boundary are padding (RFC 2046, 5.1.1); a longer line is another one.
TEST(DiagnosisForms, BlanksMayFollowABoundaryAndOtherTextMayNot) {
    const std::string fields = "Content-Type: text/plain\r\nContent-Transfer-Encoding: 8bit\r\n";
    const std::string sent =
        partsWith("Content-Type: multipart/mixed; boundary=b1", "--b1 \t", fields, "f\xC3\xBCr Bob\r\n--b1 and more");
    const std::string closed = replaced(sent, "--b1 \t--", "--b1--");
    const std::string arrived =
        replaced(replaced(closed, "8bit", "quoted-printable"), "f\xC3\xBCr Bob", "f=C3=BCr Bob");
    EXPECT_THAT(changesBetween(closed, arrived), ElementsAre("made-7-bit"));
}

// RFC 2046, 5.1: a part may have no header fields, but then an empty line begins it. A part that begins with text all the same, in
// a line longer than what is held at once, is one of text.
TEST(DiagnosisForms, APartBeginsWithALongLineInsteadOfAHeader) {
    const std::string sent =
        "Content-Type: multipart/mixed; boundary=b1\r\n\r\n--b1\r\n" + std::string(5000, 'x') + "\r\n" +
        "--b1\r\nContent-Type: text/plain\r\nContent-Transfer-Encoding: 8bit\r\n\r\nf\xC3\xBCr Bob\r\n--b1--\r\n";
    const std::string arrived = replaced(replaced(sent, "8bit", "quoted-printable"), "f\xC3\xBCr Bob", "f=C3=BCr Bob");
    EXPECT_THAT(changesBetween(sent, arrived), ElementsAre("made-7-bit"));
    EXPECT_TRUE(diagnosisOf(signatureOver(sent), replaced(sent, "Bob", "Rob")).explanations.empty());
}

// The part of a message within a message has been encoded.
TEST(DiagnosisForms, WithinAForwardedMessage) {
    const std::string sent =
        "Content-Type: message/rfc822\r\n\r\nSubject: x\r\nContent-Type: text/plain; charset=utf-8\r\n"
        "Content-Transfer-Encoding: 8bit\r\n\r\nf\xC3\xBCr Bob\r\n";
    const std::string arrived = replaced(replaced(sent, "8bit", "quoted-printable"), "f\xC3\xBCr Bob", "f=C3=BCr Bob");
    EXPECT_THAT(changesBetween(sent, arrived), ElementsAre("made-7-bit"));
}

// RFC 2046, 5.1.5: the parts of a digest are messages, though nothing says so.
TEST(DiagnosisForms, WithinADigest) {
    const std::string sent = "Content-Type: multipart/digest; boundary=b1\r\n\r\n--b1\r\n\r\nSubject: x\r\n"
                             "Content-Type: text/plain; charset=utf-8\r\nContent-Transfer-Encoding: 8bit\r\n\r\n"
                             "f\xC3\xBCr Bob\r\n--b1--\r\n";
    const std::string arrived = replaced(replaced(sent, "8bit", "quoted-printable"), "f\xC3\xBCr Bob", "f=C3=BCr Bob");
    EXPECT_THAT(changesBetween(sent, arrived), ElementsAre("made-7-bit"));
    EXPECT_THAT(changesBetween(sent, replaced(sent, "Content-Type: text", "Content-type: text")),
                ElementsAre("header-names-respelled"));
}

// A mail with many mails in it, the last of which was encoded.
TEST(DiagnosisForms, WithinTheLastOfManyForwardedMessages) {
    std::string sent = "Content-Type: multipart/mixed; boundary=b1\r\n\r\n";
    for (int count = 0; count != 40; ++count) {
        sent += "--b1\r\nContent-Type: message/rfc822\r\n\r\nSubject: x\r\n\r\nDear Bob\r\n";
    }
    sent += "--b1\r\nContent-Type: message/rfc822\r\n\r\nContent-Type: text/plain; charset=utf-8\r\n"
            "Content-Transfer-Encoding: 8bit\r\n\r\nf\xC3\xBCr Bob\r\n--b1--\r\n";
    const std::string arrived = replaced(replaced(sent, "8bit", "quoted-printable"), "f\xC3\xBCr Bob", "f=C3=BCr Bob");
    EXPECT_THAT(changesBetween(sent, arrived), ElementsAre("made-7-bit"));
}

// RFC 6532, 3.7: a message/global may be encoded, and then its base64 wrapped anew.
TEST(DiagnosisForms, AnEncodedMessage) {
    const std::string sent = "Content-Type: message/global\r\nContent-Transfer-Encoding: base64\r\n\r\n"
                             "U3ViamVjdDogRsO8ciBCb2INCg0K\r\nRGVhciBCb2I=\r\n";
    EXPECT_THAT(changesBetween(replaced(sent, "K\r\nR", "KR"), sent), ElementsAre("base64-rewrapped"));
}

// What is quoted, or has no parameters, is no parameter.
TEST(DiagnosisForms, ParametersAreToldFromWhatLooksLikeThem) {
    const std::string fields = "Content-ID: <part1=1@example.org>\r\nContent-Type: text/plain; charset=";
    EXPECT_THAT(changesBetween(fields + "\"utf-8\"\r\n\r\nDear Bob\r\n", fields + "utf-8\r\n\r\nDear Bob\r\n"),
                ElementsAre("parameters-requoted"));
    const std::string named = "Content-Type: text/plain; name=\"x; charset=us-ascii\"; charset=";
    EXPECT_THAT(changesBetween(named + "ISO-8859-1\r\nContent-Transfer-Encoding: 8bit\r\n\r\nf\xFCr Bob\r\n",
                               named + "utf-8\r\nContent-Transfer-Encoding: 8bit\r\n\r\nf\xC3\xBCr Bob\r\n"),
                ElementsAre("character-set-changed"));
    const std::string file = "Content-Type: text/plain; name=utf-8.txt; charset=";
    EXPECT_THAT(changesBetween(file + "ISO-8859-1\r\nContent-Transfer-Encoding: 8bit\r\n\r\nf\xFCr Bob\r\n",
                               file + "utf-8\r\nContent-Transfer-Encoding: 8bit\r\n\r\nf\xC3\xBCr Bob\r\n"),
                ElementsAre("character-set-changed"));
}

// RFC 2045, 6.7, rule 3: no line of quoted-printable ends with a blank, the last one neither.
TEST(DiagnosisForms, ATextWhoseLastLineHasNoEnd) {
    const std::string header = "Content-Type: text/plain; charset=utf-8\r\nContent-Transfer-Encoding: ";
    EXPECT_THAT(
        changesBetween(header + "quoted-printable\r\n\r\nf=C3=BCr Bob=20", header + "8bit\r\n\r\nf\xC3\xBCr Bob "),
        ElementsAre("made-8-bit"));
    // The line end is that of the base64, not of the text (by `base64`).
    EXPECT_THAT(changesBetween(replaced(header, "utf-8", "ISO-8859-1") + "base64\r\n\r\nZvxyIEJvYg==\r\n",
                               header + "base64\r\n\r\nZsO8ciBCb2I=\r\n"),
                ElementsAre("character-set-changed"));
}

TEST(DiagnosisForms, BothSignersAreLookedAtWhereOneIsGood) {
    const std::string text = "Content-Type: text/plain\r\n\r\nDear Bob\r\n";
    const Bytes signature =
        signedMessage({&identities().rsa, &identities().otherRsa}, {"sha256", "sha256"}, bytesOf(text), CMS_NOCERTS);
    const Norvane::MemoryMediaIn in(bufferOf(withCertificates(signature, {identities().otherRsa.certificate.der})));
    CMS::SignedReader reader(in);
    Norvane::MediaOut nowhere = Norvane::NullMediaOut();
    reader.write(nowhere);
    const Identity renewed = norvauthority::issue({.subject = {{"CN", "alice"}},
                                                   .key = identities().rsa.key,
                                                   .issuer = &identities().authority,
                                                   .serial = "a11cf",
                                                   .keyUsage = 0xA0});
    SMime::DiagnosisOptions options{{certificateOf(renewed)}};
    const SMime::Diagnosis diagnosis = SMime::explainSigners(reader, options);
    EXPECT_THAT(namesOf(diagnosis), ElementsAre("certificate-renewed"));
    EXPECT_EQ(diagnosis.notLooked, "");

    options.budget.signers = 0;
    const SMime::Diagnosis none = SMime::explainSigners(reader, options);
    EXPECT_TRUE(none.explanations.empty());
    EXPECT_THAT(none.notLooked, HasSubstr("only the first 0 were looked at"));

    options.budget = {};
    options.budget.verifications = 0;
    const SMime::Diagnosis few = SMime::explainSigners(reader, options);
    EXPECT_TRUE(few.explanations.empty());
    EXPECT_EQ(few.notLooked, "more than 0 signatures would have had to be verified");
}

// A certificate that stands there twice is tried once.
TEST(DiagnosisForms, ACertificateThatIsGivenTwiceIsVerifiedOnce) {
    const std::string text = "Content-Type: text/plain\r\n\r\nDear Bob\r\n";
    const Bytes signature = signatureOver(text, identities().rsa, "sha256", CMS_NOCERTS);
    const auto other = certificateOf(identities().otherRsa);
    const SMime::Diagnosis once = diagnosisOf(signature, text, {{other}});
    const SMime::Diagnosis twice = diagnosisOf(signature, text, {{other, certificateOf(identities().otherRsa)}});
    EXPECT_TRUE(twice.explanations.empty());
    EXPECT_EQ(once.verifications, twice.verifications);
}

// Of a body that was changed the certificates are not to blame.
TEST(DiagnosisForms, ABodyThatDiffersIsNoMatterOfCertificates) {
    const std::string text = "Content-Type: text/plain\r\n\r\nDear Bob\r\n";
    Bytes message = signedMessage({&identities().rsa}, {"sha256"}, bytesOf(text), 0);
    const Bytes name = bytesOf("Dear Bob");
    const auto at = std::search(message.begin(), message.end(), name.begin(), name.end());
    ASSERT_NE(at, message.end());
    *at = 'N';
    const Norvane::MemoryMediaIn in(bufferOf(message));
    CMS::SignedReader reader(in);
    Norvane::MediaOut nowhere = Norvane::NullMediaOut();
    reader.write(nowhere);
    EXPECT_EQ(reader.verdict(reader.signers().at(0)).reason, CMS::SignatureReason::bodyDiffers);
    const SMime::Diagnosis diagnosis = SMime::explainSigners(reader, {{certificateOf(identities().otherRsa)}});
    EXPECT_TRUE(diagnosis.explanations.empty());
    EXPECT_EQ(diagnosis.verifications, 0U);
}

} // namespace
