// Completion for bash, without the functions of the bash-completion package: it works wherever bash does.
#include "commandline/Reference.h"

namespace norvcrypt {

namespace {

std::string words(const CommandFacts& command) {
    std::string text;
    for (const CommandFacts& one : command.commands)
        text += (text.empty() ? "" : " ") + one.name.substr(command.name.size() + 1);
    for (const OptionFacts& option : command.options)
        if (!option.isPositional())
            text += (text.empty() ? "" : " ") + option.name;
    for (const OptionFacts& option : command.options)
        if (option.isPositional())
            for (const std::string& choice : option.choices)
                text += (text.empty() ? "" : " ") + choice;
    return text;
}

/// "files", "folders", the words themselves behind an equals sign, or "nothing".
std::string valuesOf(const OptionFacts& option) {
    if (!option.choices.empty()) {
        std::string text = "=";
        for (const std::string& choice : option.choices)
            text += (text == "=" ? "" : " ") + choice;
        return text;
    }
    if (option.takesFolder())
        return "folders";
    return option.takesFile() ? "files" : "nothing";
}

void appendCommand(std::string& text, const CommandFacts& command) {
    text += "        '" + command.name + "') words='" + words(command) + "' ;;\n";
    for (const CommandFacts& one : command.commands)
        appendCommand(text, one);
}

void appendValues(std::string& text, const CommandFacts& command) {
    for (const OptionFacts& option : command.options)
        if (!option.isPositional() && !option.value.empty())
            text += "        '" + command.name + " " + option.name + "') kind='" + valuesOf(option) + "' ;;\n";
    for (const CommandFacts& one : command.commands)
        appendValues(text, one);
}

void appendNames(std::string& text, const CommandFacts& command) {
    for (const CommandFacts& one : command.commands) {
        text += (text.empty() ? "'" : "|'") + one.name + "'";
        appendNames(text, one);
    }
}

} // namespace

std::string bashCompletion(const CommandFacts& all) {
    std::string names;
    appendNames(names, all);
    std::string text = "# Completion of " + all.name + " for bash; generated, see " + all.name +
                       " help --bash-completion.\n"
                       "_norvcrypt() {\n"
                       "    local current=${COMP_WORDS[COMP_CWORD]} before='' command=" +
                       all.name +
                       " word words='' kind='' at\n"
                       "    [ \"$COMP_CWORD\" -eq 0 ] || before=${COMP_WORDS[COMP_CWORD - 1]}\n"
                       "    COMPREPLY=()\n"
                       "    # The command as far as it is there.\n"
                       "    for ((at = 1; at < COMP_CWORD; ++at)); do\n"
                       "        word=${COMP_WORDS[at]}\n"
                       "        case \"$command $word\" in\n"
                       "        'norvcrypt help') ;; # the next word is a command all the same\n"
                       "        " +
                       names +
                       ") command=\"$command $word\" ;;\n"
                       "        *) break ;;\n"
                       "        esac\n"
                       "    done\n"
                       "    case \"$command $before\" in\n";
    appendValues(text, all);
    text += "    esac\n"
            "    case $kind in\n"
            "        =*) mapfile -t COMPREPLY < <(compgen -W \"${kind#=}\" -- \"$current\"); return ;;\n"
            "        files) mapfile -t COMPREPLY < <(compgen -f -- \"$current\"); return ;;\n"
            "        folders) mapfile -t COMPREPLY < <(compgen -d -- \"$current\"); return ;;\n"
            "        nothing) return ;;\n"
            "    esac\n"
            "    case $command in\n";
    appendCommand(text, all);
    text += "    esac\n"
            "    mapfile -t COMPREPLY < <(compgen -W \"$words\" -- \"$current\")\n"
            "    [ \"${#COMPREPLY[@]}\" -gt 0 ] || [ \"${current:0:1}\" = - ] ||\n"
            "        mapfile -t COMPREPLY < <(compgen -f -- \"$current\")\n"
            "}\n"
            "complete -o filenames -F _norvcrypt norvcrypt\n";
    return text;
}

} // namespace norvcrypt
