#pragma once

/// \file
/// A table of the configuration file while it is read: every key is asked for once, what is wrong is collected, and what nobody
/// asked for is an error, too.

#include "config/AddressPattern.h"

#include <array>
#include <cstdint>
#include <limits>
#include <string>
#include <string_view>
#include <toml++/toml.h>
#include <utility>
#include <vector>

namespace norvmilter {

/// What is wrong with a file, in the order of its lines.
class Problems {
public:
    explicit Problems(std::string path) : m_path(std::move(path)) {}
    void add(unsigned int line, const std::string& key, const std::string& what);
    /// \throws ConfigError when there is any
    void throwIfAny();

private:
    std::string m_path;
    std::vector<std::pair<unsigned int, std::string>> m_lines;
};

/// A table. Members keep what they are where the key is missing or wrong.
class Section {
public:
    /// \param table borrowed; null is one without keys
    /// \param line  where it begins, or what it is missing in
    /// \param name  "outgoing.rule"; empty for the whole file
    Section(Problems& problems, const toml::table* table, unsigned int line, std::string name);

    [[nodiscard]] unsigned int line() const noexcept { return m_line; }
    [[nodiscard]] bool has(std::string_view key) const { return find(key) != nullptr; }
    /// Tells that something is wrong with a key, which may be missing.
    void problem(std::string_view key, const std::string& what);

    void read(std::string_view key, bool& into);
    void read(std::string_view key, std::string& into);
    void read(std::string_view key, AddressPattern& into);
    void read(std::string_view key, NamePattern& into);
    void read(std::string_view key, std::vector<std::string>& into);
    template <class Number> void read(std::string_view key, Number& into, std::int64_t least, std::int64_t most) {
        into = static_cast<Number>(number(key, static_cast<std::int64_t>(into), least, most));
    }
    /// One of some words.
    template <class Value, std::size_t count>
    void read(std::string_view key, Value& into, const std::array<std::pair<const char*, Value>, count>& words) {
        std::string text;
        std::vector<std::string> names;
        read(key, text);
        for (const auto& [name, value] : words) {
            names.emplace_back(name);
            if (text == name) {
                into = value;
                return;
            }
        }
        if (isRead(key))
            problem(key, notAmong(text, names));
    }
    /// A text without which nothing works.
    void need(std::string_view key);

    /// A table in this one; an empty one when there is none.
    [[nodiscard]] Section section(std::string_view key);
    /// The tables of [[key]].
    [[nodiscard]] std::vector<Section> sections(std::string_view key);
    /// Tells of the keys that nobody asked for; to be called at the end.
    void finish();

private:
    [[nodiscard]] std::int64_t number(std::string_view key, std::int64_t unset, std::int64_t least, std::int64_t most);
    [[nodiscard]] const toml::node* find(std::string_view key) const;
    [[nodiscard]] const toml::node* take(std::string_view key);
    [[nodiscard]] std::string nameOf(std::string_view key) const;
    /// Whether there is a text under this key.
    [[nodiscard]] bool isRead(std::string_view key) const;
    [[nodiscard]] static std::string notAmong(const std::string& text, const std::vector<std::string>& names);

    Problems* m_problems;
    const toml::table* m_table;
    unsigned int m_line;
    std::string m_name;
    std::vector<std::string> m_asked;
};

} // namespace norvmilter
