// The example, run as its reader would run it.

#include "Writing.h"

#include "support/Places.h"
#include "support/Process.h"
#include "support/TemporaryFolder.h"

#include <filesystem>

namespace {

using namespace smimetest;
using testing::HasSubstr;
using testing::Not;

class SmimeExampleTest : public testing::Test {
protected:
    void add(const std::string& name) const {
        const std::filesystem::path folder = m_folder.path("store/" + name);
        std::filesystem::create_directories(folder);
        m_folder.write("store/" + name + "/cert.pem", person(name).certificate.pem());
        m_folder.write("store/" + name + "/key.pem", person(name).key.pkcs8Pem());
        std::filesystem::permissions(folder / "key.pem", std::filesystem::perms(0600));
        m_folder.write("store/" + name + "/owners.txt", name + "@example.com\n");
    }
    [[nodiscard]] interop::Answer run(const std::string& mail) const {
        return interop::run({.arguments = {norvtest::programDirectory + std::string("send_signed"), "store",
                                           m_folder.write("mail", mail)},
                             .directory = m_folder.path()});
    }

    norvtest::TemporaryFolder m_folder;
};

TEST_F(SmimeExampleTest, SignsAndEncryptsWhenItCan) {
    add("alice");
    add("bob");
    const interop::Answer both = run("From: alice@example.com\nTo: bob@example.com\nSubject: Lunch\n\nAt noon?\n");
    EXPECT_EQ(both.status, 0) << both.err;
    EXPECT_THAT(both.out, HasSubstr("Subject: [...]"));
    EXPECT_THAT(verified(decrypted(both.out, person("bob"))), HasSubstr("Subject: Lunch"));
    EXPECT_THAT(verified(decrypted(both.out, person("alice"))), HasSubstr("At noon?"));
    const interop::Answer one = run("From: alice@example.com\nTo: carol@example.com\nSubject: Lunch\n\nAt noon?\n");
    EXPECT_EQ(one.status, 0) << one.err;
    EXPECT_THAT(verified(one.out), HasSubstr("At noon?"));
    const interop::Answer none = run("From: carol@example.com\n\nAt noon?\n");
    EXPECT_EQ(none.status, 1);
    EXPECT_EQ(none.out, "");
    EXPECT_THAT(none.err, HasSubstr("there is no key to sign with for carol@example.com"));
}

} // namespace
