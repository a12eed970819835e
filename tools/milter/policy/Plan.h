#pragma once

/// \file
/// What is to be done with an outgoing message, for each of its recipients, and which rule says so. Nothing is signed or
/// encrypted here.

#include "message/Message.h"
#include "message/Outcome.h"
#include "message/Temporary.h"
#include "policy/Certificates.h"
#include "policy/People.h"

#include <norvcrypto/KeyStore.h>

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace norvmilter {

/// What the message is already.
enum class Protection { none, isSigned, isEncrypted };

struct RecipientPlan {
    std::string address;
    const OutgoingRule* rule = nullptr;
    bool hidden = false; ///< in neither To nor Cc
    bool encrypt = false;
    FoundCertificate certificate; ///< looked for unless the rule says never
};

/// Recipients that get the same message.
struct Group {
    const OutgoingRule* rule = nullptr; ///< how it is signed and encrypted
    bool sign = false;
    bool mustSign = false;
    bool encrypt = false;
    std::vector<std::size_t> recipients; ///< indices into `Plan::recipients`
};

struct Plan {
    std::string
        sender; ///< the address whose rules hold: that of From, or the envelope's where From has not exactly one
    std::vector<RecipientPlan> recipients;
    std::vector<Group> groups; ///< the first one keeps this message
    /// Who signs; a null pair when nobody does.
    Norvane::Crypto::NVX509::KeyCertificatePair signer{false};
    std::string whyUnsigned;        ///< why not, escaped
    std::optional<Outcome> refusal; ///< the whole message is refused
    bool isRefusedForSplit = false; ///< for nothing else than that it cannot be split
};

/// \throws Temporary there is nobody to judge certificates, or the time is over
[[nodiscard]] Plan planFor(const Config& config, const LoadedStores& stores, const LearntFolder* learnt,
                           const Envelope& envelope, const People& people, Protection protection,
                           const Deadline& deadline);

} // namespace norvmilter
