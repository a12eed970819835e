#include "Mails.h"

#include <array>
#include <thread>

using namespace smimetest;
using interop::alice;
using interop::bob;
using testing::ElementsAre;
using testing::HasSubstr;

namespace {

constexpr unsigned int wire = CMS_BINARY | CMS_CRLFEOL;
constexpr unsigned int detached = wire | CMS_DETACHED;

std::string mailOf(const std::string& entity) {
    return fieldsOfAlice + entity;
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
    EXPECT_EQ(outcome.answer.layers.front().detail, "");
    EXPECT_THAT(layersOf(outcome.answer), ElementsAre("certificates-only 1 good"));
    EXPECT_EQ(outcome.content, "");
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
