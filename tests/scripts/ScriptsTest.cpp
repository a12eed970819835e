// The scripts with arguments that nobody foresaw, from another folder, and over checkouts as people have them. What would install or
// build is stood in for: a script that gets so far fails.

#include "support/Places.h"
#include "support/Process.h"
#include "support/Workspace.h"

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <thread>

using namespace interop;
namespace fs = std::filesystem;

namespace {

const fs::path scripts = fs::path(norvtest::sourceDirectory) / "scripts";

std::string textOf(const fs::path& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

/// Whether a process is there, a second after it should have ended. One that has and that nobody asks for is none.
bool isRunning(const std::string& process) {
    for (int round = 0; round != 20; ++round) {
        const std::string status = textOf("/proc/" + process + "/stat");
        if (status.empty() || status.find(") Z ") != std::string::npos) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return true;
}

class ScriptsTest : public testing::Test {
protected:
    void SetUp() override {
        fs::create_directories(m_folder.path("stand-ins"));
        fs::create_directories(m_folder.path("elsewhere"));
        standIn("dpkg-query", "echo install ok installed");
        for (const char* program : {"apt-get", "sudo", "cmake", "dpkg-buildpackage", "clang-format"}) {
            standIn(program, "echo reached >&2; exit 99");
        }
    }
    void standIn(const std::string& name, const std::string& line) const {
        fs::permissions(m_folder.write("stand-ins/" + name, "#!/bin/sh\n" + line + "\n"), fs::perms::owner_all);
    }
    /// A script, from a folder that is none of the project's.
    [[nodiscard]] Answer script(const fs::path& path, std::vector<std::string> arguments) const {
        arguments.insert(arguments.begin(), path.string());
        return run({.arguments = std::move(arguments),
                    .directory = m_folder.path("elsewhere"),
                    .environment = {{"PATH", m_folder.path("stand-ins") + ":" + std::getenv("PATH")}}});
    }
    [[nodiscard]] bool isUntouched() const { return fs::is_empty(m_folder.path("elsewhere")); }

    Workspace m_folder;
};

TEST_F(ScriptsTest, EachTellsItsHeadWhenAskedForHelp) {
    std::size_t count = 0;
    for (const auto& file : fs::directory_iterator(scripts)) {
        const std::string text = file.is_regular_file() ? textOf(file.path()) : "";
        const bool isOfShell = text.rfind("#!/usr/bin/env bash\n# ", 0) == 0;
        if (!isOfShell || text.find("common.sh\"") == std::string::npos) {
            continue;
        }
        const Answer answer = script(file.path(), {"--help"});
        EXPECT_EQ(0, answer.status) << file.path() << answer.err;
        EXPECT_EQ("", answer.err) << file.path();
        const std::string first = linesOf(text)[1].substr(2);
        EXPECT_EQ(first, linesOf(answer.out)[0]);
        EXPECT_EQ(std::string::npos, answer.out.find("set -e")) << file.path();
        ++count;
    }
    EXPECT_LE(20U, count);
    EXPECT_TRUE(isUntouched());
}

TEST_F(ScriptsTest, ArgumentsThatNobodyKnowsAreToldBeforeAnyWork) {
    for (const char* name : {"algorithms", "bench", "check-install", "check-packages", "foreign-vectors", "memory",
                             "memory-curve", "package", "reference", "store-curve"}) {
        const Answer answer = script(scripts / name, {"--quik"});
        EXPECT_EQ(2, answer.status) << name << answer.err;
        EXPECT_EQ(name + std::string(": unknown argument: --quik (--help tells what there is)\n"), answer.err);
        EXPECT_EQ("", answer.out) << name;
    }
    // Formatting is what a slip of the pen must not come to.
    const Answer format = script(scripts / "format", {"--chek"});
    EXPECT_EQ(2, format.status) << format.err;
    EXPECT_EQ("", format.err);
    EXPECT_TRUE(isUntouched());
}

TEST_F(ScriptsTest, WhatNobodyMayInstallIsNamed) {
    standIn("dpkg-query", "exit 1");
    standIn("id", "echo 1000");
    const Answer asked = script(scripts / "check-install", {});
    EXPECT_NE(0, asked.status);
    EXPECT_NE(std::string::npos, asked.err.find("Installing g++ cmake ")) << asked.err;
    for (const char* name : {"check-packages", "demo-mail"}) {
        const Answer root = script(scripts / name, {});
        EXPECT_EQ(2, root.status) << name;
        EXPECT_NE(std::string::npos, root.err.find(" as root alone: sudo ")) << root.err;
    }
    fs::remove(m_folder.path("stand-ins/sudo"));
    if (installed("sudo")) {
        GTEST_SKIP() << "there is a sudo here";
    }
    const Answer answer = script(scripts / "check-install", {});
    EXPECT_EQ(1, answer.status);
    EXPECT_EQ(0U, answer.err.find("There is no sudo. Have root install g++ cmake ")) << answer.err;
}

TEST_F(ScriptsTest, ListsOfSymbolsAreNotWrittenOfNothing) {
    if (!installed("python3")) {
        GTEST_SKIP() << "python3 is not installed";
    }
    for (const std::vector<std::string>& packages : {std::vector<std::string>{}, {"build/packages/*.deb"}}) {
        const Answer answer = script(scripts / "symbols", packages);
        EXPECT_EQ(1, answer.status);
        EXPECT_NE(std::string::npos, answer.err.find("no package of a library is among them")) << answer.err;
    }
}

TEST_F(ScriptsTest, PackagesAreMadeOfWhatIsInTheCheckout) {
    if (!installed("git")) {
        GTEST_SKIP() << "git is not installed";
    }
    const std::string checkout = m_folder.path("check out");
    fs::create_directories(checkout + "/scripts");
    for (const char* name : {"package", "common.sh"}) {
        fs::copy_file(scripts / name, checkout + "/scripts/" + name);
    }
    m_folder.write("check out/.gitignore", std::string("/build/\n"));
    m_folder.write("check out/kept", std::string("kept"));
    m_folder.write("check out/deleted", std::string("deleted"));
    const Answer made =
        run({.arguments = {"sh", "-c",
                           "git init -q && git add . && git -c user.name=n -c user.email=n@example.org "
                           "commit -q -m all && rm deleted && echo new >'not committed' && ln -s nowhere link"},
             .directory = checkout});
    ASSERT_EQ(0, made.status) << made.err;
    standIn("dpkg-buildpackage", "find . -mindepth 1 ! -path './scripts*' ! -name .gitignore | sort; touch ../any.deb");
    const Answer answer = script(checkout + "/scripts/package", {});
    EXPECT_EQ(0, answer.status) << answer.err;
    EXPECT_EQ("./kept\n./link\n./not committed\n" + fs::canonical(checkout).string() + "/build/packages/any.deb\n",
              answer.out);
    EXPECT_EQ("", answer.err);
}

TEST_F(ScriptsTest, FaultsEndWithTheirScript) {
    const std::string checkout = m_folder.path("check out");
    fs::create_directories(checkout + "/scripts");
    fs::create_directories(checkout + "/build/asan/bin");
    for (const char* name : {"faults", "common.sh"}) {
        fs::copy_file(scripts / name, checkout + "/scripts/" + name);
    }
    standIn("cmake", "exit 0");
    for (const char* name : {"FaultsOfMessagesTest", "FaultsOfStoresTest"}) {
        const std::string program =
            m_folder.write(std::string("check out/build/asan/bin/") + name,
                           std::string("#!/bin/sh\necho $$ >>../elsewhere/running\nexec sleep 60\n"));
        fs::permissions(program, fs::perms::owner_all);
    }
    for (const char* signal : {"INT", "TERM"}) {
        m_folder.write("elsewhere/running", std::string());
        const Answer answer = script("/usr/bin/timeout", {"-s", signal, "3", checkout + "/scripts/faults"});
        EXPECT_EQ(124, answer.status) << answer.err;
        const std::vector<std::string> running = linesOf(m_folder.read("elsewhere/running"));
        EXPECT_EQ(2U, running.size()) << signal;
        for (const std::string& process : running) {
            EXPECT_FALSE(isRunning(process)) << signal;
            ::kill(std::stoi(process), SIGKILL);
        }
    }
}

TEST_F(ScriptsTest, BenchmarksGetTheirIdentityInAFolderNamedFromHere) {
    for (const char* program : {"openssl", "gpgsm", "gpgconf", "certutil", "pk12util"}) {
        if (!installed(program)) {
            GTEST_SKIP() << program << " is not installed";
        }
    }
    const std::string folder = m_folder.path("elsewhere/folder");
    fs::create_directories(folder);
    const Answer answer = script(scripts / "bench-folder", {"folder"});
    const Answer ended = run({.arguments = {"gpgconf", "--homedir", folder + "/gnupg", "--kill", "gpg-agent"}});
    EXPECT_EQ(0, answer.status) << answer.err;
    EXPECT_EQ(0, ended.status) << ended.err;
    for (const char* name : {"certificate.pem", "key.pem", "root.pem", "nss/cert9.db", "gnupg/pubring.kbx"}) {
        EXPECT_TRUE(fs::exists(folder + "/" + name)) << name;
    }
}

} // namespace
