#include "engine/Outgoing.h"

#include "engine/HeaderEdits.h"
#include "engine/Incoming.h"
#include "engine/Streams.h"

#include <norvcmsg/EmailAddress.h>
#include <norvcmsg/Escape.h>
#include <norvcrypto-smime/SMimeReader.h>
#include <norvcrypto-smime/SMimeWriter.h>
#include <norvcrypto/CMSEnvelopeWriter.h>
#include <norvcrypto/DistinguishedName.h>

#include <algorithm>
#include <string>

namespace norvmilter {

namespace {

using namespace Norvane::Crypto;
using Norvane::MediaIn;

/// The message cannot be made as it should be, now or later.
class CannotMake : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

bool isBcc(const std::string& name) {
    return isSameName(name, "Bcc") || isSameName(name, "Resent-Bcc");
}

/// What no outgoing message keeps: hidden recipients, and results that a user wrote for those who are served by the same host.
bool isUnwanted(const Config& config, const HeaderField& field) {
    return isBcc(field.name) || isForged(config, field);
}

std::vector<HeaderField> cleaned(const Config& config, std::vector<HeaderField> header) {
    std::erase_if(header, [&](const HeaderField& field) { return isUnwanted(config, field); });
    return header;
}

std::vector<HeaderEdit> cleaning(const Config& config, const std::vector<HeaderField>& header) {
    return removals(header, [&](const HeaderField& field) { return isUnwanted(config, field); });
}

/// The reason in a failure, without where in the program it happened.
std::string reasonOf(const Norvane::Exception& failure) {
    for (const Norvane::Exception::Parameter& parameter : failure.parameters()) {
        if (const auto* text = std::get_if<std::string>(&parameter))
            return Norvane::escapeForDisplay(*text);
    }
    return Norvane::escapeForDisplay(failure.where());
}

bool takesOaep(const NVX509::RefCertificate& certificate) {
    try {
        static_cast<void>(CMS::EnvelopeRecipient::rsaOaep(certificate));
        return true;
    } catch (const Norvane::Exception&) {
        return false;
    }
}

/// A message while it is made.
struct Made {
    WrittenMail mail;
    bool isSigned = false;
    bool isEncrypted = false;
};

class Worker {
public:
    Worker(const Config& config, const LoadedStores& stores, const LearntFolder* learnt, const Message& message,
           const Plan& plan, const Deadline& deadline)
        : m_config(config),
          m_stores(stores),
          m_learnt(learnt),
          m_message(message),
          m_plan(plan),
          m_deadline(deadline),
          m_header(cleaned(config, message.header)),
          m_octetsOfHeader(octetsOf(m_header) + "\r\n"),
          m_left(std::max(config.outgoing.separateBytes, std::uint64_t{2} * message.length())) {}

    Outcome work() {
        Outcome outcome;
        try {
            for (std::size_t index = 1; index < m_plan.groups.size(); ++index)
                outcome.submissions.push_back(submission(m_plan.groups[index]));
            changeThis(outcome);
        } catch (const CannotMake& failure) {
            return rejected("5.7.1", failure.what());
        } catch (const TooMuch& failure) {
            return rejected("5.3.4", std::string("the message is too long to be signed or encrypted for everybody: ") +
                                         failure.what());
        }
        for (std::size_t index = 1; index < m_plan.groups.size(); ++index) {
            for (const std::size_t recipient : m_plan.groups[index].recipients)
                outcome.removeRecipients.push_back(m_plan.recipients[recipient].address);
        }
        if (!outcome.edits.empty() || outcome.body || !outcome.submissions.empty())
            outcome.action = Outcome::Action::change;
        return outcome;
    }

private:
    [[nodiscard]] MediaIn source() const { return timed(joined(m_octetsOfHeader, m_message.body()), m_deadline); }

    [[nodiscard]] SMime::SignOptions signing(const OutgoingRule& rule) const {
        SMime::SignOptions options;
        options.form = rule.form;
        options.pss = rule.pss;
        options.signers.emplace_back(m_plan.signer);
        return options;
    }

    [[nodiscard]] SMime::EncryptOptions encrypting(const Group& group) const {
        SMime::EncryptOptions options;
        options.cipher = group.rule->cipher;
        for (const std::size_t index : group.recipients)
            options.certificates.push_back(m_plan.recipients[index].certificate.certificate);
        if (group.rule->encryptToSender) {
            const FoundCertificate own = encryptionCertificateFor(m_stores, m_learnt, m_plan.sender, m_deadline);
            if (!own.certificate.isNull())
                options.certificates.push_back(own.certificate);
        }
        // Those with keys on curves alone are encrypted to by agreement, whatever a rule says of RSA.
        if (group.rule->oaep && std::ranges::any_of(options.certificates, takesOaep))
            options.oaep = CMS::OaepParameters();
        return options;
    }

    void write(const Group& group, bool sign, Made& made) const {
        std::vector<SMime::Wrapping> shells;
        if (sign)
            shells.emplace_back(signing(*group.rule));
        if (group.encrypt)
            shells.emplace_back(encrypting(group));
        if (shells.empty()) {
            MediaIn all = source();
            all.write(made.mail);
            return;
        }
        SMime::WriteOptions how;
        how.protectHeader = group.rule->protectHeader;
        how.spillTemplate = spillTemplateIn(m_config.milter.spool);
        SMime::wrap(source(), shells, made.mail, how);
        made.isSigned = sign;
        made.isEncrypted = group.encrypt;
    }

    [[nodiscard]] Made made(const Group& group) {
        const auto attempt = [&](bool sign) {
            Made one{WrittenMail(m_config.milter.spool, m_deadline, m_left)};
            write(group, sign, one);
            m_left -= std::min(m_left, one.mail.length());
            return one;
        };
        try {
            return attempt(group.sign);
        } catch (const Norvane::MediaException&) {
            throw; // the disk, not the message
        } catch (const Norvane::Exception& failure) {
            if (!group.sign || group.mustSign)
                throw CannotMake(reasonOf(failure));
            m_unsigned = reasonOf(failure);
        }
        // It may go on unsigned: some messages cannot be signed so that the signature arrives.
        try {
            return attempt(false);
        } catch (const Norvane::MediaException&) {
            throw;
        } catch (const Norvane::Exception& failure) {
            throw CannotMake(reasonOf(failure));
        }
    }

    Submission submission(const Group& group) {
        const Made one = made(group);
        Norvane::SwapBufferMediaOut whole = spillIn(m_config.milter.spool);
        const std::string header = octetsOf(one.mail.header()) + "\r\n";
        joined(header, one.mail.body().in()).write(whole);
        Submission result{m_message.envelope.sender, {}, whole};
        result.senderParameters = m_message.envelope.senderParameters;
        for (const std::size_t recipient : group.recipients) {
            const std::string& address = m_plan.recipients[recipient].address;
            result.recipients.push_back(address);
            const auto asked = m_message.envelope.recipientParameters.find(address);
            if (asked != m_message.envelope.recipientParameters.end())
                result.recipientParameters.insert(*asked);
        }
        return result;
    }

    void changeThis(Outcome& outcome) {
        if (m_plan.groups.empty())
            return;
        const Group& group = m_plan.groups.front();
        std::string action;
        bool isSigned = false;
        if (group.sign || group.encrypt) {
            const Made one = made(group);
            isSigned = one.isSigned;
            action = one.isSigned      ? (one.isEncrypted ? "signed+encrypted" : "signed")
                     : one.isEncrypted ? "encrypted"
                                       : "";
            if (!action.empty()) {
                outcome.edits =
                    difference(m_message.header, one.mail.header(), [](const std::string&) { return false; });
                outcome.body = one.mail.body();
            }
        }
        if (action.empty())
            outcome.edits = cleaning(m_config, m_message.header);
        outcome.tell("action", action.empty() ? "none" : action);
        outcome.tell("rule", group.rule->title());
        if (!outcome.submissions.empty())
            outcome.tell("split", std::to_string(outcome.submissions.size() + 1));
        if (isSigned)
            outcome.tell("signer", NVX509::displayName(m_plan.signer->certificate->subject()));
        const std::string why = m_unsigned.empty() ? m_plan.whyUnsigned : m_unsigned;
        if (!why.empty())
            outcome.tell("unsigned", why);
    }

    const Config& m_config;
    const LoadedStores& m_stores;
    const LearntFolder* m_learnt;
    const Message& m_message;
    const Plan& m_plan;
    const Deadline& m_deadline;
    std::vector<HeaderField> m_header;
    std::string m_octetsOfHeader;
    std::uint64_t m_left;
    std::string m_unsigned; ///< why a message that should be signed is not
};

/// A message that was not kept because of its length.
Outcome handleTooLarge(const Config& config, const Message& message, const Plan& plan) {
    const auto mustBeChanged = [](const RecipientPlan& one) {
        return one.rule->encrypt == Wish::must || one.rule->sign == Wish::must;
    };
    const std::string text = "the message has more than " + std::to_string(config.limits.messageBytes) +
                             " bytes and cannot be signed or encrypted";
    if (config.limits.tooLarge == TooLarge::reject || std::ranges::any_of(plan.recipients, mustBeChanged))
        return rejected("5.3.4", text);
    if (config.limits.tooLarge == TooLarge::tempfail)
        return temporary(text);
    // Who may not send it so when it is small may not when it is large; but nothing is made of it that would have to be split.
    if (plan.refusal && !plan.isRefusedForSplit)
        return *plan.refusal;
    Outcome outcome;
    outcome.edits = cleaning(config, message.header);
    if (!outcome.edits.empty())
        outcome.action = Outcome::Action::change;
    outcome.tell("action", "none");
    outcome.tell("unsigned", text);
    return outcome;
}

bool isMarked(const Message& message) {
    return std::ranges::any_of(message.header, [](const HeaderField& field) {
        if (!isSameName(field.name, "Content-Type"))
            return false;
        const std::string value = lowered(field.value);
        return value.find("application/") != std::string::npos || value.find("multipart/signed") != std::string::npos ||
               value.find("multipart/encrypted") != std::string::npos;
    });
}

} // namespace

Protection protectionOf(const Config& config, const Message& message, const Deadline& deadline) {
    if (!isMarked(message))
        return Protection::none;
    SMime::ReadOptions options;
    options.spillTemplate = spillTemplateIn(config.milter.spool);
    Norvane::NullMediaOut nowhere;
    const SMime::Answer answer = SMime::read(timed(message.whole(), deadline), nowhere, options);
    if (answer.layers.empty() || answer.layers.front().path != "1")
        return Protection::none;
    const SMime::Layer& layer = answer.layers.front();
    switch (layer.kind) {
    case SMime::LayerKind::enveloped:
    case SMime::LayerKind::authEnveloped:
        // Without a key this is as far as a whole structure gets.
        return layer.status == SMime::LayerStatus::noKey ? Protection::isEncrypted : Protection::none;
    case SMime::LayerKind::multipartSigned:
    case SMime::LayerKind::opaqueSigned:
        return layer.status == SMime::LayerStatus::good || layer.status == SMime::LayerStatus::unsupported
                   ? Protection::isSigned
                   : Protection::none;
    case SMime::LayerKind::certificatesOnly:
    case SMime::LayerKind::forwarded:
    case SMime::LayerKind::other:
        break;
    }
    return Protection::none;
}

Outcome handleOutgoing(const Config& config, const LoadedStores& stores, const LearntFolder* learnt,
                       const Message& message, const Deadline& deadline) {
    const auto unwanted =
        std::ranges::count_if(message.header, [&](const HeaderField& field) { return isUnwanted(config, field); });
    if (static_cast<std::size_t>(unwanted) > mostTakenOut)
        return rejected("5.3.4", "more than " + std::to_string(mostTakenOut) +
                                     " header fields would have to be taken out of the message (Bcc)");
    const People people = peopleOf(message.header);
    const Protection protection = message.tooLarge ? Protection::none : protectionOf(config, message, deadline);
    const Plan plan = planFor(config, stores, learnt, message.envelope, people, protection, deadline);
    if (message.tooLarge)
        return handleTooLarge(config, message, plan);
    if (plan.refusal)
        return *plan.refusal;
    return Worker(config, stores, learnt, message, plan, deadline).work();
}

} // namespace norvmilter
