#include "engine/Incoming.h"

#include "engine/HeaderEdits.h"
#include "engine/Learn.h"
#include "engine/Streams.h"

#include <norvcmsg/Escape.h>
#include <norvcrypto-smime/SMimeReader.h>

#include <algorithm>
#include <array>
#include <string>

namespace norvmilter {

namespace {

using namespace Norvane::Crypto;

constexpr std::string_view ownPrefix = "X-Norvcrypt-";
/// The header of what was decrypted may be as long as that of the message, and the body shorter.
constexpr std::uint64_t roomForHeader = std::uint64_t{16} << 20U;

/// Name and value of a field that can be added: the protocol takes some 64 KB in one piece.
constexpr std::size_t longestAdded = 65000;

/// What the way of a message wrote, and what this filter does: nothing that was encrypted or signed takes its place.
bool isOfTheWay(const std::string& name) {
    constexpr std::array<std::string_view, 11> names{
        "Received",     "Return-Path",   "Authentication-Results", "DKIM-Signature",
        "Delivered-To", "X-Original-To", "Received-SPF",           "Bcc",
        "Resent-Bcc",   "Envelope-To",   "DomainKey-Signature"};
    const auto startsWith = [&](std::string_view prefix) { return isSameName(name.substr(0, prefix.size()), prefix); };
    return startsWith(ownPrefix) || startsWith("ARC-") || startsWith("X-Spam") ||
           std::ranges::any_of(names, [&](std::string_view one) { return isSameName(one, name); });
}

/// Who a message is from. Of one that is not signed by its sender the fields outside stay, which others checked on the way: anybody
/// can encrypt a message that is from somebody else.
bool isOfOrigin(const std::string& name) {
    constexpr std::array<std::string_view, 5> names{"From", "Sender", "Reply-To", "Resent-From", "Resent-Sender"};
    return std::ranges::any_of(names, [&](std::string_view one) { return isSameName(one, name); });
}

bool isEncrypted(const SMime::Layer& layer) {
    return layer.kind == SMime::LayerKind::enveloped || layer.kind == SMime::LayerKind::authEnveloped;
}

/// Whether what was decrypted takes the place of the message: all of it was opened to its end, and nothing else is shown.
bool isReplaced(const SMime::Answer& answer) {
    using SMime::Verdict;
    std::size_t opened = 0;
    for (const SMime::Layer& layer : answer.layers) {
        if (!layer.coversContent || !isEncrypted(layer))
            continue;
        if (layer.status != SMime::LayerStatus::good)
            return false;
        ++opened;
    }
    const std::array<Verdict, 5> readable{Verdict::accepted, Verdict::signatureGood, Verdict::decrypted,
                                          Verdict::refused, Verdict::unsupported};
    return opened > 0 && answer.notCovered.empty() && !answer.deliveredPath.empty() &&
           std::ranges::find(readable, answer.verdict) != readable.end();
}

bool isOfSMime(const SMime::Answer& answer) {
    return answer.verdict != SMime::Verdict::notSMime && answer.verdict != SMime::Verdict::certificates;
}

SMime::ReadOptions optionsFor(const Config& config, const LoadedStores& stores) {
    SMime::ReadOptions options;
    if (config.incoming.decrypt)
        options.keys = stores.decryption.get();
    if (config.incoming.verify && stores.verifier) {
        options.trust = stores.verifier.get();
        options.trustOptions = stores.verifier->defaults();
    }
    options.wholeMessage = true;
    options.keepSignatures = config.incoming.deliver == Deliver::asSigned;
    options.spillTemplate = spillTemplateIn(config.milter.spool);
    // Each layer may be kept once more on its way.
    options.budget.spill = 4 * config.limits.messageBytes + roomForHeader;
    return options;
}

/// In front of all others: readers find it first.
void insert(Outcome& outcome, const std::string& name, const std::string& value) {
    outcome.edits.push_back({HeaderEdit::Kind::insert, name, 0, value});
}

void addClientHeaders(const SMime::Answer& answer, const SMimeResult& result, Outcome& outcome) {
    const auto put = [&](const char* name, const std::string& text) {
        std::string value;
        for (const char one : text.substr(0, 300))
            value += one >= ' ' && one <= '~' ? one : '?';
        if (!value.empty())
            insert(outcome, std::string(ownPrefix) + name, ' ' + value);
    };
    for (const SMime::Layer& layer : answer.layers) {
        if (layer.coversContent && isEncrypted(layer)) {
            put("Encrypted", layer.status == SMime::LayerStatus::good ? layer.cipher : "not opened");
            break;
        }
    }
    if (result.result == "pass")
        put("Signer", result.identifier);
    put("Signature", result.result);
}

void addFacts(const SMime::Answer& answer, const SMimeResult& result, bool replaced, Outcome& outcome) {
    outcome.tell("action", replaced ? "decrypted" : "verified");
    outcome.tell("verdict", SMime::nameOf(answer.verdict));
    outcome.tell("smime", result.result);
    outcome.tell("signer", result.identifier);
    outcome.tell("issuer", result.issuer);
    outcome.tell("serial", result.serial);
    outcome.tell("reason", result.reason);
    std::erase_if(outcome.facts, [](const Fact& fact) { return fact.value.empty(); });
}

bool isOurs(const Config& config, std::string_view name, std::string_view value) {
    if (isSameName(name.substr(0, ownPrefix.size()), ownPrefix))
        return true;
    return isSameName(name, "Authentication-Results") && claims(value, config.milter.authservId);
}

/// Where the line ends for those to whom a CR by itself ends one.
std::size_t endOfLine(std::string_view text) {
    std::size_t end = text.find('\r');
    while (end != std::string_view::npos && end + 1 < text.size() &&
           std::string_view("\n \t").find(text[end + 1]) != std::string_view::npos)
        end = text.find('\r', end + 1);
    return end;
}

class Receiver {
public:
    Receiver(const Config& config, const LoadedStores& stores, const Message& message)
        : m_config(config),
          m_stores(stores),
          m_message(message) {}

    Outcome receive(LearntFolder* learnt, const Deadline& deadline) {
        m_outcome.edits =
            removals(m_message.header, [&](const HeaderField& field) { return isForged(m_config, field); });
        if (m_outcome.edits.size() > mostTakenOut)
            return rejected("5.3.4", "more than " + std::to_string(mostTakenOut) +
                                         " header fields claim to be of the mail filter here");
        if (!m_outcome.edits.empty())
            m_outcome.tell("forged", std::to_string(m_outcome.edits.size()));
        if (m_message.tooLarge)
            return tooLarge();
        if (m_config.incoming.decrypt || m_config.incoming.verify)
            judge(learnt, deadline);
        return finished();
    }

private:
    Outcome finished() {
        if (m_outcome.action == Outcome::Action::pass && (!m_outcome.edits.empty() || m_outcome.body))
            m_outcome.action = Outcome::Action::change;
        return std::move(m_outcome);
    }

    Outcome tooLarge() {
        const std::string text = "the message has more than " + std::to_string(m_config.limits.messageBytes) + " bytes";
        if (m_config.limits.tooLarge == TooLarge::reject)
            return rejected("5.3.4", text);
        if (m_config.limits.tooLarge == TooLarge::tempfail)
            return temporary(text);
        SMimeResult result;
        result.result = "policy";
        result.reason = text + " and was not looked at";
        announce(result);
        m_outcome.tell("action", "none");
        m_outcome.tell("reason", result.reason);
        return finished();
    }

    void announce(const SMimeResult& result) {
        insert(m_outcome, "Authentication-Results", valueOf(m_config.milter.authservId, result));
    }

    void judge(LearntFolder* learnt, const Deadline& deadline) {
        WrittenMail mail(m_config.milter.spool, deadline, 2 * m_message.length() + roomForHeader);
        const SMime::Answer answer =
            SMime::read(timed(m_message.whole(), deadline), mail, optionsFor(m_config, m_stores));
        SMimeResult result = resultOf(answer);
        bool replaced = isReplaced(answer);
        std::vector<HeaderEdit> changes;
        if (replaced)
            changes = changesFor(mail, result.result == "pass");
        if (std::ranges::any_of(changes, isTooLong)) {
            // An answer that it is for later would tell its sender that it was decrypted.
            replaced = false;
            result.result = "policy";
            result.reason = "a header field of what was encrypted has more than " + std::to_string(longestAdded) +
                            " bytes, so that the message stays as it came";
        }
        const bool isSigned = std::ranges::any_of(
            answer.layers, [](const SMime::Layer& layer) { return layer.coversContent && !isEncrypted(layer); });
        if (!isOfSMime(answer)) {
            if (m_config.incoming.announceNone)
                announce(result);
            m_outcome.tell("action", "none");
            return;
        }
        if (!m_config.incoming.verify && isSigned && !replaced) {
            m_outcome.tell("action", "none");
            return;
        }
        addFacts(answer, result, replaced, m_outcome);
        // Of an encrypted message the answer would tell its sender whether it was decrypted, and so in the end what is in it.
        const bool isEncryptedSomewhere = std::ranges::any_of(answer.layers, isEncrypted);
        if (!isEncryptedSomewhere && m_config.incoming.refuse.count(result.result) > 0) {
            refuse(result);
            return;
        }
        if (replaced)
            replace(mail, changes);
        if (m_config.incoming.verify)
            announce(result);
        if (m_config.incoming.clientHeaders)
            addClientHeaders(answer, result, m_outcome);
        if (learnt != nullptr && m_config.incoming.verify)
            learnFrom(answer, m_stores, *learnt, m_message, deadline, m_outcome);
    }

    void refuse(const SMimeResult& result) {
        m_outcome.action = Outcome::Action::reject;
        m_outcome.reply = replyOf(550, "5.7.1", "smime=" + result.result + ": " + result.reason);
        m_outcome.edits.clear();
    }

    [[nodiscard]] std::vector<HeaderEdit> changesFor(const WrittenMail& mail, bool isFromSender) const {
        // Those that claim to be ours are gone already; of the others the message's own stay.
        return difference(m_message.header, mail.header(), [&](const std::string& name) {
            return isOfTheWay(name) || (!isFromSender && isOfOrigin(name));
        });
    }

    static bool isTooLong(const HeaderEdit& edit) { return edit.name.size() + edit.value.size() > longestAdded; }

    void replace(const WrittenMail& mail, const std::vector<HeaderEdit>& changes) {
        std::vector<HeaderEdit> edits;
        const auto isRemoval = [](const HeaderEdit& edit) { return edit.kind == HeaderEdit::Kind::remove; };
        std::ranges::copy_if(changes, std::back_inserter(edits), isRemoval);
        edits.insert(edits.end(), m_outcome.edits.begin(), m_outcome.edits.end());
        std::ranges::copy_if(changes, std::back_inserter(edits),
                             [&](const HeaderEdit& edit) { return !isRemoval(edit); });
        m_outcome.edits = std::move(edits);
        m_outcome.body = mail.body();
    }

    const Config& m_config;
    const LoadedStores& m_stores;
    const Message& m_message;
    Outcome m_outcome;
};

} // namespace

bool isForged(const Config& config, const HeaderField& field) {
    if (isOurs(config, field.name, field.value))
        return true;
    std::string_view rest = field.value;
    for (std::size_t end = endOfLine(rest); end != std::string_view::npos; end = endOfLine(rest)) {
        rest.remove_prefix(end + 1);
        const std::string_view line = rest.substr(0, endOfLine(rest));
        const std::size_t colon = line.find(':');
        if (colon != std::string_view::npos && isOurs(config, line.substr(0, colon), line.substr(colon + 1)))
            return true;
    }
    return false;
}

Outcome handleIncoming(const Config& config, const LoadedStores& stores, LearntFolder* learnt, const Message& message,
                       const Deadline& deadline) {
    return Receiver(config, stores, message).receive(learnt, deadline);
}

} // namespace norvmilter
