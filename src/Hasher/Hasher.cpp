#include "failures/Raise.h"
#include "openssl/Digests.h"
#include "openssl/ErrorQueue.h"

#include <norvcrypto/Hasher.h>

#include <openssl/evp.h>
#include <openssl/objects.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <locale>
#include <optional>
#include <sstream>
#include <utility>

namespace Norvane {

template class RefCounted<Crypto::Hasher>;
template class Ref<Crypto::Hasher>;

} // namespace Norvane

namespace Norvane::Crypto {

namespace {

// The public header keeps OpenSSL's numbers as plain ones.
static_assert(Hasher::MD4 == NID_md4 && Hasher::MD5 == NID_md5 && Hasher::MD5_SHA1 == NID_md5_sha1);
static_assert(Hasher::RIPEMD160 == NID_ripemd160 && Hasher::WHIRLPOOL == NID_whirlpool && Hasher::SM3 == NID_sm3);
static_assert(Hasher::SHA1 == NID_sha1 && Hasher::SHA224 == NID_sha224 && Hasher::SHA256 == NID_sha256);
static_assert(Hasher::SHA384 == NID_sha384 && Hasher::SHA512 == NID_sha512);
static_assert(Hasher::SHA512_224 == NID_sha512_224 && Hasher::SHA512_256 == NID_sha512_256);
static_assert(Hasher::SHA3_224 == NID_sha3_224 && Hasher::SHA3_256 == NID_sha3_256);
static_assert(Hasher::SHA3_384 == NID_sha3_384 && Hasher::SHA3_512 == NID_sha3_512);
static_assert(Hasher::BLAKE2B512 == NID_blake2b512 && Hasher::BLAKE2S256 == NID_blake2s256);

std::string unrecognized(Hasher::Type type) {
    std::ostringstream detail;
    detail.imbue(std::locale::classic()); // the host's locale must not group the digits
    detail << "Unrecognized DigestType 0x" << std::hex << static_cast<std::uint32_t>(type);
    return detail.str();
}

/// Feeds a number as it lies in memory.
template <class Number> RefHasher& feed(RefHasher& hasher, Number value) {
    hasher->update(reinterpret_cast<const unsigned char*>(&value), sizeof value);
    return hasher;
}

} // namespace

Hasher::Hasher(Type type) : m_context(EVP_MD_CTX_new()), m_type(type), m_digest(EVP_MAX_MD_SIZE, 0) {
    const EVP_MD* digest = openssl::digestByNid(type);
    if (digest == nullptr) {
        failures::raise(failures::hasher, unrecognized(type));
    }
    if (!m_context || !openssl::beginDigest(m_context.get(), digest)) {
        failures::raise(failures::hasher);
    }
}

Hasher::~Hasher() = default;

void Hasher::update(const Buffer& data) {
    update(data.data(), data.length());
}

void Hasher::update(const std::string& data) {
    constexpr std::size_t piece = std::size_t{1} << 20U; // a length is 32 bits wide
    for (std::size_t start = 0; start < data.size(); start += piece) {
        update(reinterpret_cast<const unsigned char*>(data.data()) + start,
               static_cast<unsigned int>(std::min(piece, data.size() - start)));
    }
}

void Hasher::update(const unsigned char* data, unsigned int length) {
    if (length == 0 || data == nullptr) {
        return;
    }
    unsigned int hashed = length;
    if (m_maximumInputData != 0) {
        const unsigned int room = m_maximumInputData <= m_bytesHashed ? 0 : m_maximumInputData - m_bytesHashed;
        hashed = std::min(length, room);
    }
    EVP_DigestUpdate(m_context.get(), data, hashed);
    // The count stays at its end instead of starting anew: a limit set after 4 GiB must not let more in.
    constexpr unsigned int most = std::numeric_limits<unsigned int>::max();
    m_bytesHashed = hashed > most - m_bytesHashed ? most : m_bytesHashed + hashed;
}

void Hasher::finalize() {
    // The result is not looked at. A digest that is finalised again may fail, and must do so without leaving an error.
    std::optional<openssl::ErrorMark> quiet;
    if (m_finalized) {
        quiet.emplace();
    }
    unsigned int length = m_digest.length();
    EVP_DigestFinal_ex(m_context.get(), m_digest.data(), &length);
    m_digest.length(length);
    m_finalized = true;
}

const Buffer& Hasher::digest() const {
    return m_digest;
}

Hasher::Type Hasher::type() const noexcept {
    return m_type;
}

std::string Hasher::typeAsString() const {
    return openssl::shortName(m_type);
}

std::string Hasher::digestAsHexString() const {
    constexpr char digits[] = "0123456789abcdef";
    const Buffer& bytes = digest();
    std::string text;
    text.reserve(std::size_t{2} * bytes.length());
    for (unsigned int i = 0; i < bytes.length(); ++i) {
        const unsigned int byte = bytes.data()[i];
        text += digits[byte >> 4U];
        text += digits[byte & 0xFU];
    }
    return text;
}

void Hasher::maximumInputData(unsigned int limit) noexcept {
    m_maximumInputData = limit;
}

unsigned int Hasher::maximumInputData() const noexcept {
    return m_maximumInputData;
}

evp_md_ctx_st* Hasher::context() const noexcept {
    return m_context.get();
}

RefHasher::RefHasher() = default;
RefHasher::RefHasher(Hasher::Type type) : Ref(makeReference<Hasher>(type)) {}
RefHasher::RefHasher(RefCounted<Hasher>* reference) noexcept : Ref(reference) {}
RefHasher::RefHasher(const RefHasher& other) = default;
RefHasher& RefHasher::operator=(const RefHasher& other) = default;
RefHasher::~RefHasher() = default;

RefHasher& operator<<(RefHasher& hasher, long value) {
    return feed(hasher, value);
}

RefHasher& operator<<(RefHasher& hasher, unsigned long value) {
    return feed(hasher, value);
}

RefHasher& operator<<(RefHasher& hasher, unsigned int value) {
    return feed(hasher, value);
}

RefHasher& operator<<(RefHasher& hasher, unsigned short value) {
    return feed(hasher, value);
}

RefHasher& operator<<(RefHasher& hasher, char value) {
    return feed(hasher, value);
}

RefHasher& operator<<(RefHasher& hasher, unsigned char value) {
    return feed(hasher, value);
}

RefHasher& operator<<(RefHasher& hasher, const Buffer& value) {
    hasher->update(value.data(), value.length());
    return hasher;
}

RefHasher& operator<<(RefHasher& hasher, const std::string& value) {
    hasher->Hasher::update(value); // which hands the bytes to the third form
    return hasher;
}

} // namespace Norvane::Crypto
