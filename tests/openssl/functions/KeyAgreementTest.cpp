// Content keys under a key that was agreed on: every scheme on a curve whose cofactor is not 1, originators of another kind than the
// key, and what OpenSSL is asked to check. The other side is computed here, by the formulas of RFC 5753 and RFC 8418.
#include "openssl/KeyAgreement.h"
#include "openssl/ContentCipher.h"

#include "CMSStreamReader/HandMade.h"
#include "support/Interpose.h"

#include <openssl/core_names.h>
#include <openssl/ec.h>
#include <openssl/err.h>
#include <openssl/param_build.h>

#include <gtest/gtest.h>

#include <memory>
#include <utility>

namespace {

int s_validated = -1; // what the latest agreement asked for

} // namespace

extern "C" int EVP_PKEY_derive_set_peer_ex(EVP_PKEY_CTX* context, EVP_PKEY* peer, int validate) {
    s_validated = validate;
    return norvtest::next<&EVP_PKEY_derive_set_peer_ex>("EVP_PKEY_derive_set_peer_ex")(context, peer, validate);
}

namespace {

using namespace Norvane::Crypto::openssl;
using norvauthority::Bytes;
using norvauthority::Key;
namespace der = norvauthority::der;

const Bytes s_contentKey(16, 0x42);
const Bytes s_wrap = der::sequence({der::oid("2.16.840.1.101.3.4.1.5")}); // id-aes128-wrap
constexpr const char* s_ecPublicKey = "1.2.840.10045.2.1";
constexpr const char* s_x25519 = "1.3.101.110";

Key keyOn(const std::string& type) {
    const bool isCurve = type != "X25519" && type != "X448";
    EVP_PKEY* made = isCurve ? EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", type.c_str())
                             : EVP_PKEY_Q_keygen(nullptr, nullptr, type.c_str());
    const Key key = Key::of(made);
    EVP_PKEY_free(made);
    return key;
}

/// Two keys on P-256 with twice its generator: a curve that has no name.
std::pair<Key, Key> keysOnUnnamedCurve() {
    const std::unique_ptr<EC_GROUP, decltype(&EC_GROUP_free)> group(EC_GROUP_new_by_curve_name(NID_X9_62_prime256v1),
                                                                    &EC_GROUP_free);
    const std::unique_ptr<EC_POINT, decltype(&EC_POINT_free)> twice(EC_POINT_new(group.get()), &EC_POINT_free);
    EXPECT_EQ(EC_POINT_dbl(group.get(), twice.get(), EC_GROUP_get0_generator(group.get()), nullptr), 1);
    Bytes generator(65);
    EXPECT_EQ(EC_POINT_point2oct(group.get(), twice.get(), POINT_CONVERSION_UNCOMPRESSED, generator.data(),
                                 generator.size(), nullptr),
              generator.size());
    using Number = std::unique_ptr<BIGNUM, decltype(&BN_free)>;
    const Number p(BN_new(), &BN_free);
    const Number a(BN_new(), &BN_free);
    const Number b(BN_new(), &BN_free);
    EXPECT_EQ(EC_GROUP_get_curve(group.get(), p.get(), a.get(), b.get(), nullptr), 1);
    const std::unique_ptr<OSSL_PARAM_BLD, decltype(&OSSL_PARAM_BLD_free)> fields(OSSL_PARAM_BLD_new(),
                                                                                 &OSSL_PARAM_BLD_free);
    OSSL_PARAM_BLD_push_utf8_string(fields.get(), OSSL_PKEY_PARAM_EC_FIELD_TYPE, "prime-field", 0);
    OSSL_PARAM_BLD_push_BN(fields.get(), OSSL_PKEY_PARAM_EC_P, p.get());
    OSSL_PARAM_BLD_push_BN(fields.get(), OSSL_PKEY_PARAM_EC_A, a.get());
    OSSL_PARAM_BLD_push_BN(fields.get(), OSSL_PKEY_PARAM_EC_B, b.get());
    OSSL_PARAM_BLD_push_BN(fields.get(), OSSL_PKEY_PARAM_EC_ORDER, EC_GROUP_get0_order(group.get()));
    OSSL_PARAM_BLD_push_BN(fields.get(), OSSL_PKEY_PARAM_EC_COFACTOR, EC_GROUP_get0_cofactor(group.get()));
    OSSL_PARAM_BLD_push_octet_string(fields.get(), OSSL_PKEY_PARAM_EC_GENERATOR, generator.data(), generator.size());
    const std::unique_ptr<OSSL_PARAM, decltype(&OSSL_PARAM_free)> parameters(OSSL_PARAM_BLD_to_param(fields.get()),
                                                                             &OSSL_PARAM_free);
    const KeyContextPtr curve(EVP_PKEY_CTX_new_from_name(nullptr, "EC", nullptr));
    EVP_PKEY* domain = nullptr;
    EXPECT_EQ(EVP_PKEY_fromdata_init(curve.get()), 1);
    EXPECT_EQ(EVP_PKEY_fromdata(curve.get(), &domain, EVP_PKEY_KEY_PARAMETERS, parameters.get()), 1);
    const KeyPtr owner(domain);
    const auto made = [&] {
        const KeyContextPtr context(EVP_PKEY_CTX_new(domain, nullptr));
        EVP_PKEY* key = nullptr;
        EXPECT_EQ(EVP_PKEY_keygen_init(context.get()), 1);
        EXPECT_EQ(EVP_PKEY_keygen(context.get(), &key), 1);
        const KeyPtr keeper(key);
        return Key::of(key);
    };
    return {made(), made()};
}

/// \param cofactor whether the secret is multiplied by the cofactor of the curve (SEC 1, 3.3.2)
Bytes agreed(const Key& own, const Key& peer, bool cofactor) {
    const KeyContextPtr context(EVP_PKEY_CTX_new(own.get(), nullptr));
    std::size_t length = 200;
    Bytes secret(length);
    EXPECT_EQ(EVP_PKEY_derive_init(context.get()), 1);
    if (EVP_PKEY_is_a(own.get(), "EC") == 1) {
        EXPECT_EQ(EVP_PKEY_CTX_set_ecdh_cofactor_mode(context.get(), cofactor ? 1 : 0), 1);
    }
    EXPECT_EQ(EVP_PKEY_derive_set_peer(context.get(), peer.get()), 1);
    EXPECT_EQ(EVP_PKEY_derive(context.get(), secret.data(), &length), 1);
    secret.resize(length);
    return secret;
}

/// The key derivation of ANSI X9.63 for 16 octets (SEC 1, 3.6.1).
Bytes x963(const EVP_MD* digest, const Bytes& secret, const Bytes& info) {
    const Bytes all = der::concat({secret, {0, 0, 0, 1}, info});
    Bytes key(EVP_MAX_MD_SIZE);
    EVP_Digest(all.data(), all.size(), key.data(), nullptr, digest, nullptr);
    key.resize(16);
    return key;
}

struct Scheme {
    const char* identifier;
    const EVP_MD* digest;
    bool cofactor;
    bool hkdf;
};

const std::vector<Scheme>& schemes() {
    static const std::vector<Scheme> all{
        {"1.3.133.16.840.63.0.2", EVP_sha1(), false, false},
        {"1.3.132.1.11.0", EVP_sha224(), false, false},
        {"1.3.132.1.11.1", EVP_sha256(), false, false},
        {"1.3.132.1.11.2", EVP_sha384(), false, false},
        {"1.3.132.1.11.3", EVP_sha512(), false, false},
        {"1.3.133.16.840.63.0.3", EVP_sha1(), true, false},
        {"1.3.132.1.14.0", EVP_sha224(), true, false},
        {"1.3.132.1.14.1", EVP_sha256(), true, false},
        {"1.3.132.1.14.2", EVP_sha384(), true, false},
        {"1.3.132.1.14.3", EVP_sha512(), true, false},
        {"1.2.840.113549.1.9.16.3.19", EVP_sha256(), false, true},
        {"1.2.840.113549.1.9.16.3.20", EVP_sha384(), false, true},
        {"1.2.840.113549.1.9.16.3.21", EVP_sha512(), false, true},
    };
    return all;
}

Bytes identifier(const std::string& name, const Bytes& parameters = {}) {
    return der::sequence({der::oid(name), parameters});
}

/// What openAgreedKey is given, and gives.
struct Attempt {
    Bytes algorithm;
    Bytes originator;
    Bytes point;
    Bytes wrapped;

    [[nodiscard]] Bytes open(const Key& key) const {
        const AlgorithmPtr decoded = decodeAlgorithm(algorithm);
        const AlgorithmPtr sender = originator.empty() ? nullptr : decodeAlgorithm(originator);
        const KeyAgreement agreement{decoded.get(), sender.get(), point, nullptr};
        const WipedBytes opened = openAgreedKey(agreement, key.get(), wrapped);
        EXPECT_EQ(ERR_peek_error(), 0UL);
        return {opened.octets().begin(), opened.octets().end()};
    }
    [[nodiscard]] std::string unsupported() const {
        const AlgorithmPtr decoded = decodeAlgorithm(algorithm);
        const AlgorithmPtr sender = originator.empty() ? nullptr : decodeAlgorithm(originator);
        return unsupportedKeyAgreement({decoded.get(), sender.get(), point, nullptr});
    }
};

Bytes sharedInfo() {
    return cmstest::sharedInfo({.wrap = s_wrap}, 128);
}

/// A sound one for the key.
Attempt soundFor(const Key& key, const Key& sender, const Scheme& scheme, const std::string& kind,
                 const Bytes& curve = {}) {
    const Bytes secret = agreed(sender, key, scheme.cofactor);
    const Bytes wrapping = scheme.hkdf ? cmstest::hkdf(scheme.digest, secret, sharedInfo(), 16)
                                       : x963(scheme.digest, secret, sharedInfo());
    return {identifier(scheme.identifier, s_wrap), identifier(kind, curve), cmstest::publicOctets(sender.get()),
            cmstest::aesWrapped(wrapping, s_contentKey)};
}

// sect233k1 has the cofactor 4 (SEC 2, 3.3.1): with it and without it are two secrets.
TEST(KeyAgreement, EverySchemeUsesTheCofactorAsItSays) {
    for (const char* curve : {"sect233k1", "P-256"}) {
        const Key key = keyOn(curve);
        const Key sender = keyOn(curve);
        for (const Scheme& scheme : schemes()) {
            const Attempt attempt = soundFor(key, sender, scheme, s_ecPublicKey);
            EXPECT_EQ(attempt.unsupported(), "") << scheme.identifier;
            EXPECT_EQ(attempt.open(key), s_contentKey) << curve << ' ' << scheme.identifier;
        }
    }
}

TEST(KeyAgreement, OnlyPointsOfCurvesThatNeedItAreValidatedOnceMore) {
    for (const auto& [curve, expected] :
         {std::pair("P-256", 0), std::pair("P-384", 0), std::pair("P-521", 0), std::pair("sect233k1", 1)}) {
        const Key key = keyOn(curve);
        s_validated = -1;
        EXPECT_EQ(soundFor(key, keyOn(curve), schemes()[2], s_ecPublicKey).open(key), s_contentKey);
        EXPECT_EQ(s_validated, expected) << curve;
    }
    const auto [unnamed, sender] = keysOnUnnamedCurve();
    s_validated = -1;
    EXPECT_EQ(soundFor(unnamed, sender, schemes()[2], s_ecPublicKey).open(unnamed), s_contentKey);
    EXPECT_EQ(s_validated, 1) << "of another curve nothing is known";
    ERR_clear_error();
    for (const auto& [type, kind] : {std::pair("X25519", s_x25519), std::pair("X448", "1.3.101.111")}) {
        const Key key = keyOn(type);
        const Attempt attempt = soundFor(key, keyOn(type), schemes()[2], kind);
        s_validated = -1;
        EXPECT_EQ(attempt.open(key), s_contentKey);
        EXPECT_EQ(s_validated, 0) << type;
    }
}

TEST(KeyAgreement, TheOriginatorsAlgorithmHasToFitTheKey) {
    const Key key = keyOn("P-256");
    const Key sender = keyOn("P-256");
    Attempt attempt = soundFor(key, sender, schemes()[2], s_ecPublicKey);
    struct Row {
        Bytes algorithm;
        bool opens;
    };
    for (const Row& row : {Row{identifier(s_ecPublicKey), true}, Row{identifier(s_ecPublicKey, der::null()), true},
                           Row{identifier(s_ecPublicKey, der::oid("1.2.840.10045.3.1.7")), true},
                           Row{identifier(s_ecPublicKey, der::oid("1.3.132.0.34")), false},
                           Row{identifier(s_ecPublicKey, der::oid("1.2.3.4")), false},
                           Row{identifier(s_ecPublicKey, der::octetString({1})), false},
                           Row{identifier(s_x25519), false}, Row{identifier("1.2.840.10046.2.1"), false}}) {
        attempt.originator = row.algorithm;
        EXPECT_EQ(attempt.open(key), row.opens ? s_contentKey : Bytes()) << norvauthority::toHex(row.algorithm);
    }
    const Key other = keyOn("X25519");
    Attempt curve25519 = soundFor(other, keyOn("X25519"), schemes()[10], s_x25519);
    EXPECT_EQ(curve25519.open(other), s_contentKey);
    for (const char* kind : {s_ecPublicKey, "1.3.101.111", "1.3.101.112"}) {
        curve25519.originator = identifier(kind);
        EXPECT_EQ(curve25519.open(other), Bytes()) << kind;
    }
}

// RFC 7748, 6.1: a point of small order gives zeroes, which is no secret; a key made of nothing or of zeroes must not do.
TEST(KeyAgreement, APointOfSmallOrderOpensNothing) {
    const Key key = keyOn("X25519");
    for (const std::size_t length : {0U, 32U, 80U}) {
        const Bytes wrapping = x963(EVP_sha256(), Bytes(length, 0), sharedInfo());
        const Attempt attempt{identifier("1.3.132.1.11.1", s_wrap), identifier(s_x25519), Bytes(32, 0),
                              cmstest::aesWrapped(wrapping, s_contentKey)};
        EXPECT_EQ(attempt.open(key), Bytes());
    }
}

TEST(KeyAgreement, OtherIdentifiersAreNoSchemes) {
    const Bytes originator = identifier(s_ecPublicKey);
    for (const char* other :
         {"1.2.840.113549.1.9.16.3.18", "1.2.840.113549.1.9.16.3.22", "1.2.840.113549.1.9.16.4.19",
          "1.2.840.113549.1.9.16.3.1.19", "1.2.840.113549.1.9.16.19", "1.3.132.1.15.1", "1.2.3.4", "2.5.4.19"}) {
        const Attempt attempt{identifier(other, s_wrap), originator, Bytes(65, 4), Bytes(24, 1)};
        EXPECT_NE(attempt.unsupported(), "") << other;
        EXPECT_EQ(attempt.open(keyOn("P-256")), Bytes()) << other;
    }
}

TEST(KeyAgreement, WhatIsMissingIsDamageAndNothingUnsupported) {
    const Key key = keyOn("P-256");
    Attempt attempt = soundFor(key, keyOn("P-256"), schemes()[2], s_ecPublicKey);
    attempt.algorithm = identifier("1.3.132.1.11.1");
    EXPECT_EQ(attempt.unsupported(), "");
    EXPECT_EQ(attempt.open(key), Bytes());
    attempt.algorithm = identifier("1.3.132.1.11.1", der::null());
    EXPECT_EQ(attempt.unsupported(), "");
    EXPECT_EQ(attempt.open(key), Bytes());
    attempt.originator = identifier("1.2.840.10046.2.1");
    EXPECT_EQ(attempt.unsupported(), "dhpublicnumber (1.2.840.10046.2.1)");
    attempt.originator.clear();
    EXPECT_EQ(attempt.unsupported(), "key agreement with an originator's key that is not in the message");
    attempt.algorithm = identifier("1.3.132.1.11.1", s_wrap);
    EXPECT_EQ(attempt.unsupported(), "key agreement with an originator's key that is not in the message");
    attempt.algorithm = identifier("1.3.132.1.11.1", identifier("1.2.3.5"));
    EXPECT_EQ(attempt.unsupported(), "1.2.3.5");
}

TEST(KeyAgreement, KeysOfOtherKindsAgreeToNothing) {
    for (const char* type : {"P-256", "sect233k1", "X25519", "X448"}) {
        EXPECT_TRUE(agrees(keyOn(type).get())) << type;
    }
    EXPECT_FALSE(agrees(Key::ed25519().get()));
    EXPECT_FALSE(agrees(Key::rsa(512).get()));
}

} // namespace
