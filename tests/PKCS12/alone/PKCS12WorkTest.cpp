// Structures that ask for so many iterations that opening them would take minutes to hours. Where a count is let
// through, OpenSSL's own work is left out: this program stands in for it.
#include "support/Interpose.h"
#include "support/Pkcs12.h"
#include "support/Thrown.h"

#include <norvcrypto/Crypto.h>

using namespace Norvane;
using namespace norvtest;
using namespace norvauthority::der;
using norvauthority::Bytes;
using norvauthority::bytes;

namespace {
int s_checked = 0;
int s_parsed = 0;
} // namespace

extern "C" int PKCS12_verify_mac(PKCS12_st* /*structure*/, const char* /*password*/, int /*length*/) {
    ++s_checked;
    return 1;
}

extern "C" int PKCS12_parse(PKCS12_st* /*structure*/, const char* /*password*/, EVP_PKEY** /*key*/,
                            X509** /*certificate*/, STACK_OF(X509) * * /*others*/) {
    ++s_parsed;
    return 1;
}

namespace {

const Bytes dataType{0x2a, 0x86, 0x48, 0x86, 0xf7, 0x0d, 0x01, 0x07, 0x01};
constexpr const char* just = "1312d00";     // 20,000,000
constexpr const char* oneMore = "1312d01";  // 20,000,001
constexpr const char* half = "989680";      // 10,000,000
constexpr const char* largest = "7fffffff"; // 2^31 - 1

Bytes salted(const char* iterations) {
    return sequence({octetString(bytes("saltsalt")), integer(iterations)});
}
/// PKCS#12's own encryption: SHA-1 and 3DES.
Bytes pbe(const char* iterations) {
    return sequence({oid("1.2.840.113549.1.12.1.3"), salted(iterations)});
}
Bytes pbes2(const Bytes& derivation) {
    return sequence({oid("1.2.840.113549.1.5.13"),
                     sequence({derivation, sequence({oid("2.16.840.1.101.3.4.1.42"), octetString(Bytes(16))})})});
}
Bytes pbkdf2(const char* iterations) {
    return sequence({oid("1.2.840.113549.1.5.12"), salted(iterations)});
}
Bytes scrypt(const char* cost, const char* blocks, const char* parallel) {
    return sequence({oid("1.3.6.1.4.1.11591.4.11"),
                     sequence({octetString(bytes("salt")), integer(cost), integer(blocks), integer(parallel)})});
}

/// A key bag, encrypted with that algorithm.
Bytes keyBag(const Bytes& algorithm) {
    return sequence({oid("1.2.840.113549.1.12.10.1.2"),
                     element(contextConstructed(0), sequence({algorithm, octetString(Bytes(16))}))});
}
Bytes nested(const Bytes& bag) {
    return sequence({oid("1.2.840.113549.1.12.10.1.6"), element(contextConstructed(0), sequence({bag}))});
}
Bytes open(const std::vector<Bytes>& bags) {
    return norvauthority::contentInfo(dataType, octetString(sequence(bags)));
}
/// A safe whose bytes stand encrypted with that algorithm, and do not decrypt.
Bytes sealed(const Bytes& algorithm) {
    const Bytes content = sequence({rawOid(dataType), algorithm, element(context(0), Bytes(16))});
    return norvauthority::contentInfo({0x2a, 0x86, 0x48, 0x86, 0xf7, 0x0d, 0x01, 0x07, 0x06},
                                      sequence({integer("0"), content}));
}
/// A safe that is really encrypted under "secret", with few iterations.
Bytes sealedBags(const std::vector<Bytes>& bags) {
    const Bytes der = sequence(bags);
    const unsigned char* at = der.data();
    auto* decoded = reinterpret_cast<STACK_OF(PKCS12_SAFEBAG)*>(
        ASN1_item_d2i(nullptr, &at, static_cast<long>(der.size()), ASN1_ITEM_rptr(PKCS12_SAFEBAGS)));
    PKCS7* safe = PKCS12_pack_p7encdata(NID_aes_256_cbc, "secret", -1, nullptr, 0, 1, decoded);
    sk_PKCS12_SAFEBAG_pop_free(decoded, PKCS12_SAFEBAG_free);
    unsigned char* encoded = nullptr;
    const int length = i2d_PKCS7(safe, &encoded);
    Bytes result(encoded, encoded + length);
    OPENSSL_free(encoded);
    PKCS7_free(safe);
    return result;
}

Bytes pfx(const std::vector<Bytes>& safes, const Bytes& macIterations = integer("1")) {
    const Bytes digest = sequence({sequence({oid("2.16.840.1.101.3.4.2.1"), null()}), octetString(Bytes(32))});
    return sequence({integer("3"), norvauthority::contentInfo(dataType, octetString(sequence(safes))),
                     sequence({digest, octetString(bytes("saltsalt")), macIterations})});
}

class Pkcs12Work : public x509testing::QuietQueue {
protected:
    static void SetUpTestSuite() { Crypto::initialize(); }
    void SetUp() override {
        QuietQueue::SetUp();
        s_checked = s_parsed = 0;
    }
    static void expectRefused(const Bytes& der) {
        const int before = s_parsed;
        const auto store = storeOf(der);
        const auto thrown = thrownBy([&] { store->read("secret"); });
        expectFailure(thrown, "Crypto::PKCS12::read", 4, "PKCS12");
        EXPECT_EQ(detailOf(thrown), "The PKCS#12 structure asks for more than 20000000 iterations");
        EXPECT_EQ(s_parsed, before);
        EXPECT_TRUE(store->privateKey().isNull());
    }
    static void expectRead(const Bytes& der) {
        const int before = s_parsed;
        storeOf(der)->read("secret");
        EXPECT_EQ(s_parsed, before + 1);
    }
};

TEST_F(Pkcs12Work, MacWithTooManyIterationsIsRefusedBeforeThePasswordIsChecked) {
    for (const char* count : {oneMore, largest, "80000000", "100000001", "8000000000000000", "ffffffffffffffffffff"}) {
        expectRefused(pfx({}, integer(count)));
    }
    EXPECT_EQ(s_checked, 0);
}

TEST_F(Pkcs12Work, MacWithinTheBoundIsChecked) {
    for (const char* count : {just, "1", "0", "-1"}) {
        expectRead(pfx({}, integer(count)));
    }
    expectRead(pfx({}, {})); // a count that is left out is 1
    EXPECT_EQ(s_checked, 5);
}

TEST_F(Pkcs12Work, KeyBagsAreCounted) {
    expectRead(pfx({open({keyBag(pbe(just))})}));
    expectRefused(pfx({open({keyBag(pbe(oneMore))})}));
}

TEST_F(Pkcs12Work, DerivationsOfTheNewSchemeAreCounted) {
    expectRead(pfx({open({keyBag(pbes2(pbkdf2(just)))})}));
    for (const char* count : {oneMore, largest, "80000000", "ffffffffffffffffffff"}) {
        expectRefused(pfx({open({keyBag(pbes2(pbkdf2(count)))})}));
    }
}

TEST_F(Pkcs12Work, ScryptCountsTheProductOfItsNumbers) {
    expectRead(pfx({open({keyBag(pbes2(scrypt("4000", "8", "1")))})})); // the usual ones
    for (const Bytes& derivation :
         {scrypt("20000", "1", "20000"), scrypt(oneMore, "1", "1"), scrypt("1", oneMore, "1"),
          scrypt("1", "1", oneMore), scrypt("7fffffffffffffff", "7fffffffffffffff", "7fffffffffffffff"),
          scrypt("ffffffffffffffffffff", "ffffffffffffffffffff", "1")}) {
        expectRefused(pfx({open({keyBag(pbes2(derivation))})}));
    }
}

TEST_F(Pkcs12Work, EncryptedPartsAreCounted) {
    for (const Bytes& algorithm : {pbe(oneMore), pbes2(pbkdf2(largest))}) {
        expectRefused(pfx({sealed(algorithm)}));
    }
}

TEST_F(Pkcs12Work, BagsInsideEncryptedPartsAreCounted) {
    expectRead(pfx({sealedBags({keyBag(pbe(half))})}));
    expectRefused(pfx({sealedBags({keyBag(pbe(oneMore))})}));
}

TEST_F(Pkcs12Work, NestedBagsAreCounted) {
    expectRefused(pfx({open({nested(nested(keyBag(pbe(oneMore))))})}));
    expectRefused(pfx({sealedBags({nested(keyBag(pbe(oneMore)))})}));
}

TEST_F(Pkcs12Work, CountsAddUp) {
    expectRead(pfx({open({keyBag(pbe(half)), keyBag(pbes2(pbkdf2(half)))})}));
    expectRefused(pfx({open({keyBag(pbe(half)), keyBag(pbe(half)), keyBag(pbe("1"))})}));
    expectRefused(pfx({open({keyBag(pbe(half))}), open({keyBag(pbe(half))}), open({keyBag(pbe("1"))})}));
    expectRefused(pfx({open({keyBag(pbe(just))}), sealed(pbe("1"))}));
}

TEST_F(Pkcs12Work, WhatCannotBeDecodedIsLeftToTheParser) {
    expectRead(pfx({open({keyBag(sequence({oid("1.2.840.113549.1.12.1.3")}))})}));         // no parameters
    expectRead(pfx({open({keyBag(sequence({oid("1.2.840.113549.1.12.1.3"), null()}))})})); // others
    expectRead(pfx({open({keyBag(sequence({oid("1.2.840.113549.1.5.13"), null()}))})}));
    expectRead(pfx({open({keyBag(pbes2(sequence({oid("1.2.840.113549.1.5.12"), null()})))})}));
    expectRead(pfx({open({keyBag(pbes2(sequence({oid("1.2.3"), null()})))})}));
    expectRead(pfx({sealed(pbe("1"))})); // does not decrypt
}

} // namespace
