// Signed mails, read by OpenSSL's own reader of S/MIME and by GMime's parser.

#include "GmimeParts.h"
#include "Writing.h"

#include <norvcrypto-smime/SMimeReader.h>

namespace {

using namespace smimetest;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

const std::string plain = "From: Alice <alice@example.com>\n"
                          "To: bob@example.com\n"
                          "Bcc: secret@example.com\n"
                          "Subject: Lunch\n"
                          "MIME-Version: 1.0\n"
                          "Content-Type: text/plain; charset=us-ascii\n"
                          "Content-Language: en\n"
                          "\n"
                          "At noon?\n";

TEST(SmimeSigningTest, PutsAMailIntoAMultipartAndItsSignatureBesideIt) {
    const std::string mail = wrapped(plain, {signedBy({&person("alice")})});
    EXPECT_EQ(verified(mail), "Content-Type: text/plain; charset=us-ascii\r\nContent-Language: en\r\n\r\nAt noon?\r\n");
    EXPECT_THAT(mail, StartsWith("From: Alice <alice@example.com>\r\nTo: bob@example.com\r\n"
                                 "Bcc: secret@example.com\r\nSubject: Lunch\r\nMIME-Version: 1.0\r\n"
                                 "Content-Type: multipart/signed; protocol=\"application/pkcs7-signature\";\r\n"
                                 " micalg=sha-256; boundary=\"=_"));
    EXPECT_THAT(mail, HasSubstr("\r\nContent-Type: application/pkcs7-signature; name=\"smime.p7s\"\r\n"
                                "Content-Transfer-Encoding: base64\r\n"
                                "Content-Disposition: attachment; filename=\"smime.p7s\"\r\n\r\n"));
    EXPECT_THAT(mail, EndsWith("--\r\n"));
    expectLines(mail, "\r\n", 78);
}

TEST(SmimeSigningTest, CountsMimeVersionOnceAndOutside) {
    const std::string mail = wrapped(plain, {signedBy({&person("alice")})});
    EXPECT_EQ(mail.find("MIME-Version"), mail.rfind("MIME-Version"));
}

TEST(SmimeSigningTest, PutsAMailIntoTheSignatureWhenAsked) {
    const std::string mail = wrapped(plain, {opaquelySignedBy(person("alice"))});
    EXPECT_THAT(mail, HasSubstr("MIME-Version: 1.0\r\n"
                                "Content-Type: application/pkcs7-mime; smime-type=signed-data; name=\"smime.p7m\"\r\n"
                                "Content-Transfer-Encoding: base64\r\n"
                                "Content-Disposition: attachment; filename=\"smime.p7m\"\r\n\r\n"));
    EXPECT_EQ(verified(mail), "Content-Type: text/plain; charset=us-ascii\r\nContent-Language: en\r\n\r\nAt noon?\r\n");
    expectLines(mail, "\r\n", 78);
}

TEST(SmimeSigningTest, NamesTheDigestsOfAllSigners) {
    const std::map<Hasher::Type, std::string> names{{Hasher::SHA1, "sha-1"},
                                                    {Hasher::SHA224, "sha-224"},
                                                    {Hasher::SHA384, "sha-384"},
                                                    {Hasher::SHA512, "sha-512"},
                                                    {Hasher::SHA3_256, "unknown"}};
    for (const auto& [digest, name] : names) {
        SMime::SignOptions options = signedBy({&person("alice")});
        options.signers.front().digest = digest;
        const std::string mail = wrapped(plain, {options});
        EXPECT_THAT(mail, HasSubstr(" micalg=" + name + ";"));
        verified(mail);
    }
    SMime::SignOptions options = signedBy({&person("alice"), &person("bob"), &person("carol")});
    options.signers[1].digest = Hasher::SHA512;
    const std::string mail = wrapped(plain, {options});
    EXPECT_THAT(mail, HasSubstr(" micalg=\"sha-256,sha-512\";"));
    verified(mail);
}

TEST(SmimeSigningTest, NamesTheDigestsThatKeysOnCurvesTake) {
    const std::map<std::string, std::string> names{{"P-256", "sha-256"}, {"P-384", "sha-384"}, {"P-521", "sha-512"}};
    for (const auto& [curve, name] : names) {
        const Identity& signer = person(curve, {.key = norvauthority::Key::ec(curve)});
        const std::string mail = wrapped(plain, {signedBy({&signer})});
        EXPECT_THAT(mail, HasSubstr(" micalg=" + name + ";"));
        verified(mail);
    }
    // OpenSSL 3.0 does not verify these in CMS.
    EXPECT_THAT(wrapped(plain, {signedBy({&person("edwards", {.key = norvauthority::Key::ed25519()})})}),
                HasSubstr(" micalg=sha-512;"));
}

TEST(SmimeSigningTest, KeepsHeaderFieldsAsTheyStandOutside) {
    const std::string header = "From alice Mon Jan  1 00:00:00 2026\n"
                               "Received: from a\n\tby b;\n   date\n"
                               "X-Odd  : blank before the colon \n"
                               "Subject:folded\n so \n\n";
    const std::string mail = wrapped(header + "x", {signedBy({&person("alice")})});
    EXPECT_THAT(mail,
                StartsWith("From alice Mon Jan  1 00:00:00 2026\r\nReceived: from a\r\n\tby b;\r\n   date\r\n"
                           "X-Odd  : blank before the colon \r\nSubject:folded\r\n so \r\nMIME-Version: 1.0\r\n"));
    EXPECT_EQ(verified(mail), "Content-Type: text/plain; charset=us-ascii\r\n\r\nx");
}

/// Where it stands a reader finds no field.
TEST(SmimeSigningTest, LeavesAByteOrderMarkOut) {
    const std::string mark = "\xEF\xBB\xBF";
    const std::string mail =
        wrapped(mark + "From: alice@example.org\n\n" + mark + "hello, hello", {signedBy({&person("alice")})});
    EXPECT_THAT(mail, StartsWith("From: alice@example.org\r\nMIME-Version: 1.0\r\n"));
    // That of the body is the sender's.
    EXPECT_THAT(verified(mail), testing::EndsWith("\r\n\r\n=EF=BB=BFhello, hello"));
    const SMime::Correspondents people = SMime::correspondentsOf(MemoryMediaIn(mark + "From: a@b.c\n\n"));
    ASSERT_EQ(people.from.size(), 1U);
    EXPECT_EQ(people.from.front().address(), "a@b.c");
}

// It would stand as an empty line in front of the fields that say what the message is.
TEST(SmimeSigningTest, LeavesOutAReturnThatAHeaderWithoutBodyEndsWith) {
    for (const char* const end : {"X: yz\r\n\r", "\r", "X: yz\r\n \r\n\r"}) {
        const std::string mail =
            wrapped(std::string("From: alice@example.org\r\n") + end, {signedBy({&person("alice")})});
        EXPECT_EQ(mail.find("\r\n\r\n"), mail.find("\r\n\r\n", mail.find("Content-Type: multipart/signed"))) << mail;
        MemoryMediaOut content;
        EXPECT_EQ(SMime::read(MemoryMediaIn(mail), content, {}).verdict, SMime::Verdict::signatureGood) << mail;
    }
}

// Many readers, and relays, take such a line for the first one of the body, and what is behind it for text.
TEST(SmimeSigningTest, RefusesAHeaderWithALineThatIsNoField) {
    for (const char* const line :
         {"Please pay.\n", ": y\n", "X: y\nFrom mallory\n", "X y\n folded: z\n", "\xc3\xa4: y\n"}) {
        for (const bool protects : {false, true}) {
            SMime::WriteOptions how;
            how.protectHeader = protects;
            const std::string text = line + std::string("From: alice@example.org\n\nx");
            EXPECT_THAT(refusalOf(text, {signedBy({&person("alice")})}, how),
                        HasSubstr("the header of the message has a line that is no field"))
                << line;
        }
    }
    EXPECT_THAT(refusalOf(" X: y\nFrom: alice@example.org\n\nx", {signedBy({&person("alice")})}),
                HasSubstr("a line that is no field"));
}

// It would be a second one outside, and the message none that is signed.
TEST(SmimeSigningTest, LeavesOutATypeWithAReturnInFrontOfItsColon) {
    for (const std::string& odd : {std::string("\r"), std::string("\0", 1), std::string(" \r")}) {
        const std::string mail =
            wrapped("From: alice@example.org\r\nContent-Type" + odd + ": message/rfc822\r\n\r\nx\r\n",
                    {signedBy({&person("alice")})});
        MemoryMediaOut content;
        EXPECT_EQ(SMime::read(MemoryMediaIn(mail), content, {}).verdict, SMime::Verdict::signatureGood) << mail;
    }
}

TEST(SmimeSigningTest, LetsNobodyAddFieldsWithALoneReturn) {
    const std::string mail =
        wrapped(std::string("Subject: a\rBcc: eve@example.com\n\tb") + '\0' + "c\n\nx", {signedBy({&person("alice")})});
    EXPECT_THAT(mail, StartsWith("Subject: a Bcc: eve@example.com\r\n\tb c\r\nMIME-Version"));
}

TEST(SmimeSigningTest, FoldsFieldsThatAreTooLong) {
    std::string references = "References:";
    for (int at = 0; at < 100; ++at) {
        references +=
            std::string(1 + static_cast<std::size_t>(at % 3), ' ') + "<" + std::to_string(at) + "@example.com>";
    }
    const std::string mail = wrapped(references + "\n\nx", {signedBy({&person("alice")})});
    expectLines(mail, "\r\n", 78);
    std::string unfolded = mail.substr(0, mail.find("\r\nMIME-Version"));
    for (std::size_t at = unfolded.find("\r\n"); at != std::string::npos; at = unfolded.find("\r\n")) {
        unfolded.erase(at, 2);
    }
    EXPECT_EQ(unfolded, references);
}

/// Line ends, and what is at the ends of bodies.
TEST(SmimeSigningTest, SignsBodiesOfEveryEndAndLineEnd) {
    const std::string header = "Content-Type: text/plain\n\n";
    for (const char* const body :
         {"", "a", "a\n", "\n", "\n\n", "a\n\n", "a\nb", "--\n", "--=_\n", "Content-Type: x\n"}) {
        for (const bool crLf : {false, true}) {
            const std::string text = header + body;
            const std::string mail = wrapped(crLf ? withCrLf(text) : text, {signedBy({&person("alice")})});
            EXPECT_EQ(verified(mail), withCrLf(text)) << body;
            const std::string opaque = wrapped(crLf ? withCrLf(text) : text, {opaquelySignedBy(person("alice"))});
            EXPECT_EQ(verified(opaque), withCrLf(text)) << body;
        }
    }
    EXPECT_EQ(verified(wrapped(header + "a\r\nb\nc", {signedBy({&person("alice")})})), withCrLf(header + "a\nb\nc"));
}

TEST(SmimeSigningTest, SignsWhatHasNoBodyOrNoHeader) {
    EXPECT_EQ(verified(wrapped("Subject: x\n", {signedBy({&person("alice")})})),
              "Content-Type: text/plain; charset=us-ascii\r\n\r\n");
    EXPECT_EQ(verified(wrapped("\nbody\n", {signedBy({&person("alice")})})),
              "Content-Type: text/plain; charset=us-ascii\r\n\r\nbody\r\n");
    EXPECT_EQ(verified(wrapped("", {signedBy({&person("alice")})})),
              "Content-Type: text/plain; charset=us-ascii\r\n\r\n");
}

TEST(SmimeSigningTest, WritesLineFeedsWhenAsked) {
    SMime::WriteOptions how;
    how.lineEnds = SMime::LineEnds::lf;
    for (const auto& options : {signedBy({&person("alice")}), opaquelySignedBy(person("alice"))}) {
        const std::string mail = wrapped(plain, {options}, how);
        expectLines(mail, "\n", 78);
        EXPECT_EQ(verified(mail),
                  "Content-Type: text/plain; charset=us-ascii\r\nContent-Language: en\r\n\r\nAt noon?\r\n");
        EXPECT_EQ(verified(withCrLf(mail)),
                  "Content-Type: text/plain; charset=us-ascii\r\nContent-Language: en\r\n\r\nAt noon?\r\n");
    }
}

TEST(SmimeSigningTest, EndsLinesAsTheMessageDoesWhenAsked) {
    SMime::WriteOptions how;
    how.lineEnds = SMime::LineEnds::asMessage;
    expectLines(wrapped(plain, {signedBy({&person("alice")})}, how), "\n", 78);
    expectLines(wrapped(withCrLf(plain), {signedBy({&person("alice")})}, how), "\r\n", 78);
    expectLines(wrapped("", {signedBy({&person("alice")})}, how), "\r\n", 78);
}

TEST(SmimeSigningTest, SaysWhichCharacterSetATextWithoutTypeHas) {
    const auto typeOf = [](const std::string& body) {
        const std::string part = verified(wrapped("Subject: x\n\n" + body, {signedBy({&person("alice")})}));
        return part.substr(0, part.find("\r\n\r\n"));
    };
    EXPECT_EQ(typeOf("a"), "Content-Type: text/plain; charset=us-ascii");
    EXPECT_EQ(typeOf("some text, \xc3\xa4"),
              "Content-Type: text/plain; charset=utf-8\r\nContent-Transfer-Encoding: quoted-printable");
    EXPECT_EQ(typeOf("some text, \xe4"),
              "Content-Type: text/plain; charset=unknown-8bit\r\nContent-Transfer-Encoding: quoted-printable");
}

TEST(SmimeSigningTest, SendsCertificatesAndListsAlong) {
    SMime::SignOptions options = signedBy({&person("alice")});
    options.certificates = {certificateOf(person("bob"))};
    const std::string mail = wrapped(plain, {options});
    BIO* detached = nullptr;
    const BioPtr in = sourceOver(mail);
    const CmsPtr structure(SMIME_read_CMS(in.get(), &detached));
    const BioPtr content(detached);
    STACK_OF(X509)* const certificates = CMS_get1_certs(structure.get());
    EXPECT_EQ(sk_X509_num(certificates), 2);
    sk_X509_pop_free(certificates, X509_free);
}

} // namespace
