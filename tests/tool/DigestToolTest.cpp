// norvcrypt digest: the line format of sha256sum, and what happens to names and files that are odd.

#include "support/Process.h"
#include "support/Workspace.h"

#include <gtest/gtest.h>

using namespace interop;

namespace {

// FIPS 180-4 example values for "abc".
const std::string sha256OfAbc = "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";
const std::string sha1OfAbc = "a9993e364706816aba3e25717850c26c9cd0d89d";

TEST(DigestToolTest, StandardInputIsTheDefault) {
    const Answer answer = norvcrypt({"digest", "--type", "sha256"}, "abc");
    EXPECT_EQ(0, answer.status);
    EXPECT_EQ(sha256OfAbc + "  -\n", answer.out);
    EXPECT_EQ("", answer.err);
}

TEST(DigestToolTest, TypeDefaultsToSha256) {
    EXPECT_EQ(sha256OfAbc + "  -\n", norvcrypt({"digest"}, "abc").out);
}

TEST(DigestToolTest, DashIsStandardInput) {
    EXPECT_EQ(sha1OfAbc + "  -\n", norvcrypt({"digest", "--type", "sha1", "-"}, "abc").out);
}

TEST(DigestToolTest, FilesInOrder) {
    const Workspace work;
    work.write("one", std::string("abc"));
    work.write("two", std::string());
    const Answer answer = norvcrypt(Command{.arguments = {"digest", "one", "two"}, .directory = work.directory()});
    EXPECT_EQ(0, answer.status);
    EXPECT_EQ(sha256OfAbc + "  one\ne3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855  two\n",
              answer.out);
}

TEST(DigestToolTest, EveryTypeThatOpenSslNames) {
    EXPECT_EQ("900150983cd24fb0d6963f7d28e17f72  -\n", norvcrypt({"digest", "--type", "md5"}, "abc").out);
    EXPECT_EQ(
        "ddaf35a193617abacc417349ae20413112e6fa4e89a97ea20a9eeee64b55d39a2192992a274fc1a836ba3c23a3feebbd454d4423643"
        "ce80e2a9ac94fa54ca49f  -\n",
        norvcrypt({"digest", "--type", "SHA512"}, "abc").out);
}

TEST(DigestToolTest, UnknownTypeIsBadUsage) {
    const Answer answer = norvcrypt({"digest", "--type", "sha\n257"}, "abc");
    EXPECT_EQ(2, answer.status);
    EXPECT_EQ("", answer.out);
    EXPECT_EQ("norvcrypt: unknown digest: sha\\x0A257\n", answer.err);
}

TEST(DigestToolTest, MissingFileIsToldAndTheOthersAreDigested) {
    const Workspace work;
    work.write("one", std::string("abc"));
    const Answer answer = norvcrypt(Command{.arguments = {"digest", "none", "one"}, .directory = work.directory()});
    EXPECT_EQ(2, answer.status);
    EXPECT_EQ(sha256OfAbc + "  one\n", answer.out);
    EXPECT_EQ("norvcrypt: cannot open none: No such file or directory\n", answer.err);
}

TEST(DigestToolTest, DirectoryIsUnreadable) {
    const Answer answer = norvcrypt({"digest", "/"});
    EXPECT_EQ(2, answer.status);
    EXPECT_EQ("norvcrypt: cannot read /: Is a directory\n", answer.err);
}

TEST(DigestToolTest, StandardInputTwiceIsBadUsage) {
    const Answer answer = norvcrypt({"digest", "-", "-"}, "abc");
    EXPECT_EQ(2, answer.status);
    EXPECT_EQ(sha256OfAbc + "  -\n", answer.out);
    EXPECT_EQ("norvcrypt: standard input can be read only once\n", answer.err);
}

TEST(DigestToolTest, Sha256sumChecksTheLines) {
    const Workspace work;
    const std::vector<std::string> names{
        "plain", "with space", "back\\slash", "line\nfeed", "carriage\rreturn", "escape\x1B[31m", "latin\xE9"};
    Command digest{.arguments = {"digest"}, .directory = work.directory()};
    for (const std::string& name : names) {
        work.write(name, "content of " + name);
        digest.arguments.push_back(name);
    }
    const Answer answer = norvcrypt(digest);
    EXPECT_EQ(0, answer.status);
    EXPECT_EQ(names.size(), linesOf(answer.out).size());
    EXPECT_NE(std::string::npos, answer.out.find("  line\\nfeed\n"));
    const Answer check = run(
        {.arguments = {"sha256sum", "--check", "--strict", "-"}, .input = answer.out, .directory = work.directory()});
    EXPECT_EQ(0, check.status) << check.out << check.err;
}

TEST(DigestToolTest, LinesAreThoseOfTheCoreUtilities) {
    const Workspace work;
    const std::vector<std::string> names{"plain", "[a,b]", "[]",   "++",   "--x",  "%%", "{}", "\x01++",
                                         "\"q\"", "b\\s",  "l\nf", "c\rr", "\xFF", "\\", " ",  "~"};
    for (const std::string& name : names)
        work.write(name, "content of " + name);
    const std::vector<std::pair<std::string, std::string>> programs{
        {"md5", "md5sum"},       {"sha1", "sha1sum"},     {"sha224", "sha224sum"}, {"sha256", "sha256sum"},
        {"sha384", "sha384sum"}, {"sha512", "sha512sum"}, {"blake2b512", "b2sum"}};
    for (const auto& [type, program] : programs) {
        Command ours{.arguments = {"digest", "--type", type, "--"}, .directory = work.directory()};
        Command theirs{.arguments = {program, "--"}, .directory = work.directory()};
        for (const std::string& name : names) {
            ours.arguments.push_back(name);
            theirs.arguments.push_back(name);
        }
        const Answer answer = norvcrypt(ours);
        EXPECT_EQ(0, answer.status) << answer.err;
        EXPECT_EQ(run(theirs).out, answer.out) << program;
    }
    EXPECT_EQ(sha256("content of ++") + "  ++\n" + sha256("content of [a,b]") + "  [a,b]\n",
              norvcrypt(Command{.arguments = {"digest", "++", "[a,b]"}, .directory = work.directory()}).out);
}

TEST(DigestToolTest, HostileNamesCannotForgeAnErrorLine) {
    const Answer answer = norvcrypt({"digest", "no\nnorvcrypt: all is well\x1B[2J\xFF"});
    EXPECT_EQ(2, answer.status);
    EXPECT_EQ("norvcrypt: cannot open no\\x0Anorvcrypt: all is well\\x1B[2J\\xFF: No such file or directory\n",
              answer.err);
}

TEST(DigestToolTest, FullDiskIsAClearFailure) {
    const Answer answer = norvcrypt(Command{.arguments = {"digest"}, .input = "abc", .outputFile = "/dev/full"});
    EXPECT_EQ(2, answer.status);
    EXPECT_EQ("norvcrypt: cannot write standard output: No space left on device\n", answer.err);
}

TEST(DigestToolTest, BrokenPipeIsAClearFailure) {
    const Answer answer = norvcrypt(Command{.arguments = {"digest"}, .input = "abc", .outputBroken = true});
    EXPECT_EQ(2, answer.status);
    EXPECT_EQ("norvcrypt: cannot write standard output: Broken pipe\n", answer.err);
}

TEST(DigestToolTest, ClosedOutputIsAClearFailure) {
    const Answer answer = norvcrypt(Command{.arguments = {"digest"}, .input = "abc", .outputClosed = true});
    EXPECT_EQ(2, answer.status);
    EXPECT_EQ("norvcrypt: cannot write standard output: Bad file descriptor\n", answer.err);
}

TEST(DigestToolTest, ClosedInputIsAClearFailure) {
    const Answer answer = norvcrypt(Command{.arguments = {"digest"}, .inputClosed = true});
    EXPECT_EQ(2, answer.status);
    EXPECT_EQ("norvcrypt: cannot read standard input: Bad file descriptor\n", answer.err);
}

} // namespace
