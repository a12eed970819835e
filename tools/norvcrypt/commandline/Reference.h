#pragma once

/// \file
/// What there is to say about a command: the one source of its help, its manual page and its completion.

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace norvcrypt {

/// An option or a positional argument.
struct OptionFacts {
    std::string name{};                 ///< "--in", or "FILE" for one by its place
    std::string value{};                ///< "BODY"; empty for a flag
    std::string text{};                 ///< what it is for
    std::string preset{};               ///< the value without it; may be empty
    std::vector<std::string> choices{}; ///< the values that it takes, when they are few
    std::vector<std::string> needs{};
    std::vector<std::string> excludes{};
    bool isRequired = false;
    bool isRepeatable = false;

    [[nodiscard]] bool isPositional() const { return !name.starts_with('-'); }
    /// Whether the value names a file, or else a folder.
    [[nodiscard]] bool takesFile() const;
    [[nodiscard]] bool takesFolder() const { return value == "DIR"; }
    /// What it says about the value and other options, behind its text; may be empty.
    [[nodiscard]] std::string remarks() const;
};

struct CommandFacts {
    std::string name{}; ///< "norvcrypt smime sign"
    std::string text{}; ///< what it does
    std::vector<OptionFacts> options{};
    std::vector<CommandFacts> commands{};
    std::vector<std::string> notes{};    ///< a paragraph each
    std::vector<std::string> examples{}; ///< lines that run as they stand in the folder that the demonstration leaves

    /// "norvcrypt sign [OPTIONS] FILE..."
    [[nodiscard]] std::string usage() const;
    /// The name of its manual page: "norvcrypt-smime-sign".
    [[nodiscard]] std::string page() const;
};

/// What an exit code means, whatever the command.
struct ExitMeaning {
    int code;
    std::string_view text;
};
extern const std::vector<ExitMeaning> exitMeanings;

/// The one that is named so among the commands and their own: {"smime", "sign"}. Null: there is none.
const CommandFacts* findCommand(const CommandFacts& all, const std::vector<std::string>& names);

/// What --help tells.
std::string helpText(const CommandFacts& command);
/// The manual page (man(7)) of one command. \param date YYYY-MM-DD
std::string manualPage(const CommandFacts& command, const std::string& version, const std::string& date);
/// The names of the options and commands for bash, with what their values are.
std::string bashCompletion(const CommandFacts& all);

/// The word among `known` that was probably meant; nothing when none is like it.
std::optional<std::string> likeliest(const std::string& word, const std::vector<std::string>& known);

} // namespace norvcrypt
