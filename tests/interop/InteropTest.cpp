// What the tool signs, other programs accept; what they sign, the tool accepts.

#include "support/JudgedTest.h"

#include <openssl/evp.h>

#include <memory>
#include <utility>

using namespace interop;
using norvauthority::Identity;

namespace {

constexpr int signingFlags = PKCS7_DETACHED | PKCS7_BINARY | PKCS7_NOSMIMECAP;

void addSigner(PKCS7* structure, const Identity& identity, const EVP_MD* digest) {
    const norvauthority::X509Ptr certificate = identity.certificate.x509();
    ASSERT_NE(nullptr, PKCS7_sign_add_signer(structure, certificate.get(), identity.key.get(), digest, signingFlags));
}

class InteropTest : public JudgedTest {
protected:
    void SetUp() override {
        JudgedTest::SetUp();
        body = sampleBody();
        work.write("body", body);
        put("alice", alice());
        put("dora", dora());
        put("erin", erin());
    }
    void toolSigns(const std::string& who, const std::string& digest) {
        succeeds({norvtest::norvcryptProgram, "sign", "--cert", who + ".pem", "--key", who + ".key", "--chain",
                  "root.pem", "--digest", digest, "--in", "body", "--out", "sig"});
    }
    /// The tool accepts "sig" over the body, and refuses it over another one when it is detached.
    void toolAccepts(const std::string& what, bool detached) {
        std::vector<std::string> arguments{norvtest::norvcryptProgram, "verify", "--signature", "sig"};
        if (detached) {
            arguments.insert(arguments.end(), {"--in", "body"});
            const Answer refused = in({norvtest::norvcryptProgram, "verify", "--signature", "sig"}, body + "x");
            EXPECT_EQ(1, refused.status) << what << refused.out << refused.err;
        } else {
            arguments.emplace_back("--embedded");
        }
        const Answer answer = in(arguments);
        EXPECT_EQ(0, answer.status) << what << ": " << answer.out << answer.err;
        EXPECT_NE(std::string::npos, answer.out.find(": good signature")) << what;
    }
    Answer opensslVerifies(const std::string& content) {
        return in({"openssl", "cms", "-verify", "-binary", "-inform", "DER", "-in", "sig", "-content", content,
                   "-CAfile", "root.pem", "-out", "/dev/null"});
    }

    std::string body;
};

TEST_F(InteropTest, OpenSslAcceptsOurSignatures) {
    work.write("other", body + "x");
    for (const char* who : {"alice", "dora", "erin"})
        for (const char* digest : {"sha1", "sha256"}) {
            toolSigns(who, digest);
            EXPECT_EQ(0, opensslVerifies("body").status) << who << digest;
            EXPECT_NE(0, opensslVerifies("other").status) << who << digest;
        }
    for (const char* who : {"alice", "erin"}) {
        toolSigns(who, "sha512");
        EXPECT_EQ(0, opensslVerifies("body").status) << who;
    }
}

TEST_F(InteropTest, OpenSslReadsOurPem) {
    succeeds({norvtest::norvcryptProgram, "sign", "--cert", "alice.pem", "--key", "alice.key", "--in", "body", "--out",
              "sig.pem", "--pem"});
    for (const char* command : {"cms", "smime"})
        succeeds({"openssl", command, "-verify", "-binary", "-inform", "PEM", "-in", "sig.pem", "-content", "body",
                  "-CAfile", "root.pem", "-out", "/dev/null"});
}

TEST_F(InteropTest, WeAcceptWhatOpenSslSigns) {
    for (const char* who : {"alice", "dora", "erin"})
        for (const char* digest : {"sha1", "sha256", "sha512"})
            for (const bool attributes : {true, false})
                for (const bool detached : {true, false})
                    for (const bool stream : {true, false}) {
                        // PKCS#7 names no DSA algorithm with SHA-512.
                        if (std::string(who) == "dora" && std::string(digest) == "sha512")
                            continue;
                        // A streaming sender puts the content in whatever else it is told.
                        if (stream && detached)
                            continue;
                        std::vector<std::string> arguments{"openssl",  "cms",
                                                           "-sign",    "-binary",
                                                           "-outform", "DER",
                                                           "-signer",  std::string(who) + ".pem",
                                                           "-inkey",   std::string(who) + ".key",
                                                           "-md",      digest,
                                                           "-in",      "body",
                                                           "-out",     "sig"};
                        if (!attributes)
                            arguments.emplace_back("-noattr");
                        if (!detached)
                            arguments.emplace_back("-nodetach");
                        if (stream)
                            arguments.emplace_back("-stream");
                        succeeds(arguments);
                        std::string what;
                        for (const std::string& argument : arguments)
                            what.append(argument).append(" ");
                        toolAccepts(what, detached);
                    }
}

TEST_F(InteropTest, StreamedSignatureIsReallyIndefiniteLength) {
    succeeds({"openssl", "cms", "-sign", "-binary", "-outform", "DER", "-signer", "alice.pem", "-inkey", "alice.key",
              "-nodetach", "-stream", "-in", "body", "-out", "sig"});
    EXPECT_EQ("3080", norvauthority::toHex(norvauthority::bytes(work.read("sig").substr(0, 2))));
    toolAccepts("indefinite length", false);
}

TEST_F(InteropTest, SeveralSignersWithDifferentDigestsInOnePass) {
    const norvauthority::Pkcs7Ptr structure(
        PKCS7_sign(nullptr, nullptr, nullptr, nullptr, signingFlags | PKCS7_PARTIAL));
    ASSERT_NE(nullptr, structure);
    addSigner(structure.get(), alice(), EVP_sha256());
    addSigner(structure.get(), erin(), EVP_sha512());
    const std::unique_ptr<BIO, decltype(&BIO_free)> content(BIO_new_mem_buf(body.data(), static_cast<int>(body.size())),
                                                            BIO_free);
    ASSERT_EQ(1, PKCS7_final(structure.get(), content.get(), signingFlags));
    unsigned char* der = nullptr;
    const int length = i2d_PKCS7(structure.get(), &der);
    ASSERT_LT(0, length);
    work.write("sig", norvauthority::Bytes(der, der + length));
    OPENSSL_free(der);
    const Answer answer = in({norvtest::norvcryptProgram, "verify", "--signature", "sig"}, body);
    EXPECT_EQ(0, answer.status) << answer.out << answer.err;
    EXPECT_EQ(4U, linesOf(answer.out).size());
    EXPECT_NE(std::string::npos, answer.out.find(alice().certificate.sha256()));
    EXPECT_NE(std::string::npos, answer.out.find(erin().certificate.sha256()));
    const Answer one = in({norvtest::norvcryptProgram, "verify", "--signature", "sig", "--cert", "erin.pem"}, body);
    EXPECT_EQ(1, one.status) << "one of two signers is not enough";
}

TEST_F(InteropTest, SignatureWithoutCertificatesNeedsOne) {
    succeeds({"openssl", "cms", "-sign", "-binary", "-outform", "DER", "-signer", "alice.pem", "-inkey", "alice.key",
              "-nocerts", "-in", "body", "-out", "sig"});
    EXPECT_EQ(1, in({norvtest::norvcryptProgram, "verify", "--signature", "sig", "--in", "body"}).status);
    EXPECT_EQ(
        0,
        in({norvtest::norvcryptProgram, "verify", "--signature", "sig", "--in", "body", "--cert", "alice.pem"}).status);
}

TEST_F(InteropTest, EmbeddedEmptyBodyIsNotDetached) {
    work.write("empty", std::string());
    succeeds({"openssl", "cms", "-sign", "-binary", "-outform", "DER", "-signer", "alice.pem", "-inkey", "alice.key",
              "-nodetach", "-in", "empty", "-out", "sig"});
    EXPECT_EQ(0, in({norvtest::norvcryptProgram, "verify", "--signature", "sig", "--embedded"}).status);
    EXPECT_EQ(2, in({norvtest::norvcryptProgram, "verify", "--signature", "sig"}, "not looked at").status);
    EXPECT_EQ(1, in({norvtest::norvcryptProgram, "verify", "--signature", "sig", "--in", "body"}).status);
}

TEST_F(InteropTest, WhatIsNotSupportedIsNamedAndNeverCalledBad) {
    const auto signedAs = [&](const std::string& who, const std::vector<std::string>& more) {
        std::vector<std::string> arguments{"openssl", "cms",     "-sign",      "-binary", "-outform",
                                           "DER",     "-signer", who + ".pem", "-inkey",  who + ".key",
                                           "-in",     "body",    "-out",       "sig"};
        arguments.insert(arguments.end(), more.begin(), more.end());
        succeeds(arguments);
        return in({norvtest::norvcryptProgram, "verify", "--signature", "sig", "--in", "body"});
    };
    const std::vector<std::vector<std::string>> shapes{{}, {"-noattr"}, {"-nodetach"}};
    for (const std::vector<std::string>& more : shapes) {
        std::vector<std::string> pss = more;
        pss.insert(pss.end(), {"-keyopt", "rsa_padding_mode:pss"});
        const Answer named = signedAs("alice", pss);
        EXPECT_EQ(2, named.status) << named.out << named.err;
        EXPECT_EQ("signer 1: NOT JUDGED, the signature algorithm is not supported: RSASSA-PSS, certificate SHA-256 " +
                      alice().certificate.sha256() + " CN=alice,O=Interop,C=DE",
                  linesOf(named.out).at(0));
        for (const char* who : {"alice", "erin"}) {
            std::vector<std::string> identifier = more;
            identifier.emplace_back("-keyid");
            const Answer answer = signedAs(who, identifier);
            EXPECT_EQ(2, answer.status) << answer.out << answer.err;
            EXPECT_EQ("", answer.out);
            EXPECT_EQ("norvcrypt: sig cannot be judged: it holds a signer that is named by a key identifier, which is "
                      "not supported\n",
                      answer.err);
        }
    }
    // In PEM, and from standard input, where nothing can be read twice.
    succeeds({"openssl", "cms", "-sign", "-binary", "-outform", "PEM", "-signer", "alice.pem", "-inkey", "alice.key",
              "-in", "body", "-out", "sig", "-keyid"});
    const Answer piped =
        in({norvtest::norvcryptProgram, "verify", "--signature", "-", "--in", "body"}, work.read("sig"));
    EXPECT_EQ(2, piped.status);
    EXPECT_NE(std::string::npos, piped.err.find("standard input cannot be judged: it holds a signer that is named by"))
        << piped.err;
    // What can be judged: SHA-3 with RSA.
    EXPECT_EQ(0, signedAs("alice", {"-md", "sha3-256"}).status);
}

class GpgsmTest : public InteropTest {
protected:
    void SetUp() override {
        if (!hasGpgsm())
            GTEST_SKIP() << "gpgsm is not installed";
        InteropTest::SetUp();
        makeGpgsmHome();
    }
};

TEST_F(GpgsmTest, AcceptsOurSignatures) {
    for (const char* digest : {"sha256", "sha512"}) {
        toolSigns("alice", digest);
        const Answer good = in({"gpgsm", "--batch", "--status-fd", "1", "--verify", "sig", "body"});
        EXPECT_EQ(0, good.status) << good.err;
        EXPECT_NE(std::string::npos, good.out.find("[GNUPG:] GOODSIG")) << good.out << good.err;
        work.write("other", body + "x");
        EXPECT_NE(0, in({"gpgsm", "--batch", "--verify", "sig", "other"}).status);
    }
}

TEST_F(GpgsmTest, WeAcceptItsSignatures) {
    importIntoGpgsm("alice");
    for (const bool detached : {true, false}) {
        std::vector<std::string> arguments{"gpgsm",
                                           "--batch",
                                           "--yes",
                                           "--pinentry-mode",
                                           "loopback",
                                           "--passphrase-fd",
                                           "0",
                                           "--local-user",
                                           "alice@example.org",
                                           "--output",
                                           "sig",
                                           "--sign"};
        if (detached)
            arguments.emplace_back("--detach-sign");
        arguments.emplace_back("body");
        succeeds(arguments, "x\n");
        toolAccepts(detached ? "gpgsm, detached" : "gpgsm, attached", detached);
    }
}

class CmsutilTest : public InteropTest {
protected:
    void SetUp() override {
        if (!hasNss())
            GTEST_SKIP() << "the tools of NSS are not installed";
        InteropTest::SetUp();
        makeNssDatabase();
    }
};

TEST_F(CmsutilTest, AcceptsOurSignatures) {
    work.write("other", body + "x");
    for (const auto& [who, digest] : {std::pair{"alice", "sha1"}, std::pair{"alice", "sha256"},
                                      std::pair{"alice", "sha512"}, std::pair{"erin", "sha256"}}) {
        toolSigns(who, digest);
        const Answer good = in({"cmsutil", "-D", "-d", "nss", "-i", "sig", "-c", "body", "-n"});
        EXPECT_EQ(0, good.status) << good.err;
        const Answer signer = in({"cmsutil", "-D", "-d", "nss", "-i", "sig", "-c", "body", "-n", "-h", "0"});
        EXPECT_NE(std::string::npos, (signer.out + signer.err).find("GoodSignature")) << signer.out << signer.err;
        const Answer bad = in({"cmsutil", "-D", "-d", "nss", "-i", "sig", "-c", "other", "-n", "-h", "0"});
        EXPECT_EQ(std::string::npos, (bad.out + bad.err).find("GoodSignature")) << bad.out << bad.err;
    }
}

TEST_F(CmsutilTest, WeAcceptItsSignatures) {
    for (const char* who : {"alice", "erin"}) {
        importIntoNss(who);
        for (const char* digest : {"SHA1", "SHA256", "SHA512"})
            for (const bool detached : {true, false}) {
                std::vector<std::string> arguments{"cmsutil", "-S",   "-d", "nss", "-N", who,  "-H",  digest,
                                                   "-i",      "body", "-o", "sig", "-G", "-Y", "NONE"};
                if (detached)
                    arguments.emplace_back("-T");
                succeeds(arguments);
                toolAccepts(std::string("cmsutil ") + who + " " + digest, detached);
            }
    }
}

} // namespace
