// The examples of RFC 4134 through the tool.

#include "support/Process.h"
#include "support/Workspace.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

using namespace interop;
using nlohmann::json;

namespace {

// SHA-256 of the DER files AliceDSSSignByCarlNoInherit.cer, AliceRSASignByCarl.cer and DianeDSSSignByCarlInherit.cer,
// as sha256sum tells it.
const std::string aliceDss = "a28a83107ba27b1796837dbe2ed4d9013b703e5e6f05b0bfaa4b9bf286268e0c";
const std::string aliceRsa = "10e79a9993c26a87f2109ec1e81e0ac3ada0ee1bac1fe57fd85450e2c7c2406b";
const std::string dianeDss = "d742769786e2c78bb3df35490852c2e8ade234ee59d1763a43dceac4d8d872d8";

class Rfc4134ToolTest : public testing::Test {
protected:
    void SetUp() override {
        if (!rfc4134("ExContent.bin"))
            GTEST_SKIP() << "the samples of RFC 4134 do not lie beside the project";
    }
    static Answer verify(const std::string& name, std::vector<std::string> more = {}) {
        std::vector<std::string> arguments{"verify", "--signature", *rfc4134(name)};
        arguments.insert(arguments.end(), more.begin(), more.end());
        return norvcrypt(arguments);
    }
    static Answer verifyEmbedded(const std::string& name, std::vector<std::string> more = {}) {
        more.emplace_back("--embedded");
        return verify(name, more);
    }
    static json inspect(const std::string& name) {
        const Answer answer = norvcrypt({"inspect", "--json", *rfc4134(name)});
        EXPECT_EQ(0, answer.status) << name << answer.err;
        return json::parse(answer.out).at(0);
    }
    static void expectGood(const Answer& answer, const std::string& fingerprint) {
        EXPECT_EQ(0, answer.status) << answer.out << answer.err;
        ASSERT_EQ(4U, linesOf(answer.out).size());
        EXPECT_EQ(0U, answer.out.find("signer 1: good signature, certificate SHA-256 " + fingerprint)) << answer.out;
    }
};

TEST_F(Rfc4134ToolTest, SignaturesOverEmbeddedContentVerify) {
    expectGood(verifyEmbedded("4.1.bin"), aliceDss);
    expectGood(verifyEmbedded("4.2.bin"), aliceRsa);
    expectGood(verifyEmbedded("4.4.bin"), aliceDss);
    expectGood(verifyEmbedded("4.5.bin"), aliceRsa);
    expectGood(verifyEmbedded("4.10.bin"), aliceDss);
}

TEST_F(Rfc4134ToolTest, DetachedSignatureVerifies) {
    expectGood(verify("4.3.bin", {"--in", *rfc4134("ExContent.bin")}), aliceDss);
}

TEST_F(Rfc4134ToolTest, DetachedSignatureOverAnotherBodyIsRefused) {
    EXPECT_EQ(1, verify("4.3.bin", {"--in", *rfc4134("4.3.bin")}).status);
}

TEST_F(Rfc4134ToolTest, CertificateFilesServeAsWell) {
    expectGood(verifyEmbedded("4.1.bin", {"--cert", *rfc4134("AliceDSSSignByCarlNoInherit.cer")}), aliceDss);
    EXPECT_EQ(1, verifyEmbedded("4.1.bin", {"--cert", *rfc4134("AliceRSASignByCarl.cer")}).status);
}

TEST_F(Rfc4134ToolTest, SecondSignerWithInheritedParametersIsNotSupported) {
    const Answer answer = verifyEmbedded("4.6.bin");
    EXPECT_EQ(2, answer.status);
    const std::vector<std::string> lines = linesOf(answer.out);
    ASSERT_EQ(6U, lines.size());
    EXPECT_EQ(0U, lines[0].find("signer 1: good signature, certificate SHA-256 " + aliceDss));
    EXPECT_EQ("signer 2: NOT JUDGED, the certificate's key or its parameters are not supported: dsaEncryption, "
              "certificate SHA-256 " +
                  dianeDss + " CN=DianeDSS",
              lines[1]);
}

TEST_F(Rfc4134ToolTest, StructureWithoutSignerIsNoVerdictInFavour) {
    const Answer answer = verify("4.11.bin");
    EXPECT_EQ(1, answer.status);
    EXPECT_EQ("no signer: the structure holds certificates alone, which norvcrypt inspect shows\n", answer.out);
    EXPECT_EQ("", answer.err);
}

TEST_F(Rfc4134ToolTest, SignerNamedByAKeyIdentifierVerifies) {
    expectGood(verifyEmbedded("4.7.bin"), aliceDss);
    const json signer = inspect("4.7.bin")["signers"].at(0);
    EXPECT_FALSE(signer.contains("issuer"));
    EXPECT_EQ("dsaWithSHA1", signer["signatureAlgorithm"]);
    // The subject key identifier of AliceDSSSignByCarlNoInherit.cer, as openssl x509 prints it.
    EXPECT_EQ("be6ca1b3e3c1f7ed4370a4ce1301e2fde397fecd", signer["keyIdentifier"]);
}

TEST_F(Rfc4134ToolTest, RecipientByAKeyThatBothSidesHave) {
    const json object = inspect("5.2.bin");
    ASSERT_EQ(2U, object["recipients"].size());
    EXPECT_EQ("keyTransport", object["recipients"][0]["kind"]);
    EXPECT_EQ("keyEncryptionKey", object["recipients"][1]["kind"]);
    // "MailListRC2"
    EXPECT_EQ("4d61696c4c697374524332", object["recipients"][1]["keyIdentifier"]);
    const Answer answer = verify("5.2.bin");
    EXPECT_EQ(2, answer.status);
    EXPECT_EQ("norvcrypt: " + *rfc4134("5.2.bin") +
                  " holds no signature but pkcs7-envelopedData, which norvcrypt decrypt reads\n",
              answer.err);
}

TEST_F(Rfc4134ToolTest, StructuresBeyondPkcs7AreRefused) {
    const Answer answer = norvcrypt({"inspect", *rfc4134("7.2.bin")});
    EXPECT_EQ(2, answer.status);
    EXPECT_EQ("", answer.out);
    ASSERT_EQ(1U, linesOf(answer.err).size());
    EXPECT_NE(std::string::npos, answer.err.find("of a form that is not supported")) << answer.err;
    EXPECT_EQ("norvcrypt: " + *rfc4134("7.2.bin") + " holds no signature but pkcs7-encryptedData\n",
              verify("7.2.bin").err);
}

TEST_F(Rfc4134ToolTest, OtherContentTypesDecode) {
    EXPECT_EQ("pkcs7-data", inspect("3.1.bin")["contentType"]);
    EXPECT_EQ("pkcs7-data", inspect("3.2.bin")["contentType"]);
    EXPECT_EQ("pkcs7-digestData", inspect("6.0.bin")["contentType"]);
    EXPECT_EQ("pkcs7-encryptedData", inspect("7.1.bin")["contentType"]);
}

TEST_F(Rfc4134ToolTest, CertificatesAndListInAStructure) {
    const json object = inspect("4.11.bin");
    EXPECT_EQ(json::array(), object["signers"]);
    ASSERT_EQ(2U, object["certificates"].size());
    EXPECT_EQ("CN=CarlDSS", object["certificates"][0]["subject"]);
    EXPECT_EQ("CN=AliceDSS", object["certificates"][1]["subject"]);
    EXPECT_EQ("c8", object["certificates"][1]["serial"]);
    EXPECT_EQ(json::array({"AliceDSS@example.com"}), object["certificates"][1]["emails"]);
    ASSERT_EQ(1U, object["crls"].size());
    EXPECT_EQ(5, object["crls"][0]["entries"]);
}

TEST_F(Rfc4134ToolTest, EmbeddedAndDetachedAreToldApart) {
    EXPECT_EQ(false, inspect("4.2.bin")["detached"]);
    EXPECT_EQ(true, inspect("4.3.bin")["detached"]);
}

TEST_F(Rfc4134ToolTest, RecipientOfEnvelopedData) {
    EXPECT_EQ(json({{{"kind", "keyTransport"},
                     {"issuer", "CN=CarlRSA"},
                     {"serial", "46346bc7800056bc11d36e2ecd5d71d0"},
                     {"algorithm", "rsaEncryption (1.2.840.113549.1.1.1)"}}}),
              inspect("5.1.bin")["recipients"]);
}

TEST_F(Rfc4134ToolTest, BobDecryptsHisMessage) {
    const Workspace work;
    const auto decrypt = [&work](const std::string& certificate, const std::string& key) {
        return norvcrypt({"decrypt", "--cert", *rfc4134(certificate), "--key", *rfc4134(key), "--in",
                          *rfc4134("5.1.bin"), "--out", work.path("out")});
    };
    const Answer answer = decrypt("BobRSASignByCarl.cer", "BobPrivRSAEncrypt.pri");
    EXPECT_EQ(0, answer.status) << answer.err;
    // A warning of the sample's mode may stand in front.
    EXPECT_NE(std::string::npos, answer.err.find("norvcrypt: recipient 1, issuer CN=CarlRSA serial number "
                                                 "46346bc7800056bc11d36e2ecd5d71d0: decrypted with the key in "))
        << answer.err;
    EXPECT_EQ("This is some sample content.", work.read("out"));
    const Answer refused = decrypt("AliceRSASignByCarl.cer", "AlicePrivRSASign.pri");
    EXPECT_EQ(1, refused.status);
    EXPECT_NE(std::string::npos, refused.err.find(": no key for it (event 0x300005A)")) << refused.err;
}

TEST_F(Rfc4134ToolTest, CertificatesListsAndKeys) {
    EXPECT_EQ("CN=AliceDSS", inspect("AliceDSSSignByCarlNoInherit.cer")["subject"]);
    EXPECT_EQ("CN=DianeDSS", inspect("DianeDSSSignByCarlInherit.cer")["subject"]);
    EXPECT_EQ(0, inspect("CarlDSSCRLEmpty.crl")["entries"]);
    EXPECT_EQ("RSA", inspect("BobPrivRSAEncrypt.pri")["algorithm"]);
    EXPECT_EQ("DSA", inspect("AlicePrivDSSSign.pri")["algorithm"]);
}

} // namespace
