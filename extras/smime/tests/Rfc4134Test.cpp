// The messages of RFC 4134, sections 4.8, 4.9 and 5.3.
#include "Mails.h"

#include <fstream>
#include <iterator>

using namespace smimetest;
using testing::ElementsAre;

namespace {

/// What is in a sample; nothing when the samples do not lie beside the project.
std::optional<std::string> sample(const std::string& name) {
    const auto path = interop::rfc4134(name);
    if (!path)
        return std::nullopt;
    std::ifstream file(*path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), {});
}

const std::string text = "This is some sample content.";

TEST(SMimeRfc4134, MultipartSigned) {
    const auto mail = sample("4.8.eml");
    if (!mail)
        GTEST_SKIP() << "the samples of RFC 4134 are not there";
    const Outcome outcome = outcomeOf(*mail);
    EXPECT_EQ(outcome.answer.verdict, Verdict::signatureGood) << outcome.answer.detail;
    EXPECT_THAT(layersOf(outcome.answer), ElementsAre("multipart-signed 1 good"));
    EXPECT_THAT(outcome.content, testing::HasSubstr(text));
    ASSERT_FALSE(outcome.answer.layers.empty());
    EXPECT_EQ(outcome.answer.layers[0].micalg, "sha1");
    EXPECT_THAT(outcome.answer.from, ElementsAre("aliceDss@examples.com"));
}

TEST(SMimeRfc4134, OpaqueSigned) {
    const auto mail = sample("4.9.eml");
    if (!mail)
        GTEST_SKIP() << "the samples of RFC 4134 are not there";
    const Outcome outcome = outcomeOf(*mail);
    EXPECT_EQ(outcome.answer.verdict, Verdict::signatureGood) << outcome.answer.detail;
    EXPECT_THAT(layersOf(outcome.answer), ElementsAre("opaque-signed 1 good"));
    EXPECT_THAT(outcome.content, testing::HasSubstr(text));
}

TEST(SMimeRfc4134, Enveloped) {
    const auto mail = sample("5.3.eml");
    const auto key = sample("BobPrivRSAEncrypt.pri");
    const auto certificate = sample("BobRSASignByCarl.cer");
    if (!mail || !key || !certificate)
        GTEST_SKIP() << "the samples of RFC 4134 are not there";
    const auto bytesOf = [](const std::string& from) { return norvauthority::Bytes(from.begin(), from.end()); };
    const NVX509::RefCertificate bobs = NVX509::CertificateFactory().readDER(
        Norvane::Buffer(certificate->data(), static_cast<unsigned int>(certificate->size()), false));
    const norvauthority::Key bobsKey = norvauthority::Key::fromDer(bytesOf(*key));
    const CMS::KeyListLookup keys({NVX509::KeyCertificatePair(norvtest::privateKeyOf(bobsKey), bobs, {})});
    SMime::ReadOptions options;
    options.keys = &keys;
    const Outcome outcome = outcomeOf(*mail, options);
    EXPECT_EQ(outcome.answer.verdict, Verdict::decrypted) << outcome.answer.detail;
    EXPECT_THAT(layersOf(outcome.answer), ElementsAre("enveloped 1 good"));
    EXPECT_THAT(outcome.content, testing::HasSubstr(text));
}

} // namespace
