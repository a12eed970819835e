#include "Wording.h"

#include "OpenSsl.h"

#include <norvcmsg/Escape.h>
#include <norvcrypto/DistinguishedName.h>

#include <algorithm>
#include <iterator>
#include <utility>

namespace Norvane::Crypto::Trust::detail {

namespace {

using Code = ReasonCode;

/// $w, $i, $t, $x, $u stand for the details, in the order of `Details`.
struct Row {
    Code code;
    const char* text;
    const char* advice;
};

constexpr Row rows[] = {
    {Code::issuerMissing, "no certificate of $i is there that could have issued that of $w",
     "add the certificate of the issuer to the intermediates, or to the anchors if it is to be believed"},
    {Code::selfSigned, "the certificate of $w was issued by itself and is no anchor",
     "compare its fingerprint with its holder's and add it to the anchors, if it is to be believed"},
    {Code::rootNotTrusted, "the chain ends at the root $w, which is no anchor",
     "add the root to the anchors, if it is to be believed"},
    {Code::chainTooLong, "there are more than $x certificates between the first one and an anchor",
     "allow a greater depth, if a chain as long as this is expected"},
    {Code::certificateMissing, "there is no certificate to judge",
     "ask the sender for the certificate, or add it to those that are looked through"},
    {Code::certificateNotYetValid, "the certificate of $w is valid from $t on",
     "look at the clock; for a message of a later time judge by that time"},
    {Code::certificateExpired, "the certificate of $w expired on $t",
     "ask its holder for the renewed one; for an old message judge by the time at which it was signed"},
    {Code::validityUnreadable, "the validity period of the certificate of $w cannot be read",
     "ask its holder for another certificate: this one was issued wrongly"},
    {Code::signatureWrong, "the signature on the certificate of $w is not that of $i",
     "get the certificates of holder and issuer anew from themselves: one was changed, forged, or has another key"},
    {Code::algorithmUnsupported, "the certificate of $w is signed with $x, which cannot be checked here",
     "ask its holder for one that is signed with RSA, ECDSA or EdDSA"},
    {Code::algorithmsDiffer, "the certificate of $w names two signature algorithms",
     "ask its holder for another certificate: this one was changed or issued wrongly"},
    {Code::issuerKeyUnusable, "the public key of $w cannot be read, or is of a kind that is not supported",
     "ask for certificates of an issuer with an RSA, EC or Ed25519 key"},
    {Code::keyTooShort, "the key of $w is too short: $x", "ask its holder for a certificate with a longer key"},
    {Code::digestTooWeak, "the certificate of $w is signed with $x",
     "ask its holder for one that is signed with SHA-256 or better"},
    {Code::keyTooLarge, "the key of $w takes far too long to use: $x",
     "ask for a certificate with a usual key, such as RSA with 3072 bits or P-256"},
    {Code::keyUnusable, "the public key of $w cannot be read, or is of a kind that is not supported",
     "ask its holder for a certificate with an RSA, EC or Ed25519 key"},

    {Code::criticalExtensionUnknown, "the certificate of $w has a critical extension that is not understood: $x",
     "ask its holder for a certificate for mail: what this one demands cannot be checked"},
    {Code::extensionInvalid, "an extension of the certificate of $w cannot be read, or stands twice",
     "ask its holder for another certificate: this one was issued wrongly"},
    {Code::notAnAuthority, "the certificate of $w is not one of an authority",
     "ask for certificates of another issuer: this one was issued by somebody who may not"},
    {Code::pathLengthExceeded, "the authority $w may not have so many authorities below it",
     "ask for certificates of another issuer"},
    {Code::certificateSigningForbidden, "the key usage of $w does not allow to sign certificates",
     "ask for certificates of another issuer"},
    {Code::keyUsageForbids, "the key usage of the certificate of $w does not allow to $x",
     "ask its holder for the certificate for this use: many have one for signing and one for encryption"},
    {Code::extendedKeyUsageForbids, "the extended key usage of the certificate of $w does not allow mail",
     "ask its holder for a certificate for mail (emailProtection)"},
    {Code::purposeForbids, "Netscape's certificate type in the certificate of $w does not allow mail",
     "ask its holder for a certificate for mail"},
    {Code::proxyCertificate, "the certificate of $w is a proxy certificate",
     "ask its holder for a certificate of an authority"},
    {Code::nameNotPermitted, "a name in the certificate of $w is not one that its issuers may certify",
     "ask for a certificate of an authority that may: this one is limited to other names"},
    {Code::nameExcluded, "a name in the certificate of $w is one that its issuers may not certify",
     "ask for a certificate of an authority that may"},
    {Code::nameConstraintsUnsupported, "name constraints above the certificate of $w cannot be checked here",
     "ask for a certificate of an authority whose constraints are of the usual kinds: mail, DNS, directory, IP, URI"},
    {Code::nameUnreadable, "a name in the certificate of $w cannot be compared with the name constraints above it",
     "ask its holder for another certificate: this one was issued wrongly"},
    {Code::policyMissing, "no certificate policy holds for the chain of $w that is asked for",
     "ask for a certificate under one of these policies, or ask for other policies"},
    {Code::policyInvalid, "the certificate policies in the certificate of $w contradict themselves",
     "ask for certificates of another issuer: this one was issued wrongly"},

    {Code::revoked, "the certificate of $w was revoked on $t$x, as the list of $i says",
     "do not believe what was signed, and do not encrypt for it; ask its holder for the new one"},
    {Code::listMissing, "no revocation list of $i covers the certificate of $w", "fetch the list from $u"},
    {Code::listExpired, "the revocation list of $i expired on $t", "fetch it anew from $u"},
    {Code::listNotYetValid, "the revocation list of $i is valid from $t on",
     "look at the clock; for an old message keep the lists of its time"},
    {Code::listSignatureWrong, "the revocation list of $i was not signed by it, or was changed",
     "fetch it anew from $u"},
    {Code::listIssuerMissing, "who issued the revocation list of $i is not known, or not to be believed",
     "add the certificate of the issuer of the list to the intermediates"},
    {Code::listSigningForbidden, "the key usage of $i does not allow to sign revocation lists",
     "tell the authority: its lists cannot be used"},
    {Code::listScopeDiffers, "the revocation list of $i is for other certificates than that of $w",
     "fetch the list from $u"},
    {Code::listInvalid, "the revocation list of $i cannot be used: a time or an extension in it makes no sense",
     "fetch it anew from $u"},
    {Code::listCriticalExtensionUnknown, "the revocation list of $i has a critical extension that is not understood",
     "tell the authority: what its list means cannot be known"},
    {Code::listNotUsed, "a revocation list of $i was not used: $x", "fetch the list from $u"},
    {Code::listAlgorithmUnsupported, "the revocation list of $i is signed with $x, which cannot be checked here",
     "tell the authority: its lists cannot be used"},
    {Code::listSignerMissing,
     "the revocation list for the certificate of $w is there, but not the certificate of $i, who issued the list",
     "add the certificate of the issuer of the list to the intermediates"},

    {Code::senderDiffers, "the certificate is for $w, and not for $x, from whom the message says it is",
     "ask the sender by another way whether the message is theirs"},
    {Code::senderFieldOnly, "the certificate is for $w, who sent the message, and not for $x, from whom it says it is",
     "ask $x whether they had it sent"},
    {Code::senderMissing, "the message does not say from whom it is", "ask the sender to write their address into it"},
    {Code::addressInvalid, "$x is no mail address", "ask the sender by another way whether the message is theirs"},
    {Code::certificateWithoutAddress,
     "the certificate of $w has no mail address, so that nothing ties it to the sender",
     "ask the sender whether the certificate is theirs, or for one with their address in it"},

    {Code::tooManyCertificates, "the message has $x certificates, of which the first ones were looked at",
     "ask the sender to send the certificates of the chain alone"},
    {Code::tooMuchWork, "not everything could be looked at: $x", "ask for certificates of another issuer"},
    {Code::other, "the certificate of $w is refused: $x", "ask its holder for another certificate"},
};

std::string filled(const char* text, const Details& details) {
    std::string result;
    for (const char* at = text; *at != '\0'; ++at) {
        if (*at != '$') {
            result += *at;
            continue;
        }
        switch (*++at) {
        case 'w':
            result += details.whose;
            break;
        case 'i':
            result += details.issuer;
            break;
        case 't':
            result += details.when;
            break;
        case 'u':
            result += details.where.empty() ? "where its issuer distributes it" : details.where;
            break;
        default:
            result += details.what;
        }
    }
    return result;
}

} // namespace

Reason worded(ReasonCode code, const Details& details) {
    const auto* row =
        std::find_if(std::begin(rows), std::end(rows), [code](const Row& one) { return one.code == code; });
    if (row == std::end(rows)) {
        row = std::prev(std::end(rows));
    }
    Reason reason;
    reason.code = code;
    reason.text = filled(row->text, details);
    reason.advice = filled(row->advice, details);
    return reason;
}

std::string shortened(std::string text) {
    if (text.size() <= longestName) {
        return text;
    }
    std::size_t end = longestName;
    constexpr unsigned int kindBits = 0xC0;
    constexpr unsigned int continuation = 0x80;
    while (end > 0 && (static_cast<unsigned char>(text[end]) & kindBits) == continuation) {
        --end;
    }
    // An escape that is cut would be read as another one.
    const std::size_t backslash = text.rfind('\\', end - 1);
    if (backslash != std::string::npos && backslash + 4 > end) {
        end = text.find_last_not_of('\\', backslash) + 1;
    }
    text.resize(end);
    return text + "...";
}

std::string shown(std::string_view text) {
    return shortened(escapeForDisplay(text.substr(0, longestName)) + (text.size() > longestName ? "..." : ""));
}

std::string nameOf(const NVX509::RefCertificate& certificate) {
    X509* const x509 = certificate;
    if (x509 == nullptr) {
        return "nobody";
    }
    std::string name = NVX509::displayName(certificate->subject());
    if (!name.empty()) {
        return shortened(std::move(name));
    }
    const QuietQuestion quiet;
    const Owned<BIGNUM> serial(ASN1_INTEGER_to_BN(X509_get0_serialNumber(x509), nullptr));
    const Owned<char> digits(serial ? BN_bn2hex(serial.get()) : nullptr);
    return shortened("the nameless holder of the serial number " + std::string(digits ? digits.get() : "?"));
}

} // namespace Norvane::Crypto::Trust::detail
