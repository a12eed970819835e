// Public keys on curves that are spelled out.
#include "support/Costly.h"
#include "support/Streams.h"
#include "support/Thrown.h"

#include <norvcrypto/Key.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using Norvane::Buffer;
using Norvane::Crypto::Key;
using Norvane::Crypto::RefKey;
using norvtest::bufferOf;
using norvtest::curveKey;
using norvtest::detailOf;
using norvtest::errorQueueIsEmpty;
using norvtest::expectFailure;
using norvtest::thrownBy;

TEST(RefusedKeys, DerOnASpelledOutCurveIsSaidToBeRefused) {
    const norvauthority::Bytes der = curveKey("P-256", true).publicDer();
    for (const bool base64 : {false, true}) {
        const RefKey key(Key::PUBLIC_KEY);
        const auto thrown =
            thrownBy([&] { key->read(base64 ? bufferOf(bufferOf(der).toBase64String()) : bufferOf(der), base64); });
        expectFailure(thrown, "Crypto::PublicKey::read", 4, "Key", 241);
        EXPECT_THAT(detailOf(thrown),
                    testing::EndsWith("norvcrypto / ASN1_d2i_bio / refused: explicit elliptic curve parameters; "));
        EXPECT_TRUE(errorQueueIsEmpty());
        EXPECT_EQ(static_cast<evp_pkey_st*>(key), nullptr);
    }
}

TEST(RefusedKeys, PemOnASpelledOutCurveIsSaidToBeRefused) {
    const std::string bad = curveKey("P-256", true).publicPem();
    const std::string good = curveKey("P-256", false).publicPem();
    // OpenSSL's reader tries block after block, damaged ones and other kinds in front.
    for (const auto& text : {bad, "text\n" + bad, "-----BEGIN X-----\nMIIB\n-----END Y-----\n" + bad, bad + good}) {
        const RefKey key(Key::PUBLIC_KEY);
        const auto thrown = thrownBy([&] { key->readPEM(bufferOf(text)); });
        expectFailure(thrown, "Crypto::PublicKey::read", 4, "Key", 217);
        EXPECT_THAT(detailOf(thrown),
                    testing::MatchesRegex("Could not decode the public key:  0x[0-9a-f]+: norvcrypto / "
                                          "PEM_read_bio_PUBKEY / refused: explicit elliptic curve "
                                          "parameters; "));
        EXPECT_TRUE(errorQueueIsEmpty());
    }
}

TEST(RefusedKeys, NamedCurvesAreRead) {
    for (const char* curve : {"P-224", "P-256", "P-521", "secp256k1", "brainpoolP384r1"}) {
        const norvauthority::Key made = curveKey(curve, false);
        const RefKey fromDer(Key::PUBLIC_KEY);
        fromDer->read(bufferOf(made.publicDer()), false);
        EXPECT_EQ(EVP_PKEY_eq(fromDer, made.get()), 1) << curve;
        const RefKey fromPem(Key::PUBLIC_KEY);
        fromPem->readPEM(bufferOf(made.publicPem()));
        EXPECT_EQ(EVP_PKEY_eq(fromPem, made.get()), 1) << curve;
    }
}
