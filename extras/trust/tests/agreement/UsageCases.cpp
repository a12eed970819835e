// What keys are for, and extensions that nobody knows.

#include "Cases.h"

#include "support/Places.h"

namespace agreement {

namespace {

constexpr unsigned int digitalSignature = 0x80;
constexpr unsigned int nonRepudiation = 0x40;
constexpr unsigned int keyEncipherment = 0x20;
constexpr unsigned int keyAgreement = 0x08;

Case signing(const std::string& name, const CertificateRequest& who, const std::vector<Error>& openssl = {},
             const std::vector<Finding>& reasons = {}) {
    return {.name = name,
            .leaf = person(middle(), who).certificate,
            .purpose = For::sign,
            .openssl = openssl,
            .reasons = reasons};
}

Case encrypting(const std::string& name, const CertificateRequest& who, const std::vector<Error>& openssl = {},
                const std::vector<Finding>& reasons = {}) {
    return {.name = name,
            .leaf = person(middle(), who).certificate,
            .purpose = For::encrypt,
            .openssl = openssl,
            .reasons = reasons};
}

Extension unknown(bool critical) {
    return {.oid = "1.3.6.1.4.1.99999.1", .value = norvauthority::der::null(), .critical = critical};
}

std::vector<Case> persons() {
    const Key rsa = Key::fromPem(norvtest::storedKeyPem("alice"));
    return {
        signing("SignsWithoutRestrictions", {}),
        signing("SignsWithDigitalSignature", {.keyUsage = digitalSignature}),
        signing("SignsWithNonRepudiation", {.keyUsage = nonRepudiation}),
        signing("SignsWithoutTheKeyUsage", {.keyUsage = keyEncipherment}, {{26, 0}}, {{Code::keyUsageForbids, 0}}),
        signing("SignsForMail", {.keyUsage = digitalSignature, .extendedKeyUsage = {"emailProtection"}}),
        signing("SignsForServersAlone", {.extendedKeyUsage = {"serverAuth"}}, {{26, 0}},
                {{Code::extendedKeyUsageForbids, 0}}),
        signing("SignsForServersAndMail", {.extendedKeyUsage = {"serverAuth", "emailProtection"}}),
        signing("SignsForAnyPurpose", {.extendedKeyUsage = {"anyExtendedKeyUsage"}}, {{26, 0}}),
        encrypting("EncryptsWithoutRestrictions", {.key = rsa}),
        encrypting("EncryptsWithKeyEncipherment", {.key = rsa, .keyUsage = keyEncipherment}),
        encrypting("EncryptsWithoutTheKeyUsage", {.key = rsa, .keyUsage = digitalSignature}, {{26, 0}},
                   {{Code::keyUsageForbids, 0}}),
        encrypting("EncryptsForServersAlone", {.key = rsa, .extendedKeyUsage = {"serverAuth"}}, {{26, 0}},
                   {{Code::extendedKeyUsageForbids, 0}}),
        encrypting("EncryptsWithKeyAgreement", {.keyUsage = keyAgreement}, {{26, 0}}),
        {.name = "AnyPurposeMindsNoKeyUsage",
         .leaf = person(middle(), {.keyUsage = keyEncipherment, .extendedKeyUsage = {"serverAuth"}}).certificate},
        {.name = "CriticalUnknownExtensionOfThePerson",
         .leaf = person(middle(), {.extensions = {unknown(true)}}).certificate,
         .openssl = {{34, 0}},
         .reasons = {{Code::criticalExtensionUnknown, 0}}},
        {.name = "UnknownExtensionOfThePerson", .leaf = person(middle(), {.extensions = {unknown(false)}}).certificate},
    };
}

std::vector<Case> authorities() {
    const Identity servers =
        authority(root(), {.subject = {{"CN", "For Servers"}}, .extendedKeyUsage = {"serverAuth"}});
    const Identity mail = authority(root(), {.subject = {{"CN", "For Mail"}}, .extendedKeyUsage = {"emailProtection"}});
    const Identity odd = authority(root(), {.subject = {{"CN", "Odd"}}, .extensions = {unknown(true)}});
    const Identity oddRoot = anchor({.subject = {{"CN", "Odd Root"}}, .extensions = {unknown(true)}});
    const Identity underOdd = authority(oddRoot);
    return {
        {.name = "AuthorityForServersAlone",
         .leaf = person(servers).certificate,
         .untrusted = {servers.certificate},
         .purpose = For::sign,
         .openssl = {{26, 1}},
         .reasons = {{Code::extendedKeyUsageForbids, 1}}},
        {.name = "AuthorityForMail",
         .leaf = person(mail).certificate,
         .untrusted = {mail.certificate},
         .purpose = For::sign},
        {.name = "CriticalUnknownExtensionOfTheAuthority",
         .leaf = person(odd).certificate,
         .untrusted = {odd.certificate},
         .openssl = {{34, 1}},
         .reasons = {{Code::criticalExtensionUnknown, 1}}},
        {.name = "CriticalUnknownExtensionOfTheAnchor",
         .leaf = person(underOdd).certificate,
         .anchors = {oddRoot.certificate},
         .untrusted = {underOdd.certificate},
         .openssl = {{34, 2}},
         .reasons = {{Code::criticalExtensionUnknown, 2}}},
        // Several things wrong in several places: none hides another.
        {.name = "ExpiredAndForServersAndCritical",
         .leaf = person(odd, {.notAfter = ago(day), .extendedKeyUsage = {"serverAuth"}}).certificate,
         .untrusted = {odd.certificate},
         .purpose = For::sign,
         .openssl = {{34, 1}, {26, 0}, {10, 0}},
         .reasons = {{Code::criticalExtensionUnknown, 1},
                     {Code::extendedKeyUsageForbids, 0},
                     {Code::certificateExpired, 0}}},
    };
}

} // namespace

std::vector<Case> usageCases() {
    std::vector<Case> all = persons();
    const std::vector<Case> more = authorities();
    all.insert(all.end(), more.begin(), more.end());
    return all;
}

} // namespace agreement
