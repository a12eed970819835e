#pragma once

/// \file
/// Signed structures that no sound program makes, with signatures that are right.

#include "support/Cms.h"

#include <openssl/core_names.h>
#include <openssl/param_build.h>

namespace cmstest {

inline Bytes digestOf(const Bytes& content, const EVP_MD* digest = EVP_sha256()) {
    Bytes value(static_cast<std::size_t>(EVP_MD_get_size(digest)));
    EXPECT_EQ(EVP_Digest(content.data(), content.size(), value.data(), nullptr, digest, nullptr), 1);
    return value;
}

inline ASN1_OCTET_STRING* octets(const Bytes& content) {
    ASN1_OCTET_STRING* string = ASN1_OCTET_STRING_new();
    EXPECT_EQ(ASN1_OCTET_STRING_set(string, content.data(), static_cast<int>(content.size())), 1);
    return string;
}

/// A detached structure whose attributes are those that `fill` adds, signed properly.
template <class Fill> Bytes signedAttributes(const Identity& identity, Fill fill) {
    const Pkcs7 structure(PKCS7_new());
    EXPECT_EQ(PKCS7_set_type(structure.get(), NID_pkcs7_signed), 1);
    PKCS7_SIGNER_INFO* signer =
        PKCS7_add_signature(structure.get(), identity.certificate.x509().get(), identity.key.get(), EVP_sha256());
    EXPECT_NE(signer, nullptr);
    EXPECT_EQ(PKCS7_content_new(structure.get(), NID_pkcs7_data), 1);
    EXPECT_EQ(PKCS7_set_detached(structure.get(), 1), 1);
    fill(signer);
    EXPECT_EQ(PKCS7_SIGNER_INFO_sign(signer), 1);
    return derOf(structure.get());
}

/// A structure of ours after `change` was made to its signer.
template <class Change> Bytes changed(const Bytes& structure, Change change) {
    const unsigned char* cursor = structure.data();
    const Pkcs7 decoded(d2i_PKCS7(nullptr, &cursor, static_cast<long>(structure.size())));
    change(sk_PKCS7_SIGNER_INFO_value(decoded->d.sign->signer_info, 0));
    return derOf(decoded.get());
}

/// A key that nobody has the private half of: a modulus and an exponent of that many bits.
inline norvauthority::Key publicRsa(int modulusBits, int exponentBits) {
    const std::unique_ptr<BIGNUM, decltype(&BN_free)> modulus(BN_new(), BN_free);
    const std::unique_ptr<BIGNUM, decltype(&BN_free)> exponent(BN_new(), BN_free);
    EXPECT_EQ(BN_rand(modulus.get(), modulusBits, BN_RAND_TOP_ONE, BN_RAND_BOTTOM_ODD), 1);
    EXPECT_EQ(BN_rand(exponent.get(), exponentBits, BN_RAND_TOP_ONE, BN_RAND_BOTTOM_ODD), 1);
    const std::unique_ptr<OSSL_PARAM_BLD, decltype(&OSSL_PARAM_BLD_free)> builder(OSSL_PARAM_BLD_new(),
                                                                                  OSSL_PARAM_BLD_free);
    EXPECT_EQ(OSSL_PARAM_BLD_push_BN(builder.get(), OSSL_PKEY_PARAM_RSA_N, modulus.get()), 1);
    EXPECT_EQ(OSSL_PARAM_BLD_push_BN(builder.get(), OSSL_PKEY_PARAM_RSA_E, exponent.get()), 1);
    const std::unique_ptr<OSSL_PARAM, decltype(&OSSL_PARAM_free)> parameters(OSSL_PARAM_BLD_to_param(builder.get()),
                                                                             OSSL_PARAM_free);
    const std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)> context(
        EVP_PKEY_CTX_new_from_name(nullptr, "RSA", nullptr), EVP_PKEY_CTX_free);
    EVP_PKEY* key = nullptr;
    EXPECT_EQ(EVP_PKEY_fromdata_init(context.get()), 1);
    EXPECT_EQ(EVP_PKEY_fromdata(context.get(), &key, EVP_PKEY_PUBLIC_KEY, parameters.get()), 1);
    const std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> owner(key, EVP_PKEY_free);
    return norvauthority::Key::of(key);
}

/// A certificate that the rsa signer's issuer and serial number name, with another key or subject.
inline Identity namedLikeRsa(const norvauthority::Key& key, const std::string& subject = "alike") {
    return norvauthority::issue({.subject = {{"CN", subject}},
                                 .key = key,
                                 .issuer = &identities().authority,
                                 .serial = "a11ce",
                                 .keyUsage = 0xA0});
}

/// A structure with these certificates in front of its own.
inline Bytes withCertificates(const Bytes& structure, const std::vector<Bytes>& certificates) {
    const unsigned char* cursor = structure.data();
    const Pkcs7 decoded(d2i_PKCS7(nullptr, &cursor, static_cast<long>(structure.size())));
    if (decoded->d.sign->cert == nullptr) {
        decoded->d.sign->cert = sk_X509_new_null();
    }
    int place = 0;
    for (const Bytes& der : certificates) {
        const unsigned char* start = der.data();
        X509* certificate = d2i_X509(nullptr, &start, static_cast<long>(der.size()));
        EXPECT_GT(sk_X509_insert(decoded->d.sign->cert, certificate, place++), 0);
    }
    return derOf(decoded.get());
}

/// A structure with that many copies of its signer.
inline Bytes withSigners(const Bytes& structure, int count) {
    const unsigned char* cursor = structure.data();
    const Pkcs7 decoded(d2i_PKCS7(nullptr, &cursor, static_cast<long>(structure.size())));
    const auto* signers = decoded->d.sign->signer_info;
    const Pkcs7 copy(PKCS7_dup(decoded.get()));
    while (sk_PKCS7_SIGNER_INFO_num(copy->d.sign->signer_info) > 0) {
        PKCS7_SIGNER_INFO_free(sk_PKCS7_SIGNER_INFO_pop(copy->d.sign->signer_info));
    }
    for (int made = 0; made < count; ++made) {
        const auto* original = reinterpret_cast<const ASN1_VALUE*>(sk_PKCS7_SIGNER_INFO_value(signers, 0));
        sk_PKCS7_SIGNER_INFO_push(copy->d.sign->signer_info, reinterpret_cast<PKCS7_SIGNER_INFO*>(ASN1_item_dup(
                                                                 ASN1_ITEM_rptr(PKCS7_SIGNER_INFO), original)));
    }
    return derOf(copy.get());
}

/// A structure whose signer names the digest and, when given, the signature by other algorithms.
inline Bytes withAlgorithms(const Bytes& structure, const char* digest, const char* signature) {
    return changed(structure, [&](PKCS7_SIGNER_INFO* signer) {
        if (digest != nullptr) {
            X509_ALGOR_set0(signer->digest_alg, OBJ_txt2obj(digest, 1), V_ASN1_UNDEF, nullptr);
        }
        if (signature != nullptr) {
            X509_ALGOR_set0(signer->digest_enc_alg, OBJ_txt2obj(signature, 1), V_ASN1_UNDEF, nullptr);
        }
    });
}

} // namespace cmstest
