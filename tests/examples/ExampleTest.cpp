// The examples run as their readers would run them.

#include "support/Process.h"
#include "support/Workspace.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>

using namespace interop;

namespace {

const std::string signBody = std::string(norvtest::programDirectory) + "sign_body";
const std::string encryptBody = std::string(norvtest::programDirectory) + "encrypt_body";
const std::string decryptBody = std::string(norvtest::programDirectory) + "decrypt_body";
const std::string signStream = std::string(norvtest::programDirectory) + "sign_stream";
const std::string verifyStream = std::string(norvtest::programDirectory) + "verify_stream";
const std::string readMail = std::string(norvtest::programDirectory) + "read_mail";

TEST(ExampleTest, SignBodySignsWhatOpenSslVerifies) {
    const Workspace work;
    work.write("alice.pem", alice().certificate.pem());
    work.write("alice.key", alice().key.pkcs8Pem());
    work.write("root.pem", root().certificate.pem());
    work.write("body", sampleBody());
    const Answer answer =
        run({.arguments = {signBody, "alice.pem", "alice.key", "body"}, .directory = work.directory()});
    ASSERT_EQ(0, answer.status) << answer.err;
    EXPECT_EQ(1, run({.arguments = {signBody, "alice.pem", "alice.key", "body"},
                      .outputFile = "/dev/full",
                      .directory = work.directory()})
                     .status);
    work.write("sig.b64", answer.out);
    const std::string check =
        "openssl base64 -d -A -in sig.b64 | openssl cms -verify -binary -inform DER -content body "
        "-CAfile root.pem -out /dev/null";
    const Answer verified = run({.arguments = {"/bin/sh", "-c", check}, .directory = work.directory()});
    EXPECT_EQ(0, verified.status) << verified.err;
}

TEST(ExampleTest, TheReadmeShowsSignBodyAsItIs) {
    const auto textOf = [](const char* name) {
        std::ifstream file(std::filesystem::path(norvtest::sourceDirectory) / name);
        return std::string(std::istreambuf_iterator<char>(file), {});
    };
    const std::string program = textOf("examples/sign_body.cpp");
    const std::string shown = "```cpp\n" + program.substr(program.find("#include")) + "```\n";
    EXPECT_NE(std::string::npos, textOf("README.md").find(shown));
}

TEST(ExampleTest, SignBodyOnAFileThatIsMissingTellsWhich) {
    const Answer answer = run({.arguments = {signBody, "none", "none", "none"}});
    EXPECT_LT(answer.status, 128) << answer.err;
    EXPECT_NE(0, answer.status);
    EXPECT_NE("", answer.err);
}

TEST(ExampleTest, SignBodyWithoutACertificateTellsItsUsage) {
    for (const std::vector<std::string>& arguments :
         {std::vector<std::string>{signBody}, {signBody, "/none", "/none", "/none"}}) {
        const Answer answer = run({.arguments = arguments});
        EXPECT_EQ(2, answer.status);
        EXPECT_EQ("usage: sign_body CERTIFICATE KEY BODY\n", answer.err);
    }
}

TEST(ExampleTest, SignBodyTellsWhyItFails) {
    const Workspace work;
    work.write("alice.pem", alice().certificate.pem());
    work.write("erin.key", erin().key.pkcs8Pem());
    work.write("body", sampleBody());
    const Answer answer =
        run({.arguments = {signBody, "alice.pem", "erin.key", "body"}, .directory = work.directory()});
    EXPECT_EQ(1, answer.status);
    EXPECT_EQ("", answer.out);
    EXPECT_NE(std::string::npos, answer.err.find("Private key does not match certificate")) << answer.err;
}

TEST(ExampleTest, SignStreamSignsWhatOpenSslAndVerifyStreamAccept) {
    const Workspace work;
    work.write("alice.pem", alice().certificate.pem());
    work.write("alice.key", alice().key.pkcs8Pem());
    work.write("bob.pem", bob().certificate.pem());
    work.write("root.pem", root().certificate.pem());
    const std::string body = sampleBody() + std::string(200000, 'x');
    work.write("body", body);
    const Answer made =
        run({.arguments = {signStream, "alice.pem", "alice.key"}, .input = body, .directory = work.directory()});
    ASSERT_EQ(0, made.status) << made.err;
    work.write("body.p7s", made.out);
    const Answer judged =
        run({.arguments = {"openssl", "cms", "-verify", "-binary", "-inform", "DER", "-in", "body.p7s", "-content",
                           "body", "-CAfile", "root.pem", "-out", "/dev/null"},
             .directory = work.directory()});
    EXPECT_EQ(0, judged.status) << judged.err;
    const auto verified = [&](const std::string& certificate, const std::string& content) {
        return run(
            {.arguments = {verifyStream, certificate, "body.p7s"}, .input = content, .directory = work.directory()});
    };
    EXPECT_EQ(0, verified("alice.pem", body).status);
    EXPECT_EQ(1, verified("alice.pem", body + "x").status);
    EXPECT_EQ(1, verified("bob.pem", body).status);
    EXPECT_EQ(2, verified("none.pem", body).status);
    work.write("body.p7s", std::string("none"));
    EXPECT_EQ(2, verified("alice.pem", body).status);
    EXPECT_EQ(2, run({.arguments = {signStream}}).status);
    EXPECT_EQ(2, run({.arguments = {verifyStream}}).status);
}

TEST(ExampleTest, ReadMailWritesWhatItsSenderSigned) {
    const Workspace work;
    work.write("alice.pem", alice().certificate.pem());
    work.write("alice.key", alice().key.pkcs8Pem());
    work.write("root.pem", root().certificate.pem());
    work.write("body", std::string("Content-Type: text/plain\r\n\r\nhello\r\n"));
    const Answer made = run({.arguments = {"openssl", "cms", "-sign", "-in", "body", "-signer", "alice.pem", "-inkey",
                                           "alice.key", "-from", "alice@example.org", "-out", "mail"},
                             .directory = work.directory()});
    ASSERT_EQ(0, made.status) << made.err;
    const auto read = [&](const std::string& roots, const std::string& mail) {
        return run({.arguments = {readMail, roots, mail}, .directory = work.directory()});
    };
    const Answer good = read("root.pem", "mail");
    EXPECT_EQ(0, good.status) << good.err;
    EXPECT_EQ("Content-Type: text/plain\r\n\r\nhello\r\n", good.out);
    std::string changed = work.read("mail");
    changed.replace(changed.find("hello"), 5, "hullo");
    work.write("changed", changed);
    for (const Answer& refused : {read("root.pem", "changed"), read("alice.key", "mail"), read("root.pem", "none")}) {
        EXPECT_EQ(1, refused.status);
        EXPECT_EQ("", refused.out);
        EXPECT_NE("", refused.err);
    }
    const Answer full =
        run({.arguments = {readMail, "root.pem", "mail"}, .outputFile = "/dev/full", .directory = work.directory()});
    EXPECT_EQ(1, full.status);
    EXPECT_EQ("standard output cannot be written\n", full.err);
    EXPECT_EQ(2, run({.arguments = {readMail}}).status);
}

TEST(ExampleTest, EncryptBodyEncryptsWhatOpenSslAndDecryptBodyOpen) {
    const Workspace work;
    work.write("bob.pem", bob().certificate.pem());
    work.write("bob.key", bob().key.pkcs8Pem());
    work.write("carol.pem", carol().certificate.pem());
    work.write("carol.key", carol().key.pkcs8Pem());
    work.write("body", sampleBody());
    const Answer encrypted =
        run({.arguments = {encryptBody, "body", "message", "bob.pem", "carol.pem"}, .directory = work.directory()});
    ASSERT_EQ(0, encrypted.status) << encrypted.err;
    for (const std::string name : {"bob", "carol"}) {
        const std::string certificate = name + ".pem";
        const std::string key = name + ".key";
        const Answer judged = run({.arguments = {"openssl", "cms", "-decrypt", "-inform", "DER", "-in", "message",
                                                 "-recip", certificate, "-inkey", key},
                                   .directory = work.directory()});
        EXPECT_EQ(0, judged.status) << judged.err;
        EXPECT_EQ(sampleBody(), judged.out);
        const Answer decrypted =
            run({.arguments = {decryptBody, "message", "clear", certificate, key}, .directory = work.directory()});
        EXPECT_EQ(0, decrypted.status) << decrypted.err;
        EXPECT_EQ(sampleBody(), work.read("clear"));
    }
}

TEST(ExampleTest, DecryptBodyLeavesNoFileForAKeyThatDoesNotServe) {
    const Workspace work;
    work.write("bob.pem", bob().certificate.pem());
    work.write("alice.pem", alice().certificate.pem());
    work.write("alice.key", alice().key.pkcs8Pem());
    work.write("body", sampleBody());
    ASSERT_EQ(0, run({.arguments = {encryptBody, "body", "message", "bob.pem"}, .directory = work.directory()}).status);
    for (const std::string certificate : {"alice.pem", "bob.pem"}) { // another recipient; a key of another certificate
        const Answer answer = run(
            {.arguments = {decryptBody, "message", "clear", certificate, "alice.key"}, .directory = work.directory()});
        EXPECT_EQ(1, answer.status);
        EXPECT_NE(std::string::npos, answer.err.find("this key does not open the message")) << answer.err;
        EXPECT_EQ(1, run({.arguments = {"test", "-e", "clear"}, .directory = work.directory()}).status);
    }
}

TEST(ExampleTest, EncryptingAndDecryptingTellWhyTheyFail) {
    const Workspace work;
    work.write("erin.pem", erin().certificate.pem());
    work.write("erin.key", erin().key.pkcs8Pem());
    work.write("body", sampleBody());
    EXPECT_EQ(2, run({.arguments = {encryptBody}}).status);
    // Where the message would take the place of the body, which would be empty by then.
    std::filesystem::create_hard_link(work.path("body"), work.path("same"));
    for (const std::string message : {"body", "./body", "same"}) {
        const Answer one =
            run({.arguments = {encryptBody, "body", message, "erin.pem"}, .directory = work.directory()});
        EXPECT_EQ(2, one.status) << one.err;
        EXPECT_EQ("encrypt_body: BODY and MESSAGE are one file\n", one.err);
        EXPECT_EQ(sampleBody(), work.read("body"));
    }
    EXPECT_EQ(2, run({.arguments = {decryptBody}}).status);
    const Answer missing =
        run({.arguments = {encryptBody, "body", "message", "none.pem"}, .directory = work.directory()});
    EXPECT_EQ(1, missing.status);
    EXPECT_NE(std::string::npos, missing.err.find("no certificate in none.pem")) << missing.err;
    const Answer refused =
        run({.arguments = {encryptBody, "body", "message", "erin.pem"}, .directory = work.directory()});
    EXPECT_EQ(1, refused.status);
    EXPECT_NE(std::string::npos, refused.err.find("CMS::EncrypterMediaOutImpl::addCertificate")) << refused.err;
    for (const std::string file : {"none.pem", "body", "erin.key"}) {
        const Answer unread =
            run({.arguments = {decryptBody, "body", "clear", file, "erin.key"}, .directory = work.directory()});
        EXPECT_EQ(1, unread.status);
        EXPECT_EQ("readPair (code 4): no certificate in " + file + "\n", unread.err);
    }
    const Answer garbled =
        run({.arguments = {decryptBody, "body", "clear", "erin.pem", "erin.key"}, .directory = work.directory()});
    EXPECT_EQ(1, garbled.status);
    EXPECT_NE(std::string::npos, garbled.err.find("ASN1 Decode failed:")) << garbled.err;
}

} // namespace
