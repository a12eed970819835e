// What the tool and the library sign, OpenSSL accepts; what OpenSSL signs, they accept.

#include "support/JudgedSignatures.h"

#include <openssl/evp.h>

#include <memory>

using namespace interop;
using cmstest::certificateOf;
using Norvane::Crypto::Hasher;
using norvauthority::Bytes;
using norvauthority::Identity;

namespace {

constexpr int signingFlags = PKCS7_DETACHED | PKCS7_BINARY | PKCS7_NOSMIMECAP;

void addSigner(PKCS7* structure, const Identity& identity, const EVP_MD* digest) {
    const norvauthority::X509Ptr certificate = identity.certificate.x509();
    ASSERT_NE(nullptr, PKCS7_sign_add_signer(structure, certificate.get(), identity.key.get(), digest, signingFlags));
}

class OpenSslSignaturesTest : public JudgedSignatures {
protected:
    Answer opensslVerifies(const std::string& content) {
        return in({"openssl", "cms", "-verify", "-binary", "-inform", "DER", "-in", "sig", "-content", content,
                   "-CAfile", "root.pem", "-out", "/dev/null"});
    }
};

TEST_F(OpenSslSignaturesTest, OpenSslAcceptsOurSignatures) {
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

TEST_F(OpenSslSignaturesTest, OpenSslReadsOurPem) {
    succeeds({norvtest::norvcryptProgram, "sign", "--cert", "alice.pem", "--key", "alice.key", "--in", "body", "--out",
              "sig.pem", "--pem"});
    for (const char* command : {"cms", "smime"})
        succeeds({"openssl", command, "-verify", "-binary", "-inform", "PEM", "-in", "sig.pem", "-content", "body",
                  "-CAfile", "root.pem", "-out", "/dev/null"});
}

TEST_F(OpenSslSignaturesTest, WeAcceptWhatOpenSslSigns) {
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

TEST_F(OpenSslSignaturesTest, StreamedSignatureIsReallyIndefiniteLength) {
    succeeds({"openssl", "cms", "-sign", "-binary", "-outform", "DER", "-signer", "alice.pem", "-inkey", "alice.key",
              "-nodetach", "-stream", "-in", "body", "-out", "sig"});
    EXPECT_EQ("3080", norvauthority::toHex(norvauthority::bytes(work.read("sig").substr(0, 2))));
    toolAccepts("indefinite length", false);
}

TEST_F(OpenSslSignaturesTest, SeveralSignersWithDifferentDigestsInOnePass) {
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
    EXPECT_EQ(6U, linesOf(answer.out).size());
    EXPECT_NE(std::string::npos, answer.out.find(alice().certificate.sha256()));
    EXPECT_NE(std::string::npos, answer.out.find(erin().certificate.sha256()));
    const Answer one = in({norvtest::norvcryptProgram, "verify", "--signature", "sig", "--cert", "erin.pem"}, body);
    EXPECT_EQ(1, one.status) << "one of two signers is not enough";
}

TEST_F(OpenSslSignaturesTest, SignatureWithoutCertificatesNeedsOne) {
    succeeds({"openssl", "cms", "-sign", "-binary", "-outform", "DER", "-signer", "alice.pem", "-inkey", "alice.key",
              "-nocerts", "-in", "body", "-out", "sig"});
    EXPECT_EQ(1, in({norvtest::norvcryptProgram, "verify", "--signature", "sig", "--in", "body"}).status);
    EXPECT_EQ(
        0,
        in({norvtest::norvcryptProgram, "verify", "--signature", "sig", "--in", "body", "--cert", "alice.pem"}).status);
}

TEST_F(OpenSslSignaturesTest, EmbeddedEmptyBodyIsNotDetached) {
    work.write("empty", std::string());
    succeeds({"openssl", "cms", "-sign", "-binary", "-outform", "DER", "-signer", "alice.pem", "-inkey", "alice.key",
              "-nodetach", "-in", "empty", "-out", "sig"});
    EXPECT_EQ(0, in({norvtest::norvcryptProgram, "verify", "--signature", "sig", "--embedded"}).status);
    EXPECT_EQ(2, in({norvtest::norvcryptProgram, "verify", "--signature", "sig"}, "not looked at").status);
    EXPECT_EQ(1, in({norvtest::norvcryptProgram, "verify", "--signature", "sig", "--in", "body"}).status);
}

TEST_F(OpenSslSignaturesTest, KindsOfTodaysSendersAreJudged) {
    const auto signedAs = [&](const std::string& who, const std::vector<std::string>& more) {
        std::vector<std::string> arguments{"openssl", "cms",     "-sign",      "-binary", "-outform",
                                           "DER",     "-signer", who + ".pem", "-inkey",  who + ".key",
                                           "-in",     "body",    "-out",       "sig"};
        arguments.insert(arguments.end(), more.begin(), more.end());
        succeeds(arguments);
    };
    work.write("other", body + "x");
    const auto judged = [&](const std::string& over) {
        return in({norvtest::norvcryptProgram, "verify", "--signature", "sig", "--in", over});
    };
    const auto goodAndBad = [&](const std::string& who, const std::vector<std::string>& more) {
        signedAs(who, more);
        const Answer good = judged("body");
        EXPECT_EQ(0, good.status) << good.out << good.err;
        EXPECT_EQ(0U, linesOf(good.out).at(0).find("signer 1: good signature, certificate SHA-256 ")) << good.out;
        EXPECT_EQ(1, judged("other").status);
    };
    const std::vector<std::vector<std::string>> shapes{{}, {"-noattr"}, {"-nodetach"}};
    for (const std::vector<std::string>& more : shapes) {
        std::vector<std::string> pss = more;
        pss.insert(pss.end(), {"-keyopt", "rsa_padding_mode:pss"});
        goodAndBad("alice", pss);
        for (const char* who : {"alice", "erin"}) {
            std::vector<std::string> identifier = more;
            identifier.emplace_back("-keyid");
            goodAndBad(who, identifier);
        }
    }
    // In PEM, and from standard input, where nothing can be read twice.
    succeeds({"openssl", "cms", "-sign", "-binary", "-outform", "PEM", "-signer", "alice.pem", "-inkey", "alice.key",
              "-in", "body", "-out", "sig", "-keyid"});
    const Answer piped =
        in({norvtest::norvcryptProgram, "verify", "--signature", "-", "--in", "body"}, work.read("sig"));
    EXPECT_EQ(0, piped.status) << piped.out << piped.err;
    goodAndBad("alice", {"-md", "sha3-256"});
}

struct Algorithms {
    const char* name;
    const Identity& (*identity)();
    Hasher::Type type;
    const char* digest;
};

/// The library itself, which signs and judges without the tool.
class OpenSslLibraryTest : public JudgedSignatures, public testing::WithParamInterface<Algorithms> {
protected:
    void SetUp() override {
        JudgedSignatures::SetUp();
        put("signer", identity());
    }
    [[nodiscard]] static const Identity& identity() { return GetParam().identity(); }
    Answer opensslReads(const std::string& file) {
        return in({"openssl", "cms", "-verify", "-binary", "-inform", "DER", "-in", "sig", "-content", file, "-CAfile",
                   "root.pem", "-out", "out"});
    }

    const Bytes content = cmstest::bodyOf(20000);
};

TEST_P(OpenSslLibraryTest, OpensslAcceptsWhatIsSigned) {
    for (const Bytes& one : {content, Bytes()}) {
        librarySigns(identity(), one, 3000, GetParam().type);
        const Answer answer = opensslReads("body");
        EXPECT_EQ(0, answer.status) << answer.err;
        EXPECT_EQ(work.read("out"), std::string(one.begin(), one.end()));
        Bytes altered = one;
        altered.push_back('!');
        work.write("altered", altered);
        EXPECT_NE(0, opensslReads("altered").status);
    }
}

TEST_P(OpenSslLibraryTest, WhatOpensslSignsIsAccepted) {
    work.write("body", content);
    const std::vector<std::vector<std::string>> shapes{{}, {"-nodetach"}, {"-nodetach", "-stream"}};
    for (const bool attributes : {true, false}) {
        for (const auto& shape : shapes) {
            SCOPED_TRACE(testing::PrintToString(shape) + (attributes ? "" : " -noattr"));
            std::vector<std::string> arguments{
                "openssl", "cms",        "-sign", "-binary",         "-outform", "DER",  "-signer", "signer.pem",
                "-inkey",  "signer.key", "-md",   GetParam().digest, "-in",      "body", "-out",    "sig"};
            arguments.insert(arguments.end(), shape.begin(), shape.end());
            if (!attributes)
                arguments.emplace_back("-noattr");
            succeeds(arguments);
            const cmstest::RecordedLog log;
            const cmstest::Received received(norvauthority::bytes(work.read("sig")));
            EXPECT_TRUE(received.accepts(content, certificateOf(identity())));
            Norvane::MediaIn embedded = Norvane::Crypto::CMS::embeddedContent(received.verifier.contentInfo());
            EXPECT_EQ(embedded.isNull(), shape.empty());
            if (!embedded.isNull()) {
                EXPECT_TRUE(received.verifier.isValid(embedded, received.signer(), certificateOf(identity())));
            }
            EXPECT_TRUE(log.records().empty());
            EXPECT_FALSE(received.accepts(cmstest::bodyOf(20001), certificateOf(identity())));
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Openssl, OpenSslLibraryTest,
                         testing::Values(Algorithms{"RsaSha1", alice, Hasher::SHA1, "sha1"},
                                         Algorithms{"RsaSha256", alice, Hasher::SHA256, "sha256"},
                                         Algorithms{"RsaSha512", alice, Hasher::SHA512, "sha512"},
                                         Algorithms{"DsaSha1", dora, Hasher::SHA1, "sha1"},
                                         Algorithms{"DsaSha256", dora, Hasher::SHA256, "sha256"},
                                         Algorithms{"EcSha1", erin, Hasher::SHA1, "sha1"},
                                         Algorithms{"EcSha256", erin, Hasher::SHA256, "sha256"},
                                         Algorithms{"EcSha512", erin, Hasher::SHA512, "sha512"}),
                         [](const auto& tested) { return std::string(tested.param.name); });

} // namespace
