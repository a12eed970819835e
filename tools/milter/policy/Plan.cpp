#include "policy/Plan.h"

#include "policy/Rules.h"

#include <norvcmsg/EmailAddress.h>
#include <norvcmsg/Escape.h>
#include <norvcmsg/Time.h>
#include <norvcrypto-trust/TrustSender.h>

#include <algorithm>
#include <map>
#include <tuple>

namespace norvmilter {

namespace {

using namespace Norvane::Crypto;
using Norvane::escapeForDisplay;

constexpr std::size_t mostNamed = 20; ///< recipients in an answer

std::string listed(const std::vector<std::string>& addresses) {
    std::string text;
    for (std::size_t index = 0; index < std::min(addresses.size(), mostNamed); ++index)
        text.append(text.empty() ? "" : ", ").append(escapeForDisplay(addresses[index]));
    return addresses.size() <= mostNamed ? text
                                         : text + " and " + std::to_string(addresses.size() - mostNamed) + " more";
}

/// As `ValidityPeriod::valid`, which would write a line of its own into the log.
bool isValidNow(const NVX509::RefCertificate& certificate) {
    const auto& begin = certificate->validityPeriod().notBefore();
    const auto& end = certificate->validityPeriod().notAfter();
    const Norvane::Time now = Norvane::Time::now();
    return !begin.isNull() && !end.isNull() && !(now < begin->asTime()) && !(end->asTime() < now);
}

class Planner {
public:
    Planner(const Config& config, const LoadedStores& stores, const LearntFolder* learnt, const Envelope& envelope,
            const People& people, const Deadline& deadline)
        : m_config(config),
          m_stores(stores),
          m_learnt(learnt),
          m_envelope(envelope),
          m_people(people),
          m_deadline(deadline),
          m_rules(config, envelope, people) {
        m_plan.sender = m_rules.sender();
    }

    Plan plan(Protection protection) {
        for (const std::string& address : m_envelope.recipients)
            addRecipient(address);
        if (protection != Protection::isEncrypted)
            chooseCertificates();
        if (protection == Protection::none)
            chooseSigner();
        else
            m_plan.whyUnsigned =
                protection == Protection::isSigned ? "it is signed already" : "it is encrypted already";
        if (!m_plan.refusal)
            makeGroups(protection);
        return std::move(m_plan);
    }

private:
    void addRecipient(const std::string& address) {
        m_deadline.check();
        RecipientPlan recipient;
        recipient.address = address;
        const auto resolved = m_envelope.resolved.find(address);
        recipient.rule = &m_rules.ruleFor(address, resolved == m_envelope.resolved.end() ? "" : resolved->second);
        // Those that cannot be compared could be anybody's.
        const std::string comparable = Trust::comparableAddress(address);
        recipient.hidden = comparable.empty() || m_people.visible.count(comparable) == 0;
        m_plan.recipients.push_back(std::move(recipient));
    }

    void refuse(const std::string& enhanced, const std::string& text) {
        if (!m_plan.refusal)
            m_plan.refusal = rejected(enhanced, text);
    }

    /// An address that stands twice among the recipients is looked up once.
    void chooseCertificates() {
        std::map<std::string, FoundCertificate> known;
        std::vector<std::string> missing;
        for (RecipientPlan& recipient : m_plan.recipients) {
            if (recipient.rule->encrypt == Wish::never)
                continue;
            const auto [place, isNew] = known.try_emplace(recipient.address);
            if (isNew)
                place->second = encryptionCertificateFor(m_stores, m_learnt, recipient.address, m_deadline);
            recipient.certificate = place->second;
            recipient.encrypt = !recipient.certificate.certificate.isNull();
            if (!recipient.encrypt && recipient.rule->encrypt == Wish::must && isNew)
                missing.push_back(recipient.address);
        }
        if (!missing.empty())
            refuse("5.7.1", "no certificate to encrypt to for " + listed(missing));
    }

    [[nodiscard]] bool anyWants(Wish wish) const {
        return std::ranges::any_of(m_plan.recipients, [&](const RecipientPlan& one) { return one.rule->sign == wish; });
    }

    void chooseSigner() {
        if (!anyWants(Wish::must) && !anyWants(Wish::possible)) {
            m_plan.whyUnsigned = "no rule wants a signature";
            return;
        }
        findSigner();
        if (m_plan.signer)
            return;
        if (anyWants(Wish::must))
            refuse("5.7.1", "the message must be signed: " + m_plan.whyUnsigned);
        else if (m_config.outgoing.noKey == Refusal::reject && m_isKeyMissing)
            refuse("5.7.1", m_plan.whyUnsigned);
    }

    void findSigner() {
        if (!m_people.problem.empty()) {
            m_plan.whyUnsigned = escapeForDisplay(m_people.problem);
            return;
        }
        if (m_people.from.size() != 1) {
            m_plan.whyUnsigned =
                m_people.from.empty() ? "the message has no From" : "the message has several From addresses";
            return;
        }
        const std::string& from = m_people.from.front();
        const NVX509::KeyCertificatePair pair = signingPairOf(from);
        if (!pair) {
            m_isKeyMissing = true;
            m_plan.whyUnsigned = "no key to sign with for " + escapeForDisplay(from);
            return;
        }
        if (!mayUse(m_config, m_envelope, m_people.from))
            return refuseMismatch(from);
        if (!isValidNow(pair->certificate)) {
            m_isKeyMissing = true;
            m_plan.whyUnsigned = "the certificate to sign with for " + escapeForDisplay(from) + " is not valid now";
            return;
        }
        m_plan.signer = pair;
    }

    [[nodiscard]] NVX509::KeyCertificatePair signingPairOf(const std::string& from) const {
        for (const Norvane::EmailAddress& one : spellingsOf(from)) {
            NVX509::KeyCertificatePair pair = m_stores.keys->findSigningKey(one);
            if (pair && !pair->key.isNull() && !pair->certificate.isNull())
                return pair;
        }
        return NVX509::KeyCertificatePair(false);
    }

    /// A bounce is from nobody: it is not refused for that.
    void refuseMismatch(const std::string& from) {
        m_plan.whyUnsigned = "the sender " + escapeForDisplay('<' + m_envelope.sender + '>') + " may not sign as " +
                             escapeForDisplay(from);
        if (m_config.outgoing.senderMismatch == Refusal::reject && !m_envelope.sender.empty())
            refuse("5.7.1", m_plan.whyUnsigned);
    }

    [[nodiscard]] Group groupOf(const RecipientPlan& recipient, Protection protection) const {
        Group group;
        group.sign = m_plan.signer && recipient.rule->sign != Wish::never;
        group.mustSign = recipient.rule->sign == Wish::must && protection == Protection::none;
        group.encrypt = recipient.encrypt;
        group.rule = group.sign || group.encrypt ? recipient.rule : &Rules::none();
        return group;
    }

    void makeGroups(Protection protection) {
        using Key = std::tuple<bool, bool, bool, bool, bool, int, int, bool, std::size_t>;
        std::map<Key, std::size_t> places;
        std::map<std::string, std::size_t> firsts; // an address may stand twice among the recipients
        bool isSplittable = true;
        for (std::size_t index = 0; index < m_plan.recipients.size(); ++index) {
            const RecipientPlan& recipient = m_plan.recipients[index];
            const Group wanted = groupOf(recipient, protection);
            const OutgoingRule& rule = *wanted.rule;
            // What a message is encrypted to tells the others of whoever is hidden from them.
            const std::size_t own = firsts.try_emplace(recipient.address, index + 1).first->second;
            const std::size_t alone = recipient.hidden && wanted.encrypt ? own : 0;
            const Key key{wanted.sign,
                          wanted.encrypt,
                          wanted.sign && rule.pss,
                          wanted.encrypt && rule.oaep,
                          wanted.encrypt && rule.encryptToSender,
                          wanted.sign ? static_cast<int>(rule.form) : 0,
                          wanted.encrypt ? static_cast<int>(rule.cipher) : 0,
                          (wanted.sign || wanted.encrypt) && rule.protectHeader,
                          alone};
            const auto [place, isNew] = places.try_emplace(key, m_plan.groups.size());
            if (isNew)
                m_plan.groups.push_back(wanted);
            Group& group = m_plan.groups[place->second];
            group.mustSign = group.mustSign || wanted.mustSign;
            group.recipients.push_back(index);
            isSplittable = isSplittable && recipient.rule->mixed == Mixed::separate;
        }
        if (m_plan.groups.size() < 2)
            return;
        if (!isSplittable)
            refuse("5.7.1", "the recipients must not all get the same message: send it to each of them separately");
        else if (m_config.outgoing.submit.empty())
            refuse("5.7.1", "the recipients must not all get the same message, and outgoing.submit is not set");
        else if (m_plan.groups.size() - 1 > m_config.outgoing.separateMessages)
            refuse("5.5.3", "the message would have to be split into " + std::to_string(m_plan.groups.size()) +
                                ": send it to fewer recipients at once");
        m_plan.isRefusedForSplit = m_plan.refusal.has_value();
    }

    const Config& m_config;
    const LoadedStores& m_stores;
    const LearntFolder* m_learnt;
    const Envelope& m_envelope;
    const People& m_people;
    const Deadline& m_deadline;
    Rules m_rules;
    Plan m_plan;
    bool m_isKeyMissing = false;
};

} // namespace

Plan planFor(const Config& config, const LoadedStores& stores, const LearntFolder* learnt, const Envelope& envelope,
             const People& people, Protection protection, const Deadline& deadline) {
    return Planner(config, stores, learnt, envelope, people, deadline).plan(protection);
}

} // namespace norvmilter
