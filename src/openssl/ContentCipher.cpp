#include "openssl/ContentCipher.h"

#include "framing/Elements.h"
#include "openssl/AlgorithmName.h"
#include "openssl/ErrorQueue.h"
#include "openssl/Idea.h"
#include "openssl/Pkcs7.h"

#include <openssl/core_names.h>
#include <openssl/objects.h>
#include <openssl/params.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <new>
#include <optional>
#include <span>

namespace Norvane::Crypto::openssl {

namespace {

constexpr std::size_t blockOf64Bits = 8;

bool isForContent(const EVP_CIPHER* cipher) noexcept {
    // Ours is in OpenSSL's table whether its library is there or not, and fails with a key only, as a wrong one would.
    if (EVP_CIPHER_get_nid(cipher) == NID_idea_cbc && EVP_CIPHER_get0_provider(cipher) == nullptr && !isIdeaUsable()) {
        return false;
    }
    switch (EVP_CIPHER_get_mode(cipher)) {
    case EVP_CIPH_CBC_MODE:
    case EVP_CIPH_CFB_MODE:
    case EVP_CIPH_OFB_MODE:
    case EVP_CIPH_ECB_MODE:
    case EVP_CIPH_STREAM_CIPHER:
        return (EVP_CIPHER_get_flags(cipher) & EVP_CIPH_FLAG_AEAD_CIPHER) == 0;
    default:
        return false;
    }
}

/// What the sequence holds that an algorithm's parameters are; nothing when they are something else.
std::optional<framing::Octets> sequenceIn(const X509_ALGOR& algorithm) {
    if (algorithm.parameter == nullptr || algorithm.parameter->type != V_ASN1_SEQUENCE) {
        return std::nullopt;
    }
    const ASN1_STRING* encoded = algorithm.parameter->value.sequence;
    const auto sequence =
        framing::firstElement({ASN1_STRING_get0_data(encoded), static_cast<std::size_t>(ASN1_STRING_length(encoded))});
    return sequence ? std::optional(sequence->content) : std::nullopt;
}

/// Whether the parameters of RC2 are sound and announce an effective key length that OpenSSL does not take (RFC 2268, 6; RFC 3370,
/// 5.2): it takes 40, 64 and 128 bits, by these numbers.
bool isOtherRc2(const X509_ALGOR& algorithm) {
    static constexpr std::array<std::int64_t, 3> taken{160, 120, 58};
    if (OBJ_obj2nid(algorithm.algorithm) != NID_rc2_cbc) {
        return false;
    }
    framing::Elements parts(sequenceIn(algorithm).value_or(framing::Octets()));
    const auto version = parts.nextUniversal(framing::integer);
    const auto vector = parts.nextUniversal(framing::octetString);
    if (!version || !framing::isSmallInteger(*version) || !vector || vector->header.constructed || !parts.atEnd()) {
        return false;
    }
    std::int64_t number = 0;
    for (const unsigned char octet : version->content) {
        number = number << 8U | octet;
    }
    return vector->content.size() == blockOf64Bits && std::ranges::find(taken, number) == taken.end();
}

/// The sequence in which the initialisation vector of IDEA may stand (RFC 3058, 2.1). OpenSSL writes the vector alone, and reads
/// nothing else.
std::optional<framing::Octets> ideaSequence(const X509_ALGOR& algorithm) {
    return OBJ_obj2nid(algorithm.algorithm) == NID_idea_cbc ? sequenceIn(algorithm) : std::nullopt;
}

/// Gives a context the initialisation vector of its cipher.
bool setParameters(EVP_CIPHER_CTX* context, const X509_ALGOR& algorithm) {
    const auto sequence = ideaSequence(algorithm);
    if (!sequence) {
        return EVP_CIPHER_asn1_to_param(context, algorithm.parameter) >= 0;
    }
    framing::Elements parts(*sequence);
    const auto vector = parts.nextUniversal(framing::octetString);
    return vector && !vector->header.constructed && vector->content.size() == blockOf64Bits && parts.atEnd() &&
           EVP_DecryptInit_ex(context, nullptr, nullptr, nullptr, vector->content.data()) == 1;
}

/// OpenSSL's flag for it is not set of what comes from a provider.
bool hasKeysOfAnyLength(const EVP_CIPHER* cipher) noexcept {
    const OSSL_PARAM* settable = EVP_CIPHER_settable_ctx_params(cipher);
    return (EVP_CIPHER_get_flags(cipher) & EVP_CIPH_VARIABLE_LENGTH) != 0 ||
           (settable != nullptr && OSSL_PARAM_locate_const(settable, OSSL_CIPHER_PARAM_KEYLEN) != nullptr);
}

bool setKey(EVP_CIPHER_CTX* context, const WipedBytes& key) {
    return EVP_DecryptInit_ex(context, nullptr, nullptr, key.data(), nullptr) == 1;
}

} // namespace

AlgorithmPtr decodeAlgorithm(std::span<const unsigned char> octets) {
    const ErrorMark mark;
    const unsigned char* at = octets.data();
    AlgorithmPtr algorithm(d2i_X509_ALGOR(nullptr, &at, static_cast<long>(octets.size())));
    if (algorithm == nullptr) {
        mark.throwWithoutMemory();
    }
    return at == octets.data() + octets.size() ? std::move(algorithm) : nullptr;
}

AlgorithmPtr algorithmInParameters(const X509_ALGOR& algorithm) {
    const ErrorMark mark;
    AlgorithmPtr inside(
        static_cast<X509_ALGOR*>(ASN1_TYPE_unpack_sequence(ASN1_ITEM_rptr(X509_ALGOR), algorithm.parameter)));
    if (inside == nullptr) {
        mark.throwWithoutMemory();
    }
    return inside;
}

CipherPtr cipherOf(const X509_ALGOR* algorithm) {
    const ASN1_OBJECT* identifier = algorithmIdentifier(algorithm);
    const int nid = identifier == nullptr ? NID_undef : OBJ_obj2nid(identifier);
    if (nid == NID_undef) {
        return nullptr;
    }
    const ErrorMark mark;
    if (CipherPtr fetched{EVP_CIPHER_fetch(nullptr, OBJ_nid2sn(nid), nullptr)}) {
        return fetched;
    }
    const EVP_CIPHER* listed = EVP_get_cipherbynid(nid);
    // Freeing one that is no provider's does nothing.
    return CipherPtr(const_cast<EVP_CIPHER*>(listed)); // NOLINT(cppcoreguidelines-pro-type-const-cast)
}

std::string unsupportedContentCipher(const X509_ALGOR* algorithm) {
    const CipherPtr cipher = cipherOf(algorithm);
    if (cipher == nullptr || !isForContent(cipher.get())) {
        return algorithmName(algorithmIdentifier(algorithm));
    }
    if (const auto sequence = ideaSequence(*algorithm); sequence && sequence->empty()) {
        // The first block of the content would be the vector.
        return algorithmName(algorithm->algorithm) + " without an initialization vector";
    }
    return isOtherRc2(*algorithm) ? algorithmName(algorithm->algorithm) + " with another effective key length" : "";
}

bool isAvailable(const X509_ALGOR* algorithm) {
    const ErrorMark mark;
    const CipherPtr cipher = cipherOf(algorithm);
    const CipherContextPtr context(EVP_CIPHER_CTX_new());
    if (context == nullptr) {
        throw std::bad_alloc();
    }
    if (cipher != nullptr && EVP_DecryptInit_ex(context.get(), cipher.get(), nullptr, nullptr, nullptr) == 1) {
        return true;
    }
    mark.throwWithoutMemory();
    return false;
}

CipherContextPtr contextFor(const X509_ALGOR* algorithm) {
    const CipherPtr cipher = cipherOf(algorithm);
    if (cipher == nullptr || !isForContent(cipher.get()) ||
        (EVP_CIPHER_get_iv_length(cipher.get()) != 0 && algorithm->parameter == nullptr)) {
        return nullptr;
    }
    CipherContextPtr context(EVP_CIPHER_CTX_new());
    if (context == nullptr || EVP_DecryptInit_ex(context.get(), cipher.get(), nullptr, nullptr, nullptr) != 1 ||
        !setParameters(context.get(), *algorithm)) {
        return nullptr;
    }
    return context;
}

bool setContentKey(EVP_CIPHER_CTX* context, const WipedBytes& contentKey, bool& trusted) {
    const auto expected = static_cast<std::size_t>(std::max(0, EVP_CIPHER_CTX_get_key_length(context)));
    WipedBytes key(expected);
    const bool drawn = expected != 0 && EVP_CIPHER_CTX_rand_key(context, key.data()) == 1;
    const bool exact = contentKey.size() == expected;
    const auto isPadded = static_cast<unsigned int>(EVP_CIPHER_CTX_get_block_size(context) > 1);
    trusted = (static_cast<unsigned int>(exact) | isPadded) != 0;
    // Some senders' content keys have another length than the effective one that RC2's parameters announce. A cipher whose
    // keys have one length is not asked: its refusal takes longer than a padding that is wrong, and so tells it from that.
    const bool isVariable = hasKeysOfAnyLength(EVP_CIPHER_CTX_get0_cipher(context));
    const bool mayFit = isVariable && !exact && !contentKey.empty();
    if (mayFit) {
        if (EVP_CIPHER_CTX_set_key_length(context, static_cast<int>(contentKey.size())) == 1 &&
            setKey(context, contentKey)) {
            return drawn;
        }
        static_cast<void>(EVP_CIPHER_CTX_set_key_length(context, static_cast<int>(expected)));
    }
    // The random key stays where the other one does not fit. No branch, which the processor would guess: whether it fits must not
    // show in the time.
    const auto fits = static_cast<unsigned char>(0U - static_cast<unsigned int>(exact));
    const std::span<const unsigned char> opened = contentKey.room();
    for (std::size_t i = 0; i != std::min(expected, opened.size()); ++i) {
        key.data()[i] = static_cast<unsigned char>((key.data()[i] & ~fits) | (opened[i] & fits));
    }
    return drawn && setKey(context, key);
}

} // namespace Norvane::Crypto::openssl
