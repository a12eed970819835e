#pragma once

// Other programs as judges, and files for them.

#include "support/TemporaryFolder.h"

#include <sys/wait.h>

#include <array>
#include <cstdio>
#include <string>

namespace norvtest {

/// What a shell command wrote (standard error included) and its exit code; -1 when it did not exit.
struct Outcome {
    int code;
    std::string output;
};

inline Outcome run(const std::string& command) {
    FILE* pipe = popen((command + " </dev/null 2>&1").c_str(), "r");
    if (pipe == nullptr) {
        return {-1, "popen failed"};
    }
    std::string output;
    std::array<char, 4096> bytes{};
    std::size_t count = 0;
    while ((count = std::fread(bytes.data(), 1, bytes.size(), pipe)) > 0) {
        output.append(bytes.data(), count);
    }
    const int status = pclose(pipe);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, output};
}

} // namespace norvtest
