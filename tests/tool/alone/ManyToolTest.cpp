// The tool over many inputs at a time: what is written and told of each, and what is refused before anything is written.

#include "support/Running.h"
#include "support/ToolTest.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

using namespace interop;
namespace fs = std::filesystem;
using nlohmann::json;

namespace {

class ManyToolTest : public ToolTest {
protected:
    void SetUp() override {
        for (const auto& [name, who] : {std::pair{"alice", &alice()}, {"bob", &bob()}}) {
            work.write(std::string(name) + ".pem", who->certificate.pem());
            work.write(std::string(name) + ".key", who->key.pkcs8Pem());
        }
        work.write("root.pem", root().certificate.pem());
        fs::create_directory(work.path("in"));
        before = work.names();
    }

    /// in/0.eml and so on, and their paths.
    std::vector<std::string> makeBodies(int count) {
        std::vector<std::string> paths;
        for (int at = 0; at != count; ++at) {
            paths.push_back("in/" + std::to_string(at) + ".eml");
            work.write(paths.back(), bodyOf(at));
        }
        return paths;
    }
    static std::string bodyOf(int at) {
        return "From: alice@example.org\r\nTo: bob@example.org\r\nSubject: " + std::to_string(at) + "\r\n\r\nbody " +
               std::to_string(at) + "\r\n" + std::string(static_cast<std::size_t>(at) * 37, 'x') + "\r\n";
    }
    static std::vector<std::string> with(std::vector<std::string> arguments, const std::string& option,
                                         const std::vector<std::string>& values,
                                         const std::vector<std::string>& more = {}) {
        if (!values.empty())
            arguments.push_back(option);
        arguments.insert(arguments.end(), values.begin(), values.end());
        arguments.insert(arguments.end(), more.begin(), more.end());
        return arguments;
    }
    Answer sign(const std::vector<std::string>& paths, const std::vector<std::string>& more) {
        return tool(with({"sign", "--cert", "alice.pem", "--key", "alice.key"}, "--in", paths, more));
    }
    Answer encrypt(const std::vector<std::string>& paths, const std::vector<std::string>& more) {
        return tool(with({"encrypt", "--to", "bob.pem"}, "--in", paths, more));
    }
    Answer decrypt(const std::vector<std::string>& paths, const std::vector<std::string>& more) {
        return tool(with({"decrypt", "--cert", "bob.pem", "--key", "bob.key"}, "--in", paths, more));
    }
    int openssl(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), {"openssl", "cms"});
        return run(Command{.arguments = arguments, .directory = work.directory()}).status;
    }
    std::vector<std::string> namesIn(const std::string& folder) {
        std::vector<std::string> names;
        for (const auto& entry : fs::directory_iterator(work.path(folder)))
            names.push_back(entry.path().filename());
        std::ranges::sort(names);
        return names;
    }
    static std::vector<json> jsonLines(const Answer& answer) {
        std::vector<json> all;
        for (const std::string& line : linesOf(answer.out))
            all.push_back(json::parse(line));
        return all;
    }
};

TEST_F(ManyToolTest, SignaturesAreThoseOfOneAtATime) {
    const std::vector<std::string> paths = makeBodies(25);
    std::string expected;
    for (const std::string& path : paths)
        expected += path + ": signed\n";
    for (const char* jobs : {"1", "4"}) {
        const std::string folder = std::string("out") + jobs;
        const Answer answer = sign(paths, {"--out-dir", folder, "--jobs", jobs});
        EXPECT_EQ(0, answer.status);
        EXPECT_EQ(expected, answer.out);
        EXPECT_EQ("", answer.err);
        EXPECT_EQ(25U, namesIn(folder).size());
        for (int at = 0; at != 25; ++at) {
            const std::string name = std::to_string(at) + ".eml";
            const std::string signature = folder + "/" + name + ".p7s";
            if (at % 5 == 0) {
                ASSERT_EQ(0, sign({"in/" + name}, {"--out", "single"}).status);
                EXPECT_EQ(work.read("single"), work.read(signature)) << name;
            }
            EXPECT_EQ(0, openssl({"-verify", "-binary", "-inform", "DER", "-in", signature, "-content", "in/" + name,
                                  "-CAfile", "root.pem", "-out", "/dev/null"}))
                << name;
        }
    }
}

TEST_F(ManyToolTest, WhatIsEncryptedIsDecryptedToWhatItWas) {
    const std::vector<std::string> paths = makeBodies(20);
    ASSERT_EQ(0, encrypt(paths, {"--out-dir", "secret", "--jobs", "4"}).status);
    std::vector<std::string> messages;
    for (int at = 0; at != 20; ++at) {
        messages.push_back("secret/" + std::to_string(at) + ".eml.p7m");
        EXPECT_EQ(0, openssl({"-decrypt", "-binary", "-inform", "DER", "-in", messages.back(), "-recip", "bob.pem",
                              "-inkey", "bob.key", "-out", "clear"}));
        EXPECT_EQ(bodyOf(at), work.read("clear"));
    }
    fs::copy_file(work.path(messages[3]), work.path("secret/other.bin"));
    messages.emplace_back("secret/other.bin");
    const Answer answer = decrypt(messages, {"--out-dir", "clear-ones", "--json", "--jobs", "3"});
    EXPECT_EQ(0, answer.status) << answer.err;
    const std::vector<json> lines = jsonLines(answer);
    ASSERT_EQ(21U, lines.size());
    for (int at = 0; at != 20; ++at) {
        const std::string clear = "clear-ones/" + std::to_string(at) + ".eml";
        EXPECT_EQ(bodyOf(at), work.read(clear));
        EXPECT_EQ(0600U, work.mode(clear));
        const json& line = lines[static_cast<std::size_t>(at)];
        EXPECT_EQ(messages[static_cast<std::size_t>(at)], line["file"]);
        EXPECT_EQ(clear, line["output"]);
        EXPECT_EQ(0, line["exitCode"]);
        EXPECT_EQ(true, line["decrypted"]);
        EXPECT_EQ("decrypted", line["recipients"][0]["outcome"]);
    }
    EXPECT_EQ("clear-ones/other.bin.content", lines.back()["output"]);
    EXPECT_EQ(0700U, work.mode("clear-ones"));
}

TEST_F(ManyToolTest, SignaturesAreJudgedOverTheBodiesBesideThem) {
    const std::vector<std::string> paths = makeBodies(4);
    ASSERT_EQ(0, sign(paths, {"--out-dir", "in"}).status);
    std::vector<std::string> signatures;
    for (const std::string& path : paths)
        signatures.push_back(path + ".p7s");
    const auto verify = [&](const std::vector<std::string>& more) {
        return tool(with({"verify"}, "--signature", signatures, more));
    };
    const std::string good =
        ": good: good signature, certificate SHA-256 " + alice().certificate.sha256() + " CN=alice,O=Interop,C=DE";
    Answer answer = verify({});
    EXPECT_EQ(0, answer.status);
    const auto over = [&](int at) {
        return "; body: in/" + std::to_string(at) + ".eml, " + std::to_string(bodyOf(at).size()) + " bytes";
    };
    for (std::size_t at = 0; at != 4; ++at)
        EXPECT_EQ(signatures[at] + good + "; trust was not checked" + over(static_cast<int>(at)),
                  linesOf(answer.out).at(at));
    EXPECT_EQ(signatures[0] + good + ", trust: accepted" + over(0), linesOf(verify({"--ca", "root.pem"}).out).at(0));

    // One of them fails, and then one more cannot be asked.
    work.write(paths[1], std::string("another body"));
    answer = verify({"--quiet"});
    EXPECT_EQ(1, answer.status);
    ASSERT_EQ(1U, linesOf(answer.out).size()) << answer.out;
    EXPECT_EQ(0U, answer.out.find(signatures[1] + ": refused: NOT VERIFIED, ")) << answer.out;
    EXPECT_EQ("norvcrypt: 4 inputs: 3 done, 1 refused, 0 failed\n", answer.err);
    fs::remove(work.path(paths[2]));
    answer = verify({"--json"});
    EXPECT_EQ(2, answer.status);
    const std::vector<json> lines = jsonLines(answer);
    ASSERT_EQ(4U, lines.size());
    EXPECT_EQ("good", lines[0]["verdict"]);
    EXPECT_EQ(paths[0], lines[0]["body"]["file"]);
    EXPECT_EQ("refused", lines[1]["verdict"]);
    EXPECT_EQ(1, lines[1]["exitCode"]);
    EXPECT_EQ(2, lines[2]["exitCode"]);
    EXPECT_EQ("the signature in in/2.eml.p7s is detached, and there is no body: in/2.eml is not there",
              lines[2]["error"]);
    EXPECT_EQ("good", lines[3]["verdict"]);

    // Bodies from elsewhere, and one for all.
    fs::create_directory(work.path("bodies"));
    for (int at = 0; at != 4; ++at)
        work.write("bodies/" + std::to_string(at) + ".eml", bodyOf(at));
    EXPECT_EQ(0, verify({"--body-dir", "bodies"}).status);
    EXPECT_EQ(1, verify({"--in", paths[0]}).status);
    EXPECT_EQ(2, verify({"--in", "-"}).status);
}

// Whoever makes the file does not choose that the body is not looked at.
TEST_F(ManyToolTest, AMailUnderTheNameOfASignatureIsNotJudgedForItsBody) {
    makeBodies(1);
    ASSERT_EQ(0, tool({"smime", "sign", "--cert", "alice.pem", "--key", "alice.key", "--in", "in/0.eml", "--out",
                       "in/mail.eml"})
                     .status);
    ASSERT_EQ(0, tool({"smime", "sign", "--cert", "alice.pem", "--key", "alice.key", "--opaque", "--in", "in/0.eml",
                       "--out", "in/opaque.p7s"})
                     .status);
    fs::copy_file(work.path("in/mail.eml"), work.path("in/forged.p7s"));
    work.write("in/forged", std::string("what nobody signed"));
    work.write("in/opaque", std::string("what nobody signed"));
    // Whatever the letters of the name's end.
    fs::copy_file(work.path("in/mail.eml"), work.path("in/FORGED.P7S"));
    work.write("in/FORGED", std::string("what nobody signed"));
    const std::vector<std::string> files{"in/mail.eml", "in/forged.p7s", "in/opaque.p7s", "in/FORGED.P7S"};
    const Answer answer = tool(with({"verify"}, "--signature", files, {"--json"}));
    const std::vector<json> lines = jsonLines(answer);
    ASSERT_EQ(4U, lines.size());
    EXPECT_EQ("signature-good", lines[0]["verdict"]);
    EXPECT_NE(0, lines[1]["exitCode"]);
    EXPECT_NE(0, lines[2]["exitCode"]);
    EXPECT_EQ(2, lines[3]["exitCode"]) << lines[3];
    fs::remove(work.path("in/forged"));
    fs::remove(work.path("in/opaque"));
    for (const json& line :
         jsonLines(tool(with({"verify"}, "--signature", {"in/forged.p7s", "in/opaque.p7s"}, {"--json"}))))
        EXPECT_EQ(2, line["exitCode"]) << line;
}

TEST_F(ManyToolTest, ContentsOfStructures) {
    const std::vector<std::string> paths = makeBodies(3);
    ASSERT_EQ(0, sign(paths, {"--attached", "--out-dir", "signed"}).status);
    const std::vector<std::string> structures{"signed/0.eml.p7m", "signed/1.eml.p7m", "signed/2.eml.p7m"};
    std::string damaged = work.read(structures[1]);
    damaged[damaged.find("body 1")] = 'B';
    work.write(structures[1], damaged);
    EXPECT_EQ(1, tool(with({"verify"}, "--signature", structures, {"--embedded", "--out-dir", "out"})).status);
    EXPECT_EQ((std::vector<std::string>{"0.eml", "2.eml"}), namesIn("out"));
    EXPECT_EQ(bodyOf(2), work.read("out/2.eml"));
    EXPECT_EQ(2, tool(with({"verify"}, "--signature", structures, {"--out-dir", "out"})).status);
}

// Left unwritten without a word it would be taken for what was there before.
TEST_F(ManyToolTest, TheOutputOfOneInputIsNotForSeveral) {
    const std::vector<std::string> paths = makeBodies(2);
    ASSERT_EQ(0, sign(paths, {"--attached", "--out-dir", "."}).status);
    ASSERT_EQ(
        0, tool({"smime", "sign", "--cert", "alice.pem", "--key", "alice.key", "--in", "in/0.eml", "--out", "mail.eml"})
               .status);
    before = work.names();
    const std::string text = "--out takes what is made of one input: give --out-dir for several";
    expectFailure(tool({"verify", "--signature", "0.eml.p7m", "1.eml.p7m", "--embedded", "--out", "content"}), text);
    expectFailure(tool({"verify", "--signature", "0.eml.p7m", "--quiet", "--embedded", "--out", "content"}), text);
    expectFailure(tool({"smime", "verify", "--in", "mail.eml", "mail.eml", "--out", "content"}), text);
}

// The names are chosen by whoever puts files into the folder.
TEST_F(ManyToolTest, ANameSpeaksForNoOther) {
    work.write("in/0.eml: signed", std::string("body"));
    work.write("in/a: b: c", std::string("body"));
    work.write("in/a\n0.eml: signed", std::string("body"));
    EXPECT_EQ("in/0.eml\\x3A signed: signed\nin/a\\x3A b\\x3A c: signed\nin/a\\x0A0.eml\\x3A signed: signed\n",
              sign({"in/0.eml: signed", "in/a: b: c", "in/a\n0.eml: signed"}, {"--out-dir", "out"}).out);
    const std::vector<json> lines = jsonLines(sign({"in/0.eml: signed"}, {"--out-dir", "out", "--json"}));
    EXPECT_EQ((json{{"file", "in/0.eml: signed"}, {"exitCode", 0}, {"output", "out/0.eml: signed.p7s"}}), lines.at(0));
}

TEST_F(ManyToolTest, AFileCalledAsStandardInputIsOneOfThose) {
    work.write("-", std::string("body"));
    work.write("list", std::string("-\n"));
    EXPECT_EQ("./-: signed\n", sign({}, {"--files-from", "list", "--out-dir", "."}).out);
    work.write("list", std::string("-.p7s\n"));
    const Answer answer = tool({"verify", "--files-from", "list", "--json"}, "another body");
    EXPECT_EQ(0, answer.status) << answer.out;
    EXPECT_EQ("./-", jsonLines(answer).at(0)["body"]["file"]);
}

TEST_F(ManyToolTest, WhatIsNoFileKeepsNobodyWaiting) {
    const std::vector<std::string> paths = makeBodies(3);
    ASSERT_EQ(0, sign(paths, {"--out-dir", "signatures"}).status);
    ASSERT_EQ(0, mkfifo(work.path("in/pipe").c_str(), 0600));
    fs::create_symlink("/dev/zero", work.path("in/endless"));
    fs::create_directory(work.path("out"));
    ASSERT_EQ(0, mkfifo(work.path("out/1.eml.p7s").c_str(), 0600));
    Answer answer = sign({"in/pipe", "in/0.eml", "in/endless", "in/1.eml", "in/2.eml"}, {"--out-dir", "out"});
    EXPECT_EQ(2, answer.status);
    const std::string why = ": it is no file (of many inputs and outputs each has to be one)";
    EXPECT_EQ("in/pipe: failed: cannot read in/pipe" + why +
                  "\nin/0.eml: signed\nin/endless: failed: cannot read in/endless" + why +
                  "\nin/1.eml: failed: cannot write out/1.eml.p7s" + why + "\nin/2.eml: signed\n",
              answer.out);
    // Nor a body.
    fs::remove(work.path("in/1.eml"));
    ASSERT_EQ(0, mkfifo(work.path("in/1.eml").c_str(), 0600));
    answer =
        tool({"verify", "--signature", "signatures/0.eml.p7s", "signatures/1.eml.p7s", "--body-dir", "in", "--quiet"});
    EXPECT_EQ("signatures/1.eml.p7s: failed: cannot read in/1.eml" + why + "\n", answer.out);
}

TEST_F(ManyToolTest, WhatIsRefusedBeforeAnythingIsWritten) {
    makeBodies(2);
    fs::create_directory(work.path("more"));
    work.write("more/1.eml", std::string("of the same name"));
    fs::create_directory(work.path("here"));
    work.write("here/0.eml.p7s", bodyOf(7));
    work.write("here/0.eml", bodyOf(8));
    fs::create_symlink("there", work.path("here/1.eml.p7s"));
    fs::create_symlink("there", work.path("here/2.eml.p7s"));
    work.write("here/there", std::string("old"));
    work.write("here/2.eml", bodyOf(9));
    work.write("list-of-none", std::string("\n\n"));
    before = work.names();
    const auto refused = [&](const std::vector<std::string>& paths, const std::string& folder,
                             const std::string& text) {
        expectFailure(sign(paths, {"--out-dir", folder}), text);
    };
    refused({"in/0.eml", "in/1.eml", "more/1.eml"}, "out",
            "two inputs would be written to out/1.eml.p7s: in/1.eml and more/1.eml");
    refused({"in/0.eml", "in/./0.eml"}, "out", "two inputs would be written to out/0.eml.p7s");
    refused({"in/1.eml", "here/2.eml"}, "here", "two inputs would be written to here/2.eml.p7s: in/1.eml and");
    refused({"here/0.eml.p7s", "here/0.eml"}, "here", "cannot write here/0.eml.p7s: it is an input too");
    refused({"in/0.eml", "-"}, "out", "standard input is not one of several inputs");
    refused({"-"}, "out", "standard input is not one of several inputs");
    refused({"in/0.eml"}, "nowhere/out", "cannot make the folder nowhere/out: No such file or directory");
    refused({"in/0.eml"}, "root.pem", "root.pem is no folder");
    expectFailure(sign({"in/0.eml", "in/1.eml"}, {}), "several inputs need --out-dir");
    expectFailure(sign({"in/0.eml", "in/1.eml"}, {"--out", "x", "--out-dir", "y"}), "--out");
    expectFailure(sign({}, {"--files-from", "list-of-none", "--out-dir", "out"}), "there is no name in list-of-none");
    expectFailure(sign({"in/0.eml"}, {"--jobs", "0", "--out-dir", "out"}), "--jobs");
    // One of the names is a link to the other one.
    fs::create_directory(work.path("links"));
    work.write("links/0.eml.p7s", std::string("old"));
    fs::create_symlink("0.eml.p7s", work.path("links/1.eml.p7s"));
    before = work.names();
    refused({"in/0.eml", "in/1.eml"}, "links", "two inputs would be written to links/1.eml.p7s: in/0.eml and in/1.eml");
    refused({"in/1.eml", "in/0.eml"}, "in/../links/.", "two inputs would be written to in/../links/./0.eml.p7s");
    EXPECT_EQ("old", work.read("links/0.eml.p7s"));
    // What all have in common is an input, too.
    fs::create_directory(work.path("keys"));
    work.write("keys/in.p7s", alice().key.pkcs8Pem());
    fs::permissions(work.path("keys/in.p7s"), fs::perms(0600));
    work.write("in/in", std::string("body"));
    before = work.names();
    expectFailure(tool({"sign", "--cert", "alice.pem", "--key", "keys/in.p7s", "--in", "in/in", "--out-dir", "keys"}),
                  "cannot write keys/in.p7s: it is an input too");
    EXPECT_EQ(alice().key.pkcs8Pem(), work.read("keys/in.p7s"));
    EXPECT_EQ("old", work.read("here/there"));
}

TEST_F(ManyToolTest, WhatFailsKeepsNoOtherFromBeingDone) {
    makeBodies(3);
    const std::vector<std::string> paths{"in/0.eml", "in/none", "in", "in/1.eml", "in/" + std::string(255, 'n'),
                                         "in/2.eml"};
    const Answer answer = sign(paths, {"--out-dir", "out"});
    EXPECT_EQ(2, answer.status);
    const std::vector<std::string> lines = linesOf(answer.out);
    ASSERT_EQ(6U, lines.size()) << answer.out;
    EXPECT_EQ("in/0.eml: signed", lines[0]);
    EXPECT_EQ("in/none: failed: cannot open in/none: No such file or directory", lines[1]);
    EXPECT_EQ("in: failed: in is a folder: give the files in it", lines[2]);
    EXPECT_EQ("in/1.eml: signed", lines[3]);
    EXPECT_NE(std::string::npos, lines[4].find(": failed: cannot ")) << lines[4];
    EXPECT_EQ("in/2.eml: signed", lines[5]);
    EXPECT_EQ("norvcrypt: 6 inputs: 3 done, 0 refused, 3 failed\n", answer.err);
    EXPECT_EQ((std::vector<std::string>{"0.eml.p7s", "1.eml.p7s", "2.eml.p7s"}), namesIn("out"));
}

TEST_F(ManyToolTest, NamesComeFromAList) {
    makeBodies(2);
    work.write("in/two\nlines", std::string("body"));
    work.write("in/ blanks ", std::string("body"));
    work.write("lines", std::string("in/0.eml\n\nin/ blanks \nin/1.eml"));
    work.write("octets", std::string("in/0.eml\0in/two\nlines\0", 22));
    EXPECT_EQ("in/0.eml: signed\nin/ blanks : signed\nin/1.eml: signed\n",
              sign({}, {"--files-from", "lines", "--out-dir", "out"}).out);
    EXPECT_EQ("in/1.eml: signed\nin/0.eml: signed\nin/two\\x0Alines: signed\n",
              sign({"in/1.eml"}, {"--files-from", "octets", "--out-dir", "out"}).out);
    EXPECT_TRUE(work.exists("out/two\nlines.p7s"));
    const Answer answer =
        tool({"sign", "--cert", "alice.pem", "--key", "alice.key", "--files-from", "-", "--out-dir", "out", "--json"},
             "in/0.eml\nin/two\n");
    EXPECT_EQ(2, answer.status);
    const std::vector<json> lines = jsonLines(answer);
    ASSERT_EQ(2U, lines.size());
    EXPECT_EQ((json{{"file", "in/0.eml"}, {"exitCode", 0}, {"output", "out/0.eml.p7s"}}), lines[0]);
    EXPECT_EQ("cannot open in/two: No such file or directory", lines[1]["error"]);
    EXPECT_FALSE(lines[1].contains("output"));
}

TEST_F(ManyToolTest, OldOutputsSurviveAFailureAndKeepTheirModes) {
    const std::vector<std::string> paths = makeBodies(2);
    ASSERT_EQ(0, encrypt(paths, {"--out-dir", "secret"}).status);
    fs::create_directory(work.path("out"));
    work.write("out/0.eml", std::string("old"));
    work.write("out/1.eml", std::string("old"));
    const std::vector<std::string> messages{"secret/0.eml.p7m", "secret/1.eml.p7m"};
    const Answer answer =
        tool(with({"decrypt", "--cert", "alice.pem", "--key", "alice.key"}, "--in", messages, {"--out-dir", "out"}));
    EXPECT_EQ(1, answer.status);
    EXPECT_EQ(0U, answer.out.find("secret/0.eml.p7m: not decrypted: recipient 1, ")) << answer.out;
    EXPECT_EQ("old", work.read("out/0.eml"));
    EXPECT_EQ((std::vector<std::string>{"0.eml", "1.eml"}), namesIn("out"));
    ASSERT_EQ(0, decrypt(messages, {"--out-dir", "out"}).status);
    EXPECT_EQ(bodyOf(0), work.read("out/0.eml"));
    EXPECT_EQ(0600U, work.mode("out/0.eml"));
    // A signature keeps the mode of what it replaces.
    work.write("out/0.eml.p7s", std::string("old"));
    fs::permissions(work.path("out/0.eml.p7s"), fs::perms(0640));
    ASSERT_EQ(0, sign(paths, {"--out-dir", "out"}).status);
    EXPECT_EQ(0640U, work.mode("out/0.eml.p7s"));
}

// Standard input can be read only once.
TEST_F(ManyToolTest, APassphraseIsReadOnce) {
    const std::vector<std::string> paths = makeBodies(3);
    const Answer made = tool({"genkey", "--passphrase-file", "-", "--out", "own.key"}, "secret\n");
    ASSERT_EQ(0, made.status) << made.err;
    ASSERT_EQ(0, run(Command{.arguments = {"openssl", "req", "-x509", "-key", "own.key", "-passin", "pass:secret",
                                           "-subj", "/CN=own", "-out", "own.pem"},
                             .directory = work.directory()})
                     .status);
    const Answer answer = tool(with({"sign", "--cert", "own.pem", "--key", "own.key", "--passphrase-file", "-"}, "--in",
                                    paths, {"--out-dir", "out"}),
                               "secret\n");
    EXPECT_EQ(0, answer.status) << answer.err;
    EXPECT_EQ(3U, namesIn("out").size());
    const Answer wrong = tool(with({"sign", "--cert", "own.pem", "--key", "own.key", "--passphrase-file", "-"}, "--in",
                                   paths, {"--out-dir", "out"}),
                              "other\n");
    EXPECT_EQ(1, wrong.status);
    EXPECT_EQ("", wrong.out);
}

TEST_F(ManyToolTest, WholeMails) {
    const std::vector<std::string> paths = makeBodies(6);
    const Answer signing = tool(with({"smime", "sign", "--cert", "alice.pem", "--key", "alice.key"}, "--in", paths,
                                     {"--out-dir", "signed", "--jobs", "3"}));
    ASSERT_EQ(0, signing.status) << signing.err;
    EXPECT_EQ("in/0.eml: signed", linesOf(signing.out).at(0));
    std::vector<std::string> signedOnes;
    for (int at = 0; at != 6; ++at) {
        signedOnes.push_back("signed/" + std::to_string(at) + ".eml");
        EXPECT_EQ(0, openssl({"-verify", "-in", signedOnes.back(), "-CAfile", "root.pem", "-out", "/dev/null"}));
    }
    ASSERT_EQ(0,
              tool(with({"smime", "encrypt", "--to", "bob.pem"}, "--in", signedOnes, {"--out-dir", "secret"})).status);
    std::vector<std::string> secrets;
    for (int at = 0; at != 6; ++at) {
        secrets.push_back("secret/" + std::to_string(at) + ".eml");
        EXPECT_EQ(0, openssl({"-decrypt", "-in", secrets.back(), "-recip", "bob.pem", "-inkey", "bob.key", "-out",
                              "/dev/null"}));
    }
    const std::vector<std::string> bob{"smime", "decrypt", "--cert", "bob.pem", "--key", "bob.key"};
    Answer answer = tool(with(bob, "--in", secrets, {"--out-dir", "clear", "--whole", "--jobs", "3"}));
    EXPECT_EQ(0, answer.status) << answer.out;
    EXPECT_EQ(0600U, work.mode("clear/0.eml"));
    EXPECT_NE(std::string::npos, work.read("clear/5.eml").find("body 5"));
    EXPECT_EQ(0, tool(with(bob, "--in", secrets, {"--out-dir", "clear"})).status);
    EXPECT_TRUE(work.exists("clear/5.eml.content"));
    EXPECT_EQ(2, tool(with(bob, "--in", paths, {"--out-dir", "clear2"})).status);
    EXPECT_TRUE(namesIn("clear2").empty());
    // Whether anything is encrypted in a damaged one nobody knows.
    std::string damaged = work.read(secrets[0]);
    damaged[damaged.find("\r\n\r\n") + 4] = '!';
    work.write("damaged", damaged);
    answer = tool(with(bob, "--in", {"damaged", paths[0]}, {"--out-dir", "clear2"}));
    EXPECT_EQ(2, answer.status);
    EXPECT_EQ((std::vector<std::string>{"damaged: damaged: part 1: no CMS structure is there",
                                        paths[0] + ": failed: nothing is encrypted in it"}),
              linesOf(answer.out));
    answer = tool({"smime", "decrypt", "--cert", "bob.pem", "--key", "bob.key", "--in", "damaged"});
    EXPECT_EQ(2, answer.status);
    EXPECT_EQ(std::string::npos, answer.err.find("nothing is encrypted")) << answer.err;

    std::string changed = work.read(signedOnes[2]);
    changed[changed.find("body 2")] = 'B';
    work.write(signedOnes[2], changed);
    answer = tool(with({"smime", "verify", "--ca", "root.pem", "--from", "alice@example.com"}, "--in", signedOnes,
                       {"--json", "--out-dir", "content"}));
    EXPECT_EQ(1, answer.status);
    const std::vector<json> lines = jsonLines(answer);
    ASSERT_EQ(6U, lines.size());
    for (std::size_t at = 0; at != 6; ++at) {
        EXPECT_EQ(signedOnes[at], lines[at]["file"]);
        EXPECT_EQ(at == 2 ? 1 : lines[0]["exitCode"].get<int>(), lines[at]["exitCode"]) << lines[at];
    }
    EXPECT_EQ("refused", lines[2]["verdict"]);
    EXPECT_FALSE(work.exists("content/2.eml.content"));
    answer = tool(with({"smime", "inspect"}, "--in", secrets));
    EXPECT_EQ(0, answer.status);
    EXPECT_EQ(6U, linesOf(answer.out).size());
}

TEST_F(ManyToolTest, AFullDiskIsToldForEach) {
    makeBodies(2);
    work.write("in/large", std::string(300000, 'x'));
    work.write("in/larger", std::string(400000, 'x'));
    const Answer answer =
        run(Command{.arguments = {"/bin/bash", "-c",
                                  "ulimit -f 100; exec \"$0\" encrypt --to bob.pem --in in/0.eml in/large "
                                  "in/1.eml in/larger --out-dir out",
                                  norvtest::norvcryptProgram},
                    .directory = work.directory()});
    EXPECT_EQ(2, answer.status);
    const std::vector<std::string> lines = linesOf(answer.out);
    ASSERT_EQ(4U, lines.size()) << answer.out << answer.err;
    EXPECT_EQ("in/0.eml: encrypted", lines[0]);
    EXPECT_EQ("in/large: failed: cannot write out/large.p7m: File too large", lines[1]);
    EXPECT_EQ("in/1.eml: encrypted", lines[2]);
    EXPECT_EQ("in/larger: failed: cannot write out/larger.p7m: File too large", lines[3]);
    EXPECT_EQ((std::vector<std::string>{"0.eml.p7m", "1.eml.p7m"}), namesIn("out"));
}

TEST_F(ManyToolTest, NobodyListens) {
    const std::vector<std::string> paths = makeBodies(200);
    for (const bool broken : {true, false}) {
        Command command{.arguments = with({"sign", "--cert", "alice.pem", "--key", "alice.key"}, "--in", paths,
                                          {"--out-dir", broken ? "out" : "out2"}),
                        .directory = work.directory()};
        command.outputBroken = broken;
        if (!broken)
            command.outputFile = "/dev/full";
        const Answer answer = norvcrypt(command);
        EXPECT_EQ(2, answer.status);
        EXPECT_EQ(0U, answer.err.find("norvcrypt: cannot write standard output: ")) << answer.err;
        EXPECT_GT(200U, namesIn(broken ? "out" : "out2").size());
    }
}

// All of them take minutes of work.
TEST_F(ManyToolTest, AnInterruptLeavesNothingHalfWritten) {
    const std::vector<std::string> paths = makeBodies(300);
    work.write("password", std::string("known to both sides\n"));
    Running tool(with({norvtest::norvcryptProgram, "encrypt", "--to", "bob.pem", "--password-file", "password",
                       "--iterations", "1000000"},
                      "--in", paths, {"--out-dir", "out", "--jobs", "3"}),
                 work.directory());
    tool.waitFor("in/2.eml: encrypted");
    tool.signal(SIGINT);
    EXPECT_EQ(128 + SIGINT, tool.end());
    const std::vector<std::string> names = namesIn("out");
    EXPECT_LE(3U, names.size());
    EXPECT_GT(300U, names.size());
    for (const std::string& name : names) {
        EXPECT_NE('.', name.front()) << name;
        EXPECT_EQ(0, openssl({"-decrypt", "-binary", "-inform", "DER", "-in", "out/" + name, "-recip", "bob.pem",
                              "-inkey", "bob.key", "-out", "/dev/null"}))
            << name;
    }
}

TEST_F(ManyToolTest, NoneFailsForWantOfADescriptorThatAnotherHas) {
    makeBodies(60);
    std::string list;
    for (int at = 0; at != 60; ++at)
        list += "in/" + std::to_string(at) + ".eml\n";
    work.write("list", list);
    const Answer answer =
        run(Command{.arguments = {"/bin/bash", "-c",
                                  "ulimit -n 40; exec \"$0\" encrypt --to bob.pem --files-from list --out-dir out "
                                  "--jobs 60 --quiet --password-file list --iterations 20000",
                                  norvtest::norvcryptProgram},
                    .directory = work.directory()});
    EXPECT_EQ(0, answer.status) << answer.err;
    EXPECT_EQ("", answer.out);
    EXPECT_EQ(60U, namesIn("out").size());
}

TEST_F(ManyToolTest, TwoThousandInputs) {
    const std::vector<std::string> paths = makeBodies(20);
    std::string list;
    for (int at = 0; at != 2000; ++at) {
        const std::string path = "in/" + std::to_string(at) + ".txt";
        fs::create_symlink(std::to_string(at % 20) + ".eml", work.path(path));
        list += path + "\n";
    }
    work.write("list", list);
    const Answer answer =
        tool({"encrypt", "--to", "bob.pem", "--files-from", "list", "--out-dir", "out", "--jobs", "4"});
    EXPECT_EQ(0, answer.status) << answer.err;
    const std::vector<std::string> lines = linesOf(answer.out);
    ASSERT_EQ(2000U, lines.size());
    for (int at = 0; at != 2000; ++at)
        EXPECT_EQ("in/" + std::to_string(at) + ".txt: encrypted", lines[static_cast<std::size_t>(at)]);
    EXPECT_EQ(2000U, namesIn("out").size());
}

} // namespace
