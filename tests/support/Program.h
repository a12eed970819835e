#pragma once

// Other programs as a second opinion.

#include <sys/wait.h>

#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace norvtest {

/// A file that goes with its scope.
class TemporaryFile {
public:
    explicit TemporaryFile(const std::vector<unsigned char>& content) {
        std::string name = (std::filesystem::temp_directory_path() / "norvtestXXXXXX").string();
        ::close(::mkstemp(name.data()));
        m_path = name;
        std::ofstream(m_path, std::ios::binary)
            .write(reinterpret_cast<const char*>(content.data()), static_cast<std::streamsize>(content.size()));
    }
    ~TemporaryFile() { std::filesystem::remove(m_path); }
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;
    [[nodiscard]] const std::string& path() const noexcept { return m_path; }

private:
    std::string m_path;
};

/// True when the `openssl` program is there.
inline bool haveOpenSSL() {
    return std::system("openssl version >/dev/null 2>&1 </dev/null") == 0;
}

/// The standard output of a command that ended with 0, without the line end; "<failed>" for another.
inline std::string outputOf(const std::string& command) {
    FILE* pipe = ::popen((command + " 2>/dev/null </dev/null").c_str(), "r");
    if (pipe == nullptr) {
        return "<failed>";
    }
    std::string output;
    std::array<char, 4096> block{};
    while (const std::size_t count = std::fread(block.data(), 1, block.size(), pipe)) {
        output.append(block.data(), count);
    }
    if (::pclose(pipe) != 0) {
        return "<failed>";
    }
    while (!output.empty() && output.back() == '\n') {
        output.pop_back();
    }
    return output;
}

} // namespace norvtest
