#pragma once

#include <openssl/x509.h>

#include <string>

namespace norvcrypt {

/// One entry of a revocation list.
struct RevokedEntry {
    std::string serial;
    std::string time;   ///< empty when it is no proper one
    std::string reason; ///< "keyCompromise"; empty without one
};
RevokedEntry revokedEntry(const X509_REVOKED* entry);

} // namespace norvcrypt
