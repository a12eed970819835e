// norvcrypt inspect: what it tells of signed and encrypted messages of the openssl program.

#include "support/ToolTest.h"

#include <nlohmann/json.hpp>

using namespace interop;
using nlohmann::json;

namespace {

class InspectMessagesToolTest : public ToolTest {
protected:
    void SetUp() override {
        work.write("body", sampleBody());
        work.write("alice.pem", alice().certificate.pem());
        work.write("alice.key", alice().key.pkcs8Pem());
        work.write("erin.pem", erin().certificate.pem());
    }
    /// Makes "msg".
    void openssl(const std::vector<std::string>& more) {
        std::vector<std::string> arguments{"openssl", "cms",  "-binary", "-outform", "DER",
                                           "-in",     "body", "-out",    "msg"};
        arguments.insert(arguments.end(), more.begin(), more.end());
        const Answer answer = run({.arguments = arguments, .directory = work.directory()});
        ASSERT_EQ(0, answer.status) << answer.err;
    }
    json inspect() {
        const Answer answer = tool({"inspect", "--json", "msg"});
        EXPECT_EQ(0, answer.status) << answer.err;
        return json::parse(answer.out).at(0);
    }

    const json aliceName{{"issuer", "CN=Interop Root,O=Interop,C=DE"}, {"serial", "2001"}};
};

TEST_F(InspectMessagesToolTest, RecipientsOfEveryKind) {
    openssl({"-encrypt", "-aes192", "-recip", "alice.pem", "-keyopt", "rsa_padding_mode:oaep", "-recip", "erin.pem",
             "-secretkey", "000102030405060708090A0B0C0D0E0F", "-secretkeyid", "c0ffee", "-pwri_password", "secret"});
    const json object = inspect();
    EXPECT_EQ("pkcs7-envelopedData", object["contentType"]);
    EXPECT_EQ(false, object["authenticated"]);
    EXPECT_EQ("AES-192-CBC (2.16.840.1.101.3.4.1.22)", object["cipher"]);
    std::map<std::string, json> recipients;
    for (const json& recipient : object["recipients"])
        recipients[recipient["kind"]] = recipient;
    ASSERT_EQ(4U, recipients.size()) << object;
    EXPECT_EQ("2001", recipients["keyTransport"]["serial"]);
    EXPECT_EQ("RSAES-OAEP (1.2.840.113549.1.1.7)", recipients["keyTransport"]["algorithm"]);
    EXPECT_EQ("2003", recipients["keyAgreement"]["serial"]);
    EXPECT_EQ("dhSinglePass-stdDH-sha1kdf-scheme (1.3.133.16.840.63.0.2)", recipients["keyAgreement"]["algorithm"]);
    EXPECT_EQ("c0ffee", recipients["keyEncryptionKey"]["keyIdentifier"]);
    EXPECT_EQ("id-aes128-wrap (2.16.840.1.101.3.4.1.5)", recipients["keyEncryptionKey"]["algorithm"]);
    EXPECT_FALSE(recipients["password"].contains("issuer"));
    for (const auto& [kind, recipient] : recipients)
        EXPECT_FALSE(recipient.contains("problems")) << recipient;
}

TEST_F(InspectMessagesToolTest, AuthenticatedContent) {
    openssl({"-encrypt", "-aes-256-gcm", "-keyid", "-recip", "alice.pem"});
    const json object = inspect();
    EXPECT_EQ("id-smime-ct-authEnvelopedData", object["contentType"]);
    EXPECT_EQ(true, object["authenticated"]);
    EXPECT_EQ("id-aes256-GCM (2.16.840.1.101.3.4.1.46)", object["cipher"]);
    ASSERT_EQ(1U, object["recipients"].size());
    EXPECT_EQ(40U, object["recipients"][0]["keyIdentifier"].get<std::string>().size());
}

TEST_F(InspectMessagesToolTest, WhatASignerSays) {
    openssl({"-sign", "-signer", "alice.pem", "-inkey", "alice.key", "-keyopt", "rsa_padding_mode:pss"});
    const json object = inspect();
    EXPECT_EQ(true, object["detached"]);
    ASSERT_EQ(1U, object["signers"].size());
    const json& signer = object["signers"][0];
    EXPECT_EQ("2001", signer["serial"]);
    EXPECT_EQ("sha256", signer["digestAlgorithm"]);
    EXPECT_EQ("RSASSA-PSS", signer["signatureAlgorithm"]);
    EXPECT_EQ(0U, signer["signingTime"].get<std::string>().find("20"));
    EXPECT_EQ('Z', signer["signingTime"].get<std::string>().back());
    // What openssl cms -cmsout -print tells to be the first of them.
    EXPECT_EQ("aes-256-cbc", signer["capabilities"].at(0));
    EXPECT_EQ(1U, object["certificates"].size());
}

TEST_F(InspectMessagesToolTest, DamagedAndCutOff) {
    openssl({"-encrypt", "-aes256", "-recip", "alice.pem"});
    const std::string encrypted = work.read("msg");
    openssl({"-sign", "-nodetach", "-signer", "alice.pem", "-inkey", "alice.key"});
    const std::string wholeSigned = work.read("msg");
    for (const std::string& der : {encrypted, wholeSigned}) {
        for (const std::size_t length : {der.size() / 3, der.size() - 1}) {
            work.write("msg", der.substr(0, length));
            const Answer answer = tool({"inspect", "msg"});
            EXPECT_EQ(2, answer.status) << length;
            EXPECT_EQ("", answer.out);
            EXPECT_EQ(1U, linesOf(answer.err).size());
        }
    }
}

} // namespace
