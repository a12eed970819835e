#pragma once

/// \file
/// Incoming messages: decrypts them, verifies them, and writes down what came of it.

#include "config/Config.h"
#include "engine/AuthenticationResults.h"
#include "message/Message.h"
#include "message/Outcome.h"
#include "message/Temporary.h"
#include "stores/Stores.h"

#include <norvcrypto-smime/SMimeAnswer.h>

namespace norvmilter {

/// \throws Temporary; Norvane::MediaException when the disk is full
[[nodiscard]] Outcome handleIncoming(const Config& config, const LoadedStores& stores, LearntFolder* learnt,
                                     const Message& message, const Deadline& deadline);

/// Whether a field claims to be this filter's own, which only this filter writes: whoever hands a message over, a user who
/// authenticated included, did not get it from here (RFC 8601, 5).
[[nodiscard]] bool isForged(const Config& config, const HeaderField& field);

/// What the reader's answer is in the words of RFC 7281.
[[nodiscard]] SMimeResult resultOf(const Norvane::Crypto::SMime::Answer& answer);

} // namespace norvmilter
