// norvcrypt p12: what it writes and for whom, what it says about files that lack something, and what it refuses.

#include "support/ToolTest.h"

#include <openssl/pkcs12.h>

#include <filesystem>
#include <memory>

using namespace interop;
using norvauthority::Bytes;
using norvauthority::Identity;

namespace {

/// A PKCS#12 structure with few iterations; null leaves a part out, and for the password is none at all.
Bytes pkcs12(const Identity* key, const Identity* certificate, const char* password, bool mac = true) {
    const norvauthority::X509Ptr x509 = certificate == nullptr ? nullptr : certificate->certificate.x509();
    PKCS12* const structure = PKCS12_create(password, nullptr, key == nullptr ? nullptr : key->key.get(), x509.get(),
                                            nullptr, 0, 0, 1, mac ? 1 : -1, 0);
    unsigned char* encoded = nullptr;
    const int length = i2d_PKCS12(structure, &encoded);
    Bytes der(encoded, encoded + length);
    OPENSSL_free(encoded);
    PKCS12_free(structure);
    return der;
}

class Pkcs12ToolTest : public ToolTest {
protected:
    void SetUp() override {
        work.write("erin.p12", pkcs12(&erin(), &erin(), "secret"));
        work.write("pass", std::string("secret\n"));
        work.write("wrong", std::string("Secret\n"));
    }
    Answer p12(const std::string& file, const std::string& passphrase = "pass", const std::string& folder = "out") {
        return tool({"p12", file, "--passphrase-file", passphrase, "--out-dir", folder});
    }
    Answer forced(const std::string& file) {
        return tool({"p12", file, "--passphrase-file", "pass", "--out-dir", "out", "--force"});
    }
    /// `p12` fails with exit code 2 and leaves nothing.
    void expectUnreadable(const std::string& file, const std::string& text) {
        before = work.names();
        expectFailure(p12(file), text);
    }
    void expectErinIn(const std::string& folder) {
        EXPECT_EQ(erin().certificate.pem(), work.read(folder + "/cert.pem"));
        EXPECT_EQ(erin().key.pkcs8Pem(), work.read(folder + "/key.pem"));
        EXPECT_EQ(0600U, work.mode(folder + "/key.pem"));
        EXPECT_EQ(2, std::distance(std::filesystem::directory_iterator(work.path(folder)), {}));
    }
};

TEST_F(Pkcs12ToolTest, WritesKeyAndCertificate) {
    const Answer answer = p12("erin.p12");
    EXPECT_EQ(0, answer.status);
    EXPECT_EQ("key: out/key.pem\ncertificate: out/cert.pem\n", answer.out);
    EXPECT_EQ("", answer.err);
    expectErinIn("out");
}

TEST_F(Pkcs12ToolTest, WhatItWritesSigns) {
    ASSERT_EQ(0, p12("erin.p12").status);
    const Answer answer = tool({"sign", "--cert", "out/cert.pem", "--key", "out/key.pem", "--out", "sig"}, "body");
    EXPECT_EQ(0, answer.status) << answer.err;
}

TEST_F(Pkcs12ToolTest, KeysOfOtherKinds) {
    for (const Identity* identity : {&alice(), &dora()}) {
        work.write("other.p12", pkcs12(identity, identity, "secret"));
        ASSERT_EQ(0, forced("other.p12").status);
        EXPECT_EQ(identity->key.pkcs8Pem(), work.read("out/key.pem"));
        EXPECT_EQ(identity->certificate.pem(), work.read("out/cert.pem"));
    }
}

// As everything else that people hand on; inspect says of these, too, that this command reads them.
TEST_F(Pkcs12ToolTest, HoweverItIsWrapped) {
    const std::vector<std::string> encode{"openssl", "base64", "-in", "erin.p12"};
    const std::string base64 = run({.arguments = encode, .directory = work.directory()}).out;
    ASSERT_NE("", base64);
    work.write("base64", base64);
    work.write("pem", "-----BEGIN PKCS12-----\n" + base64 + "-----END PKCS12-----\n");
    for (const char* const file : {"base64", "pem"}) {
        SCOPED_TRACE(file);
        const Answer answer = forced(file);
        EXPECT_EQ(0, answer.status) << answer.err;
        expectErinIn("out");
    }
    work.write("two", work.read("erin.p12") + work.read("erin.p12"));
    expectUnreadable("two", "more than one PKCS#12 structure in two");
}

TEST_F(Pkcs12ToolTest, StandardInput) {
    const Answer answer = tool({"p12", "-", "--passphrase-file", "pass", "--out-dir", "out"}, work.read("erin.p12"));
    EXPECT_EQ(0, answer.status) << answer.err;
    expectErinIn("out");
}

TEST_F(Pkcs12ToolTest, KeyIsItsOwnersAloneAlsoWhereAFileWas) {
    std::filesystem::create_directory(work.path("out"));
    work.write("out/key.pem", std::string("old"));
    work.write("out/cert.pem", std::string("old"));
    std::filesystem::permissions(work.path("out/key.pem"), std::filesystem::perms(0666));
    EXPECT_EQ(0, forced("erin.p12").status);
    expectErinIn("out");
}

TEST_F(Pkcs12ToolTest, ReplacesNothingUnlessToldTo) {
    std::filesystem::create_directory(work.path("out"));
    for (const char* name : {"out/key.pem", "out/cert.pem"}) {
        work.write(name, std::string("precious"));
        before = work.names();
        expectFailure(p12("erin.p12"),
                      std::string("will not replace ") + name + ", which exists already: give --force");
        EXPECT_EQ("precious", work.read(name));
        EXPECT_EQ(1, std::distance(std::filesystem::directory_iterator(work.path("out")), {}));
        std::filesystem::remove(work.path(name));
    }
}

TEST_F(Pkcs12ToolTest, DoesNotReplaceTheFileThatItReads) {
    std::filesystem::create_directory(work.path("out"));
    std::filesystem::rename(work.path("erin.p12"), work.path("out/key.pem"));
    const std::string held = work.read("out/key.pem");
    before = work.names();
    expectFailure(forced("out/key.pem"), "cannot write out/key.pem: it is an input too");
    EXPECT_EQ(held, work.read("out/key.pem"));
}

TEST_F(Pkcs12ToolTest, WrongPassphraseIsAVerdict) {
    const std::vector<std::string> names = work.names();
    const Answer answer = p12("erin.p12", "wrong");
    EXPECT_EQ(1, answer.status);
    EXPECT_EQ("", answer.out);
    EXPECT_EQ("norvcrypt: wrong passphrase for erin.p12\n", answer.err);
    EXPECT_EQ(names, work.names());
}

TEST_F(Pkcs12ToolTest, WrongPassphraseLeavesWhatWasThere) {
    ASSERT_EQ(0, p12("erin.p12").status);
    work.write("alice.p12", pkcs12(&alice(), &alice(), "another"));
    EXPECT_EQ(1, p12("alice.p12").status);
    expectErinIn("out");
}

TEST_F(Pkcs12ToolTest, EmptyPassphrase) {
    work.write("empty.p12", pkcs12(&erin(), &erin(), ""));
    work.write("none", std::string());
    EXPECT_EQ(0, p12("empty.p12", "none").status);
    expectErinIn("out");
    EXPECT_EQ(1, p12("empty.p12", "pass").status);
}

TEST_F(Pkcs12ToolTest, FileWithoutAnyPassphraseOpensUnderTheEmptyOne) {
    work.write("bare.p12", pkcs12(&erin(), &erin(), nullptr));
    work.write("none", std::string());
    EXPECT_EQ(1, p12("bare.p12", "pass").status);
    const Answer answer = p12("bare.p12", "none");
    EXPECT_EQ(0, answer.status) << answer.err;
    expectErinIn("out");
}

TEST_F(Pkcs12ToolTest, KeyWithoutCertificate) {
    work.write("key.p12", pkcs12(&erin(), nullptr, "secret"));
    const Answer answer = p12("key.p12");
    EXPECT_EQ(0, answer.status);
    EXPECT_EQ("key: out/key.pem\n"
              "no certificate in key.p12 belongs to the key: out/cert.pem is not written\n",
              answer.out);
    EXPECT_EQ(erin().key.pkcs8Pem(), work.read("out/key.pem"));
    EXPECT_FALSE(work.exists("out/cert.pem"));
}

TEST_F(Pkcs12ToolTest, CertificateWithoutKey) {
    work.write("certificate.p12", pkcs12(nullptr, &erin(), "secret"));
    const std::vector<std::string> names = work.names();
    const Answer answer = p12("certificate.p12");
    EXPECT_EQ(1, answer.status);
    EXPECT_EQ("", answer.out);
    EXPECT_EQ("norvcrypt: no private key in certificate.p12, and so no certificate that belongs to one: nothing is "
              "written\n",
              answer.err);
    EXPECT_EQ(names, work.names());
}

TEST_F(Pkcs12ToolTest, UnreadableFiles) {
    work.write("text", std::string("garbage"));
    work.write("empty", std::string());
    work.write("certificate", erin().certificate.der);
    const std::string whole = work.read("erin.p12");
    work.write("cut", whole.substr(0, whole.size() - 1));
    work.write("unchecked", pkcs12(&erin(), &erin(), "secret", false));
    expectUnreadable("text", "no PKCS#12 structure in text");
    expectUnreadable("empty", "no PKCS#12 structure in empty: it is empty");
    expectUnreadable("certificate", "no PKCS#12 structure in certificate: it holds a certificate");
    expectUnreadable("cut", "cannot read the PKCS#12 file cut: it is damaged or cut off");
    expectUnreadable("unchecked", "it has no checksum (MAC) that would tell whether the passphrase is right");
    expectUnreadable("missing", "cannot open missing: No such file or directory");
    before = work.names();
    expectFailure(p12("erin.p12", "missing"), "cannot open missing: No such file or directory");
}

TEST_F(Pkcs12ToolTest, PlacesThatCannotBeWrittenTo) {
    work.write("file", std::string("in the way"));
    before = work.names();
    expectFailure(p12("erin.p12", "pass", "file"), "file");
    expectFailure(p12("erin.p12", "pass", "missing/out"), "cannot make the directory missing/out");
}

TEST_F(Pkcs12ToolTest, NothingIsWrittenWhenOneFileCannotBe) {
    for (const char* blocked : {"out/cert.pem", "out/key.pem"}) {
        std::filesystem::create_directories(work.path(blocked)); // a folder is in its place
        const Answer answer = p12("erin.p12");
        EXPECT_EQ(2, answer.status);
        EXPECT_NE(std::string::npos, answer.err.find(std::string("cannot write ") + blocked)) << answer.err;
        EXPECT_EQ(1, std::distance(std::filesystem::directory_iterator(work.path("out")), {}));
        std::filesystem::remove(work.path(blocked));
    }
}

TEST_F(Pkcs12ToolTest, FolderThatWasMadeGoesWhenNothingCanBeWrittenIntoIt) {
    std::string folder = "out";
    while (folder.size() < 4080) // a temporary file's name would be longer than a path can be
        folder.insert(0, "./");
    before = work.names();
    expectFailure(p12("erin.p12", "pass", folder), "File name too long");
}

TEST_F(Pkcs12ToolTest, PassphraseIsNeeded) {
    before = work.names();
    expectFailure(tool({"p12", "erin.p12", "--out-dir", "out"}), "--passphrase-file is required");
    expectFailure(tool({"p12", "erin.p12", "--passphrase-file", "pass"}), "--out-dir is required");
}

TEST_F(Pkcs12ToolTest, HelpSaysThatChainsAreNotWritten) {
    const Answer answer = tool({"p12", "--help"});
    EXPECT_EQ(0, answer.status);
    EXPECT_NE(std::string::npos, answer.out.find("Further certificates in the file")) << answer.out;
    EXPECT_NE(std::string::npos, answer.out.find("are not written"));
}

TEST_F(Pkcs12ToolTest, InspectTellsWhatReadsIt) {
    const Answer answer = tool({"inspect", "erin.p12"});
    EXPECT_EQ(0, answer.status) << answer.err;
    EXPECT_EQ("erin.p12: pkcs12\n  readBy: norvcrypt p12\n", answer.out);
}

TEST_F(Pkcs12ToolTest, InspectPrintsBothCertificatesOfAPair) {
    work.write("pair", norvauthority::crossPair(&erin().certificate, &root().certificate));
    work.write("half", norvauthority::crossPair(nullptr, &root().certificate));
    const Answer pair = tool({"inspect", "pair"});
    EXPECT_EQ(0, pair.status) << pair.err;
    EXPECT_EQ(0U, pair.out.find("pair: cross-pair\n  forward:\n    subject: CN=erin,O=Interop,C=DE\n")) << pair.out;
    EXPECT_NE(std::string::npos, pair.out.find("  reverse:\n    subject: CN=Interop Root,O=Interop,C=DE\n"))
        << pair.out;
    EXPECT_NE(std::string::npos, pair.out.find(erin().certificate.sha256()));
    EXPECT_NE(std::string::npos, pair.out.find(root().certificate.sha256()));
    const Answer half = tool({"inspect", "half"});
    EXPECT_EQ(0U, half.out.find("half: cross-pair\n  reverse:\n")) << half.out;
    EXPECT_EQ(std::string::npos, half.out.find("forward"));
    EXPECT_EQ(0, tool({"inspect", "--json", "pair", "half"}).status);
}

} // namespace
