// gpgsm, NSS and GnuTLS read what the streaming writers make as far as they know it, and the streaming readers what they
// make. What they do not know is in docs/algorithms.md.
#include "support/Cms.h"
#include "support/JudgedTest.h"

#include <norvcrypto/CMSEnvelopeReader.h>
#include <norvcrypto/CMSEnvelopeWriter.h>
#include <norvcrypto/CMSSignedReader.h>
#include <norvcrypto/CMSSignedWriter.h>

using namespace interop;
using namespace Norvane::Crypto;
using CMS::SignedWriter;
using norvauthority::Identity;

namespace {

class StreamsTest : public JudgedTest {
protected:
    void SetUp() override {
        JudgedTest::SetUp();
        initialize();
        put("alice", alice());
        put("bob", bob());
        put("erin", erin());
        work.write("body", m_body);
    }
    static const Identity& person(const std::string& who) {
        return who == "alice" ? alice() : who == "bob" ? bob() : erin();
    }

    /// Writes "sig".
    void sign(const std::string& who, bool attached, bool der, bool attributes, bool pss = false) {
        SignedWriter::Signer signer(cmstest::pairOf(person(who)));
        signer.signedAttributes = attributes;
        signer.rsaScheme = pss ? SignedWriter::RsaScheme::pss : SignedWriter::RsaScheme::pkcs1;
        SignedWriter::Options options;
        options.signers = {signer};
        options.content = attached ? SignedWriter::Content::attached : SignedWriter::Content::detached;
        options.encoding = der ? SignedWriter::Encoding::der : SignedWriter::Encoding::ber;
        SignedWriter writer(options);
        send(writer, "sig");
    }
    /// Writes "msg".
    void encrypt(const std::vector<std::string>& to, CMS::ContentCipher cipher, bool der) {
        std::vector<CMS::EnvelopeRecipient> recipients;
        recipients.reserve(to.size());
        for (const std::string& who : to)
            recipients.emplace_back(cmstest::certificateOf(person(who)));
        CMS::EnvelopeOptions options;
        options.cipher = cipher;
        options.encoding = der ? CMS::EnvelopeEncoding::der : CMS::EnvelopeEncoding::ber;
        options.bodyLength = m_body.size();
        CMS::EnvelopeWriter writer(recipients, options);
        send(writer, "msg");
    }

    /// Has each kind of signature that somebody makes here looked at.
    template <class Look> void forEachSignature(const std::string& who, Look look, bool pss = false) {
        for (const bool attached : {true, false}) {
            for (const bool der : {false, true}) {
                for (const bool attributes : {true, false}) {
                    SCOPED_TRACE(who + (attached ? " attached" : " detached") + (der ? " DER" : " BER") +
                                 (attributes ? " attributes" : "") + (pss ? " PSS" : ""));
                    sign(who, attached, der, attributes, pss);
                    look(attached);
                }
            }
        }
    }
    /// Has a message to these people under each cipher that everybody knows looked at.
    template <class Look> void forEachMessage(const std::vector<std::string>& to, Look look) {
        using CMS::ContentCipher;
        for (const auto cipher : {ContentCipher::aes128Cbc, ContentCipher::aes192Cbc, ContentCipher::aes256Cbc,
                                  ContentCipher::tripleDesCbc}) {
            for (const bool der : {true, false}) {
                SCOPED_TRACE(der ? "DER" : "BER");
                encrypt(to, cipher, der);
                look();
                EXPECT_TRUE(work.read("out") == m_body);
            }
        }
    }

    /// Whether "sig" is signed by that person over the body.
    void accepts(const std::string& who, bool attached) {
        CMS::SignedReader reader(Norvane::MemoryMediaIn(work.read("sig")));
        ASSERT_EQ(reader.isDetached(), !attached);
        if (attached) {
            Norvane::MemoryMediaOut content;
            reader.write(content);
            EXPECT_TRUE(textOf(content) == m_body);
        } else {
            Norvane::MediaOut digest = reader.digest();
            write(digest);
        }
        ASSERT_EQ(reader.signers().size(), 1U);
        const auto& signer = reader.signers().front();
        EXPECT_TRUE(reader.isValid(signer, cmstest::certificateOf(person(who))));
        EXPECT_FALSE(reader.isValid(signer, cmstest::certificateOf(person(who == "bob" ? "alice" : "bob"))));
    }
    /// Whether that person opens "msg".
    void opens(const std::string& who) {
        CMS::EnvelopeReader reader(Norvane::MemoryMediaIn(work.read("msg")));
        ASSERT_TRUE(reader.open(CMS::KeyListLookup({cmstest::pairOf(person(who))}))) << reader.unsupported();
        Norvane::MemoryMediaOut clear;
        reader.write(clear);
        EXPECT_TRUE(textOf(clear) == m_body);
    }

    const std::string m_body = sampleBody() + std::string(70000, 'x');

private:
    static std::string textOf(const Norvane::MemoryMediaOut& out) {
        return {reinterpret_cast<const char*>(out.content().data()), out.content().length()};
    }
    void write(Norvane::MediaOut& out) const {
        out.write(reinterpret_cast<const unsigned char*>(m_body.data()), static_cast<unsigned int>(m_body.size()));
    }
    template <class Writer> void send(Writer& writer, const std::string& file) {
        Norvane::MemoryMediaOut made;
        writer.attach(made);
        write(writer);
        writer.end();
        work.write(file, textOf(made));
    }
};

} // namespace

TEST_F(StreamsTest, GpgsmReadsSignaturesMadeHere) {
    if (!hasGpgsm())
        GTEST_SKIP() << "gpgsm is not installed";
    makeGpgsmHome();
    for (const char* who : {"alice", "erin"}) {
        forEachSignature(who, [this](bool attached) {
            std::vector<std::string> arguments{"gpgsm", "--batch", "--status-fd", "1", "--verify", "sig"};
            if (!attached)
                arguments.emplace_back("body");
            const Answer good = in(arguments);
            EXPECT_EQ(0, good.status) << good.err;
            EXPECT_NE(std::string::npos, good.out.find("[GNUPG:] GOODSIG")) << good.out << good.err;
        });
    }
}

TEST_F(StreamsTest, SignaturesOfGpgsmAreReadHere) {
    if (!hasGpgsm())
        GTEST_SKIP() << "gpgsm is not installed";
    makeGpgsmHome();
    importIntoGpgsm("alice");
    for (const bool attached : {true, false}) {
        std::vector<std::string> arguments{"--local-user", "alice@example.org", "--output", "sig", "--sign"};
        if (!attached)
            arguments.emplace_back("--detach-sign");
        arguments.emplace_back("body");
        const Answer answer = gpgsmWith("x", arguments);
        ASSERT_EQ(0, answer.status) << answer.err;
        accepts("alice", attached);
    }
}

TEST_F(StreamsTest, GpgsmOpensWhatIsEncryptedHereAndTheReverse) {
    if (!hasGpgsm())
        GTEST_SKIP() << "gpgsm is not installed";
    makeGpgsmHome();
    for (const char* who : {"alice", "bob"})
        importIntoGpgsm(who);
    forEachMessage({"alice", "bob"}, [this] {
        const Answer answer = gpgsmWith("x", {"--output", "out", "--decrypt", "msg"});
        EXPECT_EQ(0, answer.status) << answer.err;
    });
    for (const char* cipher : {"AES", "AES256", "3DES"}) {
        succeeds({"gpgsm", "--batch", "--yes", "--cipher-algo", cipher, "--output", "msg", "--recipient",
                  "alice@example.org", "--recipient", "bob@example.org", "--encrypt", "body"});
        opens("alice");
        opens("bob");
    }
}

TEST_F(StreamsTest, NssReadsSignaturesMadeHereAndTheReverse) {
    if (!hasNss())
        GTEST_SKIP() << "the tools of NSS are not installed";
    makeNssDatabase();
    for (const char* who : {"alice", "erin"}) {
        forEachSignature(who, [this](bool attached) {
            std::vector<std::string> arguments{"cmsutil", "-D", "-d", "nss", "-i", "sig", "-n", "-h", "0"};
            if (!attached)
                arguments.insert(arguments.end(), {"-c", "body"});
            const Answer good = in(arguments);
            EXPECT_NE(std::string::npos, (good.out + good.err).find("GoodSignature")) << good.out << good.err;
        });
        importIntoNss(who);
        for (const bool attached : {true, false}) {
            std::vector<std::string> arguments{"cmsutil", "-S",   "-d", "nss", "-N", who,  "-H",  "SHA256",
                                               "-i",      "body", "-o", "sig", "-G", "-Y", "NONE"};
            if (!attached)
                arguments.emplace_back("-T");
            succeeds(arguments);
            accepts(who, attached);
        }
    }
}

TEST_F(StreamsTest, NssOpensWhatIsEncryptedHereAndTheReverse) {
    if (!hasNss())
        GTEST_SKIP() << "the tools of NSS are not installed";
    makeNssDatabase();
    for (const char* who : {"alice", "bob"})
        importIntoNss(who);
    forEachMessage({"alice"}, [this] {
        const Answer answer = in({"cmsutil", "-D", "-d", "nss", "-i", "msg", "-o", "out"});
        EXPECT_EQ(0, answer.status) << answer.err;
    });
    succeeds({"cmsutil", "-E", "-d", "nss", "-r", "alice@example.org,bob@example.org", "-i", "body", "-o", "msg"});
    opens("alice");
    opens("bob");
}

TEST_F(StreamsTest, GnuTlsReadsSignaturesMadeHereAndTheReverse) {
    if (!installed("certtool"))
        GTEST_SKIP() << "certtool is not installed";
    for (const char* who : {"alice", "erin"}) {
        for (const bool pss : {false, true}) {
            if (pss && std::string(who) == "erin")
                continue;
            forEachSignature(
                who,
                [this](bool attached) {
                    std::vector<std::string> arguments{"certtool", "--p7-verify",           "--inder", "--infile",
                                                       "sig",      "--load-ca-certificate", "root.pem"};
                    if (!attached)
                        arguments.insert(arguments.end(), {"--load-data", "body"});
                    const Answer good = in(arguments);
                    EXPECT_EQ(0, good.status) << good.out << good.err;
                },
                pss);
        }
        for (const bool attached : {true, false}) {
            succeeds({"certtool", attached ? "--p7-sign" : "--p7-detached-sign", "--load-privkey",
                      std::string(who) + ".key", "--load-certificate", std::string(who) + ".pem", "--infile", "body",
                      "--outder", "--outfile", "sig"});
            accepts(who, attached);
        }
    }
}
