#pragma once

#include "files/Output.h"

#include <norvcrypto/Key.h>

#include <optional>
#include <string_view>

namespace norvcrypt {

/// Writes PKCS#8 in PEM: encrypted with AES under the passphrase, or in clear without one. \throws Failure
void writePrivateKey(const Norvane::Crypto::RefKey& key, const std::optional<std::string_view>& passphrase,
                     OutputFile& out);

} // namespace norvcrypt
