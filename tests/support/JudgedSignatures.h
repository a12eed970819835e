#pragma once

/// \file
/// What the tests of signatures against other programs share: the tool signs and judges, and so does the library itself.

#include "support/Cms.h"
#include "support/JudgedTest.h"

namespace interop {

class JudgedSignatures : public JudgedTest {
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
    /// The library signs a body into "sig" and leaves the body in "body".
    void librarySigns(const norvauthority::Identity& who, const norvauthority::Bytes& content, std::size_t piece = 0,
                      Norvane::Crypto::Hasher::Type digest = Norvane::Crypto::Hasher::SHA256) {
        work.write("body", content);
        work.write("sig", cmstest::signedByStream(who, content, piece, digest));
    }
    /// The library accepts "sig" over the content.
    bool libraryAccepts(const norvauthority::Identity& who, const norvauthority::Bytes& content) {
        const cmstest::Received received(norvauthority::bytes(work.read("sig")));
        return received.accepts(content, cmstest::certificateOf(who));
    }

    std::string body;
};

} // namespace interop
