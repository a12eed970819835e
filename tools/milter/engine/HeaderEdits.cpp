#include "engine/HeaderEdits.h"

#include <algorithm>
#include <map>
#include <set>

namespace norvmilter {

namespace {

std::map<std::string, std::vector<std::string>> valuesOf(const std::vector<HeaderField>& header) {
    std::map<std::string, std::vector<std::string>> values;
    for (const HeaderField& field : header)
        values[comparableName(field.name)].push_back(editable(field.value));
    return values;
}

} // namespace

std::string editable(const std::string& value) {
    std::string result;
    for (const char one : value) {
        if (one == '\r' || one == '\0')
            continue;
        // What would begin a field of its own is a part of this one.
        if (!result.empty() && result.back() == '\n' && one != ' ' && one != '\t')
            result += ' ';
        result += one;
    }
    while (!result.empty() && (result.back() == '\n' || result.back() == ' ' || result.back() == '\t'))
        result.pop_back();
    return result;
}

std::vector<HeaderEdit> removals(const std::vector<HeaderField>& header,
                                 const std::function<bool(const HeaderField&)>& isUnwanted) {
    std::vector<HeaderEdit> edits;
    std::map<std::string, std::size_t> seen;
    for (const HeaderField& field : header) {
        const std::size_t occurrence = ++seen[comparableName(field.name)];
        if (isUnwanted(field))
            edits.push_back({HeaderEdit::Kind::remove, std::string(trimmedName(field.name)), occurrence, ""});
    }
    std::ranges::reverse(edits);
    return edits;
}

std::vector<HeaderEdit> difference(const std::vector<HeaderField>& header, const std::vector<HeaderField>& wanted,
                                   const std::function<bool(const std::string&)>& isKept) {
    const auto before = valuesOf(header);
    const auto after = valuesOf(wanted);
    std::set<std::string> changed;
    for (const auto& [name, values] : before) {
        const auto found = after.find(name);
        if (!isKept(name) && (found == after.end() || found->second != values))
            changed.insert(name);
    }
    for (const auto& [name, values] : after) {
        if (!isKept(name) && before.count(name) == 0)
            changed.insert(name);
    }
    std::vector<HeaderEdit> edits =
        removals(header, [&](const HeaderField& field) { return changed.count(comparableName(field.name)) > 0; });
    for (const HeaderField& field : wanted) {
        if (changed.count(comparableName(field.name)) > 0)
            edits.push_back({HeaderEdit::Kind::append, std::string(trimmedName(field.name)), 0, editable(field.value)});
    }
    return edits;
}

} // namespace norvmilter
