// What an algorithm identifier says of a signature (RFC 4055, 5754, 5758, 8419, 9688), and what becomes of keys and parameters that do
// not go together.
#include "openssl/SignatureScheme.h"

#include "support/SmallRsa.h"

#include <authority/Authority.h>

#include <openssl/err.h>
#include <openssl/objects.h>

#include <gtest/gtest.h>

using namespace Norvane::Crypto::openssl;
using norvauthority::Bytes;
using norvauthority::Key;
using Kind = SignatureScheme::Kind;
namespace der = norvauthority::der;

namespace {

const char* const s_sha1 = "1.3.14.3.2.26";
const char* const s_sha256 = "2.16.840.1.101.3.4.2.1";
const char* const s_sha512 = "2.16.840.1.101.3.4.2.3";
const char* const s_mgf1 = "1.2.840.113549.1.1.8";

Bytes algorithm(const std::string& identifier, const std::vector<Bytes>& parameters = {}) {
    std::vector<Bytes> parts{der::oid(identifier)};
    parts.insert(parts.end(), parameters.begin(), parameters.end());
    return der::sequence(parts);
}

Bytes tagged(unsigned int number, const Bytes& inside) {
    return der::element(der::contextConstructed(number), inside);
}

SignatureScheme pss(const std::vector<Bytes>& parameters) {
    const SignatureScheme scheme = signatureScheme(algorithm("1.2.840.113549.1.1.10", {der::sequence(parameters)}));
    EXPECT_TRUE(scheme.namesDigest);
    EXPECT_EQ(ERR_peek_error(), 0U);
    return scheme;
}

void expectPss(const std::vector<Bytes>& parameters, const char* digest, const char* mask, int salt) {
    const SignatureScheme scheme = pss(parameters);
    EXPECT_TRUE(scheme.isSound);
    EXPECT_EQ(scheme.kind, Kind::rsaPss);
    EXPECT_EQ(scheme.digest, EVP_get_digestbyname(digest));
    EXPECT_EQ(scheme.maskDigest, EVP_get_digestbyname(mask));
    EXPECT_EQ(scheme.saltLength, salt);
}

Bytes signedBy(const Key& key, const EVP_MD* digest, const Bytes& digested, int salt) {
    const KeyContextPtr context(EVP_PKEY_CTX_new(key.get(), nullptr));
    Bytes signature(static_cast<std::size_t>(EVP_PKEY_get_size(key.get())));
    std::size_t length = signature.size();
    EXPECT_EQ(EVP_PKEY_sign_init(context.get()), 1);
    EXPECT_EQ(EVP_PKEY_CTX_set_rsa_padding(context.get(), RSA_PKCS1_PSS_PADDING), 1);
    EXPECT_EQ(EVP_PKEY_CTX_set_signature_md(context.get(), digest), 1);
    EXPECT_EQ(EVP_PKEY_CTX_set_rsa_pss_saltlen(context.get(), salt), 1);
    EXPECT_EQ(EVP_PKEY_sign(context.get(), signature.data(), &length, digested.data(), digested.size()), 1);
    return signature;
}

} // namespace

// RFC 4055, 3.1: SHA-1, MGF1 with SHA-1, 20 octets of salt, trailer 1.
TEST(SignatureScheme, PssParametersAndTheirDefaults) {
    expectPss({}, "SHA1", "SHA1", 20);
    expectPss({tagged(0, algorithm(s_sha256)), tagged(1, algorithm(s_mgf1, {algorithm(s_sha512)})),
               tagged(2, der::integer("40")), tagged(3, der::integer("1"))},
              "SHA256", "SHA512", 64);
    expectPss({tagged(2, der::integer("0"))}, "SHA1", "SHA1", 0);
    expectPss({tagged(2, der::integer("800"))}, "SHA1", "SHA1", 2048);
    expectPss({tagged(2, der::integer("80"))}, "SHA1", "SHA1", 128);
    expectPss({tagged(2, der::integer("7f"))}, "SHA1", "SHA1", 127);
    expectPss({tagged(1, algorithm(s_mgf1, {algorithm(s_sha1, {der::null()})}))}, "SHA1", "SHA1", 20);
}

TEST(SignatureScheme, PssParametersThatMakeNoSense) {
    for (const std::vector<Bytes>& parameters : std::vector<std::vector<Bytes>>{
             {tagged(2, der::integer("801"))},
             {tagged(2, der::integer("10014"))},
             {tagged(2, der::integer("1000014"))},
             {tagged(2, der::integer("10000000000000014"))},
             {tagged(2, der::integer("-14"))},
             {tagged(2, der::null())},
             {tagged(2, {0x02, 0x00})},
             {tagged(3, der::integer("2"))},
             {tagged(3, der::integer("0"))},
             {tagged(3, der::integer("-1"))},
             {tagged(3, der::integer("10000000000000001"))},
             {tagged(3, der::null())},
             {tagged(0, der::null())},
             {tagged(0, {})},
             {tagged(1, der::null())},
             {tagged(1, algorithm(s_mgf1))},
             {tagged(1, algorithm(s_mgf1, {der::null()}))},
             {tagged(1, algorithm(s_mgf1, {der::sequence({})}))},
             {tagged(1, algorithm(s_mgf1, {der::sequence({der::integer("1")})}))},
             {tagged(1, algorithm(s_mgf1, {der::sequence({der::oid(s_sha256), der::null(), der::null()})}))},
             {tagged(2, der::integer("14")), tagged(2, der::integer("14"))},
             {tagged(4, der::integer("14"))},
             {der::null()},
         }) {
        const SignatureScheme scheme = pss(parameters);
        EXPECT_FALSE(scheme.isSound) << norvauthority::toHex(der::sequence(parameters));
        EXPECT_EQ(scheme.kind, Kind::rsaPss);
    }
    for (const Bytes& whole : {algorithm("1.2.840.113549.1.1.10"), algorithm("1.2.840.113549.1.1.10", {der::null()})}) {
        EXPECT_FALSE(signatureScheme(whole).isSound) << "the parameters must be there: RFC 4055, 3.1";
    }
}

TEST(SignatureScheme, PssWithDigestsThatAreNotThereIsUnknownAndSound) {
    for (const std::vector<Bytes>& parameters : std::vector<std::vector<Bytes>>{
             {tagged(0, algorithm("1.2.3.4"))},
             {tagged(0, algorithm("2.16.840.1.101.3.4.2.12"))}, // SHAKE256, whose length nothing says
             {tagged(1, algorithm("1.2.3.4", {algorithm(s_sha256)}))},
             {tagged(1, algorithm(s_mgf1, {algorithm("1.2.3.4")}))}}) {
        const SignatureScheme scheme = pss(parameters);
        EXPECT_TRUE(scheme.isSound);
        EXPECT_EQ(scheme.kind, Kind::unknown);
    }
}

TEST(SignatureScheme, PssParametersOf1024OctetsAtMost) {
    const auto filled = [](std::size_t size) {
        const auto made = [](std::size_t filling) {
            return std::vector<Bytes>{tagged(0, algorithm(s_sha256, {der::octetString(Bytes(filling))}))};
        };
        const std::vector<Bytes> parameters = made(size - (der::sequence(made(900)).size() - 900));
        EXPECT_EQ(der::sequence(parameters).size(), size);
        return parameters;
    };
    EXPECT_TRUE(pss(filled(1024)).isSound);
    EXPECT_FALSE(pss(filled(1025)).isSound);
}

TEST(SignatureScheme, WhatIdentifiersAreMadeOf) {
    struct Case {
        int nid;
        Kind kind;
        const char* digest; ///< null: it names none
    };
    for (const auto& [nid, kind, digest] : std::vector<Case>{
             {NID_rsaEncryption, Kind::rsaPkcs1, nullptr},
             {NID_rsa, Kind::rsaPkcs1, nullptr},
             {NID_sha256WithRSAEncryption, Kind::rsaPkcs1, "SHA256"},
             {NID_RSA_SHA3_256, Kind::rsaPkcs1, "SHA3-256"},
             {NID_RSA_SHA3_512, Kind::rsaPkcs1, "SHA3-512"},
             {NID_X9_62_id_ecPublicKey, Kind::ecdsa, nullptr},
             {NID_ecdsa_with_SHA384, Kind::ecdsa, "SHA384"},
             {NID_ecdsa_with_SHA3_224, Kind::ecdsa, "SHA3-224"},
             {NID_ecdsa_with_SHA3_384, Kind::ecdsa, "SHA3-384"},
             {NID_dsa, Kind::dsa, nullptr},
             {NID_dsa_2, Kind::dsa, nullptr},
             {NID_dsa_with_SHA256, Kind::dsa, "SHA256"},
             {NID_dsa_with_SHA3_224, Kind::dsa, "SHA3-224"},
             {NID_ED25519, Kind::ed25519, nullptr},
             {NID_ED448, Kind::ed448, nullptr},
             {NID_sha256, Kind::unknown, nullptr},
         }) {
        const SignatureScheme scheme = signatureScheme(algorithm(OBJ_nid2sn(nid)));
        EXPECT_EQ(scheme.kind, kind) << OBJ_nid2sn(nid);
        EXPECT_EQ(scheme.namesDigest, digest != nullptr) << OBJ_nid2sn(nid);
        EXPECT_EQ(scheme.digest, digest == nullptr ? nullptr : EVP_get_digestbyname(digest)) << OBJ_nid2sn(nid);
        EXPECT_TRUE(scheme.isSound);
    }
    for (const Bytes& none :
         {Bytes(), der::null(), der::sequence({}), der::sequence({der::null()}), algorithm("1.2.3")}) {
        EXPECT_EQ(signatureScheme(none).kind, Kind::unknown);
        EXPECT_FALSE(signatureScheme(none).namesDigest);
    }
    EXPECT_EQ(schemeOf(KeyFamily::rsa).kind, Kind::rsaPkcs1);
    EXPECT_EQ(schemeOf(KeyFamily::dsa).kind, Kind::dsa);
    EXPECT_EQ(schemeOf(KeyFamily::ec).kind, Kind::ecdsa);
    EXPECT_EQ(schemeOf(KeyFamily::other).kind, Kind::unknown);
}

TEST(SignatureScheme, KeysForPssAloneVerifyWhatTheirParametersAllow) {
    const Key key = norvtest::pssKey(EVP_sha256(), EVP_sha256(), 32);
    ASSERT_TRUE(isSigningKey(key.get()));
    SignatureScheme scheme;
    scheme.kind = Kind::rsaPss;
    scheme.maskDigest = EVP_sha256();
    scheme.saltLength = 32;
    EXPECT_TRUE(fits(scheme, key.get()));
    EXPECT_FALSE(fits(schemeOf(KeyFamily::rsa), key.get()));
    const Bytes digest(32, 7);
    const Bytes signature = signedBy(key, EVP_sha256(), digest, 32);
    EXPECT_EQ(verify(scheme, EVP_sha256(), digest, signature, key.get()), Verified::good);
    EXPECT_EQ(verify(scheme, EVP_sha256(), Bytes(32, 8), signature, key.get()), Verified::wrong);
    EXPECT_EQ(verify(scheme, EVP_sha512(), Bytes(64, 7), signature, key.get()), Verified::impossible);
    scheme.saltLength = 20; // shorter than the key demands
    EXPECT_EQ(verify(scheme, EVP_sha256(), digest, signature, key.get()), Verified::impossible);
    scheme.saltLength = 32;
    scheme.maskDigest = EVP_sha512();
    EXPECT_EQ(verify(scheme, EVP_sha256(), digest, signature, key.get()), Verified::impossible);
    EXPECT_EQ(ERR_peek_error(), 0U);
}

TEST(SignatureScheme, KeysThatHaveNoPartInAScheme) {
    const Key curve = Key::ec();
    const Key edwards = Key::ed25519();
    SignatureScheme scheme;
    scheme.kind = Kind::rsaPss;
    scheme.maskDigest = EVP_sha256();
    const Bytes digest(32, 7);
    const Bytes signature(70, 1);
    EXPECT_EQ(verify(scheme, EVP_sha256(), digest, signature, curve.get()), Verified::impossible);
    EXPECT_EQ(verify(schemeOf(KeyFamily::ec), EVP_sha256(), digest, signature, curve.get()), Verified::wrong);
    // Its signatures are made over messages alone: RFC 8032, 5.1.
    EXPECT_EQ(verify(schemeOf(KeyFamily::ec), EVP_sha256(), digest, signature, edwards.get()), Verified::impossible);
    EVP_PKEY* made = EVP_PKEY_Q_keygen(nullptr, nullptr, "X25519");
    const KeyPtr agreeing(made);
    ASSERT_NE(made, nullptr);
    EXPECT_FALSE(isSigningKey(made));
    scheme.kind = Kind::ed25519;
    EXPECT_EQ(verify(scheme, nullptr, digest, signature, made), Verified::impossible);
    EXPECT_EQ(verify(scheme, nullptr, digest, signature, edwards.get()), Verified::wrong);
    EXPECT_EQ(ERR_peek_error(), 0U);
}
