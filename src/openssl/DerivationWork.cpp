#include "openssl/DerivationWork.h"

#include "openssl/ErrorQueue.h"
#include "openssl/Pointers.h"

#include <openssl/evp.h>
#include <openssl/objects.h>

#include <climits>

namespace Norvane::Crypto::openssl {

namespace {

constexpr std::int64_t tooMany = INT64_MAX;
constexpr std::int64_t hashesOfHmac = 2;
constexpr std::int64_t coresOfScrypt = 4; // two passes of two cores each, for each of N * r * p blocks
constexpr std::int64_t saltsOfScrypt =
    4; // all of the salt is hashed for each 32 of the 128 * r * p octets that are filled
constexpr std::int64_t octetsOfHash = 64; // of SHA-256, at a time
constexpr std::int64_t slowHash = 8;

/// A number that OpenSSL takes as it stands, or one beyond the bound.
std::int64_t valueOf(const ASN1_INTEGER* number) noexcept {
    static_assert(mostHashes < INT_MAX, "what OpenSSL would truncate is beyond the bound anyway");
    std::int64_t value = 0;
    return ASN1_INTEGER_get_int64(&value, number) == 1 && value >= 1 ? value : tooMany;
}

/// A product of two positive numbers, or a number beyond the bound.
std::int64_t product(std::int64_t one, std::int64_t other) noexcept {
    std::int64_t result = 0;
    return __builtin_mul_overflow(one, other, &result) ? tooMany : result;
}

/// How many hashes of the usual kind a hash takes as long as.
std::int64_t weightOf(int digest) noexcept {
    switch (digest) {
    case NID_md4:
    case NID_md5:
    case NID_sha1:
    case NID_sha224:
    case NID_sha256:
    case NID_sha384:
    case NID_sha512:
        return 1;
    default:
        return slowHash;
    }
}

/// The blocks of a hash that so many bytes fill. A hash that is not known here is taken for a short one.
std::int64_t blocksOf(std::int64_t bytes, int digest) noexcept {
    constexpr std::int64_t shortest = 16;
    const int known = EVP_MD_get_size(EVP_get_digestbynid(digest)); // -1 of none
    const std::int64_t size = known > 0 ? known : shortest;
    return bytes / size + (bytes % size == 0 ? 0 : 1);
}

/// The bytes of key that a cipher takes; the most that there are when its parameters may ask for others.
std::int64_t keyLengthOf(const EVP_CIPHER* cipher) noexcept {
    return cipher == nullptr || (EVP_CIPHER_get_flags(cipher) & EVP_CIPH_VARIABLE_LENGTH) != 0
               ? EVP_MAX_KEY_LENGTH
               : EVP_CIPHER_get_key_length(cipher);
}

/// The parameters of an algorithm, decoded as OpenSSL does; null when they are something else.
template <class T, auto Free> Owned<T, Free> parametersOf(const X509_ALGOR& algorithm, const ASN1_ITEM* item) noexcept {
    return Owned<T, Free>(static_cast<T*>(ASN1_TYPE_unpack_sequence(item, algorithm.parameter)));
}

} // namespace

void DerivationWork::add(std::int64_t hashes, std::int64_t times) noexcept {
    const std::int64_t added = product(hashes, times);
    m_hashes = added > mostHashes - m_hashes ? tooMany : m_hashes + added;
}

void DerivationWork::addMac(const X509_ALGOR* digest, const ASN1_INTEGER* iterations) noexcept {
    const ErrorMark mark;
    const int nid = digest == nullptr ? NID_undef : OBJ_obj2nid(digest->algorithm);
    add(iterations == nullptr ? 1 : valueOf(iterations), weightOf(nid));
}

void DerivationWork::addEncryption(const X509_ALGOR* algorithm) noexcept {
    const ErrorMark mark;
    if (algorithm == nullptr) {
        return;
    }
    const int scheme = OBJ_obj2nid(algorithm->algorithm);
    if (scheme == NID_pbes2) {
        if (const auto with = parametersOf<PBE2PARAM, PBE2PARAM_free>(*algorithm, ASN1_ITEM_rptr(PBE2PARAM))) {
            addDerivation(*with->keyfunc, keyLengthOf(EVP_get_cipherbyobj(with->encryption->algorithm)));
        }
        return;
    }
    int cipher = NID_undef;
    int digest = NID_undef;
    if (EVP_PBE_find(EVP_PBE_TYPE_OUTER, scheme, &cipher, &digest, nullptr) != 1) {
        return;
    }
    if (const auto with = parametersOf<PBEPARAM, PBEPARAM_free>(*algorithm, ASN1_ITEM_rptr(PBEPARAM))) {
        const EVP_CIPHER* known = EVP_get_cipherbynid(cipher);
        const std::int64_t ivLength = known == nullptr ? EVP_MAX_IV_LENGTH : EVP_CIPHER_get_iv_length(known);
        const std::int64_t keyLength = known == nullptr ? EVP_MAX_KEY_LENGTH : EVP_CIPHER_get_key_length(known);
        add(valueOf(with->iter), product(blocksOf(keyLength, digest) + blocksOf(ivLength, digest), weightOf(digest)));
    }
}

void DerivationWork::addDerivation(const X509_ALGOR& function, std::int64_t keyLength) noexcept {
    const int nid = OBJ_obj2nid(function.algorithm);
    if (nid == NID_id_pbkdf2) {
        const auto with = parametersOf<PBKDF2PARAM, PBKDF2PARAM_free>(function, ASN1_ITEM_rptr(PBKDF2PARAM));
        int digest = NID_undef;
        if (with &&
            EVP_PBE_find(EVP_PBE_TYPE_PRF, with->prf == nullptr ? NID_hmacWithSHA1 : OBJ_obj2nid(with->prf->algorithm),
                         nullptr, &digest, nullptr) == 1) {
            add(valueOf(with->iter), product(blocksOf(keyLength, digest), hashesOfHmac * weightOf(digest)));
        }
    } else if (nid == NID_id_scrypt) {
        if (const auto with =
                parametersOf<SCRYPT_PARAMS, SCRYPT_PARAMS_free>(function, ASN1_ITEM_rptr(SCRYPT_PARAMS))) {
            const std::int64_t cost = valueOf(with->costParameter);
            const std::int64_t blocks = product(valueOf(with->blockSize), valueOf(with->parallelizationParameter));
            add(product(cost, blocks), coresOfScrypt);
            add(product(blocks, saltsOfScrypt), ASN1_STRING_length(with->salt) / octetsOfHash);
        }
    }
}

} // namespace Norvane::Crypto::openssl
