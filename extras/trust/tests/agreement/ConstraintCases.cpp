// Name constraints (RFC 5280, 4.2.1.10), of mail addresses above all.

#include "Cases.h"

namespace agreement {

namespace {

using norvauthority::Subtree;
namespace der = norvauthority::der;

/// A person under an authority with these constraints.
Case under(const std::string& name, const Extension& constraints, const CertificateRequest& who,
           const std::vector<Error>& openssl = {}, const std::vector<Finding>& reasons = {}) {
    const Identity narrow = authority(root(), {.subject = {{"CN", "Narrow"}}, .extensions = {constraints}});
    return {.name = name,
            .leaf = person(narrow, who).certificate,
            .untrusted = {narrow.certificate},
            .openssl = openssl,
            .reasons = reasons};
}

Extension permitted(const std::vector<GeneralName>& names) {
    std::vector<Subtree> trees;
    for (const GeneralName& name : names)
        trees.push_back({.base = name});
    return norvauthority::nameConstraints(trees);
}

Extension excluded(const GeneralName& name) {
    return norvauthority::nameConstraints({}, {{.base = name}});
}

CertificateRequest with(const std::vector<GeneralName>& names) {
    return {.alternativeNames = names};
}

CertificateRequest mail(const std::string& address) {
    return with({GeneralName::email(address)});
}

/// An address with letters beyond ASCII (RFC 9598).
GeneralName utf8Mailbox(const std::string& address) {
    return GeneralName::otherName("1.3.6.1.5.5.7.8.9", der::element(0x0C, norvauthority::bytes(address)));
}

std::vector<Case> addresses() {
    const Extension host = permitted({GeneralName::email("example.org")});
    const Extension domain = permitted({GeneralName::email(".example.org")});
    const Extension mailbox = permitted({GeneralName::email("alice@example.org")});
    const Extension notHost = excluded(GeneralName::email("example.org"));
    const Error no{47, 0};
    const Finding notPermitted{Code::nameNotPermitted, 0};
    return {
        under("MailHostPermitted", host, mail("bob@example.org")),
        under("MailHostPermittedInOtherCase", host, mail("bob@EXAMPLE.ORG")),
        under("MailHostNotPermitted", host, mail("bob@example.net"), {no}, {notPermitted}),
        under("MailHostDoesNotPermitHostsBelow", host, mail("bob@mail.example.org"), {no}, {notPermitted}),
        under("MailHostDoesNotPermitAnotherEnd", host, mail("bob@notexample.org"), {no}, {notPermitted}),
        under("MailDomainPermitted", domain, mail("bob@mail.example.org")),
        under("MailDomainDoesNotPermitItsHost", domain, mail("bob@example.org"), {no}, {notPermitted}),
        under("MailboxPermitted", mailbox, mail("alice@Example.org")),
        under("MailboxNotPermitted", mailbox, mail("bob@example.org"), {no}, {notPermitted}),
        under("MailboxInOtherCaseNotPermitted", mailbox, mail("Alice@example.org"), {no}, {notPermitted}),
        under("SecondAddressNotPermitted", host,
              with({GeneralName::email("a@example.org"), GeneralName::email("a@example.net")}), {no}, {notPermitted}),
        under("MailHostExcluded", notHost, mail("bob@example.org"), {{48, 0}}, {{Code::nameExcluded, 0}}),
        under("MailHostNotExcluded", notHost, mail("bob@example.net")),
        under("AddressInTheSubjectNotPermitted", host,
              {.subject = {{"CN", "Bob"}, {"emailAddress", "bob@example.net", V_ASN1_IA5STRING}},
               .alternativeNames = {GeneralName::email("bob@example.org")}},
              {no}, {notPermitted}),
        under("Utf8MailboxNotPermitted", host,
              with({utf8Mailbox("b\xC3\xB6"
                                "b@example.net")}),
              {no}, {notPermitted}),
        under("Utf8MailboxPermitted", host,
              with({utf8Mailbox("b\xC3\xB6"
                                "b@example.org")})),
        under("Utf8MailboxExcluded", excluded({GeneralName::email("xn--bcher-kva.example")}),
              with({utf8Mailbox("b\xC3\xB6"
                                "b@b\xC3\xBC"
                                "cher.example")}),
              {{48, 0}}, {{Code::nameExcluded, 0}}),
        under("Utf8MailboxExcludedInAnotherSpelling", excluded({GeneralName::email("xn--bcher-kva.example")}),
              with({utf8Mailbox("b\xC3\xB6"
                                "b@xn--bcher-kva.example")}),
              {}, {{Code::nameExcluded, 0}}),
        under("NamesOfOtherKindsAreFree", host, with({GeneralName::dns("example.net")})),
        under("AddressesAreFreeOfOtherKinds", permitted({GeneralName::dns("example.org")}), mail("bob@example.net")),
    };
}

std::vector<Case> otherKinds() {
    const norvauthority::Name org{{"C", "DE"}, {"O", "Org"}};
    const Extension directory = permitted({GeneralName::directory(org)});
    const Extension minimum =
        norvauthority::nameConstraints({{.base = GeneralName::email("example.org"), .minimum = "1"}});
    const Extension identifier = permitted({GeneralName::registeredId("1.2.3")});
    return {
        under("SubjectPermitted", directory, {.subject = {{"C", "DE"}, {"O", "Org"}, {"CN", "Bob"}}}),
        under("SubjectNotPermitted", directory, {.subject = {{"C", "DE"}, {"O", "Other"}, {"CN", "Bob"}}}, {{47, 0}},
              {{Code::nameNotPermitted, 0}}),
        under("MinimumOfASubtree", minimum, mail("bob@example.org"), {{49, 0}},
              {{Code::nameConstraintsUnsupported, 0}}),
        under("ConstraintOfAnUnsupportedKindMeetsNoName", identifier, mail("bob@example.org")),
        under("ConstraintOfAnUnsupportedKindMeetsAName", identifier, with({GeneralName::registeredId("1.2.3.4")}),
              {{51, 0}}, {{Code::nameConstraintsUnsupported, 0}}),
        under("CommonNameThatLooksLikeAHost", permitted({GeneralName::dns("example.org")}),
              {.subject = {{"CN", "mail.example.net"}}}, {{47, 0}}, {{Code::nameNotPermitted, 0}}),
    };
}

/// Two authorities, each with constraints: both count.
Case twice(const std::string& name, const std::string& address, const std::vector<Error>& openssl,
           const std::vector<Finding>& reasons) {
    const Identity wide = authority(
        root(), {.subject = {{"CN", "Wide"}},
                 .extensions = {permitted({GeneralName::email("example.org"), GeneralName::email("example.net")})}});
    const Identity narrow = authority(
        wide, {.subject = {{"CN", "Narrow"}},
               .extensions = {permitted({GeneralName::email("example.org"), GeneralName::email("example.com")})}});
    return {.name = name,
            .leaf = person(narrow, mail(address)).certificate,
            .untrusted = {wide.certificate, narrow.certificate},
            .openssl = openssl,
            .reasons = reasons};
}

/// As many names as constraints: what is compared is the product.
Case many(const std::string& name, std::size_t count, const std::vector<Error>& openssl,
          const std::vector<Finding>& reasons) {
    std::vector<GeneralName> names;
    std::vector<GeneralName> hosts;
    for (std::size_t at = 0; at != count; ++at) {
        names.push_back(GeneralName::email("a@" + std::to_string(at) + ".example"));
        hosts.push_back(GeneralName::email(std::to_string(at) + ".example"));
    }
    return under(name, permitted(hosts), with(names), openssl, reasons);
}

/// The anchor's own constraints, and those of an authority on the authority below.
std::vector<Case> above() {
    const Extension host = permitted({GeneralName::email("example.org")});
    const Identity narrowRoot = anchor({.subject = {{"CN", "Narrow Root"}}, .extensions = {host}});
    const Identity below = authority(narrowRoot);
    const Identity directory = authority(root(), {.subject = {{"C", "DE"}, {"CN", "Narrow"}},
                                                  .extensions = {permitted({GeneralName::directory({{"C", "DE"}})})}});
    const Identity abroad = authority(directory, {.subject = {{"C", "FR"}, {"CN", "Abroad"}}});
    return {
        {.name = "ConstraintsOfTheAnchor",
         .leaf = person(below, mail("bob@example.net")).certificate,
         .anchors = {narrowRoot.certificate},
         .untrusted = {below.certificate},
         .openssl = {{47, 0}},
         .reasons = {{Code::nameNotPermitted, 0}}},
        {.name = "NameOfTheAuthorityBelowNotPermitted",
         .leaf = person(abroad).certificate,
         .untrusted = {directory.certificate, abroad.certificate},
         .openssl = {{47, 1}},
         .reasons = {{Code::nameNotPermitted, 1}}},
    };
}

} // namespace

std::vector<Case> constraintCases() {
    std::vector<Case> all{twice("PermittedTwice", "bob@example.org", {}, {}),
                          twice("PermittedAboveAlone", "bob@example.net", {{47, 0}}, {{Code::nameNotPermitted, 0}}),
                          twice("PermittedBelowAlone", "bob@example.com", {{47, 0}}, {{Code::nameNotPermitted, 0}}),
                          many("HundredNamesAndConstraints", 100, {}, {}),
                          many("TwelveHundredNamesAndConstraints", 1200, {{1, 0}}, {{Code::tooMuchWork, 0}})};
    for (const auto& some : {addresses(), otherKinds(), above()})
        all.insert(all.end(), some.begin(), some.end());
    return all;
}

} // namespace agreement
