#include "openssl/KeyTransport.h"

#include "openssl/AlgorithmName.h"
#include "openssl/ContentCipher.h"
#include "openssl/Digests.h"
#include "openssl/ErrorQueue.h"
#include "openssl/Oaep.h"
#include "openssl/Signatures.h"

#include <openssl/err.h>
#include <openssl/objects.h>
#include <openssl/params.h>
#include <openssl/rsa.h>

#include <new>

namespace Norvane::Crypto::openssl {

namespace {

using OaepParametersPtr = Owned<RSA_OAEP_PARAMS, RSA_OAEP_PARAMS_free>;

/// What the parameters of OAEP say (RFC 8017, A.2.1), and what of it is not known.
struct ReadOaep {
    Oaep oaep{nullptr, nullptr, {}};
    std::string unsupported;
    OaepParametersPtr decoded;

    [[nodiscard]] bool isUsable() const noexcept { return oaep.digest != nullptr && oaep.maskDigest != nullptr; }
};

/// The digest that an algorithm identifier names; SHA-1 where there is none. Null for a digest that is not supported.
const EVP_MD* digestOf(const X509_ALGOR* algorithm, std::string& unsupported) {
    const int nid = algorithm == nullptr ? NID_sha1 : OBJ_obj2nid(algorithm->algorithm);
    switch (nid) {
    case NID_sha1:
    case NID_sha224:
    case NID_sha256:
    case NID_sha384:
    case NID_sha512:
    case NID_sha512_224:
    case NID_sha512_256:
        return digestByNid(nid);
    default:
        unsupported = "RSAES-OAEP with " + algorithmName(algorithm->algorithm);
        return nullptr;
    }
}

ReadOaep oaepOf(const X509_ALGOR& algorithm) {
    ReadOaep read;
    read.decoded.reset(
        static_cast<RSA_OAEP_PARAMS*>(ASN1_TYPE_unpack_sequence(ASN1_ITEM_rptr(RSA_OAEP_PARAMS), algorithm.parameter)));
    if (read.decoded == nullptr) {
        return read;
    }
    const EVP_MD* digest = digestOf(read.decoded->hashFunc, read.unsupported);
    AlgorithmPtr maskHash;
    if (const X509_ALGOR* mask = read.decoded->maskGenFunc; mask != nullptr) {
        if (OBJ_obj2nid(mask->algorithm) != NID_mgf1) {
            read.unsupported = "RSAES-OAEP with " + algorithmName(mask->algorithm);
            return read;
        }
        maskHash = algorithmInParameters(*mask);
        if (maskHash == nullptr) {
            return read;
        }
    }
    if (const X509_ALGOR* source = read.decoded->pSourceFunc; source != nullptr) {
        if (OBJ_obj2nid(source->algorithm) != NID_pSpecified) {
            read.unsupported = "RSAES-OAEP with " + algorithmName(source->algorithm);
            return read;
        }
        if (source->parameter == nullptr || source->parameter->type != V_ASN1_OCTET_STRING) {
            return read;
        }
        const ASN1_OCTET_STRING* label = source->parameter->value.octet_string;
        read.oaep.label = {ASN1_STRING_get0_data(label), static_cast<std::size_t>(ASN1_STRING_length(label))};
    }
    read.oaep.maskDigest = digestOf(maskHash.get(), read.unsupported);
    read.oaep.digest = digest;
    return read;
}

bool isOfNumbers(unsigned long error) noexcept {
    const int reason = ERR_GET_REASON(error);
    return static_cast<bool>(static_cast<unsigned int>(reason == ERR_R_MALLOC_FAILURE) |
                             static_cast<unsigned int>(reason == ERR_R_BN_LIB) |
                             static_cast<unsigned int>(ERR_GET_LIB(error) == ERR_LIB_BN));
}

/// Whether an RSA operation did not come as far as its padding: for want of memory, which can leave the key's blinding half
/// renewed and no error at all. A wrong padding leaves an error of its own, and is answered as a good one is.
bool brokeOff(int answer) noexcept {
    const unsigned long first = ERR_peek_error();
    const auto silent = static_cast<unsigned int>(answer != 1) & static_cast<unsigned int>(first == 0);
    return static_cast<bool>(silent | static_cast<unsigned int>(isOfNumbers(first)) |
                             static_cast<unsigned int>(isOfNumbers(ERR_peek_last_error())));
}

/// With no errors before. \throws std::bad_alloc
template <class SetUp> WipedBytes decryptKey(EVP_PKEY* key, std::span<const unsigned char> encrypted, SetUp setUp) {
    const KeyContextPtr context(EVP_PKEY_CTX_new(key, nullptr));
    const int largest = EVP_PKEY_get_size(key);
    const bool begun = context != nullptr && EVP_PKEY_decrypt_init(context.get()) == 1;
    if (!begun && isRsa(key)) {
        throw std::bad_alloc();
    }
    if (!begun || largest <= 0 || !setUp(context.get())) {
        return {};
    }
    WipedBytes opened(static_cast<std::size_t>(largest));
    std::size_t length = opened.size();
    const int answer = EVP_PKEY_decrypt(context.get(), opened.data(), &length, encrypted.data(), encrypted.size());
    // The same steps for what was opened and what was not: no branch either, which the processor would guess.
    if (brokeOff(answer)) {
        renewBlinding(key);
        if (answer != 1) {
            throw std::bad_alloc(); // which says nothing of the message
        }
    }
    const auto good = static_cast<std::size_t>(answer == 1) & static_cast<std::size_t>(length <= opened.size());
    opened.shorten(length & (std::size_t{0} - good));
    return opened;
}

} // namespace

WipedBytes openPkcs1Key(EVP_PKEY* key, std::span<const unsigned char> encrypted) {
    const ErrorMark mark;
    return decryptKey(key, encrypted, [](EVP_PKEY_CTX* context) {
        // Releases that answer a wrong padding with a random text would have it taken for a content key. Those that do
        // not know the setting refuse it, at some length, and are better not asked.
        const OSSL_PARAM* known = EVP_PKEY_CTX_settable_params(context);
        if (known == nullptr || OSSL_PARAM_locate_const(known, "implicit-rejection") != nullptr) {
            static_cast<void>(EVP_PKEY_CTX_ctrl_str(context, "rsa_pkcs1_implicit_rejection", "0"));
        }
        return true;
    });
}

bool isPkcs1(const X509_ALGOR& algorithm) noexcept {
    const int nid = OBJ_obj2nid(algorithm.algorithm);
    return nid == NID_rsaEncryption || nid == NID_rsa;
}

std::string unsupportedKeyTransport(const X509_ALGOR& algorithm) {
    if (isPkcs1(algorithm)) {
        return {};
    }
    if (OBJ_obj2nid(algorithm.algorithm) != NID_rsaesOaep) {
        return algorithmName(algorithm.algorithm);
    }
    const ErrorMark mark;
    return oaepOf(algorithm).unsupported;
}

WipedBytes openTransportedKey(const X509_ALGOR& algorithm, EVP_PKEY* key, std::span<const unsigned char> encrypted) {
    if (isPkcs1(algorithm)) {
        return openPkcs1Key(key, encrypted);
    }
    const ErrorMark mark;
    const ReadOaep read = oaepOf(algorithm);
    if (!read.isUsable()) {
        mark.throwWithoutMemory();
        return {};
    }
    return decryptKey(key, encrypted, [&](EVP_PKEY_CTX* context) {
        const bool known = setOaep(context, read.oaep);
        if (!known) {
            mark.throwWithoutMemory();
        }
        return known;
    });
}

} // namespace Norvane::Crypto::openssl
