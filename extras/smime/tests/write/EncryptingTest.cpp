// Encrypted mails, and several shells, read by OpenSSL's own reader of S/MIME.

#include "Generated.h"
#include "Writing.h"

#include "support/X509Testing.h"

namespace {

using namespace smimetest;
using testing::HasSubstr;
using testing::StartsWith;

const std::string mail = "From: alice@example.com\nTo: bob@example.com\nSubject: Lunch\n"
                         "Content-Type: text/plain; charset=utf-8\n\nAt noon, Gr\xc3\xbc\xc3\x9f"
                         "e\n";
const std::string entity =
    "Content-Type: text/plain; charset=utf-8\r\nContent-Transfer-Encoding: quoted-printable\r\n\r\n"
    "At noon, Gr=C3=BC=C3=9F"
    "e\r\n";

TEST(SmimeEncryptingTest, EncryptsForAllRecipients) {
    const std::string sent = wrapped(mail, {encryptedFor({&person("bob"), &person("carol"), &person("bob")})});
    EXPECT_THAT(sent,
                StartsWith("From: alice@example.com\r\nTo: bob@example.com\r\nSubject: Lunch\r\nMIME-Version: 1.0\r\n"
                           "Content-Type: application/pkcs7-mime; smime-type=enveloped-data;\r\n"
                           " name=\"smime.p7m\"\r\nContent-Transfer-Encoding: base64\r\n"
                           "Content-Disposition: attachment; filename=\"smime.p7m\"\r\n\r\n"));
    expectLines(sent, "\r\n", 78);
    EXPECT_EQ(decrypted(sent, person("bob")), entity);
    EXPECT_EQ(decrypted(sent, person("carol")), entity);
    const BioPtr in = sourceOver(sent);
    const CmsPtr structure(SMIME_read_CMS(in.get(), nullptr));
    EXPECT_EQ(sk_CMS_RecipientInfo_num(CMS_get0_RecipientInfos(structure.get())), 2);
}

TEST(SmimeEncryptingTest, NamesAuthenticatedMessagesAsTheyAre) {
    for (const auto cipher :
         {CMS::ContentCipher::aes128Gcm, CMS::ContentCipher::aes192Gcm, CMS::ContentCipher::aes256Gcm}) {
        SMime::EncryptOptions options = encryptedFor({&person("bob")});
        options.cipher = cipher;
        const std::string sent = wrapped(mail, {options});
        EXPECT_THAT(sent, HasSubstr("smime-type=authEnveloped-data;"));
        EXPECT_EQ(decrypted(sent, person("bob")), entity);
    }
    for (const auto cipher : {CMS::ContentCipher::aes128Cbc, CMS::ContentCipher::tripleDesCbc}) {
        SMime::EncryptOptions options = encryptedFor({&person("bob")});
        options.cipher = cipher;
        EXPECT_EQ(decrypted(wrapped(mail, {options}), person("bob")), entity);
    }
}

TEST(SmimeEncryptingTest, TakesRecipientsAsTheCallerMadeThem) {
    SMime::EncryptOptions options;
    options.recipients = {CMS::EnvelopeRecipient::rsaOaep(certificateOf(person("bob")))};
    EXPECT_EQ(decrypted(wrapped(mail, {options}), person("bob")), entity);
    const Identity& curve = person("agrees", {.key = norvauthority::Key::ec(), .keyUsage = 0x08});
    EXPECT_EQ(decrypted(wrapped(mail, {encryptedFor({&curve})}), curve), entity);
}

/// The object identifiers of the key encryption algorithms of a mail's recipients, key agreements left out.
std::vector<std::string> keyTransportsOf(const std::string& sent) {
    const BioPtr in = sourceOver(sent);
    const CmsPtr structure(SMIME_read_CMS(in.get(), nullptr));
    std::vector<std::string> names;
    const auto* const recipients = CMS_get0_RecipientInfos(structure.get());
    for (int index = 0; index < sk_CMS_RecipientInfo_num(recipients); ++index) {
        CMS_RecipientInfo* const recipient = sk_CMS_RecipientInfo_value(recipients, index);
        X509_ALGOR* algorithm = nullptr;
        if (CMS_RecipientInfo_type(recipient) == CMS_RECIPINFO_TRANS &&
            CMS_RecipientInfo_ktri_get0_algs(recipient, nullptr, nullptr, &algorithm) == 1) {
            const ASN1_OBJECT* object = nullptr;
            X509_ALGOR_get0(&object, nullptr, nullptr, algorithm);
            char text[80] = "";
            OBJ_obj2txt(text, sizeof text, object, 1);
            names.emplace_back(text);
        }
    }
    return names;
}

TEST(SmimeEncryptingTest, EncryptsWithOaepWhereTheKeyIsRsa) {
    const Identity& curve = person("agrees with others", {.key = norvauthority::Key::ec(), .keyUsage = 0x08});
    SMime::EncryptOptions options = encryptedFor({&person("bob"), &curve});
    EXPECT_EQ(keyTransportsOf(wrapped(mail, {options})), std::vector<std::string>{"1.2.840.113549.1.1.1"});
    options.oaep = CMS::OaepParameters{.digest = Hasher::SHA384};
    const std::string sent = wrapped(mail, {options});
    EXPECT_EQ(keyTransportsOf(sent), std::vector<std::string>{"1.2.840.113549.1.1.7"});
    EXPECT_EQ(decrypted(sent, person("bob")), entity);
    EXPECT_EQ(decrypted(sent, curve), entity);

    SMime::EncryptOptions withoutRsa = encryptedFor({&curve});
    withoutRsa.oaep.emplace();
    EXPECT_EQ(refusalOf(mail, {withoutRsa}), "RSAES-OAEP is for RSA keys, and no certificate of a recipient has one");
}

TEST(SmimeEncryptingTest, SignsAndEncryptsInOneStep) {
    for (const auto& signing : {signedBy({&person("alice")}), opaquelySignedBy(person("alice"))}) {
        MemoryMediaOut out;
        SMime::signAndEncrypt(MemoryMediaIn(mail), signing, encryptedFor({&person("bob")}), out);
        const std::string sent = norvtest::textOf(out.content());
        EXPECT_THAT(sent, HasSubstr("enveloped-data"));
        expectLines(sent, "\r\n", 78);
        const std::string inner = decrypted(sent, person("bob"));
        EXPECT_THAT(inner, StartsWith(signing.form == SMime::SigningForm::opaque
                                          ? "Content-Type: application/pkcs7-mime; smime-type=signed-data;"
                                          : "Content-Type: multipart/signed;"));
        expectLines(inner, "\r\n", 78);
        EXPECT_EQ(verified(inner), entity);
    }
}

TEST(SmimeEncryptingTest, WrapsThreeTimes) {
    const std::string sent =
        wrapped(mail, {signedBy({&person("alice")}), encryptedFor({&person("bob")}), signedBy({&person("carol")})});
    const std::string inner = verified(decrypted(verified(sent), person("bob")));
    EXPECT_EQ(inner, entity);
    SMime::WriteOptions how;
    how.lineEnds = SMime::LineEnds::lf;
    const std::string inFile = wrapped(
        mail, {opaquelySignedBy(person("alice")), encryptedFor({&person("bob")}), opaquelySignedBy(person("carol"))},
        how);
    expectLines(inFile, "\n", 78);
    EXPECT_EQ(verified(decrypted(verified(inFile), person("bob"))), entity);
}

TEST(SmimeEncryptingTest, AddsShellsToWhatHasSome) {
    const std::string once = wrapped(mail, {signedBy({&person("alice")})});
    const std::string twice = wrapped(once, {encryptedFor({&person("bob")})});
    EXPECT_EQ(verified(decrypted(twice, person("bob"))), entity);
    const std::string thrice = wrapped(twice, {signedBy({&person("carol")})});
    EXPECT_EQ(verified(decrypted(verified(thrice), person("bob"))), entity);
}

TEST(SmimeEncryptingTest, RefusesNoShellsAndTooMany) {
    EXPECT_EQ(refusalOf(mail, {}), "there is nothing to do with the message");
    EXPECT_EQ(refusalOf(mail, std::vector<SMime::Wrapping>(9, signedBy({&person("alice")}))),
              "there are more than 8 shells");
    EXPECT_THAT(verified(wrapped(mail, std::vector<SMime::Wrapping>(8, opaquelySignedBy(person("alice"))))),
                StartsWith("Content-Type: application/pkcs7-mime; smime-type=signed-data;"));
    EXPECT_EQ(verified(wrapped(mail, {signedBy({&person("alice")})})), entity);
}

TEST(SmimeEncryptingTest, SendsCertificatesAlone) {
    MemoryMediaOut out;
    SMime::writeCertificates(MemoryMediaIn("From: alice@example.com\nContent-Type: text/plain\nMIME-Version: 1.0\n\n"),
                             {certificateOf(person("alice")), certificateOf(root())}, {}, out);
    const std::string sent = norvtest::textOf(out.content());
    EXPECT_THAT(sent,
                StartsWith("From: alice@example.com\r\nMIME-Version: 1.0\r\n"
                           "Content-Type: application/pkcs7-mime; smime-type=certs-only; name=\"smime.p7c\"\r\n"));
    expectLines(sent, "\r\n", 78);
    const BioPtr in = sourceOver(sent);
    const CmsPtr structure(SMIME_read_CMS(in.get(), nullptr));
    ASSERT_NE(structure, nullptr) << opensslReason();
    STACK_OF(X509)* const certificates = CMS_get1_certs(structure.get());
    EXPECT_EQ(sk_X509_num(certificates), 2);
    sk_X509_pop_free(certificates, X509_free);
    EXPECT_EQ(refusal([&] { SMime::writeCertificates(MemoryMediaIn("A: b\n\nx"), {certificateOf(root())}, {}, out); }),
              "a message of certificates has no body");
    EXPECT_EQ(refusal([&] { SMime::writeCertificates(MemoryMediaIn("A b\n\n"), {certificateOf(root())}, {}, out); }),
              "the header of the message has a line that is no field, at which many readers begin the body");
}

// For those who end lines at a CR this is a whole mail; for all others it is one field, which stands outside.
TEST(SmimeEncryptingTest, ShowsNoBodyBehindACarriageReturn) {
    const std::string reason =
        "the header of the message has a line that is no field, at which many readers begin the body";
    const std::string ofOldSystems = "From: alice@example.com\rSubject: Lunch\r\rsecret\r";
    SMime::WriteOptions protecting;
    protecting.protectHeader = true;
    for (const std::string& text : {ofOldSystems, ofOldSystems + "\n\nx", "X-Mine: y\r\n" + ofOldSystems,
                                    std::string("X-Mine: y\r\rsecret\n\nx")}) {
        EXPECT_EQ(refusalOf(text, {encryptedFor({&person("bob")})}), reason);
        EXPECT_EQ(refusalOf(text, {encryptedFor({&person("bob")})}, protecting), reason);
        EXPECT_EQ(refusalOf(text, {signedBy({&person("alice")})}), reason);
    }
    // An end of a line that became two, and nothing behind it.
    for (const std::string& text :
         {std::string("X-Mine: y\r\r\n\r\nx"), std::string("X-Mine: y\r\r"), std::string("X-Mine: y\rz\n\nx")}) {
        EXPECT_THAT(wrapped(text, {encryptedFor({&person("bob")})}), StartsWith("X-Mine: y"));
    }
}

// RFC 8551, 3.8: lists of revoked certificates, too.
TEST(SmimeEncryptingTest, SendsRevocationListsAlone) {
    const auto list = x509testing::read(norvauthority::issueList({.issuer = &root()}));
    MemoryMediaOut out;
    SMime::writeCertificates(MemoryMediaIn("From: alice@example.com\n\n"), {}, {list, list}, out);
    const std::string sent = norvtest::textOf(out.content());
    const BioPtr in = sourceOver(sent);
    const CmsPtr structure(SMIME_read_CMS(in.get(), nullptr));
    ASSERT_NE(structure, nullptr) << opensslReason();
    STACK_OF(X509_CRL)* const lists = CMS_get1_crls(structure.get());
    EXPECT_EQ(sk_X509_CRL_num(lists), 1);
    sk_X509_CRL_pop_free(lists, X509_CRL_free);
    // Others take a file of certificates apart by its lengths: it is DER.
    unsigned char* der = nullptr;
    const int length = i2d_CMS_ContentInfo(structure.get(), &der);
    std::string letters((static_cast<std::size_t>(length) + 2) / 3 * 4 + 1, '\0');
    letters.resize(
        static_cast<std::size_t>(EVP_EncodeBlock(reinterpret_cast<unsigned char*>(letters.data()), der, length)));
    OPENSSL_free(der);
    std::string body = sent.substr(sent.find("\r\n\r\n") + 4);
    std::erase_if(body, [](char byte) { return byte == '\r' || byte == '\n'; });
    EXPECT_EQ(body, letters);
}

TEST(SmimeEncryptingTest, SignaturesCarryRevocationLists) {
    for (SMime::SignOptions options : {signedBy({&person("alice")}), opaquelySignedBy(person("alice"))}) {
        options.revocationLists = {x509testing::read(norvauthority::issueList({.issuer = &root()}))};
        const std::string sent = wrapped(mail, {options});
        EXPECT_EQ(verified(sent), entity);
        const BioPtr in = sourceOver(sent);
        BIO* detached = nullptr;
        const CmsPtr structure(SMIME_read_CMS(in.get(), &detached));
        const BioPtr content(detached);
        STACK_OF(X509_CRL)* const lists = CMS_get1_crls(structure.get());
        EXPECT_EQ(sk_X509_CRL_num(lists), 1);
        sk_X509_CRL_pop_free(lists, X509_CRL_free);
    }
}

TEST(SmimeEncryptingTest, TakesMessagesFromPipesAndFilesAlike) {
    for (const bool returns : {false, true}) {
        MemoryMediaOut out;
        SMime::sign(generated(300000, returns), signedBy({&person("alice")}), out);
        const std::string part = verified(norvtest::textOf(out.content()));
        EXPECT_EQ(part.size(), 300000 + 300000 / 64 +
                                   std::string("Content-Type: application/octet-stream\r\n"
                                               "Content-Transfer-Encoding: base64\r\n\r\n")
                                       .size());
    }
}

TEST(SmimeEncryptingTest, StreamsALongMessage) {
    NullMediaOut out;
    SMime::signAndEncrypt(generated(std::uint64_t{8} << 20U, true), signedBy({&person("alice")}),
                          encryptedFor({&person("bob")}), out);
    EXPECT_GT(out.tell(), std::uint64_t{8} << 20U);
}

} // namespace
