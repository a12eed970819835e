#include <norvcrypto-trust/TrustSender.h>
#include <norvcrypto-trust/TrustVerdict.h>

#include <algorithm>
#include <array>
#include <iterator>
#include <utility>

namespace Norvane::Crypto::Trust {

namespace {

using Code = ReasonCode;

/// By number; programs and logs depend on both columns.
constexpr std::pair<Code, const char*> reasonNames[] = {
    {Code::issuerMissing, "issuer-missing"},
    {Code::selfSigned, "self-signed"},
    {Code::rootNotTrusted, "root-not-trusted"},
    {Code::chainTooLong, "chain-too-long"},
    {Code::certificateMissing, "certificate-missing"},
    {Code::certificateNotYetValid, "certificate-not-yet-valid"},
    {Code::certificateExpired, "certificate-expired"},
    {Code::validityUnreadable, "validity-unreadable"},
    {Code::signatureWrong, "signature-wrong"},
    {Code::algorithmUnsupported, "algorithm-unsupported"},
    {Code::algorithmsDiffer, "algorithms-differ"},
    {Code::issuerKeyUnusable, "issuer-key-unusable"},
    {Code::keyTooShort, "key-too-short"},
    {Code::digestTooWeak, "digest-too-weak"},
    {Code::keyTooLarge, "key-too-large"},
    {Code::keyUnusable, "key-unusable"},
    {Code::criticalExtensionUnknown, "critical-extension-unknown"},
    {Code::extensionInvalid, "extension-invalid"},
    {Code::notAnAuthority, "not-an-authority"},
    {Code::pathLengthExceeded, "path-length-exceeded"},
    {Code::certificateSigningForbidden, "certificate-signing-forbidden"},
    {Code::keyUsageForbids, "key-usage-forbids"},
    {Code::extendedKeyUsageForbids, "extended-key-usage-forbids"},
    {Code::purposeForbids, "purpose-forbids"},
    {Code::proxyCertificate, "proxy-certificate"},
    {Code::nameNotPermitted, "name-not-permitted"},
    {Code::nameExcluded, "name-excluded"},
    {Code::nameConstraintsUnsupported, "name-constraints-unsupported"},
    {Code::nameUnreadable, "name-unreadable"},
    {Code::policyMissing, "policy-missing"},
    {Code::policyInvalid, "policy-invalid"},
    {Code::revoked, "revoked"},
    {Code::listMissing, "list-missing"},
    {Code::listExpired, "list-expired"},
    {Code::listNotYetValid, "list-not-yet-valid"},
    {Code::listSignatureWrong, "list-signature-wrong"},
    {Code::listIssuerMissing, "list-issuer-missing"},
    {Code::listSigningForbidden, "list-signing-forbidden"},
    {Code::listScopeDiffers, "list-scope-differs"},
    {Code::listInvalid, "list-invalid"},
    {Code::listCriticalExtensionUnknown, "list-critical-extension-unknown"},
    {Code::listNotUsed, "list-not-used"},
    {Code::listAlgorithmUnsupported, "list-algorithm-unsupported"},
    {Code::listSignerMissing, "list-signer-missing"},
    {Code::senderDiffers, "sender-differs"},
    {Code::senderFieldOnly, "sender-field-only"},
    {Code::senderMissing, "sender-missing"},
    {Code::addressInvalid, "address-invalid"},
    {Code::certificateWithoutAddress, "certificate-without-address"},
    {Code::tooManyCertificates, "too-many-certificates"},
    {Code::tooMuchWork, "too-much-work"},
    {Code::other, "other"},
};

template <class Enum, std::size_t count>
const char* at(const std::array<const char*, count>& names, Enum value) noexcept {
    const auto index = static_cast<std::size_t>(value);
    // It takes the arrays below, whose type is deduced, for arrays of numbers.
    // cppcheck-suppress CastIntegerToAddressAtReturn
    return index < count ? names[index] : "other";
}

} // namespace

const char* nameOf(ReasonCode code) noexcept {
    const auto* const found = std::find_if(std::begin(reasonNames), std::end(reasonNames),
                                           [code](const auto& row) { return row.first == code; });
    return found == std::end(reasonNames) ? "other" : found->second;
}

const std::vector<ReasonCode>& reasonCodes() {
    static const std::vector<ReasonCode> codes = [] {
        std::vector<ReasonCode> all;
        std::transform(std::begin(reasonNames), std::end(reasonNames), std::back_inserter(all),
                       [](const auto& row) { return row.first; });
        return all;
    }();
    return codes;
}

const char* nameOf(Revocation revocation) noexcept {
    return at(std::array{"none", "available", "required"}, revocation);
}

const char* nameOf(Purpose purpose) noexcept {
    return at(std::array{"any", "sign", "encrypt", "authority"}, purpose);
}

const char* nameOf(RevocationStatus status) noexcept {
    return at(std::array{"not-looked-at", "no-list", "unusable", "good", "revoked"}, status);
}

const char* nameOf(SenderRelation relation) noexcept {
    return at(std::array{"none", "from", "sender"}, relation);
}

} // namespace Norvane::Crypto::Trust
