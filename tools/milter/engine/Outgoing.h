#pragma once

/// \file
/// Outgoing messages: signs and encrypts as the plan says.

#include "config/Config.h"
#include "message/Message.h"
#include "message/Outcome.h"
#include "message/Temporary.h"
#include "policy/Plan.h"
#include "stores/Stores.h"

namespace norvmilter {

/// \throws Temporary; Norvane::MediaException when the disk is full
[[nodiscard]] Outcome handleOutgoing(const Config& config, const LoadedStores& stores, const LearntFolder* learnt,
                                     const Message& message, const Deadline& deadline);

/// What a message is already, by what is in it: a Content-Type that only says so counts for nothing.
[[nodiscard]] Protection protectionOf(const Config& config, const Message& message, const Deadline& deadline);

} // namespace norvmilter
