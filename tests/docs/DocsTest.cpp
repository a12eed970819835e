// What the pages say, run as it stands: the commands in the folder that the demonstration leaves, the programs of the tour, and
// the tables of what is supported.

#include "support/Places.h"
#include "support/Process.h"
#include "support/Workspace.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>

using namespace interop;
namespace fs = std::filesystem;

namespace {

std::string textOf(const fs::path& name) {
    std::ifstream file(fs::path(norvtest::sourceDirectory) / name, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

/// The fenced blocks of a page in one language, and what follows each: the next block, of whatever language.
struct Block {
    std::string language;
    std::string text;
};

std::vector<Block> blocksOf(const std::string& page) {
    std::vector<Block> blocks;
    bool inside = false;
    for (const std::string& line : linesOf(textOf(page))) {
        if (line.rfind("```", 0) == 0) {
            if (!inside) {
                blocks.push_back({line.substr(3), ""});
            }
            inside = !inside;
        } else if (inside) {
            blocks.back().text += line + "\n";
        }
    }
    EXPECT_FALSE(inside) << page;
    return blocks;
}

/// Pages whose commands are for the folder of the demonstration, which is made once.
class DocsTest : public testing::Test {
protected:
    static void SetUpTestSuite() {
        s_work = std::make_unique<Workspace>();
        s_demo = norvcrypt(Command{.arguments = {"demo"}, .directory = s_work->directory()});
    }
    static void TearDownTestSuite() { s_work.reset(); }
    void SetUp() override {
        ASSERT_EQ(0, s_demo.status) << s_demo.err;
        fs::copy(s_work->path("norvcrypt-demo"), m_folder.path("demo"), fs::copy_options::recursive);
    }
    [[nodiscard]] Answer shell(const std::string& line) const {
        const char* path = std::getenv("PATH");
        return run({.arguments = {"/bin/sh", "-c", line},
                    .directory = m_folder.path("demo"),
                    .environment = {{"PATH", norvtest::programDirectory + std::string(":") + path}}});
    }

    static inline std::unique_ptr<Workspace> s_work;
    static inline Answer s_demo;
    Workspace m_folder;
};

TEST_F(DocsTest, EveryCommandBesideOpensslRuns) {
    if (!installed("openssl")) {
        GTEST_SKIP() << "openssl is not installed";
    }
    int count = 0;
    for (const Block& block : blocksOf("docs/from-openssl.md")) {
        EXPECT_EQ("sh", block.language);
        for (const std::string& line : linesOf(block.text)) {
            const Answer answer = shell(line);
            EXPECT_EQ(0, answer.status) << line << "\n" << answer.err;
            ++count;
        }
    }
    EXPECT_LE(28, count);
}

TEST_F(DocsTest, EveryCommandForOperatorsRuns) {
    int count = 0;
    for (const Block& block : blocksOf("docs/operating.md")) {
        for (const std::string& line : linesOf(block.text)) {
            const Answer answer = shell(line);
            EXPECT_EQ(0, answer.status) << line << "\n" << answer.err;
            ++count;
        }
    }
    EXPECT_EQ(3, count);
}

TEST_F(DocsTest, EveryProgramOfTheTourIsShownAndPrintsWhatThePageSays) {
    std::string command;
    std::size_t programs = 0;
    std::size_t commands = 0;
    const std::vector<Block> blocks = blocksOf("docs/tour.md");
    for (const Block& block : blocks) {
        if (block.language == "sh") {
            command = block.text;
        } else if (block.language == "text") {
            const Answer answer = shell(command);
            EXPECT_EQ(0, answer.status) << command << answer.err;
            EXPECT_EQ(block.text, answer.out) << command;
            ++commands;
        } else {
            ++programs;
        }
    }
    const std::string page = textOf("docs/tour.md");
    std::size_t files = 0;
    for (const auto& file : fs::directory_iterator(fs::path(norvtest::sourceDirectory) / "examples/tour")) {
        EXPECT_NE(std::string::npos, page.find("```cpp\n" + textOf(file.path()) + "```\n")) << file.path();
        EXPECT_NE(std::string::npos, page.find("```sh\n" + file.path().stem().string() + " ")) << file.path();
        ++files;
    }
    EXPECT_EQ(files, programs);
    EXPECT_LT(files, commands);
}

TEST_F(DocsTest, RecordingShowsWhatItsCommandsPrint) {
    if (!installed("python3")) {
        GTEST_SKIP() << "python3 is not installed";
    }
    const Answer answer =
        run({.arguments = {"python3", "-B", norvtest::sourceDirectory + std::string("/scripts/recording"), "--check",
                           "--programs", norvtest::programDirectory, "--demo", "demo"},
             .directory = m_folder.directory()});
    EXPECT_EQ(0, answer.status) << answer.err;
}

TEST(DocsAlgorithmsTest, TablesAreWhatTheLibraryDoes) {
    const Answer probed = run({.arguments = {std::string(norvtest::programDirectory) + "probe_algorithms"}});
    EXPECT_EQ(0, probed.status) << probed.err << probed.out;
    const std::string page = textOf("docs/algorithms.md");
    const std::string begin = "<!-- tried: begin -->\n";
    const std::size_t from = page.find(begin);
    const std::size_t to = page.find("<!-- tried: end -->");
    ASSERT_NE(std::string::npos, from);
    ASSERT_NE(std::string::npos, to);
    EXPECT_EQ(probed.out, page.substr(from + begin.size(), to - from - begin.size()))
        << "write it anew: scripts/algorithms";
}

} // namespace
