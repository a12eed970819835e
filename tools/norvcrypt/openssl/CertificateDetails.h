#pragma once

/// \file
/// Facts about certificates, lists and structures that the library's surface does not offer, asked of OpenSSL. Texts
/// come back with the bytes that stand in the structure: escape them where they are shown.

#include <norvcrypto/Certificate.h>
#include <norvcrypto/CertificateRevocationList.h>

#include <openssl/asn1.h>
#include <openssl/evp.h>
#include <openssl/pkcs7.h>
#include <openssl/x509.h>

#include <ctime>
#include <optional>
#include <string>
#include <vector>

namespace norvcrypt {

/// Lower-case hexadecimal, two digits a byte, "-" in front of a negative number.
std::string hexNumber(const ASN1_INTEGER* number);
/// "2026-01-31T12:00:00Z", or nothing for a time that is no proper one.
std::optional<std::string> isoTime(const ASN1_TIME* time);
std::string isoTime(std::time_t time);
/// OpenSSL's long name of an object identifier, else its dotted form.
std::string objectName(const ASN1_OBJECT* object);
/// SHA-256 in lower-case hexadecimal of the DER that the library writes.
std::string fingerprint(const Norvane::Crypto::NVX509::RefCertificate& certificate);
std::string fingerprint(const Norvane::Crypto::NVX509::RefCertificateRevocationList& list);
/// SHA-256 in lower-case hexadecimal of the SubjectPublicKeyInfo; nothing when it cannot be encoded.
std::optional<std::string> fingerprint(EVP_PKEY* key);

/// Where the lists are found: URIs as they are, names as text.
struct ListPlaces {
    std::vector<std::string> places;
    std::vector<std::string> issuers; ///< who issues the lists, where the certificate's issuer does not
    bool malformed = false;
};
ListPlaces crlDistributionPoints(X509* certificate);

/// Whether an extension that OpenSSL knows does not decode or stands twice: no chain is built with such a certificate, and
/// what the extension says counts as unsaid.
bool hasUnusableExtension(X509* certificate);
/// Likewise one of those that tell what the list is for.
bool hasUnusableExtension(const X509_CRL* list);

/// "digitalSignature", ... in the order of RFC 5280; none when the certificate does not restrict its key.
std::vector<std::string> keyUsage(const Norvane::Crypto::NVX509::RefCertificate& certificate);

/// "emailProtection", ... in the order of the certificate, dotted where there is no name; none when it does not restrict
/// itself.
std::vector<std::string> extendedKeyUsage(X509* certificate);
/// "sha256WithRSAEncryption"; RSASSA-PSS with its digest.
std::string signatureAlgorithm(const X509_ALGOR* algorithm);

/// Whether a certificate is valid at a moment, the last second of its validity included (RFC 5280). A period whose start
/// cannot be read has not begun, one whose end cannot be read is over.
enum class Period : int { current, notYetValid, expired };
Period periodAt(const X509* certificate, std::time_t when);
/// Whether one certificate is valid whenever the other is; false when that cannot be told.
bool isValidWhenever(const X509* one, const X509* other);

/// The public key of a certificate, for people and for limits; nothing when it cannot be read.
struct PublicKeyDetails {
    int kind = 0; ///< EVP_PKEY_RSA and so on
    int bits = 0;
    std::string name; ///< "RSA"
};
std::optional<PublicKeyDetails> publicKeyDetails(X509* certificate);
bool hasRsaKey(X509* certificate);
bool isRsa(const EVP_PKEY* key);

/// How a key signs.
enum class SigningKey : int {
    rsa,
    rsaPss, ///< with RSASSA-PSS alone
    curve,  ///< ECDSA, whose signatures vary in length
    edwards,
    other,
};
SigningKey signingKey(const EVP_PKEY* key);

/// What the key usage of a certificate lacks for encryption to it: keyEncipherment for RSA keys, keyAgreement for others;
/// null when it has that, or there is no key usage.
const char* missingForEncryption(X509* certificate);

/// Whether two certificates are the same bytes; the library's comparison refuses negative serial numbers.
bool isSameCertificate(const X509* one, const X509* other);

/// Whether the certificate has that serial number, whatever its sign.
bool hasSerialNumber(const X509* certificate, const ASN1_INTEGER* number);

} // namespace norvcrypt
