#pragma once

/// \file
/// The command line: commands with their options and help. The parser (CLI11) stays behind it, in one source: its headers
/// take longer to compile than everything else of a command.

#include "base/Failure.h"

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace CLI {
class App;
class Option;
} // namespace CLI

namespace norvcrypt {

/// What the command line asks for, once it was read.
using Action = std::function<Exit()>;

/// Thrown by what `Command::whenChosen` was given: an option is missing that only sometimes has to be there.
class MissingOption : public std::runtime_error {
public:
    using std::runtime_error::runtime_error; ///< the option's name
};

/// An option or a positional argument of a command. The setters answer the option itself.
class Option {
public:
    explicit Option(CLI::Option* option) : m_option(option) {}
    Option(const Option&) = delete;
    Option& operator=(const Option&) = delete;

    Option* typeName(const std::string& name);
    Option* required(bool isRequired = true);
    /// Shows the value that the target has now.
    Option* showDefault();
    Option* needs(const Option* other);
    Option* excludes(const Option* other);
    Option* among(const std::vector<std::string>& values);
    Option* range(unsigned int least, unsigned int most);
    Option* positive();

    /// True when it was not given.
    [[nodiscard]] bool empty() const;
    /// The values of an option that was added with `Command::repeated`.
    [[nodiscard]] std::vector<std::string> values() const;

private:
    friend class Command;
    CLI::Option* m_option;
};

/// A command or sub-command. What it gives out lives as long as it does.
class Command {
public:
    explicit Command(CLI::App* app) : m_app(app) {}
    Command(const Command&) = delete;
    Command& operator=(const Command&) = delete;

    Command* command(const std::string& name, const std::string& description);
    /// One of the sub-commands has to be given.
    void requireCommand();

    /// An option ("--in") or a positional argument ("FILE"). Targets: std::string, one that is optional, a list of them,
    /// unsigned int and counts that are optional. A target lives until the action has run.
    template <class Target> Option* option(const std::string& name, Target& target, const std::string& help);
    Option* flag(const std::string& name, bool& target, const std::string& help);
    /// An option that may be given many times, with one value each: its place among the others counts.
    Option* repeated(const std::string& name, const std::string& help);
    /// The options in the order in which they were given, as often as they were.
    [[nodiscard]] std::vector<const Option*> inOrderGiven() const;

    Command* footer(const std::string& text);
    /// Called when the command was chosen and its options are read.
    void whenChosen(std::function<void()> work);

private:
    Option* keep(CLI::Option* option);

    CLI::App* m_app;
    std::deque<Command> m_commands;
    std::deque<Option> m_options;
};

/// The whole of it.
class CommandLine {
public:
    CommandLine(const std::string& description, const std::string& name, const std::string& version);
    ~CommandLine();
    CommandLine(const CommandLine&) = delete;
    CommandLine& operator=(const CommandLine&) = delete;

    /// Commands are added here.
    [[nodiscard]] Command& commands() { return m_commands; }

    /// Reads the arguments. An exit code when that was all: help and version were printed, or bad usage told.
    std::optional<Exit> read(int argc, char** argv);

private:
    std::unique_ptr<CLI::App> m_app;
    Command m_commands;
};

} // namespace norvcrypt
