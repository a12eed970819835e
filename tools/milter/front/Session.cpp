#include "front/Session.h"

#include "front/Failure.h"
#include "submit/Submit.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cstring>
#include <exception>
#include <netinet/in.h>
#include <new>
#include <string_view>
#include <sys/socket.h>
#include <vector>

namespace norvmilter {

namespace {

constexpr unsigned long neededActions = SMFIF_ADDHDRS | SMFIF_CHGHDRS | SMFIF_CHGBODY;
/// What is not asked about, and what makes the rest cheaper or more exact.
constexpr unsigned long wantedSteps =
    SMFIP_NOHELO | SMFIP_NOEOH | SMFIP_NODATA | SMFIP_NOUNKNOWN | SMFIP_SKIP | SMFIP_NR_HDR | SMFIP_HDR_LEADSPC;

/// No command can hold longer ones when a message is handed over (`submit`), and SMTP has 256 (RFC 5321, 4.5.3.1.3).
constexpr std::size_t longestAddress = 1000;

bool isTooLong(const char* path) {
    constexpr std::size_t brackets = 2;
    return path != nullptr && std::strlen(path) > longestAddress + brackets;
}

std::string macro(SMFICTX* context, const char* name) {
    const char* value = smfi_getsymval(context, const_cast<char*>(name));
    return value == nullptr ? std::string() : std::string(value);
}

void wantMacros(SMFICTX* context, int step, const char* names) {
    // Where it cannot be wished for, the MTA's own list holds.
    static_cast<void>(smfi_setsymlist(context, step, const_cast<char*>(names)));
}

std::string addressOf(const sockaddr* client) {
    std::array<char, INET6_ADDRSTRLEN> text{};
    if (client == nullptr)
        return {};
    if (client->sa_family == AF_INET) {
        sockaddr_in address{};
        std::memcpy(&address, client, sizeof address);
        return ::inet_ntop(AF_INET, &address.sin_addr, text.data(), text.size()) == nullptr ? "" : text.data();
    }
    if (client->sa_family != AF_INET6)
        return {};
    sockaddr_in6 address{};
    std::memcpy(&address, client, sizeof address);
    // An IPv4 address that came over an IPv6 socket.
    constexpr std::size_t mapped = 12;
    const bool isMapped = IN6_IS_ADDR_V4MAPPED(&address.sin6_addr);
    const char* shown = isMapped ? ::inet_ntop(AF_INET, address.sin6_addr.s6_addr + mapped, text.data(), text.size())
                                 : ::inet_ntop(AF_INET6, &address.sin6_addr, text.data(), text.size());
    return shown == nullptr ? "" : shown;
}

/// "<anna@a.example>" as anna@a.example.
std::string mailbox(const char* path) {
    std::string address = path == nullptr ? "" : path;
    if (address.size() >= 2 && address.front() == '<' && address.back() == '>')
        address = address.substr(1, address.size() - 2);
    return address;
}

const char* pathIn(const char* const* arguments) {
    return arguments == nullptr ? nullptr : arguments[0];
}

/// Those of the parameters behind the path that have one of these keywords, the first of each.
std::vector<std::string> parametersIn(const char* const* arguments, std::vector<std::string_view> keywords) {
    std::vector<std::string> found;
    if (pathIn(arguments) == nullptr)
        return found;
    for (const char* const* next = arguments + 1; *next != nullptr && !keywords.empty(); ++next) {
        const std::string_view parameter = *next;
        const auto keyword =
            std::ranges::find_if(keywords, [&](std::string_view known) { return hasKeyword(parameter, known); });
        const bool isPlain = parameter.size() <= longestAddress && std::ranges::all_of(parameter, [](char one) {
                                 const auto octet = static_cast<unsigned char>(one);
                                 return octet > ' ' && octet != 0x7F;
                             });
        if (keyword == keywords.end() || !isPlain)
            continue;
        found.emplace_back(parameter);
        keywords.erase(keyword);
    }
    return found;
}

Outcome withReply(Outcome::Action action, int code, const char* enhanced, const std::string& text) {
    Outcome outcome;
    outcome.action = action;
    outcome.reply = replyOf(code, enhanced, text);
    outcome.tell("reason", text);
    return outcome;
}

/// What the client is told of trouble on this side says nothing about this side.
Outcome troubled(const std::string& why) {
    Outcome outcome;
    outcome.action = Outcome::Action::tempfail;
    outcome.reply = replyOf(451, "4.3.0", "mail cannot be judged now, please try again later");
    outcome.tell("reason", why);
    return outcome;
}

const char* nameOf(Outcome::Action action) {
    switch (action) {
    case Outcome::Action::pass:
        return "pass";
    case Outcome::Action::change:
        return "change";
    case Outcome::Action::reject:
        return "reject";
    case Outcome::Action::tempfail:
        return "tempfail";
    }
    return "tempfail";
}

/// What failed, with what was found before.
Outcome instead(const Outcome& outcome, Outcome failed) {
    for (const Fact& fact : outcome.facts) {
        if (fact.name != "reason")
            failed.facts.push_back(fact);
    }
    return failed;
}

bool goesOn(const Outcome& outcome) {
    return outcome.action == Outcome::Action::pass || outcome.action == Outcome::Action::change;
}

} // namespace

Session::Mail::Mail(Front& front, std::shared_ptr<const Generation> by)
    : inHand(front),
      generation(std::move(by)),
      message(generation->limits.spool) {}

void Session::Mail::grow(std::size_t length) noexcept {
    octets += length;
    const std::uint64_t most = generation->limits.messageBytes;
    if (most != 0 && octets > most)
        message.tooLarge = true;
}

bool Session::negotiate(SMFICTX* context, unsigned long offeredActions, unsigned long offeredSteps,
                        unsigned long& actions, unsigned long& steps) {
    if ((offeredActions & neededActions) != neededActions)
        return false;
    actions = offeredActions & (neededActions | SMFIF_DELRCPT | SMFIF_SETSYMLIST);
    steps = offeredSteps & wantedSteps;
    m_agreed.leadingBlank = (steps & SMFIP_HDR_LEADSPC) != 0;
    m_agreed.noReplyToHeader = (steps & SMFIP_NR_HDR) != 0;
    m_agreed.skip = (steps & SMFIP_SKIP) != 0;
    m_agreed.removesRecipients = (actions & SMFIF_DELRCPT) != 0;
    if ((actions & SMFIF_SETSYMLIST) != 0) {
        wantMacros(context, SMFIM_CONNECT, "{daemon_name}");
        wantMacros(context, SMFIM_ENVFROM, "i {auth_authen}");
        wantMacros(context, SMFIM_ENVRCPT, "i {rcpt_addr}");
        wantMacros(context, SMFIM_EOM, "i");
    }
    return true;
}

sfsistat Session::connect(SMFICTX* context, const sockaddr* client) {
    m_mail.reset();
    m_client = addressOf(client);
    m_listener = macro(context, "{daemon_name}");
    m_connected.reset();
    m_connected.emplace(m_front);
    if (m_front.isDraining() || !m_connected->isWithinLimit()) {
        // It does not count for the limit while the MTA thinks about the answer.
        m_connected.reset();
        m_front.metrics().refused();
        m_front.log().event(
            LogLevel::warning, "connection-refused",
            {{"client", m_client}, {"reason", m_front.isDraining() ? "stopping" : "too many connections"}});
        return answerWith(context, {421, "4.3.2", "mail filter: no more connections now"});
    }
    m_front.log().event(LogLevel::debug, "connection", {{"client", m_client}, {"listener", m_listener}});
    return SMFIS_CONTINUE;
}

sfsistat Session::sender(SMFICTX* context, const char* const* arguments) {
    m_mail.reset();
    const char* const path = pathIn(arguments);
    if (m_front.isDraining())
        return answerWith(context, {451, "4.3.2", "mail filter: stopping"});
    if (isTooLong(path))
        return answerWith(context, {553, "5.1.7", "the address is too long"});
    m_mail = std::make_unique<Mail>(m_front, m_front.generation());
    Envelope& envelope = m_mail->message.envelope;
    envelope.clientAddress = m_client;
    envelope.sender = mailbox(path);
    envelope.senderParameters = parametersIn(arguments, {"RET", "ENVID", "SMTPUTF8", "REQUIRETLS"});
    envelope.authenticated = macro(context, "{auth_authen}");
    readMacros(context);
    return SMFIS_CONTINUE;
}

void Session::readMacros(SMFICTX* context) {
    Envelope& envelope = m_mail->message.envelope;
    if (envelope.queueId.empty())
        envelope.queueId = macro(context, "i");
    const std::string listener = macro(context, "{daemon_name}");
    envelope.listener = listener.empty() ? m_listener : listener;
}

sfsistat Session::recipient(SMFICTX* context, const char* const* arguments) {
    if (!m_mail)
        return answerWith(context, {451, "4.3.0", "mail filter: no message has begun"});
    const char* const path = pathIn(arguments);
    const std::string resolved = macro(context, "{rcpt_addr}");
    if (isTooLong(path) || resolved.size() > longestAddress)
        return answerWith(context, {553, "5.1.3", "the address is too long"});
    Envelope& envelope = m_mail->message.envelope;
    if (envelope.recipients.size() >= m_mail->generation->limits.recipients)
        return answerWith(context, {452, "4.5.3", "too many recipients"});
    envelope.recipients.push_back(mailbox(path));
    m_mail->written.try_emplace(envelope.recipients.back(), path == nullptr ? "" : path);
    std::vector<std::string> parameters = parametersIn(arguments, {"NOTIFY", "ORCPT"});
    if (!parameters.empty())
        envelope.recipientParameters.try_emplace(envelope.recipients.back(), std::move(parameters));
    if (!resolved.empty())
        envelope.resolved.try_emplace(envelope.recipients.back(), resolved);
    readMacros(context);
    return SMFIS_CONTINUE;
}

void Session::header(const char* name, const char* value) {
    if (!m_mail || m_mail->isSpoilt || m_mail->failed)
        return;
    const FrontLimits& limits = m_mail->generation->limits;
    HeaderField field{name == nullptr ? "" : name, value == nullptr ? "" : value};
    if (!m_agreed.leadingBlank)
        field.value.insert(0, 1, ' ');
    const std::size_t length = field.name.size() + field.value.size() + 3;
    m_mail->headerOctets += length;
    m_mail->grow(length);
    if (m_mail->headerOctets > limits.headerBytes || m_mail->message.header.size() >= limits.headerFields) {
        // Fields that nobody looked at could say anything in our name: such a message cannot pass.
        m_mail->failed = withReply(Outcome::Action::reject, 552, "5.3.4", "the header of the message is too large");
        return;
    }
    m_mail->message.header.push_back(std::move(field));
}

sfsistat Session::body(const unsigned char* octets, std::size_t length) {
    if (!m_mail)
        return SMFIS_CONTINUE;
    m_mail->grow(length);
    if (m_mail->message.tooLarge || m_mail->isSpoilt || m_mail->failed)
        return m_agreed.skip ? SMFIS_SKIP : SMFIS_CONTINUE;
    m_mail->message.addBody(octets, length);
    return SMFIS_CONTINUE;
}

void Session::spoil() noexcept {
    if (m_mail)
        m_mail->isSpoilt = true;
}

void Session::fail(const std::string& why) {
    if (m_mail && !m_mail->failed)
        m_mail->failed = troubled(why);
    else
        m_front.log().event(LogLevel::error, "callback-failed", {{"client", m_client}, {"reason", why}});
}

void Session::abort() {
    if (m_mail)
        m_front.metrics().aborted();
    m_mail.reset();
}

Outcome Session::judge(SMFICTX* context, const Mail& mail) const {
    if (mail.failed)
        return *mail.failed;
    if (mail.isSpoilt)
        return troubled("out of memory");
    try {
        const Progress::Task progress(m_front.progress(), [context] { static_cast<void>(smfi_progress(context)); });
        return mail.generation->judge(mail.message, Deadline::in(mail.generation->limits.perMessage));
    } catch (const std::exception&) {
        return troubled(currentFailure());
    }
}

std::optional<Outcome> Session::change(SMFICTX* context, const Mail& mail, const Outcome& outcome) const {
    try {
        if (applyChanges(context, m_agreed, mail.written, outcome))
            return std::nullopt;
        return troubled("the MTA does not take a change");
    } catch (const std::exception&) {
        return troubled("a change: " + currentFailure());
    }
}

std::optional<Outcome> Session::submit(SMFICTX* context, const Mail& mail, const Outcome& outcome) const {
    if (outcome.submissions.empty())
        return std::nullopt;
    try {
        // It has a limit of its own, whatever there is for judging. Who is ended in the middle hands all over once more.
        const Progress::Task progress(
            m_front.progress(), [context] { static_cast<void>(smfi_progress(context)); }, SubmitTo().total);
        mail.generation->submit(outcome.submissions);
        return std::nullopt;
    } catch (const SubmissionFailure& failure) {
        m_front.metrics().submissionFailed();
        return failure.isPermanent() ? withReply(Outcome::Action::reject, 550, "5.7.1",
                                                 std::string("a part was refused: ") + failure.what())
                                     : troubled(std::string("submission: ") + failure.what());
    } catch (const std::exception&) {
        m_front.metrics().submissionFailed();
        return troubled("submission: " + currentFailure());
    }
}

sfsistat Session::endOfMessage(SMFICTX* context) {
    // Whatever happens now, the message is not in hand afterwards.
    const std::unique_ptr<Mail> mail = std::move(m_mail);
    if (!mail)
        return answerWith(context, {451, "4.3.0", "mail filter: no message has begun"});
    const Front::Clock::time_point begun = Front::Clock::now();
    if (mail->message.envelope.queueId.empty())
        mail->message.envelope.queueId = macro(context, "i");

    Outcome outcome = judge(context, *mail);
    const bool isWhollySubmitted = outcome.action == Outcome::Action::change && !outcome.submissions.empty() &&
                                   outcome.removeRecipients.size() == mail->message.envelope.recipients.size();
    // A message that is refused in the end is not changed at all, whereas what was submitted is gone: that comes last.
    std::optional<Outcome> failed;
    if (outcome.action == Outcome::Action::change && !isWhollySubmitted)
        failed = change(context, *mail, outcome);
    if (!failed && goesOn(outcome))
        failed = submit(context, *mail, outcome);
    if (failed)
        outcome = instead(outcome, std::move(*failed));

    const bool isDiscarded = isWhollySubmitted && goesOn(outcome);
    tell(*mail, outcome, isDiscarded ? "discard" : nameOf(outcome.action), begun);
    if (isDiscarded)
        return SMFIS_DISCARD;
    return goesOn(outcome) ? SMFIS_CONTINUE : answerWith(context, outcome.reply);
}

void Session::tell(const Mail& mail, const Outcome& outcome, const char* action,
                   Front::Clock::time_point begun) const noexcept {
    try {
        report(mail, outcome, action, begun);
    } catch (const std::exception&) {
        // A line that there is no memory for is lost. The answer is not: what was submitted must not come again for that.
        return;
    }
}

void Session::report(const Mail& mail, const Outcome& outcome, const char* action,
                     Front::Clock::time_point begun) const {
    const std::chrono::duration<double> took = Front::Clock::now() - begun;
    const Envelope& envelope = mail.message.envelope;
    LogFields fields{{"queue", envelope.queueId},
                     {"action", action},
                     {"client", envelope.clientAddress},
                     {"listener", envelope.listener},
                     {"authenticated", envelope.authenticated},
                     {"sender", envelope.sender},
                     {"recipients", std::to_string(envelope.recipients.size())},
                     {"bytes", std::to_string(mail.octets)},
                     {"ms", std::to_string(std::chrono::duration_cast<std::chrono::milliseconds>(took).count())}};
    if (!goesOn(outcome))
        fields.emplace_back("reply", std::to_string(outcome.reply.code) + ' ' + outcome.reply.enhanced);
    if (!outcome.submissions.empty())
        fields.emplace_back("submitted", std::to_string(outcome.submissions.size()));
    for (const Fact& fact : outcome.facts) {
        // One that says "action" says what a rule wants; the line has what became of it.
        fields.emplace_back(fact.name == "action" ? "wanted" : fact.name, fact.value);
    }
    const bool isTrouble = outcome.action == Outcome::Action::tempfail;
    m_front.log().event(isTrouble ? LogLevel::warning : LogLevel::info, "message", fields);
    m_front.metrics().message({.direction = outcome.told("direction"),
                               .outcome = action,
                               .verdict = outcome.told("smime"),
                               .seconds = took.count(),
                               .octets = mail.octets,
                               .spilled = mail.message.isSpilled(),
                               .submitted = outcome.submissions.size()});
}

} // namespace norvmilter
