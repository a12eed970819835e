#include "openssl/KeyAgreement.h"

#include "openssl/AlgorithmName.h"
#include "openssl/ContentCipher.h"
#include "openssl/ErrorQueue.h"
#include "openssl/KeyUnwrapping.h"
#include "openssl/Pkcs7.h"

#include <openssl/cms.h>
#include <openssl/core_names.h>
#include <openssl/ec.h>
#include <openssl/kdf.h>
#include <openssl/objects.h>

#include <algorithm>
#include <array>
#include <string_view>

namespace Norvane::Crypto::openssl {

namespace {

using KdfPtr = Owned<EVP_KDF, EVP_KDF_free>;
using KdfContextPtr = Owned<EVP_KDF_CTX, EVP_KDF_CTX_free>;

constexpr const char* x963 = "X963KDF";

/// 1.2.840.113549.1.9.16.3.19 to .21 (RFC 8418, 2.2), which OpenSSL has no numbers for: all but the last octet.
constexpr std::array<unsigned char, 10> hkdfSchemes{0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x09, 0x10, 0x03};

std::optional<AgreementScheme> hkdfScheme(const ASN1_OBJECT* identifier) noexcept {
    const std::span<const unsigned char> octets(OBJ_get0_data(identifier), OBJ_length(identifier));
    if (octets.size() != hkdfSchemes.size() + 1 ||
        !std::equal(hkdfSchemes.begin(), hkdfSchemes.end(), octets.begin())) {
        return std::nullopt;
    }
    switch (octets.back()) {
    case 19:
        return AgreementScheme{"HKDF", "SHA256", false};
    case 20:
        return AgreementScheme{"HKDF", "SHA384", false};
    case 21:
        return AgreementScheme{"HKDF", "SHA512", false};
    default:
        return std::nullopt;
    }
}

bool isOnCurves(const EVP_PKEY* key) noexcept {
    return EVP_PKEY_is_a(key, "EC") == 1;
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
    KeyPtr originator(EVP_PKEY_new());
    const bool made = originator != nullptr && isSameCurve(*agreement.originatorAlgorithm, key) &&
                      EVP_PKEY_copy_parameters(originator.get(), key) == 1 &&
                      EVP_PKEY_set1_encoded_public_key(originator.get(), agreement.originatorKey.data(),
                                                       agreement.originatorKey.size()) == 1;
    return made ? std::move(originator) : nullptr;
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

/// What both sides have in common.
WipedBytes commonSecret(const AgreementScheme& scheme, EVP_PKEY* key, EVP_PKEY* originator) {
    const KeyContextPtr context(EVP_PKEY_CTX_new(key, nullptr));
    if (context == nullptr || EVP_PKEY_derive_init(context.get()) != 1) {
        return {};
    }
    if (isOnCurves(key) && EVP_PKEY_CTX_set_ecdh_cofactor_mode(context.get(), scheme.cofactor ? 1 : 0) != 1) {
        return {};
    }
    // That the point is on the curve was seen when it was decoded.
    const int validate = isOnCurves(key) && !isOfPrimeOrder(key) ? 1 : 0;
    std::size_t length = 0;
    if (EVP_PKEY_derive_set_peer_ex(context.get(), originator, validate) != 1 ||
        EVP_PKEY_derive(context.get(), nullptr, &length) != 1) {
        return {};
    }
    WipedBytes common(length);
    if (EVP_PKEY_derive(context.get(), common.data(), &length) != 1 || length > common.size()) {
        return {};
    }
    common.shorten(length);
    return common;
}

} // namespace

std::optional<AgreementScheme> agreementScheme(const ASN1_OBJECT* identifier) noexcept {
    switch (OBJ_obj2nid(identifier)) {
    case NID_dhSinglePass_stdDH_sha1kdf_scheme:
        return AgreementScheme{x963, "SHA1", false};
    case NID_dhSinglePass_stdDH_sha224kdf_scheme:
        return AgreementScheme{x963, "SHA224", false};
    case NID_dhSinglePass_stdDH_sha256kdf_scheme:
        return AgreementScheme{x963, "SHA256", false};
    case NID_dhSinglePass_stdDH_sha384kdf_scheme:
        return AgreementScheme{x963, "SHA384", false};
    case NID_dhSinglePass_stdDH_sha512kdf_scheme:
        return AgreementScheme{x963, "SHA512", false};
    case NID_dhSinglePass_cofactorDH_sha1kdf_scheme:
        return AgreementScheme{x963, "SHA1", true};
    case NID_dhSinglePass_cofactorDH_sha224kdf_scheme:
        return AgreementScheme{x963, "SHA224", true};
    case NID_dhSinglePass_cofactorDH_sha256kdf_scheme:
        return AgreementScheme{x963, "SHA256", true};
    case NID_dhSinglePass_cofactorDH_sha384kdf_scheme:
        return AgreementScheme{x963, "SHA384", true};
    case NID_dhSinglePass_cofactorDH_sha512kdf_scheme:
        return AgreementScheme{x963, "SHA512", true};
    default:
        return hkdfScheme(identifier);
    }
}

std::string unsupportedKeyAgreement(const KeyAgreement& agreement) {
    if (!agreementScheme(agreement.algorithm->algorithm)) {
        return algorithmName(agreement.algorithm->algorithm);
    }
    if (const AlgorithmPtr wrap = algorithmInParameters(*agreement.algorithm); wrap != nullptr) {
        if (const std::string name = unsupportedWrap(wrap.get()); !name.empty()) {
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
    return isOnCurves(key) || EVP_PKEY_is_a(key, "X25519") == 1 || EVP_PKEY_is_a(key, "X448") == 1;
}

WipedBytes deriveKeyEncryptionKey(const AgreementScheme& scheme, const WipedBytes& common, X509_ALGOR* wrap,
                                  const ASN1_OCTET_STRING* userKeyingMaterial) {
    const std::size_t length = keyEncryptionKeyLength(*wrap);
    unsigned char* encoded = nullptr;
    // The material is only encoded.
    const int infoLength = CMS_SharedInfo_encode(
        &encoded, wrap,
        const_cast<ASN1_OCTET_STRING*>(userKeyingMaterial), // NOLINT(cppcoreguidelines-pro-type-const-cast)
        static_cast<int>(length));
    const OwnedMemory<unsigned char> info(encoded);
    const KdfPtr function(EVP_KDF_fetch(nullptr, scheme.derivation, nullptr));
    const KdfContextPtr context(EVP_KDF_CTX_new(function.get()));
    if (length == 0 || infoLength <= 0 || context == nullptr) {
        return {};
    }
    // OpenSSL only reads what these refer to.
    auto* secret = const_cast<unsigned char*>(common.data()); // NOLINT(cppcoreguidelines-pro-type-const-cast)
    auto* digest = const_cast<char*>(scheme.digest);          // NOLINT(cppcoreguidelines-pro-type-const-cast)
    const std::array<OSSL_PARAM, 4> parameters{
        OSSL_PARAM_construct_utf8_string(OSSL_KDF_PARAM_DIGEST, digest, 0),
        OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_KEY, secret, common.size()),
        OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_INFO, info.get(), static_cast<std::size_t>(infoLength)),
        OSSL_PARAM_construct_end()};
    WipedBytes key(length);
    return EVP_KDF_derive(context.get(), key.data(), key.size(), parameters.data()) == 1 ? std::move(key)
                                                                                         : WipedBytes();
}

WipedBytes agreedKey(const KeyAgreement& agreement, EVP_PKEY* key) {
    const ErrorMark mark;
    const auto scheme = agreementScheme(agreement.algorithm->algorithm);
    const AlgorithmPtr wrap = algorithmInParameters(*agreement.algorithm);
    const KeyPtr originator = originatorOf(agreement, key);
    if (!scheme || wrap == nullptr || originator == nullptr) {
        return {};
    }
    const WipedBytes common = commonSecret(*scheme, key, originator.get());
    return common.empty() ? WipedBytes()
                          : deriveKeyEncryptionKey(*scheme, common, wrap.get(), agreement.userKeyingMaterial);
}

WipedBytes openAgreedKey(const KeyAgreement& agreement, EVP_PKEY* key, std::span<const unsigned char> wrapped) {
    const WipedBytes keyEncryptionKey = agreedKey(agreement, key);
    const AlgorithmPtr wrap = algorithmInParameters(*agreement.algorithm);
    return keyEncryptionKey.empty() || wrap == nullptr ? WipedBytes()
                                                       : unwrapKey(*wrap, keyEncryptionKey.octets(), wrapped);
}

} // namespace Norvane::Crypto::openssl
