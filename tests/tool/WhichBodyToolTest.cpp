// norvcrypt verify: which body is judged, and whether it is the one that the structure carries.

#include "support/SigningToolTest.h"

using namespace interop;

namespace {

class WhichBodyToolTest : public SigningToolTest {
protected:
    void SetUp() override {
        SigningToolTest::SetUp();
        openssl({"-nodetach"}, "whole");
        openssl({}, "sig");
        before = work.names();
    }
    void openssl(const std::vector<std::string>& more, const std::string& out) {
        std::vector<std::string> arguments{"openssl",   "cms",    "-sign",     "-binary", "-outform", "DER",  "-signer",
                                           "alice.pem", "-inkey", "alice.key", "-in",     "body",     "-out", out};
        arguments.insert(arguments.end(), more.begin(), more.end());
        ASSERT_EQ(0, run(Command{.arguments = arguments, .directory = work.directory()}).status);
    }
    /// The attributes that "sig" signs, and in "stripped" the same signature without them.
    std::string stripAttributes() {
        const std::string der = work.read("sig");
        const auto* cursor = reinterpret_cast<const unsigned char*>(der.data());
        const norvauthority::Pkcs7Ptr structure(d2i_PKCS7(nullptr, &cursor, static_cast<long>(der.size())));
        PKCS7_SIGNER_INFO* signer = sk_PKCS7_SIGNER_INFO_value(structure->d.sign->signer_info, 0);
        unsigned char* set = nullptr;
        const int length =
            ASN1_item_i2d(reinterpret_cast<ASN1_VALUE*>(signer->auth_attr), &set, ASN1_ITEM_rptr(PKCS7_ATTR_VERIFY));
        std::string attributes(reinterpret_cast<const char*>(set), static_cast<std::size_t>(length));
        OPENSSL_free(set);
        sk_X509_ATTRIBUTE_pop_free(signer->auth_attr, X509_ATTRIBUTE_free);
        signer->auth_attr = nullptr;
        unsigned char* stripped = nullptr;
        const int strippedLength = i2d_PKCS7(structure.get(), &stripped);
        work.write("stripped", norvauthority::Bytes(stripped, stripped + strippedLength));
        OPENSSL_free(stripped);
        return attributes;
    }
};

TEST_F(WhichBodyToolTest, AContentIsJudgedWhenItIsAskedFor) {
    const Answer answer = tool({"verify", "--signature", "whole", "--embedded"});
    expectGoodOver(bodyLine("the content of whole", body.size()), answer);
}

// The sender decides whether there is a content: without a word about it he would choose what is judged.
TEST_F(WhichBodyToolTest, AContentIsNotJudgedUnasked) {
    expectFailure(tool({"verify", "--signature", "whole"}, body),
                  "norvcrypt: whole carries its content: give --embedded to judge that, or --in with the body that it "
                  "is to be compared with\n");
}

TEST_F(WhichBodyToolTest, ADetachedSignatureHasNoContentToJudge) {
    expectFailure(tool({"verify", "--signature", "sig", "--embedded"}),
                  "norvcrypt: sig carries no content, the signature is detached: give its body with --in\n");
}

TEST_F(WhichBodyToolTest, EitherTheContentOrABody) {
    expectFailure(tool({"verify", "--signature", "whole", "--embedded", "--in", "body"}), "--embedded");
}

TEST_F(WhichBodyToolTest, AContentMustBeTheBodyGiven) {
    expectGoodOver("body: body, " + std::to_string(body.size()) + " bytes, which is the content of whole",
                   tool({"verify", "--signature", "whole", "--in", "body"}));
    for (const std::string& other : {body + "x", body.substr(1), std::string()}) {
        const Answer answer = tool({"verify", "--signature", "whole", "--in", "-"}, other);
        EXPECT_EQ(1, answer.status);
        EXPECT_EQ(
            "signer 1: NOT VERIFIED, the body is not the content that the structure carries, certificate SHA-256 " +
                alice().certificate.sha256() + " CN=alice,O=Interop,C=DE",
            linesOf(answer.out).at(0));
        EXPECT_EQ("body: standard input, " + std::to_string(other.size()) + " bytes, which is not the content of whole",
                  linesOf(answer.out).at(1));
    }
}

// A signature over the encoding of attributes does not tell whether it is meant for them or for the body that they name.
TEST_F(WhichBodyToolTest, ASetOfAttributesIsNeitherSignedNorAccepted) {
    const std::string attributes = stripAttributes();
    ASSERT_EQ('1', attributes[0]);
    const Answer answer = tool({"verify", "--signature", "stripped"}, attributes);
    EXPECT_EQ(1, answer.status) << answer.out << answer.err;
    EXPECT_EQ(0U, answer.out.find("signer 1: NOT VERIFIED, the body is a set of attributes, so that the signature may "
                                  "have been made for another body, certificate SHA-256 "))
        << answer.out;
    work.write("attributes", attributes);
    before = work.names();
    expectFailure(sign({"--in", "attributes", "--out", "new"}),
                  "norvcrypt: will not sign attributes: it is a set of attributes, whose signature would be good for "
                  "another body, too\n");
    expectFailure(sign({"--out", "new"}, attributes), "will not sign standard input: ");
    work.write("attributes", attributes + "\n");
    EXPECT_EQ(0, sign({"--in", "attributes", "--out", "new"}).status);
}

TEST_F(WhichBodyToolTest, MoreThanAHundredSignersAreNotJudged) {
    const std::string der = work.read("sig");
    const auto* cursor = reinterpret_cast<const unsigned char*>(der.data());
    const norvauthority::Pkcs7Ptr structure(d2i_PKCS7(nullptr, &cursor, static_cast<long>(der.size())));
    auto* signers = structure->d.sign->signer_info;
    const auto* first = reinterpret_cast<const ASN1_VALUE*>(sk_PKCS7_SIGNER_INFO_value(signers, 0));
    while (sk_PKCS7_SIGNER_INFO_num(signers) < 101)
        sk_PKCS7_SIGNER_INFO_push(
            signers, reinterpret_cast<PKCS7_SIGNER_INFO*>(ASN1_item_dup(ASN1_ITEM_rptr(PKCS7_SIGNER_INFO), first)));
    unsigned char* out = nullptr;
    const int length = i2d_PKCS7(structure.get(), &out);
    work.write("many", norvauthority::Bytes(out, out + length));
    OPENSSL_free(out);
    before = work.names();
    expectFailure(tool({"verify", "--signature", "many", "--in", "body"}),
                  "norvcrypt: cannot judge the signatures in many: ");
    expectFailure(tool({"verify", "--signature", "many", "--in", "body"}), "more than 100 signers");
}

} // namespace
