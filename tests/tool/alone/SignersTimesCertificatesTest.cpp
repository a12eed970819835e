// Signers whose certificates are not in a message are looked for among those that the user has: a stranger chooses how many
// there are of the first, and how many there are of the second is a matter of years.

#include "cms/Judging.h"
#include "support/Interpose.h"
#include "support/MailAuthority.h"
#include "support/Started.h"
#include "support/TemporaryFolder.h"

#include <norvcmsg/Media.h>
#include <norvcrypto-smime/SMimeReader.h>
#include <norvcrypto/CMSSignedWriter.h>

#include <openssl/x509.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <list>
#include <string>
#include <vector>

namespace {

std::uint64_t s_comparisons = 0;

} // namespace

extern "C" int X509_NAME_cmp(const X509_NAME* one, const X509_NAME* other) {
    ++s_comparisons;
    return norvtest::next<&X509_NAME_cmp>("X509_NAME_cmp")(one, other);
}

namespace {

namespace CMS = Norvane::Crypto::CMS;
namespace NVX509 = Norvane::Crypto::NVX509;
namespace SMime = Norvane::Crypto::SMime;
using CMS::SignatureReason;
using CMS::SignatureResult;
using CMS::SignatureVerdict;
using norvauthority::Identity;

constexpr std::size_t signers = 100;
constexpr std::size_t certificates = 50000;
/// That so many signers are looked for among so many certificates.
constexpr std::size_t lookedFor = CMS::maximumComparisons / certificates;
static_assert(lookedFor < signers);

const Identity& signer() {
    static const Identity made =
        norvauthority::issue({.subject = {{"CN", "signer"}}, .key = norvauthority::Key::ec(), .serial = "51"});
    return made;
}

/// A signature with so many signers, none of whose certificates is in it.
Norvane::Buffer structureOf(std::size_t count) {
    CMS::SignedWriter::Options options;
    options.content = CMS::SignedWriter::Content::attached;
    CMS::SignedWriter::Signer one(norvtest::pairOf(signer()));
    one.include = CMS::SignedWriter::Include::nothing;
    options.signers.assign(count, one);
    Norvane::MemoryMediaOut out;
    CMS::SignedWriter writer(options);
    writer.attach(out);
    const std::string body = "Content-Type: text/plain\r\n\r\nbody\r\n";
    writer.write(reinterpret_cast<const unsigned char*>(body.data()), static_cast<unsigned int>(body.size()));
    writer.end();
    return out.content();
}

std::vector<NVX509::RefCertificate> many(std::size_t count) {
    return std::vector<NVX509::RefCertificate>(
        count, norvtest::certificateOf(norvauthority::issue(
                   {.subject = {{"CN", "other"}}, .key = norvauthority::Key::ec(), .issuerName = signer().name})));
}

/// Of each signer.
std::vector<SignatureResult> judgedByTool(const Norvane::Buffer& structure,
                                          const norvcrypt::SignerCertificates& given) {
    CMS::SignedReader message{Norvane::MemoryMediaIn(structure)};
    Norvane::NullMediaOut nowhere;
    message.write(nowhere);
    s_comparisons = 0;
    return norvcrypt::judgeSigners(message, {}, given);
}

std::vector<SignatureResult> judgedInMail(const Norvane::Buffer& structure,
                                          const std::vector<NVX509::RefCertificate>& given) {
    SMime::ReadOptions options;
    options.certificates = given;
    Norvane::NullMediaOut nowhere;
    std::string mail = "Content-Type: application/pkcs7-mime; smime-type=signed-data\r\n\r\n";
    mail.append(reinterpret_cast<const char*>(structure.data()), structure.length());
    s_comparisons = 0;
    std::vector<SignatureResult> results;
    const SMime::Answer answer = SMime::read(Norvane::MemoryMediaIn(mail), nowhere, options);
    for (const SMime::LayerSigner& one : answer.layers.at(0).signers) {
        results.push_back(one.result);
    }
    return results;
}

void expectBounded(const std::vector<SignatureResult>& results) {
    ASSERT_EQ(results.size(), signers);
    for (std::size_t at = 0; at < signers; ++at) {
        const bool isLookedFor = at < lookedFor;
        EXPECT_EQ(results[at].reason, isLookedFor ? SignatureReason::certificateMissing : SignatureReason::tooMuchWork)
            << at;
        EXPECT_EQ(results[at].verdict == SignatureVerdict::unsupported, !isLookedFor) << at;
    }
    EXPECT_LE(s_comparisons, CMS::maximumComparisons + signers);
    EXPECT_STREQ("the signers before this one took too much work", CMS::textOf(SignatureReason::tooMuchWork));
}

TEST(SignersTimesCertificates, AreBoundedInTheTool) {
    const auto all = many(certificates);
    const Norvane::Buffer structure = structureOf(signers);
    expectBounded(judgedByTool(structure, {.given = std::nullopt, .ofStore = {all.begin(), all.end()}}));
    expectBounded(judgedByTool(structure, {.given = std::list(all.begin(), all.end()), .ofStore = {}}));
}

TEST(SignersTimesCertificates, AreBoundedInMails) {
    expectBounded(judgedInMail(structureOf(signers), many(certificates)));
}

TEST(SignersTimesCertificates, OneIsFoundAtTheEndOfALongList) {
    auto all = many(certificates);
    all.push_back(norvtest::certificateOf(signer()));
    const Norvane::Buffer structure = structureOf(1);
    EXPECT_EQ(judgedByTool(structure, {.given = std::nullopt, .ofStore = {all.begin(), all.end()}}).at(0).verdict,
              SignatureVerdict::good);
    EXPECT_EQ(judgedInMail(structure, all).at(0).verdict, SignatureVerdict::good);
}

/// Different certificates of one name.
TEST(SignersTimesCertificates, FewOfOneNameAreTried) {
    const Norvane::Buffer structure = structureOf(1);
    const auto alike = [&](std::size_t count) {
        std::vector<NVX509::RefCertificate> made;
        while (made.size() < count) {
            made.push_back(norvtest::certificateOf(
                norvauthority::issue({.subject = {{"CN", "alike" + std::to_string(made.size())}},
                                      .key = norvauthority::Key::ec(),
                                      .issuerName = signer().name,
                                      .signingKey = norvauthority::Key::ec(),
                                      .serial = signer().serial})));
        }
        return made;
    };
    for (const std::size_t count : {CMS::maximumTries, CMS::maximumTries + 1}) {
        const auto all = alike(count);
        const SignatureReason expected =
            count == CMS::maximumTries ? SignatureReason::signatureWrong : SignatureReason::tooManyCertificates;
        EXPECT_EQ(judgedByTool(structure, {.given = std::nullopt, .ofStore = {all.begin(), all.end()}}).at(0).reason,
                  expected);
        EXPECT_EQ(judgedInMail(structure, all).at(0).reason, expected);
    }
    // Copies of one count once.
    const std::vector<NVX509::RefCertificate> copies(10, alike(1).front());
    EXPECT_EQ(judgedInMail(structure, copies).at(0).reason, SignatureReason::signatureWrong);
}

} // namespace
