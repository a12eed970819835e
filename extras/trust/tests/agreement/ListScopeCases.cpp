// Revocation lists that cover a part: distribution points, kinds of certificates, reasons, other issuers, and what changed
// since an earlier list (RFC 5280, 5.2.4, 5.2.5 and 6.3).

#include "Cases.h"

namespace agreement {

namespace {

using norvauthority::DistributionPoint;
using norvauthority::DistributionPointName;
using norvauthority::IssuingDistributionPoint;

constexpr const char* firstPlace = "http://lists.example/1.crl";
constexpr const char* secondPlace = "http://lists.example/2.crl";
/// Bits of ReasonFlags (RFC 5280, 4.2.1.13): keyCompromise and cACompromise, and all others.
const norvauthority::Bytes compromises{0x60};
const norvauthority::Bytes otherReasons{0x1F, 0x80};

DistributionPointName at(const std::string& uri) {
    return {.full = {GeneralName::uri(uri)}};
}

const Crl& rootList() {
    static const Crl list = listOf(root());
    return list;
}

Case required(const std::string& name, const Identity& who, const std::vector<Crl>& ofAuthority,
              const std::vector<Error>& openssl = {}, const std::vector<Finding>& reasons = {}) {
    Case one{.name = name,
             .leaf = who.certificate,
             .lists = ofAuthority,
             .revocation = Lists::required,
             .openssl = openssl,
             .reasons = reasons};
    one.lists.push_back(rootList());
    return one;
}

std::vector<Case> partitions() {
    const Identity alice = person(middle(), {.crlDistributionPoints = {{.name = at(firstPlace)}}});
    const Identity noPoint = person(middle());
    const auto listAt = [](const char* place, const std::vector<norvauthority::Revoked>& entries) {
        return listOf(middle(), {.revoked = entries, .scope = IssuingDistributionPoint{.name = at(place)}});
    };
    const Identity relative =
        person(middle(), {.crlDistributionPoints = {
                              {.name = DistributionPointName{.relative = norvauthority::Name{{"CN", "Part 1"}}}}}});
    norvauthority::Name wholeName{{"C", "DE"}, {"CN", "Authority"}, {"CN", "Part 1"}};
    const Crl ofWholeName =
        listOf(middle(), {.scope = IssuingDistributionPoint{
                              .name = DistributionPointName{.full = {GeneralName::directory(wholeName)}}}});
    return {
        required("PartOfTheDistributionPoint", alice, {listAt(firstPlace, {})}),
        required("PartOfTheDistributionPointRevokes", alice, {listAt(firstPlace, {revoked(alice)})}, {{23, 0}},
                 {{Code::revoked, 0}}),
        required("PartOfAnotherDistributionPoint", alice, {listAt(secondPlace, {})}, {{44, 0}},
                 {{Code::listScopeDiffers, 0}}),
        required("PartOfAnotherDistributionPointRevokes", alice, {listAt(secondPlace, {revoked(alice)})}, {{44, 0}},
                 {{Code::listScopeDiffers, 0}}),
        required("BothParts", alice, {listAt(secondPlace, {}), listAt(firstPlace, {})}),
        required("BothPartsTheRightOneRevokes", alice, {listAt(secondPlace, {}), listAt(firstPlace, {revoked(alice)})},
                 {{23, 0}}, {{Code::revoked, 0}}),
        required("PartForACertificateWithoutDistributionPoint", noPoint, {listAt(firstPlace, {})}, {{44, 0}},
                 {{Code::listScopeDiffers, 0}}),
        required("WholeListForACertificateWithDistributionPoint", alice, {listOf(middle())}),
        required("DistributionPointRelativeToTheIssuer", relative, {ofWholeName}),
    };
}

std::vector<Case> kinds() {
    const Identity alice = person(middle());
    const auto of = [](const IssuingDistributionPoint& scope) { return listOf(middle(), {.scope = scope}); };
    Case forRoot = required("ListOfTheRootForAuthorities", alice, {listOf(middle())});
    forRoot.lists = {listOf(middle()), listOf(root(), {.scope = IssuingDistributionPoint{.onlyCa = true}})};
    Case forUsers = forRoot;
    forUsers.name = "ListOfTheRootForPersons";
    forUsers.lists = {listOf(middle()), listOf(root(), {.scope = IssuingDistributionPoint{.onlyUser = true}})};
    forUsers.openssl = {{44, 1}};
    forUsers.reasons = {{Code::listScopeDiffers, 1}};
    return {
        required("ListForPersons", alice, {of({.onlyUser = true})}),
        required("ListForAuthorities", alice, {of({.onlyCa = true})}, {{44, 0}}, {{Code::listScopeDiffers, 0}}),
        required("ListForAttributes", alice, {of({.onlyAttribute = true})}, {{44, 0}}, {{Code::listScopeDiffers, 0}}),
        required("ListForPersonsAndAuthorities", alice, {of({.onlyUser = true, .onlyCa = true})}, {{3, 0}},
                 {{Code::listMissing, 0}}),
        forRoot,
        forUsers,
    };
}

std::vector<Case> reasons() {
    const Identity alice = person(middle(), {.crlDistributionPoints = {{.name = at(firstPlace)}}});
    const auto forReasons = [](const norvauthority::Bytes& which, const std::vector<norvauthority::Revoked>& entries) {
        return listOf(middle(), {.revoked = entries,
                                 .scope = IssuingDistributionPoint{.name = at(firstPlace), .reasons = which}});
    };
    return {
        required("ListsForAllReasons", alice, {forReasons(compromises, {}), forReasons(otherReasons, {})}),
        required("ListForSomeReasons", alice, {forReasons(compromises, {})}, {{3, 0}}, {{Code::listMissing, 0}}),
        required("ListForSomeReasonsRevokes", alice,
                 {forReasons(compromises, {revoked(alice)}), forReasons(otherReasons, {})}, {{23, 0}},
                 {{Code::revoked, 0}}),
    };
}

std::vector<Case> indirect() {
    const Identity lists = norvauthority::issue(
        {.subject = {{"CN", "Lists"}}, .key = Key::ec(), .issuer = &root(), .serial = "801", .keyUsage = 0x02});
    const DistributionPoint point{.name = at(firstPlace), .issuers = {GeneralName::directory(lists.name)}};
    const Identity alice = person(middle(), {.crlDistributionPoints = {point}});
    const IssuingDistributionPoint scope{.name = at(firstPlace), .indirect = true};
    const auto list = [&](const std::vector<norvauthority::Revoked>& entries) {
        return listOf(lists, {.revoked = entries, .scope = scope});
    };
    norvauthority::Revoked ofMiddle = revoked(alice);
    ofMiddle.certificateIssuer = middle().name;
    norvauthority::Revoked ofRoot = revoked(alice);
    ofRoot.certificateIssuer = root().name;
    const norvauthority::Revoked ofLists = revoked(alice);
    norvauthority::Revoked another{.serial = "7777"};
    another.certificateIssuer = middle().name;
    const auto with = [&](const std::string& name, const Crl& one, const std::vector<Error>& openssl = {},
                          const std::vector<Finding>& reasons = {}) {
        Case made = required(name, alice, {one}, openssl, reasons);
        made.untrusted = {middle().certificate, lists.certificate};
        return made;
    };
    Case noSigner =
        required("IndirectListWhoseSignerIsMissing", alice, {list({})}, {{3, 0}}, {{Code::listSignerMissing, 0}});
    const Identity expired = norvauthority::issue({.subject = {{"CN", "Lists"}},
                                                   .key = Key::ec(),
                                                   .issuer = &root(),
                                                   .serial = "802",
                                                   .notAfter = ago(day),
                                                   .keyUsage = 0x02});
    Case expiredSigner = required("IndirectListWhoseSignerExpired", alice, {listOf(expired, {.scope = scope})},
                                  {{10, 0, true}}, {{Code::certificateExpired, 0}});
    expiredSigner.opensslAccepts = true;
    expiredSigner.untrusted = {middle().certificate, expired.certificate};
    const auto signedByWeak = [&](const std::string& name, CertificateRequest signer, const Error& error, Code code) {
        signer.subject = lists.name;
        signer.key = signer.key ? signer.key : Key::ec();
        signer.issuer = &root();
        signer.serial = "803";
        signer.keyUsage = 0x02;
        const Identity weak = norvauthority::issue(signer);
        Case one = required(name, alice, {listOf(weak, {.scope = scope})}, {{54, 0}, error}, {{code, 0}});
        one.untrusted = {middle().certificate, weak.certificate};
        return one;
    };
    const Identity plain = person(middle());
    Case notNamed =
        required("IndirectListThatTheCertificateDoesNotName", plain, {list({})}, {{44, 0}}, {{Code::listMissing, 0}});
    notNamed.untrusted = {middle().certificate, lists.certificate};
    return {
        with("IndirectList", list({})),
        with("IndirectListRevokes", list({ofMiddle}), {{23, 0}}, {{Code::revoked, 0}}),
        with("IndirectListRevokesANamesakeOfAnotherIssuer", list({ofRoot})),
        with("IndirectListRevokesANamesakeOfItsOwn", list({ofLists})),
        // An entry without issuer is of the issuer of the entry before it (RFC 5280, 5.3.3).
        with("IndirectListRevokesInTheRowOfAnIssuer", list({another, ofLists}), {{23, 0}}, {{Code::revoked, 0}}),
        noSigner,
        expiredSigner,
        signedByWeak("IndirectListWhoseSignerHasRsa1024", {.key = Key::rsa(1024)}, {66, 0, true}, Code::keyTooShort),
        signedByWeak("IndirectListWhoseSignerWasSignedWithSha1", {.digest = "SHA1"}, {68, 0, true},
                     Code::digestTooWeak),
        notNamed,
    };
}

std::vector<Case> deltas() {
    const Identity alice = person(middle());
    norvauthority::Revoked held = revoked(alice);
    held.reason = 6; // certificateHold
    norvauthority::Revoked released = revoked(alice);
    released.reason = 8; // removeFromCRL
    const std::vector<DistributionPoint> fresh{{.name = at(secondPlace)}};
    const auto base = [&](const std::vector<norvauthority::Revoked>& entries, const std::string& number = "5") {
        return listOf(middle(),
                      {.revoked = entries, .thisUpdate = ago(2 * day), .crlNumber = number, .freshest = fresh});
    };
    const auto delta = [](const std::vector<norvauthority::Revoked>& entries, const std::string& number,
                          const std::string& since) {
        return listOf(middle(), {.revoked = entries, .crlNumber = number, .deltaBase = since});
    };
    const auto earlier =
        listOf(middle(), {.thisUpdate = ago(day), .crlNumber = "6", .deltaBase = "5"}); // before it was revoked
    const Identity impostor{Key::ec(), {}, middle().name, "66", middle().keyIdentifier};
    return {
        required("DeltaList", alice, {base({}), delta({}, "6", "5")}),
        required("DeltaListRevokes", alice, {base({}), delta({revoked(alice)}, "6", "5")}, {{23, 0}},
                 {{Code::revoked, 0}}),
        required("DeltaListReleases", alice, {base({held}), delta({released}, "6", "5")}),
        required("DeltaListSaysNothingOfOneOnHold", alice, {base({held}), delta({}, "6", "5")}, {{23, 0}},
                 {{Code::revoked, 0}}),
        required("DeltaListOfALaterBase", alice, {base({}), delta({revoked(alice)}, "8", "7")}),
        required("DeltaListOlderThanTheBase", alice, {base({}, "9"), delta({revoked(alice)}, "6", "5")}),
        required("DeltaListAlone", alice, {delta({}, "6", "5")}, {{3, 0}}, {{Code::listMissing, 0}}),
        required("DeltaListAloneRevokes", alice, {delta({revoked(alice)}, "6", "5")}, {{3, 0}},
                 {{Code::listMissing, 0}}),
        required("TwoDeltaListsTheNewerOneFirst", alice, {base({}), delta({revoked(alice)}, "7", "5"), earlier},
                 {{23, 0}}, {{Code::revoked, 0}}),
        required("TwoDeltaListsTheNewerOneLast", alice, {base({}), earlier, delta({revoked(alice)}, "7", "5")}, {},
                 {{Code::revoked, 0}}),
        required("DeltaListForged", alice,
                 {base({}), listOf(impostor, {.revoked = {revoked(alice)}, .crlNumber = "6", .deltaBase = "5"})},
                 {{8, 0}}, {{Code::listSignatureWrong, 0}}),
    };
}

} // namespace

std::vector<Case> listScopeCases() {
    std::vector<Case> all = partitions();
    for (const auto& some : {kinds(), reasons(), indirect(), deltas()})
        all.insert(all.end(), some.begin(), some.end());
    return all;
}

} // namespace agreement
