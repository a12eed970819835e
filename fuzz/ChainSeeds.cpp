#include "Seeds.h"
#include "TrustAnchor.h"

#include <authority/Path.h>

#include <vector>

namespace fuzz {

namespace {

using namespace norvauthority;

const Time early = Time::utc("200101000000Z");
const Time late = Time::utc("490101000000Z");

std::string text(const Bytes& octets) {
    return {octets.begin(), octets.end()};
}

Identity authority(const std::string& name, const Identity& issuer, CertificateRequest request = {}) {
    request.subject = {{"CN", name}};
    request.key = trustKey();
    request.issuer = &issuer;
    request.serial = "c0";
    request.notBefore = early;
    request.notAfter = late;
    request.ca = true;
    request.keyUsage = 0x06U;
    return issue(request);
}

Identity anna(const Identity& issuer, CertificateRequest request = {}) {
    request.subject = {{"CN", "Anna"}, {"emailAddress", "anna@example.org", 22}};
    request.key = trustKey();
    request.issuer = &issuer;
    request.serial = "a1";
    request.notBefore = early;
    request.notAfter = late;
    request.keyUsage = 0x80U;
    request.extendedKeyUsage = {"emailProtection"};
    request.alternativeNames = {GeneralName::email("anna@example.org")};
    return issue(request);
}

Crl list(const Identity& issuer, CrlRequest request = {}) {
    request.issuer = &issuer;
    request.thisUpdate = early;
    request.nextUpdate = late;
    if (!request.crlNumber) {
        request.crlNumber = "1";
    }
    return issueList(request);
}

void chain(const std::string& name, const std::string& choices, const std::vector<Bytes>& parts) {
    const std::string octets = text(der::concat(parts));
    put("fuzz_trust", name, choices + octets);
    put("fuzz_material", name, octets);
}

std::vector<Bytes> constrained(const Identity& root) {
    const Bytes subtree = der::sequence({GeneralName::email("example.org").der});
    const Bytes other = der::sequence({GeneralName::dns("example.net").der});
    const Identity middle =
        authority("Constrained", root,
                  {.pathLength = 0,
                   .extensions = {{"2.5.29.30",
                                   der::sequence({der::element(der::contextConstructed(0), der::concat({subtree})),
                                                  der::element(der::contextConstructed(1), der::concat({other}))}),
                                   true}}});
    return {anna(middle).certificate.der, middle.certificate.der};
}

std::vector<Bytes> underPolicies(const Identity& root) {
    const auto policies = [](const char* policy) {
        return Extension{"2.5.29.32", der::sequence({der::sequence({der::oid(policy)})}), false};
    };
    const Extension mapping{"2.5.29.33", der::sequence({der::sequence({der::oid("1.2.3"), der::oid("1.2.4")})}), true};
    const Extension demand{"2.5.29.36", der::sequence({der::element(der::context(0), {0})}), true};
    const Identity middle = authority("Policies", root, {.extensions = {policies("1.2.3"), mapping, demand}});
    return {anna(middle, {.extensions = {policies("1.2.4")}}).certificate.der, middle.certificate.der};
}

std::vector<Bytes> withLists(const Identity& root) {
    DistributionPoint point;
    point.name = DistributionPointName{.full = {GeneralName::uri("http://example.org/a.crl")}};
    const Identity middle = authority("Lists", root, {.crlDistributionPoints = {point}});
    const Identity user = anna(middle, {.crlDistributionPoints = {point}});
    const IssuingDistributionPoint scope{.name = point.name};
    return {user.certificate.der, middle.certificate.der, list(root, {.scope = scope}).der,
            list(middle, {.revoked = {{.serial = "77"}}, .scope = scope}).der,
            list(middle, {.revoked = {{.serial = "a1", .date = early, .reason = 1}},
                          .crlNumber = "2",
                          .deltaBase = "1",
                          .scope = scope})
                .der};
}

} // namespace

void chainSeeds() {
    const Identity& root = trustAnchor();
    const Identity middle = authority("Middle", root);
    const std::string signs{1, 1, 0, 7};
    chain("short", signs, {anna(root).certificate.der});
    chain("long", signs, {anna(middle).certificate.der, middle.certificate.der, root.certificate.der});
    chain("as-it-is", std::string{0, 1, 0, 7}, {anna(middle).certificate.der, middle.certificate.der});
    chain("constrained", signs, constrained(root));
    chain("policies", std::string{1, 1, 0, static_cast<char>(0x87)}, underPolicies(root));
    chain("lists", std::string{1, 2, 2, 7}, withLists(root));
    // Two that issued each other.
    const Identity one = authority("One", root);
    const Identity other = authority("Other", one);
    const Identity again = authority("One", other);
    chain("loop", signs, {anna(again).certificate.der, again.certificate.der, other.certificate.der});
    put("fuzz_material", "pem", middle.certificate.pem() + "text\n" + list(root).pem() + root.certificate.pem());
}

void extensionSeeds() {
    const Bytes names = generalNames(
        {GeneralName::email("alice@example.org"), GeneralName::dns("example.org"), GeneralName::ip("192.0.2.1"),
         GeneralName::ip("2001:db8::1"), GeneralName::uri("http://example.org/"),
         GeneralName::directory(Name{{"CN", "Alice"}}), GeneralName::registeredId("1.2.3"),
         GeneralName::otherName("1.3.6.1.5.5.7.8.9", der::element(12, bytes("a\xC3\xA9@example.org")))});
    const Bytes identifier =
        der::sequence({der::element(der::context(0), Bytes(20, 1)),
                       der::element(der::contextConstructed(1), GeneralName::directory(Name{{"CN", "CA"}}).der),
                       der::element(der::context(2), {7})});
    const Bytes access = der::sequence({der::sequence({der::oid("OCSP"), GeneralName::uri("http://o/").der}),
                                        der::sequence({der::oid("caIssuers"), GeneralName::uri("ldap://h/cn=a").der})});
    DistributionPoint point;
    point.name = DistributionPointName{.full = {GeneralName::uri("http://example.org/a.crl")}};
    point.issuers = {GeneralName::directory({{"CN", "Lists"}})};
    put("fuzz_extension", "key-identifier", '\0' + text(identifier));
    put("fuzz_extension", "constraints", '\1' + text(der::sequence({der::boolValue(true), der::integer("3")})));
    put("fuzz_extension", "names", '\2' + text(names));
    put("fuzz_extension", "access", '\3' + text(access));
    put("fuzz_extension", "points", '\4' + text(distributionPoints({point})));
    for (const auto& [oid, value] :
         {std::pair{"2.5.29.17", names}, {"1.3.6.1.5.5.7.1.1", access}, {"2.5.29.35", identifier}}) {
        put("fuzz_extension", std::string("whole-") + oid,
            '\x80' + text(der::sequence({der::oid(oid), der::boolValue(true), der::octetString(value)})));
    }
}

} // namespace fuzz
