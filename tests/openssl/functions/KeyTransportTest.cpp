// What an RSA decryption tells: nothing of the padding, but that it broke off for want of memory. This file stands in for the decryption
// and for what OpenSSL answers of its settings.
#include "openssl/KeyTransport.h"
#include "openssl/ContentCipher.h"

#include "support/Interpose.h"

#include <authority/Authority.h>

#include <openssl/core_names.h>
#include <openssl/err.h>
#include <openssl/params.h>
#include <openssl/rsa.h>

#include <gtest/gtest.h>

#include <new>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace {

/// What stands for the decryption: its answer, the errors that it queues and the length that it tells.
struct Decryption {
    int answer = 0;
    std::vector<std::pair<int, int>> errors{};
    std::optional<std::size_t> length{};
};
const Decryption* s_decryption = nullptr;
int s_decrypted = 0;
std::optional<const OSSL_PARAM*> s_settable;
std::vector<std::string> s_set;

} // namespace

extern "C" int EVP_PKEY_decrypt(EVP_PKEY_CTX* context, unsigned char* out, std::size_t* length, const unsigned char* in,
                                std::size_t inLength) {
    ++s_decrypted;
    if (s_decryption == nullptr) {
        return norvtest::next<&EVP_PKEY_decrypt>("EVP_PKEY_decrypt")(context, out, length, in, inLength);
    }
    for (const auto& [library, reason] : s_decryption->errors) {
        ERR_raise(library, reason);
    }
    if (s_decryption->length) {
        *length = *s_decryption->length;
    }
    return s_decryption->answer;
}
extern "C" const OSSL_PARAM* EVP_PKEY_CTX_settable_params(const EVP_PKEY_CTX* context) {
    return s_settable ? *s_settable
                      : norvtest::next<&EVP_PKEY_CTX_settable_params>("EVP_PKEY_CTX_settable_params")(context);
}
extern "C" int EVP_PKEY_CTX_ctrl_str(EVP_PKEY_CTX* context, const char* name, const char* value) {
    s_set.push_back(std::string(name) + "=" + value);
    return norvtest::next<&EVP_PKEY_CTX_ctrl_str>("EVP_PKEY_CTX_ctrl_str")(context, name, value);
}

namespace {

using namespace Norvane::Crypto::openssl;
using norvauthority::Bytes;
using norvauthority::Key;
namespace der = norvauthority::der;

EVP_PKEY* key() {
    static const Key shared = Key::rsa(1024);
    return shared.get();
}

Bytes opened(const Decryption& decryption) {
    s_decryption = &decryption;
    Bytes found;
    try {
        const WipedBytes bytes = openPkcs1Key(key(), Bytes(128, 1));
        found.assign(bytes.octets().begin(), bytes.octets().end());
    } catch (...) {
        s_decryption = nullptr;
        EXPECT_EQ(ERR_peek_error(), 0UL);
        throw;
    }
    s_decryption = nullptr;
    EXPECT_EQ(ERR_peek_error(), 0UL);
    return found;
}

using Errors = std::vector<std::pair<int, int>>;

TEST(KeyTransport, WhatBrokeOffIsNoWrongPadding) {
    const std::pair padding{ERR_LIB_RSA, RSA_R_PADDING_CHECK_FAILED};
    EXPECT_EQ(opened({.errors = {padding}}), Bytes());
    EXPECT_EQ(opened({.errors = {padding, padding}}), Bytes());
    for (const auto& brokenOff : {std::pair{ERR_LIB_RSA, ERR_R_MALLOC_FAILURE}, std::pair{ERR_LIB_RSA, ERR_R_BN_LIB},
                                  std::pair{ERR_LIB_BN, 100}, std::pair{ERR_LIB_BN, ERR_R_MALLOC_FAILURE}}) {
        for (const Errors& errors : {Errors{brokenOff}, Errors{brokenOff, padding}, Errors{padding, brokenOff}}) {
            EXPECT_THROW(opened({.errors = errors}), std::bad_alloc) << brokenOff.first << ' ' << brokenOff.second;
        }
    }
    EXPECT_THROW(opened({}), std::bad_alloc) << "no error at all";
    EXPECT_THROW(opened({.answer = -2}), std::bad_alloc);
}

TEST(KeyTransport, LengthsBeyondTheKeyAreNone) {
    EXPECT_EQ(opened({.answer = 1, .length = 128}).size(), 128U);
    EXPECT_EQ(opened({.answer = 1, .length = 5}).size(), 5U);
    EXPECT_EQ(opened({.answer = 1, .errors = {{ERR_LIB_BN, ERR_R_MALLOC_FAILURE}}, .length = 5}).size(), 5U)
        << "it came to its end all the same";
    EXPECT_EQ(opened({.answer = 1, .length = 129}).size(), 0U);
    EXPECT_EQ(opened({.answer = 0, .errors = {{ERR_LIB_RSA, RSA_R_PADDING_CHECK_FAILED}}, .length = 5}).size(), 0U);
}

TEST(KeyTransport, KeysThatDecryptNothingOpenNothing) {
    static const Key curve = Key::ec();
    s_decrypted = 0;
    EXPECT_TRUE(openPkcs1Key(curve.get(), Bytes(128, 1)).empty());
    EXPECT_TRUE(openPkcs1Key(Key::ed25519().get(), Bytes(128, 1)).empty());
    EXPECT_EQ(s_decrypted, 0);
    EXPECT_EQ(ERR_peek_error(), 0UL);
}

TEST(KeyTransport, ImplicitRejectionIsTurnedOffWhereItMayBeKnown) {
    const OSSL_PARAM without[]{{OSSL_ASYM_CIPHER_PARAM_PAD_MODE, OSSL_PARAM_INTEGER, nullptr, 0, 0}, OSSL_PARAM_END};
    const OSSL_PARAM with[]{{OSSL_ASYM_CIPHER_PARAM_PAD_MODE, OSSL_PARAM_INTEGER, nullptr, 0, 0},
                            {"implicit-rejection", OSSL_PARAM_UNSIGNED_INTEGER, nullptr, 0, 0},
                            OSSL_PARAM_END};
    for (const auto& [settable, asked] :
         {std::pair<const OSSL_PARAM*, bool>{without, false}, {with, true}, {nullptr, true}}) {
        s_set.clear();
        s_settable = settable;
        EXPECT_EQ(opened({.answer = 1, .length = 5}).size(), 5U);
        s_settable.reset();
        EXPECT_EQ(s_set,
                  asked ? std::vector<std::string>{"rsa_pkcs1_implicit_rejection=0"} : std::vector<std::string>());
    }
}

// RSAES-OAEP-params (RFC 8017, A.2.1).
TEST(KeyTransport, DigestsThatAreNotSupportedOpenNothing) {
    const auto oaep = [](const Bytes& hash, const Bytes& mask) {
        std::vector<Bytes> parts;
        if (!hash.empty()) {
            parts.push_back(der::element(der::contextConstructed(0), hash));
        }
        if (!mask.empty()) {
            parts.push_back(
                der::element(der::contextConstructed(1), der::sequence({der::oid("1.2.840.113549.1.1.8"), mask})));
        }
        return decodeAlgorithm(der::sequence({der::oid("1.2.840.113549.1.1.7"), der::sequence(parts)}));
    };
    const auto digest = [](const char* name) { return der::sequence({der::oid(name), der::null()}); };
    const KeyContextPtr context(EVP_PKEY_CTX_new(key(), nullptr));
    Bytes encrypted(128);
    std::size_t length = encrypted.size();
    ASSERT_EQ(EVP_PKEY_encrypt_init(context.get()), 1);
    ASSERT_EQ(EVP_PKEY_CTX_set_rsa_padding(context.get(), RSA_PKCS1_OAEP_PADDING), 1);
    ASSERT_EQ(EVP_PKEY_encrypt(context.get(), encrypted.data(), &length, Bytes(16, 7).data(), 16), 1);
    const auto openedUnder = [&](const AlgorithmPtr& algorithm) {
        const WipedBytes bytes = openTransportedKey(*algorithm, key(), encrypted);
        EXPECT_EQ(ERR_peek_error(), 0UL);
        return Bytes(bytes.octets().begin(), bytes.octets().end());
    };
    EXPECT_EQ(openedUnder(oaep({}, {})), Bytes(16, 7));
    EXPECT_EQ(openedUnder(oaep(digest("SHA1"), digest("SHA1"))), Bytes(16, 7));
    for (const AlgorithmPtr& algorithm :
         {oaep(digest("MD5"), {}), oaep({}, digest("MD5")), oaep(digest("MD5"), digest("SHA1"))}) {
        EXPECT_EQ(openedUnder(algorithm), Bytes());
        EXPECT_EQ(unsupportedKeyTransport(*algorithm), "RSAES-OAEP with MD5 (1.2.840.113549.2.5)");
    }
    EXPECT_EQ(openedUnder(oaep({}, der::null())), Bytes()) << "damage";
    EXPECT_EQ(unsupportedKeyTransport(*oaep({}, der::null())), "");
}

} // namespace
