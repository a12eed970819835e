#include "support/Running.h"

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <regex>
#include <set>
#include <sstream>
#include <stdexcept>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <utility>

namespace interop {

namespace fs = std::filesystem;

namespace {

int scratchFile() {
    std::string name = (fs::temp_directory_path() / "norvcrypt-running-XXXXXX").string();
    const int descriptor = mkostemp(name.data(), O_CLOEXEC | O_APPEND);
    if (descriptor < 0)
        throw std::runtime_error("no scratch file");
    unlink(name.c_str());
    return descriptor;
}

[[noreturn]] void execute(const std::vector<std::string>& arguments, const std::string& directory, int in, int out) {
    std::vector<char*> pointers;
    for (const std::string& argument : arguments)
        pointers.push_back(const_cast<char*>(argument.c_str()));
    pointers.push_back(nullptr);
    const bool ready = chdir(directory.c_str()) == 0 && dup2(in, STDIN_FILENO) == STDIN_FILENO &&
                       dup2(out, STDOUT_FILENO) == STDOUT_FILENO && dup2(out, STDERR_FILENO) == STDERR_FILENO;
    alarm(deadlineSeconds); // outlives the exec
    if (ready)
        execvp(pointers[0], pointers.data());
    _exit(127);
}

} // namespace

Running::Running(std::vector<std::string> arguments, const std::string& directory) : m_output(scratchFile()) {
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0)
        throw std::runtime_error("no pipe");
    m_process = fork();
    if (m_process == 0)
        execute(arguments, directory, ends[0], m_output);
    close(ends[0]);
    m_input = ends[1];
    if (m_process < 0)
        throw std::runtime_error("no process");
}

Running::~Running() {
    if (m_process > 0 && !hasEnded()) {
        signal(SIGKILL);
        static_cast<void>(end());
    }
    if (m_input >= 0)
        close(m_input);
    close(m_output);
}

std::string Running::output() const {
    std::string all;
    std::array<char, 65536> chunk{};
    for (ssize_t count = 0; (count = pread(m_output, chunk.data(), chunk.size(), static_cast<off_t>(all.size()))) > 0;)
        all.append(chunk.data(), static_cast<std::size_t>(count));
    return all;
}

bool Running::hasEnded() {
    if (!m_ended)
        m_ended = waitpid(m_process, &m_status, WNOHANG) == m_process;
    return m_ended;
}

template <class Ask> std::string Running::waitUntil(const std::string& what, Ask ask) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(deadlineSeconds);
    while (true) {
        const bool last = hasEnded() || std::chrono::steady_clock::now() > deadline;
        if (std::string answer = ask(); !answer.empty())
            return answer;
        if (last)
            throw std::runtime_error("no " + what + " in:\n" + output());
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

std::string Running::waitFor(const std::string& expression) {
    return waitUntil(expression, [this, pattern = std::regex(expression)] {
        std::smatch match;
        const std::string text = output();
        return std::regex_search(text, match, pattern) ? match[match.size() > 1 ? 1 : 0].str() : std::string();
    });
}

std::string Running::port() {
    return waitUntil("listening port", [this] { return listeningPort(); });
}

/// The kernel's table of sockets tells the ports, the process's own folder which of the sockets are its.
std::string Running::listeningPort() const {
    std::set<std::string> own;
    std::error_code error;
    for (const auto& entry : fs::directory_iterator("/proc/" + std::to_string(m_process) + "/fd", error))
        own.insert(fs::read_symlink(entry.path(), error).string());
    std::ifstream table("/proc/net/tcp");
    for (std::string line; std::getline(table, line);) {
        std::istringstream fields(line);
        std::array<std::string, 10> field;
        for (std::string& each : field)
            fields >> each;
        constexpr const char* listening = "0A";
        if (field[3] == listening && own.contains("socket:[" + field[9] + "]"))
            return std::to_string(std::stoul(field[1].substr(field[1].find(':') + 1), nullptr, 16));
    }
    return {};
}

void Running::signal(int number) const {
    kill(m_process, number);
}

int Running::end() {
    if (m_input >= 0)
        close(std::exchange(m_input, -1));
    if (!m_ended) {
        while (waitpid(m_process, &m_status, 0) < 0 && errno == EINTR) {
        }
        m_ended = true;
    }
    return WIFEXITED(m_status) ? WEXITSTATUS(m_status) : 128 + WTERMSIG(m_status);
}

} // namespace interop
