#include "commandline/CommandLine.h"

#include "files/Output.h"

#include <CLI/CLI.hpp>

#include <algorithm>

namespace norvcrypt {

namespace {

constexpr char mark = '\x01';

/// The parser takes "[a,b]" for a list and "++" for the end of a command; behind a mark they are names like any other.
std::string marked(const std::string& argument) {
    const bool list = argument.starts_with('[') && argument.ends_with(']');
    return list || argument == "++" || argument.starts_with(mark) ? mark + argument : argument;
}

std::string unmarked(const std::string& argument) {
    return argument.starts_with(mark) ? argument.substr(1) : argument;
}

/// In the reverse order that the parser wants, without the program.
std::vector<std::string> markedArguments(int argc, char** argv) {
    std::vector<std::string> arguments;
    for (int at = argc - 1; at > 0; --at)
        arguments.push_back(marked(argv[at]));
    return arguments;
}

/// Has the options of all commands take the marks away again.
void takeMarksAway(CLI::App& app) {
    for (CLI::App* command : app.get_subcommands([](const CLI::App*) { return true; })) {
        for (CLI::Option* option : command->get_options())
            option->transform(unmarked);
        takeMarksAway(*command);
    }
}

/// The command as far as it was understood: "norvcrypt tls serve".
std::string chosen(const CLI::App& app) {
    std::string name = app.get_name();
    if (const std::vector<CLI::App*> commands = app.get_subcommands(); !commands.empty())
        name += " " + chosen(*commands.front());
    return name;
}

/// Help and version are answers; everything else is bad usage, told on one line.
Exit answer(const CLI::App& app, const CLI::ParseError& error) {
    if (error.get_exit_code() == static_cast<int>(CLI::ExitCodes::Success)) {
        TextOutput out;
        out.text(dynamic_cast<const CLI::CallForVersion*>(&error) != nullptr ? std::string(error.what()) + "\n"
                                                                             : app.help());
        out.flush();
        return Exit::good;
    }
    // Without a sub-command the parser would not say which word it could not make one of.
    const std::vector<std::string> unknown = app.remaining();
    std::string what =
        unknown.empty() || !app.get_subcommands().empty() ? error.what() : "unknown command: " + unknown.front();
    std::erase(what, mark);
    reportError(what + " (" + chosen(app) + " --help tells more)");
    return Exit::failed;
}

} // namespace

Option* Option::typeName(const std::string& name) {
    m_option->type_name(name);
    return this;
}

Option* Option::required(bool isRequired) {
    m_option->required(isRequired);
    return this;
}

Option* Option::showDefault() {
    m_option->capture_default_str();
    return this;
}

Option* Option::needs(const Option* other) {
    m_option->needs(other->m_option);
    return this;
}

Option* Option::excludes(const Option* other) {
    m_option->excludes(other->m_option);
    return this;
}

Option* Option::among(const std::vector<std::string>& values) {
    m_option->check(CLI::IsMember(values));
    return this;
}

Option* Option::range(unsigned int least, unsigned int most) {
    m_option->check(CLI::Range(least, most));
    return this;
}

Option* Option::positive() {
    m_option->check(CLI::PositiveNumber);
    return this;
}

bool Option::empty() const {
    return m_option->empty();
}

std::vector<std::string> Option::values() const {
    return m_option->results();
}

Command* Command::command(const std::string& name, const std::string& description) {
    return &m_commands.emplace_back(m_app->add_subcommand(name, description));
}

void Command::requireCommand() {
    m_app->require_subcommand(1);
}

Option* Command::keep(CLI::Option* option) {
    return &m_options.emplace_back(option);
}

template <class Target> Option* Command::option(const std::string& name, Target& target, const std::string& help) {
    return keep(m_app->add_option(name, target, help));
}

template Option* Command::option(const std::string&, std::string&, const std::string&);
template Option* Command::option(const std::string&, std::optional<std::string>&, const std::string&);
template Option* Command::option(const std::string&, std::vector<std::string>&, const std::string&);
template Option* Command::option(const std::string&, unsigned int&, const std::string&);
template Option* Command::option(const std::string&, std::optional<unsigned int>&, const std::string&);
template Option* Command::option(const std::string&, std::optional<std::uint64_t>&, const std::string&);

Option* Command::flag(const std::string& name, bool& target, const std::string& help) {
    return keep(m_app->add_flag(name, target, help));
}

Option* Command::repeated(const std::string& name, const std::string& help) {
    return keep(m_app->add_option(name, help)->expected(1)->multi_option_policy(CLI::MultiOptionPolicy::TakeAll));
}

std::vector<const Option*> Command::inOrderGiven() const {
    std::vector<const Option*> given;
    for (const CLI::Option* const parsed : m_app->parse_order()) {
        const auto own = std::find_if(m_options.begin(), m_options.end(),
                                      [parsed](const Option& option) { return option.m_option == parsed; });
        if (own != m_options.end())
            given.push_back(&*own);
    }
    return given;
}

Command* Command::footer(const std::string& text) {
    m_app->footer(text);
    return this;
}

void Command::whenChosen(std::function<void()> work) {
    m_app->callback([work = std::move(work)] {
        try {
            work();
        } catch (const MissingOption& missing) {
            throw CLI::RequiredError(missing.what());
        }
    });
}

CommandLine::CommandLine(const std::string& description, const std::string& name, const std::string& version)
    : m_app(std::make_unique<CLI::App>(description, name)),
      m_commands(m_app.get()) {
    m_app->set_version_flag("--version", version);
    m_commands.requireCommand();
}

CommandLine::~CommandLine() = default;

std::optional<Exit> CommandLine::read(int argc, char** argv) {
    takeMarksAway(*m_app);
    try {
        m_app->parse(markedArguments(argc, argv));
    } catch (const CLI::ParseError& error) {
        return answer(*m_app, error);
    }
    return std::nullopt;
}

} // namespace norvcrypt
