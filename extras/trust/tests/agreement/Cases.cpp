#include "Cases.h"

namespace agreement {

namespace {

/// Fills what tests of paths do not care about.
CertificateRequest completed(CertificateRequest request, const char* name) {
    static unsigned int serials = 0x1000;
    if (request.subject.der() == norvauthority::Name().der())
        request.subject = {{"C", "DE"}, {"CN", name}};
    if (!request.key)
        request.key = Key::ec();
    if (request.serial == "1")
        request.serial = std::to_string(++serials);
    return request;
}

CertificateRequest authorityRequest(CertificateRequest request, const char* name) {
    request = completed(std::move(request), name);
    if (request.version == 3) {
        request.ca = request.ca.value_or(true);
        request.keyUsage = request.keyUsage.value_or(0x06U); // certificates and lists
    }
    return request;
}

} // namespace

std::time_t now() {
    static const std::time_t moment = std::time(nullptr);
    return moment;
}

Identity anchor(CertificateRequest request) {
    return issue(authorityRequest(std::move(request), "Root"));
}

Identity authority(const Identity& issuer, CertificateRequest request) {
    request.issuer = &issuer;
    return issue(authorityRequest(std::move(request), "Authority"));
}

Identity person(const Identity& issuer, CertificateRequest request) {
    request.issuer = &issuer;
    if (request.alternativeNames.empty())
        request.alternativeNames = {GeneralName::email("alice@example.org")};
    return issue(completed(std::move(request), "Alice"));
}

const Identity& root() {
    static const Identity made = anchor();
    return made;
}

const Identity& middle() {
    static const Identity made = authority(root());
    return made;
}

Crl listOf(const Identity& issuer, CrlRequest request) {
    request.issuer = &issuer;
    if (!request.crlNumber)
        request.crlNumber = "1";
    return issueList(request);
}

norvauthority::Revoked revoked(const Identity& who) {
    return {.serial = who.serial};
}

} // namespace agreement
