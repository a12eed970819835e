// Revocation lists that cover all that their issuer issues.

#include "Cases.h"

namespace agreement {

namespace {

/// What is unset here is good: lists of root and authority that hold now and revoke nobody.
Case required(const std::string& name, const Identity& who, std::vector<Crl> lists,
              const std::vector<Error>& openssl = {}, const std::vector<Finding>& reasons = {}) {
    return {.name = name,
            .leaf = who.certificate,
            .lists = std::move(lists),
            .revocation = Lists::required,
            .openssl = openssl,
            .reasons = reasons};
}

const Crl& rootList() {
    static const Crl list = listOf(root());
    return list;
}

Extension criticalUnknown() {
    return {.oid = "1.3.6.1.4.1.99999.2", .value = norvauthority::der::null(), .critical = true};
}

std::vector<Case> revocations() {
    const Identity alice = person(middle());
    const Identity other = person(middle());
    const Identity negative = person(middle(), {.serial = "-5f"});
    norvauthority::Revoked later = revoked(alice);
    later.date = ahead(3600);
    norvauthority::Revoked held = revoked(alice);
    held.reason = 6; // certificateHold
    norvauthority::Revoked released = revoked(alice);
    released.reason = 8; // removeFromCRL, which has a meaning in delta lists alone
    norvauthority::Revoked odd = revoked(other);
    odd.extensions = {criticalUnknown()};
    return {
        required("NobodyRevoked", alice, {rootList(), listOf(middle())}),
        required("AnotherOneRevoked", alice, {rootList(), listOf(middle(), {.revoked = {revoked(other)}})}),
        required("PersonRevoked", alice, {rootList(), listOf(middle(), {.revoked = {revoked(alice)}})}, {{23, 0}},
                 {{Code::revoked, 0}}),
        required("PersonOfNegativeNumberRevoked", negative,
                 {rootList(), listOf(middle(), {.revoked = {revoked(negative)}})}, {{23, 0}}, {{Code::revoked, 0}}),
        required("AuthorityRevoked", alice, {listOf(root(), {.revoked = {revoked(middle())}}), listOf(middle())},
                 {{23, 1}}, {{Code::revoked, 1}}),
        required("PersonAndAuthorityRevoked", alice,
                 {listOf(root(), {.revoked = {revoked(middle())}}), listOf(middle(), {.revoked = {revoked(alice)}})},
                 {{23, 0}}, {{Code::revoked, 0}, {Code::revoked, 1}}),
        required("RevokedWithADateToCome", alice, {rootList(), listOf(middle(), {.revoked = {later}})}, {{23, 0}},
                 {{Code::revoked, 0}}),
        required("RootRevokedByItsOwnList", alice, {listOf(root(), {.revoked = {revoked(root())}}), listOf(middle())},
                 {{23, 2}}, {{Code::revoked, 2}}),
        required("PersonOnHold", alice, {rootList(), listOf(middle(), {.revoked = {held}})}, {{23, 0}},
                 {{Code::revoked, 0}}),
        required("RemovedFromACompleteList", alice, {rootList(), listOf(middle(), {.revoked = {released}})}),
        required("CriticalUnknownExtensionOfAnotherEntry", alice, {rootList(), listOf(middle(), {.revoked = {odd}})},
                 {{36, 0}}, {{Code::listCriticalExtensionUnknown, 0}}),
    };
}

std::vector<Case> periods() {
    const Identity alice = person(middle());
    const auto lists = [](const CrlRequest& request) {
        return std::vector<Crl>{rootList(), listOf(middle(), request)};
    };
    const CrlRequest stale{.thisUpdate = ago(9 * day), .nextUpdate = ago(2 * day)};
    const CrlRequest future{.thisUpdate = ahead(day), .nextUpdate = ahead(9 * day)};
    CrlRequest staleAndRevoked = stale;
    staleAndRevoked.revoked = {revoked(alice)};
    std::vector<Crl> olderBesideStale = lists(staleAndRevoked);
    olderBesideStale.push_back(listOf(middle(), {.thisUpdate = ago(10 * day)}));
    const std::vector<Crl> freshBesideStale{rootList(), listOf(middle(), stale), listOf(middle(), {.crlNumber = "2"})};
    std::vector<Crl> newerRevokes = lists({.thisUpdate = ago(2 * day)});
    newerRevokes.push_back(listOf(middle(), {.revoked = {revoked(alice)}, .thisUpdate = ago(day), .crlNumber = "2"}));
    const CrlRequest earlier{.thisUpdate = ago(day), .crlNumber = "2"};
    CrlRequest later = earlier;
    later.crlNumber = "3";
    later.revoked = {revoked(alice)};
    std::vector<Crl> laterFirst = lists(later);
    laterFirst.push_back(listOf(middle(), earlier));
    std::vector<Crl> laterLast = lists(earlier);
    laterLast.push_back(listOf(middle(), later));
    const std::vector<Crl> staleOfRoot{listOf(root(), stale), listOf(middle())};
    return {
        required("ListStale", alice, lists(stale), {{12, 0}}, {{Code::listExpired, 0}}),
        required("ListOfTheRootStale", alice, staleOfRoot, {{12, 1}, {12, 2}}, {{Code::listExpired, 1}}),
        required("ListFromTheFuture", alice, lists(future), {{11, 0}}, {{Code::listNotYetValid, 0}}),
        required("StaleListRevokes", alice, lists(staleAndRevoked), {{12, 0}, {23, 0}},
                 {{Code::listExpired, 0}, {Code::revoked, 0}}),
        required("ListWithoutNextUpdate", alice, lists({.nextUpdate = std::nullopt})),
        required("ListOfVersionOne", alice, lists({.version = 1})),
        required("FreshListBesideAStaleOne", alice, freshBesideStale),
        required("OlderListBesideAStaleOneThatRevokes", alice, olderBesideStale, {},
                 {{Code::listExpired, 0}, {Code::revoked, 0}}),
        required("NewerListRevokes", alice, newerRevokes, {{23, 0}}, {{Code::revoked, 0}}),
        required("TwoListsOfOneSecondTheLaterOneFirst", alice, laterFirst, {{23, 0}}, {{Code::revoked, 0}}),
        required("TwoListsOfOneSecondTheLaterOneLast", alice, laterLast, {}, {{Code::revoked, 0}}),
    };
}

std::vector<Case> issuers() {
    const Identity alice = person(middle());
    const Identity impostor{Key::ec(), {}, middle().name, "66", middle().keyIdentifier};
    const Identity noLists = authority(root(), {.subject = {{"CN", "No Lists"}}, .keyUsage = 0x04});
    Case mayNot = required("AuthorityMayNotSignLists", person(noLists), {rootList(), listOf(noLists)}, {{35, 0}},
                           {{Code::listSigningForbidden, 0}});
    mayNot.untrusted = {noLists.certificate};
    // The authority signs certificates with one key and lists with another, both under its name.
    const Identity twoKeys = authority(root(), {.subject = {{"CN", "Two Keys"}}, .keyUsage = 0x04});
    const Identity forLists = norvauthority::issue(
        {.subject = twoKeys.name, .key = Key::ec(), .issuer = &root(), .serial = "712", .keyUsage = 0x02});
    Case separate =
        required("ListsSignedWithAnotherKeyOfTheAuthority", person(twoKeys), {rootList(), listOf(forLists)});
    separate.untrusted = {twoKeys.certificate, forLists.certificate};
    const Identity oldKey = authority(root(), {.subject = {{"CN", "Renewed"}}});
    const Identity newKey = authority(root(), {.subject = {{"CN", "Renewed"}}});
    Case ofOldKey = required("ListSignedWithTheNewKeyOfTheAuthority", person(oldKey), {rootList(), listOf(newKey)});
    ofOldKey.untrusted = {oldKey.certificate, newKey.certificate};
    return {
        mayNot,
        separate,
        ofOldKey,
        required("ListForged", alice, {rootList(), listOf(impostor)}, {{8, 0}}, {{Code::listSignatureWrong, 0}}),
        required("ListForgedThatRevokes", alice, {rootList(), listOf(impostor, {.revoked = {revoked(alice)}})},
                 {{8, 0}}, {{Code::listSignatureWrong, 0}}),
        required("CriticalUnknownExtensionOfTheList", alice,
                 {rootList(), listOf(middle(), {.extensions = {criticalUnknown()}})}, {{36, 0}},
                 {{Code::listCriticalExtensionUnknown, 0}}),
        required("ListOfSha1", alice, {rootList(), listOf(middle(), {.digest = "SHA1"})}),
    };
}

std::vector<Case> missing() {
    const Identity alice = person(middle());
    Case available{.name = "NoListAndNoneDemanded", .leaf = alice.certificate, .revocation = Lists::available};
    Case onlyOne = available;
    onlyOne.name = "ListOfTheAuthorityAlone";
    onlyOne.lists = {listOf(middle())};
    onlyOne.opensslMore = {"-crl_check"};
    Case revokes = onlyOne;
    revokes.name = "AvailableListRevokes";
    revokes.lists = {listOf(middle(), {.revoked = {revoked(alice)}})};
    revokes.openssl = {{23, 0}};
    revokes.reasons = {{Code::revoked, 0}};
    Case ofRoot = available;
    ofRoot.name = "AvailableListRevokesTheAuthority";
    ofRoot.lists = {listOf(root(), {.revoked = {revoked(middle())}}), listOf(middle())};
    ofRoot.opensslMore = {"-crl_check_all"};
    ofRoot.openssl = {{23, 1}};
    ofRoot.reasons = {{Code::revoked, 1}};
    Case stale = onlyOne;
    stale.name = "AvailableListStale";
    stale.lists = {listOf(middle(), {.thisUpdate = ago(9 * day), .nextUpdate = ago(day)})};
    stale.openssl = {{12, 0}};
    Case notAsked{.name = "ListsNotLookedAt",
                  .leaf = alice.certificate,
                  .lists = {listOf(middle(), {.revoked = {revoked(alice)}})}};
    return {required("NoListAtAll", alice, {}, {{3, 0}}, {{Code::listMissing, 0}, {Code::listMissing, 1}}),
            required("NoListOfTheAuthority", alice, {rootList()}, {{3, 0}}, {{Code::listMissing, 0}}),
            required("NoListOfTheRoot", alice, {listOf(middle())}, {{3, 1}}, {{Code::listMissing, 1}}),
            available,
            onlyOne,
            revokes,
            ofRoot,
            stale,
            notAsked};
}

} // namespace

std::vector<Case> listCases() {
    std::vector<Case> all = revocations();
    for (const auto& some : {periods(), issuers(), missing()})
        all.insert(all.end(), some.begin(), some.end());
    return all;
}

} // namespace agreement
