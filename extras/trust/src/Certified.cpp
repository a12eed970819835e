#include "Certified.h"

#include "Address.h"

#include <norvcrypto-trust/TrustSender.h>

#include <algorithm>
#include <utility>

namespace Norvane::Crypto::Trust::detail {

namespace {

constexpr std::size_t mostCertified = 1000; ///< addresses of a certificate that are looked at

std::string textOf(const ASN1_STRING* text) {
    return {reinterpret_cast<const char*>(ASN1_STRING_get0_data(text)),
            static_cast<std::size_t>(ASN1_STRING_length(text))};
}

/// A constraint on addresses as addresses are compared: "anna@example.org", "example.org", ".example.org"; empty when it is none
/// of these.
std::string comparableConstraint(const std::string& constraint) {
    if (constraint.find('@') != std::string::npos) {
        return comparableAddress(constraint);
    }
    const bool isBelow = !constraint.empty() && constraint.front() == '.';
    const std::string domain = comparableDomain(constraint.substr(isBelow ? 1 : 0));
    return domain.empty() ? domain : (isBelow ? "." : "") + domain;
}

void addExcluded(const X509* certificate, std::unordered_set<std::string>& excluded) {
    const QuietQuestion quiet;
    const Owned<NAME_CONSTRAINTS> constraints(
        static_cast<NAME_CONSTRAINTS*>(X509_get_ext_d2i(certificate, NID_name_constraints, nullptr, nullptr)));
    if (!constraints) {
        quiet.throwWithoutMemory();
        return;
    }
    for (int i = 0; i < sk_GENERAL_SUBTREE_num(constraints->excludedSubtrees); ++i) {
        const GENERAL_NAME* const base = sk_GENERAL_SUBTREE_value(constraints->excludedSubtrees, i)->base;
        if (base->type == GEN_EMAIL) {
            excluded.insert(comparableConstraint(textOf(base->d.rfc822Name)));
        }
    }
}

bool isExcluded(const std::string& comparable, const std::unordered_set<std::string>& excluded) {
    const std::size_t domain = comparable.rfind('@') + 1;
    bool is = excluded.count(comparable) > 0 || excluded.count(comparable.substr(domain)) > 0;
    for (std::size_t dot = comparable.find('.', domain); dot != std::string::npos;
         dot = comparable.find('.', dot + 1)) {
        is = is || excluded.count(comparable.substr(dot)) > 0;
    }
    return is;
}

} // namespace

Certified::Certified(const X509* certificate) {
    const QuietQuestion quiet;
    const Owned<GENERAL_NAMES> names(
        static_cast<GENERAL_NAMES*>(X509_get_ext_d2i(certificate, NID_subject_alt_name, nullptr, nullptr)));
    if (!names) {
        quiet.throwWithoutMemory();
    }
    for (int i = 0; names && i < sk_GENERAL_NAME_num(names.get()); ++i) {
        addName(sk_GENERAL_NAME_value(names.get(), i));
    }
    const X509_NAME* const subject = X509_get_subject_name(certificate);
    for (int at = -1; (at = X509_NAME_get_index_by_NID(subject, NID_pkcs9_emailAddress, at)) >= 0;) {
        addAttribute(X509_NAME_ENTRY_get_data(X509_NAME_get_entry(subject, at)));
    }
}

void Certified::addName(const GENERAL_NAME* name) {
    if (name->type == GEN_EMAIL) {
        add(textOf(name->d.rfc822Name), false);
    } else if (name->type == GEN_OTHERNAME && OBJ_obj2nid(name->d.otherName->type_id) == NID_id_on_SmtpUTF8Mailbox &&
               name->d.otherName->value->type == V_ASN1_UTF8STRING) {
        add(textOf(name->d.otherName->value->value.utf8string), true);
    }
}

void Certified::addAttribute(const ASN1_STRING* value) {
    unsigned char* utf8 = nullptr;
    const int length = ASN1_STRING_to_UTF8(&utf8, value);
    const Owned<unsigned char> owned(utf8);
    if (length >= 0) {
        add({reinterpret_cast<const char*>(utf8), static_cast<std::size_t>(length)}, false);
    }
}

/// The one form is for local parts in ASCII, the other for all others (RFC 9598, 3).
void Certified::add(std::string address, bool international) {
    if (m_looked == mostCertified) {
        return;
    }
    ++m_looked;
    const auto parts = parsed(address);
    if (!parts || isInternational(parts->local) != international ||
        (!international && isInternational(parts->domain))) {
        return;
    }
    const std::string domain = comparableDomain(parts->domain);
    if (!domain.empty() && m_comparable.insert(parts->local + "@" + domain).second) {
        m_asTheyStand.push_back(std::move(address));
    }
}

bool hasExcludedAddress(STACK_OF(X509) * chain) {
    std::unordered_set<std::string> excluded;
    for (int i = 1; i < sk_X509_num(chain); ++i) {
        addExcluded(sk_X509_value(chain, i), excluded);
    }
    if (excluded.empty()) {
        return false;
    }
    const Certified certified(sk_X509_value(chain, 0));
    return std::any_of(certified.comparable().begin(), certified.comparable().end(),
                       [&](const std::string& address) { return isExcluded(address, excluded); });
}

} // namespace Norvane::Crypto::Trust::detail
