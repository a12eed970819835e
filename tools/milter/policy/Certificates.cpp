#include "policy/Certificates.h"

#include "stores/LearntFolder.h"

#include <norvcmsg/Escape.h>
#include <norvcrypto-smime/SMimeWriter.h>
#include <norvcrypto-trust/TrustSender.h>
#include <norvcrypto/DistinguishedName.h>

#include <algorithm>

namespace norvmilter {

namespace {

using namespace Norvane::Crypto;
using Store = NVX509::DirectoryKeyStore;

constexpr std::size_t mostTried = 16; ///< of the patterns that match one address

const char* reasonOf(Store::Fitness fitness) {
    switch (fitness) {
    case Store::Fitness::usageForbids:
        return "its key usage does not allow it to be encrypted to";
    case Store::Fitness::unsuitableKey: // of the store's older streams: by agreement others can be encrypted to as well
    case Store::Fitness::noKey:
    case Store::Fitness::outOfValidity:
    case Store::Fitness::fit:
        break;
    }
    return "";
}

/// Why nothing can be encrypted to a certificate; empty when it can. Asks those who will do it, with an empty message.
std::string hindrance(const NVX509::RefCertificate& certificate) {
    SMime::EncryptOptions options;
    options.certificates = {certificate};
    try {
        Norvane::NullMediaOut nowhere;
        SMime::wrap(Norvane::MemoryMediaIn(std::string("\r\n")), {options}, nowhere);
    } catch (const Norvane::Exception& failure) {
        for (const Norvane::Exception::Parameter& parameter : failure.parameters()) {
            if (const auto* text = std::get_if<std::string>(&parameter))
                return Norvane::escapeForDisplay(*text);
        }
        return "nothing can be encrypted to it";
    }
    return {};
}

class Search {
public:
    Search(const LoadedStores& stores, const Deadline& deadline) : m_stores(stores), m_deadline(deadline) {
        m_options = m_stores.verifier->defaults();
        m_options.purpose = Trust::Purpose::encrypt;
    }

    FoundCertificate found;

    /// \param isFit the key is one of those that are encrypted to every day, and its usage allows that
    bool take(const NVX509::RefCertificate& certificate, const std::list<NVX509::RefCertificate>& chain,
              const std::string& source, bool isFit) {
        m_deadline.check();
        const Trust::Verdict verdict = m_stores.verifier->judge(certificate, chain, {}, m_options);
        const std::string why = verdict.accepted && !isFit ? hindrance(certificate) : "";
        if (!why.empty()) {
            found.refusals.push_back(source + ": " + why);
            return false;
        }
        if (verdict.accepted) {
            found.certificate = certificate;
            found.source = source;
            return true;
        }
        found.refusals.push_back(source + ": " + (verdict.reasons.empty() ? "refused" : verdict.reasons.front().text));
        return false;
    }

    void inStore(const Norvane::EmailAddress& address) {
        if (m_stores.directory.isNull())
            return;
        const Store::Explanation explanation = m_stores.directory->explain(address, Store::Purpose::encryption);
        std::size_t tried = 0;
        for (const Store::Match& match : explanation.matches) {
            const Store::Identity& identity = explanation.contents->identities[match.place.identity];
            const std::string source = "identity " + Norvane::escapeForDisplay(identity.folder) + " by its pattern " +
                                       Norvane::escapeForDisplay(identity.owners[match.place.owner].pattern.text());
            if (++tried > mostTried)
                return;
            if (*reasonOf(match.fitness) != '\0')
                found.refusals.push_back(source + ": " + reasonOf(match.fitness));
            else if (take(identity.certificate, identity.chain, source, match.fitness == Store::Fitness::fit))
                return;
        }
    }

private:
    const LoadedStores& m_stores;
    const Deadline& m_deadline;
    Trust::Options m_options;
};

} // namespace

std::vector<Norvane::EmailAddress> spellingsOf(const std::string& address) {
    using Norvane::EmailAddress;
    const EmailAddress given = EmailAddress::rfc5321Parse(address, true);
    if (given.isEmptyAddress())
        return {};
    std::vector<EmailAddress> all{given};
    const std::string domain = given.domain();
    const bool isInternational = domain.find("--") != std::string::npos ||
                                 std::ranges::any_of(domain, [](char one) { return (one & 0x80) != 0; });
    const std::string comparable = isInternational ? Trust::comparableAddress("x@" + domain) : "";
    if (comparable.empty())
        return all;
    const auto add = [&](const EmailAddress& other) {
        const bool isKnown =
            std::ranges::any_of(all, [&](const EmailAddress& one) { return one.address() == other.address(); });
        if (!other.isEmptyAddress() && !isKnown)
            all.push_back(other);
    };
    const std::string ascii = given.localPart() + comparable.substr(1);
    add(EmailAddress::rfc5321Parse(ascii, true));
    for (const EmailAddress& one : SMime::correspondentsOf(Norvane::MemoryMediaIn("To: " + ascii + "\r\n\r\n")).to)
        add(one); // which have U-labels
    return all;
}

FoundCertificate encryptionCertificateFor(const LoadedStores& stores, const LearntFolder* learnt,
                                          const std::string& address, const Deadline& deadline) {
    deadline.check();
    if (!stores.verifier)
        throw Temporary("there are no trust anchors to judge certificates by");
    const std::vector<Norvane::EmailAddress> spellings = spellingsOf(address);
    Search search(stores, deadline);
    if (spellings.empty()) {
        search.found.refusals.emplace_back("it is no mail address");
        return search.found;
    }
    for (const Norvane::EmailAddress& one : spellings) {
        if (search.found.certificate.isNull())
            search.inStore(one);
    }
    if (!search.found.certificate.isNull() || learnt == nullptr)
        return search.found;
    for (const NVX509::RefCertificate& certificate : learnt->find(address)) {
        if (search.take(certificate, {}, "learnt certificate of " + NVX509::displayName(certificate->subject()), false))
            break;
    }
    return search.found;
}

} // namespace norvmilter
