// How a path is found, and what its certificates say about being authorities.

#include "Cases.h"

namespace agreement {

namespace {

Case plain() {
    return {.name = "RootAuthorityPerson", .leaf = person(middle()).certificate};
}

/// Names that are equal by RFC 5280, 7.1, in other encodings and spaces.
Case nameInOtherEncoding() {
    const Identity same = authority(root(), {.subject = {{"C", "DE", V_ASN1_PRINTABLESTRING}, {"CN", "An Authority"}}});
    CertificateRequest request{.issuerName = norvauthority::Name{{"C", "DE", V_ASN1_PRINTABLESTRING},
                                                                 {"CN", "an  AUTHORITY ", V_ASN1_PRINTABLESTRING}}};
    return {.name = "IssuerNameInOtherCaseAndEncoding",
            .leaf = person(same, request).certificate,
            .untrusted = {same.certificate}};
}

std::vector<Case> missing() {
    const Identity other = anchor({.subject = {{"CN", "Other Root"}}});
    const Identity ofOther = authority(other);
    // The same name as the root, another key: the key identifiers tell them apart.
    const Identity namesake = anchor();
    return {
        {.name = "IssuerMissing",
         .leaf = person(middle()).certificate,
         .alone = true,
         .openssl = {{20, 0}},
         .reasons = {{Code::issuerMissing, 0}}},
        {.name = "IssuerOfTheAuthorityMissing",
         .leaf = person(ofOther).certificate,
         .untrusted = {ofOther.certificate},
         .openssl = {{20, 1}},
         .reasons = {{Code::issuerMissing, 1}}},
        {.name = "RootNotAmongTheAnchors",
         .leaf = person(ofOther).certificate,
         .untrusted = {ofOther.certificate, other.certificate},
         .openssl = {{19, 2}},
         .reasons = {{Code::rootNotTrusted, 2}}},
        {.name = "AnchorIsANamesakeWithAnotherKey",
         .leaf = person(middle()).certificate,
         .anchors = {namesake.certificate},
         .openssl = {{20, 1}},
         .reasons = {{Code::issuerMissing, 1}}},
        {.name = "AuthorityAsAnchorWithoutItsRoot",
         .leaf = person(middle()).certificate,
         .anchors = {middle().certificate},
         .alone = true,
         .openssl = {{2, 1}},
         .reasons = {{Code::issuerMissing, 1}}},
        {.name = "AuthorityAsAnchorOfAPartialChain",
         .leaf = person(middle()).certificate,
         .anchors = {middle().certificate},
         .alone = true,
         .partialChain = true},
    };
}

std::vector<Case> selfSigned() {
    const Identity self = norvauthority::issue({.subject = {{"CN", "Self"}},
                                                .key = Key::ec(),
                                                .serial = "77",
                                                .alternativeNames = {GeneralName::email("self@example.org")}});
    return {
        {.name = "SelfSignedPerson",
         .leaf = self.certificate,
         .openssl = {{18, 0}},
         .reasons = {{Code::selfSigned, 0}}},
        {.name = "SelfSignedPersonAmongTheAnchors", .leaf = self.certificate, .anchors = {self.certificate}},
        {.name = "RootItself", .leaf = root().certificate},
    };
}

std::vector<Case> signatures() {
    const Identity forgedMiddle = authority(root(), {.signingKey = Key::ec()});
    // As above, under the anchor's name and without key identifiers: nothing but the signature tells the two apart.
    const CertificateRequest nameless{.subjectKeyIdentifier = false, .authorityKeyIdentifier = false};
    const Identity first = authority(root(), nameless);
    const Identity second = authority(root(), nameless);
    const Certificate ofSecond = person(second, nameless).certificate;
    const Identity one = authority(root());
    const Identity two = authority(root());
    return {
        {.name = "SignatureOfThePersonWrong",
         .leaf = person(middle(), {.signingKey = Key::ec()}).certificate,
         .openssl = {{7, 0}},
         .reasons = {{Code::signatureWrong, 0}}},
        {.name = "SignatureOfTheAuthorityWrong",
         .leaf = person(forgedMiddle).certificate,
         .untrusted = {forgedMiddle.certificate},
         .openssl = {{7, 1}},
         .reasons = {{Code::signatureWrong, 1}}},
        {.name = "TwoIssuersOfOneNameToldApartByKeyIdentifier",
         .leaf = person(two).certificate,
         .untrusted = {one.certificate, two.certificate}},
        {.name = "TwoIssuersOfOneNameTheRightOneFirst",
         .leaf = ofSecond,
         .untrusted = {second.certificate, first.certificate}},
        {.name = "TwoIssuersOfOneNameTheRightOneLast",
         .leaf = ofSecond,
         .untrusted = {first.certificate, second.certificate},
         .openssl = {{7, 0}},
         .reasons = {}},
    };
}

std::vector<Case> crossed() {
    const Identity newRoot = anchor({.subject = {{"CN", "New Root"}}});
    const Identity oldRoot = anchor({.subject = {{"CN", "Old Root"}}});
    const Identity cross = authority(oldRoot, {.subject = newRoot.name, .key = newRoot.key});
    const Identity under = authority(newRoot);
    const Certificate leaf = person(under).certificate;
    // Each of the two says that the other one issued it; no anchor anywhere.
    const Key keyOfB = Key::ec();
    const Identity stub{keyOfB, {}, {{"CN", "B"}}, "b1", keyOfB.identifier()};
    const Identity a = authority(stub, {.subject = {{"CN", "A"}}});
    const Identity b = authority(a, {.subject = {{"CN", "B"}}, .key = keyOfB});
    // B is signed by the root, too.
    const Identity bByRoot = authority(root(), {.subject = {{"CN", "B"}}, .key = keyOfB});
    const Identity expiredCross =
        authority(oldRoot, {.subject = newRoot.name, .key = newRoot.key, .notAfter = ago(day)});
    return {
        {.name = "CrossSignedToTheAnchor",
         .leaf = leaf,
         .anchors = {oldRoot.certificate},
         .untrusted = {under.certificate, cross.certificate}},
        {.name = "CrossSignedBesideTheSelfSignedOne",
         .leaf = leaf,
         .anchors = {oldRoot.certificate},
         .untrusted = {under.certificate, newRoot.certificate, cross.certificate},
         .openssl = {{19, 2}},
         .reasons = {}},
        {.name = "CrossSignedToBothAnchors",
         .leaf = leaf,
         .anchors = {newRoot.certificate, oldRoot.certificate},
         .untrusted = {under.certificate, cross.certificate}},
        {.name = "CrossSignedExpiredBesideTheValidOne",
         .leaf = leaf,
         .anchors = {oldRoot.certificate},
         .untrusted = {under.certificate, expiredCross.certificate, cross.certificate}},
        {.name = "LoopWithoutAnchor",
         .leaf = person(a).certificate,
         .untrusted = {a.certificate, b.certificate},
         .openssl = {{20, 2}},
         .reasons = {{Code::issuerMissing, 2}}},
        {.name = "LoopWithAWayOut",
         .leaf = person(a).certificate,
         .untrusted = {a.certificate, b.certificate, bByRoot.certificate},
         .openssl = {{20, 2}},
         .reasons = {}},
    };
}

/// So many authorities between root and person.
Case deep(const std::string& name, unsigned int count) {
    std::vector<Certificate> untrusted;
    Identity issuer = root();
    for (unsigned int at = 0; at != count; ++at) {
        issuer = authority(issuer, {.subject = {{"CN", "Authority " + std::to_string(at)}}});
        untrusted.push_back(issuer.certificate);
    }
    return {.name = name, .leaf = person(issuer).certificate, .untrusted = untrusted};
}

std::vector<Case> depths() {
    Case limited = deep("DeeperThanAskedFor", 5);
    limited.depth = 3;
    limited.openssl = {{22, 4}};
    limited.reasons = {{Code::chainTooLong, 4}};
    Case enough = deep("AsDeepAsAskedFor", 3);
    enough.depth = 3;
    return {deep("TwentyAuthorities", 20), limited, enough};
}

std::vector<Case> pathLengths() {
    const Identity narrow = authority(root(), {.subject = {{"CN", "Narrow"}}, .pathLength = 0});
    const Identity below = authority(narrow, {.subject = {{"CN", "Below"}}});
    // Issued to itself with another key: does not count (RFC 5280, 6.1.4 (l)).
    const Identity renewed = authority(narrow, {.subject = {{"CN", "Narrow"}}});
    const Identity one = authority(root(), {.subject = {{"CN", "One"}}, .pathLength = 1});
    const Identity belowOne = authority(one, {.subject = {{"CN", "Below"}}});
    const Identity narrowRoot = anchor({.subject = {{"CN", "Narrow Root"}}, .pathLength = 0});
    const Identity belowNarrowRoot = authority(narrowRoot);
    return {
        {.name = "PathLengthKept", .leaf = person(narrow).certificate, .untrusted = {narrow.certificate}},
        {.name = "PathLengthExceeded",
         .leaf = person(below).certificate,
         .untrusted = {narrow.certificate, below.certificate},
         .openssl = {{25, 2}},
         .reasons = {{Code::pathLengthExceeded, 2}}},
        {.name = "PathLengthOfOneKept",
         .leaf = person(belowOne).certificate,
         .untrusted = {one.certificate, belowOne.certificate}},
        {.name = "PathLengthDoesNotCountSelfIssued",
         .leaf = person(renewed).certificate,
         .untrusted = {narrow.certificate, renewed.certificate}},
        {.name = "PathLengthOfTheAnchorExceeded",
         .leaf = person(belowNarrowRoot).certificate,
         .anchors = {narrowRoot.certificate},
         .untrusted = {belowNarrowRoot.certificate},
         .openssl = {{25, 2}},
         .reasons = {{Code::pathLengthExceeded, 2}}},
    };
}

std::vector<Case> authorities() {
    const Identity versionOne = authority(root(), {.subject = {{"CN", "Version 1"}}, .version = 1});
    const Identity versionOneRoot = anchor({.subject = {{"CN", "Version 1 Root"}}, .version = 1});
    const Identity noConstraints = norvauthority::issue(
        {.subject = {{"CN", "No Constraints"}}, .key = Key::ec(), .issuer = &root(), .serial = "61", .keyUsage = 0x06});
    const Identity neither =
        norvauthority::issue({.subject = {{"CN", "Neither"}}, .key = Key::ec(), .issuer = &root(), .serial = "62"});
    const Identity noAuthority = authority(root(), {.subject = {{"CN", "No Authority"}}, .ca = false});
    const Identity noSigning = authority(root(), {.subject = {{"CN", "No Signing"}}, .keyUsage = 0x02});
    const Identity notCritical = authority(root(), {.basicConstraintsCritical = false});
    return {
        {.name = "AuthorityOfVersionOne",
         .leaf = person(versionOne).certificate,
         .untrusted = {versionOne.certificate},
         .openssl = {{79, 1}},
         .reasons = {{Code::notAnAuthority, 1}}},
        {.name = "AnchorOfVersionOne",
         .leaf = person(versionOneRoot).certificate,
         .anchors = {versionOneRoot.certificate},
         .alone = true},
        {.name = "BasicConstraintsMissing",
         .leaf = person(noConstraints).certificate,
         .untrusted = {noConstraints.certificate},
         .openssl = {{79, 1}},
         .reasons = {{Code::notAnAuthority, 1}}},
        {.name = "BasicConstraintsAndKeyUsageMissing",
         .leaf = person(neither).certificate,
         .untrusted = {neither.certificate},
         .openssl = {{79, 1}},
         .reasons = {{Code::notAnAuthority, 1}}},
        {.name = "BasicConstraintsSayNoAuthority",
         .leaf = person(noAuthority).certificate,
         .untrusted = {noAuthority.certificate},
         .openssl = {{79, 1}},
         .reasons = {{Code::notAnAuthority, 1}}},
        {.name = "BasicConstraintsNotCritical",
         .leaf = person(notCritical).certificate,
         .untrusted = {notCritical.certificate}},
        {.name = "AuthorityMayNotSignCertificates",
         .leaf = person(noSigning).certificate,
         .untrusted = {noSigning.certificate},
         .openssl = {{79, 1}, {32, 1}},
         .reasons = {{Code::certificateSigningForbidden, 1}}},
    };
}

} // namespace

std::vector<Case> pathCases() {
    std::vector<Case> all{plain(), nameInOtherEncoding()};
    for (const auto& some : {missing(), selfSigned(), signatures(), crossed(), depths(), pathLengths(), authorities()})
        all.insert(all.end(), some.begin(), some.end());
    return all;
}

std::vector<Case> periodCases() {
    const Identity expired = authority(root(), {.subject = {{"CN", "Expired"}}, .notAfter = ago(day)});
    const Identity future = authority(root(), {.subject = {{"CN", "Future"}}, .notBefore = ahead(day)});
    const Identity expiredRoot = anchor({.subject = {{"CN", "Expired Root"}}, .notAfter = ago(day)});
    const Identity under = authority(expiredRoot);
    const Identity oldRoot = anchor({.subject = {{"CN", "Old Root"}}, .notBefore = ago(700 * day)});
    const Identity oldAuthority = authority(oldRoot, {.notBefore = ago(700 * day)});
    const Identity once = person(oldAuthority, {.notBefore = ago(600 * day), .notAfter = ago(300 * day)});
    return {
        {.name = "PersonExpired",
         .leaf = person(middle(), {.notAfter = ago(day)}).certificate,
         .openssl = {{10, 0}},
         .reasons = {{Code::certificateExpired, 0}}},
        {.name = "PersonNotYetValid",
         .leaf = person(middle(), {.notBefore = ahead(day)}).certificate,
         .openssl = {{9, 0}},
         .reasons = {{Code::certificateNotYetValid, 0}}},
        {.name = "AuthorityExpired",
         .leaf = person(expired).certificate,
         .untrusted = {expired.certificate},
         .openssl = {{10, 1}},
         .reasons = {{Code::certificateExpired, 1}}},
        {.name = "AuthorityNotYetValid",
         .leaf = person(future).certificate,
         .untrusted = {future.certificate},
         .openssl = {{9, 1}},
         .reasons = {{Code::certificateNotYetValid, 1}}},
        {.name = "AnchorExpired",
         .leaf = person(under).certificate,
         .anchors = {expiredRoot.certificate},
         .untrusted = {under.certificate},
         .openssl = {{10, 2}},
         .reasons = {{Code::certificateExpired, 2}}},
        {.name = "PersonAndAuthorityExpired",
         .leaf = person(expired, {.notAfter = ago(day)}).certificate,
         .untrusted = {expired.certificate},
         .openssl = {{10, 0}, {10, 1}},
         .reasons = {{Code::certificateExpired, 0}, {Code::certificateExpired, 1}}},
        {.name = "ExpiredNowAndValidAtThatMoment",
         .leaf = once.certificate,
         .anchors = {oldRoot.certificate},
         .untrusted = {oldAuthority.certificate},
         .at = now() - 400 * day},
        {.name = "ValidNowAndNotYetAtThatMoment",
         .leaf = person(middle()).certificate,
         .at = now() - 400 * day,
         .openssl = {{9, 2}},
         .reasons = {{Code::certificateNotYetValid, 2},
                     {Code::certificateNotYetValid, 1},
                     {Code::certificateNotYetValid, 0}}},
        {.name = "TimeOfThePersonMalformed",
         .leaf = person(middle(), {.notAfter = Time::utc("9913990000Z")}).certificate,
         .openssl = {{14, 0}},
         .reasons = {{Code::validityUnreadable, 0}}},
    };
}

} // namespace agreement
