// The example objects of RFC 4134, which were made by several programs that are not this one.
#include "support/Envelope.h"
#include "support/Places.h"

#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>

using namespace cmstest;

namespace {

std::filesystem::path folder() {
    return norvtest::samplePath("rfc4134");
}

Bytes sample(const std::string& name) {
    std::ifstream file(folder() / name, std::ios::binary);
    EXPECT_TRUE(file) << name;
    return {std::istreambuf_iterator<char>(file), {}};
}

class Rfc4134 : public ::testing::Test {
protected:
    void SetUp() override {
        if (!std::filesystem::exists(folder() / "4.1.bin")) {
            GTEST_SKIP() << "the samples of RFC 4134 are not beside the checkout";
        }
    }

    static NVX509::RefCertificate certificate(const std::string& name) {
        const auto read = NVX509::CertificateFactory().readDER(bufferOf(sample(name)));
        EXPECT_NE(static_cast<x509_st*>(read), nullptr) << name;
        return read;
    }

    /// Whether each signer of a sample verifies over the example content, in the structure's order, under the
    /// certificate of `names` that it names by issuer and serial number.
    static std::vector<bool> verdicts(const std::string& name, const std::vector<std::string>& names) {
        const Received received(sample(name));
        std::vector<bool> answers;
        const CMS::SignedData data = CMS::signedData(received.verifier.contentInfo());
        for (const auto& signer : data.signerInfo()) {
            const auto& wanted = signer.issuerAndSerialNumber();
            bool good = false;
            bool found = false;
            for (const std::string& candidateName : names) {
                const auto candidate = certificate(candidateName);
                if (candidate->issuer() == wanted.issuer() && candidate->serialNumber() == wanted.serialNumber()) {
                    found = true;
                    PiecewiseIn content(sample("ExContent.bin"));
                    good = received.verifier.isValid(content, signer, candidate);
                }
            }
            EXPECT_TRUE(found) << name;
            answers.push_back(good);
        }
        return answers;
    }
};

const std::vector<std::string> s_aliceDss{"AliceDSSSignByCarlNoInherit.cer"};

} // namespace

TEST_F(Rfc4134, SignedBySomeoneWithADssKey) {
    for (const char* name : {"4.1.bin", "4.2.bin", "4.3.bin"}) {
        const RecordedLog log;
        EXPECT_EQ(verdicts(name, {"AliceDSSSignByCarlNoInherit.cer", "AliceRSASignByCarl.cer"}),
                  std::vector<bool>{true})
            << name;
        EXPECT_TRUE(log.records().empty());
    }
}

TEST_F(Rfc4134, SignedWithAttributesAndLists) {
    EXPECT_EQ(verdicts("4.4.bin", s_aliceDss), std::vector<bool>{true});
    EXPECT_EQ(verdicts("4.5.bin", {"AliceRSASignByCarl.cer", "AliceDSSSignByCarlNoInherit.cer"}),
              std::vector<bool>{true});
    EXPECT_EQ(verdicts("4.10.bin", s_aliceDss), std::vector<bool>{true});
}

TEST_F(Rfc4134, OfTwoSignersTheSecondInheritsItsParametersAndIsRefused) {
    const RecordedLog log;
    EXPECT_EQ(verdicts("4.6.bin", {"AliceDSSSignByCarlNoInherit.cer", "DianeDSSSignByCarlInherit.cer"}),
              (std::vector<bool>{true, false}));
    EXPECT_EQ(log.events(), std::vector<unsigned int>{0x3000051});
}

TEST_F(Rfc4134, AnotherContentIsRefusedForEverySigner) {
    for (const char* name : {"4.1.bin", "4.2.bin", "4.3.bin", "4.4.bin", "4.5.bin", "4.6.bin", "4.10.bin"}) {
        const RecordedLog log;
        const Received received(sample(name));
        const CMS::SignedData data = CMS::signedData(received.verifier.contentInfo());
        ASSERT_FALSE(data.signerInfo().empty()) << name;
        for (const auto& signer : data.signerInfo()) {
            for (const char* key : {"AliceDSSSignByCarlNoInherit.cer", "AliceRSASignByCarl.cer"}) {
                Bytes content = sample("ExContent.bin");
                content.back() ^= 1U;
                PiecewiseIn in(content);
                EXPECT_FALSE(received.verifier.isValid(in, signer, certificate(key))) << name;
            }
        }
    }
}

TEST_F(Rfc4134, CarriesItsContentOrNot) {
    const std::map<std::string, bool> carries{{"4.1.bin", true},  {"4.2.bin", true},  {"4.3.bin", false},
                                              {"4.4.bin", true},  {"4.5.bin", true},  {"4.6.bin", true},
                                              {"4.10.bin", true}, {"4.11.bin", false}};
    for (const auto& [name, expected] : carries) {
        PiecewiseIn in(sample(name));
        Norvane::MediaIn content = CMS::embeddedContent(CMS::RefContentInfo(in));
        EXPECT_EQ(!content.isNull(), expected) << name;
        if (!content.isNull()) {
            std::string text;
            content.read(text);
            EXPECT_EQ(bytesOf(text), sample("ExContent.bin")) << name;
        }
    }
}

TEST_F(Rfc4134, TellsEachContentType) {
    const std::map<std::string, int> types{{"3.1.bin", 1}, {"3.2.bin", 1}, {"4.1.bin", 2}, {"4.11.bin", 2},
                                           {"5.1.bin", 3}, {"6.0.bin", 4}, {"7.1.bin", 5}};
    for (const auto& [name, type] : types) {
        const RecordedLog log;
        PiecewiseIn in(sample(name));
        EXPECT_EQ(static_cast<int>(CMS::RefContentInfo(in)->typeAsEnum()), type) << name;
        EXPECT_TRUE(log.records().empty()) << name;
    }
}

TEST_F(Rfc4134, CertificatesAloneHaveNoSigner) {
    PiecewiseIn in(sample("4.11.bin"));
    const CMS::RefContentInfo message(in);
    const CMS::SignedData data = CMS::signedData(message);
    EXPECT_TRUE(data.signerInfo().empty());
    EXPECT_FALSE(data.certificates().empty());
    EXPECT_FALSE(data.certificateRevocationLists().empty());
}

TEST_F(Rfc4134, ShapesOfLaterStandardsAreRefused) {
    for (const char* name : {"4.7.bin", "5.2.bin", "7.2.bin"}) {
        const RecordedLog log;
        PiecewiseIn in(sample(name));
        const Caught failure = caught([&] { const CMS::RefContentInfo message(in); });
        EXPECT_EQ(failure.where, "CMS::_ContentInfo::_ContentInfo") << name;
        EXPECT_EQ(failure.line, 389U) << name;
        EXPECT_EQ(failure.details, std::vector<std::string>{"ASN1 Decode failed:"}) << name;
        EXPECT_EQ(log.events(), std::vector<unsigned int>{0x300005E}) << name;
    }
}

TEST_F(Rfc4134, RecipientsAreNamed) {
    PiecewiseIn in(sample("5.1.bin"));
    const CMS::RefContentInfo message(in);
    const CMS::EnvelopedData data = CMS::envelopedData(message);
    ASSERT_EQ(data.recipientInfo().size(), 1U);
    const auto bob = certificate("BobRSASignByCarl.cer");
    EXPECT_EQ(data.recipientInfo().front().issuerAndSerialNumber().serialNumber(), bob->serialNumber());
    EXPECT_EQ(data.recipientInfo().front().issuerAndSerialNumber().issuer(), bob->issuer());
}

TEST_F(Rfc4134, AnEnvelopeOpensWithBobsKey) {
    const norvauthority::Key key = norvauthority::Key::fromDer(sample("BobPrivRSAEncrypt.pri"));
    const NVX509::KeyCertificatePair bobsPair(Crypto::RefKey(new Crypto::PrivateKey(key.newReference())),
                                              certificate("BobRSASignByCarl.cer"));
    const Opened opened = openedBy(sample("5.1.bin"), storeOfPairs({bobsPair}));
    EXPECT_TRUE(opened.good);
    EXPECT_EQ(opened.body, sample("ExContent.bin"));
    EXPECT_EQ(opened.succeeded, std::vector<std::string>{"46346bc7800056bc11d36e2ecd5d71d0"});
    EXPECT_TRUE(opened.events.empty());
}

TEST_F(Rfc4134, AnEnvelopeDoesNotOpenWithAnothersKey) {
    const norvauthority::Key key = norvauthority::Key::fromDer(sample("AlicePrivRSASign.pri"));
    const Crypto::RefKey foreign(new Crypto::PrivateKey(key.newReference()));
    const Opened opened = openedBy(
        sample("5.1.bin"), storeOfPairs({NVX509::KeyCertificatePair(foreign, certificate("BobRSASignByCarl.cer"))}));
    EXPECT_FALSE(opened.good);
    EXPECT_TRUE(opened.body.empty());
    EXPECT_EQ(opened.events, std::vector<unsigned int>{0x300005B});
}
