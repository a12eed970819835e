#include "config/AddressPattern.h"

#include "message/Message.h"

#include <norvcrypto-trust/TrustSender.h>

#include <algorithm>

namespace norvmilter {

namespace {

/// As it stands, and in the form in which addresses are compared, where it has one that differs. Patterns have it, too:
/// "*" and "?" may stand in a local part.
std::vector<std::string> formsOf(const std::string& text) {
    std::vector<std::string> forms{lowered(text)};
    std::string plain = forms.front();
    if (plain.find('@') != std::string::npos && plain.ends_with('.'))
        plain.pop_back();
    std::string comparable = Norvane::Crypto::Trust::comparableAddress(plain);
    if (!comparable.empty() && comparable != forms.front())
        forms.push_back(std::move(comparable));
    return forms;
}

} // namespace

AddressForms::AddressForms(const std::string& address) : m_forms(formsOf(address)) {}

AddressPattern::AddressPattern(const std::string& text) : m_text(text) {
    for (const std::string& form : formsOf(text))
        m_patterns.emplace_back(form);
}

bool AddressPattern::matches(const AddressForms& address) const {
    return std::ranges::any_of(m_patterns, [&](const Norvane::StringPattern& pattern) {
        return std::ranges::any_of(address.all(), [&](const std::string& form) { return pattern.matches(form); });
    });
}

NamePattern::NamePattern(const std::string& text) : m_text(text), m_pattern(lowered(text)) {}

bool NamePattern::matches(const std::string& name) const {
    return m_pattern.matches(lowered(name));
}

} // namespace norvmilter
