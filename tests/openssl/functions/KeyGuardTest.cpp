// Which private keys are refused before they are decoded, at the very bounds: a number of one bit, an element of one octet more.
#include "openssl/KeyGuard.h"
#include "openssl/Pointers.h"

#include <authority/Der.h>

#include <openssl/err.h>
#include <openssl/x509.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using namespace Norvane::Crypto::openssl;
using norvauthority::Bytes;
using norvauthority::fromHex;
namespace der = norvauthority::der;

/// An INTEGER of exactly so many bits, with as many zeroes in front as asked for beside the one of its sign.
Bytes number(std::size_t bits, std::size_t zeroes = 0) {
    Bytes content(zeroes + (bits % 8 == 0 ? 1 : 0), 0);
    content.push_back(static_cast<unsigned char>(1U << (bits - 1) % 8));
    content.insert(content.end(), (bits - 1) / 8, 0xFF);
    return der::element(der::integerTag, content);
}

/// A SEQUENCE of that many small numbers and a long one.
Bytes numbers(std::size_t small, const Bytes& last) {
    std::vector<Bytes> parts(small, der::integer("1"));
    parts.push_back(last);
    return der::sequence(parts);
}

/// The same of indefinite length.
Bytes indefinite(const Bytes& contents) {
    return der::concat({fromHex("3080"), contents, fromHex("0000")});
}

std::string refusalOf(const Bytes& octets) {
    const std::string refusal = refusalOfPrivateKey(octets.data(), octets.size());
    EXPECT_EQ(ERR_peek_error(), 0UL);
    return refusal;
}

/// PrivateKeyInfo (RFC 5958, 2).
Bytes privateKeyInfo(const Bytes& algorithm, const Bytes& key) {
    return der::sequence({der::integer("0"), algorithm, der::octetString(key)});
}

Bytes algorithm(const std::string& identifier, const Bytes& parameters) {
    return der::sequence({der::oid(identifier), parameters});
}

std::string refusalOfDecoded(const Bytes& octets) {
    const unsigned char* at = octets.data();
    const Owned<PKCS8_PRIV_KEY_INFO, PKCS8_PRIV_KEY_INFO_free> decoded(
        d2i_PKCS8_PRIV_KEY_INFO(nullptr, &at, static_cast<long>(octets.size())));
    EXPECT_NE(decoded, nullptr);
    return refusalOfPrivateKey(decoded.get());
}

// RSAPrivateKey has nine numbers (RFC 8017, A.1.2), and a sequence of more where it has further primes.
TEST(KeyGuard, NineNumbersAreAnRsaKey) {
    const std::string tooMany = "RSA number of 16385 bits, more than 16384";
    EXPECT_EQ(refusalOf(numbers(8, number(16384))), "");
    EXPECT_EQ(refusalOf(numbers(8, number(16385))), tooMany);
    EXPECT_EQ(refusalOf(numbers(9, number(16385))), tooMany);
    EXPECT_EQ(refusalOf(numbers(9, der::sequence({numbers(2, number(16385))}))), tooMany) << "a further prime";
    EXPECT_EQ(refusalOf(numbers(8, der::sequence({number(16384)}))), "");
}

// The traditional encoding of a DSA key has six numbers and nothing else.
TEST(KeyGuard, SixNumbersAreADsaKey) {
    EXPECT_EQ(refusalOf(numbers(5, number(10000))), "");
    EXPECT_EQ(refusalOf(numbers(5, number(10001))), "DSA number of 10001 bits, more than 10000");
    for (const std::size_t others : {4U, 6U, 7U}) {
        EXPECT_EQ(refusalOf(numbers(others, number(10001))), "number of 10001 bits, more than 10000") << others;
    }
    for (const Bytes& other : {der::null(), der::sequence({}), der::sequence({der::integer("1")})}) {
        EXPECT_EQ(refusalOf(der::sequence({other, der::integer("1"), der::integer("1"), der::integer("1"),
                                           der::integer("1"), number(10001)})),
                  "number of 10001 bits, more than 10000");
        EXPECT_EQ(refusalOf(numbers(4, der::concat({number(10001), other}))), "number of 10001 bits, more than 10000");
    }
}

TEST(KeyGuard, ZeroesInFrontOfANumberDoNotCount) {
    EXPECT_EQ(refusalOf(numbers(3, number(10000, 20))), "");
    EXPECT_EQ(refusalOf(numbers(3, number(10001, 20))), "number of 10001 bits, more than 10000");
    EXPECT_EQ(refusalOf(numbers(3, der::element(der::integerTag, Bytes(4000, 0)))), "");
    EXPECT_EQ(refusalOf(numbers(3, fromHex("0200"))), "");
    // Of no octets, in front of zeroes that are not its own.
    Bytes without = indefinite(fromHex("0200"));
    without.push_back(1);
    EXPECT_EQ(refusalOf(without), "");
}

TEST(KeyGuard, OnlyNumbersCount) {
    EXPECT_EQ(refusalOf(numbers(8, der::octetString(Bytes(3000, 0xFF)))), "");
    EXPECT_EQ(refusalOf(numbers(8, der::element(der::context(2), Bytes(3000, 0xFF)))), "");
}

TEST(KeyGuard, ElementsOfIndefiniteLengthEndWhereTheyEnd) {
    EXPECT_EQ(refusalOf(indefinite(der::concat(std::vector<Bytes>(3, number(16384))))),
              "number of 16384 bits, more than 10000");
    EXPECT_EQ(refusalOf(indefinite(der::concat({der::sequence({der::null()}), number(10001)}))),
              "number of 10001 bits, more than 10000");
    EXPECT_EQ(refusalOf(indefinite(der::concat({number(9), der::sequence({number(10001)}), number(9)}))),
              "number of 10001 bits, more than 10000");
    const Bytes longest = indefinite(der::octetString(Bytes(16384 - 8, 0)));
    ASSERT_EQ(longest.size(), 16384U);
    EXPECT_EQ(refusalOf(longest), "");
    EXPECT_EQ(refusalOf(indefinite(der::octetString(Bytes(16384 - 7, 0)))),
              "the private key is longer than 16384 bytes");
}

TEST(KeyGuard, WhatIsLongerThanTheBoundIsRefusedAndNotLookedAt) {
    const std::string tooLong = "the private key is longer than 16384 bytes";
    EXPECT_EQ(refusalOf(der::octetString(Bytes(16384 - 4, 0))), "");
    EXPECT_EQ(refusalOf(der::octetString(Bytes(16384 - 3, 0))), tooLong);
    EXPECT_EQ(refusalOf(der::sequence({der::octetString(Bytes(16384 - 8, 0))})), "");
    EXPECT_EQ(refusalOf(der::sequence({der::octetString(Bytes(16384 - 7, 0))})), tooLong);
    EXPECT_EQ(refusalOf({}), "");
    EXPECT_EQ(refusalOf(fromHex("30")), "");
    EXPECT_EQ(refusalOfPrivateKey(nullptr, 0), "");
    EXPECT_EQ(refusalOfPrivateKey(nullptr), "");

    const Bytes rsa = algorithm("rsaEncryption", der::null());
    const Bytes around = privateKeyInfo(rsa, Bytes(16000, 0));
    const Bytes longest = privateKeyInfo(rsa, Bytes(16000 + 16384 - around.size(), 0));
    const Bytes longer = privateKeyInfo(rsa, Bytes(16001 + 16384 - around.size(), 0));
    ASSERT_EQ(longest.size(), 16384U);
    EXPECT_EQ(refusalOf(longest), "");
    EXPECT_EQ(refusalOfDecoded(longest), "");
    EXPECT_EQ(refusalOf(longer), tooLong);
    EXPECT_EQ(refusalOfDecoded(longer), tooLong);
}

TEST(KeyGuard, TheLongestNumberOfKeyAndParametersCounts) {
    struct Row {
        const char* identifier;
        const char* parameter;
        const char* own;
    };
    for (const Row& row :
         {Row{"dsaEncryption", "DSA modulus", "DSA exponent"}, Row{"dhKeyAgreement", "DH modulus", "DH exponent"},
          Row{"1.2.840.10046.2.1", "DH modulus", "DH exponent"}}) {
        const std::string identifier =
            std::string(row.identifier) == "dsaEncryption" ? "1.2.840.10040.4.1" : row.identifier;
        const auto refusal = [&](std::size_t parameter, std::size_t own) {
            return refusalOf(privateKeyInfo(algorithm(identifier, numbers(2, number(parameter))), number(own)));
        };
        EXPECT_EQ(refusal(10000, 10000), "");
        EXPECT_EQ(refusal(10001, 9), row.parameter + std::string(" of 10001 bits, more than 10000"));
        EXPECT_EQ(refusal(10001, 10001), row.parameter + std::string(" of 10001 bits, more than 10000"));
        EXPECT_EQ(refusal(10001, 10002), row.own + std::string(" of 10002 bits, more than 10000"));
        EXPECT_EQ(refusal(9, 10001), row.own + std::string(" of 10001 bits, more than 10000"));
    }
    EXPECT_EQ(refusalOf(privateKeyInfo(algorithm("rsaEncryption", der::null()), numbers(8, number(16385)))),
              "RSA number of 16385 bits, more than 16384");
    EXPECT_EQ(refusalOf(privateKeyInfo(algorithm("id-ecPublicKey", numbers(1, number(10001))), number(9))),
              "elliptic curve number of 10001 bits, more than 10000");
    EXPECT_EQ(refusalOf(privateKeyInfo(algorithm("1.2.3.4", numbers(1, number(10001))), number(9))),
              "number of 10001 bits, more than 10000");
}

// 64 octets more than a key may have: what a cipher pads it with.
TEST(KeyGuard, EncryptedKeysMayBeLongerByTheirPadding) {
    for (const std::size_t length : {16384U, 16384U + 64, 16384U + 65, 65536U}) {
        const Bytes octets = der::sequence({algorithm("PBES2", der::sequence({})), der::octetString(Bytes(length, 0))});
        const unsigned char* at = octets.data();
        const Owned<X509_SIG, X509_SIG_free> decoded(d2i_X509_SIG(nullptr, &at, static_cast<long>(octets.size())));
        ASSERT_NE(decoded, nullptr);
        EXPECT_EQ(refusalOfEncryptedKey(decoded.get()),
                  length <= 16384 + 64 ? "" : "the private key is longer than 16384 bytes")
            << length;
    }
}

} // namespace
