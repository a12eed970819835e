// The examples run as their readers would run them.

#include "Process.h"
#include "Workspace.h"

#include <gtest/gtest.h>

using namespace interop;

namespace {

TEST(ExampleTest, SignBodySignsWhatOpenSslVerifies) {
    const Workspace work;
    work.write("alice.pem", alice().certificate.pem());
    work.write("alice.key", alice().key.pkcs8Pem());
    work.write("root.pem", root().certificate.pem());
    work.write("body", sampleBody());
    const Answer answer =
        run({.arguments = {SIGN_BODY, "alice.pem", "alice.key", "body"}, .directory = work.directory()});
    ASSERT_EQ(0, answer.status) << answer.err;
    work.write("sig.b64", answer.out);
    const std::string check =
        "openssl base64 -d -A -in sig.b64 | openssl cms -verify -binary -inform DER -content body "
        "-CAfile root.pem -out /dev/null";
    const Answer verified = run({.arguments = {"/bin/sh", "-c", check}, .directory = work.directory()});
    EXPECT_EQ(0, verified.status) << verified.err;
}

TEST(ExampleTest, SignBodyWithoutACertificateTellsItsUsage) {
    for (const std::vector<std::string>& arguments :
         {std::vector<std::string>{SIGN_BODY}, {SIGN_BODY, "/none", "/none", "/none"}}) {
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
        run({.arguments = {SIGN_BODY, "alice.pem", "erin.key", "body"}, .directory = work.directory()});
    EXPECT_EQ(1, answer.status);
    EXPECT_EQ("", answer.out);
    EXPECT_NE(std::string::npos, answer.err.find("Private key does not match certificate")) << answer.err;
}

} // namespace
