#include "support/Process.h"

#include <array>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <sstream>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>

namespace interop {

namespace {

/// An unnamed file; what a program writes there cannot block it.
class Scratch {
public:
    Scratch() {
        std::string name = (std::filesystem::temp_directory_path() / "norvcrypt-scratch-XXXXXX").string();
        m_descriptor = mkostemp(name.data(), O_CLOEXEC);
        if (m_descriptor < 0)
            throw std::runtime_error("no scratch file");
        unlink(name.c_str());
    }
    ~Scratch() { close(m_descriptor); }
    Scratch(const Scratch&) = delete;
    Scratch& operator=(const Scratch&) = delete;

    [[nodiscard]] int descriptor() const { return m_descriptor; }
    void fill(const std::string& content) const {
        for (std::size_t at = 0; at < content.size();) {
            const ssize_t count = ::write(m_descriptor, content.data() + at, content.size() - at);
            if (count <= 0)
                throw std::runtime_error("scratch file");
            at += static_cast<std::size_t>(count);
        }
        lseek(m_descriptor, 0, SEEK_SET);
    }
    [[nodiscard]] std::string content() const {
        lseek(m_descriptor, 0, SEEK_SET);
        std::string all;
        std::array<char, 65536> chunk{};
        for (ssize_t count = 0; (count = ::read(m_descriptor, chunk.data(), chunk.size())) > 0;)
            all.append(chunk.data(), static_cast<std::size_t>(count));
        return all;
    }

private:
    int m_descriptor;
};

void become(int descriptor, int standard) {
    if (dup2(descriptor, standard) != standard)
        _exit(126);
}

[[noreturn]] void execute(const Command& command, int in, int out, int err) {
    std::vector<char*> arguments;
    for (const std::string& argument : command.arguments)
        arguments.push_back(const_cast<char*>(argument.c_str()));
    arguments.push_back(nullptr);
    for (const auto& [name, value] : command.environment)
        setenv(name.c_str(), value.c_str(), 1);
    if (!command.directory.empty() && chdir(command.directory.c_str()) != 0)
        _exit(126);
    become(in, STDIN_FILENO);
    become(out, STDOUT_FILENO);
    become(err, STDERR_FILENO);
    if (command.inputClosed)
        close(STDIN_FILENO);
    if (command.outputClosed)
        close(STDOUT_FILENO);
    setsid(); // nothing can ask a terminal
    execvp(arguments[0], arguments.data());
    _exit(127);
}

int openFor(const std::optional<std::string>& path, int flags, int otherwise) {
    if (!path)
        return otherwise;
    const int descriptor = open(path->c_str(), flags | O_CLOEXEC | O_NOCTTY, 0666);
    if (descriptor < 0)
        throw std::runtime_error("cannot open " + *path);
    return descriptor;
}

int pipeWithoutReader() {
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0)
        throw std::runtime_error("no pipe");
    close(ends[0]);
    return ends[1];
}

} // namespace

Answer run(const Command& command) {
    const Scratch input;
    const Scratch output;
    const Scratch errors;
    input.fill(command.input);
    const int in = openFor(command.inputFile, O_RDONLY, input.descriptor());
    const int out = command.outputBroken ? pipeWithoutReader()
                                         : openFor(command.outputFile, O_WRONLY | O_CREAT, output.descriptor());
    const pid_t child = fork();
    if (child < 0)
        throw std::runtime_error("no process");
    if (child == 0)
        execute(command, in, out, errors.descriptor());
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    if (in != input.descriptor())
        close(in);
    if (out != output.descriptor())
        close(out);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), output.content(), errors.content()};
}

Answer norvcrypt(const std::vector<std::string>& arguments, const std::string& input) {
    return norvcrypt(Command{.arguments = arguments, .input = input});
}

Answer norvcrypt(Command command) {
    command.arguments.insert(command.arguments.begin(), norvtest::norvcryptProgram);
    return run(command);
}

bool installed(const std::string& program) {
    const char* path = std::getenv("PATH");
    std::istringstream directories(path == nullptr ? "" : path);
    for (std::string directory; std::getline(directories, directory, ':');)
        if (access(directory.append("/").append(program).c_str(), X_OK) == 0)
            return true;
    return false;
}

std::vector<std::string> linesOf(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

} // namespace interop
