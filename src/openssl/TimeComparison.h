#pragma once

/// \file
/// Comparing the times of certificates with a moment.

#include <openssl/asn1.h>

#include <ctime>

namespace Norvane::Crypto::openssl {

/// -1 when `time` is before `moment` or the same, 1 when it is after it, 0 when it is not a time. The error queue stays
/// as it was.
int compareTime(const ASN1_TIME* time, std::time_t moment);

} // namespace Norvane::Crypto::openssl
