// What --help tells, in lines of a width that terminals have.
#include "commandline/Reference.h"

#include <cstddef>
#include <sstream>

namespace norvcrypt {

namespace {

constexpr std::size_t width = 100;
constexpr std::size_t column = 24; ///< of what is said about an option

/// Appends the words, with the indent in front of each further line. \param at how much of the line is there already
void appendWrapped(std::string& text, const std::string& words, std::size_t indent, std::size_t at) {
    std::istringstream in(words);
    bool first = true;
    for (std::string word; in >> word;) {
        if (!first && at + 1 + word.size() > width) {
            text += "\n" + std::string(indent, ' ');
            at = indent;
            first = true;
        }
        text += (first ? "" : " ") + word;
        at += word.size() + (first ? 0 : 1);
        first = false;
    }
    text += "\n";
}

void appendEntry(std::string& text, const std::string& name, const std::string& what) {
    std::string head = "  " + name;
    if (head.size() + 2 > column) {
        text += head + "\n";
        head.clear();
    }
    head.resize(column, ' ');
    text += head;
    appendWrapped(text, what, column, column);
}

void appendOptions(std::string& text, const CommandFacts& command, bool positional) {
    for (const OptionFacts& option : command.options) {
        if (option.isPositional() != positional)
            continue;
        const std::string name = positional || option.value.empty() ? option.name : option.name + " " + option.value;
        const std::string remarks = option.remarks();
        appendEntry(text, name + (option.isRepeatable ? "..." : ""),
                    option.text + (remarks.empty() ? "" : " " + remarks));
    }
}

} // namespace

std::string helpText(const CommandFacts& command) {
    std::string text;
    appendWrapped(text, command.text, 0, 0);
    text += "\nUsage: " + command.usage() + "\n";
    if (!command.commands.empty()) {
        text += "\nCommands:\n";
        for (const CommandFacts& one : command.commands)
            appendEntry(text, one.name.substr(command.name.size() + 1), one.text);
    }
    text += "\nOptions:\n";
    appendOptions(text, command, true);
    appendOptions(text, command, false);
    for (const std::string& note : command.notes) {
        text += "\n";
        appendWrapped(text, note, 0, 0);
    }
    if (command.name.find(' ') == std::string::npos) {
        text += "\nExit codes:\n";
        for (const ExitMeaning& one : exitMeanings)
            appendEntry(text, std::to_string(one.code), std::string(one.text));
    }
    // Last, where whoever asked still sees them; one line each, to be copied.
    if (!command.examples.empty())
        text += "\nExamples, in the folder that norvcrypt demo leaves:\n";
    for (const std::string& example : command.examples)
        text += "  " + example + "\n";
    return text;
}

} // namespace norvcrypt
