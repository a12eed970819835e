#include "Mails.h"

#include <array>
#include <thread>

using namespace smimetest;
using interop::alice;
using interop::bob;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;
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

// RFC 2045, 6.4: a multipart has no transfer encoding, and is read as it stands when it says to have one.
TEST(SMimeRead, AMultipartThatSaysToBeEncodedIsOdd) {
    const std::string mixed = "Content-Type: multipart/mixed; boundary=in\r\nContent-Transfer-Encoding: "
                              "quoted-printable\r\n\r\n--in\r\n\r\none=\r\n--in--\r\n";
    const std::string mail = signedBy(alice(), mixed, detached);
    for (const std::string word : {"base64", "quoted-printable", "x-unheard-of"}) {
        const Outcome outcome = outcomeOf(fieldsOfAlice + "Content-Transfer-Encoding: " + word + "\r\n" + mail, {});
        EXPECT_EQ(outcome.answer.verdict, Verdict::signatureGood) << outcome.answer.detail;
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

TEST(SMimeRead, ListsThePartsThatHoldNoOthers) {
    const std::string mixed = "Content-Type: multipart/mixed; boundary=in\r\n\r\n--in\r\n\r\none\r\n--in\r\n"
                              "Content-Type: application/pdf; name*=utf-8''caf%C3%A9.pdf\r\n"
                              "Content-Transfer-Encoding: BASE64\r\n\r\nMTIzN\r\nDU2Nzg5\r\n--in\r\n"
                              "Content-Type: message/rfc822\r\n\r\nFrom: x@y.z\r\nContent-Type: text/html\r\n"
                              "Content-Transfer-Encoding: quoted-printable\r\n\r\n=3Cb=3E\r\n--in--\r\n";
    const Keys keys({&bob()});
    SMime::ReadOptions options;
    options.keys = &keys;
    options.listParts = true;
    const std::string mail =
        fieldsOfAlice + "Content-Type: multipart/mixed; boundary=out\r\n\r\n--out\r\n" +
        encryptedFor({&bob()}, signedBy(alice(), mixed, detached)) +
        "\r\n--out\r\nContent-Disposition: attachment; filename=foot.txt\r\n\r\nfooter\r\n--out--\r\n";
    const Outcome outcome = outcomeOf(mail, options);
    EXPECT_EQ(outcome.content, mixed);
    const std::vector<std::string> leaves = leavesOf(outcome.answer);
    ASSERT_EQ(leaves.size(), 6U);
    EXPECT_THAT(leaves[0], StartsWith("1.1 application/pkcs7-mime \"smime.p7m\" base64 "));
    EXPECT_EQ(leaves[1], "1.1.1.1.1 text/plain \"\" 7bit 3");
    EXPECT_EQ(leaves[2], "1.1.1.1.2 application/pdf \"caf\u00e9.pdf\" base64 9");
    EXPECT_EQ(leaves[3], "1.1.1.1.3.1 text/html \"\" quoted-printable 3");
    EXPECT_THAT(leaves[4], StartsWith("1.1.1.2 application/pkcs7-signature \"smime.p7s\" base64 "));
    EXPECT_EQ(leaves[5], "1.2 text/plain \"foot.txt\" 7bit 6");
    // The size of a structure is that of its DER, whether it is opened or not.
    EXPECT_EQ(leavesOf(outcomeOf(mail,
                                 [] {
                                     SMime::ReadOptions closed;
                                     closed.listParts = true;
                                     return closed;
                                 }())
                           .answer),
              (std::vector{leaves[0], leaves[5]}));
    const std::string base64 = mail.substr(mail.find("\r\n\r\n", mail.find("pkcs7-mime")) + 4);
    const std::size_t length = base64.find("\r\n\r\n--out");
    std::size_t letters = 0;
    std::size_t padding = 0;
    for (const char letter : base64.substr(0, length)) {
        letters += letter != '\r' && letter != '\n' ? 1 : 0;
        padding += letter == '=' ? 1 : 0;
    }
    EXPECT_THAT(leaves[0], testing::EndsWith(" " + std::to_string(letters / 4 * 3 - padding)));
    EXPECT_THAT(outcomeOf(mail).answer.parts, IsEmpty());
}

TEST(SMimeRead, ListsNoMorePartsThanTheBudgetAllows) {
    SMime::ReadOptions options;
    options.listParts = true;
    options.budget.parts = 20;
    std::string mixed = "Content-Type: multipart/mixed; boundary=in\r\n\r\n";
    for (int number = 0; number < 30; ++number)
        mixed += "--in\r\n\r\nx\r\n";
    const Outcome many = outcomeOf(fieldsOfAlice + mixed + "--in--\r\n", options);
    EXPECT_EQ(many.answer.parts.size(), 20U);
    EXPECT_THAT(many.answer.oddities, Contains(HasSubstr("more than 20 parts")));
    // A mail that is no multipart is one.
    EXPECT_THAT(leavesOf(outcomeOf(fieldsOfAlice + "\r\nhello\r\n", options).answer),
                ElementsAre("1 text/plain \"\" 7bit 7"));
}

TEST(SMimeRead, SignedInAnotherWayIsNotDamaged) {
    const Outcome outcome = outcomeOf("Content-Type: multipart/signed; boundary=b\r\n\r\n--b\r\n\r\nx\r\n--b\r\n"
                                      "Content-Type: application/pgp-signature\r\n\r\ny\r\n--b--\r\n");
    EXPECT_EQ(outcome.answer.verdict, Verdict::unsupported);
    EXPECT_THAT(outcome.answer.detail, HasSubstr("application/pgp-signature"));
}

TEST(SMimeRead, OpaqueSignature) {
    const Outcome outcome = outcomeOf(mailOf(signedBy(alice(), plainEntity, wire)));
    EXPECT_EQ(outcome.answer.verdict, Verdict::signatureGood) << outcome.answer.detail;
    EXPECT_EQ(outcome.content, plainEntity);
    EXPECT_THAT(layersOf(outcome.answer), ElementsAre("opaque-signed 1 good"));
}

TEST(SMimeRead, EncryptedWithAndWithoutAKey) {
    const std::string mail = mailOf(encryptedFor({&alice(), &bob()}, plainEntity));
    const Outcome outcome = outcomeOf(mail);
    EXPECT_EQ(outcome.answer.verdict, Verdict::decrypted) << outcome.answer.detail;
    EXPECT_EQ(outcome.content, plainEntity);
    const SMime::Layer& layer = outcome.answer.layers.front();
    EXPECT_EQ(layer.kind, LayerKind::enveloped);
    EXPECT_FALSE(layer.authenticated);
    EXPECT_THAT(layer.cipher, HasSubstr("AES-256-CBC"));
    ASSERT_EQ(layer.recipients.size(), 2U);
    EXPECT_FALSE(layer.recipients[0].opened);
    EXPECT_TRUE(layer.recipients[1].opened);

    const Outcome closed = outcomeOf(mail, {});
    EXPECT_EQ(closed.answer.verdict, Verdict::noKey);
    EXPECT_EQ(closed.content, "");
}

TEST(SMimeRead, AuthenticatedEncryption) {
    const std::string mail = mailOf(encryptedFor({&bob()}, plainEntity, EVP_aes_256_gcm()));
    const Outcome outcome = outcomeOf(mail);
    EXPECT_EQ(outcome.answer.verdict, Verdict::decrypted) << outcome.answer.detail;
    EXPECT_EQ(outcome.content, plainEntity);
    EXPECT_THAT(layersOf(outcome.answer), ElementsAre("auth-enveloped 1 good"));
    EXPECT_TRUE(outcome.answer.layers.front().authenticated);
}

TEST(SMimeRead, TripleWrapped) {
    const std::string inner = signedBy(alice(), plainEntity, detached);
    const std::string mail = mailOf(signedBy(bob(), encryptedFor({&bob()}, inner), wire));
    const Outcome outcome = outcomeOf(mail);
    EXPECT_EQ(outcome.answer.verdict, Verdict::signatureGood) << outcome.answer.detail;
    EXPECT_THAT(layersOf(outcome.answer),
                ElementsAre("opaque-signed 1 good", "enveloped 1.1 good", "multipart-signed 1.1.1 good"));
    EXPECT_EQ(outcome.content, plainEntity);
    EXPECT_EQ(outcome.answer.contentPath, "1.1.1.1");
}

TEST(SMimeRead, CertificatesAlone) {
    const Structure structure(CMS_sign(nullptr, nullptr, nullptr, nullptr, CMS_PARTIAL | CMS_DETACHED | CMS_BINARY));
    CMS_add1_cert(structure.get(), alice().certificate.x509().get());
    CMS_add1_cert(structure.get(), bob().certificate.x509().get());
    const Bio out(BIO_new(BIO_s_mem()));
    const Bio empty = sourceOf("");
    CMS_final(structure.get(), empty.get(), nullptr, CMS_DETACHED);
    ERR_clear_error();
    ASSERT_EQ(i2d_CMS_bio(out.get(), structure.get()), 1);
    const std::string mail = fieldsOfAlice +
                             "Content-Type: application/pkcs7-mime; smime-type=certs-only; name=smime.p7c\r\n"
                             "Content-Transfer-Encoding: binary\r\n\r\n" +
                             textOf(out.get());
    const Outcome outcome = outcomeOf(mail);
    EXPECT_EQ(outcome.answer.verdict, Verdict::certificates) << outcome.answer.detail;
    EXPECT_EQ(outcome.answer.layers.front().certificates.size(), 2U);
    EXPECT_EQ(outcome.content, "");
}

TEST(SMimeRead, TypesAsRealSendersWriteThem) {
    const std::string entity = encryptedFor({&bob()}, plainEntity);
    const std::string header = entity.substr(0, entity.find("\r\n\r\n"));
    const std::string body = entity.substr(entity.find("\r\n\r\n") + 4);
    const auto read = [&](const std::string& fields, const std::string& encoded) {
        return outcomeOf(fieldsOfAlice + fields + "\r\n\r\n" + encoded);
    };
    const std::string base64 = "\r\nContent-Transfer-Encoding: base64";
    for (const std::string& fields :
         {"Content-Type: application/x-pkcs7-mime; name=smime.p7m" + base64,
          "Content-Type: application/pkcs7-mime" + base64,
          "Content-Type: application/cms; encapsulatingContent=data" + base64, // RFC 7193
          "Content-Type: Application/PKCS7-MIME; SMIME-Type=signed-data" + base64,
          "Content-Type: application/octet-stream\r\nContent-Disposition: attachment; filename=\"SMIME.P7M\"" + base64,
          "Content-Type: application/octet-stream; name*=utf-8''smime%2Ep7m" + base64,
          std::string("Content-Type: application/pkcs7-mime"),
          std::string("Content-Type: application/pkcs7-mime\r\nContent-Transfer-Encoding: 7bit"),
          std::string("Content-Type: application/pkcs7-mime\r\nContent-Transfer-Encoding: BASE64 (yes)")}) {
        const Outcome outcome = read(fields, body);
        EXPECT_EQ(outcome.answer.verdict, Verdict::decrypted) << fields << '\n' << outcome.answer.detail;
        EXPECT_EQ(outcome.content, plainEntity);
    }
    const std::string type = "Content-Type: application/pkcs7-mime";
    EXPECT_EQ(read(type, "-----BEGIN CMS-----\r\n" + body + "-----END CMS-----\r\n").content, plainEntity);
    EXPECT_EQ(read("Content-Type: application/octet-stream; name=x.bin" + base64, body).answer.verdict,
              Verdict::notSMime);
}

TEST(SMimeRead, StructuresInEveryTransferEncoding) {
    const std::string entity = encryptedFor({&bob()}, plainEntity);
    const std::string base64 = entity.substr(entity.find("\r\n\r\n") + 4);
    std::string der(base64.size(), '\0');
    {
        const Bio decoder(
            BIO_push(BIO_new(BIO_f_base64()), BIO_new_mem_buf(base64.data(), static_cast<int>(base64.size()))));
        const int length = BIO_read(decoder.get(), der.data(), static_cast<int>(der.size()));
        ASSERT_GT(length, 100);
        der.resize(static_cast<std::size_t>(length));
    }
    std::string quoted;
    for (std::size_t at = 0; at < der.size(); ++at) {
        constexpr const char* digits = "0123456789ABCDEF";
        const auto octet = static_cast<unsigned char>(der[at]);
        quoted += at % 20 == 19 ? "=\r\n=" : "=";
        quoted += digits[octet / 16];
        quoted += digits[octet % 16];
    }
    const auto read = [](const std::string& word, const std::string& body) {
        return outcomeOf(fieldsOfAlice + "Content-Type: application/pkcs7-mime\r\nContent-Transfer-Encoding: " + word +
                         "\r\n\r\n" + body);
    };
    for (const auto& [word, body] :
         {std::pair<std::string, std::string>{"binary", der},
          {"8bit", der},
          {"Quoted-Printable", quoted},
          {"base64", base64},
          {"x-unheard-of", base64},
          {"7bit", "\r\n\r\n" + base64},
          {"quoted-printable", base64.substr(0, base64.find('='))},
          {"base64", "\r\n-----BEGIN PKCS7-----\r\n" + base64 + "-----END PKCS7-----\r\n"}}) {
        const Outcome outcome = read(word, body);
        EXPECT_EQ(outcome.answer.verdict, Verdict::decrypted) << word << '\n' << outcome.answer.detail;
        EXPECT_EQ(outcome.content, plainEntity) << word;
    }
}

TEST(SMimeRead, SignaturePartsAsRealSendersWriteThem) {
    const std::string mail = mailOf(signedBy(alice(), plainEntity, detached));
    const std::string type = "Content-Type: application/pkcs7-signature; name=\"smime.p7s\"";
    for (const char* const other :
         {"Content-Type: application/x-pkcs7-signature; name=smime.p7s", "Content-Type: application/pkcs7-signature",
          "Content-Type: Application/X-PKCS7-Signature;\r\n\tsmime-type=\"signed-data\"",
          "Content-Type: application/pkcs7-mime; smime-type=signed-data",
          "Content-Type: application/octet-stream; name=smime.p7s",
          "Content-Type: application/octet-stream; name*0*=utf-8''smime; name*1=\".p7s\""}) {
        const Outcome outcome = outcomeOf(replaced(mail, type, other));
        EXPECT_EQ(outcome.answer.verdict, Verdict::signatureGood) << other << '\n' << outcome.answer.detail;
        EXPECT_EQ(outcome.content, plainEntity);
    }
    const std::size_t signature = mail.find(type);
    const std::string encoding = "Content-Transfer-Encoding: base64\r\n";
    const std::string bare = mail.substr(0, signature) + replaced(mail.substr(signature), encoding, "");
    EXPECT_EQ(outcomeOf(bare).answer.verdict, Verdict::signatureGood) << "without its transfer encoding";
}

// RFC 2231: the whole message hangs on these parameters.
TEST(SMimeRead, ParametersInAllFormsOfRfc2231) {
    const std::string mail = mailOf(signedBy(alice(), plainEntity, detached));
    const std::size_t from = mail.find("boundary=\"") + 10;
    const std::string boundary = mail.substr(from, mail.find('"', from) - from);
    const std::string quoted = "boundary=\"" + boundary + "\"";
    const std::string front = boundary.substr(0, 5);
    const std::string back = boundary.substr(5);
    for (const std::string& form :
         {"boundary*=us-ascii''" + boundary, "boundary*0=" + front + ";\r\n boundary*1=\"" + back + "\"",
          "boundary*1=\"" + back + "\"; boundary*0*=utf-8'en'" + front,
          "BOUNDARY*0*=''" + front + "; boundary*1=" + back})
        EXPECT_EQ(outcomeOf(replaced(mail, quoted, form)).answer.verdict, Verdict::signatureGood) << form;
    const std::string protocol = "protocol=\"application/pkcs7-signature\"";
    for (const char* const form : {"protocol*=us-ascii''application%2Fpkcs7-signature",
                                   "protocol*0=\"application/\"; protocol*1=\"pkcs7-signature\""})
        EXPECT_EQ(outcomeOf(replaced(mail, protocol, form)).answer.verdict, Verdict::signatureGood) << form;
    const std::string entity = encryptedFor({&bob()}, plainEntity);
    const std::string body = entity.substr(entity.find("\r\n\r\n"));
    for (const char* const form :
         {"filename*=utf-8''sm%C3%AFme.p7m", "filename*0*=utf-8''sm%C3%AFme; filename*1=\".p7m\"",
          "filename*0=smime; filename*1=.P7M"})
        EXPECT_EQ(outcomeOf(fieldsOfAlice +
                            "Content-Type: application/octet-stream\r\nContent-Transfer-Encoding: base64\r\n"
                            "Content-Disposition: attachment; " +
                            form + body)
                      .content,
                  plainEntity)
            << form;
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

// Readers show the text of such parts, or part of it.
TEST(SMimeRead, PartsThatCannotBeLookedIntoAreNotCovered) {
    const std::string longHeader = "X: " + std::string(300000, 'x') + "\r\nContent-Type: text/plain\r\n\r\nfoot\r\n";
    const std::string longBoundary(201, 'b');
    for (const std::string& part :
         {std::string("Content-Type: multipart/mixed\r\n\r\nfoot\r\n"),
          "Content-Type: multipart/mixed; boundary=" + longBoundary + "\r\n\r\n--" + longBoundary + "\r\n\r\nfoot\r\n",
          std::string("Content-Type: multipart/mixed; boundary=none\r\n\r\nfoot\r\n"), longHeader}) {
        const Outcome outcome =
            outcomeOf(fieldsOfAlice + "Content-Type: multipart/mixed; boundary=list\r\n\r\n--list\r\n" +
                      signedBy(alice(), plainEntity, detached) + "\r\n--list\r\n" + part + "\r\n--list--\r\n");
        EXPECT_EQ(outcome.answer.verdict, Verdict::signatureGood) << outcome.answer.detail;
        EXPECT_EQ(outcome.content, plainEntity);
        EXPECT_THAT(pathsOf(outcome.answer.notCovered), ElementsAre("1.2")) << part.substr(0, 100);
    }
}

// As deep as is not looked at any more.
TEST(SMimeRead, PartsThatLieTooDeepAreNotCovered) {
    std::string deep = "Content-Type: text/plain\r\n\r\nfoot\r\n";
    for (int level = 0; level < 200; ++level) {
        const std::string name = "d" + std::to_string(level);
        deep = "Content-Type: multipart/mixed; boundary=" + name + "-\r\n\r\n--" + name + "-\r\n" + deep + "\r\n--" +
               name + "---\r\n";
    }
    const Outcome outcome =
        outcomeOf(fieldsOfAlice + "Content-Type: multipart/mixed; boundary=list\r\n\r\n--list\r\n" +
                  signedBy(alice(), plainEntity, detached) + "\r\n--list\r\n" + deep + "\r\n--list--\r\n");
    EXPECT_EQ(outcome.answer.verdict, Verdict::signatureGood) << outcome.answer.detail;
    EXPECT_EQ(outcome.answer.notCovered.size(), 1U);
}

TEST(SMimeRead, DecryptedTextIsHandedOnAlone) {
    const std::string mail = fieldsOfAlice +
                             "Content-Type: multipart/mixed; boundary=x\r\n\r\n"
                             "--x\r\nContent-Type: text/html\r\n\r\n<img src=\"http://example.org/\r\n--x\r\n" +
                             encryptedFor({&bob()}, plainEntity) + "\r\n--x\r\n" +
                             encryptedFor({&bob()}, "\r\nanother\r\n") +
                             "\r\n--x\r\nContent-Type: text/html\r\n\r\n\">\r\n--x--\r\n";
    const Outcome outcome = outcomeOf(mail);
    EXPECT_EQ(outcome.answer.verdict, Verdict::decrypted);
    EXPECT_EQ(outcome.content, plainEntity);
    EXPECT_THAT(pathsOf(outcome.answer.notCovered), ElementsAre("1.1", "1.3", "1.4"));
    EXPECT_THAT(layersOf(outcome.answer), ElementsAre("enveloped 1.2 good", "enveloped 1.3 good"));
    EXPECT_FALSE(outcome.answer.layers[1].coversContent);
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
}

// The signed part holds a message that somebody else had signed and encrypted: looked at in passing.
TEST(SMimeRead, WhatIsForwardedIsJudgedByItself) {
    const std::string forwarded = "From: bob@example.org\r\n" + signedBy(bob(), plainEntity, detached);
    const std::string entity = "Content-Type: multipart/mixed; boundary=f\r\n\r\n--f\r\n\r\nsee below\r\n--f\r\n"
                               "Content-Type: message/rfc822\r\n\r\n" +
                               forwarded + "\r\n--f--\r\n";
    const Outcome outcome = outcomeOf(mailOf(signedBy(alice(), entity, detached)));
    EXPECT_EQ(outcome.answer.verdict, Verdict::signatureGood) << outcome.answer.detail;
    EXPECT_EQ(outcome.content, entity);
    EXPECT_THAT(layersOf(outcome.answer),
                ElementsAre("multipart-signed 1 good", "forwarded 1.1.2 good", "multipart-signed 1.1.2.1 good"));
    EXPECT_TRUE(outcome.answer.layers[0].coversContent);
    EXPECT_FALSE(outcome.answer.layers[2].coversContent);
    EXPECT_TRUE(outcome.answer.notCovered.empty());

    // Forwarded without a signature of its own: nothing of the message itself is signed.
    const Outcome bare = outcomeOf(fieldsOfAlice + entity);
    EXPECT_EQ(bare.answer.verdict, Verdict::notSMime);
    EXPECT_EQ(bare.content, "");
    EXPECT_THAT(layersOf(bare.answer), ElementsAre("forwarded 1.2 good", "multipart-signed 1.2.1 good"));
}

TEST(SMimeRead, NothingOfSMime) {
    for (const std::string& mail :
         {fieldsOfAlice + plainEntity, std::string(), std::string("\r\n"), std::string("no header"),
          fieldsOfAlice + "Content-Type: multipart/signed; protocol=\"application/pgp-signature\"; boundary=b\r\n\r\n"
                          "--b\r\n\r\nx\r\n--b\r\nContent-Type: application/pgp-signature\r\n\r\ny\r\n--b--\r\n"}) {
        const Outcome outcome = outcomeOf(mail);
        EXPECT_EQ(outcome.answer.verdict, Verdict::notSMime) << mail;
        EXPECT_EQ(outcome.content, "");
        EXPECT_TRUE(outcome.answer.layers.empty());
    }
}

TEST(SMimeRead, AWholeMessageKeepsTheFieldsOutside) {
    static const Keys keys({&bob()});
    SMime::ReadOptions options;
    options.keys = &keys;
    options.wholeMessage = true;
    const Outcome outcome = outcomeOf(mailOf(encryptedFor({&bob()}, plainEntity)), options);
    EXPECT_EQ(outcome.content, fieldsOfAlice + "Content-Type: text/plain; charset=utf-8\r\nMIME-Version: 1.0\r\n\r\n"
                                               "Hello Bob,\r\n\r\nyours\r\n");
}

TEST(SMimeRead, SeveralThreadsReadMessagesAtOnce) {
    const std::string entity = "From: =?iso-8859-15?q?=E4?= <alice@example.org>\r\nSubject: =?utf-8?b?w6Q=?=\r\n"
                               "Content-Type: text/plain; hp=clear; name*=iso-8859-1''%E4\r\n\r\nx\r\n";
    const std::string mail = fieldsOfAlice + encryptedFor({&bob()}, signedBy(alice(), entity, detached));
    static_cast<void>(outcomeOf(mail)); // what is made once
    std::array<bool, 4> isRead{};
    std::vector<std::thread> threads;
    for (bool& done : isRead)
        threads.emplace_back([&mail, &entity, &done] {
            bool all = true;
            for (int round = 0; round < 5; ++round)
                all = outcomeOf(mail).content == entity && all;
            done = all;
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_THAT(isRead, testing::Each(true));
}

TEST(SMimeRead, LargePartsGoToAFileWithoutAName) {
    interop::Workspace workspace;
    const std::string entity = "\r\n" + std::string(300000, 'x') + "\r\n";
    SMime::ReadOptions options;
    options.spillTemplate = workspace.path("spillXXXXXX");
    const Outcome outcome = outcomeOf(mailOf(signedBy(alice(), entity, detached)), options);
    EXPECT_EQ(outcome.answer.verdict, Verdict::signatureGood);
    EXPECT_EQ(outcome.content, entity);
    EXPECT_THAT(workspace.names(), ElementsAre());
    options.budget.spill = 200000;
    EXPECT_EQ(outcomeOf(mailOf(signedBy(alice(), entity, detached)), options).answer.verdict, Verdict::tooCostly);
}

} // namespace
