#pragma once

/// \file
/// Keeps the certificates of signers, to encrypt to them later.

#include "message/Message.h"
#include "message/Outcome.h"
#include "message/Temporary.h"
#include "stores/Stores.h"

#include <norvcrypto-smime/SMimeAnswer.h>

namespace norvmilter {

/// Keeps those of an accepted message that are the sender's own, and that the verdict accepts for encryption. Trouble with the
/// folder is told among the facts: the message is none the worse for it.
void learnFrom(const Norvane::Crypto::SMime::Answer& answer, const LoadedStores& stores, LearntFolder& learnt,
               const Message& message, const Deadline& deadline, Outcome& outcome);

} // namespace norvmilter
