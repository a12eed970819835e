#include "openssl/CertificateDetails.h"
#include "openssl/GeneralNames.h"
#include "openssl/OpenSsl.h"

#include <norvcrypto/DistinguishedName.h>
#include <norvcrypto/Hasher.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <ctime>
#include <memory>
#include <new>
#include <utility>

namespace norvcrypt {

using Norvane::Crypto::Hasher;
using Norvane::Crypto::HasherMediaOut;

namespace {

using UsagesPtr = Owned<EXTENDED_KEY_USAGE, EXTENDED_KEY_USAGE_free>;

template <class Digested> std::string digestOf(Digested& object) {
    HasherMediaOut hasher(Hasher::SHA256);
    object->writeDER(hasher);
    hasher.end();
    return hasher.hasher()->digestAsHexString();
}

void addPlaces(const GENERAL_NAMES* names, std::vector<std::string>& places) {
    for (int at = 0; at < sk_GENERAL_NAME_num(names); ++at)
        if (std::string place = placeOf(sk_GENERAL_NAME_value(names, at)); !place.empty())
            places.push_back(std::move(place));
}

void addPlaces(const DIST_POINT_NAME* name, std::vector<std::string>& places) {
    if (name == nullptr)
        return;
    if (name->type == 1) {
        const Owned<X509_NAME, X509_NAME_free> relative(X509_NAME_new());
        bool whole = relative != nullptr;
        for (int at = 0; at < sk_X509_NAME_ENTRY_num(name->name.relativename); ++at) {
            const int joined = at == 0 ? 0 : -1; // all are of one component
            whole = whole && X509_NAME_add_entry(relative.get(), sk_X509_NAME_ENTRY_value(name->name.relativename, at),
                                                 -1, joined) == 1;
        }
        if (!whole)
            throw std::bad_alloc();
        places.push_back(displayName(Norvane::Crypto::NVX509::DistinguishedName(relative.get())));
        return;
    }
    addPlaces(name->name.fullname, places);
}

std::string isoText(const std::tm& fields) {
    std::array<char, 40> text{};
    const std::size_t length = std::strftime(text.data(), text.size(), "-%m-%dT%H:%M:%SZ", &fields);
    // A year has four digits always, which %Y does not keep to.
    const std::string year = std::to_string(10000 + fields.tm_year + 1900).substr(1);
    return year + std::string(text.data(), length);
}

} // namespace

std::string hexNumber(const ASN1_INTEGER* number) {
    const BignumPtr value(ASN1_INTEGER_to_BN(number, nullptr));
    const std::unique_ptr<char, FreeingMemory> digits(value ? BN_bn2hex(value.get()) : nullptr);
    std::string text = digits ? digits.get() : "";
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char digit) { return static_cast<char>(std::tolower(digit)); });
    // BN_bn2hex writes zero as one digit.
    return text == "0" ? "00" : text;
}

std::optional<std::string> isoTime(const ASN1_TIME* time) {
    const QuietQuestion quiet;
    std::tm fields{};
    // Null would mean the present time.
    if (time == nullptr || ASN1_TIME_to_tm(time, &fields) != 1)
        return std::nullopt;
    return isoText(fields);
}

std::string isoTime(std::time_t time) {
    std::tm fields{};
    return gmtime_r(&time, &fields) == nullptr ? std::string() : isoText(fields);
}

std::string objectName(const ASN1_OBJECT* object) {
    const QuietQuestion quiet;
    if (const int nid = OBJ_obj2nid(object); nid != NID_undef)
        return OBJ_nid2ln(nid);
    const int length = OBJ_obj2txt(nullptr, 0, object, 1);
    if (length <= 0)
        return {};
    std::string text(static_cast<std::size_t>(length) + 1, '\0');
    OBJ_obj2txt(text.data(), length + 1, object, 1);
    text.pop_back();
    return text;
}

std::string fingerprint(const Norvane::Crypto::NVX509::RefCertificate& certificate) {
    return digestOf(certificate);
}

std::string fingerprint(const Norvane::Crypto::NVX509::RefCertificateRevocationList& list) {
    return digestOf(list);
}

std::optional<std::string> fingerprint(EVP_PKEY* key) {
    const QuietQuestion quiet;
    unsigned char* encoded = nullptr;
    const int length = i2d_PUBKEY(key, &encoded);
    if (length <= 0)
        return std::nullopt;
    const std::unique_ptr<unsigned char, FreeingMemory> owned(encoded);
    Hasher hasher(Hasher::SHA256);
    hasher.update(encoded, static_cast<unsigned int>(length));
    hasher.finalize();
    return hasher.digestAsHexString();
}

ListPlaces crlDistributionPoints(X509* certificate) {
    ListPlaces result;
    result.malformed =
        !eachExtension<PointsPtr>(certificate, NID_crl_distribution_points, [&result](const CRL_DIST_POINTS* points) {
            for (int at = 0; at < sk_DIST_POINT_num(points); ++at) {
                const DIST_POINT* const point = sk_DIST_POINT_value(points, at);
                addPlaces(point->distpoint, result.places);
                addPlaces(point->CRLissuer, result.issuers);
            }
        });
    return result;
}

bool hasUnusableExtension(X509* certificate) {
    const QuietQuestion quiet;
    return (X509_get_extension_flags(certificate) & EXFLAG_INVALID) != 0;
}

bool hasUnusableExtension(const X509_CRL* list) {
    const QuietQuestion quiet;
    constexpr std::array known{NID_crl_number, NID_delta_crl, NID_issuing_distribution_point,
                               NID_authority_key_identifier};
    return std::any_of(known.begin(), known.end(), [list](int nid) {
        int count = 0;
        void* const decoded = X509_CRL_get_ext_d2i(list, nid, &count, nullptr);
        if (decoded == nullptr)
            return count != -1; // there is one
        ASN1_item_free(static_cast<ASN1_VALUE*>(decoded), ASN1_ITEM_ptr(X509V3_EXT_get_nid(nid)->it));
        return false;
    });
}

std::vector<std::string> keyUsage(const Norvane::Crypto::NVX509::RefCertificate& certificate) {
    static constexpr std::array<std::pair<unsigned int, const char*>, 9> bits{{
        {KU_DIGITAL_SIGNATURE, "digitalSignature"},
        {KU_NON_REPUDIATION, "nonRepudiation"},
        {KU_KEY_ENCIPHERMENT, "keyEncipherment"},
        {KU_DATA_ENCIPHERMENT, "dataEncipherment"},
        {KU_KEY_AGREEMENT, "keyAgreement"},
        {KU_KEY_CERT_SIGN, "keyCertSign"},
        {KU_CRL_SIGN, "cRLSign"},
        {KU_ENCIPHER_ONLY, "encipherOnly"},
        {KU_DECIPHER_ONLY, "decipherOnly"},
    }};
    const auto usage = certificate->keyUsage();
    std::vector<std::string> names;
    for (const auto& [bit, name] : bits)
        if ((usage & bit) != 0)
            names.emplace_back(name);
    return names;
}

std::vector<std::string> extendedKeyUsage(X509* certificate) {
    std::vector<std::string> names;
    static_cast<void>(eachExtension<UsagesPtr>(certificate, NID_ext_key_usage, [&names](const EXTENDED_KEY_USAGE* all) {
        for (int at = 0; at < sk_ASN1_OBJECT_num(all); ++at) {
            const ASN1_OBJECT* const one = sk_ASN1_OBJECT_value(all, at);
            const int nid = OBJ_obj2nid(one);
            names.push_back(nid == NID_undef ? objectName(one) : OBJ_nid2sn(nid));
        }
    }));
    return names;
}

std::string signatureAlgorithm(const X509_ALGOR* algorithm) {
    if (algorithm == nullptr)
        return "";
    const QuietQuestion quiet;
    std::string name = objectName(algorithm->algorithm);
    if (OBJ_obj2nid(algorithm->algorithm) != NID_rsassaPss)
        return name;
    const Owned<RSA_PSS_PARAMS, RSA_PSS_PARAMS_free> parameters(static_cast<RSA_PSS_PARAMS*>(
        algorithm->parameter == nullptr
            ? nullptr
            : ASN1_TYPE_unpack_sequence(ASN1_ITEM_rptr(RSA_PSS_PARAMS), algorithm->parameter)));
    if (!parameters)
        return name;
    const X509_ALGOR* const digest = parameters->hashAlgorithm;
    return name + " with " + (digest == nullptr ? "sha1" : objectName(digest->algorithm));
}

Period periodAt(const X509* certificate, std::time_t when) {
    const QuietQuestion quiet;
    constexpr int unreadable = -2;
    const int start = ASN1_TIME_cmp_time_t(X509_get0_notBefore(certificate), when);
    if (start > 0 || start == unreadable)
        return Period::notYetValid;
    return ASN1_TIME_cmp_time_t(X509_get0_notAfter(certificate), when) < 0 ? Period::expired : Period::current;
}

bool isValidWhenever(const X509* one, const X509* other) {
    const QuietQuestion quiet;
    const auto notLater = [](const ASN1_TIME* first, const ASN1_TIME* second) {
        const int order = ASN1_TIME_compare(first, second); // -2 for a time that cannot be read
        return order == 0 || order == -1;
    };
    return notLater(X509_get0_notBefore(one), X509_get0_notBefore(other)) &&
           notLater(X509_get0_notAfter(other), X509_get0_notAfter(one));
}

std::optional<PublicKeyDetails> publicKeyDetails(X509* certificate) {
    const QuietQuestion quiet;
    const EVP_PKEY* const key = X509_get0_pubkey(certificate);
    if (key == nullptr)
        return std::nullopt;
    const char* const name = EVP_PKEY_get0_type_name(key);
    return PublicKeyDetails{EVP_PKEY_get_base_id(key), EVP_PKEY_get_bits(key), name == nullptr ? "" : name};
}

bool hasRsaKey(X509* certificate) {
    const auto key = publicKeyDetails(certificate);
    return key && key->kind == EVP_PKEY_RSA;
}

bool isRsa(const EVP_PKEY* key) {
    return EVP_PKEY_get_base_id(key) == EVP_PKEY_RSA;
}

SigningKey signingKey(const EVP_PKEY* key) {
    switch (EVP_PKEY_get_base_id(key)) {
    case EVP_PKEY_RSA:
        return SigningKey::rsa;
    case EVP_PKEY_RSA_PSS:
        return SigningKey::rsaPss;
    case EVP_PKEY_EC:
        return SigningKey::curve;
    case EVP_PKEY_ED25519:
    case EVP_PKEY_ED448:
        return SigningKey::edwards;
    default:
        return SigningKey::other;
    }
}

const char* missingForEncryption(X509* certificate) {
    const QuietQuestion quiet;
    const bool transports = hasRsaKey(certificate);
    const std::uint32_t needed = transports ? KU_KEY_ENCIPHERMENT : KU_KEY_AGREEMENT;
    if ((X509_get_key_usage(certificate) & needed) != 0) // every bit is set when nothing is said of it
        return nullptr;
    return transports ? "keyEncipherment" : "keyAgreement";
}

bool isSameCertificate(const X509* one, const X509* other) {
    return X509_cmp(one, other) == 0;
}

bool hasSerialNumber(const X509* certificate, const ASN1_INTEGER* number) {
    return number != nullptr && ASN1_INTEGER_cmp(X509_get0_serialNumber(certificate), number) == 0;
}

} // namespace norvcrypt
