// Keys and digests, old and weak ones among them.

#include "Cases.h"

#include "support/Places.h"

namespace agreement {

namespace {

/// A path whose authority was signed with that digest, and one whose person was.
Case digestOfAuthority(const std::string& name, const std::string& digest, const std::vector<Error>& openssl,
                       const std::vector<Finding>& reasons) {
    const Identity issuer = authority(root(), {.subject = {{"CN", "Old"}}, .digest = digest});
    return {.name = name,
            .leaf = person(issuer).certificate,
            .untrusted = {issuer.certificate},
            .openssl = openssl,
            .reasons = reasons};
}

const Key& rsa1024() {
    static const Key key = Key::rsa(1024);
    return key;
}

} // namespace

std::vector<Case> algorithmCases() {
    const Identity oldRoot = anchor({.subject = {{"CN", "Old Root"}}, .digest = "SHA1"});
    const Identity underOld = authority(oldRoot);
    const Identity weak = authority(root(), {.subject = {{"CN", "Weak"}}, .key = rsa1024()});
    const Identity weakRoot = anchor({.subject = {{"CN", "Weak Root"}}, .key = rsa1024()});
    const Identity underWeak = authority(weakRoot);
    const Identity edwards = authority(root(), {.subject = {{"CN", "Edwards"}}, .key = Key::ed25519()});
    const Key rsa = Key::fromPem(norvtest::storedKeyPem("authority"));
    const Identity ofRsa = authority(root(), {.subject = {{"CN", "RSA"}}, .key = rsa});
    const Identity rsaRoot = anchor({.subject = {{"CN", "RSA Root"}}, .key = rsa});
    const Identity ofMd5 = authority(rsaRoot, {.subject = {{"CN", "Old"}}, .digest = "MD5"});
    const Identity ofMissing = authority(rsaRoot, {.subject = {{"CN", "Nobody's"}}, .digest = "MD5"});
    const Identity ofSha1 = authority(root(), {.subject = {{"CN", "Old"}}, .digest = "SHA1"});
    const Identity ofDsa =
        authority(root(), {.subject = {{"CN", "DSA"}}, .key = Key::fromPem(norvtest::storedKeyPem("dora"))});
    return {
        digestOfAuthority("AuthoritySignedWithSha1", "SHA1", {{68, 1}}, {{Code::digestTooWeak, 1}}),
        digestOfAuthority("AuthoritySignedWithSha224", "SHA224", {}, {}),
        {.name = "PersonSignedWithSha1",
         .leaf = person(middle(), {.digest = "SHA1"}).certificate,
         .openssl = {{68, 0}},
         .reasons = {{Code::digestTooWeak, 0}}},
        {.name = "PersonSignedWithMd5",
         .leaf = person(ofRsa, {.digest = "MD5"}).certificate,
         .untrusted = {ofRsa.certificate},
         .openssl = {{68, 0}},
         .reasons = {{Code::digestTooWeak, 0}}},
        {.name = "AnchorSignedWithSha1",
         .leaf = person(underOld).certificate,
         .anchors = {oldRoot.certificate},
         .untrusted = {underOld.certificate}},
        {.name = "RootSignedWithSha1IsNoAnchor",
         .leaf = person(underOld).certificate,
         .untrusted = {underOld.certificate, oldRoot.certificate},
         .openssl = {{19, 2}},
         .reasons = {{Code::rootNotTrusted, 2}}},
        {.name = "AuthoritySignedWithMd5OfAMissingRoot",
         .leaf = person(ofMissing).certificate,
         .untrusted = {ofMissing.certificate},
         .openssl = {{20, 1}},
         .reasons = {{Code::issuerMissing, 1}, {Code::digestTooWeak, 1}}},
        {.name = "PersonAndAuthoritySignedWithSha1",
         .leaf = person(ofSha1, {.digest = "SHA1"}).certificate,
         .untrusted = {ofSha1.certificate},
         .openssl = {{68, 0}},
         .reasons = {{Code::digestTooWeak, 0}, {Code::digestTooWeak, 1}}},
        {.name = "AuthoritySignedWithMd5",
         .leaf = person(ofMd5).certificate,
         .anchors = {rsaRoot.certificate},
         .untrusted = {ofMd5.certificate},
         .openssl = {{68, 1}},
         .reasons = {{Code::digestTooWeak, 1}}},
        {.name = "PersonWithRsa1024",
         .leaf = person(middle(), {.key = rsa1024()}).certificate,
         .openssl = {{66, 0}},
         .reasons = {{Code::keyTooShort, 0}}},
        {.name = "AuthorityWithRsa1024",
         .leaf = person(weak).certificate,
         .untrusted = {weak.certificate},
         .openssl = {{67, 1}},
         .reasons = {{Code::keyTooShort, 1}}},
        {.name = "AnchorWithRsa1024",
         .leaf = person(underWeak).certificate,
         .anchors = {weakRoot.certificate},
         .untrusted = {underWeak.certificate},
         .openssl = {{67, 2}},
         .reasons = {{Code::keyTooShort, 2}}},
        {.name = "PersonOnP192",
         .leaf = person(middle(), {.key = Key::ec("prime192v1")}).certificate,
         .openssl = {{66, 0}},
         .reasons = {{Code::keyTooShort, 0}}},
        {.name = "AuthorityWithEd25519", .leaf = person(edwards).certificate, .untrusted = {edwards.certificate}},
        {.name = "AuthorityWithRsa2048", .leaf = person(ofRsa).certificate, .untrusted = {ofRsa.certificate}},
        {.name = "AuthorityWithDsa2048", .leaf = person(ofDsa).certificate, .untrusted = {ofDsa.certificate}},
    };
}

} // namespace agreement
