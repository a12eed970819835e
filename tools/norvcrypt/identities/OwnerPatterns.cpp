#include "identities/OwnerPatterns.h"

#include <norvcmsg/EmailAddress.h>

#include <algorithm>

namespace norvcrypt {

namespace {

constexpr const char* wildcards = "*?";
constexpr std::size_t longestAddress = 254;

char lower(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

/// A wildcard never splits a character, which starts with another byte than it goes on with.
bool goesOn(char c) {
    return (static_cast<unsigned char>(c) & 0xC0U) == 0x80U;
}

bool isAddress(const std::string& text) {
    return !Norvane::EmailAddress::rfc5321Parse(text, true).isNull();
}

} // namespace

PatternShape::PatternShape(const std::string& pattern) : m_gaps(1) {
    bool domain = false;
    m_domain = 0;
    for (const char c : pattern) {
        if (c == '*' || c == '?') {
            m_gaps.back().open |= c == '*';
            m_gaps.back().marks += c == '?' ? 1U : 0U;
            domain = false; // behind a wildcard there may be another "@"
            continue;
        }
        m_literals += c;
        m_folded += lower(c);
        m_gaps.emplace_back();
        domain |= c == '@';
        if (c == '@' || !domain)
            m_domain = m_literals.size();
    }
    if (!domain)
        m_domain = m_literals.size();
}

bool PatternShape::covers(const PatternShape& other) const {
    if (m_literals.size() != other.m_literals.size())
        return false;
    for (std::size_t i = 0; i < m_gaps.size(); ++i) {
        const bool splits = i < m_literals.size() && goesOn(m_literals[i]);
        const Gap& theirs = other.m_gaps[i];
        if (!m_gaps[i].covers(theirs) || (splits && m_gaps[i].open != theirs.open))
            return false;
    }
    // The domain of a text that the other one matches begins where the other one says.
    const auto certain = static_cast<std::ptrdiff_t>(other.m_domain);
    return std::equal(m_literals.begin(), m_literals.begin() + certain, other.m_literals.begin()) &&
           std::equal(m_folded.begin() + certain, m_folded.end(), other.m_folded.begin() + certain);
}

std::optional<std::string> whyNeverMatches(const std::string& pattern) {
    if (pattern.empty())
        return std::nullopt; // it matches the empty address
    const auto stars = static_cast<std::size_t>(std::count(pattern.begin(), pattern.end(), '*'));
    if (pattern.size() - stars > longestAddress)
        return "it asks for more than the " + std::to_string(longestAddress) + " bytes that an address can have";
    if (pattern.find_first_of(wildcards) == std::string::npos)
        return isAddress(pattern) ? std::nullopt
                                  : std::optional<std::string>("it is no mail address, and has no wildcards");
    const auto first = pattern.find('@');
    if (first == std::string::npos)
        return std::nullopt;
    // A local part that is not quoted ends at the first "@".
    if (pattern.find_first_of(wildcards) > first && pattern.front() != '"' &&
        !isAddress(pattern.substr(0, first) + "@a"))
        return "no local part can be \"" + pattern.substr(0, first) + "\"";
    // A domain follows the last "@", unless it is an address literal, which may hold one.
    const auto last = pattern.rfind('@');
    const std::string domain = pattern.substr(last + 1);
    if (domain.find_first_of(wildcards) == std::string::npos && !domain.ends_with(']') && !isAddress("a@" + domain))
        return "no domain can be \"" + domain + "\"";
    return std::nullopt;
}

} // namespace norvcrypt
