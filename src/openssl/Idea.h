#pragma once

/// \file
/// IDEA, which OpenSSL is often built without, from libgcrypt.

#include <openssl/types.h>

namespace Norvane::Crypto::openssl {

/// IDEA in CBC mode as an OpenSSL cipher like any other; never null. The first call adds the cipher to OpenSSL's table: from
/// then on OpenSSL finds it by name, as it does to decrypt a structure. The first key that it gets loads libgcrypt and starts
/// it, where the process has not yet; without libgcrypt it takes no key. \throws std::bad_alloc
const EVP_CIPHER* ideaCbc();

/// Whether it takes keys, for which libgcrypt is loaded. False without libgcrypt, or where that refuses IDEA. The error queue
/// stays as it is. Threads: from any.
bool isIdeaUsable() noexcept;

/// That first call for the start of the library, which does not fail: without memory a later use adds the cipher.
void addIdea() noexcept;

} // namespace Norvane::Crypto::openssl
