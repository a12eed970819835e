// explain: what would happen to a message, and which rule says so.

#include "commands/Command.h"
#include "config/Config.h"
#include "policy/Direction.h"
#include "policy/Plan.h"
#include "stores/LearntFolder.h"
#include "stores/Stores.h"

#include <norvcmsg/EmailAddress.h>
#include <norvcmsg/Escape.h>
#include <norvcmsg/IPAddress.h>
#include <norvcrypto/DistinguishedName.h>

#include <algorithm>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

namespace norvmilter {

namespace {

using namespace Norvane::Crypto;
using Norvane::escapeForDisplay;

struct Question {
    std::string config;
    std::string from;
    std::vector<std::string> to;
    std::vector<std::string> hidden;
    std::vector<std::string> resolved;
    std::string sender;
    std::string authenticated;
    std::string listener;
    std::string client;
    bool incoming = false;

    /// Whether something is told that the direction depends on.
    [[nodiscard]] bool tellsClient() const { return !authenticated.empty() || !listener.empty() || !client.empty(); }
};

class Explainer {
public:
    Explainer(const Question& question, const Config& config)
        : m_question(question),
          m_config(config),
          m_stores(config),
          m_loaded(m_stores.loaded()) {}

    int run() {
        Envelope envelope;
        envelope.listener = m_question.listener;
        envelope.authenticated = m_question.authenticated;
        envelope.clientAddress = m_question.client;
        const People people = peopleAsked();
        const std::string from = people.from.size() == 1 ? people.from.front() : m_question.from;
        envelope.sender = m_question.sender.empty() ? from : m_question.sender;
        envelope.recipients = m_question.to;
        envelope.recipients.insert(envelope.recipients.end(), m_question.hidden.begin(), m_question.hidden.end());
        for (std::size_t index = 0; index < std::min(m_question.resolved.size(), envelope.recipients.size()); ++index)
            envelope.resolved.try_emplace(envelope.recipients[index], m_question.resolved[index]);
        Direction direction = m_question.incoming ? Direction::incoming : Direction::outgoing;
        std::string by = "as asked";
        if (m_question.tellsClient()) {
            const DirectionChoice choice = directionOf(m_config, envelope);
            direction = choice.direction;
            by = choice.rule;
        }
        std::cout << "direction: " << norvmilter::nameOf(direction) << " (" << by << ")\n";
        if (direction == Direction::outgoing)
            return explainOutgoing(envelope, people);
        if (direction == Direction::incoming)
            explainIncoming(envelope);
        else
            std::cout << "the message is not looked at\n";
        return 0;
    }

private:
    static void tellCertificate(const char* what, const NVX509::RefCertificate& certificate,
                                const std::string& source) {
        std::cout << "  " << what << ": " << NVX509::displayName(certificate->subject()) << ", until "
                  << certificate->validityPeriod().notAfter()->asTime().asString();
        if (!source.empty())
            std::cout << ", " << source;
        std::cout << '\n';
    }

    static void tellRecipient(const RecipientPlan& recipient) {
        std::cout << "recipient " << escapeForDisplay(recipient.address) << (recipient.hidden ? " (hidden)" : "")
                  << ": " << (recipient.rule->line == 0 ? "" : "rule ") << recipient.rule->title() << ": sign "
                  << norvmilter::nameOf(recipient.rule->sign) << ", encrypt "
                  << norvmilter::nameOf(recipient.rule->encrypt) << '\n';
        if (recipient.encrypt)
            tellCertificate("certificate", recipient.certificate.certificate, recipient.certificate.source);
        for (const std::string& refusal : recipient.certificate.refusals)
            std::cout << "  not used: " << refusal << '\n';
        if (recipient.rule->encrypt != Wish::never && !recipient.encrypt && recipient.certificate.refusals.empty())
            std::cout << "  nothing in the store or learnt is for this address\n";
    }

    /// As they would stand in the message.
    [[nodiscard]] People peopleAsked() const {
        std::vector<HeaderField> header{{"From", ' ' + m_question.from}};
        for (const std::string& address : m_question.to)
            header.push_back({"To", " <" + address + '>'});
        return peopleOf(header);
    }

    int explainOutgoing(const Envelope& envelope, const People& people) {
        const Plan plan =
            planFor(m_config, *m_loaded, m_stores.learnt(), envelope, people, Protection::none, Deadline());
        std::cout << "sender " << escapeForDisplay(plan.sender) << ": "
                  << (plan.signer ? "signs" : "does not sign: " + plan.whyUnsigned) << '\n';
        if (plan.signer)
            tellCertificate("certificate", plan.signer->certificate, "");
        for (const RecipientPlan& recipient : plan.recipients)
            tellRecipient(recipient);
        if (plan.refusal) {
            const Reply& reply = plan.refusal->reply;
            std::cout << "refused: " << reply.code << ' ' << reply.enhanced << ' ' << reply.text << '\n';
            return 0;
        }
        for (std::size_t index = 0; index < plan.groups.size(); ++index)
            tellGroup(plan, plan.groups[index], index);
        return 0;
    }

    static void tellGroup(const Plan& plan, const Group& group, std::size_t index) {
        std::cout << (index == 0 ? "the message" : "a message of its own");
        if (group.sign)
            std::cout << ", signed";
        if (group.encrypt)
            std::cout << ", encrypted with " << norvmilter::nameOf(group.rule->cipher);
        if (!group.sign && !group.encrypt)
            std::cout << ", as it is";
        std::cout << ", to";
        for (const std::size_t recipient : group.recipients)
            std::cout << ' ' << escapeForDisplay(plan.recipients[recipient].address);
        std::cout << '\n';
    }

    void explainIncoming(const Envelope& envelope) {
        for (const std::string& address : envelope.recipients) {
            std::cout << "recipient " << escapeForDisplay(address) << ":\n";
            const NVX509::KeyCertificatePair pair =
                m_loaded->keys->findDecryptionKey(Norvane::EmailAddress::rfc5321Parse(address, true));
            if (!m_config.incoming.decrypt)
                std::cout << "  nothing is decrypted: incoming.decrypt is false\n";
            else if (!pair)
                std::cout << "  no key of its own; any of the " << m_loaded->privateKeys
                          << " keys of the store decrypts what is encrypted to it\n";
            else
                tellCertificate("decrypted with", pair->certificate, "");
        }
        if (!m_config.incoming.verify)
            std::cout << "signatures are not verified: incoming.verify is false\n";
        else if (!m_loaded->verifier)
            std::cout << "signatures are verified, and nobody is trusted: there are no anchors\n";
        else
            std::cout << "signatures are verified, signers judged by " << m_loaded->trust.anchors << " anchors\n";
        std::cout << "delivered: "
                  << (m_config.incoming.deliver == Deliver::asSigned ? "what was decrypted with its signature"
                                                                     : "the content of what was decrypted")
                  << '\n';
        for (const std::string& result : m_config.incoming.refuse)
            std::cout << "refused: smime=" << result << '\n';
    }

    const Question& m_question;
    const Config& m_config;
    Stores m_stores;
    std::shared_ptr<const LoadedStores> m_loaded;
};

} // namespace

void addExplain(CLI::App& app, Action& action) {
    CLI::App* const command =
        app.add_subcommand("explain", "Says what would happen to a message, and which rule says so");
    const auto question = std::make_shared<Question>();
    command->add_option("--config", question->config, "the configuration file")->required();
    command->add_option("--from", question->from, "the address in From")->required();
    command->add_option("--to", question->to, "a recipient; may be given again")->required();
    command->add_option("--bcc", question->hidden, "a recipient that stands in no field; may be given again");
    command->add_option(
        "--resolved", question->resolved,
        "what the MTA makes of a recipient (the macro {rcpt_addr}): of the first one, when given again of the "
        "second, those of --to before those of --bcc");
    command->add_option("--sender", question->sender, "the sender of the envelope; the address in From otherwise");
    command->add_option("--authenticated", question->authenticated, "who authenticated");
    command->add_option("--listener", question->listener, "the name of the listener");
    command->add_option("--client", question->client, "the address of the client");
    command->add_flag(
        "--incoming", question->incoming,
        "the message is an incoming one; otherwise it is an outgoing one, unless something of the client is given");
    command->callback([question, &action] {
        // What is no address would be in no network, and nobody would see why.
        if (!question->client.empty() && Norvane::IPAddress::fromText(question->client).isNull())
            throw CLI::ValidationError("--client", escapeForDisplay(question->client) + " is no address");
        action = [question] {
            const Config config = Config::load(question->config);
            return Explainer(*question, config).run();
        };
    });
}

} // namespace norvmilter
