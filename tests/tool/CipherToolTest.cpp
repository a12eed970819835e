// norvcrypt cipher beside openssl enc, both ways, and what it answers to bad keys, bytes and usage.

#include "support/Process.h"
#include "support/Workspace.h"

#include <gtest/gtest.h>

using namespace interop;

namespace {

/// A cipher of `openssl enc`: its name, and how many bytes its key and its IV have.
struct Named {
    std::string name;
    std::size_t keyLength;
    std::size_t ivLength;
};

const std::vector<Named> ciphersOfOpenssl{{"des-cbc", 8, 8},      {"des-ede3-cbc", 24, 8}, {"bf-cbc", 16, 8},
                                          {"cast5-cbc", 16, 8},   {"aes-128-cbc", 16, 16}, {"aes-192-cbc", 24, 16},
                                          {"aes-256-cbc", 32, 16}};
const Named idea{"idea-cbc", 16, 8};
const Named aes128{"aes-128-cbc", 16, 16};

std::string keyOf(const Named& cipher) {
    return std::string("2b7e151628aed2a6abf7158809cf4f3c603deb1015ca71be2b73aef0857d7781")
        .substr(0, 2 * cipher.keyLength);
}
std::string ivOf(const Named& cipher) {
    return std::string("f0f1f2f3f4f5f6f7f8f9fafbfcfdfeff").substr(0, 2 * cipher.ivLength);
}

std::string bodyOf(std::size_t length) {
    std::string body;
    for (unsigned int state = 7; body.size() < length;) {
        state = state * 1664525U + 1013904223U;
        body.push_back(static_cast<char>(state >> 24U));
    }
    return body;
}

Answer ours(const std::string& direction, const Named& cipher, const std::string& input) {
    return norvcrypt(
        {"cipher", direction, "--cipher", cipher.name, "--key-hex", keyOf(cipher), "--iv-hex", ivOf(cipher)}, input);
}

Answer theirs(const std::string& direction, const Named& cipher, const std::string& input) {
    return run({.arguments = {"openssl", "enc", direction == "encrypt" ? "-e" : "-d", "-" + cipher.name, "-K",
                              keyOf(cipher), "-iv", ivOf(cipher), "-provider", "legacy", "-provider", "default"},
                .input = input});
}

class CipherToolBesideOpenssl : public testing::TestWithParam<Named> {};

TEST_P(CipherToolBesideOpenssl, WritesTheSameBytesAndReadsThem) {
    const Named& cipher = GetParam();
    // Around a block and around what the tool reads at a time; the streams' own tests go through the sizes.
    for (const std::size_t length : {0U, 15U, 16U, 65536U, 65537U}) {
        SCOPED_TRACE(length);
        const std::string body = bodyOf(length);
        const Answer written = theirs("encrypt", cipher, body);
        ASSERT_EQ(0, written.status) << written.err;
        const Answer encrypted = ours("encrypt", cipher, body);
        EXPECT_EQ(0, encrypted.status);
        EXPECT_EQ("", encrypted.err);
        EXPECT_TRUE(encrypted.out == written.out);
        const Answer decrypted = ours("decrypt", cipher, written.out);
        EXPECT_EQ(0, decrypted.status) << decrypted.err;
        EXPECT_TRUE(decrypted.out == body);
    }
}

INSTANTIATE_TEST_SUITE_P(Ciphers, CipherToolBesideOpenssl, testing::ValuesIn(ciphersOfOpenssl),
                         [](const testing::TestParamInfo<Named>& one) {
                             std::string name = one.param.name;
                             std::erase(name, '-');
                             return name;
                         });

TEST(CipherToolTest, IdeaComesBack) {
    for (const std::size_t length : {0U, 7U, 8U, 100000U}) {
        const Answer encrypted = ours("encrypt", idea, bodyOf(length));
        EXPECT_EQ(0, encrypted.status) << encrypted.err;
        EXPECT_EQ((length / 8 + 1) * 8, encrypted.out.size());
        const Answer decrypted = ours("decrypt", idea, encrypted.out);
        EXPECT_EQ(0, decrypted.status) << decrypted.err;
        EXPECT_TRUE(decrypted.out == bodyOf(length));
    }
}

TEST(CipherToolTest, IdeaGivesThePublishedBlock) {
    const Answer answer = norvcrypt({"cipher", "encrypt", "--cipher", "idea-cbc", "--key-hex",
                                     "00010002000300040005000600070008", "--iv-hex", "0000000000000000"},
                                    std::string("\0\0\0\1\0\2\0\3", 8));
    EXPECT_EQ(0, answer.status) << answer.err;
    EXPECT_EQ("\x11\xfb\xed\x2b\x01\x98\x6d\xe5", answer.out.substr(0, 8));
    EXPECT_EQ(16U, answer.out.size());
}

TEST(CipherToolTest, FilesAreReadAndWritten) {
    const Workspace work;
    work.write("body", bodyOf(70000));
    const std::vector<std::string> options{"--cipher", "AES-128-CBC", "--key-hex", "2B7E151628AED2A6ABF7158809CF4F3C",
                                           "--iv-hex", ivOf(aes128)};
    Command encrypt{.arguments = {"cipher", "encrypt", "--in", "body", "--out", "secret"},
                    .directory = work.directory()};
    Command decrypt{.arguments = {"cipher", "decrypt", "--in", "secret", "--out", "clear"},
                    .directory = work.directory()};
    for (Command* command : {&encrypt, &decrypt}) {
        command->arguments.insert(command->arguments.end(), options.begin(), options.end());
        const Answer answer = norvcrypt(*command);
        EXPECT_EQ(0, answer.status);
        EXPECT_EQ("", answer.out + answer.err);
    }
    EXPECT_TRUE(work.read("clear") == bodyOf(70000));
    EXPECT_TRUE(work.read("secret") == ours("encrypt", aes128, bodyOf(70000)).out);
}

/// Decrypts a file named "secret" with that content; the answer, after a look at what was left behind.
Answer decryptedToFile(const std::string& content, const std::string& key, const std::string& before = "") {
    const Workspace work;
    work.write("secret", content);
    if (!before.empty())
        work.write("clear", before);
    const Answer answer =
        norvcrypt(Command{.arguments = {"cipher", "decrypt", "--cipher", "aes-128-cbc", "--key-hex", key, "--iv-hex",
                                        ivOf(aes128), "--in", "secret", "--out", "clear"},
                          .directory = work.directory()});
    EXPECT_EQ(before.empty() ? (std::vector<std::string>{"secret"}) : (std::vector<std::string>{"clear", "secret"}),
              work.names());
    EXPECT_EQ(before, before.empty() ? "" : work.read("clear"));
    return answer;
}

void expectRefused(const Answer& answer) {
    EXPECT_EQ(1, answer.status);
    EXPECT_EQ("", answer.out);
    EXPECT_EQ("norvcrypt: cannot decrypt secret: the key is wrong or the bytes are damaged\n", answer.err);
}

TEST(CipherToolTest, AWrongKeyIsRefusedAndLeavesNoFile) {
    const std::string secret = ours("encrypt", aes128, bodyOf(5000)).out;
    expectRefused(decryptedToFile(secret, "2b7e151628aed2a6abf7158809cf4f3d"));
    expectRefused(decryptedToFile(secret, "2b7e151628aed2a6abf7158809cf4f3d", "what was there"));
}

TEST(CipherToolTest, DamagedPaddingAndCutBytesAreRefusedAndLeaveNoFile) {
    std::string secret = ours("encrypt", aes128, bodyOf(15)).out; // padding: 01
    secret += secret;                                             // now the end of another chain
    expectRefused(decryptedToFile(secret, keyOf(aes128)));
    secret.resize(17);
    expectRefused(decryptedToFile(secret, keyOf(aes128)));
    expectRefused(decryptedToFile("", keyOf(aes128)));
}

TEST(CipherToolTest, BadUsageIsToldAndRepeatsNoKey) {
    const auto answerTo = [](std::vector<std::string> arguments) {
        Answer answer = norvcrypt(arguments, "body");
        EXPECT_EQ(2, answer.status);
        EXPECT_EQ("", answer.out);
        EXPECT_EQ(1U, linesOf(answer.err).size()) << answer.err;
        return answer.err;
    };
    const auto with = [&](const std::string& cipher, const std::string& key, const std::string& iv) {
        return answerTo({"cipher", "encrypt", "--cipher", cipher, "--key-hex", key, "--iv-hex", iv});
    };
    const std::string key = keyOf(aes128);
    const std::string iv = ivOf(aes128);
    EXPECT_EQ("norvcrypt: unknown cipher: rc4 (one of des-cbc, idea-cbc, des-ede3-cbc, bf-cbc, cast5-cbc, aes-128-cbc, "
              "aes-192-cbc, aes-256-cbc)\n",
              with("rc4", key, iv));
    const std::string badKey = "norvcrypt: --key-hex takes 32 hexadecimal digits for aes-128-cbc\n";
    EXPECT_EQ(badKey, with("aes-128-cbc", "", iv));
    EXPECT_EQ(badKey, with("aes-128-cbc", key.substr(2), iv));
    EXPECT_EQ(badKey, with("aes-128-cbc", key.substr(1), iv));
    EXPECT_EQ(badKey, with("aes-128-cbc", key + "00", iv));
    EXPECT_EQ(badKey, with("aes-128-cbc", "xy" + key.substr(2), iv));
    EXPECT_EQ(badKey, with("aes-128-cbc", "2b:" + key.substr(3), iv));
    EXPECT_EQ("norvcrypt: --key-hex takes 48 hexadecimal digits for des-ede3-cbc\n", with("des-ede3-cbc", key, iv));
    EXPECT_EQ("norvcrypt: --iv-hex takes 32 hexadecimal digits for aes-128-cbc\n",
              with("aes-128-cbc", key, iv.substr(16)));
    EXPECT_EQ("norvcrypt: --iv-hex takes 16 hexadecimal digits for bf-cbc\n", with("bf-cbc", key, iv));
    EXPECT_NE(std::string::npos,
              answerTo({"cipher", "sign", "--cipher", "bf-cbc", "--key-hex", key, "--iv-hex", iv}).find("DIRECTION"));
    EXPECT_NE(std::string::npos, answerTo({"cipher", "encrypt", "--key-hex", key, "--iv-hex", iv}).find("--cipher"));
    EXPECT_NE(std::string::npos,
              answerTo({"cipher", "encrypt", "--cipher", "bf-cbc", "--iv-hex", iv}).find("--key-hex"));
    EXPECT_NE(std::string::npos,
              answerTo({"cipher", "encrypt", "--cipher", "bf-cbc", "--key-hex", key}).find("--iv-hex"));
    // What is told may go into a log, and the key with it.
    EXPECT_EQ("norvcrypt: unknown option --keyhex: did you mean --key-hex? (norvcrypt cipher --help tells more)\n",
              answerTo({"cipher", "encrypt", "--cipher", "bf-cbc", "--keyhex=" + key, "--iv-hex", iv}));
}

TEST(CipherToolTest, UnreadableInputLeavesNoFile) {
    const Workspace work;
    const Answer answer =
        norvcrypt(Command{.arguments = {"cipher", "encrypt", "--cipher", "aes-128-cbc", "--key-hex", keyOf(aes128),
                                        "--iv-hex", ivOf(aes128), "--in", "none", "--out", "secret"},
                          .directory = work.directory()});
    EXPECT_EQ(2, answer.status);
    EXPECT_EQ("norvcrypt: cannot open none: No such file or directory\n", answer.err);
    EXPECT_TRUE(work.names().empty());
}

TEST(CipherToolTest, AFullDiskIsAClearFailure) {
    const Answer answer = norvcrypt(Command{.arguments = {"cipher", "encrypt", "--cipher", "aes-128-cbc", "--key-hex",
                                                          keyOf(aes128), "--iv-hex", ivOf(aes128)},
                                            .input = bodyOf(100),
                                            .outputFile = "/dev/full"});
    EXPECT_EQ(2, answer.status);
    EXPECT_EQ("norvcrypt: cannot write standard output: No space left on device\n", answer.err);
}

} // namespace
