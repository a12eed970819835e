#include "openssl/KeyGuard.h"

#include "framing/Walk.h"
#include "openssl/ErrorQueue.h"
#include "openssl/Pointers.h"

#include <openssl/objects.h>

#include <algorithm>
#include <bit>

namespace Norvane::Crypto::openssl {

namespace {

using framing::TagClass;
using framing::Walk;

constexpr std::size_t longestPadding = 64; // of the ciphers that encrypt keys
constexpr std::size_t dsaNumbers = 6;      // version, p, q, g, public and private key
constexpr std::size_t rsaNumbers = 9;      // version, n, e, d, p, q and three for the remainders

/// The integers of an encoding.
struct Integers {
    std::size_t longest = 0;  ///< in bits
    std::size_t children = 0; ///< elements of the outermost one
    bool areAll = true;       ///< whether each of them is an integer
};

std::size_t bitsOf(const unsigned char* number, std::size_t length) noexcept {
    while (length != 0 && *number == 0) {
        ++number;
        --length;
    }
    return length == 0 ? 0 : 8 * (length - 1) + static_cast<std::size_t>(std::bit_width(*number));
}

Integers integersOf(const unsigned char* der, std::size_t length) noexcept {
    Integers found;
    Walk walk(der, length);
    for (auto step = walk.next(); !isLast(step); step = walk.next()) {
        const bool isInteger = step == Walk::Step::primitive && walk.header().is(TagClass::universal, framing::integer);
        if (isInteger) {
            found.longest =
                std::max(found.longest, bitsOf(walk.content(), static_cast<std::size_t>(walk.header().contentLength)));
        }
        if (step != Walk::Step::closed && walk.depth() == 1) {
            ++found.children;
            found.areAll = found.areAll && isInteger;
        }
    }
    return found;
}

/// The bytes of the first structure; 0 when there is none.
std::size_t sizeOf(const unsigned char* der, std::size_t length) noexcept {
    Walk walk(der, length);
    const Walk::Step first = walk.next();
    if (first == Walk::Step::primitive) {
        return walk.elementSize();
    }
    if (first == Walk::Step::opened && !walk.header().indefinite) {
        return walk.header().size + static_cast<std::size_t>(walk.header().contentLength);
    }
    for (auto step = first; !isLast(step); step = walk.next()) {
        if (step == Walk::Step::closed && walk.depth() == 0) {
            return walk.elementSize();
        }
    }
    return 0;
}

std::string tooLong() {
    return "the private key is longer than " + std::to_string(longestPrivateKey) + " bytes";
}

std::string judge(const std::string& what, std::size_t bits, std::size_t most) {
    return bits <= most ? std::string()
                        : what + " of " + std::to_string(bits) + " bits, more than " + std::to_string(most);
}

} // namespace

std::string refusalOfPrivateKey(const PKCS8_PRIV_KEY_INFO* key) {
    const ErrorMark mark;
    const unsigned char* octets = nullptr;
    int length = 0;
    const X509_ALGOR* algorithm = nullptr;
    if (key == nullptr || PKCS8_pkey_get0(nullptr, &octets, &length, &algorithm, key) != 1) {
        return {};
    }
    if (i2d_PKCS8_PRIV_KEY_INFO(key, nullptr) > static_cast<int>(longestPrivateKey)) {
        return tooLong();
    }
    int type = V_ASN1_UNDEF;
    const void* value = nullptr;
    X509_ALGOR_get0(nullptr, &type, &value, algorithm);
    Integers parameters;
    if (type == V_ASN1_SEQUENCE) {
        const auto* encoded = static_cast<const ASN1_STRING*>(value);
        parameters = integersOf(ASN1_STRING_get0_data(encoded), static_cast<std::size_t>(ASN1_STRING_length(encoded)));
    }
    const Integers own = integersOf(octets, static_cast<std::size_t>(length));
    const std::size_t longest = std::max(parameters.longest, own.longest);
    switch (OBJ_obj2nid(algorithm->algorithm)) {
    case NID_rsaEncryption:
    case NID_rsassaPss:
        return judge("RSA number", longest, mostRsaBits);
    case NID_dsa:
        return judge(own.longest > parameters.longest ? "DSA exponent" : "DSA modulus", longest, mostBits);
    case NID_dhKeyAgreement:
    case NID_dhpublicnumber:
        return judge(own.longest > parameters.longest ? "DH exponent" : "DH modulus", longest, mostBits);
    case NID_X9_62_id_ecPublicKey:
    case NID_sm2:
        return judge("elliptic curve number", longest, mostBits);
    default:
        return judge("number", longest, mostBits);
    }
}

std::string refusalOfPrivateKey(const unsigned char* der, std::size_t length) {
    const std::size_t size = sizeOf(der, length);
    if (size > longestPrivateKey) {
        return tooLong();
    }
    {
        const ErrorMark mark;
        const unsigned char* at = der;
        const Owned<PKCS8_PRIV_KEY_INFO, PKCS8_PRIV_KEY_INFO_free> key(
            d2i_PKCS8_PRIV_KEY_INFO(nullptr, &at, static_cast<long>(size)));
        if (key) {
            return refusalOfPrivateKey(key.get());
        }
    }
    const Integers all = integersOf(der, size);
    if (all.areAll && all.children == dsaNumbers) {
        return judge("DSA number", all.longest, mostBits);
    }
    // Further primes stand in a sequence behind the numbers.
    return all.children >= rsaNumbers ? judge("RSA number", all.longest, mostRsaBits)
                                      : judge("number", all.longest, mostBits);
}

std::string refusalOfEncryptedKey(const X509_SIG* key) {
    const ASN1_OCTET_STRING* encrypted = nullptr;
    X509_SIG_get0(key, nullptr, &encrypted);
    return static_cast<std::size_t>(ASN1_STRING_length(encrypted)) > longestPrivateKey + longestPadding ? tooLong()
                                                                                                        : std::string();
}

} // namespace Norvane::Crypto::openssl
