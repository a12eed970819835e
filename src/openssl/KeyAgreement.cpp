#include "openssl/KeyAgreement.h"

#include "openssl/AlgorithmName.h"
#include "openssl/ContentCipher.h"
#include "openssl/Digests.h"
#include "openssl/ErrorQueue.h"
#include "openssl/KeyComparison.h"
#include "openssl/KeyUnwrapping.h"
#include "openssl/RecipientKeys.h"

#include <openssl/cms.h>
#include <openssl/ec.h>
#include <openssl/objects.h>

#include <algorithm>
#include <array>
#include <new>
#include <string_view>

namespace Norvane::Crypto::openssl {

namespace {

constexpr auto x963 = &deriveX963;
constexpr auto hkdf = &deriveHkdf;

/// A way to derive a key-encryption key from what both sides have in common.
struct AgreementScheme {
    bool (*derive)(const EVP_MD* digest, const Secret& secret, framing::Octets info, Secret& key);
    int digest;
    bool cofactor;
};

/// 1.2.840.113549.1.9.16.3.19 to .21 (RFC 8418, 2.2), which OpenSSL has no numbers for: all but the last octet.
constexpr std::array<unsigned char, 10> hkdfSchemes{0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x09, 0x10, 0x03};

std::optional<AgreementScheme> hkdfScheme(const ASN1_OBJECT* identifier) {
    const std::span<const unsigned char> octets(OBJ_get0_data(identifier), OBJ_length(identifier));
    if (octets.size() != hkdfSchemes.size() + 1 ||
        !std::equal(hkdfSchemes.begin(), hkdfSchemes.end(), octets.begin())) {
        return std::nullopt;
    }
    switch (octets.back()) {
    case 19:
        return AgreementScheme{hkdf, NID_sha256, false};
    case 20:
        return AgreementScheme{hkdf, NID_sha384, false};
    case 21:
        return AgreementScheme{hkdf, NID_sha512, false};
    default:
        return std::nullopt;
    }
}

/// Nothing for a scheme that is not supported.
std::optional<AgreementScheme> agreementScheme(const ASN1_OBJECT* identifier) {
    switch (OBJ_obj2nid(identifier)) {
    case NID_dhSinglePass_stdDH_sha1kdf_scheme:
        return AgreementScheme{x963, NID_sha1, false};
    case NID_dhSinglePass_stdDH_sha224kdf_scheme:
        return AgreementScheme{x963, NID_sha224, false};
    case NID_dhSinglePass_stdDH_sha256kdf_scheme:
        return AgreementScheme{x963, NID_sha256, false};
    case NID_dhSinglePass_stdDH_sha384kdf_scheme:
        return AgreementScheme{x963, NID_sha384, false};
    case NID_dhSinglePass_stdDH_sha512kdf_scheme:
        return AgreementScheme{x963, NID_sha512, false};
    case NID_dhSinglePass_cofactorDH_sha1kdf_scheme:
        return AgreementScheme{x963, NID_sha1, true};
    case NID_dhSinglePass_cofactorDH_sha224kdf_scheme:
        return AgreementScheme{x963, NID_sha224, true};
    case NID_dhSinglePass_cofactorDH_sha256kdf_scheme:
        return AgreementScheme{x963, NID_sha256, true};
    case NID_dhSinglePass_cofactorDH_sha384kdf_scheme:
        return AgreementScheme{x963, NID_sha384, true};
    case NID_dhSinglePass_cofactorDH_sha512kdf_scheme:
        return AgreementScheme{x963, NID_sha512, true};
    default:
        return hkdfScheme(identifier);
    }
}

bool isOnCurves(const EVP_PKEY* key) noexcept {
    return isOfType(key, "EC");
}

/// Whether the curve that the originator's algorithm names, if it does, is that of the key.
bool isSameCurve(const X509_ALGOR& originator, const EVP_PKEY* key) {
    if (OBJ_obj2nid(originator.algorithm) != NID_X9_62_id_ecPublicKey) {
        return false;
    }
    if (originator.parameter == nullptr || originator.parameter->type == V_ASN1_NULL) {
        return true;
    }
    std::array<char, 80> name{};
    std::size_t length = 0;
    return originator.parameter->type == V_ASN1_OBJECT &&
           EVP_PKEY_get_group_name(key, name.data(), name.size(), &length) == 1 &&
           OBJ_obj2nid(originator.parameter->value.object) == OBJ_txt2nid(name.data());
}

KeyPtr originatorOnCurve(const KeyAgreement& agreement, EVP_PKEY* key) {
    if (!isSameCurve(*agreement.originatorAlgorithm, key)) {
        return nullptr;
    }
    KeyPtr originator(EVP_PKEY_new());
    if (originator == nullptr || EVP_PKEY_copy_parameters(originator.get(), key) != 1) {
        throw std::bad_alloc(); // the key has them
    }
    return EVP_PKEY_set1_encoded_public_key(originator.get(), agreement.originatorKey.data(),
                                            agreement.originatorKey.size()) == 1
               ? std::move(originator)
               : nullptr;
}

KeyPtr originatorOf(const KeyAgreement& agreement, EVP_PKEY* key) {
    if (isOnCurves(key)) {
        return originatorOnCurve(agreement, key);
    }
    const int nid = OBJ_obj2nid(agreement.originatorAlgorithm->algorithm);
    if (nid != EVP_PKEY_get_base_id(key)) {
        return nullptr;
    }
    return KeyPtr(
        EVP_PKEY_new_raw_public_key(nid, nullptr, agreement.originatorKey.data(), agreement.originatorKey.size()));
}

/// Whether a point of that curve needs no multiplication by the order to be a sound one: every point is of that order.
bool isOfPrimeOrder(const EVP_PKEY* key) {
    std::array<char, 80> name{};
    std::size_t length = 0;
    if (EVP_PKEY_get_group_name(key, name.data(), name.size(), &length) != 1) {
        return false;
    }
    const std::string_view curve(name.data(), length);
    return curve == SN_X9_62_prime256v1 || curve == SN_secp384r1 || curve == SN_secp521r1;
}

/// What both sides have in common, which there has to be room for; false when OpenSSL fails. \throws std::bad_alloc
bool agree(const AgreementScheme& scheme, EVP_PKEY* key, EVP_PKEY* originator, Secret& common) {
    const KeyContextPtr context(EVP_PKEY_CTX_new(key, nullptr));
    if (context == nullptr || EVP_PKEY_derive_init(context.get()) != 1) {
        throw std::bad_alloc(); // such keys agree
    }
    if (isOnCurves(key) && EVP_PKEY_CTX_set_ecdh_cofactor_mode(context.get(), scheme.cofactor ? 1 : 0) != 1) {
        return false;
    }
    // That the point is on the curve was seen when it was decoded.
    const int validate = isOnCurves(key) && !isOfPrimeOrder(key) ? 1 : 0;
    std::size_t length = common.size();
    if (EVP_PKEY_derive_set_peer_ex(context.get(), originator, validate) != 1 ||
        EVP_PKEY_derive(context.get(), common.octets().data(), &length) != 1) {
        return false;
    }
    common.resize(length);
    return true;
}

/// Derives the key-encryption key for `wrap` (RFC 5753, 7.2; RFC 8418, 2.2). \throws std::bad_alloc
void derive(const KeyAgreement& agreement, const AgreementScheme& scheme, const Secret& common, X509_ALGOR* wrap,
            Secret& key) {
    unsigned char* encoded = nullptr;
    const int length =
        CMS_SharedInfo_encode(&encoded, wrap, agreement.userKeyingMaterial, static_cast<int>(key.size()));
    const OwnedMemory<unsigned char> info(encoded);
    if (length <= 0 ||
        !scheme.derive(digestByNid(scheme.digest), common, {info.get(), static_cast<std::size_t>(length)}, key)) {
        throw std::bad_alloc(); // the digests are such as OpenSSL always has
    }
}

} // namespace

std::string unsupportedKeyAgreement(const KeyAgreement& agreement) {
    if (!agreementScheme(agreement.algorithm->algorithm)) {
        return algorithmName(agreement.algorithm->algorithm);
    }
    if (const AlgorithmPtr wrap = algorithmInParameters(*agreement.algorithm); wrap != nullptr) {
        if (std::string name = unsupportedWrap(wrap.get()); !name.empty()) {
            return name;
        }
    }
    if (agreement.originatorAlgorithm == nullptr) {
        return "key agreement with an originator's key that is not in the message";
    }
    const ASN1_TYPE* parameter = agreement.originatorAlgorithm->parameter;
    if (parameter != nullptr && parameter->type == V_ASN1_SEQUENCE) {
        return "explicit elliptic curve parameters";
    }
    switch (OBJ_obj2nid(agreement.originatorAlgorithm->algorithm)) {
    case NID_X9_62_id_ecPublicKey:
    case NID_X25519:
    case NID_X448:
        return {};
    default:
        return algorithmName(agreement.originatorAlgorithm->algorithm);
    }
}

bool agrees(const EVP_PKEY* key) noexcept {
    return isOnCurves(key) || isOfType(key, "X25519") || isOfType(key, "X448");
}

WipedBytes openAgreedKey(const KeyAgreement& agreement, EVP_PKEY* key, std::span<const unsigned char> wrapped) {
    const ErrorMark mark;
    const auto scheme = agreementScheme(agreement.algorithm->algorithm);
    const AlgorithmPtr wrap = algorithmInParameters(*agreement.algorithm);
    const KeyPtr originator = originatorOf(agreement, key);
    Secret common(Secret::most);
    Secret wrapping(wrap == nullptr ? 0 : std::min(keyEncryptionKeyLength(*wrap), Secret::most));
    if (!scheme || wrap == nullptr || originator == nullptr || !agree(*scheme, key, originator.get(), common)) {
        mark.throwWithoutMemory();
        return {};
    }
    derive(agreement, *scheme, common, wrap.get(), wrapping);
    return unwrapKey(*wrap, wrapping.octets(), wrapped);
}

} // namespace Norvane::Crypto::openssl
