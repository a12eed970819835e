// What OpenSSL's errors mean, and what it does not look at itself.

#include "Checks.h"
#include "Judgement.h"

#include <norvcrypto-trust/Trust.h>

#include <algorithm>
#include <array>
#include <iterator>
#include <utility>

namespace Norvane::Crypto::Trust::detail {

namespace {

using Code = ReasonCode;

struct Meaning {
    int error;
    Code code;
};

constexpr Meaning chainErrors[] = {
    {X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT, Code::issuerMissing},
    {X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY, Code::issuerMissing},
    {X509_V_ERR_UNABLE_TO_VERIFY_LEAF_SIGNATURE, Code::issuerMissing},
    {X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT, Code::selfSigned},
    {X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN, Code::rootNotTrusted},
    {X509_V_ERR_CERT_CHAIN_TOO_LONG, Code::chainTooLong},
};
/// While the chain is built these tell why the best candidate is not the issuer.
constexpr Meaning buildingErrors[] = {
    {X509_V_ERR_UNSPECIFIED, Code::issuerMissing},
    {X509_V_ERR_SUBJECT_ISSUER_MISMATCH, Code::issuerMissing},
    {X509_V_ERR_AKID_SKID_MISMATCH, Code::issuerMissing},
    {X509_V_ERR_AKID_ISSUER_SERIAL_MISMATCH, Code::issuerMissing},
    {X509_V_ERR_NO_ISSUER_PUBLIC_KEY, Code::issuerMissing},
    {X509_V_ERR_UNSUPPORTED_SIGNATURE_ALGORITHM, Code::issuerMissing},
    {X509_V_ERR_SIGNATURE_ALGORITHM_MISMATCH, Code::issuerMissing},
};
constexpr Meaning listErrors[] = {
    {X509_V_ERR_UNABLE_TO_GET_CRL, Code::listMissing},
    {X509_V_ERR_CRL_SIGNATURE_FAILURE, Code::listSignatureWrong},
    {X509_V_ERR_CRL_NOT_YET_VALID, Code::listNotYetValid},
    {X509_V_ERR_CRL_HAS_EXPIRED, Code::listExpired},
    {X509_V_ERR_ERROR_IN_CRL_LAST_UPDATE_FIELD, Code::listInvalid},
    {X509_V_ERR_ERROR_IN_CRL_NEXT_UPDATE_FIELD, Code::listInvalid},
    {X509_V_ERR_CERT_REVOKED, Code::revoked},
    {X509_V_ERR_UNABLE_TO_GET_CRL_ISSUER, Code::listIssuerMissing},
    {X509_V_ERR_KEYUSAGE_NO_CRL_SIGN, Code::listSigningForbidden},
    {X509_V_ERR_UNHANDLED_CRITICAL_CRL_EXTENSION, Code::listCriticalExtensionUnknown},
    {X509_V_ERR_DIFFERENT_CRL_SCOPE, Code::listScopeDiffers},
    {X509_V_ERR_CRL_PATH_VALIDATION_ERROR, Code::listIssuerMissing},
};
/// These are about a list only while one is looked at.
constexpr Meaning listErrorsToo[] = {
    {X509_V_ERR_INVALID_EXTENSION, Code::listInvalid},
    {X509_V_ERR_UNABLE_TO_DECODE_ISSUER_PUBLIC_KEY, Code::listIssuerMissing},
};
constexpr Meaning certificateErrors[] = {
    {X509_V_ERR_CERT_NOT_YET_VALID, Code::certificateNotYetValid},
    {X509_V_ERR_CERT_HAS_EXPIRED, Code::certificateExpired},
    {X509_V_ERR_ERROR_IN_CERT_NOT_BEFORE_FIELD, Code::validityUnreadable},
    {X509_V_ERR_ERROR_IN_CERT_NOT_AFTER_FIELD, Code::validityUnreadable},
    {X509_V_ERR_UNABLE_TO_DECODE_ISSUER_PUBLIC_KEY, Code::issuerKeyUnusable},
    {X509_V_ERR_UNHANDLED_CRITICAL_EXTENSION, Code::criticalExtensionUnknown},
    {X509_V_ERR_INVALID_EXTENSION, Code::extensionInvalid},
    {X509_V_ERR_INVALID_CA, Code::notAnAuthority},
    {X509_V_ERR_PATH_LENGTH_EXCEEDED, Code::pathLengthExceeded},
    {X509_V_ERR_KEYUSAGE_NO_CERTSIGN, Code::certificateSigningForbidden},
    {X509_V_ERR_PROXY_CERTIFICATES_NOT_ALLOWED, Code::proxyCertificate},
    {X509_V_ERR_PERMITTED_VIOLATION, Code::nameNotPermitted},
    {X509_V_ERR_EXCLUDED_VIOLATION, Code::nameExcluded},
    {X509_V_ERR_SUBTREE_MINMAX, Code::nameConstraintsUnsupported},
    {X509_V_ERR_UNSUPPORTED_CONSTRAINT_TYPE, Code::nameConstraintsUnsupported},
    {X509_V_ERR_UNSUPPORTED_CONSTRAINT_SYNTAX, Code::nameConstraintsUnsupported},
    {X509_V_ERR_UNSUPPORTED_NAME_SYNTAX, Code::nameUnreadable},
    {X509_V_ERR_INVALID_POLICY_EXTENSION, Code::policyInvalid},
    {X509_V_ERR_NO_EXPLICIT_POLICY, Code::policyMissing},
};

template <std::size_t count> const Meaning* meaningOf(const Meaning (&table)[count], int error) {
    const auto* const found =
        std::find_if(table, table + count, [error](const Meaning& row) { return row.error == error; });
    return found == table + count ? nullptr : found;
}

std::string momentOf(const ASN1_TIME* time) {
    const auto seconds = secondsOf(time);
    return seconds ? dateOf(*seconds) : "an unreadable time";
}

unsigned int depthOf(const X509_STORE_CTX* context) {
    return static_cast<unsigned int>(std::max(X509_STORE_CTX_get_error_depth(context), 0));
}

const X509_STORE_CTX* outermost(const X509_STORE_CTX* context) {
    while (const X509_STORE_CTX* parent = X509_STORE_CTX_get0_parent_ctx(context)) {
        context = parent;
    }
    return context;
}

/// Of what OpenSSL says about a list in passing, in the mode `available`.
bool isNoReason(Code code, Revocation mode) {
    return mode == Revocation::available &&
           (code == Code::listMissing || code == Code::listSignerMissing || code == Code::listExpired ||
            code == Code::listNotYetValid || code == Code::listScopeDiffers);
}

} // namespace

void Judgement::failed(X509_STORE_CTX* context) {
    const int error = X509_STORE_CTX_get_error(context);
    X509* const about = X509_STORE_CTX_get_current_cert(context);
    if (!chainFailed(context, error, about) && !listFailed(context, error, about)) {
        certificateFailed(context, error, about);
    }
}

bool Judgement::chainFailed(const X509_STORE_CTX* context, int error, X509* about) {
    const bool nested = outermost(context) != context;
    const Meaning* meaning = meaningOf(chainErrors, error);
    if (meaning == nullptr && (nested || !m_built)) {
        meaning = meaningOf(buildingErrors, error);
    }
    if (meaning == nullptr) {
        return false;
    }
    if (nested) { // whoever issued a list
        const unsigned int depth = depthOf(outermost(context));
        Details details;
        details.issuer = nameOf(handleOf(sk_X509_value(X509_STORE_CTX_get0_chain(context), 0)));
        place(depth).unusable = true;
        reason(Code::listIssuerMissing, depth, about, std::move(details));
        return true;
    }
    if (meaning->code == Code::issuerMissing && m_verdict.has(Code::chainTooLong)) {
        return true; // it was not looked for
    }
    m_broken = true;
    if (meaning->code == Code::issuerMissing && X509_get0_pubkey(m_request.certificate) == nullptr) {
        return true; // OpenSSL looks for no issuer then; see `lookAtFirst`
    }
    if (meaning->code == Code::issuerMissing && about != nullptr && issuerUnusable(depthOf(context), about)) {
        return true;
    }
    reason(meaning->code, depthOf(context), about, {"", "", "", std::to_string(m_request.options.maximumDepth), ""});
    return true;
}

/// Says why nobody of the issuer's name could be its issuer, if that is more than that it is somebody else.
bool Judgement::issuerUnusable(unsigned int depth, X509* about) {
    const X509_NAME* const name = X509_get_issuer_name(about);
    const auto named = [name](const X509* one) { return X509_NAME_cmp(X509_get_subject_name(one), name) == 0; };
    const auto large = std::find_if(m_request.tooLarge.begin(), m_request.tooLarge.end(), named);
    if (large != m_request.tooLarge.end()) {
        reason(Code::keyTooLarge, depth + 1, *large, {"", "", "", tooLarge(*large), ""});
        return true;
    }
    std::vector<X509*> issuers;
    m_snapshot.bySubject.each(name, [&issuers](X509* one) { issuers.push_back(one); });
    std::copy_if(m_request.candidates.begin(), m_request.candidates.end(), std::back_inserter(issuers), named);
    for (X509* const one : issuers) {
        const int error = X509_check_issued(one, about);
        if (error == X509_V_ERR_UNSUPPORTED_SIGNATURE_ALGORITHM) {
            signatureFailed(depth, about);
            return true;
        }
        if (error == X509_V_ERR_NO_ISSUER_PUBLIC_KEY) {
            reason(Code::issuerKeyUnusable, depth + 1, one);
            return true;
        }
    }
    return false;
}

bool Judgement::listFailed(X509_STORE_CTX* context, int error, X509* about) {
    X509_CRL* const list = m_list;
    const Meaning* meaning = meaningOf(listErrors, error);
    if (meaning == nullptr && list != nullptr) {
        meaning = meaningOf(listErrorsToo, error);
    }
    if (meaning == nullptr) {
        return false;
    }
    Code code = meaning->code;
    const X509_STORE_CTX* const outer = outermost(context);
    const unsigned int depth = depthOf(outer);
    if (isAnchor(context, depthOf(context)) && code != Code::revoked) {
        return true; // nobody but the operator can take back an anchor; what its own list says still counts
    }
    if (code == Code::revoked && m_discredited.count(list) > 0) {
        return true; // what stands in a list that its issuer did not sign, or that is for others, says nothing
    }
    if (code == Code::listMissing && outer == context && told(Code::listScopeDiffers, depth)) {
        return true; // there is one, and it was said why it does not count
    }
    const bool onlyItsTime = code == Code::listExpired || code == Code::listNotYetValid; // what it revokes is revoked
    if (list != nullptr && code != Code::revoked && code != Code::listMissing && !onlyItsTime) {
        m_discredited.insert(list);
    }
    Details details;
    X509_CRL* named = list;
    if (code == Code::listMissing && outer == context && about != nullptr) {
        if (X509_CRL* const unsignedList = m_lists.withoutSigner(about, m_request.candidates)) {
            code = Code::listSignerMissing;
            named = unsignedList;
        }
    }
    if (const auto handle = m_lists.handleOf(named); !handle.isNull()) {
        handle->warm();
        details.issuer = shortened(NVX509::displayName(handle->crlInfo().issuer()));
    }
    if (code == Code::listExpired) {
        details.when = momentOf(X509_CRL_get0_nextUpdate(list));
    } else if (code == Code::listNotYetValid) {
        details.when = momentOf(X509_CRL_get0_lastUpdate(list));
    } else if (code == Code::revoked) {
        X509_REVOKED* entry = nullptr;
        if (X509_CRL_get0_by_cert(list, &entry, about) > 0) {
            details.when = momentOf(X509_REVOKED_get0_revocationDate(entry));
            details.what = revocationReasonOf(entry);
        }
    } else if (code == Code::listSignatureWrong) {
        const X509_ALGOR* algorithm = nullptr;
        X509_CRL_get0_signature(list, nullptr, &algorithm);
        details.what = unsupported(algorithm);
        code = details.what.empty() ? code : Code::listAlgorithmUnsupported;
    }
    constexpr std::size_t mostUris = 3;
    for (const std::string& uri : urisOf(distributionPointsOf(about).get(), mostUris)) {
        details.where += (details.where.empty() ? "" : " or ") + shown(uri);
    }
    Place& found = place(depth);
    const bool missing = code == Code::listMissing || code == Code::listSignerMissing || code == Code::listScopeDiffers;
    found.revoked = found.revoked || (code == Code::revoked && outer == context);
    found.missing = found.missing || (missing && outer == context);
    const Weight weight = isNoReason(code, m_request.options.revocation) ? Weight::note : Weight::reason;
    const bool byIssuer = outer != context && weight == Weight::reason; // whoever issued the list cannot be believed
    found.unusable = found.unusable || byIssuer || (outer == context && !missing && code != Code::revoked);
    say(weight, code, depth, about, std::move(details));
    return true;
}

void Judgement::certificateFailed(X509_STORE_CTX* context, int error, X509* about) {
    const bool nested = outermost(context) != context;
    const unsigned int depth = depthOf(outermost(context));
    if (nested && (error == X509_V_ERR_INVALID_PURPOSE || error == X509_V_ERR_NO_EXPLICIT_POLICY)) {
        return; // whoever issues lists need not be able to write mail
    }
    if (about == nullptr) {
        about = m_request.certificate;
    }
    Details details;
    if (nested) {
        place(depth).unusable = true;
        details.whose = nameOf(handleOf(about)) + " (for revocation lists)";
    }
    if (error == X509_V_ERR_INVALID_PURPOSE) {
        purposeFailed(depth, about);
        return;
    }
    if (error == X509_V_ERR_CERT_SIGNATURE_FAILURE && !nested) {
        signatureFailed(depth, about);
        return;
    }
    const Meaning* const meaning = meaningOf(certificateErrors, error);
    Code code = meaning == nullptr ? Code::other : meaning->code;
    if (error == X509_V_ERR_CERT_SIGNATURE_FAILURE) {
        code = Code::signatureWrong;
    } else if (code == Code::certificateNotYetValid) {
        details.when = momentOf(X509_get0_notBefore(about));
    } else if (code == Code::certificateExpired) {
        details.when = momentOf(X509_get0_notAfter(about));
    } else if (code == Code::criticalExtensionUnknown) {
        details.what = unknownCriticalExtensions(about);
    } else if (code == Code::notAnAuthority && (X509_get_extension_flags(about) & EXFLAG_CA) != 0 &&
               (X509_get_key_usage(about) & KU_KEY_CERT_SIGN) == 0) {
        code = Code::certificateSigningForbidden;
    } else if (code == Code::other) {
        details.what = X509_verify_cert_error_string(error);
    }
    reason(code, depth, about, std::move(details));
}

/// OpenSSL says that something forbids the purpose; what, is found here. RFC 8550 allows two things that OpenSSL does not:
/// anyExtendedKeyUsage, and key agreement in the place of key encipherment.
void Judgement::purposeFailed(unsigned int depth, X509* about) {
    const bool sign = m_request.options.purpose == Purpose::sign;
    const bool byExtended = !extendedUsageAllowsMail(about);
    const bool byUsage = depth == 0 && !usageAllowsMail(about, sign);
    if (byExtended) {
        reason(Code::extendedKeyUsageForbids, depth, about);
    }
    if (byUsage) {
        reason(Code::keyUsageForbids, depth, about, {"", "", "", sign ? "sign" : "encrypt for it", ""});
    }
    if (!byExtended && !byUsage && (X509_get_extension_flags(about) & EXFLAG_NSCERT) != 0) {
        reason(Code::purposeForbids, depth, about);
    }
}

void Judgement::signatureFailed(unsigned int depth, X509* about) {
    const X509_ALGOR* algorithm = nullptr;
    X509_get0_signature(nullptr, &algorithm, about);
    if (algorithmsDiffer(about)) {
        reason(Code::algorithmsDiffer, depth, about);
    } else if (const std::string name = unsupported(algorithm); !name.empty()) {
        reason(Code::algorithmUnsupported, depth, about, {"", "", "", shown(name), ""});
    } else {
        reason(Code::signatureWrong, depth, about);
    }
}

bool Judgement::affordable(X509_STORE_CTX* context) {
    constexpr std::uint64_t mostPairs = 1U << 18U;
    constexpr std::uint64_t mostOctets = 1U << 26U;
    constexpr std::uint64_t mostPolicies = 1U << 22U; // 2048 of one certificate
    Effort chain = effortOf(X509_STORE_CTX_get0_chain(context));
    if (m_request.options.revocation != Revocation::none) {
        chain.keys *= 2; // once before lists are looked at
    }
    m_effort += chain;
    if (m_effort.pairs > mostPairs || m_effort.octets > mostOctets) {
        reason(Code::tooMuchWork, 0, m_request.certificate,
               {"", "", "", "the names of the chain and the constraints on them are too many to compare", ""});
        return false;
    }
    if (m_effort.policies > mostPolicies) {
        reason(Code::tooMuchWork, 0, m_request.certificate,
               {"", "", "", "the policies of the chain are too many to compare", ""});
        return false;
    }
    if (m_effort.keys > maximumVerdictWork) {
        reason(Code::tooMuchWork, 0, m_request.certificate,
               {"", "", "", "the keys of the chain take too long to use", ""});
        return false;
    }
    return true;
}

/// OpenSSL asks them for no more than a chain that holds, since its own measure of strength is left at nothing.
void Judgement::lookAtListSigner(const X509_STORE_CTX* context) {
    const X509_STORE_CTX* const outer = outermost(context);
    STACK_OF(X509)* const judged = X509_STORE_CTX_get0_chain(outer);
    STACK_OF(X509)* const chain = X509_STORE_CTX_get0_chain(context);
    const int count = sk_X509_num(chain);
    for (int i = 0; i < count; ++i) {
        X509* const one = sk_X509_value(chain, i);
        bool isToldOf = false; // at its own depth
        for (int other = 0; other < sk_X509_num(judged); ++other) {
            isToldOf = isToldOf || X509_cmp(sk_X509_value(judged, other), one) == 0;
        }
        const std::string whose = nameOf(handleOf(one)) + " (for revocation lists)";
        if (!isToldOf && lookAtStrength(depthOf(outer), one, isSignedByItself(context, i), whose)) {
            place(depthOf(outer)).unusable = true;
        }
    }
}

/// Whether the signature on a certificate is no link of the chain: nobody believes an anchor or a root for it.
bool Judgement::isSignedByItself(const X509_STORE_CTX* context, int depth) const {
    STACK_OF(X509)* const chain = X509_STORE_CTX_get0_chain(context);
    const bool isLast = depth + 1 == sk_X509_num(chain);
    return (!m_broken && isAnchor(context, static_cast<unsigned int>(depth))) ||
           (isLast && (X509_get_extension_flags(sk_X509_value(chain, depth)) & EXFLAG_SS) != 0);
}

bool Judgement::linksHold(X509_STORE_CTX* context) {
    STACK_OF(X509)* const chain = X509_STORE_CTX_get0_chain(context);
    for (int i = 0; i + 1 < sk_X509_num(chain); ++i) {
        EVP_PKEY* const key = X509_get0_pubkey(sk_X509_value(chain, i + 1));
        if (key == nullptr || X509_verify(sk_X509_value(chain, i), key) != 1) {
            m_linkFailed = true;
            return false;
        }
    }
    return true;
}

void Judgement::lookAt(const X509_STORE_CTX* context) {
    STACK_OF(X509)* const chain = X509_STORE_CTX_get0_chain(context);
    const int count = sk_X509_num(chain);
    for (int i = 0; i < count; ++i) {
        X509* const one = sk_X509_value(chain, i);
        const auto depth = static_cast<unsigned int>(i);
        if ((X509_get_extension_flags(one) & EXFLAG_INVALID) != 0) {
            reason(Code::extensionInvalid, depth, one);
        }
        lookAtTimes(depth, one);
        lookAtStrength(depth, one, isSignedByItself(context, i));
    }
    if (count > 0) {
        lookAtFirst(sk_X509_value(chain, 0));
    }
    if (m_excluded) {
        reason(Code::nameExcluded, 0, sk_X509_value(chain, 0));
    }
}

/// OpenSSL looks at the times of what it could verify.
void Judgement::lookAtTimes(unsigned int depth, X509* certificate) {
    std::time_t at = m_request.at;
    const int begins = X509_cmp_time(X509_get0_notBefore(certificate), &at);
    const int ends = X509_cmp_time(X509_get0_notAfter(certificate), &at);
    if (begins == 0 || ends == 0) {
        reason(Code::validityUnreadable, depth, certificate);
    }
    if (begins > 0) {
        reason(Code::certificateNotYetValid, depth, certificate,
               {"", "", momentOf(X509_get0_notBefore(certificate)), "", ""});
    }
    if (ends < 0) {
        reason(Code::certificateExpired, depth, certificate,
               {"", "", momentOf(X509_get0_notAfter(certificate)), "", ""});
    }
}

bool Judgement::lookAtStrength(unsigned int depth, X509* certificate, bool byItself, const std::string& whose) {
    const Options& options = m_request.options;
    bool isWeak = false;
    if (std::string key = tooShort(certificate, options.minimumRsaBits, options.minimumEcBits); !key.empty()) {
        reason(Code::keyTooShort, depth, certificate, {whose, "", "", std::move(key), ""});
        isWeak = true;
    }
    const auto digest = byItself ? std::nullopt : signingDigestOf(certificate);
    if (digest && digest->bits < options.minimumDigestBits) {
        reason(Code::digestTooWeak, depth, certificate, {whose, "", "", digest->name, ""});
        isWeak = true;
    }
    return isWeak;
}

void Judgement::lookAtFirst(X509* certificate) {
    // OpenSSL ends before it looks for an issuer, and says nothing of this.
    if (X509_get0_pubkey(certificate) == nullptr) {
        reason(Code::keyUnusable, 0, certificate);
    }
    if (std::string key = tooLarge(certificate); !key.empty() && m_snapshot.anchorSet.count(certificate) == 0) {
        reason(Code::keyTooLarge, 0, certificate, {"", "", "", std::move(key), ""});
    }
    if (m_request.options.purpose == Purpose::authority && X509_check_ca(certificate) == 0) {
        const bool byUsage = (X509_get_extension_flags(certificate) & EXFLAG_CA) != 0 &&
                             (X509_get_key_usage(certificate) & KU_KEY_CERT_SIGN) == 0;
        reason(byUsage ? Code::certificateSigningForbidden : Code::notAnAuthority, 0, certificate);
    }
}

} // namespace Norvane::Crypto::Trust::detail
