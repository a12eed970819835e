#pragma once

#include <norvcrypto/Hasher.h>

#include <string>

namespace norvcrypt {

/// The digest of that name, as OpenSSL knows it ("sha256", "SHA2-256"). \throws Failure: there is none
Norvane::Crypto::Hasher::Type digestType(const std::string& name);

} // namespace norvcrypt
