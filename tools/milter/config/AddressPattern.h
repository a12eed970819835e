#pragma once

/// \file
/// Patterns of rules, as people mean them: whoever writes "anna@b.example" means the mailbox, however a sender spells it.

#include <norvcmsg/StringPattern.h>

#include <string>
#include <vector>

namespace norvmilter {

/// An address in the forms in which it is compared with patterns, so that these are made once for many patterns.
class AddressForms {
public:
    explicit AddressForms(const std::string& address);
    [[nodiscard]] const std::vector<std::string>& all() const noexcept { return m_forms; }

private:
    std::vector<std::string> m_forms;
};

/// A pattern with "*" and "?". Of ASCII letters capital and small ones are the same, in front of the "@", too: a rule that says
/// "must" holds for "FRIEND@b.example" as well, who is the same person on nearly every host. An address fits as it stands, or in
/// the form in which addresses are compared: without quotes that it does not need, without a dot at its end, the domain in
/// A-labels.
class AddressPattern {
public:
    explicit AddressPattern(const std::string& text = "*");

    [[nodiscard]] const std::string& text() const noexcept { return m_text; } ///< as it stands in the file
    [[nodiscard]] bool matches(const AddressForms& address) const;
    [[nodiscard]] bool matches(const std::string& address) const { return matches(AddressForms(address)); }

private:
    std::string m_text;
    std::vector<Norvane::StringPattern> m_patterns;
};

/// A pattern for names that are no addresses, such as those of users: letters as above, and nothing else.
class NamePattern {
public:
    explicit NamePattern(const std::string& text = "*");

    [[nodiscard]] const std::string& text() const noexcept { return m_text; }
    [[nodiscard]] bool matches(const std::string& name) const;

private:
    std::string m_text;
    Norvane::StringPattern m_pattern;
};

} // namespace norvmilter
