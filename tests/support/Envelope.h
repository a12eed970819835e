#pragma once

/// \file
/// What the tests of encrypting and decrypting share: recipients, key stores, and enveloped structures that are made by
/// OpenSSL without this library or put together by hand.

#include "support/Cms.h"

#include <norvcrypto/CMSEncryptionMedia.h>

#include <openssl/evp.h>
#include <openssl/rsa.h>

#include <functional>
#include <optional>

namespace cmstest {

namespace der = norvauthority::der;

/// A third RSA identity beside `identities().rsa` (alice) and `identities().otherRsa` (bob).
inline const Identity& carol() {
    static const Identity made = norvauthority::issue({.subject = {{"CN", "carol"}, {"O", "Mail"}},
                                                       .key = storedKey("carol"),
                                                       .issuer = &identities().authority,
                                                       .serial = "ca401",
                                                       .keyUsage = 0x20});
    return made;
}
inline const Identity& alice() {
    return identities().rsa;
}
inline const Identity& bob() {
    return identities().otherRsa;
}

/// A plug-in over some pairs, which it finds by issuer and serial number; it keeps what it was asked for.
class Pairs : public NVX509::KeyStorePlugin {
public:
    explicit Pairs(std::vector<NVX509::KeyCertificatePair> pairs) : m_pairs(std::move(pairs)) {}
    NVX509::KeyCertificatePair find(const NVX509::DistinguishedName& issuer,
                                    const Crypto::ASN1::Integer& serial) override {
        for (const auto& pair : m_pairs) {
            const X509* certificate = pair->certificate;
            if (issuer == X509_get_issuer_name(certificate) &&
                ASN1_INTEGER_cmp(X509_get0_serialNumber(certificate), serial.object()) == 0) {
                return pair;
            }
        }
        return NVX509::KeyCertificatePair(true);
    }
    NVX509::RefCertificate findEncryptionCertificate(const Norvane::EmailAddress& /*address*/) override { return {}; }
    NVX509::KeyCertificatePair findSigningKey(const Norvane::EmailAddress& /*address*/) override {
        return NVX509::KeyCertificatePair(true);
    }
    NVX509::KeyCertificatePair findDecryptionKey(const Norvane::EmailAddress& /*address*/) override {
        return NVX509::KeyCertificatePair(true);
    }

private:
    std::vector<NVX509::KeyCertificatePair> m_pairs;
};

/// A plug-in that answers every question in one way.
class Answering : public Pairs {
public:
    explicit Answering(std::function<NVX509::KeyCertificatePair()> answer) : Pairs({}), m_answer(std::move(answer)) {}
    NVX509::KeyCertificatePair find(const NVX509::DistinguishedName& /*issuer*/,
                                    const Crypto::ASN1::Integer& /*serial*/) override {
        ++s_asked;
        return m_answer();
    }
    static inline int s_asked = 0;

private:
    std::function<NVX509::KeyCertificatePair()> m_answer;
};

inline NVX509::RefKeyStore storeOf(NVX509::KeyStorePlugin* plugin) {
    NVX509::RefKeyStore store(true);
    store->add(NVX509::RefKeyStorePlugin(plugin));
    return store;
}
inline NVX509::RefKeyStore storeOfPairs(const std::vector<NVX509::KeyCertificatePair>& pairs) {
    return storeOf(new Pairs(pairs));
}
inline NVX509::RefKeyStore storeOfKeys(const std::vector<const Identity*>& people) {
    std::vector<NVX509::KeyCertificatePair> pairs;
    for (const Identity* person : people) {
        pairs.push_back(pairOf(*person));
    }
    return storeOfPairs(pairs);
}

inline std::list<NVX509::RefCertificate> certificatesOf(const std::vector<const Identity*>& people) {
    std::list<NVX509::RefCertificate> certificates;
    for (const Identity* person : people) {
        certificates.push_back(certificateOf(*person));
    }
    return certificates;
}

/// What the library's encrypting stream makes of a body.
inline Bytes encryptedByStream(const std::vector<const Identity*>& people, const Bytes& body,
                               Crypto::Cipher cipher = Crypto::AES_256_CBC, std::size_t piece = 0) {
    Norvane::MemoryMediaOut target;
    CMS::EncrypterMediaOut encrypter(cipher, certificatesOf(people));
    encrypter.attach(target);
    writeInPieces(encrypter, body, piece);
    encrypter.end();
    ERR_clear_error(); // the entry that ending leaves
    return bytesOf(target.content());
}

/// What a decryption came to.
struct Opened {
    Bytes body;
    std::vector<std::string> failed;    ///< serial numbers in hexadecimal
    std::vector<std::string> succeeded; ///< likewise
    bool good = false;
    std::vector<unsigned int> events;
};

inline Opened openedBy(const Bytes& structure, const NVX509::RefKeyStore& keys) {
    const RecordedLog log;
    PiecewiseIn in(structure);
    Norvane::MemoryMediaOut out;
    CMS::DecrypterMediaIn decrypter(in, keys);
    EXPECT_EQ(&decrypter.write(out), &out);
    EXPECT_FALSE(out.ended());
    EXPECT_EQ(ERR_peek_error(), 0UL);
    Opened opened{bytesOf(out.content()), {}, {}, decrypter.decryptionSucceeded(), log.events()};
    for (const auto& recipient : decrypter.failed()) {
        opened.failed.push_back(recipient.serialNumber()->hex());
    }
    for (const auto& recipient : decrypter.succeeded()) {
        opened.succeeded.push_back(recipient.identifier().serialNumber()->hex());
    }
    EXPECT_EQ(opened.good, !opened.succeeded.empty());
    return opened;
}

/// An enveloped structure from OpenSSL's own call. `flags`: CMS_STREAM for indefinite lengths and content in pieces.
inline Bytes encryptedByOpenssl(const std::vector<const Identity*>& people, const Bytes& body, const EVP_CIPHER* cipher,
                                unsigned int flags = 0) {
    const X509Stack stack(sk_X509_new_null());
    std::vector<norvauthority::X509Ptr> certificates;
    for (const Identity* person : people) {
        certificates.push_back(person->certificate.x509());
        sk_X509_push(stack.get(), certificates.back().get());
    }
    flags |= CMS_BINARY;
    const Bio content(
        BIO_new_mem_buf(body.empty() ? static_cast<const void*>("") : body.data(), static_cast<int>(body.size())));
    const CmsStructure structure(CMS_encrypt(stack.get(), content.get(), cipher, flags));
    const Bio out(BIO_new(BIO_s_mem()));
    const int written = structure == nullptr ? 0
                        : (flags & CMS_STREAM) != 0
                            ? i2d_CMS_bio_stream(out.get(), structure.get(), content.get(), static_cast<int>(flags))
                            : i2d_CMS_bio(out.get(), structure.get());
    if (written != 1) {
        throw std::runtime_error("CMS_encrypt");
    }
    return contentOf(out.get());
}

/// The body, by OpenSSL's own call with one identity's key and certificate; nothing when it refuses.
inline std::optional<Bytes> openedByOpenssl(const Bytes& structure, const Identity& person) {
    const unsigned char* at = structure.data();
    const Pkcs7 decoded(d2i_PKCS7(nullptr, &at, static_cast<long>(structure.size())));
    if (decoded == nullptr || at != structure.data() + structure.size()) {
        return std::nullopt;
    }
    const Bio out(BIO_new(BIO_s_mem()));
    if (PKCS7_decrypt(decoded.get(), person.key.get(), person.certificate.x509().get(), out.get(), 0) != 1) {
        ERR_clear_error();
        return std::nullopt;
    }
    return contentOf(out.get());
}

/// A content key, encrypted for a person as PKCS#7 does it: RSA with the padding of PKCS#1 1.5.
inline Bytes wrappedFor(const Identity& person, const Bytes& contentKey) {
    const std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)> context(
        EVP_PKEY_CTX_new(person.key.get(), nullptr), EVP_PKEY_CTX_free);
    std::size_t length = 1024;
    Bytes wrapped(length);
    if (EVP_PKEY_encrypt_init(context.get()) != 1 ||
        EVP_PKEY_encrypt(context.get(), wrapped.data(), &length, contentKey.data(), contentKey.size()) != 1) {
        throw std::runtime_error("EVP_PKEY_encrypt");
    }
    wrapped.resize(length);
    return wrapped;
}

/// RecipientInfo (RFC 2315, 10.2) for whoever the issuer and the serial number (hexadecimal) name.
inline Bytes recipientInfo(const Bytes& issuer, const std::string& serial, const Bytes& wrappedKey) {
    return der::sequence({der::integer("0"), der::sequence({issuer, der::integer(serial)}),
                          der::sequence({der::oid("rsaEncryption"), der::null()}), der::octetString(wrappedKey)});
}
inline Bytes recipientInfo(const Identity& person, const Bytes& wrappedKey) {
    return recipientInfo(identities().authority.name.der(), person.serial, wrappedKey);
}

inline const Bytes& contentKey() {
    static const Bytes key(16, 0x5A);
    return key;
}
inline const Bytes& initializationVector() {
    static const Bytes vector(16, 0xA5);
    return vector;
}

/// A body under `contentKey()`, with as much of `initializationVector()` as the cipher takes.
inline Bytes encryptedContent(const Bytes& body, const EVP_CIPHER* cipher = EVP_aes_128_cbc()) {
    const std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)> context(EVP_CIPHER_CTX_new(),
                                                                                  EVP_CIPHER_CTX_free);
    Bytes out(body.size() + 16);
    int first = 0;
    int last = 0;
    EVP_EncryptInit_ex(context.get(), cipher, nullptr, contentKey().data(), initializationVector().data());
    EVP_EncryptUpdate(context.get(), out.data(), &first, body.data(), static_cast<int>(body.size()));
    EVP_EncryptFinal_ex(context.get(), out.data() + first, &last);
    out.resize(static_cast<std::size_t>(first + last));
    return out;
}

/// What may be odd about an EnvelopedData that is put together by hand.
struct EnvelopeParts {
    std::vector<Bytes> recipients;
    Bytes cipher = der::sequence({der::oid("AES-128-CBC"), der::octetString(initializationVector())});
    std::optional<Bytes> content{}; ///< the element, tag included; unset: left out
    std::string version = "0";
};
inline Bytes envelope(const EnvelopeParts& parts) {
    std::vector<Bytes> encrypted{der::oid("1.2.840.113549.1.7.1"), parts.cipher};
    if (parts.content) {
        encrypted.push_back(*parts.content);
    }
    return norvauthority::contentInfo(
        norvauthority::fromHex("2a864886f70d010703"),
        der::sequence({der::integer(parts.version), der::set(parts.recipients), der::sequence(encrypted)}));
}
inline Bytes contentElement(const Bytes& content) {
    return der::element(der::context(0), content);
}

} // namespace cmstest
