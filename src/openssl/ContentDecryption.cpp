#include "openssl/ContentDecryption.h"

#include "openssl/AlgorithmName.h"
#include "openssl/ErrorQueue.h"
#include "openssl/Pkcs7.h"

#include <openssl/err.h>
#include <openssl/objects.h>

#include <algorithm>
#include <array>

namespace Norvane::Crypto::openssl {

namespace {

constexpr std::size_t s_pieceLength = 0x4000;
/// id-rsa-kem, 1.2.840.113549.1.9.16.3.14, which OpenSSL has no number for.
constexpr std::array<unsigned char, 11> s_rsaKem{0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x09, 0x10, 0x03, 0x0E};

using CipherPtr = Owned<EVP_CIPHER, EVP_CIPHER_free>;

const X509_ALGOR* contentAlgorithm(const PKCS7* structure) noexcept {
    const PKCS7_ENVELOPE* envelope = envelopedContent(structure);
    return envelope == nullptr || envelope->enc_data == nullptr ? nullptr : envelope->enc_data->algorithm;
}

/// The cipher of an algorithm identifier: of a provider, or one that was added to OpenSSL's table. Null when there is none.
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

bool isForContent(const EVP_CIPHER* cipher) noexcept {
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

/// A context with the structure's cipher and parameters, which yet lacks the key; null when they cannot be used. OpenSSL
/// would take a missing initialisation vector for zeroes.
CipherContextPtr contextFor(const X509_ALGOR* algorithm) {
    const CipherPtr cipher = cipherOf(algorithm);
    if (cipher == nullptr || !isForContent(cipher.get()) ||
        (EVP_CIPHER_get_iv_length(cipher.get()) != 0 && algorithm->parameter == nullptr)) {
        return nullptr;
    }
    CipherContextPtr context(EVP_CIPHER_CTX_new());
    if (context == nullptr || EVP_DecryptInit_ex(context.get(), cipher.get(), nullptr, nullptr, nullptr) != 1 ||
        EVP_CIPHER_asn1_to_param(context.get(), algorithm->parameter) < 0) {
        return nullptr;
    }
    return context;
}

/// Bytes that are wiped when they go.
struct Wiped {
    explicit Wiped(std::size_t length) : bytes(length) {}
    ~Wiped() { OPENSSL_cleanse(bytes.data(), bytes.size()); }
    Wiped(const Wiped&) = delete;
    Wiped& operator=(const Wiped&) = delete;
    std::vector<unsigned char> bytes;
};

/// Decrypts in pieces. What was decrypted before a damage is written.
bool decryptInto(BIO* out, EVP_CIPHER_CTX* context, const EncryptedOctets& content) {
    Wiped clear(s_pieceLength + EVP_MAX_BLOCK_LENGTH);
    const auto pass = [&](int length) { return length == 0 || BIO_write(out, clear.bytes.data(), length) == length; };
    int count = 0;
    EncryptedOctets::Pieces pieces(content);
    for (auto octets = pieces.next(); !octets.empty(); octets = pieces.next()) {
        while (!octets.empty()) {
            const auto piece = octets.first(std::min(octets.size(), s_pieceLength));
            if (EVP_DecryptUpdate(context, clear.bytes.data(), &count, piece.data(), static_cast<int>(piece.size())) !=
                    1 ||
                !pass(count)) {
                return false;
            }
            octets = octets.subspan(piece.size());
        }
    }
    return EVP_DecryptFinal_ex(context, clear.bytes.data(), &count) == 1 && pass(count);
}

} // namespace

std::string unsupportedContentCipher(const PKCS7* structure) {
    const X509_ALGOR* algorithm = contentAlgorithm(structure);
    const CipherPtr cipher = cipherOf(algorithm);
    return cipher != nullptr && isForContent(cipher.get()) ? "" : algorithmName(algorithmIdentifier(algorithm));
}

std::string otherKeyEncryption(const PKCS7_RECIP_INFO* recipient) {
    const ASN1_OBJECT* identifier = recipient == nullptr ? nullptr : algorithmIdentifier(recipient->key_enc_algor);
    const int nid = identifier == nullptr ? NID_undef : OBJ_obj2nid(identifier);
    return nid == NID_rsaEncryption || nid == NID_rsa ? "" : algorithmName(identifier);
}

bool isOtherKeyEncryption(const PKCS7_RECIP_INFO* recipient) noexcept {
    const ASN1_OBJECT* identifier = recipient == nullptr ? nullptr : algorithmIdentifier(recipient->key_enc_algor);
    if (identifier == nullptr) {
        return false;
    }
    const unsigned char* encoded = OBJ_get0_data(identifier);
    return OBJ_obj2nid(identifier) == NID_rsaesOaep ||
           std::equal(s_rsaKem.begin(), s_rsaKem.end(), encoded, encoded + OBJ_length(identifier));
}

ContentDecryption::~ContentDecryption() {
    OPENSSL_cleanse(m_contentKey.data(), m_contentKey.size());
}

void ContentDecryption::open(const PKCS7_RECIP_INFO* recipient, EVP_PKEY* key) {
    const ErrorMark mark;
    const ASN1_OCTET_STRING* encrypted = recipient == nullptr ? nullptr : recipient->enc_key;
    const KeyContextPtr context(EVP_PKEY_CTX_new(key, nullptr));
    if (encrypted == nullptr || context == nullptr || EVP_PKEY_decrypt_init(context.get()) != 1) {
        return;
    }
    // Releases that answer a wrong padding with a random text would have it taken for a content key; those that do not
    // know the setting refuse it.
    static_cast<void>(EVP_PKEY_CTX_ctrl_str(context.get(), "rsa_pkcs1_implicit_rejection", "0"));
    const auto encryptedLength = static_cast<std::size_t>(ASN1_STRING_length(encrypted));
    const int largest = EVP_PKEY_get_size(key);
    if (largest <= 0) {
        return;
    }
    Wiped opened(static_cast<std::size_t>(largest));
    std::size_t length = opened.bytes.size();
    if (EVP_PKEY_decrypt(context.get(), opened.bytes.data(), &length, ASN1_STRING_get0_data(encrypted),
                         encryptedLength) == 1 &&
        length != 0) {
        opened.bytes.resize(length);
        m_contentKey.swap(opened.bytes);
    }
}

bool ContentDecryption::write(BIO* out) const {
    const CipherContextPtr context = contextFor(contentAlgorithm(m_structure.structure()));
    bool good = false;
    if (context != nullptr) {
        const auto expected = static_cast<std::size_t>(std::max(0, EVP_CIPHER_CTX_get_key_length(context.get())));
        Wiped random(expected);
        const bool drawn = expected != 0 && EVP_CIPHER_CTX_rand_key(context.get(), random.bytes.data()) == 1;
        const bool exact = m_contentKey.size() == expected;
        // Some senders' content keys have another length than the effective one that RC2's parameters announce.
        const bool fits =
            exact || (!m_contentKey.empty() &&
                      EVP_CIPHER_CTX_set_key_length(context.get(), static_cast<int>(m_contentKey.size())) == 1);
        const bool padded = EVP_CIPHER_CTX_get_block_size(context.get()) > 1;
        good = drawn &&
               EVP_DecryptInit_ex(context.get(), nullptr, nullptr, (fits ? m_contentKey : random.bytes).data(),
                                  nullptr) == 1 &&
               decryptInto(out, context.get(), m_structure.encryptedOctets()) && (padded || exact);
    }
    ERR_clear_error();
    return good;
}

} // namespace Norvane::Crypto::openssl
