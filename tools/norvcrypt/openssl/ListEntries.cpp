#include "openssl/ListEntries.h"
#include "openssl/CertificateDetails.h"
#include "openssl/OpenSsl.h"

#include <norvcrypto/DistinguishedName.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <optional>

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
    std::int64_t number = 0;
    if (ASN1_ENUMERATED_get_int64(&number, reason.get()) != 1)
        return "unreadable";
    const bool known = number >= 0 && number < static_cast<std::int64_t>(names.size()) && number != 7;
    return known ? names[static_cast<std::size_t>(number)] : std::to_string(number);
}

/// Whose certificates are meant from this entry of an indirect list on; nothing when it does not say.
std::optional<std::string> issuerFrom(const X509_REVOKED* entry) {
    const QuietQuestion quiet;
    int count = 0;
    const NamesPtr names(
        static_cast<GENERAL_NAMES*>(X509_REVOKED_get_ext_d2i(entry, NID_certificate_issuer, &count, nullptr)));
    if (!names && count == -1)
        return std::nullopt;
    for (int at = 0; at < sk_GENERAL_NAME_num(names.get()); ++at)
        if (const GENERAL_NAME* name = sk_GENERAL_NAME_value(names.get(), at); name->type == GEN_DIRNAME)
            if (auto text = displayName(Norvane::Crypto::NVX509::DistinguishedName(name->d.directoryName));
                !text.empty())
                return text;
    return "unreadable";
}

} // namespace

void eachRevoked(const STACK_OF(X509_REVOKED) * entries, int first, int last,
                 const std::function<void(const RevokedEntry&)>& tell) {
    std::string issuer;
    for (int before = first - 1; before >= 1; --before)
        if (const auto said = issuerFrom(sk_X509_REVOKED_value(entries, before - 1))) {
            issuer = *said;
            break;
        }
    for (int number = first; number <= std::min(last, sk_X509_REVOKED_num(entries)); ++number) {
        const X509_REVOKED* const entry = sk_X509_REVOKED_value(entries, number - 1);
        issuer = issuerFrom(entry).value_or(issuer);
        tell({number, hexNumber(X509_REVOKED_get0_serialNumber(entry)), issuer,
              isoTime(X509_REVOKED_get0_revocationDate(entry)).value_or(""), reasonOf(entry)});
    }
}

} // namespace norvcrypt
