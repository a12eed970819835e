#include "show/Description.h"
#include "base/Failure.h"
#include "openssl/CertificateDetails.h"
#include "openssl/GeneralNames.h"
#include "openssl/ListEntries.h"
#include "openssl/OpenSsl.h"
#include "openssl/RequestDetails.h"
#include "show/CmsDescription.h"
#include "show/Facts.h"

#include <norvcrypto/Acceptance.h>
#include <norvcrypto/Certificate.h>
#include <norvcrypto/CertificateRevocationList.h>
#include <norvcrypto/CrossCertificatePair.h>
#include <norvcrypto/Crypto.h>
#include <norvcrypto/Key.h>

#include <algorithm>
#include <string>
#include <vector>

namespace norvcrypt {

namespace NVX509 = Norvane::Crypto::NVX509;
using Norvane::Crypto::Key;
using Norvane::Crypto::RefKey;

namespace {

Description keyFacts(Key::Type type, const Norvane::Buffer& der) {
    const RefKey key(type);
    key->read(der, false);
    return norvcrypt::keyFacts(key);
}

Description encryptedFacts() {
    return {{"encrypted", true}};
}

/// The library's readers answer without a reason; OpenSSL's own tells where the bytes go wrong, unless it must not see
/// them.
template <class Decode, class Release>
[[noreturn]] void throwReason(const std::string& noun, Decode decode, Release release, const Norvane::Buffer& der) {
    if (const std::string refusal = Norvane::Crypto::refusal(der); !refusal.empty())
        throw Failure(noun + " " + refusal);
    const unsigned char* at = der.data();
    release(decode(nullptr, &at, static_cast<long>(der.length())));
    throw Failure("malformed " + noun + ": " + inPlainWords(Norvane::Crypto::getErrString()));
}

Description readCertificate(const Norvane::Buffer& der) {
    const NVX509::RefCertificate certificate = NVX509::CertificateFactory().readDER(der);
    if (certificate.isNull())
        throwReason("certificate", d2i_X509, X509_free, der);
    return certificateFacts(certificate);
}

Description readList(const Norvane::Buffer& der, const EntryRange& range) {
    const NVX509::RefCertificateRevocationList list = NVX509::CertificateRevocationListFactory().readDER(der);
    if (list.isNull())
        throwReason("revocation list", d2i_X509_CRL, X509_CRL_free, der);
    return listFacts(list, range);
}

Description pairFacts(const Norvane::Buffer& der) {
    const NVX509::CrossCertificatePair pair(der);
    if (!pair.decoded()) {
        const std::string refusal = Norvane::Crypto::refusal(der);
        throw Failure(refusal.empty() ? "malformed pair of certificates" : "pair of certificates " + refusal);
    }
    Description facts = Description::object();
    if (pair.forward())
        facts["forward"] = certificateFacts(pair.forward());
    if (pair.reverse())
        facts["reverse"] = certificateFacts(pair.reverse());
    return facts;
}

void putEntries(Description& facts, const STACK_OF(X509_REVOKED) * revoked, const EntryRange& range) {
    const auto count = static_cast<std::size_t>(revoked == nullptr ? 0 : sk_X509_REVOKED_num(revoked));
    if (range.first > std::min(range.last, count))
        return;
    const auto tell = [&facts](const RevokedEntry& entry) {
        Description one{{"entry", entry.number}, {"serial", entry.serial}};
        putText(one, "issuer", entry.issuer);
        putText(one, "time", entry.time);
        putText(one, "reason", entry.reason);
        facts["revoked"].push_back(std::move(one));
    };
    eachRevoked(revoked, static_cast<int>(range.first), static_cast<int>(std::min(range.last, count)), tell);
}

constexpr const char* unreadableKey = "a public key that is malformed or not supported";

void putNames(Description& facts, const AlternativeNames& names) {
    putTexts(facts, "emails", names.emails);
    putTexts(facts, "dns", names.dns);
    putTexts(facts, "uris", names.uris);
    putTexts(facts, "ipAddresses", names.ipAddresses);
    putTexts(facts, "directoryNames", names.directoryNames);
    putTexts(facts, "otherNames", names.others);
    if (names.malformed)
        problem(facts, "a malformed subject alternative name");
    if (names.hasOddIpAddress)
        problem(facts, "an IP address among the names has neither 4 nor 16 octets");
}

Description requestFacts(const Norvane::Buffer& der) {
    const RequestDetails request = requestDetails(der);
    Description facts = Description::object();
    putText(facts, "subject", request.subject);
    if (!request.key.isNull())
        facts["publicKey"] = norvcrypt::keyFacts(request.key);
    putText(facts, "signatureAlgorithm", request.signatureAlgorithm);
    facts["signedWithItsKey"] = request.signedWithItsKey;
    putNames(facts, request.names);
    putTexts(facts, "extensions", request.extensions);
    if (request.key.isNull())
        problem(facts, unreadableKey);
    return facts;
}

Description pkcs12Facts() {
    return {{"readBy", "norvcrypt p12"}};
}

Description typed(const char* type, const Description& facts) {
    Description object{{"type", type}};
    object.update(facts);
    return object;
}

} // namespace

Description listFacts(const NVX509::RefCertificateRevocationList& list, const EntryRange& range) {
    X509_CRL* const crl = list;
    Description facts = Description::object();
    putText(facts, "issuer", displayName(list->crlInfo().issuer()));
    putTime(facts, "thisUpdate", X509_CRL_get0_lastUpdate(crl));
    putTime(facts, "nextUpdate", X509_CRL_get0_nextUpdate(crl));
    const QuietQuestion quiet;
    const IntegerPtr number(static_cast<ASN1_INTEGER*>(X509_CRL_get_ext_d2i(crl, NID_crl_number, nullptr, nullptr)));
    putNumber(facts, "crlNumber", "CRL number", number.get());
    const X509_ALGOR* algorithm = nullptr;
    X509_CRL_get0_signature(crl, nullptr, &algorithm);
    putText(facts, "signatureAlgorithm", signatureAlgorithm(algorithm));
    facts["delta"] = list->isDeltaCRL();
    const STACK_OF(X509_REVOKED)* revoked = X509_CRL_get_REVOKED(crl);
    facts["entries"] = revoked == nullptr ? 0 : sk_X509_REVOKED_num(revoked);
    facts["sha256"] = fingerprint(list);
    putEntries(facts, revoked, range);
    if (hasUnusableExtension(crl))
        problem(facts, "an extension that is malformed or stands twice");
    return facts;
}

Description listFacts(const NVX509::RefCertificateRevocationList& list) {
    return listFacts(list, {1, 0});
}

Description certificateFacts(const NVX509::RefCertificate& certificate) {
    X509* const x509 = certificate;
    Description facts = Description::object();
    putText(facts, "subject", displayName(certificate->subject()));
    putText(facts, "issuer", displayName(certificate->issuer()));
    putNumber(facts, "serial", "serial number", X509_get0_serialNumber(x509));
    putTime(facts, "notBefore", X509_get0_notBefore(x509));
    putTime(facts, "notAfter", X509_get0_notAfter(x509));
    facts["sha256"] = fingerprint(certificate);
    facts["selfSigned"] = certificate->isSelfSigned();
    facts["ca"] = certificate->isCACert();
    const auto key = publicKeyDetails(x509);
    if (key)
        facts["publicKey"] = {{"algorithm", key->name}, {"bits", key->bits}};
    putText(facts, "signatureAlgorithm", signatureAlgorithm(X509_get0_tbs_sigalg(x509)));
    putTexts(facts, "keyUsage", keyUsage(certificate));
    putTexts(facts, "extendedKeyUsage", extendedKeyUsage(x509));
    const AlternativeNames names = alternativeNames(x509);
    putNames(facts, names);
    const ListPlaces lists = crlDistributionPoints(x509);
    putTexts(facts, "crlDistributionPoints", lists.places);
    putTexts(facts, "crlIssuers", lists.issuers);
    if (lists.malformed)
        problem(facts, "malformed CRL distribution points");
    if (!names.malformed && !lists.malformed && hasUnusableExtension(x509))
        problem(facts, "an extension that is malformed or stands twice");
    if (!key)
        problem(facts, unreadableKey);
    return facts;
}

Description keyFacts(const RefKey& key) {
    EVP_PKEY* const pkey = key;
    Description facts = Description::object();
    const char* name = EVP_PKEY_get0_type_name(pkey);
    putText(facts, "algorithm", name == nullptr ? "" : name);
    if (const int bits = EVP_PKEY_get_bits(pkey); bits > 0)
        facts["bits"] = bits;
    if (const auto digest = fingerprint(pkey))
        facts["sha256"] = *digest;
    return facts;
}

Description describe(const FoundObject& object, const EntryRange& range) {
    if (!object.problem.empty())
        throw Failure(object.problem);
    switch (object.kind) {
    case ObjectKind::certificate:
        return typed("certificate", readCertificate(object.der));
    case ObjectKind::list:
        return typed("crl", readList(object.der, range));
    case ObjectKind::cms:
        return typed("cms", cmsFacts(object.der));
    case ObjectKind::publicKey:
        return typed("public-key", keyFacts(Key::PUBLIC_KEY, object.der));
    case ObjectKind::privateKey:
        return typed("private-key", keyFacts(Key::PRIVATE_KEY, object.der));
    case ObjectKind::encryptedKey:
        return typed("private-key", encryptedFacts());
    case ObjectKind::pkcs12:
        return typed("pkcs12", pkcs12Facts());
    case ObjectKind::crossPair:
        return typed("cross-pair", pairFacts(object.der));
    case ObjectKind::request:
        return typed("request", requestFacts(object.der));
    case ObjectKind::unknown:
        break;
    }
    throw Failure("no certificate, list, key or CMS structure");
}

} // namespace norvcrypt
