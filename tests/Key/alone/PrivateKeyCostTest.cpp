// Private keys that cost too much to decode or to decrypt. What OpenSSL computes is counted in OpenSSL itself, and left
// out where it would take minutes.
#include "support/Interpose.h"
#include "support/Keys.h"
#include "support/Streams.h"
#include "support/Thrown.h"

#include <authority/Authority.h>
#include <norvcrypto/Crypto.h>
#include <norvcrypto/Key.h>

#include <openssl/bn.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/pkcs12.h>
#include <openssl/x509.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

long s_hashes = 0;
int s_powers = 0;     ///< computed
int s_longPowers = 0; ///< left out
int s_prompts = 0;

} // namespace

extern "C" {

int EVP_DigestFinal_ex(EVP_MD_CTX* context, unsigned char* digest, unsigned int* length) {
    constexpr long patience = 100000;
    return ++s_hashes > patience ? 0
                                 : norvtest::next<&EVP_DigestFinal_ex>("EVP_DigestFinal_ex")(context, digest, length);
}

int BN_mod_exp_mont_consttime(BIGNUM* result, const BIGNUM* base, const BIGNUM* exponent, const BIGNUM* modulus,
                              BN_CTX* context, BN_MONT_CTX* montgomery) {
    if (BN_num_bits(exponent) > 10000 || BN_num_bits(modulus) > 10000) {
        ++s_longPowers;
        return 0;
    }
    ++s_powers;
    return norvtest::next<&BN_mod_exp_mont_consttime>("BN_mod_exp_mont_consttime")(result, base, exponent, modulus,
                                                                                   context, montgomery);
}

/// Stands in for the person at the terminal: nobody is there.
int EVP_read_pw_string_min(char* /*out*/, int /*minimum*/, int /*length*/, const char* /*prompt*/, int /*verify*/) {
    ++s_prompts;
    return -1;
}
}

namespace {

using namespace norvauthority::der;
using Norvane::Buffer;
using Norvane::Exception;
using Norvane::Crypto::Key;
using Norvane::Crypto::PrivateKey;
using Norvane::Crypto::RefKey;
using Norvane::Crypto::TooCostlyException;
using norvauthority::Bytes;
using norvauthority::bytes;
using norvtest::bufferOf;
using norvtest::detailOf;
using norvtest::encryptedPkcs8;
using norvtest::expectFailure;
using norvtest::thrownBy;

constexpr const char* pemPrefix = "Could not decode the private key:  ";

/// An odd number of so many bits.
Bytes number(std::size_t bits) {
    Bytes content((bits + 7) / 8, 0x55);
    content.front() = static_cast<unsigned char>(1U << ((bits - 1) % 8));
    if (content.front() == 0x80) {
        content.insert(content.begin(), 0);
    }
    content.back() |= 1U;
    return element(integerTag, content);
}

Bytes pkcs8(const Bytes& algorithm, const Bytes& key) {
    return sequence({integer("0"), algorithm, octetString(key)});
}
Bytes dsa(std::size_t modulus, std::size_t exponent) {
    return pkcs8(sequence({oid("1.2.840.10040.4.1"), sequence({number(modulus), number(160), integer("2")})}),
                 number(exponent));
}
Bytes dh(std::size_t modulus, std::size_t exponent) {
    return pkcs8(sequence({oid("1.2.840.113549.1.3.1"), sequence({number(modulus), integer("2")})}), number(exponent));
}
Bytes traditionalDsa(std::size_t modulus) {
    return sequence({integer("0"), number(modulus), number(160), integer("2"), number(modulus - 1), number(150)});
}
Bytes traditionalRsa(std::size_t modulus, std::size_t furtherPrimes = 0) {
    std::vector<Bytes> parts{integer(furtherPrimes == 0 ? "0" : "1"), number(modulus)};
    parts.insert(parts.end(), 7, integer("3"));
    if (furtherPrimes != 0) {
        parts.push_back(
            sequence(std::vector<Bytes>(furtherPrimes, sequence({integer("3"), integer("3"), integer("3")}))));
    }
    return sequence(parts);
}
Bytes rsa(const Bytes& traditional) {
    return pkcs8(sequence({oid("1.2.840.113549.1.1.1"), null()}), traditional);
}
/// P-256, spelled out (SEC 1, C.2), with a cofactor of so many bits; the public key is left out.
Bytes spelledOut(const Bytes& cofactor) {
    const auto octets = [](const std::string& hex) { return norvauthority::fromHex(hex); };
    const Bytes field = sequence(
        {oid("1.2.840.10045.1.1"), integer("ffffffff00000001000000000000000000000000ffffffffffffffffffffffff")});
    const Bytes curve =
        sequence({octetString(octets("ffffffff00000001000000000000000000000000fffffffffffffffffffffffc")),
                  octetString(octets("5ac635d8aa3a93e7b3ebbd55769886bc651d06b0cc53b0f63bce3c3e27d2604b"))});
    const Bytes base = octetString(octets("046b17d1f2e12c4247f8bce6e563a440f277037d812deb33a0f4a13945d898c296"
                                          "4fe342e2fe1a7f9b8ee7eb4a7c0f9e162bce33576b315ececbb6406837bf51f5"));
    const Bytes order = integer("ffffffff00000000ffffffffffffffffbce6faada7179e84f3b9cac2fc632551");
    const Bytes parameters = sequence({integer("1"), field, curve, base, order, cofactor});
    return pkcs8(sequence({oid("1.2.840.10045.2.1"), parameters}), sequence({integer("1"), octetString(Bytes(32, 7))}));
}

Bytes salted(const Bytes& iterations) {
    return sequence({octetString(bytes("saltsalt")), iterations, sequence({oid("1.2.840.113549.2.9"), null()})});
}
/// Encrypted with AES-256 under PBKDF2 and HMAC-SHA-256, in name: the bytes do not decrypt.
Bytes sealed(const Bytes& iterations, std::size_t length = 64) {
    return sequence({sequence({oid("1.2.840.113549.1.5.13"),
                               sequence({sequence({oid("1.2.840.113549.1.5.12"), salted(iterations)}),
                                         sequence({oid("2.16.840.1.101.3.4.1.42"), octetString(Bytes(16))})})}),
                     octetString(Bytes(length))});
}
/// Encrypted in PKCS#12's way.
Bytes sealedOldWay(const Bytes& iterations) {
    return sequence({sequence({oid("1.2.840.113549.1.12.1.3"), sequence({octetString(bytes("saltsalt")), iterations})}),
                     octetString(Bytes(64))});
}
std::string pem(const char* label, const Bytes& der) {
    return norvauthority::pem(label, der);
}
constexpr const char* sealedLabel = "ENCRYPTED PRIVATE KEY";

class PrivateKeyCosts : public testing::Test {
protected:
    PrivateKeyCosts() {
        Norvane::Crypto::initialize();
        ERR_clear_error();
        s_hashes = 0;
        s_powers = s_longPowers = s_prompts = 0;
    }
    ~PrivateKeyCosts() override {
        EXPECT_TRUE(norvtest::errorQueueIsEmpty());
        EXPECT_EQ(s_longPowers, 0);
    }

    static void expectRefusedPem(const std::string& text, const std::string& why, const std::string& passphrase = "") {
        RefKey key(Key::PRIVATE_KEY);
        const auto thrown = thrownBy<TooCostlyException>([&] { key->readPEM(norvtest::bufferOf(text), passphrase); });
        expectFailure(thrown, "Crypto::PrivateKey::read", 4, "Key", 82);
        EXPECT_EQ(detailOf(thrown), pemPrefix + why);
        EXPECT_EQ(static_cast<EVP_PKEY*>(key), nullptr);
        const Buffer given = norvtest::bufferOf(passphrase);
        const auto unattended =
            thrownBy<TooCostlyException>([&] { PrivateKey(nullptr).readUnattended(norvtest::bufferOf(text), &given); });
        expectFailure(unattended, "Crypto::PrivateKey::read", 4, "Key", 82);
        EXPECT_EQ(s_prompts, 0);
    }
    static void expectRefusedDer(const Bytes& der, const std::string& why) {
        const Buffer in = bufferOf(der);
        for (const bool base64 : {false, true}) {
            RefKey key(Key::PRIVATE_KEY);
            const auto thrown = thrownBy<TooCostlyException>(
                [&] { key->read(base64 ? norvtest::bufferOf(in.toBase64String()) : in, base64); });
            expectFailure(thrown, "Crypto::PrivateKey::read", 4, "Key", 112);
            EXPECT_EQ(detailOf(thrown), why);
            EXPECT_EQ(static_cast<EVP_PKEY*>(key), nullptr);
        }
    }
    /// In every form in which PKCS#8 comes.
    static void expectRefused(const Bytes& info, const std::string& why) {
        expectRefusedDer(info, why);
        expectRefusedPem(pem("PRIVATE KEY", info), why);
        const Bytes sealed = encryptedPkcs8(info);
        expectRefusedPem(pem(sealedLabel, sealed), why, "secret");
        const Buffer passphrase = norvtest::bufferOf("secret");
        const auto thrown =
            thrownBy<TooCostlyException>([&] { PrivateKey(nullptr).readUnattended(bufferOf(sealed), &passphrase); });
        expectFailure(thrown, "Crypto::PrivateKey::read", 4, "Key", 112);
        EXPECT_EQ(detailOf(thrown), why);
    }
    static void expectRead(const Bytes& der) {
        RefKey key(Key::PRIVATE_KEY);
        key->read(bufferOf(der), false);
        EXPECT_NE(static_cast<EVP_PKEY*>(key), nullptr);
    }
    /// OpenSSL fails, having been let at it.
    static Exception failureOf(const std::string& text, const std::string& passphrase) {
        return thrownBy([&] { RefKey(Key::PRIVATE_KEY)->readPEM(norvtest::bufferOf(text), passphrase); });
    }
};

constexpr const char* tooLong = "the private key is longer than 16384 bytes";

TEST_F(PrivateKeyCosts, DsaPublicKeysAreNotComputedFromLongNumbers) {
    expectRefused(dsa(10001, 160), "DSA modulus of 10001 bits, more than 10000");
    expectRefused(dsa(100000, 160), "DSA modulus of 100000 bits, more than 10000");
    expectRefused(dsa(1024, 10001), "DSA exponent of 10001 bits, more than 10000");
    EXPECT_EQ(s_powers, 0);
    expectRead(dsa(1024, 160));
    EXPECT_EQ(s_powers, 1);
    expectRead(dsa(10000, 160));
}

TEST_F(PrivateKeyCosts, DhPublicKeysAreNotComputedFromLongNumbers) {
    expectRefused(dh(10001, 160), "DH modulus of 10001 bits, more than 10000");
    expectRefused(dh(1024, 100000), "DH exponent of 100000 bits, more than 10000");
    EXPECT_EQ(s_powers, 0);
    expectRead(dh(1024, 160));
    EXPECT_EQ(s_powers, 1);
}

TEST_F(PrivateKeyCosts, TraditionalDsaKeysHaveTheSameBound) {
    const std::string why = "DSA number of 10001 bits, more than 10000";
    expectRefusedDer(traditionalDsa(10001), why);
    expectRefusedPem(pem("DSA PRIVATE KEY", traditionalDsa(10001)), why);
    expectRead(traditionalDsa(10000));
}

TEST_F(PrivateKeyCosts, RsaNumbersAreBounded) {
    const std::string why = "RSA number of 16385 bits, more than 16384";
    expectRefused(rsa(traditionalRsa(16385)), why);
    expectRefusedDer(traditionalRsa(16385), why);
    expectRefusedPem(pem("RSA PRIVATE KEY", traditionalRsa(16385)), why);
    expectRead(traditionalRsa(16384));
    expectRead(rsa(traditionalRsa(16384)));
}

TEST_F(PrivateKeyCosts, ThousandsOfFurtherPrimesAreTooLong) {
    const Bytes key = traditionalRsa(1024, 2000);
    expectRefused(rsa(key), tooLong);
    expectRefusedDer(key, tooLong);
    expectRefusedPem(pem("RSA PRIVATE KEY", key), tooLong);
    expectRead(traditionalRsa(1024, 2));
}

TEST_F(PrivateKeyCosts, CofactorsAreBounded) {
    expectRefused(spelledOut(number(10001)), "elliptic curve number of 10001 bits, more than 10000");
    expectRefused(spelledOut(number(100000)), "elliptic curve number of 100000 bits, more than 10000");
    expectRead(spelledOut(integer("1")));
}

TEST_F(PrivateKeyCosts, LengthIsThatOfTheFirstStructure) {
    Bytes key = norvauthority::Key::ec().pkcs8();
    append(key, Bytes(100000));
    expectRead(key);
    Bytes indefinite = traditionalRsa(1024, 2000); // 30 82 xx xx
    indefinite[1] = 0x80;
    indefinite.erase(indefinite.begin() + 2, indefinite.begin() + 4);
    append(indefinite, {0, 0});
    expectRefusedDer(indefinite, tooLong);
}

TEST_F(PrivateKeyCosts, KeysOfTheGreatestLengthAreRead) {
    const auto ofLength = [](std::size_t length) {
        Bytes key;
        for (std::size_t filling = length - 1000; key.size() < length; ++filling) {
            const Bytes attribute = sequence({oid("1.2.3.4"), norvauthority::der::set({octetString(Bytes(filling))})});
            key = sequence({integer("0"), sequence({oid("1.2.840.113549.1.1.1"), null()}),
                            octetString(traditionalRsa(1024)), element(contextConstructed(0), attribute)});
        }
        return key;
    };
    const Bytes longest = ofLength(16384);
    ASSERT_EQ(longest.size(), 16384U);
    expectRead(longest);
    const Bytes longer = ofLength(16385);
    ASSERT_EQ(longer.size(), 16385U);
    expectRefused(longer, tooLong);
}

// Encrypted keys

std::vector<Bytes> truncated() {
    return {element(integerTag, {0xff, 0x00, 0x00, 0x00, 0x05}),
            integer("100000005"),
            integer("7fffffff"),
            integer("7fffffffffffffff"),
            integer("8000000000000000"),
            integer("0"),
            element(integerTag, {0xff})};
}

TEST_F(PrivateKeyCosts, PassphrasesAreNotHashedWithoutBound) {
    const std::string why = "the encryption of the private key asks for more than 50000000 hash computations";
    std::vector<Bytes> keys{sealed(integer("17d7841")), sealedOldWay(integer("fe502b"))};
    for (const Bytes& iterations : truncated()) {
        keys.push_back(sealed(iterations));
        keys.push_back(sealedOldWay(iterations));
    }
    for (const Bytes& key : keys) {
        expectRefusedPem(pem(sealedLabel, key), why, "secret");
        expectRefusedPem(pem(sealedLabel, key), why); // and nobody is asked for a passphrase
        const auto thrown =
            thrownBy<TooCostlyException>([&] { PrivateKey(nullptr).readUnattended(bufferOf(key), nullptr); });
        EXPECT_EQ(detailOf(thrown), why);
    }
    EXPECT_EQ(s_hashes, 0);
}

TEST_F(PrivateKeyCosts, EncryptedDerIsNotHashedForByThePrescribedRead) {
    const auto thrown = thrownBy([] { RefKey(Key::PRIVATE_KEY)->read(bufferOf(sealed(integer("fffff"))), false); });
    expectFailure(thrown, "Crypto::PrivateKey::read", 4, "Key", 112);
    EXPECT_EQ(s_hashes, 0);
    EXPECT_EQ(s_prompts, 0);
}

TEST_F(PrivateKeyCosts, LongEncryptedKeysAreNotDecrypted) {
    expectRefusedPem(pem(sealedLabel, sealed(integer("1"), 16464)), tooLong, "secret");
    EXPECT_EQ(s_hashes, 0);
}

TEST_F(PrivateKeyCosts, AWrongPassphraseIsHashedOnce) {
    constexpr int iterations = 2000;
    const std::string text = pem(sealedLabel, encryptedPkcs8(norvauthority::Key::ec().pkcs8(), iterations));
    s_hashes = 0;
    const auto thrown = failureOf(text, "guessed");
    expectFailure(thrown, "Crypto::PrivateKey::read", 4, "Key", 82);
    EXPECT_GE(s_hashes, 2L * iterations); // 32 bytes of key are one block of HMAC-SHA-256
    EXPECT_LT(s_hashes, 2L * iterations + 100);
}

// Reading without anybody to ask

TEST_F(PrivateKeyCosts, UnattendedReadsTakeEveryForm) {
    const auto key = norvauthority::Key::rsa(1024);
    const Buffer secret = norvtest::bufferOf("secret");
    const auto expectReadAs = [&](const Buffer& in, const Buffer* passphrase) {
        PrivateKey read(nullptr);
        read.readUnattended(in, passphrase);
        EXPECT_EQ(EVP_PKEY_eq(static_cast<EVP_PKEY*>(read.keyData()), key.get()), 1);
    };
    for (const Buffer* passphrase : {static_cast<const Buffer*>(nullptr), &secret}) {
        expectReadAs(bufferOf(key.pkcs8()), passphrase);
        expectReadAs(bufferOf(key.traditionalDer()), passphrase);
        expectReadAs(norvtest::bufferOf(key.pkcs8Pem()), passphrase);
        expectReadAs(norvtest::bufferOf(pem("RSA PRIVATE KEY", key.traditionalDer())), passphrase);
    }
    expectReadAs(norvtest::bufferOf(key.encryptedPem("secret")), &secret);
    expectReadAs(bufferOf(encryptedPkcs8(key.pkcs8())), &secret);
    EXPECT_EQ(s_prompts, 0);
}

TEST_F(PrivateKeyCosts, UnattendedReadsNeverAsk) {
    const auto key = norvauthority::Key::ec();
    const Buffer text = norvtest::bufferOf(key.encryptedPem("secret"));
    const Buffer der = bufferOf(encryptedPkcs8(key.pkcs8()));
    const Buffer wrong = norvtest::bufferOf("guessed");
    const Buffer endless(2000, 2000);
    for (const Buffer* passphrase : {static_cast<const Buffer*>(nullptr), &wrong, &endless}) {
        PrivateKey read(nullptr);
        expectFailure(thrownBy([&] { read.readUnattended(text, passphrase); }), "Crypto::PrivateKey::read", 4, "Key",
                      82);
        expectFailure(thrownBy([&] { read.readUnattended(der, passphrase); }), "Crypto::PrivateKey::read", 4, "Key",
                      112);
        EXPECT_EQ(read.keyData(), nullptr);
    }
    EXPECT_EQ(s_prompts, 0);
}

TEST_F(PrivateKeyCosts, AnEmptyPassphraseIsOneForUnattendedReads) {
    RefKey key(new PrivateKey(norvauthority::Key::ec().newReference()));
    Buffer text;
    key->writePEM(text, "");
    PrivateKey read(nullptr);
    const Buffer empty;
    read.readUnattended(text, &empty);
    EXPECT_NE(read.keyData(), nullptr);
    EXPECT_EQ(s_prompts, 0);
}

} // namespace
