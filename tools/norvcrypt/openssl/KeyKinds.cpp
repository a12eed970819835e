#include "openssl/KeyKinds.h"
#include "base/Failure.h"
#include "openssl/OpenSsl.h"

#include <norvcrypto/Crypto.h>
#include <norvcrypto/KeyFactory.h>

#include <openssl/ec.h>

#include <algorithm>
#include <cctype>

namespace norvcrypt {

namespace {

constexpr unsigned int leastBits = 512;     // OpenSSL makes no smaller ones
constexpr unsigned int largestBits = 16384; // and works with no larger modulus

std::string lower(std::string text) {
    std::ranges::transform(text, text.begin(), [](unsigned char one) { return static_cast<char>(std::tolower(one)); });
    return text;
}

Norvane::Crypto::RefKey makeRsa(unsigned int bits, unsigned int exponent) {
    try {
        return Norvane::Crypto::KeyGenerator().rsaGenerateKeyPair(exponent, bits).second;
    } catch (const Norvane::Exception& failure) {
        throw Failure("cannot generate an RSA key of " + std::to_string(bits) + " bits with the exponent " +
                          std::to_string(exponent),
                      failure);
    }
}

} // namespace

std::optional<KeyKind> keyKindNamed(const std::string& name) {
    const std::string wanted = lower(name);
    for (const char* const curve : {"P-256", "P-384", "Ed25519"})
        if (wanted == lower(curve))
            return KeyKind{curve, 0};
    if (wanted == "rsa")
        return KeyKind{"", 3072};
    const std::string digits = wanted.starts_with("rsa:") ? wanted.substr(4) : "";
    if (digits.empty() || digits.size() > 5 || digits.find_first_not_of("0123456789") != std::string::npos)
        return std::nullopt;
    const auto bits = static_cast<unsigned int>(std::stoul(digits));
    if (bits < leastBits || bits > largestBits)
        return std::nullopt;
    return KeyKind{"", bits};
}

std::string keyKindNames() {
    return "rsa:3072 (or another size from 512 to 16384), P-256, P-384 or Ed25519";
}

Norvane::Crypto::RefKey makeKey(const KeyKind& kind, unsigned int exponent) {
    if (kind.curve.empty())
        return makeRsa(kind.bits, exponent);
    KeyPtr key(kind.curve == "Ed25519" ? EVP_PKEY_Q_keygen(nullptr, nullptr, "ED25519")
                                       : EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", kind.curve.c_str()));
    if (!key)
        throw Failure("cannot generate a key on " + kind.curve + ": " + inPlainWords(Norvane::Crypto::getErrString()));
    return Norvane::Crypto::RefKey(new Norvane::Crypto::PrivateKey(key.release()));
}

} // namespace norvcrypt
