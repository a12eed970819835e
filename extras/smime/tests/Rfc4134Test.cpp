// The messages of RFC 4134, sections 4.8, 4.9 and 5.3.
#include "Mails.h"

#include <fstream>
#include <iterator>
#include <list>
#include <memory>
#include <optional>
#include <tuple>

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

/// Bob's key and certificate.
std::unique_ptr<CMS::KeyListLookup> bobsKeys() {
    const auto key = sample("BobPrivRSAEncrypt.pri");
    const auto certificate = sample("BobRSASignByCarl.cer");
    if (!key || !certificate)
        return nullptr;
    const NVX509::RefCertificate bobs = NVX509::CertificateFactory().readDER(
        Norvane::Buffer(certificate->data(), static_cast<unsigned int>(certificate->size()), false));
    const norvauthority::Key bobsKey = norvauthority::Key::fromDer(norvauthority::Bytes(key->begin(), key->end()));
    return std::make_unique<CMS::KeyListLookup>(
        std::list{NVX509::KeyCertificatePair(norvtest::privateKeyOf(bobsKey), bobs, {})});
}

TEST(SMimeRfc4134, Enveloped) {
    const auto mail = sample("5.3.eml");
    const auto keys = bobsKeys();
    if (!mail || !keys)
        GTEST_SKIP() << "the samples of RFC 4134 are not there";
    SMime::ReadOptions options;
    options.keys = keys.get();
    const Outcome outcome = outcomeOf(*mail, options);
    EXPECT_EQ(outcome.answer.verdict, Verdict::decrypted) << outcome.answer.detail;
    EXPECT_THAT(layersOf(outcome.answer), ElementsAre("enveloped 1 good"));
    EXPECT_THAT(outcome.content, testing::HasSubstr(text));
}

/// Structures that the RFC gives by themselves, in the mail that they would come in.
std::optional<std::string> mailOf(const std::string& name) {
    const auto structure = sample(name);
    if (!structure)
        return std::nullopt;
    return "From: alice@example.com\r\nContent-Type: application/pkcs7-mime; name=smime.p7m\r\n"
           "Content-Transfer-Encoding: binary\r\n\r\n" +
           *structure;
}

TEST(SMimeRfc4134, StructuresInMails) {
    // Section, what it is, and what becomes of it. 4.10 has attributes of every kind, 4.11 certificates and a list, 5.2 RC2
    // and a recipient with a key-encryption key beside Bob, 7.2 unprotected attributes.
    for (const auto& [name, verdict, layer] : {std::tuple("4.10.bin", Verdict::signatureGood, "opaque-signed 1 good"),
                                               {"4.11.bin", Verdict::certificates, "certificates-only 1 good"},
                                               {"5.1.bin", Verdict::noKey, "enveloped 1 no-key"},
                                               {"5.2.bin", Verdict::noKey, "enveloped 1 no-key"},
                                               {"6.0.bin", Verdict::unsupported, "other 1 unsupported"},
                                               {"7.1.bin", Verdict::unsupported, "other 1 unsupported"},
                                               {"7.2.bin", Verdict::unsupported, "other 1 unsupported"}}) {
        const auto mail = mailOf(name);
        if (!mail)
            GTEST_SKIP() << "the samples of RFC 4134 are not there";
        const Outcome outcome = outcomeOf(*mail);
        EXPECT_EQ(outcome.answer.verdict, verdict) << name << ": " << outcome.answer.detail;
        EXPECT_THAT(layersOf(outcome.answer), ElementsAre(layer)) << name;
    }
}

TEST(SMimeRfc4134, StructuresInMailsForBob) {
    const auto keys = bobsKeys();
    if (!keys)
        GTEST_SKIP() << "the samples of RFC 4134 are not there";
    SMime::ReadOptions options;
    options.keys = keys.get();
    for (const char* const name : {"5.1.bin", "5.2.bin"}) {
        const Outcome outcome = outcomeOf(*mailOf(name), options);
        EXPECT_EQ(outcome.answer.verdict, Verdict::decrypted) << name << ": " << outcome.answer.detail;
        // The RFC encrypts a text that is no MIME entity, so that there is one line that is no field.
        EXPECT_THAT(outcome.content, testing::HasSubstr(text)) << name;
    }
}

} // namespace
