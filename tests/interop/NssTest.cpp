// NSS: what one side signs or encrypts, the other's cmsutil or tool accepts and decrypts; the tool imports pk12util's files.

#include "support/JudgedEncryption.h"
#include "support/JudgedPkcs12.h"
#include "support/JudgedSignatures.h"

#include <utility>

using namespace interop;
using norvauthority::Bytes;

namespace {

class NssTest : public JudgedSignatures {
protected:
    void SetUp() override {
        if (!hasNss())
            GTEST_SKIP() << "the tools of NSS are not installed";
        JudgedSignatures::SetUp();
        makeNssDatabase();
    }
};

TEST_F(NssTest, AcceptsOurSignatures) {
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

TEST_F(NssTest, WeAcceptItsSignatures) {
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

TEST_F(NssTest, AcceptsWhatTheLibrarySignsAndSignsWhatItAccepts) {
    importIntoNss("alice");
    const Bytes content = cmstest::bodyOf(20000);
    librarySigns(alice(), content);
    succeeds({"cmsutil", "-D", "-d", "nss", "-c", "body", "-i", "sig"});
    Bytes altered = content;
    altered[7] ^= 1U;
    work.write("altered", altered);
    EXPECT_NE(0, in({"cmsutil", "-D", "-d", "nss", "-c", "altered", "-i", "sig"}).status);
    for (const bool detached : {false, true}) {
        std::vector<std::string> arguments{"cmsutil", "-S",     "-d", "nss",  "-N", "alice",
                                           "-H",      "SHA256", "-i", "body", "-o", "sig"};
        if (detached)
            arguments.emplace_back("-T");
        succeeds(arguments);
        EXPECT_TRUE(libraryAccepts(alice(), content)) << (detached ? "detached" : "attached");
    }
}

using NssEncryptionTest = JudgedEncryption;

TEST_F(NssEncryptionTest, EachSideDecryptsWhatTheOtherEncrypts) {
    if (!hasNss())
        GTEST_SKIP() << "the tools of NSS are not installed";
    makeNssDatabase();
    for (const char* who : {"alice", "bob", "carol"})
        importIntoNss(who);
    exchangeAll(
        Program::cmsutil,
        [&](const Exchange& exchange) {
            // It chooses the cipher itself: AES-128.
            std::string addresses;
            for (const std::string& who : recipientsOf(exchange))
                addresses += (addresses.empty() ? "" : ",") + who + "@example.org";
            succeeds({"cmsutil", "-E", "-d", "nss", "-r", addresses, "-i", "body", "-o", "msg"});
        },
        [&] {
            succeeds({"cmsutil", "-D", "-d", "nss", "-i", "msg", "-o", "out"});
        });
}

using NssPkcs12Test = JudgedPkcs12;

TEST_F(NssPkcs12Test, NssFiles) {
    if (!hasNss()) {
        GTEST_SKIP() << "the tools of NSS are not installed";
    }
    makeNssDatabase();
    opensslExports({"-in", "alice.pem", "-inkey", "alice.key", "-certfile", "root.pem", "-name", "alice"});
    succeeds({"pk12util", "-i", "file.p12", "-d", "nss", "-W", "secret"});
    succeeds({"pk12util", "-o", "nss.p12", "-d", "nss", "-n", "alice", "-W", "secret"});
    expectImported(alice(), "nss.p12");
    succeeds({"pk12util", "-o", "old.p12", "-d", "nss", "-n", "alice", "-W", "secret", "-c",
              "PKCS #12 V2 PBE With SHA-1 And 3KEY Triple DES-CBC", "-C",
              "PKCS #12 V2 PBE With SHA-1 And 40 Bit RC2 CBC", "-M", "SHA-1"});
    expectImported(alice(), "old.p12");
}

} // namespace
