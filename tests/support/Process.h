#pragma once

/// \file
/// Runs programs and keeps what they answered.

#include "support/Places.h"

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace interop {

/// How a program is run. Its standard input is `input` (empty: at its end at once); what it writes is collected.
struct Command {
    std::vector<std::string> arguments{}; ///< the program first; looked up in PATH
    std::string input{};
    std::optional<std::string> inputFile{};  ///< replaces `input`
    std::optional<std::string> outputFile{}; ///< takes standard output
    bool outputClosed = false;
    bool outputBroken = false; ///< a pipe that nobody reads
    bool inputClosed = false;
    std::string directory{};
    std::map<std::string, std::string> environment{}; ///< added to the test's own
};

struct Answer {
    int status = -1; ///< the exit code, or 128 and the signal
    std::string out;
    std::string err;
};

Answer run(const Command& command);

/// The tool under test.
Answer norvcrypt(const std::vector<std::string>& arguments, const std::string& input = "");
Answer norvcrypt(Command command); ///< `arguments` without the program

/// True when the program is installed.
bool installed(const std::string& program);

/// The lines of a text, without their ends.
std::vector<std::string> linesOf(const std::string& text);

} // namespace interop
