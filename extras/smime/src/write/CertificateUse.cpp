#include "write/CertificateUse.h"

#include "write/Fail.h"

#include <norvcrypto/DistinguishedName.h>

#include <openssl/asn1.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <array>
#include <string>

namespace Norvane::Crypto::SMime::writing {

namespace {

/// Leaves OpenSSL's error queue as it was.
class QuietQuestion {
public:
    QuietQuestion() noexcept { ERR_set_mark(); }
    ~QuietQuestion() { ERR_pop_to_mark(); }
    QuietQuestion(const QuietQuestion&) = delete;
    QuietQuestion& operator=(const QuietQuestion&) = delete;
};

std::string isoTime(const ASN1_TIME* time) {
    std::tm parts{};
    std::array<char, 32> text{};
    if (ASN1_TIME_to_tm(time, &parts) != 1) {
        return "a time that cannot be read";
    }
    static_cast<void>(std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%SZ", &parts));
    return text.data();
}

/// "the certificate of CN=Anna".
std::string nameOf(const NVX509::RefCertificate& certificate) {
    const std::string name = NVX509::displayName(certificate->subject());
    return name.empty() ? "a certificate without a name" : "the certificate of " + name;
}

void requireValidity(const NVX509::RefCertificate& certificate, std::time_t at) {
    const X509* const x509 = certificate;
    const ASN1_TIME* const begin = X509_get0_notBefore(x509);
    const ASN1_TIME* const end = X509_get0_notAfter(x509);
    // The last second belongs to the period (RFC 5280, 4.1.2.5). -2: the time cannot be read.
    const int begun = ASN1_TIME_cmp_time_t(begin, at);
    const int ended = ASN1_TIME_cmp_time_t(end, at);
    if (begun == -2 || begun > 0) {
        fail(nameOf(certificate) + " is not valid before " + isoTime(begin));
    }
    if (ended < 0) {
        fail(nameOf(certificate) + " expired on " + isoTime(end));
    }
}

bool isRsa(const X509* x509) {
    const EVP_PKEY* const key = X509_get0_pubkey(x509);
    return key != nullptr && (EVP_PKEY_is_a(key, "RSA") == 1 || EVP_PKEY_is_a(key, "RSA-PSS") == 1);
}

void requireUsage(const NVX509::RefCertificate& certificate, Use use) {
    X509* const x509 = certificate;
    // All bits for a certificate without the extension.
    const std::uint32_t usage = X509_get_key_usage(x509);
    if (use == Use::signing && (usage & (KU_DIGITAL_SIGNATURE | KU_NON_REPUDIATION)) == 0) {
        fail(nameOf(certificate) +
             " does not allow signing: its key usage has neither digitalSignature nor nonRepudiation");
    }
    if (use == Use::encryption && (usage & (isRsa(x509) ? KU_KEY_ENCIPHERMENT : KU_KEY_AGREEMENT)) == 0) {
        fail(nameOf(certificate) + " does not allow encryption: its key usage has no " +
             (isRsa(x509) ? "keyEncipherment" : "keyAgreement"));
    }
    if ((X509_get_extended_key_usage(x509) & (XKU_SMIME | XKU_ANYEKU)) == 0) {
        fail(nameOf(certificate) + (use == Use::signing ? " does not allow signing" : " does not allow encryption") +
             " of mail: its extended key usage has no emailProtection");
    }
}

} // namespace

void requireUsable(const NVX509::RefCertificate& certificate, Use use, std::time_t at) {
    const QuietQuestion quiet;
    if (static_cast<X509*>(certificate) == nullptr) {
        fail("a certificate cannot be read");
    }
    requireValidity(certificate, at);
    requireUsage(certificate, use);
}

std::optional<Hasher::Type> suitableDigest(const NVX509::RefCertificate& certificate) {
    const QuietQuestion quiet;
    const EVP_PKEY* const key = X509_get0_pubkey(certificate);
    if (key == nullptr || EVP_PKEY_is_a(key, "ED448") == 1) {
        return std::nullopt;
    }
    if (EVP_PKEY_is_a(key, "ED25519") == 1) {
        return Hasher::SHA512;
    }
    if (EVP_PKEY_is_a(key, "EC") == 1) {
        const int bits = EVP_PKEY_get_bits(key);
        return bits <= 256 ? Hasher::SHA256 : bits <= 384 ? Hasher::SHA384 : Hasher::SHA512;
    }
    return Hasher::SHA256;
}

bool hasRsaKey(const NVX509::RefCertificate& certificate) {
    const QuietQuestion quiet;
    return isRsa(certificate);
}

} // namespace Norvane::Crypto::SMime::writing
