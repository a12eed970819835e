#include "commandline/Reference.h"

#include <algorithm>
#include <array>
#include <string_view>

namespace norvcrypt {

namespace {

constexpr std::array<std::string_view, 10> fileValues{"FILE", "FILE|DIR", "CERT",    "KEY",     "BODY",
                                                      "MSG",  "MAIL",     "CONTENT", "SIG.p7s", "MSG.p7m"};

std::string joined(const std::vector<std::string>& words, const std::string& between) {
    std::string all;
    for (const std::string& word : words)
        all += (all.empty() ? "" : between) + word;
    return all;
}

} // namespace

const std::vector<ExitMeaning> exitMeanings{
    {0, "done, or the answer is yes"},
    {1, "the answer is no: a signature that is not good, somebody who is not believed, no key that fits, a wrong "
        "passphrase, nobody in the store for an address, a problem that was looked for and found"},
    {2, "it could not be asked or done: bad usage, what cannot be read or written, what does not decode, what is not "
        "supported, which is named"},
};

bool OptionFacts::takesFile() const {
    return std::ranges::find(fileValues, isPositional() ? name : value) != fileValues.end();
}

std::string OptionFacts::remarks() const {
    std::vector<std::string> all;
    if (!choices.empty())
        all.push_back("one of " + joined(choices, ", "));
    if (!preset.empty())
        all.push_back("without it: " + preset);
    if (isRequired)
        all.emplace_back("required");
    if (!needs.empty())
        all.push_back("with " + joined(needs, ", "));
    if (!excludes.empty())
        all.push_back("not with " + joined(excludes, ", "));
    return all.empty() ? "" : "[" + joined(all, "; ") + "]";
}

std::string CommandFacts::usage() const {
    std::string shown = name + " [OPTIONS]";
    for (const OptionFacts& option : options) {
        if (!option.isPositional())
            continue;
        const std::string argument = option.name + (option.isRepeatable ? "..." : "");
        shown += option.isRequired ? " " + argument : " [" + argument + "]";
    }
    return shown + (commands.empty() ? "" : " COMMAND");
}

std::string CommandFacts::page() const {
    std::string shown = name;
    std::ranges::replace(shown, ' ', '-');
    return shown;
}

const CommandFacts* findCommand(const CommandFacts& all, const std::vector<std::string>& names) {
    const CommandFacts* at = &all;
    for (const std::string& name : names) {
        const std::string wanted = at->name + " " + name;
        const auto found = std::ranges::find(at->commands, wanted, &CommandFacts::name);
        if (found == at->commands.end())
            return nullptr;
        at = &*found;
    }
    return at;
}

} // namespace norvcrypt
