#include "support/SigningToolTest.h"

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include <filesystem>

namespace interop {

namespace {

using testing::Contains;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

const std::string text = "Content-Type: text/plain\r\n\r\nDear Bob,\r\nall is well.\r\n";
const std::string lineFeeds = "Content-Type: text/plain\n\nDear Bob,\nall is well.\n";

class WhyRefusedToolTest : public SigningToolTest {
protected:
    void SetUp() override {
        SigningToolTest::SetUp();
        work.write("text", text);
        // By another program.
        openssl({"-certfile", "root.pem", "-out", "sig"});
    }
    void putInStore(const std::string& name, const norvauthority::Certificate& certificate) {
        std::filesystem::create_directories(work.path("store/" + name));
        work.write("store/" + name + "/cert.pem", certificate.pem());
        work.write("store/" + name + "/owners.txt", name + "@example.org\n");
    }
    void openssl(const std::vector<std::string>& more) {
        std::vector<std::string> arguments{"openssl", "cms",       "-sign",  "-binary",   "-in",      "text",
                                           "-signer", "alice.pem", "-inkey", "alice.key", "-outform", "DER"};
        arguments.insert(arguments.end(), more.begin(), more.end());
        const Answer answer = run({.arguments = arguments, .directory = work.directory()});
        ASSERT_EQ(0, answer.status) << answer.err;
    }
};

TEST_F(WhyRefusedToolTest, SaysWhatARelayDidAndStaysRefused) {
    work.write("arrived", lineFeeds);
    const Answer answer = tool({"verify", "--signature", "sig", "--in", "arrived"});
    EXPECT_EQ(1, answer.status);
    const std::vector<std::string> lines = linesOf(answer.out);
    ASSERT_LT(3U, lines.size()) << answer.out;
    EXPECT_THAT(lines[0], StartsWith("signer 1: NOT VERIFIED, the body is not the one that was signed"));
    EXPECT_EQ(
        "why signer 1 is refused: the signed text ended its lines with CR LF; a relay made LF of it (line-ends-lf)",
        lines[1]);
    EXPECT_THAT(lines[2], StartsWith("  what to do: "));
    EXPECT_EQ("", answer.err);
    // A pipe is read once, and kept for that.
    const Answer piped = tool({"verify", "--signature", "sig"}, lineFeeds);
    EXPECT_EQ(1, piped.status);
    EXPECT_THAT(linesOf(piped.out), Contains(lines[1]));
}

TEST_F(WhyRefusedToolTest, SaysItAsJson) {
    const Answer answer = tool({"verify", "--signature", "sig", "--json"}, text + "-- \r\nsent by a list\r\n");
    EXPECT_EQ(1, answer.status);
    const auto json = nlohmann::json::parse(answer.out);
    EXPECT_EQ("refused", json.at("verdict"));
    EXPECT_EQ("refused", json.at("signers").at(0).at("verdict"));
    const auto& explanation = json.at("signers").at(0).at("explanation");
    ASSERT_EQ(1U, explanation.at("findings").size());
    EXPECT_EQ("footer-at-end", explanation.at("findings").at(0).at("code"));
    EXPECT_EQ(13, explanation.at("findings").at(0).at("number"));
    EXPECT_EQ("the signed text ended before the last 2 lines (21 bytes), which were added on the way",
              explanation.at("findings").at(0).at("text"));
    EXPECT_EQ(alice().certificate.sha256(), explanation.at("certificate").at("sha256"));
    EXPECT_FALSE(json.contains("notLooked"));
}

TEST_F(WhyRefusedToolTest, SaysNothingOfATextThatWasChanged) {
    const Answer answer =
        tool({"verify", "--signature", "sig"}, "Content-Type: text/plain\r\n\r\nDear Bob,\r\nall is lost.\r\n");
    EXPECT_EQ(1, answer.status);
    EXPECT_THAT(answer.out, Not(HasSubstr("why")));
    const Answer good = tool({"verify", "--signature", "sig"}, text);
    EXPECT_EQ(0, good.status);
    EXPECT_THAT(good.out, Not(HasSubstr("why")));
}

TEST_F(WhyRefusedToolTest, NamesTheCertificateWhoseKeyItIs) {
    const norvauthority::Identity renewed =
        norvauthority::issue({.subject = {{"CN", "alice"}}, .key = alice().key, .issuer = &root(), .serial = "7777"});
    work.write("renewed.pem", renewed.certificate.pem());
    openssl({"-nocerts", "-out", "bare"});
    const Answer detached = tool({"verify", "--signature", "bare", "--in", "text", "--cert", "renewed.pem"});
    EXPECT_EQ(1, detached.status);
    EXPECT_THAT(detached.out, HasSubstr("(certificate-renewed)"));
    EXPECT_THAT(detached.out, HasSubstr("serial number 7777 of "));
    // A content within the structure is no relay's to change.
    openssl({"-nocerts", "-nodetach", "-out", "opaque"});
    const Answer embedded = tool({"verify", "--signature", "opaque", "--embedded", "--cert", "renewed.pem"});
    EXPECT_EQ(1, embedded.status);
    EXPECT_THAT(embedded.out, HasSubstr("(certificate-renewed)"));
}

TEST_F(WhyRefusedToolTest, LooksThroughAStore) {
    const norvauthority::Identity renewed =
        norvauthority::issue({.subject = {{"CN", "alice"}}, .key = alice().key, .issuer = &root(), .serial = "7777"});
    putInStore("alice", renewed.certificate);
    putInStore("bob", bob().certificate);
    openssl({"-nocerts", "-out", "bare"});
    const Answer unasked = tool({"verify", "--signature", "bare", "--in", "text"});
    EXPECT_EQ(1, unasked.status);
    EXPECT_THAT(unasked.out, Not(HasSubstr("why")));
    const Answer asked = tool({"verify", "--signature", "bare", "--in", "text", "--store", "store"});
    EXPECT_EQ(1, asked.status) << asked.err;
    EXPECT_THAT(asked.out, HasSubstr("(certificate-renewed)"));
    EXPECT_THAT(asked.out, HasSubstr("serial number 7777 of "));
    // A whole mail, both ways.
    const Answer mail = run({.arguments = {"openssl", "cms", "-sign", "-in", "text", "-signer", "alice.pem", "-inkey",
                                           "alice.key", "-nocerts", "-from", "alice@example.org", "-out", "mail"},
                             .directory = work.directory()});
    ASSERT_EQ(0, mail.status) << mail.err;
    for (const std::vector<std::string>& command :
         {std::vector<std::string>{"verify", "--signature", "mail"}, {"smime", "verify", "--in", "mail"}}) {
        EXPECT_THAT(tool(command).out, Not(HasSubstr("why"))) << command[0];
        std::vector<std::string> withStore = command;
        withStore.insert(withStore.end(), {"--store", "store"});
        const Answer answer = tool(withStore);
        EXPECT_EQ(1, answer.status) << answer.err;
        EXPECT_THAT(answer.out, HasSubstr("(certificate-renewed)")) << command[0];
    }
}

// A certificate that the signer names and did not send along is found in the store.
TEST_F(WhyRefusedToolTest, TakesTheCertificateThatIsNamedFromAStore) {
    putInStore("alice", alice().certificate);
    openssl({"-nocerts", "-out", "bare"});
    EXPECT_EQ(1, tool({"verify", "--signature", "bare", "--in", "text"}).status);
    const Answer answer = tool({"verify", "--signature", "bare", "--in", "text", "--store", "store"});
    EXPECT_EQ(0, answer.status) << answer.out;
    EXPECT_EQ(1, tool({"verify", "--signature", "bare", "--store", "store"}, "another text").status);
    // It is named, so that nothing else is to be told of it.
    EXPECT_THAT(answer.out, Not(HasSubstr("why")));
    work.write("bob.pem", bob().certificate.pem());
    EXPECT_EQ(0,
              tool({"verify", "--signature", "bare", "--in", "text", "--store", "store", "--cert", "bob.pem"}).status);
    const Answer missing = tool({"verify", "--signature", "bare", "--in", "text", "--store", "nowhere"});
    EXPECT_EQ(2, missing.status);
    EXPECT_THAT(missing.err, HasSubstr("cannot load the store nowhere"));
}

TEST_F(WhyRefusedToolTest, LongBodiesAreSaidNotToBeLookedAt) {
    const std::string longer(65U << 20U, 'x');
    work.write("long", longer);
    for (const bool piped : {false, true}) {
        const Answer answer = piped ? run({.arguments = {"sh", "-c",
                                                         "cat long | " + std::string(norvtest::norvcryptProgram) +
                                                             " verify --signature sig"},
                                           .directory = work.directory()})
                                    : tool({"verify", "--signature", "sig", "--in", "long"});
        EXPECT_EQ(1, answer.status);
        EXPECT_THAT(answer.out,
                    HasSubstr("the body has more than 67108864 bytes: what may have happened to it was not tried"));
    }
}

} // namespace

} // namespace interop
