// Manual pages in the macros of man(7).
#include "commandline/Reference.h"

#include <cctype>

namespace norvcrypt {

namespace {

/// As roff shows it: no character is taken for a request, and hyphens can be copied into a shell.
std::string escaped(std::string_view text) {
    std::string safe;
    for (const char one : text) {
        if (one == '\\')
            safe += "\\e";
        else if (one == '-')
            safe += "\\-";
        else if ((one == '.' || one == '\'') && (safe.empty() || safe.back() == '\n'))
            safe += std::string("\\&") + one;
        else
            safe += one;
    }
    return safe;
}

/// An argument of a macro.
std::string quoted(const std::string& text) {
    std::string safe = "\"";
    for (const char one : escaped(text))
        safe += one == '"' ? std::string("\"\"") : std::string(1, one);
    return safe + "\"";
}

void appendOption(std::string& text, const OptionFacts& option) {
    text += ".TP\n";
    const std::string dots = option.isRepeatable ? "..." : "";
    if (option.isPositional())
        text += ".I " + quoted(option.name + dots) + "\n";
    else if (option.value.empty())
        text += ".B " + quoted(option.name) + "\n";
    else
        text += ".BI " + quoted(option.name + " ") + " " + quoted(option.value + dots) + "\n";
    const std::string remarks = option.remarks();
    text += escaped(option.text) + "\n";
    if (!remarks.empty())
        text += escaped(remarks) + "\n";
}

void appendExits(std::string& text) {
    text += ".SH EXIT STATUS\n";
    for (const ExitMeaning& one : exitMeanings)
        text += ".TP\n.B " + std::to_string(one.code) + "\n" + escaped(one.text) + "\n";
}

void appendEnvironment(std::string& text) {
    text += ".SH ENVIRONMENT\n"
            ".TP\n.B TMPDIR\nWhere goes what is held back and does not fit into memory; /tmp without it.\n"
            ".TP\n.B NO_COLOR\nWhen it is set, verdicts are not coloured on terminals.\n";
}

std::string capitals(std::string text) {
    for (char& one : text)
        one = static_cast<char>(std::toupper(static_cast<unsigned char>(one)));
    return text;
}

/// The page of the command that this one belongs to, and those of its own commands.
std::string otherPages(const CommandFacts& command) {
    std::string text;
    const auto add = [&text](const std::string& page) {
        text += (text.empty() ? ".BR " : ",\n.BR ") + escaped(page) + " (1)";
    };
    for (const CommandFacts& one : command.commands)
        add(one.page());
    if (const std::size_t last = command.page().rfind('-'); command.commands.empty() && last != std::string::npos)
        add(command.page().substr(0, command.name.rfind(' ')));
    return text.empty() ? text : text + "\n";
}

} // namespace

std::string manualPage(const CommandFacts& command, const std::string& version, const std::string& date) {
    std::string text = ".TH " + quoted(capitals(command.page())) + " 1 \"" + date + "\" " +
                       quoted("norvcrypt " + version) + "\n.SH NAME\n" + escaped(command.page()) + " \\- ";
    // One line, as lists of pages show it: up to the first end of a part.
    text += escaped(command.text.substr(0, command.text.find_first_of(":;\n"))) + "\n";
    text += ".SH SYNOPSIS\n.B " + quoted(command.name) + "\n" +
            escaped(command.usage().substr(command.name.size() + 1)) + "\n";
    text += ".SH DESCRIPTION\n" + escaped(command.text) + ".\n";
    for (const std::string& note : command.notes)
        text += ".PP\n" + escaped(note) + "\n";
    if (!command.commands.empty()) {
        text += ".SH COMMANDS\n";
        for (const CommandFacts& one : command.commands)
            text += ".TP\n.B " + quoted(one.name.substr(command.name.size() + 1)) + "\n" + escaped(one.text) + ".\n";
    }
    text += ".SH OPTIONS\n";
    for (const bool positional : {true, false})
        for (const OptionFacts& option : command.options)
            if (option.isPositional() == positional)
                appendOption(text, option);
    appendExits(text);
    appendEnvironment(text);
    if (!command.examples.empty())
        text += ".SH EXAMPLES\nIn the folder that\n.B norvcrypt demo\nleaves:\n.PP\n.nf\n";
    for (const std::string& example : command.examples)
        text += escaped(example) + "\n";
    text += command.examples.empty() ? "" : ".fi\n";
    if (const std::string others = otherPages(command); !others.empty())
        text += ".SH SEE ALSO\n" + others;
    return text;
}

} // namespace norvcrypt
