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

/// As `EVP_DigestInit_ex` in a new context, of which OpenSSL's first half, looking up the implementation, takes as long as a
/// quarter of digesting a short text: where `mayKeepImplementations`, a context that was begun once is copied. False with the
/// reasons in the error queue.
bool beginDigest(EVP_MD_CTX* context, const EVP_MD* digest) noexcept;

} // namespace Norvane::Crypto::openssl
