// What telling objects apart costs: nothing of them is decoded. What OpenSSL computes is counted in OpenSSL itself.
#include "support/Costly.h"
#include "support/Interpose.h"

#include <norvcrypto/Key.h>

#include <openssl/bn.h>
#include <openssl/ec.h>
#include <recognise/DerAndPem.h>

#include <gtest/gtest.h>

namespace {

int s_powers = 0;
int s_groups = 0;

} // namespace

extern "C" {

int BN_mod_exp_mont_consttime(BIGNUM* result, const BIGNUM* base, const BIGNUM* exponent, const BIGNUM* modulus,
                              BN_CTX* context, BN_MONT_CTX* montgomery) {
    ++s_powers;
    return norvtest::next<&BN_mod_exp_mont_consttime>("BN_mod_exp_mont_consttime")(result, base, exponent, modulus,
                                                                                   context, montgomery);
}

EC_GROUP* EC_GROUP_new_from_ecparameters(const ECPARAMETERS* parameters) {
    ++s_groups;
    return norvtest::next<&EC_GROUP_new_from_ecparameters>("EC_GROUP_new_from_ecparameters")(parameters);
}
}

namespace {

using namespace norvauthority;
using norvcrypt::ObjectKind;

Norvane::Buffer bufferOf(const Bytes& bytes) {
    return Norvane::Buffer(bytes.data(), static_cast<unsigned int>(bytes.size()), false);
}

/// The kind of the only object there is.
ObjectKind kindOf(const Bytes& bytes) {
    s_powers = 0;
    s_groups = 0;
    const auto objects = norvcrypt::objectsIn(bufferOf(bytes));
    EXPECT_EQ(objects.size(), 1U);
    return objects.front().kind;
}

/// A DSA key whose public key its reader computes.
Bytes dsaKey() {
    return Key::dsa().pkcs8();
}

} // namespace

TEST(RecogniseWork, ADsaKeyIsRecognisedWithoutPowers) {
    const Bytes der = dsaKey();
    EXPECT_EQ(kindOf(der), ObjectKind::privateKey);
    EXPECT_EQ(s_powers, 0);
    // The library's own reading is the only one, and is seen by the counter.
    Norvane::Crypto::RefKey key(Norvane::Crypto::Key::PRIVATE_KEY);
    key->read(bufferOf(der), false);
    EXPECT_EQ(s_powers, 1);
}

TEST(RecogniseWork, CurvesThatAreSpelledOutAreNotBuilt) {
    const Identity& costly = norvtest::explicitIdentity();
    EXPECT_EQ(kindOf(costly.certificate.der), ObjectKind::certificate);
    EXPECT_EQ(s_groups, 0);
    EXPECT_EQ(kindOf(costly.key.publicDer()), ObjectKind::publicKey);
    EXPECT_EQ(s_groups, 0);
    EXPECT_EQ(kindOf(costly.key.pkcs8()), ObjectKind::privateKey);
    EXPECT_EQ(s_groups, 0);
    const auto x509 = costly.certificate.x509(); // OpenSSL decodes the key at once
    EXPECT_GT(s_groups, 0) << "which the counter sees";
}

/// Each of a file's objects is looked at once, and only a few levels deep.
TEST(RecogniseWork, ManyKeysTakeNoPowersEither) {
    const Bytes one = dsaKey();
    Bytes many;
    for (int i = 0; i < 100; ++i) {
        der::append(many, one);
    }
    s_powers = 0;
    const auto objects = norvcrypt::objectsIn(bufferOf(many));
    EXPECT_EQ(objects.size(), 100U);
    EXPECT_EQ(s_powers, 0);
}

// One is kept with what is around it, which is more than the seven octets that it has here.
TEST(RecogniseWork, ObjectsOfAFewOctetsAreNotTakenWithoutEnd) {
    const std::string object("\x30\x05\x06\x03\x2a\x03\x04", 7);
    std::string content;
    for (int at = 0; at != 300005; ++at)
        content += object;
    const auto objects = norvcrypt::objectsIn(Norvane::Buffer(reinterpret_cast<const unsigned char*>(content.data()),
                                                              static_cast<unsigned int>(content.size()), false));
    ASSERT_EQ(objects.size(), 300001U);
    EXPECT_EQ(objects[299999].kind, ObjectKind::cms);
    EXPECT_EQ(objects.back().kind, ObjectKind::unknown);
    EXPECT_EQ(objects.back().problem, "more than 300000 objects: the others are not looked at");
}
