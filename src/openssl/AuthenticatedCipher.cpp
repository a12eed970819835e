#include "openssl/AuthenticatedCipher.h"

#include "framing/Elements.h"
#include "openssl/AlgorithmName.h"
#include "openssl/ErrorQueue.h"
#include "openssl/Pkcs7.h"

#include <openssl/objects.h>

#include <algorithm>
#include <array>

namespace Norvane::Crypto::openssl {

namespace {

constexpr std::size_t usualNonce = 12;
constexpr std::size_t longestNonce = 128; // OpenSSL's bound
constexpr std::size_t shortestTag = 12;
constexpr std::size_t longestTag = 16;

/// 1.2.840.113549.1.9.16.3.18 (RFC 8103, 4), which OpenSSL has no number for.
constexpr std::array<unsigned char, 11> chaChaPoly{0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x09, 0x10, 0x03, 0x12};

bool isChaChaPoly(const ASN1_OBJECT* identifier) noexcept {
    const std::span<const unsigned char> octets(OBJ_get0_data(identifier), OBJ_length(identifier));
    return std::equal(octets.begin(), octets.end(), chaChaPoly.begin(), chaChaPoly.end());
}

CipherPtr authenticatedCipherOf(const X509_ALGOR* algorithm) {
    const ASN1_OBJECT* identifier = algorithmIdentifier(algorithm);
    if (identifier == nullptr) {
        return nullptr;
    }
    const ErrorMark mark;
    switch (OBJ_obj2nid(identifier)) {
    case NID_aes_128_gcm:
    case NID_aes_192_gcm:
    case NID_aes_256_gcm:
        return cipherOf(algorithm);
    default:
        return isChaChaPoly(identifier) ? CipherPtr(EVP_CIPHER_fetch(nullptr, "ChaCha20-Poly1305", nullptr)) : nullptr;
    }
}

/// What GCMParameters say (RFC 5084, 3.2).
bool readGcmParameters(const X509_ALGOR& algorithm, std::vector<unsigned char>& nonce, std::size_t& tagLength) {
    if (algorithm.parameter == nullptr || algorithm.parameter->type != V_ASN1_SEQUENCE) {
        return false;
    }
    const ASN1_STRING* encoded = algorithm.parameter->value.sequence;
    const auto sequence =
        framing::firstElement({ASN1_STRING_get0_data(encoded), static_cast<std::size_t>(ASN1_STRING_length(encoded))});
    if (!sequence) {
        return false;
    }
    framing::Elements parts(*sequence);
    const auto octets = parts.nextUniversal(framing::octetString);
    if (!octets || octets->header.constructed || octets->content.empty()) {
        return false;
    }
    nonce.assign(octets->content.begin(), octets->content.end());
    tagLength = shortestTag;
    if (const auto number = parts.nextUniversal(framing::integer)) {
        if (number->header.constructed || number->content.size() != 1) {
            return false;
        }
        tagLength = number->content.front();
    }
    return parts.atEnd() && tagLength >= shortestTag && tagLength <= longestTag;
}

bool readNonce(const X509_ALGOR& algorithm, std::vector<unsigned char>& nonce) {
    if (algorithm.parameter == nullptr || algorithm.parameter->type != V_ASN1_OCTET_STRING) {
        return false;
    }
    const ASN1_STRING* octets = algorithm.parameter->value.octet_string;
    nonce.assign(ASN1_STRING_get0_data(octets), ASN1_STRING_get0_data(octets) + ASN1_STRING_length(octets));
    return nonce.size() == usualNonce;
}

/// The counter mode that GCM decrypts with.
CipherPtr counterMode(std::size_t keyLength) {
    const std::string name = "AES-" + std::to_string(8 * keyLength) + "-CTR";
    return CipherPtr(EVP_CIPHER_fetch(nullptr, name.c_str(), nullptr));
}

} // namespace

std::string unsupportedAuthenticatedCipher(const X509_ALGOR* algorithm) {
    const CipherPtr cipher = authenticatedCipherOf(algorithm);
    std::vector<unsigned char> nonce;
    std::size_t tagLength = 0;
    if (cipher == nullptr) {
        return algorithmName(algorithmIdentifier(algorithm));
    }
    if (EVP_CIPHER_get_mode(cipher.get()) == EVP_CIPH_GCM_MODE && readGcmParameters(*algorithm, nonce, tagLength) &&
        nonce.size() > longestNonce) {
        return algorithmName(algorithm->algorithm) + " with a nonce of " + std::to_string(nonce.size()) + " octets";
    }
    return {};
}

bool AuthenticatedCipher::isGcm() const noexcept {
    return EVP_CIPHER_get_mode(m_cipher.get()) == EVP_CIPH_GCM_MODE;
}

std::optional<AuthenticatedCipher> AuthenticatedCipher::of(const X509_ALGOR& algorithm) {
    AuthenticatedCipher cipher;
    cipher.m_cipher = authenticatedCipherOf(&algorithm);
    cipher.m_tagLength = longestTag;
    const bool sound = cipher.m_cipher != nullptr &&
                       (cipher.isGcm() ? readGcmParameters(algorithm, cipher.m_nonce, cipher.m_tagLength) &&
                                             cipher.m_nonce.size() <= longestNonce
                                       : readNonce(algorithm, cipher.m_nonce));
    return sound ? std::optional(std::move(cipher)) : std::nullopt;
}

CipherContextPtr AuthenticatedCipher::keyless() const {
    CipherContextPtr context(EVP_CIPHER_CTX_new());
    const bool made =
        context != nullptr && EVP_DecryptInit_ex(context.get(), m_cipher.get(), nullptr, nullptr, nullptr) == 1 &&
        EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_AEAD_SET_IVLEN, static_cast<int>(m_nonce.size()), nullptr) == 1;
    return made ? std::move(context) : nullptr;
}

bool AuthenticatedCipher::start(const WipedBytes& contentKey) {
    const ErrorMark mark;
    CipherContextPtr context = keyless();
    if (context == nullptr) { // once more, since OpenSSL does not always tell that there was no memory
        context = keyless();
    }
    WipedBytes key(static_cast<std::size_t>(EVP_CIPHER_get_key_length(m_cipher.get())));
    if (context == nullptr || EVP_CIPHER_CTX_rand_key(context.get(), key.data()) != 1) {
        mark.throwWithoutMemory();
        return false;
    }
    if (contentKey.size() == key.size()) {
        std::copy_n(contentKey.data(), key.size(), key.data());
    }
    m_key = std::move(key);
    return true;
}

CipherContextPtr AuthenticatedCipher::verifying(std::span<const unsigned char> associated) const {
    const ErrorMark mark;
    CipherContextPtr context = keyless();
    int count = 0;
    const bool made = context != nullptr &&
                      EVP_DecryptInit_ex(context.get(), nullptr, nullptr, m_key.data(), m_nonce.data()) == 1 &&
                      (associated.empty() || EVP_DecryptUpdate(context.get(), nullptr, &count, associated.data(),
                                                               static_cast<int>(associated.size())) == 1);
    return made ? std::move(context) : nullptr;
}

bool AuthenticatedCipher::isRight(EVP_CIPHER_CTX* context, std::span<const unsigned char> tag) const {
    const ErrorMark mark;
    std::array<unsigned char, longestTag> expected{};
    std::array<unsigned char, EVP_MAX_BLOCK_LENGTH> none{};
    int count = 0;
    if (tag.size() != m_tagLength) {
        return false;
    }
    std::copy(tag.begin(), tag.end(), expected.begin());
    return EVP_CIPHER_CTX_ctrl(context, EVP_CTRL_AEAD_SET_TAG, static_cast<int>(tag.size()), expected.data()) == 1 &&
           EVP_DecryptFinal_ex(context, none.data(), &count) == 1;
}

std::optional<GcmCheck> AuthenticatedCipher::check() const {
    return isGcm() ? std::optional<GcmCheck>(std::in_place, m_cipher.get(), m_key.octets(), m_nonce) : std::nullopt;
}

CipherContextPtr AuthenticatedCipher::verified() const {
    if (!isGcm() || m_nonce.size() != usualNonce) {
        return verifying({});
    }
    // Counter mode alone takes less than half the time. Block 1 is the tag's (NIST SP 800-38D, 7.1).
    const ErrorMark mark;
    std::array<unsigned char, 16> counter{};
    std::copy(m_nonce.begin(), m_nonce.end(), counter.begin());
    counter.back() = 2;
    const CipherPtr cipher = counterMode(m_key.size());
    CipherContextPtr context(EVP_CIPHER_CTX_new());
    const bool made = cipher != nullptr && context != nullptr &&
                      EVP_DecryptInit_ex(context.get(), cipher.get(), nullptr, m_key.data(), counter.data()) == 1;
    return made ? std::move(context) : nullptr;
}

} // namespace Norvane::Crypto::openssl
