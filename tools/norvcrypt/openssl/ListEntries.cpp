#include "openssl/ListEntries.h"
#include "openssl/CertificateDetails.h"
#include "openssl/OpenSsl.h"

#include <array>

namespace norvcrypt {

namespace {

using EnumeratedPtr = Owned<ASN1_ENUMERATED, ASN1_ENUMERATED_free>;

/// CRLReason (RFC 5280, 5.3.1).
std::string reasonOf(const X509_REVOKED* entry) {
    static constexpr std::array names{"unspecified",   "keyCompromise",        "cACompromise",    "affiliationChanged",
                                      "superseded",    "cessationOfOperation", "certificateHold", "",
                                      "removeFromCRL", "privilegeWithdrawn",   "aACompromise"};
    const QuietQuestion quiet;
    int count = 0;
    const EnumeratedPtr reason(
        static_cast<ASN1_ENUMERATED*>(X509_REVOKED_get_ext_d2i(entry, NID_crl_reason, &count, nullptr)));
    if (!reason)
        return count == -1 ? "" : "unreadable";
    const long number = ASN1_ENUMERATED_get(reason.get());
    const bool known = number >= 0 && number < static_cast<long>(names.size()) && number != 7;
    return known ? names[static_cast<std::size_t>(number)] : std::to_string(number);
}

} // namespace

RevokedEntry revokedEntry(const X509_REVOKED* entry) {
    return {hexNumber(X509_REVOKED_get0_serialNumber(entry)),
            isoTime(X509_REVOKED_get0_revocationDate(entry)).value_or(""), reasonOf(entry)};
}

} // namespace norvcrypt
