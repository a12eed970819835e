// norvcrypt decrypt and smime decrypt say one and the same of messages that cannot be opened, whatever is wrong with them: programs
// around them answer senders with the exit code, and copy what was said into logs and bounces.

#include "support/FailingEnvelopes.h"
#include "support/ToolTest.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <optional>

using namespace interop;
using nlohmann::json;
using norvtest::FailingEnvelope;

namespace {

struct Said {
    int status;
    std::string out;
    std::string err;

    bool operator==(const Said&) const = default;
};
std::ostream& operator<<(std::ostream& stream, const Said& said) {
    return stream << "exit code " << said.status << ", out \"" << said.out << "\", err \"" << said.err << '"';
}

class DecryptOraclesToolTest : public ToolTest {
protected:
    void SetUp() override {
        work.write("alice.pem", alice().certificate.pem());
        work.write("alice.key", alice().key.pkcs8Pem());
    }
    static std::vector<FailingEnvelope> all() {
        return norvtest::FailingEnvelopes({alice().key, root().name.der(), alice().serial}).all();
    }
    /// One of each kind, where each is a process.
    static std::vector<FailingEnvelope> envelopes() {
        const std::vector<std::string> names{"the first octet of the block is 1",
                                             "the second octet is 1",
                                             "no zero ends the padding",
                                             "a padding of seven octets",
                                             "a content key of 0 octets",
                                             "a content key of 15 octets",
                                             "another content key",
                                             "one octet short",
                                             "beyond the modulus",
                                             "a padding that ends in 0",
                                             "a padding that ends in 255",
                                             "the last 1 octets are missing",
                                             "the last 16 octets are missing",
                                             "the last octet of the tag",
                                             "the last octet of the content"};
        std::vector<FailingEnvelope> chosen;
        for (FailingEnvelope& one : all()) {
            if (std::ranges::any_of(names, [&](const std::string& name) { return one.name.ends_with(name); }))
                chosen.push_back(std::move(one));
        }
        EXPECT_LE(24U, chosen.size());
        return chosen;
    }
    Said said(const std::vector<std::string>& command, const std::string& message) {
        work.write("msg", message);
        std::vector<std::string> arguments = command;
        arguments.insert(arguments.end(), {"--in", "msg", "--cert", "alice.pem", "--key", "alice.key"});
        const Answer answer = tool(arguments);
        return {answer.status, answer.out, answer.err};
    }
};

TEST_F(DecryptOraclesToolTest, StructuresThatCannotBeOpened) {
    const Said expected{
        1, "",
        "norvcrypt: recipient 1, issuer CN=Interop Root,O=Interop,C=DE serial number 2001: decryption with "
        "the key in alice.key failed, the message is damaged (event 0x300005B)\n"};
    for (const FailingEnvelope& envelope : envelopes()) {
        const std::string message(envelope.der.begin(), envelope.der.end());
        EXPECT_EQ(expected, norvtest::expectedOrLast([&] { return said({"decrypt"}, message); }, expected))
            << envelope.name;
    }
}

TEST_F(DecryptOraclesToolTest, MailsThatCannotBeOpened) {
    const std::vector<FailingEnvelope> chosen = envelopes();
    for (const bool authenticated : {false, true}) {
        const auto ask = [&](const FailingEnvelope& envelope) {
            return said({"smime", "decrypt"}, norvtest::mailAround(envelope));
        };
        // A content key that is there, and wrong: no random one, which opens a message by luck.
        const auto certain = std::ranges::find_if(chosen, [&](const FailingEnvelope& envelope) {
            return envelope.authenticated == authenticated && envelope.name.ends_with("another content key");
        });
        ASSERT_NE(chosen.end(), certain);
        const Said expected = ask(*certain);
        EXPECT_EQ(2, expected.status);
        EXPECT_EQ("", expected.out);
        EXPECT_NE(std::string::npos,
                  expected.err.find("part 1: the message is damaged, or the key is not the right one"))
            << expected.err;
        for (const FailingEnvelope& envelope : chosen) {
            if (envelope.authenticated == authenticated) {
                EXPECT_EQ(expected, norvtest::expectedOrLast([&] { return ask(envelope); }, expected)) << envelope.name;
            }
        }
    }
}

/// What is told of each of many messages: the lines of JSON of one process.
class DecryptOraclesInJson : public DecryptOraclesToolTest {
protected:
    /// \param files the messages, which the lines name
    std::vector<json> linesOf(std::vector<std::string> command, const std::vector<std::string>& files,
                              const std::vector<std::string>& more) {
        const std::vector<std::string> keys{"--cert", "alice.pem", "--key", "alice.key", "--json", "--jobs", "2"};
        command.insert(command.end(), keys.begin(), keys.end());
        command.insert(command.end(), more.begin(), more.end());
        command.emplace_back("--in");
        command.insert(command.end(), files.begin(), files.end());
        const Answer answer = tool(command);
        std::vector<json> lines;
        for (const std::string& line : interop::linesOf(answer.out))
            lines.push_back(json::parse(line));
        EXPECT_EQ(files.size(), lines.size());
        // How many of them failed; nothing where a random key opened the only one.
        const bool failed = std::ranges::any_of(lines, [](const json& line) { return line["exitCode"] != 0; });
        EXPECT_EQ(failed ? 1U : 0U, interop::linesOf(answer.err).size()) << answer.err;
        for (std::size_t at = 0; at != lines.size() && at != files.size(); ++at) {
            EXPECT_EQ(files[at], lines[at]["file"]);
            lines[at].erase("file");
            lines[at].erase("output"); // of one that a random key opened
            if (!lines[at].contains("parts"))
                continue;
            for (json& part : lines[at]["parts"])
                part.erase("octets"); // of what was sent, which is longer or shorter
        }
        return lines;
    }
    /// Expects one line for all that `messageOf` makes.
    /// \param authenticated only those that are, or are not
    template <class MessageOf> json expectOneLine(const std::vector<std::string>& command,
                                                  const std::vector<std::string>& more,
                                                  std::optional<bool> authenticated, MessageOf messageOf) {
        std::vector<std::string> files;
        std::vector<std::string> names;
        for (const FailingEnvelope& envelope : all()) {
            if (authenticated && envelope.authenticated != *authenticated)
                continue;
            files.push_back("m" + std::to_string(files.size()));
            names.push_back(envelope.name);
            work.write(files.back(), messageOf(envelope));
        }
        const std::vector<json> lines = linesOf(command, files, more);
        if (lines.size() != files.size())
            return {};
        // The key is found in all; the last one needs no luck to fail.
        const json expected = lines.back();
        for (std::size_t at = 0; at != lines.size(); ++at) {
            json line = lines[at];
            for (int again = 0; line != expected && again != 3; ++again)
                line = linesOf(command, {files[at]}, more).at(0);
            EXPECT_EQ(expected, line) << names[at];
        }
        return expected;
    }
};

TEST_F(DecryptOraclesInJson, StructuresThatCannotBeOpened) {
    const json line =
        expectOneLine({"decrypt"}, {"--out-dir", "out"}, std::nullopt, [](const FailingEnvelope& envelope) {
            return std::string(envelope.der.begin(), envelope.der.end());
        });
    EXPECT_EQ(1, line["exitCode"]) << line;
}

TEST_F(DecryptOraclesInJson, MailsThatCannotBeOpened) {
    // The cipher is told, which everybody can see.
    for (const bool authenticated : {false, true}) {
        const auto mail = [](const FailingEnvelope& envelope) { return norvtest::mailAround(envelope); };
        json line = expectOneLine({"smime", "decrypt"}, {"--out-dir", "out"}, authenticated, mail);
        EXPECT_EQ(2, line["exitCode"]) << line;
        line = expectOneLine({"smime", "inspect"}, {}, authenticated, mail);
        EXPECT_EQ("damaged", line["verdict"]) << line;
    }
}

} // namespace
