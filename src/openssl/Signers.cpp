#include "openssl/Signers.h"

#include "framing/Elements.h"
#include "openssl/ErrorQueue.h"
#include "openssl/Pkcs7.h"

#include <openssl/core_names.h>
#include <openssl/objects.h>

#include <algorithm>
#include <array>
#include <bit>

namespace Norvane::Crypto::openssl {

namespace {

constexpr std::uint64_t unknownWork = ~std::uint64_t{0};

KeyFamily familyOf(int nid) noexcept {
    switch (nid) {
    case NID_rsaEncryption:
    case NID_rsa:
        return KeyFamily::rsa;
    case NID_dsa:
    case NID_dsa_2:
        return KeyFamily::dsa;
    case NID_X9_62_id_ecPublicKey:
        return KeyFamily::ec;
    default:
        return KeyFamily::other;
    }
}

/// The bits of a number among a key's parameters; 0 when it has none such.
std::uint64_t bitsOf(const EVP_PKEY* key, const char* parameter) noexcept {
    BIGNUM* number = nullptr;
    if (EVP_PKEY_get_bn_param(key, parameter, &number) != 1) {
        return 0;
    }
    const BignumPtr owner(number);
    return static_cast<std::uint64_t>(BN_num_bits(number));
}

/// A power of a number of `bits`, by an exponent of `exponent` bits, where a squaring of 2^`scale` bits squared is 1.
std::uint64_t powerWork(std::uint64_t bits, std::uint64_t exponent, unsigned int scale = 20) noexcept {
    static constexpr std::uint64_t longest = 65536; // far beyond what OpenSSL computes with
    const bool known = bits != 0 && exponent != 0 && bits <= longest && exponent <= longest;
    return known ? std::max<std::uint64_t>(1, (bits * bits * exponent) >> scale) : unknownWork;
}

std::uint64_t rsaWork(std::uint64_t bits, std::uint64_t exponent) noexcept {
    static constexpr std::uint64_t longestExponent = OPENSSL_RSA_MAX_PUBEXP_BITS; // also of short moduli
    const bool sound = exponent <= longestExponent && bits <= OPENSSL_RSA_MAX_MODULUS_BITS;
    return sound ? powerWork(bits, exponent) : unknownWork;
}

/// The bits of the exponent in an RSAPublicKey (RFC 8017, A.1.1); 0 when it is none. In DER a zero stands in front of the number only
/// where the first octet of that has all of its bits.
std::uint64_t exponentBits(framing::Octets publicKey) noexcept {
    const auto key = framing::firstElement(publicKey);
    framing::Elements numbers(key ? key->content : framing::Octets());
    static_cast<void>(numbers.nextUniversal(framing::integer));
    const auto exponent = numbers.nextUniversal(framing::integer);
    const framing::Octets octets = exponent ? exponent->content : framing::Octets();
    return octets.empty() ? 0 : 8 * (octets.size() - 1) + static_cast<unsigned int>(std::bit_width(octets.front()));
}

} // namespace

KeyFamily signatureFamily(const X509_ALGOR* algorithm) noexcept {
    const ASN1_OBJECT* identifier = algorithmIdentifier(algorithm);
    const int nid = identifier == nullptr ? NID_undef : OBJ_obj2nid(identifier);
    int digest = NID_undef;
    int key = NID_undef;
    return familyOf(OBJ_find_sigid_algs(nid, &digest, &key) == 1 ? key : nid);
}

KeyFamily keyFamily(const EVP_PKEY* key) noexcept {
    return familyOf(EVP_PKEY_get_base_id(key));
}

const ASN1_OBJECT* publicKeyAlgorithm(const X509* certificate) noexcept {
    ASN1_OBJECT* identifier = nullptr;
    const X509_PUBKEY* key = X509_get_X509_PUBKEY(certificate);
    return X509_PUBKEY_get0_param(&identifier, nullptr, nullptr, nullptr, key) == 1 ? identifier : nullptr;
}

bool alwaysDecodes(const ASN1_OBJECT* keyAlgorithm) noexcept {
    return keyAlgorithm != nullptr && familyOf(OBJ_obj2nid(keyAlgorithm)) == KeyFamily::rsa;
}

const EVP_MD* signerDigest(const PKCS7_SIGNER_INFO* signer) noexcept {
    return usableDigest(digestNid(signer));
}

const EVP_MD* usableDigest(int nid) noexcept {
    const EVP_MD* digest = nid == NID_undef ? nullptr : EVP_get_digestbyname(OBJ_nid2sn(nid));
    return digest == nullptr || (EVP_MD_get_flags(digest) & EVP_MD_FLAG_XOF) != 0 ? nullptr : digest;
}

std::uint64_t verificationWork(const EVP_PKEY* key) noexcept {
    const ErrorMark mark;
    const auto bits = static_cast<std::uint64_t>(std::max(EVP_PKEY_get_bits(key), 0));
    switch (EVP_PKEY_get_base_id(key)) {
    case EVP_PKEY_RSA:
    case EVP_PKEY_RSA2:
    case EVP_PKEY_RSA_PSS:
        return rsaWork(bits, bitsOf(key, OSSL_PKEY_PARAM_RSA_E));
    case EVP_PKEY_DSA:
    case EVP_PKEY_DSA2: {
        const std::uint64_t power = powerWork(bits, bitsOf(key, OSSL_PKEY_PARAM_FFC_Q));
        return power == unknownWork ? power : power + power / 2; // two powers with one run of squarings
    }
    case EVP_PKEY_EC: {
        // The field is asked for, too: the order of a curve that the sender made up can be much smaller.
        const std::uint64_t field = bitsOf(key, OSSL_PKEY_PARAM_EC_P);
        return powerWork(field, std::max(bits, field), 14); // a doubling of a point takes many multiplications
    }
    case EVP_PKEY_ED25519:
    case EVP_PKEY_ED448:
        return powerWork(bits, bits, 14);
    default:
        return unknownWork;
    }
}

std::uint64_t verificationWork(const X509* certificate) noexcept {
    const EVP_PKEY* key = X509_get0_pubkey(certificate);
    if (EVP_PKEY_get_base_id(key) == EVP_PKEY_RSA) {
        const unsigned char* octets = nullptr;
        int length = 0;
        const X509_PUBKEY* encoded = X509_get_X509_PUBKEY(certificate);
        if (X509_PUBKEY_get0_param(nullptr, &octets, &length, nullptr, encoded) == 1) {
            const std::uint64_t exponent = exponentBits({octets, static_cast<std::size_t>(length)});
            const auto bits = static_cast<std::uint64_t>(std::max(EVP_PKEY_get_bits(key), 0));
            return exponent == 0 ? verificationWork(key) : rsaWork(bits, exponent);
        }
    }
    return verificationWork(key);
}

SignedAttribute signedAttribute(const PKCS7_SIGNER_INFO* signer, int nid) noexcept {
    SignedAttribute found;
    const X509_ATTRIBUTE* attribute = nullptr;
    for (int index = -1; (index = X509at_get_attr_by_NID(signer->auth_attr, nid, index)) >= 0;) {
        attribute = X509at_get_attr(signer->auth_attr, index);
        ++found.count;
    }
    if (found.count == 1 && X509_ATTRIBUTE_count(attribute) == 1) {
        found.value = X509_ATTRIBUTE_get0_type(const_cast<X509_ATTRIBUTE*>(attribute), 0);
    }
    return found;
}

bool hasMisplacedAttribute(const PKCS7_SIGNER_INFO* signer) noexcept {
    static constexpr std::array mustBeSigned{NID_pkcs9_contentType,
                                             NID_pkcs9_messageDigest,
                                             NID_pkcs9_signingTime,
                                             NID_id_smime_aa_signingCertificate,
                                             NID_id_smime_aa_signingCertificateV2,
                                             NID_id_smime_aa_receiptRequest};
    const auto stands = [](const STACK_OF(X509_ATTRIBUTE) * among, int nid) {
        return X509at_get_attr_by_NID(among, nid, -1) >= 0;
    };
    return stands(signer->auth_attr, NID_pkcs9_countersignature) ||
           std::any_of(mustBeSigned.begin(), mustBeSigned.end(),
                       [&](int nid) { return stands(signer->unauth_attr, nid); });
}

} // namespace Norvane::Crypto::openssl
