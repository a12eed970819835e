#include "config/Section.h"

#include "config/Config.h"

#include <norvcmsg/Escape.h>

#include <algorithm>

namespace norvmilter {

namespace {

unsigned int lineOf(const toml::node& node) {
    return static_cast<unsigned int>(node.source().begin.line);
}

const char* typeOf(const toml::node& node) {
    if (node.is_string())
        return "a text";
    if (node.is_boolean())
        return "true or false";
    if (node.is_integer())
        return "a number";
    if (node.is_table())
        return "a table";
    if (node.is_array())
        return "a list";
    return "something else";
}

} // namespace

void Problems::add(unsigned int line, const std::string& key, const std::string& what) {
    const std::string where = Norvane::escapeForDisplay(m_path) + ':' + std::to_string(line) + ": ";
    const std::string named = key.empty() ? "" : Norvane::escapeForDisplay(key) + ": ";
    m_lines.emplace_back(line, where + named + what);
}

void Problems::throwIfAny() {
    if (m_lines.empty())
        return;
    std::ranges::stable_sort(m_lines, {}, &std::pair<unsigned int, std::string>::first);
    std::string text;
    for (const auto& [line, problem] : m_lines)
        text.append(text.empty() ? "" : "\n").append(problem);
    throw ConfigError(text);
}

Section::Section(Problems& problems, const toml::table* table, unsigned int line, std::string name)
    : m_problems(&problems),
      m_table(table),
      m_line(line),
      m_name(std::move(name)) {}

const toml::node* Section::find(std::string_view key) const {
    return m_table == nullptr ? nullptr : m_table->get(key);
}

std::string Section::nameOf(std::string_view key) const {
    return m_name.empty() ? std::string(key) : m_name + '.' + std::string(key);
}

void Section::problem(std::string_view key, const std::string& what) {
    const toml::node* const node = find(key);
    m_problems->add(node == nullptr ? m_line : lineOf(*node), nameOf(key), what);
}

const toml::node* Section::take(std::string_view key) {
    m_asked.emplace_back(key);
    return find(key);
}

bool Section::isRead(std::string_view key) const {
    const toml::node* const node = find(key);
    return node != nullptr && node->is_string();
}

std::string Section::notAmong(const std::string& text, const std::vector<std::string>& names) {
    std::string list;
    for (const std::string& name : names)
        list.append(list.empty() ? "" : ", ").append(name);
    return '"' + Norvane::escapeForDisplay(text) + "\" is none of " + list;
}

void Section::read(std::string_view key, bool& into) {
    const toml::node* const node = take(key);
    if (node == nullptr)
        return;
    if (!node->is_boolean())
        return problem(key, std::string("true or false is wanted, not ") + typeOf(*node));
    into = node->as_boolean()->get();
}

void Section::read(std::string_view key, std::string& into) {
    const toml::node* const node = take(key);
    if (node == nullptr)
        return;
    if (!node->is_string())
        return problem(key, std::string("a text is wanted, not ") + typeOf(*node));
    const std::string& text = node->as_string()->get();
    // Paths, names and addresses all end at a NUL for whoever takes them next.
    if (text.find('\0') != std::string::npos)
        return problem(key, "a NUL byte is in the text");
    into = text;
}

void Section::read(std::string_view key, AddressPattern& into) {
    std::string text = into.text();
    read(key, text);
    into = AddressPattern(text);
}

void Section::read(std::string_view key, NamePattern& into) {
    std::string text = into.text();
    read(key, text);
    into = NamePattern(text);
}

void Section::read(std::string_view key, std::vector<std::string>& into) {
    const toml::node* const node = take(key);
    if (node == nullptr)
        return;
    if (!node->is_array())
        return problem(key, std::string("a list of texts is wanted, not ") + typeOf(*node));
    into.clear();
    for (const toml::node& entry : *node->as_array()) {
        if (entry.is_string() && entry.as_string()->get().find('\0') == std::string::npos)
            into.push_back(entry.as_string()->get());
        else
            m_problems->add(lineOf(entry), nameOf(key), std::string("a text is wanted, not ") + typeOf(entry));
    }
}

std::int64_t Section::number(std::string_view key, std::int64_t unset, std::int64_t least, std::int64_t most) {
    const toml::node* const node = take(key);
    if (node == nullptr)
        return unset;
    const bool isNumber = node->is_integer();
    const std::int64_t value = isNumber ? node->as_integer()->get() : 0;
    if (!isNumber || value < least || value > most) {
        problem(key, "a number from " + std::to_string(least) + " to " + std::to_string(most) + " is wanted, not " +
                         (isNumber ? std::to_string(value) : typeOf(*node)));
        return unset;
    }
    return value;
}

void Section::need(std::string_view key) {
    const toml::node* const node = find(key);
    if (node == nullptr || (node->is_string() && node->as_string()->get().empty()))
        problem(key, "it is missing, and nothing can take its place");
}

Section Section::section(std::string_view key) {
    const toml::node* const node = take(key);
    if (node != nullptr && !node->is_table())
        problem(key, std::string("a table is wanted, not ") + typeOf(*node));
    const toml::table* const table = node == nullptr ? nullptr : node->as_table();
    return {*m_problems, table, node == nullptr ? m_line : lineOf(*node), nameOf(key)};
}

std::vector<Section> Section::sections(std::string_view key) {
    std::vector<Section> found;
    const toml::node* const node = take(key);
    if (node == nullptr)
        return found;
    if (!node->is_array()) {
        problem(key, "it stands in double brackets: [[" + nameOf(key) + "]]");
        return found;
    }
    for (const toml::node& entry : *node->as_array()) {
        if (entry.is_table())
            found.emplace_back(*m_problems, entry.as_table(), lineOf(entry), nameOf(key));
        else
            m_problems->add(lineOf(entry), nameOf(key), std::string("a table is wanted, not ") + typeOf(entry));
    }
    return found;
}

void Section::finish() {
    if (m_table == nullptr)
        return;
    for (const auto& [key, node] : *m_table) {
        if (std::ranges::find(m_asked, key.str()) == m_asked.end())
            m_problems->add(static_cast<unsigned int>(key.source().begin.line), nameOf(key.str()),
                            "there is no such key");
    }
}

} // namespace norvmilter
