// Every command line of the README, of docs/ and of the help runs as it stands in the folder of the demonstration. What a
// test cannot have is changed: the port of a server, since two tests may run at once.

#include "support/Places.h"
#include "support/Process.h"
#include "support/Running.h"
#include "support/Workspace.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <optional>
#include <regex>

using namespace interop;
namespace fs = std::filesystem;

namespace {

std::string contentOf(const fs::path& path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

class DocumentedCommands : public testing::Test {
protected:
    static void SetUpTestSuite() {
        const std::string programs = fs::path(norvtest::norvcryptProgram).parent_path().string();
        setenv("PATH", (programs + ":" + std::getenv("PATH")).c_str(), 1);
        s_work = std::make_unique<Workspace>();
        // A short message in the place of the generated one, which has megabytes.
        const Answer made = run({.arguments = {"norvcrypt", "demo", "--in", "-"},
                                 .input = "From: alice@example.org\r\nTo: bob@example.org\r\nSubject: Figures\r\n\r\n"
                                          "Dear Bob,\r\nhere they are.\r\n",
                                 .directory = s_work->directory()});
        ASSERT_EQ(0, made.status) << made.err;
    }
    static void TearDownTestSuite() { s_work.reset(); }

    static std::string folder() { return s_work->path("norvcrypt-demo"); }
    static Answer shell(const std::string& line) {
        return run({.arguments = {"/bin/bash", "-c", line}, .directory = folder()});
    }
    static Answer tool(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), "norvcrypt");
        return run({.arguments = arguments, .directory = folder()});
    }

    /// Runs the lines one after another; servers beside those that come next. Expects exit code 0, or what a comment says.
    static void expectAllHold(const std::vector<std::string>& lines) {
        std::unique_ptr<Running> server;
        std::string port;
        for (std::string line : lines) {
            SCOPED_TRACE(line);
            if (line.starts_with("norvcrypt tls serve ")) {
                server = std::make_unique<Running>(
                    std::vector<std::string>{"/bin/bash", "-c", "exec " + std::regex_replace(line, s_port, "0")},
                    folder());
                port = server->port();
                continue;
            }
            if (line.starts_with("norvcrypt tls connect ")) {
                ASSERT_FALSE(port.empty()) << "no server was started before";
                line = std::regex_replace(line, s_port, port);
            }
            std::smatch code;
            const int expected = std::regex_search(line, code, s_code) ? std::stoi(code[1]) : 0;
            const Answer answer = shell("key=$(openssl rand -hex 32); iv=$(openssl rand -hex 16); " + line);
            EXPECT_EQ(expected, answer.status) << answer.err;
        }
    }

    /// The client first stands behind the server in no text.
    static std::vector<std::string> serversFirst(std::vector<std::string> lines) {
        std::stable_partition(lines.begin(), lines.end(),
                              [](const std::string& line) { return line.starts_with("norvcrypt tls serve "); });
        return lines;
    }

    /// The examples of a command's help and of its own commands, below which nothing stands.
    static void collectExamples(const std::vector<std::string>& names, std::vector<std::string>& examples,
                                int& commands) {
        std::vector<std::string> arguments = names;
        arguments.emplace_back("--help");
        const Answer answer = tool(arguments);
        ASSERT_EQ(0, answer.status) << answer.err;
        ++commands;
        std::string part;
        std::vector<std::string> subcommands;
        std::size_t own = 0;
        for (const std::string& line : linesOf(answer.out)) {
            EXPECT_GE(100U, part.starts_with("Examples") ? 0U : line.size()) << line;
            if (!line.empty() && line.front() != ' ')
                part = line;
            else if (part == "Commands:" && line.size() > 2 && line[2] != ' ')
                subcommands.push_back(line.substr(2, line.find(' ', 2) - 2));
            else if (part.starts_with("Examples, ") && line.starts_with("  ")) {
                examples.push_back(line.substr(2));
                ++own;
            }
        }
        EXPECT_LT(0U, own) << "no example ends the help of " << answer.out;
        EXPECT_TRUE(part.starts_with("Examples")) << part;
        for (const std::string& name : subcommands) {
            std::vector<std::string> next = names;
            next.push_back(name);
            collectExamples(next, examples, commands);
        }
    }

    static inline const std::regex s_port{"4433"};
    static inline const std::regex s_code{"# exit code ([0-9])"};
    static inline std::unique_ptr<Workspace> s_work;
};

TEST_F(DocumentedCommands, OfTheReadme) {
    const std::string readme = contentOf(fs::path(norvtest::sourceDirectory) / "README.md");
    // A line of its own in a block, or between backquotes; "demo" and names of commands are none.
    const std::regex command("(?:\n|`)(norvcrypt [a-z0-9]+ [^`\n]+)");
    std::vector<std::string> lines;
    for (std::sregex_iterator at(readme.begin(), readme.end(), command), end; at != end; ++at)
        lines.push_back((*at)[1]);
    EXPECT_EQ(19U, lines.size());
    expectAllHold(lines);
    EXPECT_EQ(s_work->read("norvcrypt-demo/message.eml"), s_work->read("norvcrypt-demo/clear.eml"));
}

TEST_F(DocumentedCommands, OfTheDocumentation) {
    std::size_t count = 0;
    std::vector<fs::path> texts;
    for (const auto& entry : fs::directory_iterator(fs::path(norvtest::sourceDirectory) / "docs"))
        // DocsTest runs two of them, with the commands of others between those of the tool.
        if (entry.path().extension() == ".md" && entry.path().stem() != "from-openssl" &&
            entry.path().stem() != "operating")
            texts.push_back(entry.path());
    std::ranges::sort(texts);
    for (const fs::path& path : texts) {
        std::vector<std::string> lines;
        bool inBlock = false;
        for (const std::string& line : linesOf(contentOf(path))) {
            if (line.starts_with("```"))
                inBlock = !inBlock;
            // In a block, with or without a prompt, or indented.
            const std::size_t indent = line.starts_with("    ") ? 4 : inBlock && line.starts_with("$ ") ? 2 : 0;
            if ((inBlock || indent == 4) && line.compare(indent, 10, "norvcrypt ") == 0)
                lines.push_back(line.substr(indent));
        }
        count += lines.size();
        SCOPED_TRACE(path.filename());
        expectAllHold(serversFirst(lines));
    }
    EXPECT_EQ(11U, count);
}

TEST_F(DocumentedCommands, OfTheHelp) {
    std::vector<std::string> examples;
    int commands = 0;
    collectExamples({}, examples, commands);
    EXPECT_LE(28, commands);
    EXPECT_LE(47U, examples.size());
    expectAllHold(serversFirst(examples));
}

TEST_F(DocumentedCommands, HelpIsToldInEachWayThatPeopleTry) {
    const std::string text = tool({"smime", "sign", "--help"}).out;
    EXPECT_TRUE(text.starts_with("Signs a message")) << text;
    EXPECT_EQ(text, tool({"help", "smime", "sign"}).out);
    EXPECT_EQ(text, tool({"smime", "sign", "-h"}).out);
    EXPECT_EQ(tool({"--help"}).out, tool({"help"}).out);
    const Answer unknown = tool({"help", "smime", "sing"});
    EXPECT_EQ(2, unknown.status);
    EXPECT_EQ("norvcrypt: there is no command norvcrypt smime sing: did you mean sign? (norvcrypt smime --help tells "
              "more)\n",
              unknown.err);
}

TEST_F(DocumentedCommands, WhatWasMeantIsGuessed) {
    const auto said = [](const std::vector<std::string>& arguments) {
        const Answer answer = tool(arguments);
        EXPECT_EQ(2, answer.status);
        EXPECT_EQ("", answer.out);
        return answer.err;
    };
    EXPECT_EQ("norvcrypt: unknown command: sgin: did you mean sign? (norvcrypt --help tells more)\n", said({"sgin"}));
    EXPECT_EQ("norvcrypt: unknown command: vrify: did you mean verify? (norvcrypt smime --help tells more)\n",
              said({"smime", "vrify"}));
    EXPECT_EQ("norvcrypt: unknown command: frobnicate (norvcrypt --help tells more)\n", said({"frobnicate"}));
    EXPECT_EQ("norvcrypt: unknown option --verson: did you mean --version? (norvcrypt --help tells more)\n",
              said({"--verson"}));
    // Neither the value behind it nor the option that is now missing is what went wrong.
    EXPECT_EQ("norvcrypt: unknown option --signatur: did you mean --signature? (norvcrypt verify --help tells more)\n",
              said({"verify", "--signatur", "message.p7s"}));
    EXPECT_EQ("norvcrypt: unknown option --sig: did you mean --signature? (norvcrypt verify --help tells more)\n",
              said({"verify", "--sig=a"}));
    EXPECT_EQ("norvcrypt: unknown option --cheese (norvcrypt verify --help tells more)\n",
              said({"verify", "--cheese"}));
    EXPECT_EQ("norvcrypt: unexpected argument message.eml (norvcrypt sign --help tells more)\n",
              said({"sign", "message.eml"}));
    EXPECT_EQ("norvcrypt: a command is missing: connect, serve or check (norvcrypt tls --help tells more)\n",
              said({"tls"}));
}

TEST_F(DocumentedCommands, VersionNamesTheLibraries) {
    const Answer answer = tool({"--version"});
    EXPECT_EQ(0, answer.status);
    const std::vector<std::string> lines = linesOf(answer.out);
    ASSERT_EQ(5U, lines.size()) << answer.out;
    const std::string peer = run({.arguments = {"openssl", "version"}}).out; // "OpenSSL 3.0.17 1 Jul 2025 (...)"
    EXPECT_EQ(peer.substr(0, peer.find(' ', 8)), lines[1]);
    const std::vector<std::string> wanted{"norvcrypt", "OpenSSL", "GMime", "libidn2", "libgcrypt"};
    for (std::size_t at = 0; at < wanted.size(); ++at)
        EXPECT_TRUE(std::regex_match(lines[at], std::regex(wanted[at] + " [0-9]+\\.[0-9]+\\.[0-9]+.*"))) << lines[at];
}

TEST_F(DocumentedCommands, ManualPagesAreProper) {
    ASSERT_EQ(0, tool({"help", "--write-all", "manual"}).status);
    std::vector<std::string> pages;
    for (const auto& entry : fs::directory_iterator(s_work->path("norvcrypt-demo/manual")))
        if (entry.path().extension() == ".1")
            pages.push_back(entry.path().filename());
    EXPECT_EQ(29U, pages.size());
    // The same source: what the help says of an option is in the page.
    const std::string page = s_work->read("norvcrypt-demo/manual/norvcrypt-tls-connect.1");
    EXPECT_NE(std::string::npos, page.find("\n.B \"\\-\\-require\\-trust\"\nCopy nothing and answer 1 unless"));
    EXPECT_EQ(page, tool({"help", "--man", "tls", "connect"}).out);
    if (!installed("man"))
        GTEST_SKIP() << "man is not installed";
    for (const std::string& name : pages) {
        const Answer answer = shell("man --warnings -E UTF-8 -l -Tutf8 manual/" + name + " 2>&1 >/dev/null");
        EXPECT_EQ(0, answer.status);
        EXPECT_EQ("", answer.out) << name;
    }
}

TEST_F(DocumentedCommands, BashCompletes) {
    ASSERT_EQ(0, shell("norvcrypt help --bash-completion > completion && mkdir -p empty/folder && "
                       "touch empty/file")
                     .status);
    const auto completed = [](const std::string& words) {
        const std::string last = "${#COMP_WORDS[@]}";
        const Answer answer = shell("source ./completion && cd empty && COMP_WORDS=(" + words + ") && COMP_CWORD=$((" +
                                    last + " - 1)) && _norvcrypt && echo \"${COMPREPLY[*]}\"");
        EXPECT_EQ(0, answer.status) << answer.err;
        return answer.out;
    };
    EXPECT_EQ("sign smime\n", completed("norvcrypt s"));
    EXPECT_EQ("sign sign-encrypt\n", completed("norvcrypt smime s"));
    EXPECT_EQ("sign sign-encrypt\n", completed("norvcrypt help smime s"));
    EXPECT_EQ("--policy --purpose\n", completed("norvcrypt chain --p"));
    EXPECT_EQ("--signature\n", completed("norvcrypt verify --sig"));
    EXPECT_EQ("any sign encrypt\n", completed("norvcrypt verify --purpose ''"));
    EXPECT_EQ("encrypt\n", completed("norvcrypt smime verify --purpose e"));
    EXPECT_EQ("folder\n", completed("norvcrypt sign --store ''"));
    EXPECT_EQ("file\n", completed("norvcrypt sign --in fi"));
    EXPECT_EQ("\n", completed("norvcrypt encrypt --iterations ''"));
    EXPECT_EQ("encrypt\n", completed("norvcrypt cipher e"));
    // A value that is named as a command is none.
    EXPECT_EQ("--signature\n", completed("norvcrypt verify --in sign --sig"));
}

} // namespace
