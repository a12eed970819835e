// Structures that ask for so many hash computations that opening them would take minutes to hours. What is really hashed
// is counted in OpenSSL itself, and cut short where it would take too long.
#include "support/Interpose.h"
#include "support/Keys.h"
#include "support/Pkcs12.h"
#include "support/Started.h"
#include "support/Thrown.h"

#include <limits>

using namespace Norvane;
using namespace norvtest;
using namespace norvauthority::der;
using Norvane::Crypto::TooCostlyException;
using norvauthority::Bytes;
using norvauthority::bytes;

namespace {

constexpr long endless = std::numeric_limits<long>::max();

int s_checked = 0;
bool s_anyMacFits = false;
long s_hashes = 0;
long s_mostHashes = endless; ///< the ones after that fail
Bytes s_insideEveryPart;     ///< bags that every encrypted part is taken to hold, without decrypting it

} // namespace

extern "C" int EVP_DigestFinal_ex(EVP_MD_CTX* context, unsigned char* digest, unsigned int* length) {
    return ++s_hashes > s_mostHashes ? 0 : next<&EVP_DigestFinal_ex>("EVP_DigestFinal_ex")(context, digest, length);
}

extern "C" int PKCS12_verify_mac(PKCS12_st* structure, const char* password, int length) {
    ++s_checked;
    return s_anyMacFits ? 1 : next<&PKCS12_verify_mac>("PKCS12_verify_mac")(structure, password, length);
}

extern "C" STACK_OF(PKCS12_SAFEBAG) * PKCS12_unpack_p7encdata(PKCS7* safe, const char* password, int length) {
    if (s_insideEveryPart.empty()) {
        return next<&PKCS12_unpack_p7encdata>("PKCS12_unpack_p7encdata")(safe, password, length);
    }
    const unsigned char* at = s_insideEveryPart.data();
    return reinterpret_cast<STACK_OF(PKCS12_SAFEBAG)*>(
        ASN1_item_d2i(nullptr, &at, static_cast<long>(s_insideEveryPart.size()), ASN1_ITEM_rptr(PKCS12_SAFEBAGS)));
}

namespace {

const Bytes dataType{0x2a, 0x86, 0x48, 0x86, 0xf7, 0x0d, 0x01, 0x07, 0x01};
constexpr const char* sha1 = "1.3.14.3.2.26";
constexpr const char* sha256 = "2.16.840.1.101.3.4.2.1";
constexpr const char* sha3 = "2.16.840.1.101.3.4.2.8";

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
Bytes scrypt(const char* cost, const char* blocks, const char* parallel, const Bytes& salt = bytes("salt")) {
    return sequence({oid("1.3.6.1.4.1.11591.4.11"),
                     sequence({octetString(salt), integer(cost), integer(blocks), integer(parallel)})});
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

Bytes pfx(const std::vector<Bytes>& safes, const Bytes& macIterations = integer("1"), const char* digest = sha256) {
    const Bytes mac = sequence({sequence({oid(digest), null()}), octetString(Bytes(32))});
    return sequence({integer("3"), norvauthority::contentInfo(dataType, octetString(sequence(safes))),
                     sequence({mac, octetString(bytes("saltsalt")), macIterations})});
}

class Pkcs12Work : public x509testing::QuietQueue {
protected:
    void SetUp() override {
        QuietQueue::SetUp();
        s_checked = 0;
        s_hashes = 0;
        s_mostHashes = endless;
        s_anyMacFits = true;
        s_insideEveryPart.clear();
    }
    static void expectRefused(const Bytes& der) {
        const During<long> cut(s_mostHashes, 1000);
        s_hashes = 0;
        const auto store = storeOf(der);
        const auto thrown = thrownBy<TooCostlyException>([&] { store->read("secret"); });
        expectFailure(thrown, "Crypto::PKCS12::read", 4, "PKCS12");
        EXPECT_EQ(detailOf(thrown), "The PKCS#12 structure asks for more than 50000000 hash computations");
        EXPECT_LT(s_hashes, 100);
        EXPECT_TRUE(store->privateKey().isNull());
        EXPECT_TRUE(errorQueueIsEmpty());
    }
    /// OpenSSL is let at it, and fails, where its hashing is cut short or because there is nothing to decrypt.
    static void expectTried(const Bytes& der) {
        const During<long> cut(s_mostHashes, 1000);
        const auto thrown = thrownBy([&] { storeOf(der)->read("secret"); });
        EXPECT_EQ(thrown.where(), "Crypto::PKCS12::read - parsing error.");
    }
};

// 50,000,000 hash computations, in the units in which each algorithm counts them.
constexpr const char* all = "2faf080";
constexpr const char* allAndOne = "2faf081";
constexpr const char* half = "17d7840";
constexpr const char* halfAndOne = "17d7841";
constexpr const char* third = "fe502a";
constexpr const char* thirdAndOne = "fe502b";
constexpr const char* quarterAndOne = "bebc21";
constexpr const char* eighth = "5f5e10";
constexpr const char* eighthAndOne = "5f5e11";

/// Numbers that OpenSSL would cut to 32 bits: to 5 the first two.
std::vector<Bytes> truncated() {
    return {element(integerTag, {0xff, 0x00, 0x00, 0x00, 0x05}),
            integer("100000005"),
            integer("80000000"),
            integer("7fffffffffffffff"),
            integer("8000000000000000"),
            integer("ffffffffffffffffffff"),
            integer("7fffffff"),
            integer("0"),
            element(integerTag, {0xff}),
            element(integerTag, {0x80, 0, 0, 0, 0, 0, 0, 0, 0})};
}

TEST_F(Pkcs12Work, MacWithTooManyIterationsIsRefusedBeforeThePasswordIsChecked) {
    expectRefused(pfx({}, integer(allAndOne)));
    expectRefused(pfx({}, integer(allAndOne), sha1));
    expectRefused(pfx({}, integer(eighthAndOne), sha3)); // a hash that takes several times as long
    for (const Bytes& count : truncated()) {
        expectRefused(pfx({}, count));
    }
    EXPECT_EQ(s_checked, 0);
}

TEST_F(Pkcs12Work, MacWithinTheBoundIsChecked) {
    storeOf(pfx({}, integer(all)))->read("secret");
    storeOf(pfx({}, integer(eighth), sha3))->read("secret");
    storeOf(pfx({}, {}))->read("secret"); // a count that is left out is 1
    EXPECT_EQ(s_checked, 3);
}

TEST_F(Pkcs12Work, MacOfANegativeCountIsNotWorkedOn) {
    s_anyMacFits = false;
    expectRefused(pfx({}, element(integerTag, {0xff, 0x00, 0x00, 0x00, 0x05})));
    EXPECT_EQ(s_hashes, 0);
}

TEST_F(Pkcs12Work, SchemesOfPkcs12CountEachBlockOfTheKeyAndTheIv) {
    struct Row {
        const char* scheme;
        const char* tooMany;
    };
    for (const Row& row : {Row{"1.2.840.113549.1.12.1.3", thirdAndOne},  // 3DES: 24 bytes of key are two, 8 of IV
                           Row{"1.2.840.113549.1.12.1.6", halfAndOne},   // RC2 of 40 bits
                           Row{"1.2.840.113549.1.12.1.1", allAndOne}}) { // RC4 has no IV
        for (const bool inBag : {true, false}) {
            const auto with = [&](const Bytes& count) {
                const Bytes algorithm = sequence({oid(row.scheme), sequence({octetString(bytes("saltsalt")), count})});
                return pfx({inBag ? open({keyBag(algorithm)}) : sealed(algorithm)}, {});
            };
            expectRefused(with(integer(row.tooMany)));
            for (const Bytes& count : truncated()) {
                expectRefused(with(count));
            }
            expectTried(with(integer(eighth)));
        }
    }
}

TEST_F(Pkcs12Work, DerivationsOfTheNewSchemeCountTwoForEachBlock) {
    struct Row {
        const char* prf;
        const char* tooMany;
    };
    for (const Row& row : {Row{"", quarterAndOne},                    // SHA-1: 32 bytes of key are two blocks
                           Row{"1.2.840.113549.2.9", halfAndOne},     // SHA-256
                           Row{"1.2.840.113549.2.11", halfAndOne}}) { // SHA-512
        const auto with = [&](const Bytes& count) {
            std::vector<Bytes> parameters{octetString(bytes("saltsalt")), count};
            if (*row.prf != '\0') {
                parameters.push_back(sequence({oid(row.prf), null()}));
            }
            return pfx({open({keyBag(pbes2(sequence({oid("1.2.840.113549.1.5.12"), sequence(parameters)})))})}, {});
        };
        expectRefused(with(integer(row.tooMany)));
        expectTried(with(integer(eighth)));
        for (const Bytes& count : truncated()) {
            expectRefused(with(count));
        }
    }
}

TEST_F(Pkcs12Work, AKeyLengthOfItsOwnBuysNothing) {
    // OpenSSL takes the length of the cipher's key or refuses, before it hashes anything.
    const Bytes longKey = sequence({oid("1.2.840.113549.1.5.12"),
                                    sequence({octetString(bytes("saltsalt")), integer("3e8"), integer("7fffffff")})});
    s_hashes = 0;
    expectTried(pfx({open({keyBag(pbes2(longKey))})}));
    EXPECT_LT(s_hashes, 100);
}

TEST_F(Pkcs12Work, ScryptCountsItsCores) {
    expectTried(pfx({open({keyBag(pbes2(scrypt("10", "8", "1")))})}));
    for (const Bytes& derivation :
         {scrypt("4000", "8", "60"), scrypt("20000", "1", "20000"), scrypt(allAndOne, "1", "1"),
          scrypt("1", allAndOne, "1"), scrypt("1", "1", quarterAndOne),
          scrypt("7fffffffffffffff", "7fffffffffffffff", "7fffffffffffffff"),
          scrypt("7fffffff", "7fffffff", "7fffffff"), scrypt("ffffffffffffffffffff", "ffffffffffffffffffff", "1")}) {
        expectRefused(pfx({open({keyBag(pbes2(derivation))})}));
    }
}

TEST_F(Pkcs12Work, ScryptHashesALongSaltAllOverAgain) {
    // 260,000 of p are 1,040,000 times the salt, of 32 blocks here: 33,280,000 hashes. With 64 KiB it took 40 seconds.
    const auto salted = [](std::size_t length) { return keyBag(pbes2(scrypt("2", "1", "3f7a0", Bytes(length, 's')))); };
    expectRefused(pfx({open({salted(64 * 64)})}));
    expectRefused(pfx({open({salted(std::size_t{64} << 10U)})}));
    expectTried(pfx({open({salted(32 * 64)})}));
}

TEST_F(Pkcs12Work, ScryptIsGivenNoMoreMemoryThanOpenSslAllows) {
    // 128 MiB, for 4,194,304 cores.
    const auto thrown =
        thrownBy([&] { storeOf(pfx({open({keyBag(pbes2(scrypt("100000", "1", "1")))})}))->read("secret"); });
    EXPECT_EQ(thrown.where(), "Crypto::PKCS12::read - parsing error.");
    EXPECT_NE(detailOf(thrown).find("memory limit exceeded"), std::string::npos) << detailOf(thrown);
}

TEST_F(Pkcs12Work, MacAndContentsAreOneSum) {
    expectTried(pfx({open({keyBag(pbe(third))})}, integer("2"))); // 49,999,998 and 2
    expectRefused(pfx({open({keyBag(pbe(third))})}, integer("3")));
    expectTried(pfx({open({keyBag(pbe(eighth))})}, integer(half)));
    expectRefused(pfx({open({keyBag(pbe(eighth))})}, integer(all)));
    expectRefused(pfx({sealed(pbe(eighth))}, integer(all)));
}

TEST_F(Pkcs12Work, EncryptedPartsAndWhatIsInThemAreOneSum) {
    s_insideEveryPart = sequence({});
    const Bytes part = sealed(pbe(eighth)); // 18,750,000
    storeOf(pfx({part, part}))->read("secret");
    expectRefused(pfx({part, part, part}));
    s_insideEveryPart = sequence({keyBag(pbe(eighth))});
    expectRefused(pfx({part}, integer(half)));
    s_insideEveryPart = sequence({nested(nested(keyBag(pbe(thirdAndOne))))});
    expectRefused(pfx({sealed(pbe("1"))}));
}

TEST_F(Pkcs12Work, NestedBagsAreCounted) {
    expectRefused(pfx({open({nested(nested(keyBag(pbe(thirdAndOne))))})}));
}

TEST_F(Pkcs12Work, WhatCannotBeDecodedIsLeftToTheParser) {
    expectTried(pfx({open({keyBag(sequence({oid("1.2.840.113549.1.12.1.3")}))})}));         // no parameters
    expectTried(pfx({open({keyBag(sequence({oid("1.2.840.113549.1.12.1.3"), null()}))})})); // others
    expectTried(pfx({open({keyBag(sequence({oid("1.2.840.113549.1.5.13"), null()}))})}));
    expectTried(pfx({open({keyBag(pbes2(sequence({oid("1.2.840.113549.1.5.12"), null()})))})}));
    expectTried(pfx({open({keyBag(pbes2(sequence({oid("1.2.3"), null()})))})}));
    expectTried(pfx({sealed(pbe("1"))})); // does not decrypt
}

// Structures that open, hashed for real.

const norvauthority::Identity& holder() {
    static const norvauthority::Identity identity =
        norvauthority::issue({.subject = {{"CN", "Holder"}}, .key = norvauthority::Key::ed25519(), .digest = ""});
    return identity;
}

/// The hash computations that a read takes.
long hashesOf(const Bytes& der) {
    s_anyMacFits = false;
    const auto store = storeOf(der);
    s_hashes = 0;
    store->read("secret");
    const long hashes = s_hashes;
    EXPECT_FALSE(store->privateKey().isNull());
    EXPECT_FALSE(owned(*store).isNull());
    return hashes;
}

TEST_F(Pkcs12Work, EachPartIsHashedForOnce) {
    constexpr int cipher = NID_pbe_WithSHA1And3_Key_TripleDES_CBC;
    const long hashes = hashesOf(pkcs12({.key = &holder(),
                                         .certificate = &holder(),
                                         .keyCipher = cipher,
                                         .certificateCipher = cipher,
                                         .iterations = 2000,
                                         .macIterations = 2000}));
    constexpr long expected = 2000 + 2 * 3 * 2000; // the MAC; 24 bytes of key and 8 of IV for key and certificate
    EXPECT_GE(hashes, expected);
    EXPECT_LT(hashes, expected + 100); // the MAC itself, and the certificate's fingerprint
}

TEST_F(Pkcs12Work, EachPartOfTheNewSchemeIsHashedForOnce) {
    const long hashes =
        hashesOf(pkcs12({.key = &holder(), .certificate = &holder(), .iterations = 2000, .macIterations = 2000}));
    constexpr long expected = 2000 + 2 * 2 * 2000; // HMAC-SHA-256 is two, and fills 32 bytes
    EXPECT_GE(hashes, expected);
    EXPECT_LT(hashes, expected + 100);
}

TEST_F(Pkcs12Work, OfSeveralKeysOnlyTheFirstIsHashedFor) {
    // A key store with a hundred keys opens; only one of them is asked for.
    const Bytes encrypted = encryptedPkcs8(norvauthority::Key::ed25519().pkcs8(), 2000);
    const Bytes bag = sequence({oid("1.2.840.113549.1.12.10.1.2"), element(contextConstructed(0), encrypted)});
    std::vector<Bytes> bags(100, bag);
    bags.push_back(keyBag(pbe(thirdAndOne))); // not looked at either
    const auto store = storeOf(pfx({open(bags)}));
    s_hashes = 0;
    store->read("secret");
    EXPECT_FALSE(store->privateKey().isNull());
    EXPECT_LT(s_hashes, 4L * 2000 + 100);
}

} // namespace
