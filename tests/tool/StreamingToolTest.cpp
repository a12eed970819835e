// Long inputs: the progress bar, interrupts, and bodies that come in pieces.

#include "support/Process.h"
#include "support/Workspace.h"

#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <poll.h>
#include <pty.h>
#include <regex>
#include <sys/wait.h>
#include <unistd.h>

using namespace interop;

namespace {

/// What is a terminal.
enum class Terminal { none, errors, both };

/// The tool with a pipe as its standard input; standard output is a file where it is no terminal.
class Running {
public:
    Running(const Workspace& work, const std::vector<std::string>& arguments, Terminal terminal) {
        std::array<int, 2> input{};
        std::array<int, 2> told{};
        const bool made = terminal == Terminal::none ? pipe2(told.data(), O_CLOEXEC) == 0
                                                     : openpty(&told[0], &told[1], nullptr, nullptr, nullptr) == 0;
        if (!made || pipe2(input.data(), O_CLOEXEC) != 0)
            throw std::runtime_error("no pipe or terminal");
        std::vector<std::string> words{norvtest::norvcryptProgram};
        words.insert(words.end(), arguments.begin(), arguments.end());
        std::vector<char*> pointers;
        pointers.reserve(words.size() + 1);
        for (std::string& word : words)
            pointers.push_back(word.data());
        pointers.push_back(nullptr);
        m_child = fork();
        if (m_child == 0) {
            // A shell that started the tests in the background made them ignore interrupts.
            for (const int signal : {SIGHUP, SIGINT, SIGTERM})
                static_cast<void>(std::signal(signal, SIG_DFL));
            const int out = terminal == Terminal::both
                                ? told[1]
                                : open(work.path("stdout").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
            if (chdir(work.directory().c_str()) != 0 || dup2(input[0], 0) < 0 || dup2(out, 1) < 0 ||
                dup2(told[1], 2) < 0)
                _exit(126);
            close(input[1]);
            execv(norvtest::norvcryptProgram, pointers.data());
            _exit(127);
        }
        close(input[0]);
        close(told[1]);
        m_input = input[1];
        m_errors = told[0];
    }
    ~Running() {
        endInput();
        close(m_errors);
    }
    Running(const Running&) = delete;
    Running& operator=(const Running&) = delete;

    [[nodiscard]] pid_t id() const { return m_child; }
    void feed(const std::string& bytes) const {
        ASSERT_EQ(static_cast<ssize_t>(bytes.size()), write(m_input, bytes.data(), bytes.size()));
    }
    void endInput() {
        if (m_input >= 0)
            close(std::exchange(m_input, -1));
    }
    /// True once it writes a file there that has no name, or a temporary one: it waits for its input then.
    [[nodiscard]] bool holdsAFileIn(const std::string& directory) const {
        std::error_code error;
        for (const auto& entry :
             std::filesystem::directory_iterator("/proc/" + std::to_string(m_child) + "/fd", error)) {
            const std::string name = std::filesystem::read_symlink(entry.path(), error).string();
            if (name.starts_with(directory + "/") &&
                (name.ends_with(" (deleted)") || name.find("/.norvcrypt.") != std::string::npos))
                return true;
        }
        return false;
    }
    /// What standard error holds at this moment.
    void collect(int patience) {
        pollfd waiting{m_errors, POLLIN, 0};
        std::array<char, 4096> chunk{};
        while (poll(&waiting, 1, patience) > 0) {
            const ssize_t count = ::read(m_errors, chunk.data(), chunk.size());
            if (count <= 0)
                return;
            errors.append(chunk.data(), static_cast<std::size_t>(count));
        }
    }
    /// What standard error holds until the end, of a tool that ends by itself.
    void collectAll() {
        std::array<char, 4096> chunk{};
        for (ssize_t count = 0; (count = ::read(m_errors, chunk.data(), chunk.size())) > 0;)
            errors.append(chunk.data(), static_cast<std::size_t>(count));
    }
    int finish() {
        endInput();
        int status = 0;
        while (waitpid(m_child, &status, 0) < 0 && errno == EINTR) {
        }
        collect(0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

    std::string errors;

private:
    pid_t m_child = -1;
    int m_input = -1;
    int m_errors = -1;
};

const std::string piece(4096, 'x');

TEST(StreamingToolTest, BarOnATerminalGoesAwayAgain) {
    const Workspace work;
    Running digest(work, {"digest"}, Terminal::errors);
    std::size_t pieces = 0;
    // Fed until the bar is there: it comes after a moment, however fast the machine.
    while (digest.errors.find("MiB") == std::string::npos) {
        digest.feed(piece);
        ++pieces;
        digest.collect(5);
    }
    EXPECT_EQ(0, digest.finish());
    EXPECT_EQ(0U, digest.errors.find("\rdigesting "));
    EXPECT_EQ("\r\x1B[K", digest.errors.substr(digest.errors.size() - 4));
    EXPECT_EQ(std::string::npos, digest.errors.find('\n'));
    std::string all;
    for (std::size_t count = 0; count < pieces; ++count)
        all += piece;
    EXPECT_EQ(sha256(all) + "  -\n", work.read("stdout"));
}

TEST(StreamingToolTest, VerdictDoesNotStandBehindTheBar) {
    const Workspace work;
    work.write("alice.pem", alice().certificate.pem());
    work.write("alice.key", alice().key.pkcs8Pem());
    work.write("small", std::string("a body\r\n"));
    ASSERT_EQ(0, norvcrypt({"sign", "--cert", work.path("alice.pem"), "--key", work.path("alice.key"), "--in",
                            work.path("small"), "--out", work.path("sig")})
                     .status);
    std::string lines;
    while (lines.size() < 1U << 20U)
        lines += "a line of a body whose every line is like the others\r\n";
    std::ofstream body(work.path("body"), std::ios::binary);
    std::size_t mebibytes = 0;
    // Why the signature does not fit is looked for in further readings of the body, for which the bar is drawn again when a tenth
    // of a second has gone since the last time, and half a second since the start. How long that takes here, nobody knows.
    for (unsigned int attempt = 1; attempt <= 8; ++attempt) {
        for (; mebibytes < 4U << attempt; ++mebibytes)
            body.write(lines.data(), static_cast<std::streamsize>(lines.size()));
        ASSERT_TRUE(body.flush());
        Running verify(work, {"verify", "--signature", "-", "--in", "body"}, Terminal::both);
        usleep(attempt * 700'000);
        verify.feed(work.read("sig"));
        verify.endInput();
        verify.collectAll();
        EXPECT_EQ(1, verify.finish());
        const std::string& told = verify.errors;
        const std::size_t verdict = told.find("signer 1: NOT VERIFIED");
        ASSERT_NE(std::string::npos, verdict) << told;
        // How long the further readings are is not known, so that their bar has no brackets.
        if (!std::regex_search(told, std::regex("\rverifying [0-9]")))
            continue;
        EXPECT_EQ("\r\x1B[K", told.substr(verdict - 4, 4)) << told;
        return;
    }
    FAIL() << "no bar was drawn in a second reading of " << mebibytes << " MiB";
}

TEST(StreamingToolTest, NoBarInAPipe) {
    const Workspace work;
    Running digest(work, {"digest"}, Terminal::none);
    for (int count = 0; count < 30; ++count) {
        digest.feed(piece);
        digest.collect(40);
    }
    EXPECT_EQ(0, digest.finish());
    EXPECT_EQ("", digest.errors);
}

TEST(StreamingToolTest, InterruptLeavesNothingHalfWritten) {
    const std::vector<std::string> sign{"sign", "--cert", "alice.pem", "--key", "alice.key", "--out", "sig"};
    const std::vector<std::string> encrypt{"encrypt", "--to", "alice.pem", "--out", "sig"};
    const std::vector<std::string> decrypt{"decrypt", "--cert", "alice.pem", "--key", "alice.key", "--out", "sig"};
    for (const auto& [signal, arguments] : {std::pair{SIGTERM, sign}, std::pair{SIGINT, sign}, std::pair{SIGHUP, sign},
                                            std::pair{SIGTERM, encrypt}, std::pair{SIGTERM, decrypt}}) {
        const Workspace work;
        work.write("alice.pem", alice().certificate.pem());
        work.write("alice.key", alice().key.pkcs8Pem());
        work.write("sig", std::string("precious"));
        Running command(work, arguments, Terminal::none);
        while (!command.holdsAFileIn(work.directory()))
            command.collect(10);
        kill(command.id(), signal);
        EXPECT_EQ(128 + signal, command.finish());
        EXPECT_EQ((std::vector<std::string>{"alice.key", "alice.pem", "sig", "stdout"}), work.names());
        EXPECT_EQ("precious", work.read("sig"));
    }
}

TEST(StreamingToolTest, NothingIsLeftWhenItIsKilled) {
    for (const int signal : {SIGKILL, SIGSEGV}) {
        const Workspace work;
        const int unnamed = open(work.directory().c_str(), O_TMPFILE | O_WRONLY | O_CLOEXEC, 0600);
        if (unnamed < 0)
            GTEST_SKIP() << "the file system knows no files without a name";
        close(unnamed);
        work.write("alice.pem", alice().certificate.pem());
        Running command(work, {"encrypt", "--to", "alice.pem", "--out", "msg"}, Terminal::none);
        while (!command.holdsAFileIn(work.directory()))
            command.collect(10);
        kill(command.id(), signal);
        command.finish();
        EXPECT_EQ((std::vector<std::string>{"alice.pem", "stdout"}), work.names()) << signal;
    }
}

TEST(StreamingToolTest, BodyInPieces) {
    const Workspace work;
    work.write("alice.pem", alice().certificate.pem());
    work.write("alice.key", alice().key.pkcs8Pem());
    Running sign(work, {"sign", "--cert", "alice.pem", "--key", "alice.key", "--out", "sig"}, Terminal::none);
    std::string body;
    for (int count = 1; count < 40; ++count) {
        body.append(static_cast<std::size_t>(count), static_cast<char>(count));
        sign.feed(body.substr(body.size() - static_cast<std::size_t>(count)));
        sign.collect(1);
    }
    EXPECT_EQ(0, sign.finish()) << sign.errors;
    const Answer answer = norvcrypt({"verify", "--signature", work.path("sig")}, body);
    EXPECT_EQ(0, answer.status) << answer.out << answer.err;
}

} // namespace
