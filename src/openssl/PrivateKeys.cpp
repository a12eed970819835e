#include "openssl/PrivateKeys.h"

#include "openssl/DerivationWork.h"
#include "openssl/ErrorQueue.h"
#include "openssl/KeyGuard.h"

#include <openssl/err.h>

#include <array>
#include <cstring>
#include <string_view>
#include <utility>

namespace Norvane::Crypto::openssl {

namespace {

using InfoPtr = Owned<PKCS8_PRIV_KEY_INFO, PKCS8_PRIV_KEY_INFO_free>;
using EncryptedPtr = Owned<X509_SIG, X509_SIG_free>;

/// Makes a reading, and leaves its entries in the error queue only where OpenSSL failed: at least one then.
template <class Read> PrivateKeyReading reading(const char* function, Read read) {
    ERR_set_mark();
    PrivateKeyReading result = read();
    if (result.key || !result.refusal.empty()) {
        ERR_pop_to_mark();
        return result;
    }
    ERR_clear_last_mark();
    if (ERR_peek_error() == 0) {
        queueError(function, ERR_LIB_PEM, ERR_R_ASN1_LIB);
    }
    return result;
}

PrivateKeyReading refused(std::string why) {
    return {nullptr, std::move(why)};
}

/// The block of a PEM text, in memory that OpenSSL wipes.
struct Block {
    Block() = default;
    ~Block() {
        OPENSSL_secure_free(label);
        OPENSSL_secure_clear_free(data, static_cast<std::size_t>(length));
    }
    Block(const Block&) = delete;
    Block& operator=(const Block&) = delete;

    char* label = nullptr;
    unsigned char* data = nullptr;
    long length = 0;
};

/// A passphrase as OpenSSL hands it out, wiped at the end.
struct Passphrase {
    Passphrase() = default;
    ~Passphrase() { OPENSSL_cleanse(text.data(), text.size()); }
    Passphrase(const Passphrase&) = delete;
    Passphrase& operator=(const Passphrase&) = delete;

    std::array<char, PEM_BUFSIZE> text{};
};

/// A PrivateKeyInfo with a key of one of the usual kinds. By the name of a kind OpenSSL finds its decoders several times faster
/// than by the object identifier, which is what it goes by when it is not told the kind. Null without a trace for all else.
KeyPtr decodeUsual(const unsigned char* der, std::size_t length) {
    const ErrorMark mark;
    const unsigned char* at = der;
    const InfoPtr info(d2i_PKCS8_PRIV_KEY_INFO(nullptr, &at, static_cast<long>(length)));
    const ASN1_OBJECT* algorithm = nullptr;
    if (!info || PKCS8_pkey_get0(&algorithm, nullptr, nullptr, nullptr, info.get()) != 1) {
        return nullptr;
    }
    const int type = OBJ_obj2nid(algorithm);
    if (type != EVP_PKEY_RSA && type != EVP_PKEY_EC) {
        return nullptr;
    }
    at = der;
    return KeyPtr(d2i_PrivateKey(type, nullptr, &at, static_cast<long>(length)));
}

PrivateKeyReading decode(const PKCS8_PRIV_KEY_INFO* info) {
    if (std::string refusal = refusalOfPrivateKey(info); !refusal.empty()) {
        return refused(std::move(refusal));
    }
    return {info == nullptr ? nullptr : KeyPtr(EVP_PKCS82PKEY(info)), {}};
}

PrivateKeyReading decrypt(const X509_SIG* key, const PassphraseSource& source) {
    if (key == nullptr) {
        return {};
    }
    if (std::string refusal = refusalOfEncryptedKey(key); !refusal.empty()) {
        return refused(std::move(refusal));
    }
    const X509_ALGOR* algorithm = nullptr;
    X509_SIG_get0(key, &algorithm, nullptr);
    DerivationWork work;
    work.addEncryption(algorithm);
    if (!work.isAffordable()) {
        return refused(tooManyHashes("the encryption of the private key"));
    }
    Passphrase passphrase;
    auto* const ask = source.callback == nullptr ? PEM_def_callback : source.callback;
    const int length = ask(passphrase.text.data(), static_cast<int>(passphrase.text.size()), 0, source.data);
    if (length < 0) {
        queueError("PEM_read_bio_PrivateKey", ERR_LIB_PEM, PEM_R_BAD_PASSWORD_READ);
        return {};
    }
    return decode(InfoPtr(PKCS8_decrypt(key, passphrase.text.data(), length)).get());
}

EncryptedPtr encryptedOf(const unsigned char* der, std::size_t length) {
    return EncryptedPtr(d2i_X509_SIG(nullptr, &der, static_cast<long>(length)));
}

/// "RSA PRIVATE KEY" and the like, whose label names the kind.
PrivateKeyReading decodeTraditional(std::string_view label, const unsigned char* der, std::size_t length) {
    constexpr std::string_view ending = " PRIVATE KEY";
    if (label.size() <= ending.size()) {
        return {};
    }
    const EVP_PKEY_ASN1_METHOD* method =
        EVP_PKEY_asn1_find_str(nullptr, label.data(), static_cast<int>(label.size() - ending.size()));
    int type = EVP_PKEY_NONE;
    if (method == nullptr || EVP_PKEY_asn1_get0_info(&type, nullptr, nullptr, nullptr, nullptr, method) != 1) {
        return {};
    }
    if (std::string refusal = refusalOfPrivateKey(der, length); !refusal.empty()) {
        return refused(std::move(refusal));
    }
    return {KeyPtr(d2i_PrivateKey(type, nullptr, &der, static_cast<long>(length))), {}};
}

} // namespace

PrivateKeyReading readPrivateInfo(const PKCS8_PRIV_KEY_INFO* info) {
    return reading("EVP_PKCS82PKEY", [&] { return decode(info); });
}

PrivateKeyReading readPrivateDer(const unsigned char* der, std::size_t length, BIO* source) {
    return reading("d2i_PrivateKey_bio", [&]() -> PrivateKeyReading {
        if (std::string refusal = refusalOfPrivateKey(der, length); !refusal.empty()) {
            return refused(std::move(refusal));
        }
        if (KeyPtr key = decodeUsual(der, length)) {
            return {std::move(key), {}};
        }
        return {KeyPtr(d2i_PrivateKey_bio(source, nullptr)), {}};
    });
}

PrivateKeyReading readEncryptedDer(const unsigned char* der, std::size_t length, const PassphraseSource& passphrase) {
    return reading("d2i_PKCS8PrivateKey_bio", [&] { return decrypt(encryptedOf(der, length).get(), passphrase); });
}

bool isEncryptedDer(const unsigned char* der, std::size_t length) {
    const ErrorMark mark;
    return encryptedOf(der, length) != nullptr;
}

PrivateKeyReading readPrivatePem(BIO* in, const PassphraseSource& passphrase) {
    return reading("PEM_read_bio_PrivateKey", [&]() -> PrivateKeyReading {
        Block block;
        if (PEM_bytes_read_bio_secmem(&block.data, &block.length, &block.label, PEM_STRING_EVP_PKEY, in,
                                      passphrase.callback, passphrase.data) != 1) {
            return {};
        }
        const std::string_view label = block.label;
        const auto length = static_cast<std::size_t>(block.length);
        if (label == PEM_STRING_PKCS8) {
            return decrypt(encryptedOf(block.data, length).get(), passphrase);
        }
        if (label != PEM_STRING_PKCS8INF) {
            return decodeTraditional(label, block.data, length);
        }
        if (std::string refusal = refusalOfPrivateKey(block.data, length); !refusal.empty()) {
            return refused(std::move(refusal));
        }
        if (KeyPtr key = decodeUsual(block.data, length)) {
            return {std::move(key), {}};
        }
        const unsigned char* at = block.data;
        return decode(InfoPtr(d2i_PKCS8_PRIV_KEY_INFO(nullptr, &at, block.length)).get());
    });
}

} // namespace Norvane::Crypto::openssl
