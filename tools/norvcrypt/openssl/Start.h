#pragma once

/// \file
/// What OpenSSL is started with. Starting all of it takes a tenth of a short run.

#include <norvcrypto/Crypto.h>

#include <string_view>

namespace norvcrypt {

/// In the place of the library's `initialize`: signing with a key in clear and verifying need neither TLS nor the texts of
/// errors, until there is one, and signing nothing of the legacy provider.
void startFor(std::string_view command);

/// Makes all algorithms known that there are. To be called before anything that may need one of them: what was encrypted
/// elsewhere, or an algorithm that is named.
inline void needAllAlgorithms() {
    Norvane::Crypto::initialize();
}

} // namespace norvcrypt
