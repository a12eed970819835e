// Encryption is taken off and signatures are left on (`ReadOptions::keepSignatures`).
#include "Mails.h"

#include "support/Streams.h"

using namespace smimetest;
using interop::alice;
using interop::bob;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

constexpr unsigned int wire = CMS_BINARY | CMS_CRLFEOL;
constexpr unsigned int detached = wire | CMS_DETACHED;

Outcome kept(const std::string& mail, bool wholeMessage = false, std::uint64_t spill = UINT64_C(1) << 30U) {
    static const Keys keys({&bob()});
    SMime::ReadOptions options;
    options.keys = &keys;
    options.keepSignatures = true;
    options.wholeMessage = wholeMessage;
    options.budget.spill = spill;
    return outcomeOf(mail, options);
}

TEST(SMimeKeep, TheSignedEntityIsHandedOnAsItStands) {
    for (const unsigned int flags : {detached, wire}) {
        const std::string entity = signedBy(alice(), plainEntity, flags);
        const Outcome outcome = kept(fieldsOfAlice + encryptedFor({&bob()}, entity));
        EXPECT_EQ(outcome.answer.verdict, Verdict::signatureGood) << outcome.answer.detail;
        EXPECT_EQ(outcome.content, entity);
        EXPECT_EQ(outcome.answer.deliveredPath, "1.1");
        EXPECT_EQ(outcome.answer.contentPath, "1.1.1");
        // Who gets it finds the signature good once more.
        EXPECT_EQ(outcomeOf(fieldsOfAlice + outcome.content).answer.verdict, Verdict::signatureGood);
    }
}

TEST(SMimeKeep, WithoutASignatureItIsTheContent) {
    for (const EVP_CIPHER* const cipher : {EVP_aes_256_cbc(), EVP_aes_256_gcm()}) {
        const Outcome outcome = kept(fieldsOfAlice + encryptedFor({&bob()}, plainEntity, cipher));
        EXPECT_EQ(outcome.answer.verdict, Verdict::decrypted) << outcome.answer.detail;
        EXPECT_EQ(outcome.content, plainEntity);
        EXPECT_EQ(outcome.answer.deliveredPath, "1.1");
    }
    const std::string isSigned = fieldsOfAlice + signedBy(alice(), plainEntity, detached);
    EXPECT_EQ(kept(isSigned).content, outcomeOf(isSigned).content) << "nothing is encrypted";
    EXPECT_EQ(kept(isSigned).answer.deliveredPath, "1.1");
    EXPECT_EQ(kept(fieldsOfAlice + plainEntity).answer.deliveredPath, "");
}

/// Of several encrypted layers the innermost one is what counts: nothing encrypted is handed on.
TEST(SMimeKeep, SeveralEncryptedLayers) {
    const std::string inner = signedBy(alice(), plainEntity, detached);
    const std::string triple = signedBy(alice(), encryptedFor({&bob()}, inner), detached);
    const Outcome wrapped = kept(fieldsOfAlice + triple);
    EXPECT_EQ(wrapped.content, inner);
    EXPECT_EQ(wrapped.answer.deliveredPath, "1.1.1");
    const Outcome twice = kept(fieldsOfAlice + encryptedFor({&bob()}, triple));
    EXPECT_EQ(twice.answer.verdict, Verdict::signatureGood) << twice.answer.detail;
    EXPECT_EQ(twice.content, inner);
    EXPECT_EQ(twice.answer.deliveredPath, "1.1.1.1");
}

TEST(SMimeKeep, OfWhatIsDamagedNothingIsHandedOn) {
    const std::string mail = fieldsOfAlice + encryptedFor({&bob()}, signedBy(alice(), plainEntity, detached));
    const Outcome cut = kept(mail.substr(0, mail.size() - 100));
    EXPECT_EQ(cut.answer.verdict, Verdict::damaged);
    EXPECT_EQ(cut.content, "");
    EXPECT_EQ(cut.answer.deliveredPath, "");
    const Outcome large =
        kept(fieldsOfAlice + encryptedFor({&bob()}, "Content-Type: text/plain\r\n\r\n" + std::string(100000, 'x')),
             false, 50000);
    EXPECT_EQ(large.answer.verdict, Verdict::tooCostly) << large.answer.detail;
    EXPECT_THAT(large.answer.detail, HasSubstr("longer than the budget allows"));
    EXPECT_EQ(large.content, "");
}

TEST(SMimeKeep, AWrongSignatureIsLeftInItsPlace) {
    const std::string entity = replaced(signedBy(alice(), plainEntity, detached), "Hello", "HELLO");
    const Outcome outcome = kept(fieldsOfAlice + encryptedFor({&bob()}, entity));
    EXPECT_EQ(outcome.answer.verdict, Verdict::refused);
    EXPECT_EQ(outcome.content, entity);
}

/// The fields outside, those that the content protects, and the structure of the signed entity.
TEST(SMimeKeep, TheWholeMessage) {
    const std::string inside = "Subject: inside\r\nContent-Type: text/plain; hp=\"cipher\"\r\n\r\nhello\r\n";
    const std::string entity = signedBy(alice(), inside, detached);
    const Outcome outcome = kept(fieldsOfAlice + encryptedFor({&bob()}, entity), true);
    EXPECT_EQ(outcome.answer.verdict, Verdict::signatureGood) << outcome.answer.detail;
    EXPECT_THAT(outcome.content,
                StartsWith("From: Alice <alice@example.org>\r\nTo: bob@example.org\r\nSubject: inside\r\n"
                           "MIME-Version: 1.0\r\nContent-Type: multipart/signed;"));
    EXPECT_EQ(outcome.content.find("Subject: outside"), std::string::npos);
    EXPECT_EQ(outcome.content.substr(outcome.content.find("\r\n\r\n")), entity.substr(entity.find("\r\n\r\n")));
    EXPECT_EQ(outcomeOf(outcome.content).answer.verdict, Verdict::signatureGood);
    const Outcome unsignedOne = kept(fieldsOfAlice + encryptedFor({&bob()}, inside), true);
    EXPECT_THAT(unsignedOne.content, HasSubstr("\r\nSubject: inside\r\n"));
    EXPECT_THAT(unsignedOne.content, HasSubstr("\r\n\r\nhello\r\n"));
}

/// A message that was wrapped to protect its header, and that nobody signed, is not shown as one that is forwarded.
TEST(SMimeKeep, AWrappedMessage) {
    const std::string message =
        "From: Alice <alice@example.org>\r\nSubject: inside\r\nContent-Type: text/plain\r\n\r\nhello\r\n";
    const std::string entity = "Content-Type: message/rfc822; forwarded=no\r\n\r\n" + message;
    const Outcome outcome = kept(fieldsOfAlice + encryptedFor({&bob()}, entity), true);
    EXPECT_EQ(outcome.answer.verdict, Verdict::decrypted) << outcome.answer.detail;
    EXPECT_EQ(outcome.content, "To: bob@example.org\r\nFrom: Alice <alice@example.org>\r\nSubject: inside\r\n"
                               "Content-Type: text/plain\r\nMIME-Version: 1.0\r\n\r\nhello\r\n");
    EXPECT_EQ(outcome.answer.deliveredPath, outcome.answer.contentPath);
    const std::string encoded =
        "Content-Type: message/rfc822; forwarded=no\r\nContent-Transfer-Encoding: quoted-printable\r\n\r\n"
        "From: Alice <alice@example.org>\r\nContent-Type: text/plain\r\n\r\nh=65llo\r\n";
    EXPECT_THAT(kept(fieldsOfAlice + encryptedFor({&bob()}, encoded), true).content, HasSubstr("\r\n\r\nhello\r\n"));
    const std::string isSigned = signedBy(alice(), entity, detached);
    const Outcome both = kept(fieldsOfAlice + encryptedFor({&bob()}, isSigned), true);
    EXPECT_EQ(both.answer.deliveredPath, "1.1");
    EXPECT_EQ(outcomeOf(both.content).answer.verdict, Verdict::signatureGood);
}

TEST(SMimeKeep, AFullDiskIsTold) {
    static const Keys keys({&bob()});
    SMime::ReadOptions options;
    options.keys = &keys;
    options.keepSignatures = true;
    options.spillTemplate = "/nonexistent/fileXXXXXX";
    const std::string mail =
        fieldsOfAlice + encryptedFor({&bob()}, "Content-Type: text/plain\r\n\r\n" + std::string(100000, 'x'));
    Norvane::MemoryMediaOut content;
    EXPECT_THROW(SMime::read(Norvane::MemoryMediaIn(mail), content, options), Norvane::MediaException);
    EXPECT_EQ(content.content().length(), 0U);
}

} // namespace
