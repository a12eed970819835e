#pragma once

/// \file
/// What OpenSSL's algorithms come from.

#include <openssl/err.h>
#include <openssl/provider.h>

namespace Norvane::Crypto::platform {

/// Loads the default provider into OpenSSL's default library context, for the life of the process, once however often this is
/// called. False when it could not be loaded.
inline bool loadDefaultProvider() {
    static const OSSL_PROVIDER* const standard = OSSL_PROVIDER_try_load(nullptr, "default", 0);
    return standard != nullptr;
}

/// Loads the default and the legacy provider into OpenSSL's default library context, for the life of the process, once however
/// often this is called. False when one could not be loaded.
inline bool loadProviders() {
    // The default provider goes first: with the legacy one alone, later calls cannot fetch a random generator. It takes the place
    // of the one that OpenSSL falls back on, which would be a second default provider: every look-up of an algorithm would go
    // through both.
    const bool standard = loadDefaultProvider();
    static const OSSL_PROVIDER* const legacy = [] {
        // It is a file, which not every host has: a reason that stays in the queue would be told for the next failure.
        ERR_set_mark();
        const OSSL_PROVIDER* const loaded = OSSL_PROVIDER_try_load(nullptr, "legacy", 1);
        ERR_pop_to_mark();
        return loaded;
    }();
    return standard && legacy != nullptr;
}

} // namespace Norvane::Crypto::platform
