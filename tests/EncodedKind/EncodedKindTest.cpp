// What an encoding is, told by its shape.
#include "support/Costly.h"
#include "support/HostileDer.h"
#include "support/Places.h"
#include "support/Thrown.h"

#include <norvcrypto/EncodedKind.h>

#include <openssl/pkcs12.h>
#include <openssl/x509.h>

#include <gtest/gtest.h>

using namespace norvauthority;
using namespace norvauthority::der;
using Norvane::Crypto::EncodedKind;

namespace {

EncodedKind kindOf(const Bytes& octets) {
    const EncodedKind kind =
        Norvane::Crypto::encodedKind(Norvane::Buffer(octets.data(), static_cast<unsigned int>(octets.size()), true));
    EXPECT_TRUE(norvtest::errorQueueIsEmpty());
    return kind;
}

/// What OpenSSL's encoder makes of an object.
template <class T> Bytes encoded(int (*encode)(const T*, unsigned char**), const T* object) {
    unsigned char* octets = nullptr;
    const int length = encode(object, &octets);
    const Bytes copy(octets, octets + std::max(length, 0));
    OPENSSL_free(octets);
    return copy;
}

/// The same in DER, in BER with indefinite lengths, and with something behind it.
void expectKind(EncodedKind kind, const Bytes& object) {
    EXPECT_EQ(kindOf(object), kind);
    EXPECT_EQ(kindOf(norvtest::indefinite(object)), kind);
    EXPECT_EQ(kindOf(concat({object, {0x30}})), kind);
    EXPECT_EQ(kindOf(concat({object, object})), kind);
}

const Identity& person() {
    static const Identity identity = issue({.subject = {{"CN", "Person"}}, .key = Key::ec(), .ca = true});
    return identity;
}

} // namespace

TEST(EncodedKind, Certificates) {
    expectKind(EncodedKind::certificate, person().certificate.der);
    expectKind(EncodedKind::certificate, norvtest::explicitIdentity().certificate.der);
    expectKind(EncodedKind::certificate, issue({.subject = {}, .key = Key::ec()}).certificate.der);
    // Of version 1, which is left out (RFC 5280, 4.1.2.1).
    const X509Ptr certificate(X509_new());
    EVP_PKEY* const key = person().key.get();
    ASSERT_EQ(X509_set_pubkey(certificate.get(), key), 1);
    ASSERT_NE(X509_gmtime_adj(X509_getm_notBefore(certificate.get()), 0), nullptr);
    ASSERT_NE(X509_gmtime_adj(X509_getm_notAfter(certificate.get()), 60), nullptr);
    ASSERT_GT(X509_sign(certificate.get(), key, EVP_sha256()), 0);
    expectKind(EncodedKind::certificate, encoded<X509>(i2d_X509, certificate.get()));
}

TEST(EncodedKind, RevocationLists) {
    expectKind(EncodedKind::certificateRevocationList, issueList({.issuer = &person()}).der);
    expectKind(EncodedKind::certificateRevocationList,
               issueList({.issuer = &person(), .revoked = {{.serial = "5"}}, .crlNumber = "7"}).der);
    // Of version 1, which is left out (RFC 5280, 5.1.2.1).
    const CrlPtr list(X509_CRL_new());
    const std::unique_ptr<ASN1_TIME, decltype(&ASN1_TIME_free)> now(X509_gmtime_adj(nullptr, 0), ASN1_TIME_free);
    ASSERT_EQ(X509_CRL_set1_lastUpdate(list.get(), now.get()), 1);
    ASSERT_GT(X509_CRL_sign(list.get(), person().key.get(), EVP_sha256()), 0);
    expectKind(EncodedKind::certificateRevocationList, encoded<X509_CRL>(i2d_X509_CRL, list.get()));
}

TEST(EncodedKind, PrivateKeysOfAllForms) {
    for (const Key& key : {Key::rsa(), Key::dsa(), Key::ec(), Key::ed25519()}) {
        expectKind(EncodedKind::privateKey, key.pkcs8());
    }
    for (const Key& key : {Key::rsa(), Key::dsa(), Key::ec()}) {
        expectKind(EncodedKind::privateKey, key.traditionalDer());
    }
    expectKind(EncodedKind::privateKey, norvtest::curveKey("P-256", true).pkcs8());
}

TEST(EncodedKind, PublicAndEncryptedKeys) {
    for (const Key& key : {Key::rsa(), Key::dsa(), Key::ec(), Key::ed25519(), norvtest::curveKey("P-256", true)}) {
        expectKind(EncodedKind::publicKey, key.publicDer());
    }
    const Bytes key = person().key.pkcs8();
    const unsigned char* at = key.data();
    PKCS8_PRIV_KEY_INFO* info = d2i_PKCS8_PRIV_KEY_INFO(nullptr, &at, static_cast<long>(key.size()));
    X509_SIG* sealed = PKCS8_encrypt(-1, EVP_aes_256_cbc(), "secret", 6, nullptr, 0, 1, info);
    expectKind(EncodedKind::encryptedPrivateKey, encoded<X509_SIG>(i2d_X509_SIG, sealed));
    X509_SIG_free(sealed);
    PKCS8_PRIV_KEY_INFO_free(info);
}

TEST(EncodedKind, Pkcs12WithAndWithoutMac) {
    for (const int macIterations : {1, -1}) {
        PKCS12* file = PKCS12_create("secret", "name", person().key.get(), person().certificate.x509().get(), nullptr,
                                     0, 0, 1, macIterations, 0);
        ASSERT_NE(file, nullptr);
        expectKind(EncodedKind::pkcs12, encoded<PKCS12>(i2d_PKCS12, file));
        PKCS12_free(file);
    }
}

TEST(EncodedKind, PairsOfCertificates) {
    const Bytes forward = element(contextConstructed(0), person().certificate.der);
    const Bytes reverse = element(contextConstructed(1), person().certificate.der);
    expectKind(EncodedKind::crossCertificatePair, sequence({forward}));
    expectKind(EncodedKind::crossCertificatePair, sequence({reverse}));
    expectKind(EncodedKind::crossCertificatePair, sequence({forward, reverse}));
    EXPECT_EQ(kindOf(sequence({})), EncodedKind::unknown) << "a pair of no certificates, formally";
    EXPECT_EQ(kindOf(sequence({reverse, forward})), EncodedKind::unknown);
    EXPECT_EQ(kindOf(sequence({element(contextConstructed(0), Bytes{5, 0})})), EncodedKind::unknown);
    EXPECT_EQ(kindOf(sequence({forward, element(contextConstructed(1), {})})), EncodedKind::unknown);
}

TEST(EncodedKind, CmsStructuresByHowTheyBegin) {
    const Bytes structure = norvtest::certificatesOnly({person().certificate.der});
    expectKind(EncodedKind::contentInfo, structure);
    EXPECT_EQ(kindOf(Bytes(structure.begin(), structure.begin() + 20)), EncodedKind::contentInfo);
    EXPECT_EQ(kindOf(fromHex("30800609")), EncodedKind::contentInfo);
}

TEST(EncodedKind, OtherStructuresAreNone) {
    const Bytes algorithm = sequence({oid("1.2.840.113549.1.1.11"), null()});
    const Bytes signature = bitString(Bytes(8, 1));
    const Bytes name = sequence({});
    // A certification request (RFC 2986) and an attribute certificate (RFC 5755) are signed, too.
    const Bytes request =
        sequence({integer("0"), name, sequence({algorithm, signature}), element(contextConstructed(0), {})});
    EXPECT_EQ(kindOf(sequence({request, algorithm, signature})), EncodedKind::unknown);
    const Bytes holder = sequence({element(contextConstructed(0), {})});
    EXPECT_EQ(kindOf(sequence({sequence({integer("1"), holder, element(contextConstructed(0), {}), algorithm}),
                               algorithm, signature})),
              EncodedKind::unknown);
    for (const char* none : {"", "30", "3000", "3003020105", "30030a0100", "0500", "31030201", "3080", "30800000",
                             "2d2d2d2d2d424547494e20", "300402013000", "30063004020100"}) {
        EXPECT_EQ(kindOf(fromHex(none)), EncodedKind::unknown) << none;
    }
    EXPECT_EQ(kindOf(sequence(std::vector<Bytes>(5, integer("3")))), EncodedKind::unknown) << "too few numbers for DSA";
    EXPECT_EQ(kindOf(sequence(std::vector<Bytes>(7, integer("3")))), EncodedKind::unknown);
    EXPECT_EQ(kindOf(sequence({algorithm, octetString({1}), integer("1")})), EncodedKind::unknown);
}

TEST(EncodedKind, WhatIsCutShortIsNone) {
    for (const Bytes& whole : {person().certificate.der, person().key.pkcs8(), person().key.publicDer()}) {
        for (const Bytes& beginning : norvtest::properPrefixes(whole)) {
            ASSERT_EQ(kindOf(beginning), EncodedKind::unknown) << beginning.size();
        }
        for (const Bytes& announced : norvtest::oversized(whole)) {
            ASSERT_EQ(kindOf(announced), EncodedKind::unknown);
        }
    }
}

/// Whatever bits are turned over, nothing is read beyond the octets (which the sanitizers would tell).
TEST(EncodedKind, DamageIsHarmless) {
    for (const Bytes& whole : {person().certificate.der, person().key.pkcs8(), issueList({.issuer = &person()}).der}) {
        std::size_t same = 0;
        for (const Bytes& damaged : norvtest::bitFlips(whole)) {
            same += kindOf(damaged) == kindOf(whole) ? 1U : 0U;
        }
        EXPECT_GT(same, 4 * whole.size()) << "most damage is deeper inside";
    }
}
