#include "openssl/GcmCheck.h"

#include "openssl/ContentCipher.h"
#include "openssl/ErrorQueue.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>

#include <algorithm>
#include <array>
#include <climits>
#include <string>

namespace Norvane::Crypto::openssl {

namespace {

constexpr std::size_t blockLength = 16;
constexpr std::uint64_t longestContent = (UINT64_C(1) << 36U) - 32; // NIST SP 800-38D, 5.2.1.1, in octets

/// An element of the field of GHASH (6.3), its first bit the highest of `high`. Wiped, since tags and what makes them are secret
/// until a message is found authentic.
struct Block {
    std::uint64_t high = 0;
    std::uint64_t low = 0;

    Block() = default;
    Block(std::uint64_t theHigh, std::uint64_t theLow) : high(theHigh), low(theLow) {}
    explicit Block(const std::array<unsigned char, blockLength>& octets) {
        for (std::size_t i = 0; i != 8; ++i) {
            high = high << 8U | octets[i];
            low = low << 8U | octets[i + 8];
        }
    }
    Block(const Block&) = default;
    Block& operator=(const Block&) = default;
    ~Block() { OPENSSL_cleanse(this, sizeof *this); }

    [[nodiscard]] std::array<unsigned char, blockLength> octets() const {
        std::array<unsigned char, blockLength> all{};
        for (std::size_t i = 0; i != 8; ++i) {
            all[i] = static_cast<unsigned char>(high >> (56 - 8 * i));
            all[i + 8] = static_cast<unsigned char>(low >> (56 - 8 * i));
        }
        return all;
    }
};

Block operator^(const Block& left, const Block& right) {
    return {left.high ^ right.high, left.low ^ right.low};
}

/// 6.3, Algorithm 1, in the same steps whatever the bits are.
Block operator*(const Block& left, const Block& right) {
    Block product;
    Block shifted = right;
    for (unsigned int bit = 0; bit != 128; ++bit) {
        const std::uint64_t word = bit < 64 ? left.high : left.low;
        const std::uint64_t taken = 0 - (word >> (63 - bit % 64) & 1U);
        product.high ^= shifted.high & taken;
        product.low ^= shifted.low & taken;
        const std::uint64_t reduced = 0 - (shifted.low & 1U);
        shifted.low = shifted.low >> 1U | shifted.high << 63U;
        shifted.high = shifted.high >> 1U ^ (UINT64_C(0xE100000000000000) & reduced);
    }
    return product;
}

Block power(Block base, std::uint64_t exponent) {
    Block result(UINT64_C(1) << 63U, 0); // one
    for (; exponent != 0; exponent >>= 1U) {
        if ((exponent & 1U) != 0) {
            result = result * base;
        }
        base = base * base;
    }
    return result;
}

/// The last block that is authenticated, from numbers of octets.
Block lengths(std::uint64_t associated, std::uint64_t content) {
    return {8 * associated, 8 * content};
}

bool addAssociated(EVP_CIPHER_CTX* context, std::span<const unsigned char> octets) {
    while (!octets.empty()) {
        const auto piece = octets.first(std::min<std::size_t>(octets.size(), 1U << 30U));
        int count = 0;
        if (EVP_EncryptUpdate(context, nullptr, &count, piece.data(), static_cast<int>(piece.size())) != 1) {
            return false;
        }
        octets = octets.subspan(piece.size());
    }
    return true;
}

/// The tag of what was added to a context, which has no content.
bool finish(EVP_CIPHER_CTX* context, Block& tag) {
    std::array<unsigned char, blockLength> octets{};
    int count = 0;
    if (EVP_EncryptFinal_ex(context, octets.data(), &count) != 1 ||
        EVP_CIPHER_CTX_ctrl(context, EVP_CTRL_AEAD_GET_TAG, blockLength, octets.data()) != 1) {
        return false;
    }
    tag = Block(octets);
    OPENSSL_cleanse(octets.data(), octets.size());
    return true;
}

/// The hash key: the encrypted zero block (7.1, step 1).
bool hashKey(std::span<const unsigned char> key, Block& hash) {
    const std::string name = "AES-" + std::to_string(8 * key.size()) + "-ECB";
    const CipherPtr cipher(EVP_CIPHER_fetch(nullptr, name.c_str(), nullptr));
    const CipherContextPtr context(EVP_CIPHER_CTX_new());
    std::array<unsigned char, blockLength> octets{};
    int count = 0;
    if (cipher == nullptr || context == nullptr ||
        EVP_EncryptInit_ex(context.get(), cipher.get(), nullptr, key.data(), nullptr) != 1 ||
        EVP_EncryptUpdate(context.get(), octets.data(), &count, octets.data(), blockLength) != 1 ||
        count != static_cast<int>(blockLength)) {
        return false;
    }
    hash = Block(octets);
    OPENSSL_cleanse(octets.data(), octets.size());
    return true;
}

} // namespace

GcmCheck::GcmCheck(const EVP_CIPHER* cipher, std::span<const unsigned char> key, std::span<const unsigned char> nonce)
    : m_cipher(cipher),
      m_key(key),
      m_nonce(nonce) {
    const ErrorMark mark;
    m_context = begun();
}

CipherContextPtr GcmCheck::begun() const {
    CipherContextPtr context(EVP_CIPHER_CTX_new());
    const bool made =
        context != nullptr && EVP_EncryptInit_ex(context.get(), m_cipher, nullptr, nullptr, nullptr) == 1 &&
        EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_AEAD_SET_IVLEN, static_cast<int>(m_nonce.size()), nullptr) == 1 &&
        EVP_EncryptInit_ex(context.get(), nullptr, nullptr, m_key.data(), m_nonce.data()) == 1;
    return made ? std::move(context) : nullptr;
}

bool GcmCheck::update(std::span<const unsigned char> encrypted) {
    const ErrorMark mark;
    if (m_context == nullptr || encrypted.size() > longestContent - m_length) {
        return false;
    }
    m_length += encrypted.size();
    return addAssociated(m_context.get(), encrypted);
}

bool GcmCheck::isRight(std::span<const unsigned char> associated, std::span<const unsigned char> tag) {
    const ErrorMark mark;
    const CipherContextPtr empty = begun();
    const CipherContextPtr beside = begun();
    Block key;
    Block mask; // of nothing at all: what every tag is masked with
    Block ofContent;
    Block ofAssociated;
    if (m_context == nullptr || empty == nullptr || beside == nullptr || !hashKey(m_key, key) ||
        !addAssociated(beside.get(), associated) || !finish(empty.get(), mask) || !finish(beside.get(), ofAssociated) ||
        !finish(m_context.get(), ofContent)) {
        return false;
    }
    // Each without mask and lengths: the hash of these octets alone, times the key once.
    const Block content = ofContent ^ mask ^ lengths(m_length, 0) * key;
    const Block before = ofAssociated ^ mask ^ lengths(associated.size(), 0) * key;
    // What stands before the content is multiplied once for each of its blocks.
    const std::uint64_t blocks = m_length / blockLength + (m_length % blockLength == 0 ? 0 : 1);
    const Block expected = before * power(key, blocks) ^ content ^ lengths(associated.size(), m_length) * key ^ mask;
    std::array<unsigned char, blockLength> octets = expected.octets();
    const bool same =
        !tag.empty() && tag.size() <= octets.size() && CRYPTO_memcmp(octets.data(), tag.data(), tag.size()) == 0;
    OPENSSL_cleanse(octets.data(), octets.size());
    return same;
}

} // namespace Norvane::Crypto::openssl
