// multipart/signed, as programs write it and lists change it.
#include "Mails.h"
#include "Multiparts.h"

using namespace smimetest;
using interop::alice;
using interop::bob;
using testing::AnyOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

namespace {

constexpr unsigned int wire = CMS_BINARY | CMS_CRLFEOL;
constexpr unsigned int detached = wire | CMS_DETACHED;

std::string mailOf(const std::string& entity) {
    return fieldsOfAlice + entity;
}

TEST(SMimeRead, MultipartSignedOnTheWire) {
    const Outcome outcome = outcomeOf(mailOf(signedBy(alice(), plainEntity, detached)));
    EXPECT_EQ(outcome.answer.verdict, Verdict::signatureGood) << outcome.answer.detail;
    EXPECT_EQ(outcome.content, plainEntity);
    EXPECT_THAT(layersOf(outcome.answer), ElementsAre("multipart-signed 1 good"));
    const SMime::Layer& layer = outcome.answer.layers.front();
    EXPECT_EQ(layer.form, SMime::SignedForm::asTheyStand);
    EXPECT_EQ(layer.micalg, "sha-256");
    ASSERT_EQ(layer.signers.size(), 1U);
    EXPECT_EQ(layer.signers[0].identifier,
              CMS::CertificateIdentifier(x509testing::read(alice()), CMS::NamedBy::issuerAndSerialNumber).asString());
    EXPECT_EQ(layer.signers[0].digestAlgorithm, "sha256");
    EXPECT_TRUE(layer.signers[0].signingTime);
    EXPECT_EQ(layer.certificates.size(), 1U);
    EXPECT_TRUE(outcome.answer.notCovered.empty());
    EXPECT_TRUE(outcome.answer.oddities.empty());
    EXPECT_EQ(outcome.answer.contentPath, "1.1");
    EXPECT_EQ(outcome.answer.contentType, "text/plain");
    EXPECT_THAT(outcome.answer.from, ElementsAre("alice@example.org"));
}

// `openssl cms -sign` writes LF and digests CRLF.
TEST(SMimeRead, MultipartSignedInAFileWithLf) {
    const Outcome outcome = outcomeOf(withLf(mailOf(signedBy(alice(), plainEntity, CMS_DETACHED))));
    EXPECT_EQ(outcome.answer.verdict, Verdict::signatureGood) << outcome.answer.detail;
    EXPECT_EQ(outcome.answer.layers.front().form, SMime::SignedForm::canonical);
    EXPECT_EQ(outcome.content, withLf(plainEntity));
}

// Signed with bare LF by a sender that knows no better.
TEST(SMimeRead, MultipartSignedOverLfAsItStands) {
    const std::string entity = withLf(plainEntity);
    const std::string mail = signedBy(alice(), entity, CMS_DETACHED | CMS_BINARY);
    const Outcome outcome = outcomeOf(withLf(fieldsOfAlice) + mail);
    EXPECT_EQ(outcome.answer.verdict, Verdict::signatureGood) << outcome.answer.detail;
    EXPECT_EQ(outcome.answer.layers.front().form, SMime::SignedForm::asTheyStand);
    EXPECT_EQ(outcome.content, entity);
}

TEST(SMimeRead, MixedLineEndsAreTriedAsTheyStandAndCanonical) {
    const std::string mixed = "Content-Type: text/plain\r\n\r\none\ntwo\r\nthree\rfour\r\n";
    EXPECT_EQ(outcomeOf(mailOf(signedBy(alice(), mixed, CMS_DETACHED | CMS_BINARY))).answer.layers.front().form,
              SMime::SignedForm::asTheyStand);
    const std::string canonical =
        signedBy(alice(), "Content-Type: text/plain\r\n\r\none\r\ntwo\r\nthree\r\n", detached);
    const Outcome outcome = outcomeOf(mailOf(replaced(canonical, "one\r\n", "one\n")));
    EXPECT_EQ(outcome.answer.verdict, Verdict::signatureGood);
    EXPECT_EQ(outcome.answer.layers.front().form, SMime::SignedForm::canonical);
}

// What is signed is what stands there: each of these bytes counts.
TEST(SMimeRead, SignedBytesAreExact) {
    for (const std::string& entity :
         {std::string(
              "Content-Type: text/plain;\r\n\tcharset=utf-8\r\nX-Odd :  folded \r\n  twice\t\r\n\r\nbody  \r\n\r\n"),
          std::string("\r\nno header, no final line end"), std::string("\r\n"), std::string(),
          std::string("Content-Type: text/plain\r\n\r\n--boundary\r\n---- look-alike\r\n.\r\nFrom x\r\n"),
          std::string("Content-Type: multipart/mixed; boundary=in\r\n\r\npre\r\n--in\r\n\r\none\r\n--in "
                      "\t\r\n\r\n\r\n--in--\r\nepi"),
          std::string("Content-Type: text/plain\r\nContent-Transfer-Encoding: 8bit\r\n\r\n\xff\x00\xfe\r\n", 66)}) {
        const std::string mail = mailOf(signedBy(alice(), entity, detached));
        const Outcome outcome = outcomeOf(mail);
        EXPECT_EQ(outcome.answer.verdict, Verdict::signatureGood) << outcome.answer.detail << '\n' << entity;
        EXPECT_EQ(outcome.content, entity);
        if (entity.size() > 4) {
            const Outcome changed = outcomeOf(replaced(mail, entity, entity + " "));
            EXPECT_EQ(changed.answer.verdict, Verdict::refused) << entity;
            EXPECT_EQ(changed.answer.layers.front().signers.front().result.reason, CMS::SignatureReason::bodyDiffers);
        }
    }
}

TEST(SMimeRead, AMicalgThatIsMissingOrWrongMakesNoDifference) {
    const std::string mail = mailOf(signedBy(alice(), plainEntity, detached));
    EXPECT_EQ(outcomeOf(replaced(mail, "micalg=\"sha-256\"", "micalg=md5")).answer.verdict, Verdict::signatureGood);
    EXPECT_EQ(outcomeOf(replaced(mail, "micalg=\"sha-256\"; ", "")).answer.verdict, Verdict::signatureGood);
}

TEST(SMimeRead, AProtocolThatIsMissingOrOldMakesNoDifference) {
    const std::string mail = mailOf(signedBy(alice(), plainEntity, detached));
    const std::string protocol = "protocol=\"application/pkcs7-signature\"";
    for (const char* other : {"protocol=\"application/x-pkcs7-signature\"", "protocol=application/pkcs7-mime", "x=y"})
        EXPECT_EQ(outcomeOf(replaced(mail, protocol, other)).answer.verdict, Verdict::signatureGood) << other;
}

// Programs that know PKCS#7 1.5 alone, such as `openssl smime`.
TEST(SMimeRead, MessagesOfOlderPrograms) {
    const auto certificate = bob().certificate.x509();
    const int flags = PKCS7_BINARY | PKCS7_CRLFEOL | PKCS7_STREAM;
    const auto written = [&](PKCS7* structure, int more) {
        const norvauthority::Pkcs7Ptr owned(structure);
        const Bio content = sourceOf(plainEntity);
        const Bio out(BIO_new(BIO_s_mem()));
        EXPECT_EQ(SMIME_write_PKCS7(out.get(), structure, content.get(), flags | more), 1);
        ERR_clear_error();
        return mailOf(textOf(out.get()));
    };
    const auto alices = alice().certificate.x509();
    for (const int more : {PKCS7_DETACHED, 0}) {
        const Bio content = sourceOf(plainEntity);
        PKCS7* made = PKCS7_sign(alices.get(), alice().key.get(), nullptr, content.get(), flags | more);
        const Outcome outcome = outcomeOf(written(made, more));
        EXPECT_EQ(outcome.answer.verdict, Verdict::signatureGood) << outcome.answer.detail;
        EXPECT_EQ(outcome.content, plainEntity);
    }
    const std::unique_ptr<STACK_OF(X509), Freeing> certificates(sk_X509_new_null());
    sk_X509_push(certificates.get(), certificate.get());
    const Bio content = sourceOf(plainEntity);
    PKCS7* made = PKCS7_encrypt(certificates.get(), content.get(), EVP_aes_128_cbc(), flags);
    const Outcome outcome = outcomeOf(written(made, 0));
    EXPECT_EQ(outcome.answer.verdict, Verdict::decrypted) << outcome.answer.detail;
    EXPECT_EQ(outcome.content, plainEntity);
}

/// A detached signature in which alice signs one form of a text, and bob the other.
std::string signedInTwoForms(const std::string& byAlice, const std::string& byBob) {
    const auto made = [](const Identity& signer, const std::string& text) {
        const Bio content = sourceOf(text);
        return norvauthority::Pkcs7Ptr(PKCS7_sign(signer.certificate.x509().get(), signer.key.get(), nullptr,
                                                  content.get(), PKCS7_BINARY | PKCS7_DETACHED));
    };
    const norvauthority::Pkcs7Ptr both = made(alice(), byAlice);
    const norvauthority::Pkcs7Ptr other = made(bob(), byBob);
    PKCS7_add_certificate(both.get(), bob().certificate.x509().get());
    sk_PKCS7_SIGNER_INFO_push(both->d.sign->signer_info, sk_PKCS7_SIGNER_INFO_pop(other->d.sign->signer_info));
    const Bio out(BIO_new(BIO_s_mem()));
    EXPECT_EQ(i2d_PKCS7_bio(out.get(), both.get()), 1);
    ERR_clear_error();
    return textOf(out.get());
}

// Where a signature fits no other form is tried, and that of another signer is wrong. Which form comes first depends on whether
// there are CRLFs.
TEST(SMimeRead, TheFirstFormThatASignatureFitsIsTheOne) {
    for (const std::string text :
         {"Content-Type: text/plain\n\none\ntwo\n", "Content-Type: text/plain\r\n\r\none\ntwo\r\n"}) {
        const bool hasCrLf = text.find('\r') != std::string::npos;
        std::string canonical;
        for (const char octet : withLf(text))
            canonical += octet == '\n' ? "\r\n" : std::string(1, octet);
        for (const bool isAliceCanonical : {false, true}) {
            const std::string signature =
                isAliceCanonical ? signedInTwoForms(canonical, text) : signedInTwoForms(text, canonical);
            const Outcome outcome =
                outcomeOf(fieldsOfAlice + "Content-Type: multipart/signed; boundary=s\r\n\r\n--s\r\n" + text +
                          "\r\n--s\r\nContent-Type: application/pkcs7-signature\r\n"
                          "Content-Transfer-Encoding: binary\r\n\r\n" +
                          signature + "\r\n--s--\r\n");
            EXPECT_EQ(outcome.answer.verdict, Verdict::refused);
            const SMime::Layer& layer = outcome.answer.layers.at(0);
            EXPECT_EQ(layer.form, hasCrLf ? SMime::SignedForm::asTheyStand : SMime::SignedForm::canonical);
            ASSERT_EQ(layer.signers.size(), 2U);
            const bool isAliceRight = hasCrLf != isAliceCanonical;
            EXPECT_EQ(layer.signers[isAliceRight ? 0 : 1].result.verdict, CMS::SignatureVerdict::good);
            EXPECT_EQ(layer.signers[isAliceRight ? 1 : 0].result.verdict, CMS::SignatureVerdict::refused);
        }
    }
}

// Another Content-Type beside the one that was judged: some show the one, some the other.
TEST(SMimeRead, AnAmbiguousMessageIsNotGood) {
    const std::string mail = signedBy(alice(), plainEntity, detached);
    const Outcome twice = outcomeOf(mailOf(replaced(mail, "\r\n\r\n", "\r\nContent-Type: text/html\r\n\r\n")));
    EXPECT_EQ(twice.answer.verdict, Verdict::damaged);
    EXPECT_THAT(twice.answer.detail, HasSubstr("Content-Type stands there twice"));
    // Within the signed part its sender chose it.
    const std::string inside = "Content-Type: text/html\r\n" + plainEntity;
    const Outcome covered = outcomeOf(mailOf(signedBy(alice(), inside, detached)));
    EXPECT_EQ(covered.answer.verdict, Verdict::signatureGood);
    EXPECT_EQ(covered.answer.oddities.size(), 1U);
}

// Readers that end lines at a CR, leave NUL bytes out, or end the header at a line that is no field, see another message,
// whatever is signed.
TEST(SMimeRead, LinesThatOthersSeeMakeAMessageAmbiguous) {
    const std::string mail = signedBy(alice(), plainEntity, detached);
    const std::string boundary = boundaryOf(mail);
    const std::string preamble = "This is an S/MIME signed message";
    const std::string part = boundary + "\rContent-Type: text/plain\r\rtext\r";
    for (const std::string& header :
         {std::string("X: y\rContent-Type: text/html\r\n"), std::string("X: y\r\rtext\r\n"),
          std::string("X: y\r\n\rtext\r\n"), "Content-" + std::string(1, '\0') + "Type: text/html\r\n",
          "X: y\r\n" + std::string(1, '\0') + "\r\n", std::string("X: y\rcontent-type : text/html\r\n"),
          std::string("Please pay.\r\n"), std::string(": y\r\n"), std::string("X: y\r\nFrom mallory\r\n")}) {
        const Outcome outcome = outcomeOf(mailOf(header + mail));
        EXPECT_EQ(outcome.answer.verdict, Verdict::damaged) << header;
        EXPECT_THAT(outcome.answer.detail, HasSubstr("a line that others may take for"));
        EXPECT_THAT(outcome.answer.oddities, testing::Contains(HasSubstr("a line that others may take for"))) << header;
        EXPECT_EQ(outcomeOf(mailOf(replaced(mail, "Content-Type: application", header + "Content-Type: application")))
                      .answer.verdict,
                  Verdict::damaged)
            << "of the signature: " << header;
    }
    for (const std::string& changed :
         {replaced(mail, preamble, "x\r" + part), replaced(mail, preamble, std::string(9000, 'x') + '\r' + part),
          replaced(mail, preamble, std::string(4090 - boundary.size(), 'x') + '\r' + boundary + "\r"),
          replaced(mail, boundary + "--", "\r" + part + "\r\n" + boundary + "--")}) {
        const Outcome outcome = outcomeOf(mailOf(changed));
        EXPECT_EQ(outcome.answer.verdict, Verdict::damaged) << outcome.answer.detail;
        EXPECT_THAT(outcome.answer.detail, AnyOf(HasSubstr("begin with the boundary"), HasSubstr("begin behind a CR"),
                                                 HasSubstr("stands once more")));
    }
    EXPECT_EQ(outcomeOf(" Please: pay.\r\n" + mailOf(mail)).answer.verdict, Verdict::damaged);
    EXPECT_EQ(outcomeOf("From anna Mon Nov 23 12:00:00 2026\r\n" + mailOf(mail)).answer.verdict, Verdict::signatureGood)
        << "as in a mailbox file";
    // What is signed is its sender's, and a CR alone says nothing.
    const std::string odd = "X: y\rContent-Type: text/html\r\n" + plainEntity + "x\r--b\rz\r\n";
    EXPECT_EQ(outcomeOf(mailOf(signedBy(alice(), odd, detached))).answer.verdict, Verdict::signatureGood);
    EXPECT_EQ(outcomeOf(mailOf("X: y\rz\r\n" + replaced(mail, preamble, "x\r--y\rz"))).answer.verdict,
              Verdict::signatureGood);
}

// RFC 2045, 6.4: a multipart has no transfer encoding, and is read as it stands when it says to have one.
TEST(SMimeRead, AMultipartThatSaysToBeEncodedIsOdd) {
    const std::string mixed = "Content-Type: multipart/mixed; boundary=in\r\nContent-Transfer-Encoding: "
                              "quoted-printable\r\n\r\n--in\r\n\r\none=\r\n--in--\r\n";
    const std::string mail = signedBy(alice(), mixed, detached);
    for (const std::string word : {"base64", "quoted-printable", "x-unheard-of"}) {
        const Outcome outcome = outcomeOf(fieldsOfAlice + "Content-Transfer-Encoding: " + word + "\r\n" + mail, {});
        EXPECT_EQ(outcome.answer.verdict, word == "base64" ? Verdict::damaged : Verdict::signatureGood)
            << outcome.answer.detail;
        EXPECT_EQ(outcome.content, mixed);
        const std::string told = word == "x-unheard-of" ? "of another name" : word;
        EXPECT_THAT(outcome.answer.oddities,
                    UnorderedElementsAre(HasSubstr(" 1: a multipart with the transfer encoding " + told),
                                         HasSubstr(" 1.1: a multipart with the transfer encoding quoted-printable")));
    }
    EXPECT_THAT(
        outcomeOf(fieldsOfAlice + "Content-Transfer-Encoding: 8BIT\r\n" + signedBy(alice(), plainEntity, detached), {})
            .answer.oddities,
        IsEmpty());
}

// Who takes it off finds parts where none stand.
TEST(SMimeRead, AMultipartOfWhichAnEncodingHidesPartsIsAmbiguous) {
    const std::string mail =
        "Content-Transfer-Encoding: quoted-printable\r\n" + signedBy(alice(), plainEntity, detached);
    const std::string name = boundaryOf(mail).substr(2);
    const std::string evil = "\r\n\r\nevil\r\n";
    const std::string preamble = "This is an S/MIME signed message";
    for (const std::string& start :
         {"=2D-" + name, "-=2d" + name, "-=\r\n-" + name, "--" + name.substr(0, 3) + "=\r\n" + name.substr(3),
          "x=0A--" + name, "x=0d=0a--" + name, "x=0a--" + name, "x=0D--" + name}) {
        EXPECT_EQ(outcomeOf(mailOf(replaced(mail, preamble, start + evil))).answer.verdict, Verdict::damaged) << start;
        EXPECT_EQ(outcomeOf(mailOf(mail + start + evil)).answer.verdict, Verdict::damaged) << start;
    }
    EXPECT_EQ(outcomeOf(mailOf(mail + "=41-B\r\n")).answer.verdict, Verdict::signatureGood);
}

// RFC 2046, 5.1.1: what stands behind the last boundary is to be ignored. Who reads on there sees more.
TEST(SMimeRead, PartsBehindTheLastBoundaryAreAmbiguous) {
    const std::string mail = signedBy(alice(), plainEntity, detached);
    const std::string boundary = boundaryOf(mail);
    const std::string listed = "Content-Type: multipart/mixed; boundary=list\r\n\r\n--list\r\n" + mail + "\r\n--list--";
    const std::string evil = "\r\n\r\nevil\r\n";
    for (const auto& [whole, end] : {std::pair(mail, boundary), std::pair(listed, std::string("--list"))}) {
        for (const std::string& more :
             {"\r\n" + end + evil, "\r\nx\r\n" + end + " " + evil, "\r\n" + end + "--\r\n" + end + evil,
              "\r\n" + end + "x" + evil, "\r\nx\r" + end + evil}) {
            const Outcome outcome = outcomeOf(mailOf(whole + more));
            EXPECT_EQ(outcome.answer.verdict, Verdict::damaged) << more;
            EXPECT_THAT(outcome.answer.detail, HasSubstr("others may see")) << more;
        }
        for (const std::string& more :
             {std::string("\r\nx\r\n--y\r\nx"), "\r\n" + end + "--\r\n", "\r\nx" + end + "\r\n"})
            EXPECT_EQ(outcomeOf(mailOf(whole + more)).answer.verdict, Verdict::signatureGood) << more;
    }
    // Signed by the one who signed all of it.
    EXPECT_EQ(outcomeOf(mailOf(signedBy(alice(), listed + "\r\n--list" + evil, detached))).answer.verdict,
              Verdict::signatureGood);
}

// RFC 2046, 5.1.1: readers may compare the beginning of a line alone. What is signed is its sender's.
TEST(SMimeRead, LinesInTheSignatureThatBeginWithTheBoundaryAreAmbiguous) {
    const std::string mail = signedBy(alice(), plainEntity, detached);
    const std::string boundary = boundaryOf(mail);
    const std::string changed = replaced(mail, boundary + "--", boundary + "x\r\n\r\nevil\r\n" + boundary + "--");
    const Outcome outcome = outcomeOf(mailOf(changed));
    EXPECT_EQ(outcome.answer.verdict, Verdict::damaged);
    EXPECT_THAT(outcome.answer.detail, HasSubstr("begin with the boundary"));
    std::string nested = signedBy(
        alice(), "Content-Type: multipart/mixed; boundary=inner\r\n\r\n--inner\r\n\r\nx\r\n--inner--\r\n", detached);
    const std::string name = boundaryOf(nested).substr(2);
    for (int place = 0; place != 4; ++place)
        nested = replaced(nested, name, "in");
    EXPECT_EQ(outcomeOf(mailOf(nested)).answer.verdict, Verdict::signatureGood);
}

// The boundary of one reader is not that of another one, who finds his own parts in front of, behind and within the signature.
TEST(SMimeRead, OtherPartsForThoseWhoReadTheBoundaryInAnotherWayAreAmbiguous) {
    const std::string mail = signedBy(alice(), plainEntity, detached);
    const std::string name = boundaryOf(mail).substr(2);
    const std::string quoted = "boundary=\"" + name + "\"";
    const std::string front = name.substr(0, 4);
    const std::string back = name.substr(4);
    const std::string preamble = "This is an S/MIME signed message";
    for (const std::string& form :
         {"boundary*=us-ascii''" + name, "boundary*0=" + front + ";\r\n boundary*1=\"" + back + "\"",
          "boundary*0=" + front + "; boundary*2=" + back, "boundary=\"" + front + "\\" + back + "\""}) {
        const std::string other = replaced(mail, quoted, form);
        EXPECT_EQ(outcomeOf(mailOf(other)).answer.verdict, Verdict::signatureGood) << form;
        const std::string evil = "--" + front + "\r\n\r\nevil\r\n";
        for (const std::string& changed :
             {replaced(other, preamble, evil), other + "\r\n" + evil, other + "\r\nx\r" + evil,
              replaced(other, "--" + name + "--", "\r\n" + evil + "--" + name + "--")}) {
            const Outcome outcome = outcomeOf(mailOf(changed));
            EXPECT_EQ(outcome.answer.verdict, Verdict::damaged) << form;
            EXPECT_THAT(outcome.answer.detail, HasSubstr("read its header in another way"));
        }
    }
    EXPECT_EQ(outcomeOf(mailOf(replaced(mail, preamble, "--x\r\n\r\nseen by nobody\r\n"))).answer.verdict,
              Verdict::signatureGood);
}

// Whatever lies around what is signed is anybody's.
TEST(SMimeRead, OtherPartsInAMultipartAroundTheSignatureAreAmbiguous) {
    const std::string mail = signedBy(alice(), plainEntity, detached);
    const auto around = [&](const std::string& fields, const std::string& preamble) {
        return outcomeOf(mailOf("Content-Type: multipart/mixed; " + fields + "\r\n\r\n" + preamble + "\r\n--out\r\n" +
                                mail + "\r\n--out--\r\n"));
    };
    EXPECT_EQ(around("boundary=out", "--x\r\n\r\nseen by nobody").answer.verdict, Verdict::signatureGood);
    const std::string inFront = "lines in front of the first part begin with the boundary";
    const std::string otherHeader = "read its header in another way";
    const std::string encoded = "boundary=out\r\nContent-Transfer-Encoding: quoted-printable";
    for (const auto& [fields, preamble, why] : std::vector<std::tuple<std::string, std::string, std::string>>{
             {"boundary=out", "--outx\r\n\r\nevil", inFront},
             {"boundary=out", "x\r--out\r\revil", inFront},
             {"boundary*=us-ascii''out", "x\r\n--x\r\n\r\nevil", otherHeader},
             {"boundary*=us-ascii''out", "x\r-", otherHeader},
             {encoded, "=2Dx", otherHeader},
             {encoded, "x=0a", otherHeader}}) {
        const Outcome outcome = around(fields, preamble);
        EXPECT_EQ(outcome.answer.verdict, Verdict::damaged) << fields << preamble;
        EXPECT_THAT(outcome.answer.detail, HasSubstr(why)) << fields << preamble;
    }
}

TEST(SMimeRead, SignedInAnotherWayIsNotDamaged) {
    const Outcome outcome = outcomeOf("Content-Type: multipart/signed; boundary=b\r\n\r\n--b\r\n\r\nx\r\n--b\r\n"
                                      "Content-Type: application/pgp-signature\r\n\r\ny\r\n--b--\r\n");
    EXPECT_EQ(outcome.answer.verdict, Verdict::unsupported);
    EXPECT_THAT(outcome.answer.detail, HasSubstr("application/pgp-signature"));
}

// A list adds its footer: what was signed is judged, and what was not is named and left out.
TEST(SMimeRead, AMailingListsFooterIsNotCovered) {
    const std::string mail = fieldsOfAlice + "Content-Type: multipart/mixed; boundary=list\r\n\r\n--list\r\n" +
                             signedBy(alice(), plainEntity, detached) +
                             "\r\n--list\r\nContent-Type: text/html\r\n\r\nfooter\r\n--list--\r\n";
    const Outcome outcome = outcomeOf(mail);
    EXPECT_EQ(outcome.answer.verdict, Verdict::signatureGood) << outcome.answer.detail;
    EXPECT_EQ(outcome.content, plainEntity);
    EXPECT_THAT(layersOf(outcome.answer), ElementsAre("multipart-signed 1.1 good"));
    ASSERT_THAT(pathsOf(outcome.answer.notCovered), ElementsAre("1.2"));
    EXPECT_EQ(outcome.answer.notCovered[0].type, "text/html");
}

// One content is handed on: what another one signed is shown beside it, and its layer does not count.
TEST(SMimeRead, ASecondSignedPartIsNotCovered) {
    const std::string mail = fieldsOfAlice + "Content-Type: multipart/mixed; boundary=list\r\n\r\n--list\r\n" +
                             signedBy(alice(), plainEntity, detached) + "\r\n--list\r\n" +
                             signedBy(bob(), plainEntity, detached) + "\r\n--list--\r\n";
    const Outcome outcome = outcomeOf(mail);
    EXPECT_EQ(outcome.answer.verdict, Verdict::signatureGood) << outcome.answer.detail;
    EXPECT_THAT(layersOf(outcome.answer), ElementsAre("multipart-signed 1.1 good", "multipart-signed 1.2 good"));
    ASSERT_THAT(pathsOf(outcome.answer.notCovered), ElementsAre("1.2"));
    EXPECT_EQ(outcome.answer.notCovered[0].type, "multipart/signed");
}

// What was decrypted never stands beside what a stranger wrote.
// RFC 2046, 5.1.1: a reader may compare the start of a line alone.
TEST(SMimeRead, LinesThatLookLikeABoundaryInFrontOfTheFirstPartAreAmbiguous) {
    const std::string evil = "--listEVIL\r\nContent-Type: text/plain\r\n\r\nevil\r\n";
    const std::string start = fieldsOfAlice + "Content-Type: multipart/mixed; boundary=list\r\n\r\n";
    const std::string end = "--list\r\n" + signedBy(alice(), plainEntity, detached) + "\r\n--list--\r\n";
    EXPECT_EQ(outcomeOf(start + end).answer.verdict, Verdict::signatureGood);
    EXPECT_EQ(outcomeOf(start + evil + end).answer.verdict, Verdict::damaged);
    const std::string mail = mailOf(signedBy(alice(), plainEntity, detached));
    const std::size_t from = mail.find("boundary=\"") + 10;
    const std::string boundary = mail.substr(from, mail.find('"', from) - from);
    const std::string before = "\r\n--" + boundary + "EVIL\r\n\r\nevil\r\n--" + boundary + "\r\n";
    EXPECT_EQ(outcomeOf(replaced(mail, "\r\n--" + boundary + "\r\n", before)).answer.verdict, Verdict::damaged);
}

TEST(SMimeRead, AThirdPartOfAMultipartSignedIsNotCovered) {
    const std::string entity = signedBy(alice(), plainEntity, detached);
    const std::size_t at = entity.find("boundary=\"") + 10;
    const std::string boundary = entity.substr(at, entity.find('"', at) - at);
    const std::string mail =
        mailOf(replaced(entity, "--" + boundary + "--", "--" + boundary + "\r\n\r\nmore\r\n--" + boundary + "--"));
    const Outcome outcome = outcomeOf(mail);
    EXPECT_EQ(outcome.answer.verdict, Verdict::signatureGood);
    EXPECT_THAT(pathsOf(outcome.answer.notCovered), ElementsAre("1.3"));
    // Anybody can encrypt what he made of another one's mail: whoever opens it is shown the third part.
    const Outcome encrypted = outcomeOf(fieldsOfAlice + encryptedFor({&bob()}, mail));
    EXPECT_EQ(encrypted.answer.verdict, Verdict::signatureGood);
    EXPECT_EQ(encrypted.content, plainEntity);
    EXPECT_THAT(pathsOf(encrypted.answer.notCovered), ElementsAre("1.1.3"));
    const Outcome twice = outcomeOf(fieldsOfAlice + encryptedFor({&bob()}, encryptedFor({&bob()}, mail)));
    EXPECT_THAT(pathsOf(twice.answer.notCovered), ElementsAre("1.1.1.3"));
    // What is signed around it is signed.
    const Outcome again = outcomeOf(mailOf(signedBy(alice(), mail, CMS_BINARY)));
    EXPECT_EQ(again.answer.verdict, Verdict::signatureGood);
    EXPECT_THAT(again.answer.notCovered, testing::IsEmpty());
}

TEST(SMimeRead, AnAmbiguousMessageIsNotGoodWithinAnEncryptedOne) {
    const std::string mail = signedBy(alice(), plainEntity, detached);
    const std::string changed = replaced(mail, "\r\n\r\n", "\r\nContent-Type: text/html\r\n\r\n");
    const Outcome outcome = outcomeOf(fieldsOfAlice + encryptedFor({&bob()}, changed));
    EXPECT_EQ(outcome.answer.verdict, Verdict::damaged);
    EXPECT_THAT(outcome.answer.detail, HasSubstr(" 1.1: Content-Type stands there twice"));
    EXPECT_EQ(outcomeOf(fieldsOfAlice + encryptedFor({&bob()}, mail)).answer.verdict, Verdict::signatureGood);
    // Nobody signed it: all of it is from the one who encrypted it.
    EXPECT_EQ(
        outcomeOf(fieldsOfAlice + encryptedFor({&bob()}, "Content-Type: text/html\r\n" + plainEntity)).answer.verdict,
        Verdict::decrypted);
}

} // namespace
