#include <norvcrypto-trust/TrustSender.h>

#include "Certified.h"
#include "Wording.h"

#include <algorithm>
#include <utility>

namespace Norvane::Crypto::Trust {

namespace {

using Code = ReasonCode;
using detail::Certified;

constexpr std::size_t mostShown = 3; ///< addresses in one text

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
