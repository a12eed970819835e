#pragma once

/// \file
/// One connection of the MTA: what it says of one message after the other.
///
/// The MTA is trusted to speak the protocol, and not to: callbacks may come in any order, any number of times. Whatever
/// fails on the way is answered at the end of the message, so that each message has one answer and one line in the log.

#include "front/Answer.h"
#include "front/Front.h"

#include <libmilter/mfapi.h>

#include <cstddef>
#include <map>
#include <memory>
#include <optional>
#include <string>

namespace norvmilter {

/// Used by one thread at a time, as libmilter sees to.
class Session {
public:
    /// \param agreed what the MTA and this filter agreed on before, if they did
    explicit Session(Front& front, const Agreed& agreed = {}) : m_front(front), m_agreed(agreed) {}

    [[nodiscard]] const Agreed& agreed() const noexcept { return m_agreed; }

    /// What is offered and wanted. False: the MTA can do too little.
    [[nodiscard]] bool negotiate(SMFICTX* context, unsigned long offeredActions, unsigned long offeredSteps,
                                 unsigned long& actions, unsigned long& steps);
    [[nodiscard]] sfsistat connect(SMFICTX* context, const sockaddr* client);
    /// \param arguments the path and the parameters of the command, a null pointer at their end; may be none at all
    [[nodiscard]] sfsistat sender(SMFICTX* context, const char* const* arguments);
    [[nodiscard]] sfsistat recipient(SMFICTX* context, const char* const* arguments);
    void header(const char* name, const char* value);
    [[nodiscard]] sfsistat body(const unsigned char* octets, std::size_t length);
    [[nodiscard]] sfsistat endOfMessage(SMFICTX* context);
    void abort();

    /// What is answered to each field of the header.
    [[nodiscard]] sfsistat afterHeader() const noexcept {
        return m_agreed.noReplyToHeader ? SMFIS_NOREPLY : SMFIS_CONTINUE;
    }
    /// A part of the message was lost: it is not to be judged.
    void spoil() noexcept;
    /// Something is wrong on this side: the message is to be answered with 4xx.
    void fail(const std::string& why);

private:
    /// A message that has begun.
    struct Mail {
        Mail(Front& front, std::shared_ptr<const Generation> by);
        /// By octets that came.
        void grow(std::size_t length) noexcept;

        Front::InHand inHand;
        std::shared_ptr<const Generation> generation;
        Message message;
        std::map<std::string, std::string> written; // recipients as the MTA wrote them, by the address
        std::uint64_t octets = 2;                   // those that came; there is an empty line between header and body
        std::size_t headerOctets = 0;
        bool isSpoilt = false;         // it is not here as it came
        std::optional<Outcome> failed; // what it is answered with whatever it holds
    };

    [[nodiscard]] Outcome judge(SMFICTX* context, const Mail& mail) const;
    /// What failed, if something did.
    [[nodiscard]] std::optional<Outcome> change(SMFICTX* context, const Mail& mail, const Outcome& outcome) const;
    [[nodiscard]] std::optional<Outcome> submit(SMFICTX* context, const Mail& mail, const Outcome& outcome) const;
    void tell(const Mail& mail, const Outcome& outcome, const char* action,
              Front::Clock::time_point begun) const noexcept;
    void report(const Mail& mail, const Outcome& outcome, const char* action, Front::Clock::time_point begun) const;
    void readMacros(SMFICTX* context);

    Front& m_front;
    Agreed m_agreed;
    std::optional<Front::Connected> m_connected;
    std::string m_client;
    std::string m_listener;
    std::unique_ptr<Mail> m_mail;
};

} // namespace norvmilter
