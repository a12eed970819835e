// How parts and fields are written.
#include "Mails.h"

using namespace smimetest;
using interop::alice;
using interop::bob;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

namespace {

constexpr unsigned int wire = CMS_BINARY | CMS_CRLFEOL;
constexpr unsigned int detached = wire | CMS_DETACHED;

std::string mailOf(const std::string& entity) {
    return fieldsOfAlice + entity;
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
          {"7bit", "\n" + base64},
          {"7bit", "\n\r\n" + base64},
          {"7bit", std::string(1001, '\n') + base64},
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

} // namespace
