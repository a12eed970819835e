#pragma once

/// \file
/// The command line: commands with their options and help. The parser (CLI11) stays behind it, in one source: its headers
/// take longer to compile than everything else of a command.

#include "base/Failure.h"
#include "commandline/Reference.h"

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
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
    Option(CLI::Option* option, std::string text) : m_option(option), m_text(std::move(text)) {}
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
    [[nodiscard]] OptionFacts facts() const;

    CLI::Option* m_option;
    std::string m_text;
    std::string m_value;
    std::vector<std::string> m_choices;
};

/// A command or sub-command. What it gives out lives as long as it does.
class Command {
public:
    explicit Command(CLI::App* app);
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

    /// Adds a paragraph behind the options in the help.
    Command* note(const std::string& text);
    /// Adds a line that runs as it stands in the folder that the demonstration leaves, and is done there by a test.
    Command* example(const std::string& line);
    /// Called when the command was chosen and its options are read.
    void whenChosen(std::function<void()> work);

    /// All that was said about it and its own commands.
    [[nodiscard]] CommandFacts facts() const;

private:
    friend class CommandLine;
    Option* keep(CLI::Option* option, const std::string& text);
    /// The command that was asked for, as far as the line was understood.
    [[nodiscard]] const Command& chosen() const;

    CLI::App* m_app;
    std::deque<Command> m_commands;
    std::deque<Option> m_options;
    std::vector<std::string> m_notes;
    std::vector<std::string> m_examples;
};

/// The whole of it.
class CommandLine {
public:
    /// \param version asked when the user asks
    CommandLine(const std::string& description, const std::string& name, std::function<std::string()> version);
    ~CommandLine();
    CommandLine(const CommandLine&) = delete;
    CommandLine& operator=(const CommandLine&) = delete;

    /// Commands are added here.
    [[nodiscard]] Command& commands() { return m_commands; }

    /// Reads the arguments. An exit code when that was all: help and version were printed, or bad usage told.
    std::optional<Exit> read(int argc, char** argv);

private:
    Exit answer(const std::string& failure);

    std::unique_ptr<CLI::App> m_app;
    Command m_commands;
};

} // namespace norvcrypt
