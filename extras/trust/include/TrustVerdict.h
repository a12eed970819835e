#ifndef NORVCRYPTO_TRUST_TRUST_VERDICT_H
#define NORVCRYPTO_TRUST_TRUST_VERDICT_H

/// \file
/// What is asked about a certificate, and what is answered: values without behaviour, which may be copied, kept and shared
/// between threads like any other value (the certificates in them are warmed, see `Certificate::warm`).
///
/// \code
/// for (const Trust::Reason& reason : verdict.reasons) {
///     log(Trust::nameOf(reason.code));                  // "certificate-expired": stable, for logs and programs
///     show(reason.text, reason.advice);                 // for people
/// }
/// \endcode
///
/// docs/trust.md lists every reason with its number, when it is given and what to do about it.

#include <norvcrypto/Certificate.h>
#include <norvcrypto/CertificateRevocationList.h>
#include <norvcrypto/Export.h>

#include <ctime>
#include <optional>
#include <string>
#include <vector>

namespace Norvane::Crypto::Trust {

/// What is asked of revocation lists.
enum class Revocation : int {
    none = 0,      ///< no list is looked at
    available = 1, ///< where there is a list, it is used; none, or only one whose time is over, is a note
    required =
        2, ///< every certificate of the chain but the anchor must be on a list that is up to date: none is a reason
};

/// What the certificate is to be used for.
enum class Purpose : int {
    any = 0,       ///< key usages of the first certificate are not looked at; those of its issuers are
    sign = 1,      ///< it signed a mail (RFC 8550, 4.4)
    encrypt = 2,   ///< a mail is encrypted for it
    authority = 3, ///< it issues certificates
};

/// What a verdict is to be reached by. What is not set here is as RFC 5280, section 6, has it.
struct Options {
    /// The moment to judge by, in seconds since 1970, UTC; unset: now. Before the year 0 and behind 9999 certificates have no
    /// times: what lies there counts as the first and the last moment of these years.
    std::optional<std::time_t> at;
    /// For callers that know the time at which something was signed: they set `at` to it. The verifier does not look at it.
    bool atSigningTime = false;
    Purpose purpose = Purpose::sign;
    Revocation revocation = Revocation::none;
    /// Certificate policies of which the chain must have one, as dotted identifiers ("2.23.140.1.5.2.3"). Empty: any, or
    /// none unless a certificate of the chain demands one (the user-initial-policy-set of RFC 5280, 6.1.1; with identifiers
    /// in it, the initial-explicit-policy of the same section is set).
    std::vector<std::string> policies;
    unsigned int minimumRsaBits = 2048; ///< of every RSA, RSA-PSS, DSA and DH key of the chain
    unsigned int minimumEcBits = 224;   ///< of every key on a curve; Ed25519 and X25519 count as 253
    /// The length of the digests with which the certificates of the chain are signed, in bits: 160 is SHA-1, 128 is MD5, so
    /// that the default takes neither. The signature of a root on itself, and any on an anchor, does not count: nobody is
    /// believed for it. All three hold for those who sign indirect lists, too; not for the digests of the lists.
    unsigned int minimumDigestBits = 224;
    /// How many certificates there may be between the first one and the anchor; beyond 100 it is 100.
    unsigned int maximumDepth = 32;
    /// Whether a chain may end at an anchor that somebody else issued (`openssl verify -partial_chain`). Otherwise it must end
    /// at one that issued itself, and the other anchors are intermediates.
    bool partialChain = false;
};

/// Why a certificate is refused, or what should be known beside an acceptance. Numbers and names (`nameOf`) stay as they are.
enum class ReasonCode : int {
    // the chain
    issuerMissing = 1,      ///< the issuer of the last certificate that was found is not there
    selfSigned = 2,         ///< the certificate issued itself, and is no anchor
    rootNotTrusted = 3,     ///< the chain ends at a root that is no anchor
    chainTooLong = 4,       ///< more certificates than `Options::maximumDepth`
    certificateMissing = 5, ///< there is no certificate to judge: an empty handle

    // each certificate
    certificateNotYetValid = 10,
    certificateExpired = 11,
    validityUnreadable = 12,   ///< a time that is none
    signatureWrong = 13,       ///< the certificate was not signed by the key of its issuer, or was changed since
    algorithmUnsupported = 14, ///< it is signed in a way that cannot be checked here; neither good nor bad
    algorithmsDiffer = 15,     ///< it names two signature algorithms (RFC 5280, 4.1.1.2)
    issuerKeyUnusable = 16,    ///< the public key of an issuer does not decode, or is of a kind that is not supported
    keyTooShort = 17,          ///< below `Options::minimumRsaBits` or `minimumEcBits`
    digestTooWeak = 18,        ///< below `Options::minimumDigestBits`
    keyTooLarge = 19,          ///< a key that takes far longer to use than any sound one: it is not used
    keyUnusable =
        20, ///< the judged certificate's own public key does not decode, or is of a kind that is not supported

    // what a certificate may be used for
    criticalExtensionUnknown = 30,
    extensionInvalid = 31,            ///< an extension that does not decode, stands twice or contradicts another
    notAnAuthority = 32,              ///< it issued another one, or is to be an authority, and may not
    pathLengthExceeded = 33,          ///< more authorities below one than its path length allows
    certificateSigningForbidden = 34, ///< the key usage of an issuer has no keyCertSign
    keyUsageForbids = 35,             ///< the key usage does not allow the purpose
    extendedKeyUsageForbids = 36,     ///< the extended key usage does not allow mail
    purposeForbids = 37,              ///< something else forbids the purpose (Netscape's certificate type)
    proxyCertificate = 38,            ///< a proxy certificate (RFC 3820)
    nameNotPermitted = 39,            ///< a name outside of those that an issuer may issue for
    nameExcluded = 40,                ///< a name among those that an issuer may not issue for
    nameConstraintsUnsupported = 41,  ///< name constraints of a kind that cannot be checked here
    nameUnreadable = 42,              ///< a name that cannot be compared with the constraints
    policyMissing = 43,               ///< no policy holds for the chain that is asked for or demanded
    policyInvalid = 44,               ///< policies that contradict themselves

    // revocation
    revoked = 60,
    listMissing = 61,                  ///< no list covers the certificate
    listExpired = 62,                  ///< the next list was due
    listNotYetValid = 63,              ///< the list is from the future
    listSignatureWrong = 64,           ///< the list was not signed by its issuer
    listIssuerMissing = 65,            ///< who issued the list is not known, or is not trusted
    listSigningForbidden = 66,         ///< the key usage of the issuer of the list has no cRLSign
    listScopeDiffers = 67,             ///< the list is for other certificates
    listInvalid = 68,                  ///< a time or an extension of the list does not decode
    listCriticalExtensionUnknown = 69, ///< the list means something that is not understood
    listNotUsed = 70,                  ///< a note: a list of the message that its issuer did not sign, or one too many
    listAlgorithmUnsupported = 71, ///< the list is signed in a way that cannot be checked here; neither good nor bad
    listSignerMissing = 72, ///< the one whom the certificate names for its lists issued one, and is not there himself

    // the sender of a mail (`matchSender`)
    senderDiffers = 80,             ///< an address of From is not in the certificate
    senderFieldOnly = 81,           ///< the certificate is that of the Sender, not of From
    senderMissing = 82,             ///< the mail has no From address
    addressInvalid = 83,            ///< an address that is none
    certificateWithoutAddress = 84, ///< no mail address is in the certificate

    // the judging itself
    tooManyCertificates = 90, ///< a note: the message has more than `maximumCandidates`; the others were not looked at
    tooMuchWork =
        91,     ///< names, constraints or policies that would take minutes to compare; not everything was looked at
    other = 99, ///< OpenSSL's own reason, in its words
};

/// "certificate-expired". For a number that is none of the above, "other".
NORVCRYPTO_EXPORT const char* nameOf(ReasonCode code) noexcept;
/// "none", "available", "required".
NORVCRYPTO_EXPORT const char* nameOf(Revocation revocation) noexcept;
/// "any", "sign", "encrypt", "authority".
NORVCRYPTO_EXPORT const char* nameOf(Purpose purpose) noexcept;
/// Every code, by number.
NORVCRYPTO_EXPORT const std::vector<ReasonCode>& reasonCodes();

/// One reason, or one note.
struct Reason {
    ReasonCode code = ReasonCode::other;
    /// The place in the chain of the certificate that it is about: 0 the judged one, 1 its issuer, and so on.
    unsigned int depth = 0;
    /// The certificate that it is about; for a list that of whom it is asked; an empty handle where there is none.
    NVX509::RefCertificate certificate;
    /// A sentence without an end, escaped for display: "the certificate of CN=Anna expired on 2026-01-02 03:04:05 UTC".
    std::string text;
    /// What to do about it, likewise: "fetch it anew from http://example.org/ca.crl".
    std::string advice;
};

/// What revocation lists said about one certificate of the chain.
enum class RevocationStatus : int {
    notLookedAt = 0, ///< not asked for; the anchor; or nobody can tell, as its issuer is missing or not trusted
    noList = 1,      ///< no list covers it
    unusable = 2,    ///< a list that is there cannot be used, or its time is over; the reasons or notes tell why
    good = 3,        ///< not revoked
    revoked = 4,
};
/// "not-looked-at", "no-list", "unusable", "good", "revoked".
NORVCRYPTO_EXPORT const char* nameOf(RevocationStatus status) noexcept;

/// One certificate of the chain.
struct Link {
    NVX509::RefCertificate certificate;
    bool anchor = false;      ///< it is one of the anchors
    bool fromMessage = false; ///< it came with the message alone: whoever sent it chose it
    RevocationStatus revocation = RevocationStatus::notLookedAt;
    std::vector<NVX509::RefCertificateRevocationList> lists; ///< those that were used, a delta list before its base
};

/// The answer.
struct Verdict {
    bool accepted = false;
    /// Why not, every reason that was found, by depth; empty exactly when accepted.
    std::vector<Reason> reasons;
    /// What does not refuse it but should be known, by depth.
    std::vector<Reason> notes;
    /// As far as it could be built, the judged certificate first.
    std::vector<NVX509::RefCertificate> chain;
    std::vector<Link> links;  ///< beside `chain`, one for one
    std::time_t judgedAt = 0; ///< the moment that it was judged by
    /// The verdict holds for moments up to and without this one: then a certificate or a list begins or ends. Not earlier than
    /// a second after `judgedAt`.
    std::time_t validUntil = 0;

    /// Whether a code is among the reasons.
    [[nodiscard]] bool has(ReasonCode code) const noexcept {
        for (const Reason& reason : reasons) {
            if (reason.code == code) {
                return true;
            }
        }
        return false;
    }
    /// Whether a code is among the notes.
    [[nodiscard]] bool mentions(ReasonCode code) const noexcept {
        for (const Reason& note : notes) {
            if (note.code == code) {
                return true;
            }
        }
        return false;
    }
};

} // namespace Norvane::Crypto::Trust

#endif
