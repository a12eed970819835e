#pragma once

/// \file
/// Signed messages: what the reader and OpenSSL say, and why the one says something else than the other.

#include "Compared.h"

#include <optional>
#include <string>
#include <vector>

namespace fuzz {

/// What the reader found out beside its answer.
struct Judged {
    std::vector<Bytes> certificates; ///< of the signers
};

/// \param finding what the reader said in two ways, if it did
Answer readerSays(const Bytes& octets, Judged& judged, std::string& finding);
Answer opensslSays(const Bytes& octets);
/// Whether each signature is right by OpenSSL's calls with the certificate that the reader found for it, whatever the
/// certificate's extensions are.
bool isRightWith(const Bytes& octets, const std::vector<Bytes>& certificates);

/// Why the reader accepts what OpenSSL refuses.
std::optional<Outcome> whyWider(const Bytes& octets, const Answer& reader, const Judged& judged);
/// Why it refuses what OpenSSL accepts.
std::optional<Outcome> whyStricter(const Bytes& octets, const Answer& reader, const Answer& openssl,
                                   std::string& finding);

} // namespace fuzz
