#pragma once

/// \file
/// What OpenSSL is started with. Starting all of it takes a tenth of a short run.

#include <norvcmsg/Buffer.h>
#include <norvcrypto/Crypto.h>

#include <string_view>

namespace norvcrypt {

/// In the place of the library's `initialize`: signing with a key in clear and verifying need neither TLS nor the texts of
/// errors, until there is one, nor the legacy provider, until a signature names a digest that is there alone.
void startFor(std::string_view command);

/// Makes all algorithms known that there are. To be called before anything that may need one of them: what was encrypted
/// elsewhere, or an algorithm that is named.
inline void needAllAlgorithms() {
    Norvane::Crypto::initialize();
}

/// Makes the algorithms of the legacy provider known to a command that was started without.
void needOlderAlgorithms();

/// Whether a structure may name a digest that is in the legacy provider alone.
/// \param structure all of it, in BER or DER
bool mayNameLegacyDigest(const Norvane::Buffer& structure);

} // namespace norvcrypt
