// Whole messages, exchanged between the tool and programs of Debian's that know S/MIME: each algorithm and each form that
// both sides have, some with each program. scripts/interoperability exchanges all of them, with more programs.
#include "support/JudgedTest.h"

#include <nlohmann/json.hpp>

#include <set>

using namespace interop;

namespace {

/// One message, and whether it goes the other way, too.
struct Exchanged {
    std::string job;
    bool bothWays;
};

class SmimeTest : public testing::Test {
protected:
    /// Has messages exchanged and judged by tests/interop/smime: one counts as read when its text comes out and, where its
    /// outermost layer is signed or authenticated, the same message with another text is refused.
    void exchange(const std::string& program, const std::vector<Exchanged>& messages) {
        if (!installed("python3"))
            GTEST_SKIP() << "python3 is not installed";
        const std::string programs = norvtest::programDirectory;
        const Answer people = run({.arguments = {programs + "smime_people", work.directory()}});
        ASSERT_EQ(0, people.status) << people.err;
        std::vector<std::string> arguments{
            "python3",    std::string(norvtest::sourceDirectory) + "/tests/interop/smime/matrix.py",
            "--people",   work.directory(),
            "--programs", programs,
            "--peer",     program};
        for (const Exchanged& message : messages)
            arguments.insert(arguments.end(), {"--job", message.job});
        const Answer answer = run({.arguments = arguments});
        ASSERT_EQ(0, answer.status) << answer.err;
        const auto results = nlohmann::json::parse(answer.out);
        if (results["absent"].contains(program))
            GTEST_SKIP() << program << ": " << results["absent"][program]["reason"].get<std::string>();
        std::set<std::string> read;
        for (const auto& result : results["results"])
            if (result["answer"] == "yes")
                read.insert(result["direction"].get<std::string>() + " " + result["job"].get<std::string>());
        for (const Exchanged& message : messages) {
            EXPECT_TRUE(read.contains("reads ours " + message.job)) << message.job << "\n" << answer.err;
            EXPECT_TRUE(!message.bothWays || read.contains("ours reads " + message.job)) << message.job << "\n"
                                                                                         << answer.err;
        }
    }

    Workspace work;
};

TEST_F(SmimeTest, OpenSslCms) {
    exchange("openssl", {{"sign-rsa-detached", true},
                         {"sign-pss-opaque", true},
                         {"sign-ecdsa-detached", true},
                         {"encrypt-oaep-aes-256-cbc", true},
                         {"sign-ecdsa-384-sha384-detached", true},
                         {"encrypt-ecdh-aes-256-gcm", true},
                         {"encrypt-ecdh-521-aes-256-cbc", true},
                         {"encrypt-rsa-aes-192-gcm", true},
                         {"triple", true},
                         {"protected-both", false}});
}

TEST_F(SmimeTest, GMime) {
    exchange("gmime", {{"sign-rsa-detached", true}, {"sign-pss-opaque", false}, {"both-opaque", true}});
}

TEST_F(SmimeTest, Gpgsm) {
    exchange("gpgsm", {{"sign-ecdsa-opaque", false}, {"both-detached", true}});
}

TEST_F(SmimeTest, Nss) {
    exchange("nss", {{"sign-ecdsa-detached", true}, {"sign-ecdsa-521-sha512-detached", true}, {"both-opaque", true}});
}

} // namespace
