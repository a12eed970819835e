#pragma once

// RSA keys that no generator makes: of any length, of numbers that are none of RSA's, for RSASSA-PSS with other digests than their own.

#include <authority/Authority.h>

#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/param_build.h>
#include <openssl/rsa.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace norvtest {

using Number = std::unique_ptr<BIGNUM, decltype(&BN_free)>;

inline Number number(const std::string& hex) {
    BIGNUM* made = nullptr;
    BN_hex2bn(&made, hex.c_str());
    return {made, BN_free};
}

/// 2 to a power: a number of `bits` bits.
inline Number numberOfBits(int bits) {
    Number made(BN_new(), BN_free);
    BN_set_bit(made.get(), bits - 1);
    return made;
}

inline norvauthority::Key keyOf(const char* type, int selection,
                                const std::vector<std::pair<const char*, const BIGNUM*>>& numbers) {
    const std::unique_ptr<OSSL_PARAM_BLD, decltype(&OSSL_PARAM_BLD_free)> builder(OSSL_PARAM_BLD_new(),
                                                                                  OSSL_PARAM_BLD_free);
    for (const auto& [name, value] : numbers) {
        OSSL_PARAM_BLD_push_BN(builder.get(), name, value);
    }
    const std::unique_ptr<OSSL_PARAM, decltype(&OSSL_PARAM_free)> parameters(OSSL_PARAM_BLD_to_param(builder.get()),
                                                                             OSSL_PARAM_free);
    const std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)> context(
        EVP_PKEY_CTX_new_from_name(nullptr, type, nullptr), EVP_PKEY_CTX_free);
    EVP_PKEY* key = nullptr;
    if (EVP_PKEY_fromdata_init(context.get()) != 1 ||
        EVP_PKEY_fromdata(context.get(), &key, selection, parameters.get()) != 1) {
        throw std::runtime_error("no such key");
    }
    const std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> owner(key, EVP_PKEY_free);
    return norvauthority::Key::of(key);
}

/// The public half alone.
inline norvauthority::Key publicRsa(const Number& modulus, const Number& exponent) {
    return keyOf("RSA", EVP_PKEY_PUBLIC_KEY,
                 {{OSSL_PKEY_PARAM_RSA_N, modulus.get()}, {OSSL_PKEY_PARAM_RSA_E, exponent.get()}});
}

/// A sound key with a modulus of so many bits, as few as one likes.
inline norvauthority::Key rsaOfBits(int bits) {
    const std::unique_ptr<BN_CTX, decltype(&BN_CTX_free)> context(BN_CTX_new(), BN_CTX_free);
    const Number exponent = number("10001");
    const auto blank = [] { return Number(BN_new(), BN_free); };
    Number p = blank();
    Number q = blank();
    Number modulus = blank();
    Number order = blank();
    Number secret = blank();
    do {
        BN_generate_prime_ex(p.get(), (bits + 1) / 2, 0, nullptr, nullptr, nullptr);
        BN_generate_prime_ex(q.get(), bits / 2, 0, nullptr, nullptr, nullptr);
        BN_mul(modulus.get(), p.get(), q.get(), context.get());
        const Number pLess(BN_dup(p.get()), BN_free);
        const Number qLess(BN_dup(q.get()), BN_free);
        BN_sub_word(pLess.get(), 1);
        BN_sub_word(qLess.get(), 1);
        BN_mul(order.get(), pLess.get(), qLess.get(), context.get());
    } while (BN_num_bits(modulus.get()) != bits || BN_cmp(p.get(), q.get()) == 0 ||
             BN_mod_inverse(secret.get(), exponent.get(), order.get(), context.get()) == nullptr);
    return keyOf("RSA", EVP_PKEY_KEYPAIR,
                 {{OSSL_PKEY_PARAM_RSA_N, modulus.get()},
                  {OSSL_PKEY_PARAM_RSA_E, exponent.get()},
                  {OSSL_PKEY_PARAM_RSA_D, secret.get()}});
}

/// A new key of a type that needs no parameters.
inline norvauthority::Key keyOfType(const char* name) {
    EVP_PKEY* made = EVP_PKEY_Q_keygen(nullptr, nullptr, name);
    if (made == nullptr) {
        throw std::runtime_error("no such key");
    }
    const std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> owner(made, EVP_PKEY_free);
    return norvauthority::Key::of(made);
}

/// A key for RSASSA-PSS alone, with this digest, mask and at least so much salt.
inline norvauthority::Key pssKey(const EVP_MD* digest, const EVP_MD* mask, int salt) {
    const std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)> context(
        EVP_PKEY_CTX_new_id(EVP_PKEY_RSA_PSS, nullptr), EVP_PKEY_CTX_free);
    EVP_PKEY* made = nullptr;
    if (EVP_PKEY_keygen_init(context.get()) != 1 || EVP_PKEY_CTX_set_rsa_keygen_bits(context.get(), 2048) != 1 ||
        (digest != nullptr && (EVP_PKEY_CTX_set_rsa_pss_keygen_md(context.get(), digest) != 1 ||
                               EVP_PKEY_CTX_set_rsa_pss_keygen_mgf1_md(context.get(), mask) != 1 ||
                               EVP_PKEY_CTX_set_rsa_pss_keygen_saltlen(context.get(), salt) != 1)) ||
        EVP_PKEY_keygen(context.get(), &made) != 1) {
        throw std::runtime_error("no such key");
    }
    const std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> owner(made, EVP_PKEY_free);
    return norvauthority::Key::of(made);
}

} // namespace norvtest
