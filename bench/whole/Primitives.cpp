// The calls that no way around leads past: what the ratios are about. No structure is made or read.
#include "Contestants.h"

#include <openssl/crypto.h>
#include <openssl/rand.h>
#include <openssl/rsa.h>
#include <openssl/x509v3.h>

#include <memory>

namespace bench {

namespace {

using DigestPtr = std::unique_ptr<EVP_MD_CTX, With<EVP_MD_CTX_free>>;
using CipherPtr = std::unique_ptr<EVP_CIPHER_CTX, With<EVP_CIPHER_CTX_free>>;
using KeyContextPtr = std::unique_ptr<EVP_PKEY_CTX, With<EVP_PKEY_CTX_free>>;

void digest(const Bytes& bytes, std::size_t size, unsigned char* out) {
    const DigestPtr context(EVP_MD_CTX_new());
    require(EVP_DigestInit_ex(context.get(), EVP_sha256(), nullptr) == 1, "no digest");
    inPieces(bytes, size,
             [&](const unsigned char* data, unsigned int length) { EVP_DigestUpdate(context.get(), data, length); });
    unsigned int length = 0;
    require(EVP_DigestFinal_ex(context.get(), out, &length) == 1, "no digest");
    keep(*out);
}

/// Through one scratch buffer, or into `target`, which has room for a block more.
void crypt(const EVP_CIPHER* cipher, bool encrypt, const unsigned char* key, const unsigned char* vector,
           const Bytes& bytes, std::size_t size, unsigned char* target, unsigned char* tag) {
    unsigned char scratch[piece + EVP_MAX_BLOCK_LENGTH];
    const CipherPtr context(EVP_CIPHER_CTX_new());
    require(EVP_CipherInit_ex(context.get(), cipher, nullptr, key, vector, encrypt ? 1 : 0) == 1, "no cipher");
    int count = 0;
    std::size_t at = 0;
    inPieces(bytes, size, [&](const unsigned char* data, unsigned int length) {
        EVP_CipherUpdate(context.get(), target == nullptr ? scratch : target + at, &count, data,
                         static_cast<int>(length));
        keep(scratch);
        at += static_cast<std::size_t>(count);
    });
    if (tag != nullptr) {
        EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_AEAD_SET_TAG, 16, tag);
    }
    require(EVP_CipherFinal_ex(context.get(), target == nullptr ? scratch : target + at, &count) == 1, "not decrypted");
}

const unsigned char s_key[32] = {1, 2, 3};
const unsigned char s_vector[16] = {4, 5, 6};

Bytes encrypted(const EVP_CIPHER* cipher, std::size_t size, unsigned char* tag) {
    Bytes out(size + 32);
    const CipherPtr context(EVP_CIPHER_CTX_new());
    int first = 0;
    int last = 0;
    EVP_EncryptInit_ex(context.get(), cipher, nullptr, s_key, s_vector);
    EVP_EncryptUpdate(context.get(), out.data(), &first, body(size).data(), static_cast<int>(size));
    EVP_EncryptFinal_ex(context.get(), out.data() + first, &last);
    if (tag != nullptr) {
        EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_AEAD_GET_TAG, 16, tag);
    }
    out.resize(static_cast<std::size_t>(first + last));
    return out;
}

Bytes wrapped(EVP_PKEY* key, const unsigned char* contentKey) {
    const KeyContextPtr context(EVP_PKEY_CTX_new(key, nullptr));
    Bytes out(static_cast<std::size_t>(EVP_PKEY_get_size(key)));
    std::size_t count = out.size();
    require(EVP_PKEY_encrypt_init(context.get()) == 1 &&
                EVP_PKEY_encrypt(context.get(), out.data(), &count, contentKey, 32) == 1,
            "no wrapped key");
    return out;
}

/// Opens a content key of 32 bytes.
void unwrap(const Material& material, const Bytes& wrappedKey, unsigned char (&opened)[512]) {
    const KeyContextPtr context(EVP_PKEY_CTX_new(material.key.get(), nullptr));
    std::size_t count = sizeof opened;
    require(EVP_PKEY_decrypt_init(context.get()) == 1 &&
                EVP_PKEY_decrypt(context.get(), opened, &count, wrappedKey.data(), wrappedKey.size()) == 1,
            "no key");
}

Run opener(const Material& material, std::size_t size, const EVP_CIPHER* cipher, bool authenticated) {
    auto tag = std::make_shared<Bytes>(16);
    const auto secret = std::make_shared<Bytes>(encrypted(cipher, size, authenticated ? tag->data() : nullptr));
    const auto key = std::make_shared<Bytes>(wrapped(material.key.get(), s_key));
    return [&material, secret, key, tag, cipher, authenticated] {
        unsigned char opened[512];
        unwrap(material, *key, opened);
        crypt(cipher, false, opened, s_vector, *secret, secret->size(), nullptr, authenticated ? tag->data() : nullptr);
    };
}

/// As those who decrypt segments where they lie: a call for each, whose header is known.
Run segmentOpener(const Material& material, std::size_t size) {
    static constexpr std::size_t header = 4;
    static constexpr std::size_t segment = 4096;
    const Bytes secret = encrypted(EVP_aes_256_cbc(), size, nullptr);
    const auto laid = std::make_shared<Bytes>();
    for (std::size_t at = 0; at < secret.size(); at += segment) {
        laid->insert(laid->end(), header, 0);
        laid->insert(laid->end(), secret.begin() + static_cast<std::ptrdiff_t>(at),
                     secret.begin() + static_cast<std::ptrdiff_t>(std::min(at + segment, secret.size())));
    }
    const auto key = std::make_shared<Bytes>(wrapped(material.key.get(), s_key));
    return [&material, laid, key] {
        unsigned char opened[512];
        unwrap(material, *key, opened);
        unsigned char scratch[segment + EVP_MAX_BLOCK_LENGTH];
        const CipherPtr context(EVP_CIPHER_CTX_new());
        require(EVP_DecryptInit_ex(context.get(), EVP_aes_256_cbc(), nullptr, opened, s_vector) == 1, "no cipher");
        int count = 0;
        for (std::size_t at = header; at < laid->size(); at += header + segment) {
            EVP_DecryptUpdate(context.get(), scratch, &count, laid->data() + at,
                              static_cast<int>(std::min(segment, laid->size() - at)));
            keep(scratch);
        }
        require(EVP_DecryptFinal_ex(context.get(), scratch, &count) == 1, "not decrypted");
    };
}

Run wrapper(const Material& material, std::size_t size, std::size_t recipients,
            const EVP_CIPHER* cipher = EVP_aes_256_cbc(), bool keeps = false) {
    return [&material, size, recipients, cipher, keeps] {
        unsigned char random[48];
        RAND_bytes(random, 32);
        RAND_bytes(random + 32, 16);
        for (std::size_t i = 0; i != recipients; ++i) {
            keep(wrapped(material.key.get(), random));
        }
        // Memory that nobody clears first, and that is fresh each time, as the structure's is.
        const std::unique_ptr<unsigned char[]> out(keeps ? new unsigned char[size + 32] : nullptr);
        crypt(cipher, true, random, random + 32, body(size), size, out.get(), nullptr);
    };
}

void sign(EVP_PKEY* key, const unsigned char* digested) {
    const KeyContextPtr context(EVP_PKEY_CTX_new(key, nullptr));
    unsigned char signature[1024];
    std::size_t length = sizeof signature;
    require(EVP_PKEY_sign_init(context.get()) == 1 &&
                EVP_PKEY_CTX_set_rsa_padding(context.get(), RSA_PKCS1_PADDING) == 1 &&
                EVP_PKEY_CTX_set_signature_md(context.get(), EVP_sha256()) == 1 &&
                EVP_PKEY_sign(context.get(), signature, &length, digested, 32) == 1,
            "no signature");
    keep(signature);
}

Run verifier(const Material& material, std::size_t size, std::size_t signers) {
    auto signature = std::make_shared<Bytes>(1024);
    {
        const DigestPtr context(EVP_MD_CTX_new());
        std::size_t length = signature->size();
        require(EVP_DigestSignInit(context.get(), nullptr, EVP_sha256(), nullptr, material.key.get()) == 1 &&
                    EVP_DigestSign(context.get(), signature->data(), &length, body(size).data(), size) == 1,
                "no signature");
        signature->resize(length);
    }
    return [&material, signature, size, signers] {
        unsigned char digested[EVP_MAX_MD_SIZE];
        digest(body(size), size, digested);
        for (std::size_t i = 0; i != signers; ++i) {
            const KeyContextPtr context(EVP_PKEY_CTX_new(material.key.get(), nullptr));
            require(EVP_PKEY_verify_init(context.get()) == 1 &&
                        EVP_PKEY_CTX_set_signature_md(context.get(), EVP_sha256()) == 1 &&
                        EVP_PKEY_verify(context.get(), signature->data(), signature->size(), digested, 32) == 1,
                    "not verified");
        }
    };
}

using EncodingPtr = std::unique_ptr<EVP_ENCODE_CTX, With<EVP_ENCODE_CTX_free>>;

/// The letters of so many octets, in OpenSSL's lines of 64, or back.
void base64(const Bytes& bytes, std::size_t size, bool encode) {
    static unsigned char letters[2 * piece];
    const EncodingPtr context(EVP_ENCODE_CTX_new());
    int count = 0;
    encode ? EVP_EncodeInit(context.get()) : EVP_DecodeInit(context.get());
    inPieces(bytes, size, [&](const unsigned char* data, unsigned int length) {
        const int done = encode ? EVP_EncodeUpdate(context.get(), letters, &count, data, static_cast<int>(length))
                                : EVP_DecodeUpdate(context.get(), letters, &count, data, static_cast<int>(length));
        require(done >= 0, "no base64");
        keep(letters);
    });
}

std::shared_ptr<Bytes> lettersOf(std::size_t size) {
    const auto letters = std::make_shared<Bytes>(size / 3 * 4 + size / 48 + 100);
    const EncodingPtr context(EVP_ENCODE_CTX_new());
    int first = 0;
    int last = 0;
    EVP_EncodeInit(context.get());
    EVP_EncodeUpdate(context.get(), letters->data(), &first, body(size).data(), static_cast<int>(size));
    EVP_EncodeFinal(context.get(), letters->data() + first, &last);
    letters->resize(static_cast<std::size_t>(first + last));
    return letters;
}

Run both(Run first, Run second) {
    return [first = std::move(first), second = std::move(second)] {
        first();
        second();
    };
}

Run signer(const Material& material, std::size_t size) {
    return [&material, size] {
        unsigned char digested[EVP_MAX_MD_SIZE];
        digest(body(size), size, digested);
        sign(material.key.get(), digested);
    };
}

Run encoder(std::size_t size) {
    return [size] { base64(body(size), size, true); };
}

Run decoder(std::size_t size) {
    return [letters = lettersOf(size)] { base64(*letters, letters->size(), false); };
}

/// What a message is made of: base64 is among it where the body travels within a structure.
void addMessagePrimitives(Contest& contest, const Material& material) {
    constexpr const char* who = "primitives";
    const auto add = [&](const char* task, auto make) {
        contest.add(task, who, [make](std::size_t size) -> Run { return make(size); });
    };
    const auto opened = [&material](std::size_t size) { return opener(material, size, EVP_aes_256_cbc(), false); };
    add("sign a message", [&material](std::size_t size) { return signer(material, size); });
    add("sign a message opaquely",
        [&material](std::size_t size) { return both(signer(material, size), encoder(size)); });
    add("encrypt a message", [&material](std::size_t size) { return both(wrapper(material, size, 1), encoder(size)); });
    add("sign and encrypt a message", [&material](std::size_t size) {
        return both(signer(material, size), both(wrapper(material, size, 1), encoder(size)));
    });
    add("verify a message", [&material](std::size_t size) { return verifier(material, size, 1); });
    add("verify an opaque message",
        [&material](std::size_t size) { return both(verifier(material, size, 1), decoder(size)); });
    add("decrypt a message", [opened](std::size_t size) { return both(decoder(size), opened(size)); });
    add("decrypt and verify a message", [&material, opened](std::size_t size) {
        return both(both(decoder(size), opened(size)), verifier(material, size, 1));
    });
}

} // namespace

void addPrimitives(Contest& contest, const Material& material) {
    constexpr const char* who = "primitives";
    contest.add("digest", who, [](std::size_t size) -> Run {
        return [size] {
            unsigned char digested[EVP_MAX_MD_SIZE];
            digest(body(size), size, digested);
        };
    });
    contest.add("encrypt", who, [](std::size_t size) -> Run {
        return [size] { crypt(EVP_aes_256_cbc(), true, s_key, s_vector, body(size), size, nullptr, nullptr); };
    });
    contest.add("decrypt", who, [](std::size_t size) -> Run {
        const auto secret = std::make_shared<Bytes>(encrypted(EVP_aes_256_cbc(), size - 1, nullptr));
        return
            [secret] { crypt(EVP_aes_256_cbc(), false, s_key, s_vector, *secret, secret->size(), nullptr, nullptr); };
    });
    for (const char* task : {"sign", "sign attached"}) {
        contest.add(task, who, [&material](std::size_t size) -> Run {
            return [&material, size] {
                unsigned char digested[EVP_MAX_MD_SIZE];
                digest(body(size), size, digested);
                sign(material.key.get(), digested);
            };
        });
    }
    for (const char* task : {"verify", "verify attached"}) {
        contest.add(task, who, [&material](std::size_t size) { return verifier(material, size, 1); });
    }
    contest.add("envelope", who, [&material](std::size_t size) { return wrapper(material, size, 1); });
    contest.add("envelope", "primitives, into memory", // as those do who must know the length first
                [&material](std::size_t size) { return wrapper(material, size, 1, EVP_aes_256_cbc(), true); });
    contest.add("envelope authenticated", who,
                [&material](std::size_t size) { return wrapper(material, size, 1, EVP_aes_256_gcm()); });
    for (const char* task : {"open", "open BER"}) {
        contest.add(task, who,
                    [&material](std::size_t size) { return opener(material, size, EVP_aes_256_cbc(), false); });
    }
    contest.add("open BER", "primitives, in segments",
                [&material](std::size_t size) { return segmentOpener(material, size); });
    contest.add("open authenticated", who,
                [&material](std::size_t size) { return opener(material, size, EVP_aes_256_gcm(), true); });

    contest.add("envelope for recipients", who,
                [&material](std::size_t count) { return wrapper(material, 1024, count); });
    contest.add("open as last of recipients", who,
                [&material](std::size_t) { return opener(material, 1024, EVP_aes_256_cbc(), false); });
    contest.add("sign with certificates", who, [&material](std::size_t) -> Run {
        return [&material] {
            unsigned char digested[EVP_MAX_MD_SIZE];
            digest(body(1024), 1024, digested);
            sign(material.key.get(), digested);
        };
    });
    contest.add("sign by signers", who, [&material](std::size_t count) -> Run {
        return [&material, count] {
            unsigned char digested[EVP_MAX_MD_SIZE];
            digest(body(1024), 1024, digested);
            for (std::size_t i = 0; i != count; ++i) {
                sign(material.key.get(), digested);
            }
        };
    });
    contest.add("verify among certificates", who, [&material](std::size_t) { return verifier(material, 1024, 1); });
    contest.add("read list of entries", who, [](std::size_t count) -> Run {
        const auto der = std::make_shared<Bytes>(Material::revocationList(count));
        return [der] {
            const unsigned char* at = der->data();
            const std::unique_ptr<X509_CRL, With<X509_CRL_free>> list(
                d2i_X509_CRL(nullptr, &at, static_cast<long>(der->size())));
            require(list != nullptr, "no list");
            const std::unique_ptr<ASN1_INTEGER, With<ASN1_INTEGER_free>> number(
                static_cast<ASN1_INTEGER*>(X509_CRL_get_ext_d2i(list.get(), NID_crl_number, nullptr, nullptr)));
            keep(number);
        };
    });
    contest.add("verify signers", who, [&material](std::size_t count) { return verifier(material, 1024, count); });
    addMessagePrimitives(contest, material);
}

} // namespace bench
