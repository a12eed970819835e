// What the envelope writer writes, `openssl cms` opens and prints.
#include "support/JudgedTest.h"

#include <norvcrypto/CMSEnvelopeWriter.h>
#include <norvcrypto/Crypto.h>

#include <norvcmsg/File.h>

#include <openssl/crypto.h>

using namespace interop;
using namespace Norvane::Crypto;
using CMS::ContentCipher;
using CMS::EnvelopeEncoding;
using CMS::EnvelopeRecipient;
using Norvane::Buffer;

namespace {

Buffer bufferOf(const std::string& text) {
    return {text.data(), static_cast<unsigned int>(text.size()), false};
}

const norvauthority::Identity& onCurve(const std::string& curve) {
    static std::map<std::string, norvauthority::Identity> made;
    if (made.find(curve) == made.end()) {
        made[curve] = norvauthority::issue({.subject = {{"CN", curve}},
                                            .key = norvauthority::Key::ec(curve),
                                            .issuer = &root(),
                                            .serial = "77" + std::to_string(made.size())});
    }
    return made.at(curve);
}

NVX509::RefCertificate certificateOf(const norvauthority::Identity& identity) {
    const norvauthority::Bytes& der = identity.certificate.der;
    return NVX509::CertificateFactory().readDER(Buffer(der.data(), static_cast<unsigned int>(der.size()), false));
}

struct Kind {
    std::string name;
    EnvelopeRecipient recipient;
    std::vector<std::string> options; ///< of `openssl cms -decrypt`
};

class EnvelopeWriterOpenSsl : public JudgedTest {
protected:
    void SetUp() override {
        Norvane::Crypto::initialize();
        JudgedTest::SetUp();
        put("bob", bob());
        for (const char* curve : {"P-256", "P-384", "P-521"})
            put(curve, onCurve(curve));
    }

    static std::vector<Kind> kinds() {
        const std::string key = "0123456789abcdef0123456789abcdef";
        const auto rsa = certificateOf(bob());
        std::vector<Kind> all{
            {"rsa", EnvelopeRecipient(rsa), recipient("bob")},
            {"rsa by key identifier", EnvelopeRecipient(rsa, CMS::NamedBy::subjectKeyIdentifier), recipient("bob")},
            {"oaep", EnvelopeRecipient::rsaOaep(rsa, {Hasher::SHA384, Hasher::SHA1, bufferOf("label")}),
             recipient("bob")},
            {"key",
             EnvelopeRecipient::keyEncryptionKey(bufferOf(key), bufferOf("\x01\x02")),
             {"-secretkey", norvauthority::toHex(norvauthority::bytes(key)), "-secretkeyid", "0102"}},
            {"password",
             EnvelopeRecipient::password(bufferOf("open sesame"), {1000}),
             {"-pwri_password", "open sesame"}},
        };
        for (const char* curve : {"P-256", "P-384", "P-521"})
            all.push_back({curve, EnvelopeRecipient(certificateOf(onCurve(curve))), recipient(curve)});
        return all;
    }
    static std::vector<std::string> recipient(const std::string& name) {
        return {"-recip", name + ".pem", "-inkey", name + ".key"};
    }

    void write(const std::vector<EnvelopeRecipient>& recipients, const CMS::EnvelopeOptions& options,
               const std::string& body) {
        Norvane::FileMediaOut file(Norvane::File::Path(work.path("msg")));
        CMS::EnvelopeWriter writer(recipients, options);
        writer.attach(file);
        writer.write(bufferOf(body));
        writer.end();
    }
    void opens(const Kind& kind, const std::string& body) {
        std::vector<std::string> arguments{"openssl", "cms", "-decrypt", "-binary", "-inform",
                                           "DER",     "-in", "msg",      "-out",    "out"};
        arguments.insert(arguments.end(), kind.options.begin(), kind.options.end());
        succeeds(arguments);
        EXPECT_TRUE(work.read("out") == body) << kind.name;
    }
};

} // namespace

TEST_F(EnvelopeWriterOpenSsl, DecryptsEveryKindInBothEncodings) {
    std::string body;
    for (int i = 0; i < 50000; ++i)
        body += static_cast<char>(i * 7 + i / 251);
    const std::vector<Kind> all = kinds();
    for (const ContentCipher cipher : {ContentCipher::aes128Cbc, ContentCipher::tripleDesCbc, ContentCipher::aes256Gcm})
        for (const EnvelopeEncoding encoding : {EnvelopeEncoding::ber, EnvelopeEncoding::der})
            for (const Kind& kind : all) {
                SCOPED_TRACE(kind.name);
                CMS::EnvelopeOptions options;
                options.cipher = cipher;
                options.encoding = encoding;
                options.bodyLength = body.size();
                write({kind.recipient}, options, body);
                opens(kind, body);
            }
}

TEST_F(EnvelopeWriterOpenSsl, DecryptsForEachOfMany) {
    const std::vector<Kind> all = kinds();
    std::vector<EnvelopeRecipient> recipients;
    recipients.reserve(all.size());
    for (const Kind& kind : all)
        recipients.push_back(kind.recipient);
    write(recipients, {ContentCipher::aes256Cbc}, sampleBody());
    for (const Kind& kind : all)
        opens(kind, sampleBody());
}

/// A type other than data has to be named by an authenticated attribute (RFC 5083, 2.1), which is what the tag covers beside
/// the content.
TEST_F(EnvelopeWriterOpenSsl, DecryptsContentOfOtherTypesWithAuthenticatedAttributes) {
    const std::vector<Kind> all = kinds();
    bool isRead = false;
    for (const ContentCipher cipher : {ContentCipher::aes128Gcm, ContentCipher::aes192Gcm, ContentCipher::aes256Gcm})
        for (const EnvelopeEncoding encoding : {EnvelopeEncoding::ber, EnvelopeEncoding::der}) {
            CMS::EnvelopeOptions options;
            options.cipher = cipher;
            options.encoding = encoding;
            options.bodyLength = sampleBody().size();
            options.contentType = "1.2.840.113549.1.7.2";
            write({all.front().recipient}, options, sampleBody());
            if (!isRead) {
                const Answer answer = in({"openssl", "cms", "-decrypt", "-binary", "-inform", "DER", "-in", "msg",
                                          "-out", "out", "-recip", "bob.pem", "-inkey", "bob.key"});
                if (answer.status != 0 && OpenSSL_version_num() < 0x30000160) // 3.0.19 does not, 3.0.22 does
                    GTEST_SKIP() << "this release of OpenSSL does not read authenticated attributes: " << answer.err;
            }
            isRead = true;
            const Answer printed =
                in({"openssl", "cms", "-cmsout", "-print", "-noout", "-inform", "DER", "-in", "msg"});
            EXPECT_NE(std::string::npos, printed.out.find("contentType: pkcs7-signedData")) << printed.out;
            EXPECT_NE(std::string::npos, printed.out.find("object: contentType")) << printed.out;
            opens(all.front(), sampleBody());
        }
    // And what the attribute says is under the tag.
    std::string message = work.read("msg");
    const std::string signedData = "\x2A\x86\x48\x86\xF7\x0D\x01\x07\x02";
    ASSERT_NE(message.rfind(signedData), message.find(signedData));
    message[message.rfind(signedData) + signedData.size() - 1] = '\x03';
    work.write("msg", message);
    const Answer answer = in({"openssl", "cms", "-decrypt", "-binary", "-inform", "DER", "-in", "msg", "-out", "out",
                              "-recip", "bob.pem", "-inkey", "bob.key"});
    EXPECT_NE(0, answer.status) << "changed";
}

/// Version numbers and algorithms as another program names them.
TEST_F(EnvelopeWriterOpenSsl, PrintsWhatIsThere) {
    const std::vector<Kind> all = kinds();
    write({all[0].recipient, all[2].recipient, all[3].recipient, all[4].recipient, all[5].recipient},
          {ContentCipher::aes256Cbc}, sampleBody());
    const Answer printed = in({"openssl", "cms", "-cmsout", "-print", "-noout", "-inform", "DER", "-in", "msg"});
    ASSERT_EQ(printed.status, 0) << printed.err;
    std::size_t at = 0;
    for (const char* text : {"pkcs7-envelopedData",
                             "version: 3",
                             "d.ktri",
                             "version: 0",
                             "rsaEncryption",
                             "d.ktri",
                             "rsaesOaep",
                             "sha384",
                             "label",
                             "d.kekri",
                             "version: 4",
                             "id-aes256-wrap",
                             "d.pwri",
                             "version: 0",
                             "PBKDF2",
                             "hmacWithSHA256",
                             "id-alg-PWRI-KEK",
                             "aes-256-cbc",
                             "d.kari",
                             "version: 3",
                             "id-ecPublicKey",
                             "dhSinglePass-stdDH-sha256kdf-scheme",
                             "id-aes256-wrap",
                             "pkcs7-data",
                             "aes-256-cbc"}) {
        const std::size_t found = printed.out.find(text, at);
        ASSERT_NE(found, std::string::npos) << text << " is not there, or not in this place:\n" << printed.out;
        at = found;
    }
}
