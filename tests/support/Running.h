#pragma once

/// \file
/// A program that runs beside the test, such as a server. None outlives its deadline.

#include <string>
#include <sys/types.h>
#include <vector>

namespace interop {

/// How long any program may take; far beyond what a slow machine needs.
constexpr int deadlineSeconds = 90;

class Running {
public:
    /// Starts a program, which is looked up in PATH, in `directory`. Its standard input stays open, and silent, until
    /// `end`.
    Running(std::vector<std::string> arguments, const std::string& directory);
    /// Kills what still runs.
    ~Running();
    Running(const Running&) = delete;
    Running& operator=(const Running&) = delete;

    /// What it wrote so far, on standard output and standard error.
    [[nodiscard]] std::string output() const;
    /// Waits until it wrote what matches the regular expression, and answers the first group of the match (all of it
    /// when there is no group). \throws std::runtime_error with the output: it ended or the deadline passed before
    std::string waitFor(const std::string& expression);
    /// Waits until it listens on an IPv4 port, and answers the port. \throws std::runtime_error as above
    std::string port();
    void signal(int number) const;
    /// Ends its standard input and waits; the exit code, or 128 and the signal.
    int end();

private:
    [[nodiscard]] std::string listeningPort() const;
    bool hasEnded();
    template <class Ask> std::string waitUntil(const std::string& what, Ask ask);

    pid_t m_process = -1;
    int m_input = -1;
    int m_output = -1;
    int m_status = 0;
    bool m_ended = false;
};

} // namespace interop
