#pragma once

/// \file
/// Digests by number.

#include "openssl/Pointers.h"

#include <string>

namespace Norvane::Crypto::openssl {

/// OpenSSL's short name of a number; empty when it has none.
std::string shortName(int nid);

/// The digest of a number; null when its short name is no digest's. Looked up by name, since the digests that OpenSSL
/// fetches from providers carry no key type, which signing needs. Leaves nothing in the error queue.
const EVP_MD* digestByNid(int nid);

} // namespace Norvane::Crypto::openssl
