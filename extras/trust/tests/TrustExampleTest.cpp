// The example, run as its reader would run it.

#include "Chains.h"
#include "support/TemporaryFolder.h"

#include <gmock/gmock.h>

#include <cstdio>
#include <filesystem>
#include <sys/wait.h>

using namespace trusttesting;

namespace {

struct Ran {
    int answer;
    std::string output;
};

Ran run(const std::string& arguments) {
    FILE* const pipe = popen((std::string(JUDGE_CERTIFICATE) + " " + arguments + " 2>&1 </dev/null").c_str(), "r");
    std::string output;
    for (int c = std::fgetc(pipe); c != EOF; c = std::fgetc(pipe)) {
        output += static_cast<char>(c);
    }
    const int status = pclose(pipe);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, output};
}

class TrustExample : public TrustTest {};

TEST_F(TrustExample, SaysWhy) {
    const norvtest::TemporaryFolder folder;
    const std::string roots = folder.write("roots.pem", m_root.certificate.pem());
    const std::string chain = folder.write("chain.pem", user(m_middle).certificate.pem() + m_middle.certificate.pem());
    std::filesystem::create_directory(folder.path("lists"));
    folder.write("lists/root.crl", list(m_root).pem());
    const std::string all = roots + " " + folder.path("lists") + " " + chain;
    Ran ran = run(all + " anna@example.org");
    EXPECT_EQ(ran.answer, 0) << ran.output;
    EXPECT_THAT(ran.output, testing::HasSubstr("note: 0 list-missing"));
    ran = run(all + " bob@example.org");
    EXPECT_EQ(ran.answer, 1);
    EXPECT_THAT(ran.output, testing::HasSubstr("sender-differs"));
    folder.write("lists/middle.crl", list(m_middle, {.revoked = {{.serial = "a1"}}}).pem());
    ran = run(all);
    EXPECT_EQ(ran.answer, 1);
    EXPECT_THAT(ran.output, testing::HasSubstr("0 revoked: the certificate of CN=Anna was revoked on "));
    EXPECT_EQ(run(folder.path("nowhere") + " " + folder.path("lists") + " " + chain).answer, 2);
    EXPECT_EQ(run(roots).answer, 2);
}

} // namespace
