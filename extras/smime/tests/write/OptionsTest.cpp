// Choices of who writes that few make, and parts of which nothing may be changed.

#include "Writing.h"

#include <norvcrypto-smime/SMimeReader.h>

namespace {

using namespace smimetest;
using testing::HasSubstr;
using testing::StartsWith;

const std::string mail = "From: alice@example.com\nSubject: x\nContent-Type: text/plain\n\nhello\n";

SMime::Answer answerTo(const std::string& sent, std::string& content) {
    MemoryMediaOut out;
    SMime::Answer answer = SMime::read(MemoryMediaIn(sent), out, {});
    content = norvtest::textOf(out.content());
    return answer;
}

TEST(SmimeOptionsTest, RsaKeysSignWithPssWhenAsked) {
    SMime::SignOptions options = signedBy({&person("alice")});
    options.pss = true;
    std::string content;
    const SMime::Answer answer = answerTo(wrapped(mail, {options}), content);
    EXPECT_EQ(answer.verdict, SMime::Verdict::signatureGood) << answer.detail;
    EXPECT_EQ(answer.layers.at(0).signers.at(0).signatureAlgorithm, "RSASSA-PSS");
}

TEST(SmimeOptionsTest, OptionsAreValues) {
    SMime::SignOptions signing;
    signing = signedBy({&person("alice")});
    SMime::EncryptOptions encrypting;
    encrypting = encryptedFor({&person("bob")});
    EXPECT_EQ(signing.signers.size(), 1U);
    EXPECT_EQ(encrypting.certificates.size(), 1U);
    EXPECT_THAT(wrapped(mail, {signing, encrypting}), HasSubstr("enveloped-data"));
}

// RFC 1847: what is encrypted already must stay as it is, too.
TEST(SmimeOptionsTest, RefusesAnEncryptedPartThatWouldNotSurvive) {
    const std::string encrypted =
        "Content-Type: multipart/encrypted; protocol=\"application/pgp-encrypted\"; boundary=b\n\n"
        "--b\nContent-Type: application/pgp-encrypted\n\nVersion: 1\n--b\n"
        "Content-Type: application/octet-stream\n\n\xe4\n--b--\n";
    EXPECT_THAT(refusalOf(encrypted, {signedBy({&person("alice")})}),
                StartsWith("the message is encrypted already and is not 7-bit text"));
}

TEST(SmimeOptionsTest, AMultipartWithoutAnyPartIsSignedAsItStands) {
    const std::string empty = "Content-Type: multipart/mixed; boundary=b\r\n\r\n--b--\r\n";
    for (const SMime::SignOptions& options : {signedBy({&person("alice")}), opaquelySignedBy(person("alice"))}) {
        std::string content;
        const SMime::Answer answer = answerTo(wrapped(empty, {options}), content);
        EXPECT_EQ(answer.verdict, SMime::Verdict::signatureGood) << answer.detail;
        EXPECT_EQ(content, empty);
    }
}

} // namespace
