#include "commands/Command.h"
#include "files/Input.h"
#include "files/Output.h"
#include "loading/Versions.h"

#include <chrono>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace norvcrypt {

namespace {

struct HelpOptions {
    std::vector<std::string> names;
    bool manual = false;
    bool bash = false;
    std::optional<std::string> directory;
};

/// That of the sources, where whoever builds a package says it: the pages are the same each time then.
std::string today() {
    const char* const given = std::getenv("SOURCE_DATE_EPOCH");
    const std::time_t now = given == nullptr ? std::time(nullptr) : std::strtoll(given, nullptr, 10);
    std::tm day{};
    char text[32] = "";
    if (gmtime_r(&now, &day) != nullptr)
        std::strftime(text, sizeof text, "%Y-%m-%d", &day);
    return text;
}

std::string nameFor(const std::vector<std::string>& names) {
    std::string text = "norvcrypt";
    for (const std::string& name : names)
        text += " " + name;
    return text;
}

/// The command that is named so. \throws Failure: there is none; the likeliest is told
const CommandFacts& namedCommand(const CommandFacts& all, const std::vector<std::string>& names) {
    if (const CommandFacts* const found = findCommand(all, names))
        return *found;
    std::vector<std::string> known(names.begin(), names.begin());
    for (const std::string& name : names) {
        const CommandFacts* const parent = findCommand(all, known);
        known.push_back(name);
        if (findCommand(all, known) != nullptr)
            continue;
        std::vector<std::string> siblings;
        for (const CommandFacts& one : parent->commands)
            siblings.push_back(one.name.substr(parent->name.size() + 1));
        const auto meant = likeliest(name, siblings);
        throw Failure("there is no command " + nameFor(known) + (meant ? ": did you mean " + *meant + "?" : "") + " (" +
                      parent->name + " --help tells more)");
    }
    return all;
}

void writePages(const CommandFacts& command, const std::filesystem::path& directory, const std::string& date) {
    Inputs inputs;
    writeFile((directory / (command.page() + ".1")).string(), inputs, manualPage(command, NORVCRYPT_VERSION, date));
    for (const CommandFacts& one : command.commands)
        writePages(one, directory, date);
}

void writeAll(const CommandFacts& all, const std::string& directory) {
    std::error_code error;
    std::filesystem::create_directories(directory, error);
    if (error)
        throw Failure("cannot make the directory " + directory, error.value());
    writePages(all, directory, today());
    Inputs inputs;
    writeFile((std::filesystem::path(directory) / "norvcrypt.bash").string(), inputs, bashCompletion(all));
}

Exit help(const CommandFacts& all, const HelpOptions& options) {
    const CommandFacts& command = namedCommand(all, options.names);
    TextOutput out;
    if (options.directory)
        writeAll(all, *options.directory);
    else if (options.bash)
        out.text(bashCompletion(all));
    else
        out.text(options.manual ? manualPage(command, NORVCRYPT_VERSION, today()) : helpText(command));
    out.flush();
    return Exit::good;
}

} // namespace

std::string versions() {
    std::string text = "norvcrypt " NORVCRYPT_VERSION;
    for (const std::string& line : libraryVersions())
        text += "\n" + line;
    return text;
}

void addHelp(Command& commands, Action& action) {
    auto options = std::make_shared<HelpOptions>();
    Command* command = commands.command("help", "Tells what a command does, its options and examples");
    command->option("COMMAND", options->names, "The command, and its own one: smime sign. None: all of them in short");
    Option* const manual = command->flag("--man", options->manual, "The same as a manual page: pipe it into man -l -");
    Option* const bash =
        command->flag("--bash-completion", options->bash, "A script for bash that completes all commands and options");
    command
        ->option("--write-all", options->directory,
                 "Write the manual pages of all commands and the script for bash into this folder")
        ->typeName("DIR")
        ->excludes(manual)
        ->excludes(bash);
    manual->excludes(bash);
    command->example("norvcrypt help smime sign");
    command->example("norvcrypt help --man verify > norvcrypt-verify.1");
    command->example("eval \"$(norvcrypt help --bash-completion)\"");
    command->whenChosen(
        [options, &commands, &action] { action = [options, &commands] { return help(commands.facts(), *options); }; });
}

} // namespace norvcrypt
