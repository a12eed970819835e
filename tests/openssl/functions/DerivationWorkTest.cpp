// What passwords cost, at the very bound. The expectations are counted by hand: the hashes of one iteration, so many times.
#include "openssl/DerivationWork.h"
#include "openssl/ContentCipher.h"
#include "openssl/Pointers.h"

#include <authority/Der.h>

#include <openssl/err.h>
#include <openssl/x509.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <optional>
#include <string>

namespace {

using namespace Norvane::Crypto::openssl;
using norvauthority::Bytes;
namespace der = norvauthority::der;

constexpr std::int64_t most = 50'000'000;

Bytes number(std::int64_t value) {
    std::string digits;
    for (std::uint64_t rest = static_cast<std::uint64_t>(value < 0 ? -value : value); rest != 0; rest >>= 4U) {
        digits.insert(0, 1, "0123456789abcdef"[rest & 15U]);
    }
    return der::integer((value < 0 ? "-" : "") + (digits.empty() ? "0" : digits));
}

Bytes algorithm(const std::string& identifier, const Bytes& parameters = {}) {
    return der::sequence({der::oid(identifier), parameters});
}

/// PBKDF2-params (RFC 8018, A.2); HMAC with SHA-1 without a function.
Bytes pbkdf2(std::int64_t iterations, const std::string& function = {}) {
    return algorithm("PBKDF2", der::sequence({der::octetString(Bytes(8, 1)), number(iterations),
                                              function.empty() ? Bytes() : algorithm(function, der::null())}));
}

/// scrypt-params (RFC 7914, 7.1).
Bytes scrypt(std::int64_t cost, std::int64_t block, std::int64_t parallel, std::size_t salt = 8) {
    return algorithm("id-scrypt",
                     der::sequence({der::octetString(Bytes(salt, 1)), number(cost), number(block), number(parallel)}));
}

Bytes pbes2(const Bytes& function, const std::string& cipher) {
    return algorithm("PBES2", der::sequence({function, algorithm(cipher, der::octetString(Bytes(16, 2)))}));
}

/// The schemes of PBES1 and PKCS#12.
Bytes scheme(const std::string& identifier, std::int64_t iterations) {
    return algorithm(identifier, der::sequence({der::octetString(Bytes(8, 1)), number(iterations)}));
}

AlgorithmPtr decoded(const Bytes& octets) {
    AlgorithmPtr made = decodeAlgorithm(octets);
    EXPECT_NE(made, nullptr);
    return made;
}

bool isAffordable(const Bytes& encryption) {
    DerivationWork work;
    work.addEncryption(decoded(encryption).get());
    EXPECT_EQ(ERR_peek_error(), 0UL);
    return work.isAffordable();
}

void addMac(DerivationWork& work, const std::string& digest, std::optional<std::int64_t> iterations) {
    IntegerPtr count;
    if (iterations) {
        const Bytes octets = number(*iterations);
        const unsigned char* at = octets.data();
        count.reset(d2i_ASN1_INTEGER(nullptr, &at, static_cast<long>(octets.size())));
        EXPECT_NE(count, nullptr);
    }
    work.addMac(decoded(algorithm(digest, der::null())).get(), count.get());
    EXPECT_EQ(ERR_peek_error(), 0UL);
}

bool isMacAffordable(const std::string& digest, std::int64_t iterations) {
    DerivationWork work;
    addMac(work, digest, iterations);
    return work.isAffordable();
}

/// So many hashes an iteration, as encryption makes them.
template <class Make> void expectHashes(std::int64_t each, Make make) {
    EXPECT_TRUE(isAffordable(make(most / each))) << each;
    EXPECT_FALSE(isAffordable(make(most / each + 1))) << each;
}

TEST(DerivationWork, AnIterationOfAMacIsAHash) {
    for (const char* digest : {"MD4", "MD5", "SHA1", "SHA224", "SHA256", "SHA384", "SHA512"}) {
        EXPECT_TRUE(isMacAffordable(digest, most)) << digest;
        EXPECT_FALSE(isMacAffordable(digest, most + 1)) << digest;
    }
    for (const char* digest : {"SM3", "SHA3-256", "whirlpool", "1.2.3.4"}) {
        EXPECT_TRUE(isMacAffordable(digest, most / 8)) << digest;
        EXPECT_FALSE(isMacAffordable(digest, most / 8 + 1)) << digest;
    }
}

TEST(DerivationWork, NumbersThatStandForNoIterationsAreTooMany) {
    for (const std::int64_t iterations :
         {std::int64_t{0}, std::int64_t{-1}, std::int64_t{-50}, INT64_MIN + 1, std::int64_t{INT32_MAX},
          std::int64_t{INT32_MAX} + 1, std::int64_t{1} << 32U, (std::int64_t{1} << 32U) + 1, INT64_MAX}) {
        EXPECT_FALSE(isMacAffordable("SHA256", iterations)) << iterations;
        EXPECT_FALSE(isAffordable(pbes2(pbkdf2(iterations), "AES-128-CBC"))) << iterations;
        EXPECT_FALSE(isAffordable(pbes2(scrypt(iterations, 1, 1), "AES-128-CBC"))) << iterations;
        EXPECT_FALSE(isAffordable(pbes2(scrypt(1, iterations, 1), "AES-128-CBC"))) << iterations;
        EXPECT_FALSE(isAffordable(pbes2(scrypt(1, 1, iterations), "AES-128-CBC"))) << iterations;
    }
    EXPECT_TRUE(isMacAffordable("SHA256", 1));
}

TEST(DerivationWork, AMacWithoutANumberIsOneIteration) {
    DerivationWork work;
    addMac(work, "SHA256", most - 1);
    addMac(work, "SHA256", std::nullopt);
    EXPECT_TRUE(work.isAffordable());
    addMac(work, "SHA256", std::nullopt);
    EXPECT_FALSE(work.isAffordable());
}

TEST(DerivationWork, WhatIsTooMuchStaysTooMuchWhateverIsAdded) {
    DerivationWork work;
    addMac(work, "SHA256", most);
    const auto add = [&](int power) {
        work.addEncryption(
            decoded(pbes2(scrypt(std::int64_t{1} << power / 2, std::int64_t{1} << (power + 1) / 2, 1), "AES-128-CBC"))
                .get());
        ASSERT_FALSE(work.isAffordable()) << power;
    };
    for (int power = 24; power != 60; ++power) { // nearly as much as there was, every time
        add(power);
    }
    addMac(work, "SHA256", most);
    add(60); // more than 2^63 in all
}

// RFC 8018, 5.2: each block of the hash that the key fills takes all iterations of the HMAC, which is two hashes.
TEST(DerivationWork, Pbkdf2CountsTheBlocksThatTheKeyFills) {
    const auto with = [](const char* function, const char* cipher) {
        return [=](std::int64_t iterations) { return pbes2(pbkdf2(iterations, function), cipher); };
    };
    expectHashes(2 * 1, with("hmacWithSHA256", "AES-128-CBC"));
    expectHashes(2 * 1, with("hmacWithSHA256", "AES-256-CBC"));
    expectHashes(2 * 1, with("hmacWithSHA512", "AES-256-CBC"));
    expectHashes(2 * 2, with("hmacWithSHA224", "AES-256-CBC"));
    expectHashes(2 * 1, with("hmacWithSHA1", "AES-128-CBC"));
    expectHashes(2 * 2, with("hmacWithSHA1", "AES-192-CBC"));
    expectHashes(2 * 2, with("", "AES-256-CBC"));
    expectHashes(2 * 2, with("hmacWithMD5", "AES-256-CBC"));
    // Of a cipher that is not known, or takes keys of any length, the longest: 64 octets.
    expectHashes(2 * 2, with("hmacWithSHA256", "1.2.3.4"));
    expectHashes(2 * 2, with("hmacWithSHA256", "RC2-CBC"));
    expectHashes(2 * 1, with("hmacWithSHA512", "1.2.3.4"));
    // A hash that OpenSSL only has the name of: 16 octets, and slow.
    expectHashes(8 * 2 * 2, with("id-HMACGostR3411-94", "AES-256-CBC"));
    expectHashes(8 * 2 * 1, with("id-HMACGostR3411-94", "AES-128-CBC"));
    EXPECT_TRUE(isAffordable(pbes2(pbkdf2(most + 1, "1.2.3.4"), "AES-128-CBC"))) << "which OpenSSL refuses";
}

// RFC 7914, 4 and 5: N times two passes over p blocks of 2r cores.
TEST(DerivationWork, ScryptCountsItsCores) {
    EXPECT_TRUE(isAffordable(pbes2(scrypt(most / 4, 1, 1), "AES-128-CBC")));
    EXPECT_FALSE(isAffordable(pbes2(scrypt(most / 4 + 1, 1, 1), "AES-128-CBC")));
    EXPECT_TRUE(isAffordable(pbes2(scrypt(100, 100, 1250), "AES-128-CBC")));
    EXPECT_FALSE(isAffordable(pbes2(scrypt(100, 100, 1251), "AES-128-CBC")));
    EXPECT_FALSE(isAffordable(pbes2(scrypt(1 << 30, 1 << 30, 1 << 30), "AES-128-CBC")));
}

// RFC 7914, 6: PBKDF2 hashes the salt for each 32 of p times 128r octets, by SHA-256, which takes 64 at a time.
TEST(DerivationWork, ScryptCountsHowOftenItHashesItsSalt) {
    constexpr std::size_t blocks = 20; // of the salt; so that the cores, 8rp, and these, 80rp, are 88rp
    constexpr std::int64_t fits = most / 88;
    EXPECT_TRUE(isAffordable(pbes2(scrypt(2, 1, fits, 64 * blocks), "AES-128-CBC")));
    EXPECT_FALSE(isAffordable(pbes2(scrypt(2, 1, fits + 1, 64 * blocks), "AES-128-CBC")));
    EXPECT_TRUE(isAffordable(pbes2(scrypt(2, fits, 1, 64 * blocks), "AES-128-CBC")));
    EXPECT_FALSE(isAffordable(pbes2(scrypt(2, fits + 1, 1, 64 * blocks), "AES-128-CBC")));
    EXPECT_TRUE(isAffordable(pbes2(scrypt(2, 1, fits + 1, 64 * blocks - 1), "AES-128-CBC")));
    // What 32 MiB of memory allow, with a salt of 1 MiB: a million times 16,384 hashes.
    EXPECT_FALSE(isAffordable(pbes2(scrypt(2, 1, 260000, std::size_t{1} << 20U), "AES-128-CBC")));
    EXPECT_TRUE(isAffordable(pbes2(scrypt(16384, 8, 1, 1024), "AES-128-CBC")))
        << "as programs write it, and a long salt";
}

// RFC 7292, B.2: the blocks of the key and those of the initialisation vector.
TEST(DerivationWork, SchemesOfPkcs12CountKeyAndVector) {
    expectHashes(2 + 1, [](std::int64_t count) { return scheme("PBE-SHA1-3DES", count); });
    expectHashes(1 + 1, [](std::int64_t count) { return scheme("PBE-SHA1-2DES", count); });
    expectHashes(1 + 1, [](std::int64_t count) { return scheme("PBE-SHA1-RC2-40", count); });
    expectHashes(1, [](std::int64_t count) { return scheme("PBE-SHA1-RC4-128", count); });
    expectHashes(1 + 1, [](std::int64_t count) { return scheme("PBE-MD5-DES", count); });
}

TEST(DerivationWork, WhatDerivesNothingCountsNothing) {
    DerivationWork work;
    addMac(work, "SHA256", most);
    work.addEncryption(nullptr);
    work.addEncryption(decoded(algorithm("AES-128-CBC", der::octetString(Bytes(16, 2)))).get());
    work.addEncryption(decoded(algorithm("PBES2", der::null())).get());
    work.addEncryption(decoded(algorithm("PBE-SHA1-3DES", der::null())).get());
    work.addEncryption(decoded(pbes2(algorithm("PBKDF2", der::null()), "AES-128-CBC")).get());
    EXPECT_TRUE(work.isAffordable());
    EXPECT_EQ(ERR_peek_error(), 0UL);
}

} // namespace
