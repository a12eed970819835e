#pragma once

/// \file
/// Which [[outgoing.rule]] holds for a recipient.

#include "config/Config.h"
#include "message/Message.h"
#include "policy/People.h"

#include <set>
#include <string>
#include <vector>

namespace norvmilter {

/// Whether the sender of the envelope may use these addresses as From.
[[nodiscard]] bool mayUse(const Config& config, const Envelope& envelope, const std::vector<std::string>& from);

/// The rules for the senders of one message.
///
/// The first rule that fits decides. What a sender may write as he likes gets nobody out of a rule that says "must", though: it
/// holds as well when it is the rule of another address of the message's senders (those of From and that of the envelope, where
/// the latter may not use the former), or of an address that is packed into the local part of the recipient ("x%b.example@a.example",
/// "b.example!x"), to which an MTA may send it on, or of the one that the MTA says it makes of the recipient. An address that is
/// not written as RFC 5321 has it ("x@b.example (y)"), or that has more addresses packed into it than are unpacked, may be sent on
/// to anybody, and so may one without a domain where the MTA does not say with which one it completes it: the first rule that
/// says "must" holds.
class Rules {
public:
    /// \param config and what is in it are borrowed
    Rules(const Config& config, const Envelope& envelope, const People& people);

    /// The address whose rules hold: that of From, or the envelope's where From has not exactly one.
    [[nodiscard]] const std::string& sender() const noexcept { return m_sender; }
    /// One that fits nobody and says no more than the defaults, where none fits.
    /// \param resolved what the MTA makes of the recipient; without a domain: it did not say with which one
    [[nodiscard]] const OutgoingRule& ruleFor(const std::string& recipient, const std::string& resolved) const;
    [[nodiscard]] static const OutgoingRule& none();

private:
    /// For each rule whether it is for a sender. Many senders have the same.
    using Fits = std::vector<bool>;

    [[nodiscard]] Fits fitsOf(const std::string& sender) const;
    [[nodiscard]] const OutgoingRule& first(const Fits& fits, const AddressForms& recipient) const;

    const Config& m_config;
    std::string m_sender;
    Fits m_fits;
    std::set<Fits> m_others;
    bool m_isAnybodys = false; ///< the sender of the envelope counts, and could be anybody
};

} // namespace norvmilter
