// The example messages of RFC 4134, section 4, which were made by several programs that are not this one.
#include "support/Places.h"
#include "support/SignedMessages.h"

#include <filesystem>
#include <fstream>
#include <iterator>

using namespace cmstest;
using CMS::SignatureReason;
using CMS::SignatureVerdict;
using CMS::SignedReader;

namespace {

std::filesystem::path folder() {
    return norvtest::samplePath("rfc4134");
}

Bytes sample(const std::string& name) {
    std::ifstream file(folder() / name, std::ios::binary);
    EXPECT_TRUE(file) << name;
    return {std::istreambuf_iterator<char>(file), {}};
}

NVX509::RefCertificate certificate(const std::string& name) {
    return NVX509::CertificateFactory().readDER(bufferOf(sample(name)));
}

/// An example that was read to its end, with the example content where it carries none.
struct Example {
    explicit Example(const std::string& name) : in(sample(name)), message(in) {
        if (message.isDetached()) {
            Norvane::MediaOut digest = message.digest();
            digest.write(bufferOf(sample("ExContent.bin")));
        } else {
            Norvane::MemoryMediaOut out;
            message.write(out);
            EXPECT_EQ(bytesOf(out.content()), sample("ExContent.bin")) << name;
        }
        EXPECT_EQ(in.overreads(), 0U);
    }
    [[nodiscard]] bool isGood(std::size_t signer) const {
        return message.verdict(message.signers().at(signer)).verdict == SignatureVerdict::good;
    }
    StrictIn in;
    SignedReader message;
};

class SignedReaderRfc4134 : public ::testing::Test {
protected:
    void SetUp() override {
        if (!std::filesystem::exists(folder() / "4.1.bin")) {
            GTEST_SKIP() << "the samples of RFC 4134 are not beside the checkout";
        }
    }
};

} // namespace

TEST_F(SignedReaderRfc4134, MessagesWithOneSigner) {
    for (const char* name : {"4.1.bin", "4.2.bin", "4.3.bin", "4.4.bin", "4.5.bin", "4.7.bin", "4.10.bin"}) {
        const Example example(name);
        ASSERT_EQ(example.message.signers().size(), 1U) << name;
        EXPECT_TRUE(example.isGood(0)) << name;
        EXPECT_EQ(example.message.isDetached(), std::string(name) == "4.3.bin");
    }
}

TEST_F(SignedReaderRfc4134, CertificatesByTheirNames) {
    const Example second("4.2.bin");
    const SignedReader& alice = second.message;
    EXPECT_EQ(alice.signers().front().signatureAlgorithm(), "rsaEncryption");
    EXPECT_TRUE(NVX509::sameEncoding(alice.verdict(alice.signers().front()).certificate,
                                     certificate("AliceRSASignByCarl.cer")));
    const Example seventh("4.7.bin");
    const SignedReader& byKey = seventh.message;
    EXPECT_EQ(byKey.signers().front().identifier().namedBy(), CMS::NamedBy::subjectKeyIdentifier);
    EXPECT_TRUE(NVX509::sameEncoding(byKey.verdict(byKey.signers().front()).certificate,
                                     certificate("AliceDSSSignByCarlNoInherit.cer")));
}

TEST_F(SignedReaderRfc4134, ASignerAndOneWhoCountersigned) {
    const Example example("4.4.bin");
    const SignedReader::Signer& signer = example.message.signers().front();
    EXPECT_EQ(signer.signingTime(), 1052926740); // 14 May 2003, 15:39 UTC
    ASSERT_EQ(signer.countersigners().size(), 1U);
    const auto result = example.message.verdict(signer.countersigners().front());
    EXPECT_EQ(result.verdict, SignatureVerdict::good) << CMS::textOf(result.reason);
    EXPECT_TRUE(NVX509::sameEncoding(result.certificate, certificate("AliceRSASignByCarl.cer")));
    EXPECT_EQ(example.message.certificates().size(), 3U);
    EXPECT_EQ(example.message.revocationLists().size(), 1U);
}

TEST_F(SignedReaderRfc4134, AKeyWithoutItsParametersIsNotSupported) {
    const Example example("4.6.bin");
    ASSERT_EQ(example.message.signers().size(), 2U);
    EXPECT_TRUE(example.isGood(0));
    const auto diane = example.message.verdict(example.message.signers().back());
    EXPECT_EQ(diane.verdict, SignatureVerdict::unsupported);
    EXPECT_EQ(diane.reason, SignatureReason::keyAlgorithm);
    EXPECT_EQ(diane.algorithm, "dsaEncryption");
}

TEST_F(SignedReaderRfc4134, CertificatesAlone) {
    const Example example("4.11.bin");
    EXPECT_TRUE(example.message.signers().empty());
    EXPECT_EQ(example.message.certificates().size(), 2U);
    EXPECT_EQ(example.message.revocationLists().size(), 1U);
}
