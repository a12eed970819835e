#include "policy/Rules.h"

#include <norvcrypto-trust/TrustSender.h>

#include <algorithm>
#include <string_view>

namespace norvmilter {

namespace {

constexpr std::size_t mostRoutes = 16; ///< of one address

std::string withoutQuotes(const std::string& local) {
    if (local.size() < 2 || local.front() != '"' || local.back() != '"')
        return local;
    std::string plain;
    for (std::size_t at = 1; at + 1 < local.size(); ++at) {
        if (local[at] == '\\' && at + 2 < local.size())
            ++at;
        plain += local[at];
    }
    return plain;
}

/// Whether an address is written as RFC 5321 has it, so that what it says is all that an MTA sends on to. As RFC 822 has it they
/// take blanks, comments, routes, groups and escapes as well, and quotation marks around pieces, and hand on a filter what the
/// client wrote: "friend@b.example (x)", "@a.example:friend@b.example", "fri.\"end\"@b.example".
bool isPlain(const std::string& address) {
    constexpr std::string_view specials = "()<>,;:\\\"";
    std::size_t at = 0;
    if (address.starts_with('"')) {
        for (at = 1; at < address.size() && address[at] != '"'; ++at)
            at += address[at] == '\\' ? 1 : 0;
        if (at >= address.size() || (at + 1 < address.size() && address[at + 1] != '@'))
            return false;
        ++at;
    }
    const std::size_t literal = address.ends_with(']') ? address.rfind("@[") : std::string::npos;
    for (; at < address.size(); ++at) {
        const char one = address[at];
        const bool isOfLiteral = one == ':' && literal < at; // [IPv6:2001:db8::1]
        const bool isControl = (one >= '\0' && one <= ' ') || one == '\x7f';
        if (isControl || (specials.find(one) != std::string_view::npos && !isOfLiteral))
            return false;
    }
    return true;
}

/// Whether an MTA knows a domain of it that is not its own.
bool hasDomain(const std::string& address) {
    const std::size_t at = address.rfind('@');
    return at != std::string::npos && address.find_first_not_of('.', at + 1) != std::string::npos;
}

/// An address of an MTA, with a domain, as a client would write it: Postfix leaves out the quotation marks of a local part that
/// needs them.
std::string asWritten(const std::string& address) {
    if (isPlain(address))
        return address;
    const std::size_t end = address.rfind('@');
    std::string written = "\"";
    for (const char one : std::string_view(address).substr(0, end)) {
        if (one == '"' || one == '\\')
            written += '\\';
        written += one;
    }
    return written + '"' + address.substr(end);
}

/// An address and those that are packed into its local part, those in them included, as MTAs unpack them. Ends beyond the limit.
std::vector<std::string> withRoutes(const std::string& address) {
    std::vector<std::string> found{address};
    for (std::size_t next = 0; next < found.size() && found.size() <= mostRoutes; ++next) {
        const std::string local = withoutQuotes(found[next].substr(0, found[next].rfind('@')));
        const auto add = [&](std::string route) {
            if (std::ranges::find(found, route) == found.end())
                found.push_back(std::move(route));
        };
        if (local.find('@') != std::string::npos) {
            add(local);
            continue;
        }
        const std::size_t bang = local.find('!');
        if (bang != std::string::npos)
            add(local.substr(bang + 1) + '@' + local.substr(0, bang));
        const std::size_t percent = local.rfind('%');
        if (percent != std::string::npos)
            add(local.substr(0, percent) + '@' + local.substr(percent + 1));
    }
    return found;
}

} // namespace

bool mayUse(const Config& config, const Envelope& envelope, const std::vector<std::string>& from) {
    using Norvane::Crypto::Trust::comparableAddress;
    const std::string sender = comparableAddress(envelope.sender);
    if (from.size() == 1 && !sender.empty() && sender == comparableAddress(from.front()))
        return true;
    return std::ranges::any_of(config.senders, [&](const SenderRule& rule) {
        return rule.authenticated.matches(envelope.authenticated) && rule.envelope.matches(envelope.sender) &&
               std::ranges::all_of(from, [&](const std::string& address) {
                   return std::ranges::any_of(rule.from,
                                              [&](const AddressPattern& pattern) { return pattern.matches(address); });
               });
    });
}

Rules::Rules(const Config& config, const Envelope& envelope, const People& people) : m_config(config) {
    const bool isOne = people.from.size() == 1 && people.problem.empty();
    m_sender = isOne ? people.from.front() : envelope.sender;
    m_fits = fitsOf(m_sender);
    if (isOne && mayUse(config, envelope, people.from))
        return;
    for (const std::string& address : people.from)
        m_others.insert(fitsOf(address));
    if (!envelope.sender.empty())
        m_others.insert(fitsOf(envelope.sender));
    m_others.erase(m_fits);
    m_isAnybodys = !isPlain(envelope.sender);
}

Rules::Fits Rules::fitsOf(const std::string& sender) const {
    const AddressForms forms(sender);
    Fits fits;
    for (const OutgoingRule& rule : m_config.outgoing.rules)
        fits.push_back(rule.sender.matches(forms));
    return fits;
}

const OutgoingRule& Rules::none() {
    static const OutgoingRule rule;
    return rule;
}

const OutgoingRule& Rules::first(const Fits& fits, const AddressForms& recipient) const {
    for (std::size_t index = 0; index < fits.size(); ++index) {
        if (fits[index] && m_config.outgoing.rules[index].recipient.matches(recipient))
            return m_config.outgoing.rules[index];
    }
    return none();
}

const OutgoingRule& Rules::ruleFor(const std::string& recipient, const std::string& resolved) const {
    const bool isCompleted = hasDomain(resolved);
    const OutgoingRule* strictest = &first(m_fits, AddressForms(recipient));
    bool isAnybodys = m_isAnybodys || !(isCompleted || hasDomain(recipient));
    const auto ask = [&](const AddressForms& address, const Fits& fits) {
        if (strictest->encrypt != Wish::must && first(fits, address).encrypt == Wish::must)
            strictest = &first(fits, address);
    };
    const auto askFor = [&](const std::string& address) {
        const std::vector<std::string> all = withRoutes(address);
        for (const std::string& one : all) {
            const AddressForms forms(one);
            ask(forms, m_fits);
            for (const Fits& other : m_others)
                ask(forms, other);
        }
        isAnybodys = isAnybodys || all.size() > mostRoutes || !std::ranges::all_of(all, isPlain);
    };
    askFor(recipient);
    if (isCompleted)
        askFor(asWritten(resolved));
    if (isAnybodys && strictest->encrypt != Wish::must) {
        // Nobody has such an address, and what it may be sent on to is not looked for any further.
        for (const OutgoingRule& one : m_config.outgoing.rules) {
            if (one.encrypt == Wish::must)
                return one;
        }
    }
    return *strictest;
}

} // namespace norvmilter
