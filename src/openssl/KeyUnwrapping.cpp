#include "openssl/KeyUnwrapping.h"

#include "openssl/AlgorithmName.h"
#include "openssl/ContentCipher.h"
#include "openssl/Digests.h"
#include "openssl/ErrorQueue.h"
#include "openssl/Pkcs7.h"
#include "openssl/RecipientKeys.h"

#include <openssl/objects.h>

#include <algorithm>
#include <climits>
#include <new>

namespace Norvane::Crypto::openssl {

namespace {

using Pbkdf2Ptr = Owned<PBKDF2PARAM, PBKDF2PARAM_free>;

bool isWrap(int nid) noexcept {
    switch (nid) {
    case NID_id_aes128_wrap:
    case NID_id_aes192_wrap:
    case NID_id_aes256_wrap:
    case NID_id_aes128_wrap_pad:
    case NID_id_aes192_wrap_pad:
    case NID_id_aes256_wrap_pad:
    case NID_id_smime_alg_CMS3DESwrap:
        return true;
    default:
        return false;
    }
}

Pbkdf2Ptr pbkdf2Of(const X509_ALGOR& derivation) {
    const ErrorMark mark;
    Pbkdf2Ptr parameters(
        static_cast<PBKDF2PARAM*>(ASN1_TYPE_unpack_sequence(ASN1_ITEM_rptr(PBKDF2PARAM), derivation.parameter)));
    if (parameters == nullptr) {
        mark.throwWithoutMemory();
    }
    return parameters;
}

/// The digest of a function that PBKDF2 repeats; HMAC with SHA-1 where none is named. Null for an unknown one.
const EVP_MD* digestOf(const X509_ALGOR* function) {
    int digest = NID_undef;
    const int nid = function == nullptr ? NID_hmacWithSHA1 : OBJ_obj2nid(function->algorithm);
    return EVP_PBE_find(EVP_PBE_TYPE_PRF, nid, nullptr, &digest, nullptr) == 1 ? EVP_get_digestbynid(digest) : nullptr;
}

/// Nothing for more than OpenSSL counts; zero for a number that stands for no hashing at all.
std::optional<std::int64_t> valueOf(const ASN1_INTEGER* number) noexcept {
    std::int64_t value = 0;
    if (ASN1_STRING_type(number) == V_ASN1_NEG_INTEGER) {
        return 0;
    }
    return ASN1_INTEGER_get_int64(&value, number) == 1 && value <= INT_MAX ? std::optional(value) : std::nullopt;
}

/// Fills the key that a password stands for. \throws std::bad_alloc
bool deriveKey(const X509_ALGOR& derivation, std::span<const unsigned char> password, Secret& key) {
    const Pbkdf2Ptr parameters = pbkdf2Of(derivation);
    if (parameters == nullptr || parameters->salt->type != V_ASN1_OCTET_STRING || password.size() > INT_MAX) {
        return false;
    }
    std::int64_t announced = 0;
    if (parameters->keylength != nullptr && (ASN1_INTEGER_get_int64(&announced, parameters->keylength) != 1 ||
                                             announced != static_cast<std::int64_t>(key.size()))) {
        return false;
    }
    const auto iterations = valueOf(parameters->iter);
    if (!iterations || *iterations == 0) {
        return false;
    }
    const ASN1_OCTET_STRING* salt = parameters->salt->value.octet_string;
    const EVP_MD* digest = digestOf(parameters->prf);
    if (derivePbkdf2(digest, password,
                     {ASN1_STRING_get0_data(salt), static_cast<std::size_t>(ASN1_STRING_length(salt))},
                     static_cast<std::uint32_t>(*iterations), key)) {
        return true;
    }
    const DigestContextPtr context(EVP_MD_CTX_new());
    if (context == nullptr || beginDigest(context.get(), digest)) {
        throw std::bad_alloc(); // which OpenSSL does not tell; nothing else keeps a digest that starts from it
    }
    return false;
}

bool decryptBlocks(EVP_CIPHER_CTX* context, unsigned char* out, const unsigned char* in, std::size_t length) {
    int count = 0;
    return EVP_DecryptUpdate(context, out, &count, in, static_cast<int>(length)) == 1 &&
           count == static_cast<int>(length);
}

/// Undoes both of the encryptions of RFC 3211, 2.3.2: the blocks that the first one gave are the second one's text, whose
/// initialisation vector is the last block of the first one.
bool decryptTwice(EVP_CIPHER_CTX* context, std::span<const unsigned char> wrapped, std::size_t block,
                  unsigned char* out) {
    const std::size_t length = wrapped.size();
    const std::size_t allButLast = length - block;
    // The last block of the first encryption: it follows from the last two of the second one.
    return decryptBlocks(context, out + allButLast - block, wrapped.data() + allButLast - block, 2 * block) &&
           // Passing it through makes it the vector for the blocks from the first one on.
           decryptBlocks(context, out, out + allButLast, block) &&
           decryptBlocks(context, out, wrapped.data(), allButLast) &&
           EVP_DecryptInit_ex(context, nullptr, nullptr, nullptr, nullptr) == 1 &&
           decryptBlocks(context, out, out, length);
}

/// A length, three check bytes, the key, and padding (RFC 3211, 2.3.1).
WipedBytes keyInside(const WipedBytes& opened) {
    constexpr std::size_t before = 4;
    const unsigned char* at = opened.data();
    const std::size_t length = at[0];
    const unsigned int check = (at[1] ^ at[4]) & (at[2] ^ at[5]) & (at[3] ^ at[6]);
    if (check != 0xFFU || length < 3 || length > opened.size() - before) {
        return {};
    }
    WipedBytes key(length);
    std::copy_n(at + before, length, key.data());
    return key;
}

} // namespace

std::string unsupportedWrap(const X509_ALGOR* algorithm) {
    const ASN1_OBJECT* identifier = algorithmIdentifier(algorithm);
    return identifier != nullptr && isWrap(OBJ_obj2nid(identifier)) && cipherOf(algorithm) != nullptr
               ? ""
               : algorithmName(identifier);
}

std::size_t keyEncryptionKeyLength(const X509_ALGOR& algorithm) {
    const CipherPtr cipher = cipherOf(&algorithm);
    return cipher == nullptr ? 0 : static_cast<std::size_t>(std::max(0, EVP_CIPHER_get_key_length(cipher.get())));
}

WipedBytes unwrapKey(const X509_ALGOR& algorithm, std::span<const unsigned char> keyEncryptionKey,
                     std::span<const unsigned char> wrapped) {
    const ErrorMark mark;
    const CipherPtr cipher = cipherOf(&algorithm);
    const CipherContextPtr context(EVP_CIPHER_CTX_new());
    if (context == nullptr) {
        throw std::bad_alloc();
    }
    if (cipher == nullptr || wrapped.size() > longestWrappedKey ||
        keyEncryptionKey.size() != static_cast<std::size_t>(std::max(0, EVP_CIPHER_get_key_length(cipher.get())))) {
        mark.throwWithoutMemory();
        return {};
    }
    EVP_CIPHER_CTX_set_flags(context.get(), EVP_CIPHER_CTX_FLAG_WRAP_ALLOW);
    const auto begin = [&] {
        return EVP_DecryptInit_ex(context.get(), cipher.get(), nullptr, keyEncryptionKey.data(), nullptr) == 1;
    };
    bool begun = begin();
    if (!begun) { // once more, since OpenSSL does not always tell that there was no memory
        begun = begin();
    }
    if (!begun) {
        mark.throwWithoutMemory();
        return {};
    }
    WipedBytes opened(wrapped.size() + EVP_MAX_BLOCK_LENGTH);
    int length = 0;
    if (EVP_DecryptUpdate(context.get(), opened.data(), &length, wrapped.data(), static_cast<int>(wrapped.size())) !=
            1 ||
        length <= 0) {
        return {};
    }
    opened.shorten(static_cast<std::size_t>(length));
    return opened;
}

std::string unsupportedPassword(const PasswordEncryption& algorithms) {
    const ErrorMark mark;
    if (algorithms.derivation == nullptr) {
        return "a key that is not derived from the password";
    }
    if (OBJ_obj2nid(algorithms.derivation->algorithm) != NID_id_pbkdf2) {
        return algorithmName(algorithms.derivation->algorithm);
    }
    if (const Pbkdf2Ptr parameters = pbkdf2Of(*algorithms.derivation); parameters != nullptr) {
        if (digestOf(parameters->prf) == nullptr) {
            return "PBKDF2 with " + algorithmName(parameters->prf->algorithm);
        }
        if (parameters->salt->type != V_ASN1_OCTET_STRING) {
            return "PBKDF2 with a salt of another source";
        }
    }
    const ASN1_OBJECT* identifier = algorithmIdentifier(algorithms.encryption);
    if (identifier == nullptr || OBJ_obj2nid(identifier) != NID_id_alg_PWRI_KEK) {
        return algorithmName(identifier);
    }
    const AlgorithmPtr inner = algorithmInParameters(*algorithms.encryption);
    if (inner == nullptr) {
        return {};
    }
    const CipherPtr cipher = cipherOf(inner.get());
    return cipher != nullptr && EVP_CIPHER_get_mode(cipher.get()) == EVP_CIPH_CBC_MODE &&
                   unsupportedContentCipher(inner.get()).empty() && isAvailable(inner.get())
               ? ""
               : "id-alg-PWRI-KEK with " + algorithmName(inner->algorithm);
}

std::optional<std::int64_t> iterationsOf(const PasswordEncryption& algorithms) {
    const ErrorMark mark;
    const Pbkdf2Ptr parameters = algorithms.derivation == nullptr ? nullptr : pbkdf2Of(*algorithms.derivation);
    return parameters == nullptr ? 0 : valueOf(parameters->iter);
}

WipedBytes openPasswordKey(const PasswordEncryption& algorithms, std::span<const unsigned char> password,
                           std::span<const unsigned char> wrapped) {
    const ErrorMark mark;
    const AlgorithmPtr inner = algorithmInParameters(*algorithms.encryption);
    CipherContextPtr context = contextFor(inner.get());
    if (context == nullptr) { // once more, since OpenSSL does not always tell that there was no memory
        context = contextFor(inner.get());
    }
    if (context == nullptr || wrapped.size() > longestWrappedKey) {
        mark.throwWithoutMemory();
        return {};
    }
    const auto block = static_cast<std::size_t>(EVP_CIPHER_CTX_get_block_size(context.get()));
    if (block < 2 || wrapped.size() < 2 * block || wrapped.size() % block != 0) {
        return {};
    }
    Secret key(std::min(static_cast<std::size_t>(EVP_CIPHER_CTX_get_key_length(context.get())), Secret::most));
    WipedBytes opened(wrapped.size());
    if (!deriveKey(*algorithms.derivation, password, key)) {
        mark.throwWithoutMemory();
        return {};
    }
    if (EVP_DecryptInit_ex(context.get(), nullptr, nullptr, key.octets().data(), nullptr) != 1 ||
        EVP_CIPHER_CTX_set_padding(context.get(), 0) != 1 ||
        !decryptTwice(context.get(), wrapped, block, opened.data())) {
        throw std::bad_alloc(); // whole blocks under a key of the cipher's length decrypt
    }
    return keyInside(opened);
}

} // namespace Norvane::Crypto::openssl
