#pragma once

/// \file
/// Enveloped messages: what the reader says, and why it says something else than OpenSSL.

#include "EnvelopeOpenssl.h"

#include <optional>
#include <string>

namespace fuzz {

/// \param finding what the reader said in two ways, if it did
Answer readerSays(const Bytes& octets, Opener opener, std::string& finding);

/// Why the reader accepts what OpenSSL refuses.
std::optional<Outcome> whyWider(const Bytes& octets, Opener opener, const Answer& reader);
/// Why it refuses what OpenSSL accepts.
std::optional<Outcome> whyStricter(const Bytes& octets, Opener opener, const Answer& reader, const Answer& openssl,
                                   std::string& finding);

} // namespace fuzz
