#include "commandline/CommandLine.h"

#include "files/Output.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <charconv>
#include <limits>
#include <type_traits>

namespace norvcrypt {

namespace {

constexpr char mark = '\x01';

template <class Target> constexpr bool isNumber = std::is_same_v<Target, unsigned int> ||
                                                  std::is_same_v<Target, std::optional<unsigned int>> ||
                                                  std::is_same_v<Target, std::optional<std::uint64_t>>;

/// The parser takes "[a,b]" for a list and "++" for the end of a command; behind a mark they are names like any other.
std::string marked(const std::string& argument) {
    const bool list = argument.starts_with('[') && argument.ends_with(']');
    return list || argument == "++" || argument.starts_with(mark) ? mark + argument : argument;
}

/// The same for the value in "--in=[a,b]". The parser takes none, as in "--out=", for that the value is the next argument, which
/// would be another option where a script gives a variable that is empty.
std::string withMarkedValue(const std::string& argument) {
    const std::size_t value = argument.find('=') + 1;
    if (!argument.starts_with("--") || value == 0)
        return marked(argument);
    if (value == argument.size())
        return argument + mark;
    return argument.substr(0, value) + marked(argument.substr(value));
}

std::string unmarked(const std::string& argument) {
    return argument.starts_with(mark) ? argument.substr(1) : argument;
}

/// In the reverse order that the parser wants, without the program.
std::vector<std::string> markedArguments(int argc, char** argv) {
    std::vector<std::string> arguments;
    bool onlyNames = false; // behind "--"
    for (int at = 1; at < argc; ++at) {
        arguments.push_back(onlyNames ? marked(argv[at]) : withMarkedValue(argv[at]));
        onlyNames = onlyNames || arguments.back() == "--";
    }
    std::ranges::reverse(arguments);
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

/// Shows a text that was asked for.
Exit show(const std::string& text) {
    TextOutput out;
    out.text(text);
    out.flush();
    return Exit::good;
}

std::string guess(const std::string& word, const std::vector<std::string>& known) {
    const std::optional<std::string> meant = likeliest(word, known);
    return meant ? ": did you mean " + *meant + "?" : "";
}

/// The parser takes "010" for eight, nothing for zero, and what is too large for the largest number that there is.
std::string asDecimal(std::string& text) {
    std::uint64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error == std::errc::result_out_of_range)
        return "Value " + text + " is too large";
    if (error != std::errc() || end != text.data() + text.size())
        return "Value " + text + " is not a number in decimal digits";
    text = std::to_string(number);
    return "";
}

/// What is wrong with a word that was not understood.
std::string unknownWord(const std::string& word, const CommandFacts& command) {
    std::vector<std::string> known;
    if (word.starts_with('-') && word.size() > 1) {
        for (const OptionFacts& option : command.options)
            if (!option.isPositional())
                known.push_back(option.name);
        const std::string name = word.substr(0, word.find('=')); // what is behind may be a secret
        if (std::ranges::find(known, name) != known.end())
            return "unexpected argument " + name + ": what stands behind -- is no option";
        return "unknown option " + name + guess(name, known);
    }
    if (command.commands.empty())
        return "unexpected argument " + word;
    for (const CommandFacts& one : command.commands)
        known.push_back(one.name.substr(command.name.size() + 1));
    return "unknown command: " + word + guess(word, known);
}

/// The names of its commands: "sign, encrypt or inspect".
std::string commandNames(const CommandFacts& command) {
    std::string text;
    for (const CommandFacts& one : command.commands)
        text += (&one == &command.commands.front()  ? ""
                 : &one == &command.commands.back() ? " or "
                                                    : ", ") +
                one.name.substr(command.name.size() + 1);
    return text;
}

} // namespace

Option* Option::typeName(const std::string& name) {
    m_value = name;
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
    m_choices = values;
    m_option->check(CLI::IsMember(values));
    return this;
}

Option* Option::range(unsigned int least, unsigned int most) {
    m_option->check(CLI::Range(least, most));
    return this;
}

Option* Option::positive() {
    m_option->check(CLI::Range(std::uint64_t{1}, std::numeric_limits<std::uint64_t>::max()));
    return this;
}

bool Option::empty() const {
    return m_option->empty();
}

std::vector<std::string> Option::values() const {
    return m_option->results();
}

OptionFacts Option::facts() const {
    OptionFacts facts{.name = m_option->get_positional() ? m_option->get_name(true) : m_option->get_name(false, false),
                      .value = m_option->get_items_expected_max() == 0 ? "" : m_value,
                      .text = m_text,
                      .preset = m_option->get_default_str(),
                      .choices = m_choices,
                      .needs = {},
                      .excludes = {},
                      .isRequired = m_option->get_required(),
                      .isRepeatable = m_option->get_items_expected_max() > 1};
    if (facts.value.empty() && m_option->get_items_expected_max() > 0)
        facts.value = "VALUE";
    for (const CLI::Option* const other : m_option->get_needs())
        facts.needs.push_back(other->get_name());
    for (const CLI::Option* const other : m_option->get_excludes())
        facts.excludes.push_back(other->get_name());
    // They come in the order of their addresses.
    std::ranges::sort(facts.needs);
    std::ranges::sort(facts.excludes);
    return facts;
}

Command::Command(CLI::App* app) : m_app(app) {
    m_app->add_flag_callback("--debug", [] { tellAll(true); });
}

Command* Command::command(const std::string& name, const std::string& description) {
    return &m_commands.emplace_back(m_app->add_subcommand(name, description));
}

void Command::requireCommand() {
    m_app->require_subcommand(1);
}

Option* Command::keep(CLI::Option* option, const std::string& text) {
    return &m_options.emplace_back(option, text);
}

template <class Target> Option* Command::option(const std::string& name, Target& target, const std::string& help) {
    CLI::Option* const option = m_app->add_option(name, target);
    if constexpr (isNumber<Target>)
        option->transform(CLI::Validator(asDecimal, ""));
    return keep(option, help);
}

template Option* Command::option(const std::string&, std::string&, const std::string&);
template Option* Command::option(const std::string&, std::optional<std::string>&, const std::string&);
template Option* Command::option(const std::string&, std::vector<std::string>&, const std::string&);
template Option* Command::option(const std::string&, unsigned int&, const std::string&);
template Option* Command::option(const std::string&, std::optional<unsigned int>&, const std::string&);
template Option* Command::option(const std::string&, std::optional<std::uint64_t>&, const std::string&);

Option* Command::flag(const std::string& name, bool& target, const std::string& help) {
    return keep(m_app->add_flag(name, target), help);
}

Option* Command::repeated(const std::string& name, const std::string& help) {
    return keep(m_app->add_option(name)->expected(1)->multi_option_policy(CLI::MultiOptionPolicy::TakeAll), help);
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

Command* Command::note(const std::string& text) {
    m_notes.push_back(text);
    return this;
}

Command* Command::example(const std::string& line) {
    m_examples.push_back(line);
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

const Command& Command::chosen() const {
    for (const Command& one : m_commands)
        if (one.m_app->parsed())
            return one.chosen();
    return *this;
}

CommandFacts Command::facts() const {
    CommandFacts facts{.name = m_app->get_name(), .text = m_app->get_description()};
    for (const CLI::App* parent = m_app->get_parent(); parent != nullptr; parent = parent->get_parent())
        facts.name.insert(0, parent->get_name() + " ");
    for (const Option& option : m_options)
        facts.options.push_back(option.facts());
    if (m_app->get_version_ptr() != nullptr)
        facts.options.push_back({.name = "--version", .text = "Tell the version, and those of the libraries in use"});
    facts.options.push_back(
        {.name = "--debug", .text = "Tell of failures, too, where in the program they arose and what OpenSSL says"});
    facts.options.push_back({.name = "--help", .text = "Tell this"});
    for (const Command& one : m_commands)
        facts.commands.push_back(one.facts());
    facts.notes = m_notes;
    facts.examples = m_examples;
    return facts;
}

CommandLine::CommandLine(const std::string& description, const std::string& name, std::function<std::string()> version)
    : m_app(std::make_unique<CLI::App>(description, name)),
      m_commands(m_app.get()) {
    m_app->set_version_flag("--version", std::move(version));
    m_commands.requireCommand();
}

CommandLine::~CommandLine() = default;

/// Bad usage, told on one line: a word that is not known before what is missing, since the one may be meant to be the other.
Exit CommandLine::answer(const std::string& failure) {
    const CommandFacts command = m_commands.chosen().facts();
    std::vector<std::string> unknown = m_app->remaining(true);
    std::ranges::transform(unknown, unknown.begin(), unmarked);
    const auto option = std::ranges::find_if(unknown, [](const std::string& word) { return word.starts_with('-'); });
    std::string what = failure;
    if (option != unknown.end())
        what = unknownWord(*option, command);
    else if (!unknown.empty())
        what = unknownWord(unknown.front(), command);
    else if (!command.commands.empty())
        what = "a command is missing: " + commandNames(command);
    std::erase(what, mark);
    reportError(what + " (" + command.name + " --help tells more)");
    return Exit::failed;
}

std::optional<Exit> CommandLine::read(int argc, char** argv) {
    takeMarksAway(*m_app);
    try {
        m_app->parse(markedArguments(argc, argv));
    } catch (const CLI::CallForVersion& version) {
        return show(std::string(version.what()) + "\n");
    } catch (const CLI::Success&) {
        return show(helpText(m_commands.chosen().facts()));
    } catch (const CLI::ParseError& error) {
        return answer(error.what());
    }
    return std::nullopt;
}

} // namespace norvcrypt
