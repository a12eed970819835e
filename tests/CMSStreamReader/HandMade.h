#pragma once

// Messages put together by hand, element by element: what OpenSSL does not make, and what nobody should.

#include "Reading.h"

#include <openssl/hmac.h>

namespace cmstest {

/// EVP_EncryptUpdate over all of it, after `setUp`; what the final call gives is appended.
inline Bytes encryptedWith(EVP_CIPHER_CTX* context, const Bytes& body) {
    Bytes out(body.size() + 64);
    int first = 0;
    int last = 0;
    if (EVP_EncryptUpdate(context, out.data(), &first, body.data(), static_cast<int>(body.size())) != 1 ||
        EVP_EncryptFinal_ex(context, out.data() + first, &last) != 1) {
        throw std::runtime_error("EVP_Encrypt");
    }
    out.resize(static_cast<std::size_t>(first + last));
    return out;
}
using CipherContext = std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)>;

inline Bytes context(int number, const Bytes& content) {
    return der::element(static_cast<unsigned char>(0xA0 + number), content);
}

/// AuthEnvelopedData, and how it departs from a sound one.
struct AuthParts {
    std::vector<Bytes> recipients{};
    Bytes body = bodyOf(1000);
    Bytes key = contentKey();
    const EVP_CIPHER* cipher = EVP_aes_128_gcm();
    std::string algorithm = "2.16.840.1.101.3.4.1.6"; ///< id-aes128-GCM
    Bytes nonce = Bytes(12, 0x33);
    std::size_t tagLength = 12;
    std::optional<Bytes> parameters{};     ///< else those of the nonce and the tag's length
    std::optional<Bytes> attributes{};     ///< the elements in the set
    std::optional<Bytes> sentAttributes{}; ///< the whole element, when it is not [1] around those
    Bytes unauthentic{};                   ///< sent in their place, and left out when the tag is made
    std::string contentType = "1.2.840.113549.1.7.1";
    Bytes originatorInfo{};
    Bytes behind{};          ///< the tag
    std::size_t tagSent = 0; ///< octets of it that are sent, when not `tagLength`
    bool inPieces = false;   ///< the content as a constructed string
};

inline Bytes gcmParameters(const Bytes& nonce, const std::string& tagLength) {
    return tagLength.empty() ? der::sequence({der::octetString(nonce)})
                             : der::sequence({der::octetString(nonce), der::integer(tagLength)});
}
inline std::string inHex(std::size_t number) {
    constexpr const char* digits = "0123456789abcdef";
    return {digits[number / 16], digits[number % 16]};
}

inline Bytes authEnveloped(const AuthParts& parts) {
    const CipherContext context(EVP_CIPHER_CTX_new(), EVP_CIPHER_CTX_free);
    EVP_EncryptInit_ex(context.get(), parts.cipher, nullptr, nullptr, nullptr);
    EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_AEAD_SET_IVLEN, static_cast<int>(parts.nonce.size()), nullptr);
    EVP_EncryptInit_ex(context.get(), nullptr, nullptr, parts.key.data(), parts.nonce.data());
    if (parts.attributes) {
        const Bytes associated = der::element(0x31, *parts.attributes);
        int count = 0;
        EVP_EncryptUpdate(context.get(), nullptr, &count, associated.data(), static_cast<int>(associated.size()));
    }
    const Bytes encrypted = encryptedWith(context.get(), parts.body);
    Bytes tag(16);
    EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_AEAD_GET_TAG, 16, tag.data());
    tag.resize(parts.tagSent != 0 ? parts.tagSent : parts.tagLength);
    Bytes pieces;
    for (std::size_t at = 0; at < encrypted.size(); at += 700) {
        const std::size_t end = std::min(at + 700, encrypted.size());
        der::append(pieces, der::octetString(Bytes(encrypted.begin() + static_cast<std::ptrdiff_t>(at),
                                                   encrypted.begin() + static_cast<std::ptrdiff_t>(end))));
    }
    const Bytes parameters = parts.parameters
                                 ? *parts.parameters
                                 : gcmParameters(parts.nonce, parts.tagLength == 12 ? "" : inHex(parts.tagLength));
    std::vector<Bytes> all{der::integer("0")};
    all.push_back(parts.originatorInfo);
    all.push_back(der::set(parts.recipients));
    all.push_back(der::sequence({der::oid(parts.contentType), der::sequence({der::oid(parts.algorithm), parameters}),
                                 parts.inPieces ? cmstest::context(0, pieces) : contentElement(encrypted)}));
    if (parts.attributes) {
        all.push_back(parts.sentAttributes ? *parts.sentAttributes : cmstest::context(1, *parts.attributes));
    }
    all.push_back(parts.unauthentic);
    all.push_back(der::octetString(tag));
    all.push_back(parts.behind);
    return der::sequence({der::oid("1.2.840.113549.1.9.16.1.23"), cmstest::context(0, der::sequence(all))});
}

/// An attribute with one value.
inline Bytes attribute(const std::string& type, const Bytes& value) {
    return der::sequence({der::oid(type), der::element(0x31, value)});
}
inline Bytes contentTypeAttribute(const std::string& type) {
    return attribute("1.2.840.113549.1.9.3", der::oid(type));
}

/// `length` octets of the derivation of ANSI X9.63 with SHA-256.
inline Bytes x963(const Bytes& secret, const Bytes& info, std::size_t length) {
    Bytes all;
    for (unsigned char counter = 1; all.size() < length; ++counter) {
        Bytes hashed = secret;
        der::append(hashed, {0, 0, 0, counter});
        der::append(hashed, info);
        Bytes digest(32);
        EVP_Digest(hashed.data(), hashed.size(), digest.data(), nullptr, EVP_sha256(), nullptr);
        der::append(all, digest);
    }
    all.resize(length);
    return all;
}
/// HKDF without salt (RFC 5869), up to the length of one digest.
inline Bytes hkdf(const EVP_MD* digest, const Bytes& secret, Bytes info, std::size_t length) {
    const auto mac = [digest](const Bytes& key, const Bytes& data) {
        Bytes out(EVP_MAX_MD_SIZE);
        unsigned int size = 0;
        HMAC(digest, key.data(), static_cast<int>(key.size()), data.data(), data.size(), out.data(), &size);
        out.resize(size);
        return out;
    };
    const Bytes extracted = mac(Bytes(static_cast<std::size_t>(EVP_MD_get_size(digest)), 0), secret);
    info.push_back(1);
    Bytes key = mac(extracted, info);
    key.resize(length);
    return key;
}

inline Bytes agreedSecret(EVP_PKEY* own, EVP_PKEY* peer) {
    const std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)> context(EVP_PKEY_CTX_new(own, nullptr),
                                                                              EVP_PKEY_CTX_free);
    std::size_t length = 200;
    Bytes secret(length);
    if (EVP_PKEY_derive_init(context.get()) != 1 || EVP_PKEY_derive_set_peer(context.get(), peer) != 1 ||
        EVP_PKEY_derive(context.get(), secret.data(), &length) != 1) {
        throw std::runtime_error("EVP_PKEY_derive");
    }
    secret.resize(length);
    return secret;
}
inline Bytes publicOctets(EVP_PKEY* key) {
    unsigned char* encoded = nullptr;
    const std::size_t length = EVP_PKEY_get1_encoded_public_key(key, &encoded);
    Bytes octets(encoded, encoded + length);
    OPENSSL_free(encoded);
    return octets;
}
inline Bytes aesWrapped(const Bytes& wrapping, const Bytes& key) {
    const CipherContext context(EVP_CIPHER_CTX_new(), EVP_CIPHER_CTX_free);
    EVP_CIPHER_CTX_set_flags(context.get(), EVP_CIPHER_CTX_FLAG_WRAP_ALLOW);
    EVP_EncryptInit_ex(context.get(), wrapping.size() == 16 ? EVP_aes_128_wrap() : EVP_aes_256_wrap(), nullptr,
                       wrapping.data(), nullptr);
    return encryptedWith(context.get(), key);
}

/// KeyAgreeRecipientInfo (RFC 5652, 6.2.2), which `keys` are in.
struct AgreementParts {
    std::string scheme = "1.3.132.1.11.1";                            ///< dhSinglePass-stdDH-sha256kdf-scheme
    Bytes wrap = der::sequence({der::oid("2.16.840.1.101.3.4.1.5")}); ///< AES-128
    Bytes originator{};                                               ///< within [0]
    Bytes material{};
    std::vector<Bytes> keys{};
};
inline Bytes agreement(const AgreementParts& parts) {
    Bytes content = der::integer("3");
    der::append(content, context(0, parts.originator));
    if (!parts.material.empty()) {
        der::append(content, context(1, der::octetString(parts.material)));
    }
    der::append(content, der::sequence({der::oid(parts.scheme), parts.wrap}));
    der::append(content, der::sequence(parts.keys));
    return context(1, content);
}
/// OriginatorPublicKey.
inline Bytes originatorKey(const std::string& algorithm, const Bytes& octets, const Bytes& parameters = {}) {
    return context(1, der::concat({der::sequence({der::oid(algorithm), parameters}), der::bitString(octets)}));
}
inline Bytes sharedInfo(const AgreementParts& parts, unsigned char keyBits) {
    return der::sequence({parts.wrap, parts.material.empty() ? Bytes() : context(0, der::octetString(parts.material)),
                          context(2, der::octetString({0, 0, 0, keyBits}))});
}
inline Bytes nameIn(const Identity& person) {
    return der::sequence({identities().authority.name.der(), der::integer(person.serial)});
}

/// RFC 3211, 2.3: a length, check octets, the key and padding, encrypted twice.
inline Bytes wrappedUnderPassword(const Bytes& wrapping, const Bytes& vector, const Bytes& key) {
    Bytes block{static_cast<unsigned char>(key.size()), static_cast<unsigned char>(~key[0]),
                static_cast<unsigned char>(~key[1]), static_cast<unsigned char>(~key[2])};
    der::append(block, key);
    block.resize((block.size() + 15) / 16 * 16, 0x77);
    const CipherContext context(EVP_CIPHER_CTX_new(), EVP_CIPHER_CTX_free);
    EVP_EncryptInit_ex(context.get(), EVP_aes_256_cbc(), nullptr, wrapping.data(), vector.data());
    EVP_CIPHER_CTX_set_padding(context.get(), 0);
    int count = 0;
    for (int turn = 0; turn < 2; ++turn) {
        EVP_EncryptUpdate(context.get(), block.data(), &count, block.data(), static_cast<int>(block.size()));
    }
    return block;
}
struct PasswordParts {
    std::string iterations = "0400"; ///< 1024
    Bytes function = der::sequence({der::oid("hmacWithSHA256"), der::null()});
    std::string derivation = "1.2.840.113549.1.5.12";
    Bytes inner = der::sequence({der::oid("AES-256-CBC"), der::octetString(Bytes(16, 9))});
    Bytes wrapped{};
};
inline Bytes passwordRecipient(const PasswordParts& parts) {
    const Bytes derivation =
        der::concat({der::oid(parts.derivation),
                     der::sequence({der::octetString(Bytes(8, 1)), der::integer(parts.iterations), parts.function})});
    return context(3, der::concat({der::integer("0"), context(0, derivation),
                                   der::sequence({der::oid("1.2.840.113549.1.9.16.3.9"), parts.inner}),
                                   der::octetString(parts.wrapped)}));
}

} // namespace cmstest
