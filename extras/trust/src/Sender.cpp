#include <norvcrypto-trust/TrustSender.h>

#include "Address.h"
#include "OpenSsl.h"
#include "Wording.h"

#include <algorithm>
#include <unordered_set>
#include <utility>

namespace Norvane::Crypto::Trust {

namespace {

using Code = ReasonCode;

constexpr std::size_t mostCertified = 1000; ///< addresses of a certificate that are looked at
constexpr std::size_t mostShown = 3;        ///< addresses in one text

/// The addresses of a certificate.
class Certified {
public:
    explicit Certified(X509* certificate) {
        const detail::QuietQuestion quiet;
        const Owned names(
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

    [[nodiscard]] const std::vector<std::string>& asTheyStand() const { return m_asTheyStand; }
    [[nodiscard]] bool has(const std::string& comparable) const { return m_comparable.count(comparable) > 0; }

private:
    using Owned = detail::Owned<GENERAL_NAMES>;

    static std::string textOf(const ASN1_STRING* text) {
        return {reinterpret_cast<const char*>(ASN1_STRING_get0_data(text)),
                static_cast<std::size_t>(ASN1_STRING_length(text))};
    }

    void addName(const GENERAL_NAME* name) {
        if (name->type == GEN_EMAIL) {
            add(textOf(name->d.rfc822Name), false);
        } else if (name->type == GEN_OTHERNAME &&
                   OBJ_obj2nid(name->d.otherName->type_id) == NID_id_on_SmtpUTF8Mailbox &&
                   name->d.otherName->value->type == V_ASN1_UTF8STRING) {
            add(textOf(name->d.otherName->value->value.utf8string), true);
        }
    }

    void addAttribute(const ASN1_STRING* value) {
        unsigned char* utf8 = nullptr;
        const int length = ASN1_STRING_to_UTF8(&utf8, value);
        const detail::Owned<unsigned char> owned(utf8);
        if (length >= 0) {
            add({reinterpret_cast<const char*>(utf8), static_cast<std::size_t>(length)}, false);
        }
    }

    /// The one form is for local parts in ASCII, the other for all others (RFC 9598, 3).
    void add(std::string address, bool international) {
        if (m_looked == mostCertified) {
            return;
        }
        ++m_looked;
        const auto parts = detail::parsed(address);
        if (!parts || detail::isInternational(parts->local) != international ||
            (!international && detail::isInternational(parts->domain))) {
            return;
        }
        const std::string domain = detail::comparableDomain(parts->domain);
        if (!domain.empty() && m_comparable.insert(parts->local + "@" + domain).second) {
            m_asTheyStand.push_back(std::move(address));
        }
    }

    std::size_t m_looked = 0;
    std::vector<std::string> m_asTheyStand;
    std::unordered_set<std::string> m_comparable;
};

/// "anna@example.org, bob@example.net and 2 others".
std::string listed(const std::vector<std::string>& addresses) {
    std::string text;
    for (std::size_t i = 0; i < std::min(addresses.size(), mostShown); ++i) {
        text += (i == 0 ? "" : ", ") + detail::shown(addresses[i]);
    }
    const std::size_t more = addresses.size() - std::min(addresses.size(), mostShown);
    return more == 0 ? text : text + " and " + std::to_string(more) + (more == 1 ? " other" : " others");
}

/// What is wrong with the message's own addresses.
void lookAtFrom(SenderMatch& match, const std::vector<std::string>& from, const Certified& certified,
                std::vector<std::string>& invalid) {
    for (const std::string& address : from) {
        const std::string comparable = comparableAddress(address);
        if (comparable.empty()) {
            invalid.push_back(address);
        }
        if (comparable.empty() || !certified.has(comparable)) {
            match.uncertified.push_back(address);
        }
    }
}

} // namespace

SenderMatch matchSender(const NVX509::RefCertificate& certificate, const std::vector<std::string>& from,
                        const std::string& sender) {
    SenderMatch match;
    const auto say = [&](Code code, const std::string& what = std::string()) {
        detail::Details details;
        details.whose = match.certified.empty() ? detail::nameOf(certificate) : listed(match.certified);
        details.what = what;
        match.reasons.push_back(detail::worded(code, details));
        match.reasons.back().certificate = certificate;
    };
    X509* const x509 = certificate;
    if (x509 == nullptr) {
        say(Code::certificateMissing);
        return match;
    }
    if (from.size() > maximumFromAddresses) {
        say(Code::tooMuchWork, "the message is from more than " + std::to_string(maximumFromAddresses) + " addresses");
        return match;
    }
    const Certified certified(x509);
    match.certified = certified.asTheyStand();
    std::vector<std::string> invalid;
    lookAtFrom(match, from, certified, invalid);
    if (!invalid.empty()) {
        say(Code::addressInvalid, listed(invalid));
    }
    if (from.empty()) {
        say(Code::senderMissing);
    }
    if (match.certified.empty()) {
        say(Code::certificateWithoutAddress);
        return match;
    }
    const std::string comparableSender = comparableAddress(sender);
    const bool bySender = !comparableSender.empty() && certified.has(comparableSender);
    if (!match.uncertified.empty()) {
        say(bySender ? Code::senderFieldOnly : Code::senderDiffers, listed(match.uncertified));
    }
    match.relation = match.reasons.empty() ? SenderRelation::from
                     : bySender            ? SenderRelation::sender
                                           : SenderRelation::none;
    return match;
}

} // namespace Norvane::Crypto::Trust
