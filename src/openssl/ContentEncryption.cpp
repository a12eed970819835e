#include "openssl/ContentEncryption.h"

#include "openssl/AlgorithmIdentifiers.h"

#include <openssl/evp.h>
#include <openssl/rand.h>

namespace Norvane::Crypto::openssl {

bool ContentEncryption::start(const ContentAlgorithm& algorithm, framing::Octets associated) {
    m_algorithm = &algorithm;
    m_context.reset(EVP_CIPHER_CTX_new());
    m_key.resize(algorithm.keyLength);
    m_vector.resize(algorithm.vectorLength);
    int count = 0;
    // The cipher makes the key itself: those of DES have parity.
    return m_context != nullptr &&
           EVP_EncryptInit_ex(m_context.get(), algorithm.cipher(), nullptr, nullptr, nullptr) == 1 &&
           EVP_CIPHER_CTX_rand_key(m_context.get(), m_key.octets().data()) == 1 &&
           RAND_bytes(m_vector.data(), static_cast<int>(m_vector.size())) == 1 &&
           EVP_EncryptInit_ex(m_context.get(), nullptr, nullptr, m_key.octets().data(), m_vector.data()) == 1 &&
           (associated.empty() || EVP_EncryptUpdate(m_context.get(), nullptr, &count, associated.data(),
                                                    static_cast<int>(associated.size())) == 1);
}

void ContentEncryption::forgetKey() noexcept {
    OPENSSL_cleanse(m_key.octets().data(), m_key.size());
    m_key.resize(0);
}

framing::Encoded ContentEncryption::identifier() const {
    const framing::Encoded vector = framing::octetStringOf(m_vector);
    if (!m_algorithm->authenticated) {
        return algorithmIdentifier(m_algorithm->nid, vector);
    }
    return algorithmIdentifier(m_algorithm->nid, framing::sequenceOf({vector, framing::integerOf(tagLength)}));
}

bool ContentEncryption::encrypt(unsigned char* out, const unsigned char* octets, std::size_t count) {
    int encrypted = 0;
    return count == 0 || EVP_EncryptUpdate(m_context.get(), out, &encrypted, octets, static_cast<int>(count)) == 1;
}

bool ContentEncryption::finish(unsigned char* octets, std::size_t& count) {
    int encrypted = 0;
    int last = 0;
    if (count != 0 && EVP_EncryptUpdate(m_context.get(), octets, &encrypted, octets, static_cast<int>(count)) != 1) {
        return false;
    }
    if (EVP_EncryptFinal_ex(m_context.get(), octets + encrypted, &last) != 1) {
        return false;
    }
    count = static_cast<std::size_t>(encrypted) + static_cast<std::size_t>(last);
    return true;
}

bool ContentEncryption::tag(std::span<unsigned char, tagLength> tag) {
    return EVP_CIPHER_CTX_ctrl(m_context.get(), EVP_CTRL_AEAD_GET_TAG, static_cast<int>(tag.size()), tag.data()) == 1;
}

} // namespace Norvane::Crypto::openssl
