// Keys that sign: with what, for which digests, and what becomes of a signature that OpenSSL gets wrong.
#include "openssl/SigningKeys.h"

#include "openssl/Digests.h"
#include "openssl/Signatures.h"

#include "support/Interpose.h"
#include "support/SmallRsa.h"

#include <openssl/err.h>
#include <openssl/objects.h>

#include <gtest/gtest.h>

#include <algorithm>

namespace {

int s_signs = 0;         ///< signatures over anything but zeros, which are how a key is tried and renewed
int s_failingSigns = 0;  ///< so many of them fail
int s_failingChecks = 0; ///< so many signatures over anything but zeros are found wrong
int s_shorter = 0;       ///< octets that signatures of Edwards curves lack
int s_finalFails = 0;    ///< so many signatures of digest contexts are found wrong
int s_finals = 0;
int s_wholes = 0;
int s_renewals = 0; ///< signatures over zeros, which renew what blinds the secret

bool isZero(const unsigned char* octets, std::size_t length) {
    return std::all_of(octets, octets + length, [](unsigned char octet) { return octet == 0; });
}

} // namespace

extern "C" {

int EVP_PKEY_sign(EVP_PKEY_CTX* context, unsigned char* signature, size_t* length, const unsigned char* digest,
                  size_t count) {
    ++s_wholes;
    s_renewals += isZero(digest, count) ? 1 : 0;
    if (!isZero(digest, count)) {
        ++s_signs;
        if (s_failingSigns > 0) {
            --s_failingSigns;
            return 0;
        }
    }
    return norvtest::next<&EVP_PKEY_sign>("EVP_PKEY_sign")(context, signature, length, digest, count);
}

int EVP_PKEY_verify(EVP_PKEY_CTX* context, const unsigned char* signature, size_t length, const unsigned char* digest,
                    size_t count) {
    if (s_failingChecks > 0 && !isZero(digest, count)) {
        --s_failingChecks;
        return 0;
    }
    return norvtest::next<&EVP_PKEY_verify>("EVP_PKEY_verify")(context, signature, length, digest, count);
}

int EVP_DigestSign(EVP_MD_CTX* context, unsigned char* signature, size_t* length, const unsigned char* text,
                   size_t count) {
    ++s_wholes;
    const int result = norvtest::next<&EVP_DigestSign>("EVP_DigestSign")(context, signature, length, text, count);
    *length -= static_cast<size_t>(s_shorter);
    return result;
}

int EVP_VerifyFinal(EVP_MD_CTX* context, const unsigned char* signature, unsigned int length, EVP_PKEY* key) {
    ++s_finals;
    if (s_finalFails != 0) {
        s_finalFails = std::max(s_finalFails - 1, -1);
        if (s_finalFails < 0) {
            ERR_raise(ERR_LIB_EVP, ERR_R_MALLOC_FAILURE);
            return -1;
        }
        return 0;
    }
    return norvtest::next<&EVP_VerifyFinal>("EVP_VerifyFinal")(context, signature, length, key);
}

} // extern "C"

using namespace Norvane::Crypto::openssl;
using norvauthority::Bytes;
using norvauthority::Key;
using norvtest::During;
using norvtest::keyOfType;
using norvtest::rsaOfBits;
namespace der = norvauthority::der;

namespace {

Bytes algorithm(const std::string& identifier, const std::vector<Bytes>& parameters = {}) {
    std::vector<Bytes> parts{der::oid(identifier)};
    parts.insert(parts.end(), parameters.begin(), parameters.end());
    return der::sequence(parts);
}

Key publicHalf(const Key& key) {
    const Bytes encoded = key.publicDer();
    const unsigned char* at = encoded.data();
    const KeyPtr made(d2i_PUBKEY(nullptr, &at, static_cast<long>(encoded.size())));
    return Key::of(made.get());
}

Key keyOnCurve(const char* name) {
    const KeyPtr made(EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", name));
    return Key::of(made.get());
}

const Key& rsa() {
    static const Key key = Key::rsa();
    return key;
}

std::string refusalOf(const Key& key, int digest = NID_undef, RsaPadding padding = RsaPadding::pkcs1) {
    const SigningKey signing(key.get(), padding, digest);
    EXPECT_EQ(ERR_peek_error(), 0U);
    return signing.refusal();
}

int digestOf(const Key& key, RsaPadding padding = RsaPadding::pkcs1) {
    return SigningKey(key.get(), padding, NID_undef).digest().number;
}

Bytes algorithmOf(const Key& key, int digest, RsaPadding padding = RsaPadding::pkcs1) {
    const SigningKey signing(key.get(), padding, digest);
    EXPECT_EQ(signing.refusal(), "");
    return signing.algorithm();
}

/// Whether OpenSSL has room for such a signature.
bool signsInOpenssl(const Key& key, const EVP_MD* digest, int padding) {
    const KeyContextPtr context(EVP_PKEY_CTX_new(key.get(), nullptr));
    Bytes signature(static_cast<std::size_t>(EVP_PKEY_get_size(key.get())));
    std::size_t length = signature.size();
    const Bytes digested(static_cast<std::size_t>(EVP_MD_get_size(digest)), 1);
    const bool made = EVP_PKEY_sign_init(context.get()) == 1 &&
                      EVP_PKEY_CTX_set_rsa_padding(context.get(), padding) == 1 &&
                      EVP_PKEY_CTX_set_signature_md(context.get(), digest) == 1 &&
                      (padding != RSA_PKCS1_PSS_PADDING ||
                       EVP_PKEY_CTX_set_rsa_pss_saltlen(context.get(), RSA_PSS_SALTLEN_DIGEST) == 1) &&
                      EVP_PKEY_sign(context.get(), signature.data(), &length, digested.data(), digested.size()) == 1;
    ERR_clear_error();
    return made;
}

const Bytes s_text{'s', 'o', 'm', 'e', ' ', 't', 'e', 'x', 't'};

} // namespace

// RFC 8419, 2.3: SHAKE256 with 64 octets, whose length in bits is the parameter.
TEST(SigningKeys, Shake256HasSixtyFourOctets) {
    const SignatureDigest digest = signatureDigest(NID_shake256);
    EXPECT_EQ(digest.length, 64U);
    EXPECT_EQ(digest.identifier, algorithm("2.16.840.1.101.3.4.2.18", {der::integer("200")}));
    const DigestContextPtr context = digest.start();
    ASSERT_NE(context, nullptr);
    EXPECT_EQ(digest.finish(context.get()).size(), 64U);
}

TEST(SigningKeys, AlgorithmsOfRsa) {
    // RFC 3370, 3.2, RFC 5754, 3.2, and RFC 9688, 2.
    for (const int digest : {NID_sha1, NID_sha224, NID_sha256, NID_sha384, NID_sha512}) {
        EXPECT_EQ(algorithmOf(rsa(), digest), algorithm("1.2.840.113549.1.1.1", {der::null()}));
    }
    EXPECT_EQ(algorithmOf(rsa(), NID_sha3_224), algorithm("2.16.840.1.101.3.4.3.13", {der::null()}));
    EXPECT_EQ(algorithmOf(rsa(), NID_sha3_256), algorithm("2.16.840.1.101.3.4.3.14", {der::null()}));
    EXPECT_EQ(algorithmOf(rsa(), NID_sha3_384), algorithm("2.16.840.1.101.3.4.3.15", {der::null()}));
    EXPECT_EQ(algorithmOf(rsa(), NID_sha3_512), algorithm("2.16.840.1.101.3.4.3.16", {der::null()}));
    // RFC 4055, 3.1.
    EXPECT_EQ(algorithmOf(rsa(), NID_sha1, RsaPadding::pss), algorithm("1.2.840.113549.1.1.10", {der::sequence({})}));
    const Bytes sha384 = algorithm("2.16.840.1.101.3.4.2.2", {der::null()});
    EXPECT_EQ(algorithmOf(rsa(), NID_sha384, RsaPadding::pss),
              algorithm("1.2.840.113549.1.1.10",
                        {der::sequence({der::element(0xA0, sha384),
                                        der::element(0xA1, algorithm("1.2.840.113549.1.1.8", {sha384})),
                                        der::element(0xA2, der::integer("30"))})}));
    EXPECT_EQ(SigningKey(rsa().get(), RsaPadding::pkcs1, NID_sha256).fixedLength(), 256U);
    EXPECT_EQ(SigningKey(rsaOfBits(1023).get(), RsaPadding::pkcs1, NID_sha256).fixedLength(), 128U);
    EXPECT_EQ(SigningKey(rsaOfBits(1025).get(), RsaPadding::pkcs1, NID_sha256).fixedLength(), 129U);
}

TEST(SigningKeys, KeysForPssAloneSignAsTheyAreRestricted) {
    const Key sha512 = norvtest::pssKey(EVP_sha512(), EVP_sha512(), 20);
    EXPECT_EQ(digestOf(sha512), NID_sha512);
    EXPECT_EQ(algorithmOf(sha512, NID_undef), algorithmOf(rsa(), NID_sha512, RsaPadding::pss));
    EXPECT_NE(refusalOf(sha512, NID_sha256), "");
    EXPECT_EQ(digestOf(norvtest::pssKey(nullptr, nullptr, 0)), NID_sha256);
    EXPECT_EQ(digestOf(rsa(), RsaPadding::pss), NID_sha256);
    // The digest of one and the mask of another do not make what is signed here.
    const std::string refusal = "the key does not sign with the digest SHA512: ";
    EXPECT_EQ(refusalOf(norvtest::pssKey(EVP_sha256(), EVP_sha512(), 20), NID_sha512).substr(0, refusal.size()),
              refusal);
    EXPECT_EQ(refusalOf(norvtest::pssKey(EVP_sha512(), EVP_sha256(), 20), NID_sha512).substr(0, refusal.size()),
              refusal);
    EXPECT_EQ(refusalOf(norvtest::pssKey(EVP_sha512(), EVP_sha512(), 65), NID_sha512).substr(0, refusal.size()),
              refusal)
        << "more salt than the digest is long";
}

// RFC 8017, 9.2 and 9.1.1, as OpenSSL has it.
TEST(SigningKeys, RsaKeysThatAreTooShortForADigest) {
    struct Case {
        int bits;
        int digest;
        RsaPadding padding;
        bool fits;
    };
    for (const auto& [bits, digest, padding, fits] : std::vector<Case>{
             {745, NID_sha512, RsaPadding::pkcs1, true},  // 94 octets: 3 + 8 + 19 + 64
             {744, NID_sha512, RsaPadding::pkcs1, false}, // 93
             {361, NID_sha1, RsaPadding::pkcs1, true},    // 46 octets: 3 + 8 + 15 + 20
             {360, NID_sha1, RsaPadding::pkcs1, false},   // 45
             {1034, NID_sha512, RsaPadding::pss, true},   // 130 octets for all bits but one: 64 + 64 + 2
             {1033, NID_sha512, RsaPadding::pss, false},  // 129
             {330, NID_sha1, RsaPadding::pss, true},      // 42
             {329, NID_sha1, RsaPadding::pss, false},
         }) {
        const Key key = rsaOfBits(bits);
        const EVP_MD* method = EVP_get_digestbynid(digest);
        const bool isPss = padding == RsaPadding::pss;
        EXPECT_EQ(signsInOpenssl(key, method, isPss ? RSA_PKCS1_PSS_PADDING : RSA_PKCS1_PADDING), fits) << bits;
        EXPECT_EQ(refusalOf(key, digest, padding), fits ? ""
                                                        : std::string("the digest ") + OBJ_nid2sn(digest) +
                                                              " is too long for an RSA key of " + std::to_string(bits) +
                                                              " bits");
        const SigningKey signing(key.get(), padding, digest);
        if (fits) {
            EXPECT_EQ(signing.signText(s_text).size(), static_cast<std::size_t>(bits + 7) / 8);
        }
    }
    EXPECT_NE(refusalOf(norvtest::publicRsa(norvtest::number("0"), norvtest::number("3")), NID_sha256, RsaPadding::pss),
              "");
}

// SHA-256 for curves of up to 256 bits, SHA-384 up to 384, SHA-512 beyond.
TEST(SigningKeys, DigestsThatGoWithACurve) {
    EXPECT_EQ(digestOf(keyOnCurve("secp224r1")), NID_sha256);
    EXPECT_EQ(digestOf(keyOnCurve("P-256")), NID_sha256);
    EXPECT_EQ(digestOf(keyOnCurve("c2pnb272w1")), NID_sha384) << "257 bits";
    EXPECT_EQ(digestOf(keyOnCurve("P-384")), NID_sha384);
    EXPECT_EQ(digestOf(keyOnCurve("P-521")), NID_sha512);
    EXPECT_EQ(algorithmOf(keyOnCurve("P-256"), NID_sha3_512), algorithm("2.16.840.1.101.3.4.3.12"));
}

TEST(SigningKeys, WhatDoesNotSign) {
    EXPECT_EQ(SigningKey(nullptr, RsaPadding::pkcs1, NID_sha256).refusal(), "there is no private key");
    EXPECT_EQ(refusalOf(keyOfType("X25519")), "unsupported: keys of type X25519 do not sign here");
    const KeyContextPtr context(EVP_PKEY_CTX_new_from_name(nullptr, "DH", nullptr));
    EVP_PKEY* made = nullptr;
    ASSERT_EQ(EVP_PKEY_keygen_init(context.get()), 1);
    ASSERT_EQ(EVP_PKEY_CTX_set_dh_nid(context.get(), NID_ffdhe2048), 1);
    ASSERT_EQ(EVP_PKEY_keygen(context.get(), &made), 1);
    const KeyPtr owner(made);
    EXPECT_EQ(refusalOf(Key::of(made)), "unsupported: keys of type DH do not sign here");
    EXPECT_EQ(refusalOf(rsa(), NID_md5), "unsupported: the digest MD5 for signatures");
    EXPECT_EQ(refusalOf(rsa(), NID_shake256), "unsupported: the digest SHAKE256 for signatures");
    EXPECT_EQ(refusalOf(keyOfType("ED25519"), NID_sha256), "ED25519 signs with the digest SHA512, not with SHA256");
    for (const Key& key : {rsa(), norvtest::pssKey(nullptr, nullptr, 0), keyOnCurve("P-256"), keyOfType("ED25519"),
                           keyOfType("ED448")}) {
        EXPECT_EQ(refusalOf(publicHalf(key)), "the key has no private part");
    }
}

// Keys in hardware are asked to sign, since they show nothing; each trial of another one would cost as much as a signature. OpenSSL 3.0.19
// does not tell of an EC key that it has a private number without copying it; 3.0.22 does.
TEST(SigningKeys, KeysThatShowTheirPrivatePartAreNotTried) {
    constexpr unsigned long tells = 0x30000160;
    for (const Key& key : {rsa(), keyOnCurve("P-256"), keyOfType("ED25519"), keyOfType("ED448")}) {
        s_wholes = 0;
        EXPECT_EQ(refusalOf(key), "");
        const bool isShown = OpenSSL_version_num() >= tells || EVP_PKEY_is_a(key.get(), "EC") == 0;
        EXPECT_LE(s_wholes, isShown ? 0 : 1) << EVP_PKEY_get0_type_name(key.get());
    }
}

// A fault in the computation would give the key away (Boneh, DeMillo and Lipton): none leaves.
TEST(SigningKeys, AWrongSignatureOfRsaIsMadeOnceMore) {
    const SigningKey signing(rsa().get(), RsaPadding::pkcs1, NID_sha256);
    const Bytes digest(32, 5);
    s_signs = 0;
    s_failingChecks = 1;
    const auto second = signing.signDigest(digest);
    EXPECT_EQ(second.size(), 256U);
    EXPECT_EQ(s_signs, 2);
    s_signs = 0;
    s_renewals = 0;
    s_failingChecks = 2;
    EXPECT_TRUE(signing.signDigest(digest).empty());
    EXPECT_EQ(s_signs, 2);
    EXPECT_EQ(s_renewals, 2) << "after each";
    EXPECT_EQ(s_failingChecks, 0);
    s_signs = 0;
    EXPECT_EQ(signing.signDigest(digest), second) << "PKCS#1 1.5 is the same each time";
    EXPECT_EQ(s_signs, 1);
    ERR_clear_error();
}

TEST(SigningKeys, AFailureOfOpensslGivesNoSignature) {
    const Bytes digest(32, 5);
    for (const Key& key : {rsa(), keyOnCurve("P-256")}) {
        const SigningKey signing(key.get(), RsaPadding::pkcs1, NID_sha256);
        s_failingSigns = 1;
        EXPECT_TRUE(signing.signDigest(digest).empty());
        EXPECT_EQ(s_failingSigns, 0);
        s_signs = 0;
        s_failingChecks = 1; // which only RSA meets
        EXPECT_FALSE(signing.signDigest(digest).empty());
        EXPECT_EQ(s_signs, key.get() == rsa().get() ? 2 : 1);
        s_failingChecks = 0;
    }
    const Key edwards = keyOfType("ED25519");
    const SigningKey signing(edwards.get(), RsaPadding::pkcs1, NID_undef);
    EXPECT_EQ(signing.signText(s_text).size(), 64U);
    const During<int> shorter(s_shorter, 4);
    EXPECT_EQ(signing.signText(s_text).size(), 60U) << "as many as OpenSSL says";
    ERR_clear_error();
}

TEST(Signatures, LengthsOfSignatures) {
    EXPECT_TRUE(isLengthOfSignature(rsa().get(), 1));
    EXPECT_TRUE(isLengthOfSignature(rsa().get(), 256));
    EXPECT_FALSE(isLengthOfSignature(rsa().get(), 0));
    EXPECT_FALSE(isLengthOfSignature(rsa().get(), 257));
    const KeyPtr none(EVP_PKEY_new());
    EXPECT_FALSE(isLengthOfSignature(none.get(), 1));
    EXPECT_FALSE(isLengthOfSignature(none.get(), ~std::size_t{0}));
    ERR_clear_error();
}

TEST(Signatures, BothKindsOfRsaKeys) {
    EXPECT_TRUE(isRsa(rsa().get()));
    EXPECT_TRUE(isRsa(norvtest::pssKey(nullptr, nullptr, 0).get()));
    EXPECT_FALSE(isRsa(keyOnCurve("P-256").get()));
    EXPECT_FALSE(isRsa(keyOfType("ED25519").get()));
}

TEST(Signatures, AWrongOneOfADigestContextIsMadeOnceMore) {
    const DigestContextPtr context(EVP_MD_CTX_new());
    Bytes signature(256);
    unsigned int length = 0;
    for (const auto& [failures, checks, made] :
         {std::tuple(0, 1, true), std::tuple(1, 2, true), std::tuple(2, 2, false)}) {
        ASSERT_EQ(EVP_SignInit_ex(context.get(), EVP_sha256(), nullptr), 1);
        ASSERT_EQ(EVP_SignUpdate(context.get(), s_text.data(), s_text.size()), 1);
        s_finals = 0;
        s_renewals = 0;
        s_finalFails = failures;
        EXPECT_EQ(signFinal(context.get(), signature.data(), length, rsa().get()), made);
        EXPECT_EQ(s_finals, checks);
        EXPECT_EQ(s_renewals, failures);
        EXPECT_EQ(s_finalFails, 0);
        EXPECT_EQ(ERR_peek_error() == 0, made);
        ERR_clear_error();
    }
    EXPECT_FALSE(signFinal(context.get(), signature.data(), length, nullptr));
    EXPECT_NE(ERR_peek_error(), 0U);
    ERR_clear_error();
}

TEST(Signatures, WhatVerifyingLeavesInTheErrorQueue) {
    const DigestContextPtr context(EVP_MD_CTX_new());
    EXPECT_EQ(verifyFinal(context.get(), s_text.data(), 1, nullptr), -1);
    EXPECT_EQ(ERR_GET_REASON(ERR_peek_last_error()), ERR_R_PASSED_NULL_PARAMETER);
    ERR_clear_error();
    ASSERT_EQ(EVP_VerifyInit_ex(context.get(), EVP_sha256(), nullptr), 1);
    ERR_raise(ERR_LIB_USER, 77);
    EXPECT_EQ(verifyFinal(context.get(), s_text.data(), 1, rsa().get()), 0);
    EXPECT_EQ(ERR_GET_REASON(ERR_peek_last_error()), 77) << "a wrong signature leaves it as it was";
    s_finalFails = -1;
    EXPECT_EQ(verifyFinal(context.get(), s_text.data(), 1, rsa().get()), -1);
    s_finalFails = 0;
    EXPECT_EQ(ERR_GET_REASON(ERR_peek_last_error()), ERR_R_MALLOC_FAILURE) << "a failure tells its reasons";
    EXPECT_EQ(ERR_pop_to_mark(), 0) << "no mark is left behind";
    EXPECT_EQ(ERR_peek_error(), 0U);
}
