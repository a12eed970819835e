#pragma once

#include <openssl/x509.h>

#include <functional>
#include <string>

namespace norvcrypt {

/// One entry of a revocation list.
struct RevokedEntry {
    int number = 0; ///< the first one is 1
    std::string serial;
    std::string
        issuer; ///< of an indirect list: whose certificate it is, as far as it was said; empty: the list's issuer's
    std::string time;   ///< empty when it is no proper one
    std::string reason; ///< "keyCompromise"; empty without one
};
/// Tells of the entries from `first` to `last` of a list that was read just now, whose entries are still in their order: who
/// issued the certificate of an indirect list's entry may stand in an earlier one (RFC 5280, 5.3.3).
void eachRevoked(const STACK_OF(X509_REVOKED) * entries, int first, int last,
                 const std::function<void(const RevokedEntry&)>& tell);

} // namespace norvcrypt
