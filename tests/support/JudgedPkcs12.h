#pragma once

/// \file
/// What the tests of other programs' PKCS#12 files share: the tool imports what they hold, or says why not.

#include "support/JudgedTest.h"

#include <filesystem>

namespace interop {

class JudgedPkcs12 : public JudgedTest {
protected:
    void SetUp() override {
        JudgedTest::SetUp();
        put("alice", alice());
        put("erin", erin());
        work.write("pass", std::string("secret\n"));
    }
    /// `openssl pkcs12 -export` into "file.p12" under "secret".
    void opensslExports(const std::vector<std::string>& more, const std::string& password = "secret") {
        std::vector<std::string> arguments{"openssl",  "pkcs12",   "-export",         "-out",
                                           "file.p12", "-passout", "pass:" + password};
        arguments.insert(arguments.end(), more.begin(), more.end());
        succeeds(arguments);
    }
    Answer imports(const std::string& file = "file.p12") {
        std::filesystem::remove_all(work.path("out"));
        return in({norvtest::norvcryptProgram, "p12", file, "--passphrase-file", "pass", "--out-dir", "out"});
    }
    /// The file gives this identity's key and certificate.
    void expectImported(const norvauthority::Identity& identity, const std::string& file = "file.p12") {
        const Answer answer = imports(file);
        EXPECT_EQ(0, answer.status) << answer.out << answer.err;
        EXPECT_EQ(identity.key.pkcs8Pem(), work.read("out/key.pem"));
        EXPECT_EQ(identity.certificate.pem(), work.read("out/cert.pem"));
    }
};

} // namespace interop
