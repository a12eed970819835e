#include "openssl/DefaultCiphers.h"

#include "openssl/ErrorQueue.h"
#include "openssl/Pointers.h"

#include <openssl/objects.h>
#include <openssl/provider.h>

#include <atomic>
#include <cstring>

namespace Norvane::Crypto::openssl {

namespace {

/// One cipher, which is kept as long as the process lives: OpenSSL counts who uses it.
class Kept {
public:
    const EVP_CIPHER* of(const EVP_CIPHER* constant) noexcept {
        if (const EVP_CIPHER* kept = m_cipher.load(std::memory_order_acquire)) {
            return kept;
        }
        const ErrorMark quiet;
        Owned<EVP_CIPHER, EVP_CIPHER_free> found(EVP_CIPHER_fetch(nullptr, EVP_CIPHER_get0_name(constant), nullptr));
        if (found == nullptr || !isOfDefaultProvider(EVP_CIPHER_get0_provider(found.get()))) {
            return constant;
        }
        const EVP_CIPHER* other = nullptr;
        if (m_cipher.compare_exchange_strong(other, found.get(), std::memory_order_acq_rel)) {
            return found.release();
        }
        return other; // another thread was first
    }

private:
    std::atomic<const EVP_CIPHER*> m_cipher = nullptr;
};

} // namespace

bool mayKeepImplementations() noexcept {
    // Without an argument the current context is answered, and not changed.
    return OSSL_LIB_CTX_set0_default(nullptr) == OSSL_LIB_CTX_get0_global_default() &&
           EVP_default_properties_is_fips_enabled(nullptr) == 0;
}

bool isOfDefaultProvider(const OSSL_PROVIDER* provider) noexcept {
    return std::strcmp(OSSL_PROVIDER_get0_name(provider), "default") == 0;
}

const EVP_CIPHER* implementationOf(const EVP_CIPHER* constant) noexcept {
    static Kept tripleDes;
    static Kept aes128;
    static Kept aes192;
    static Kept aes256;
    Kept* kept = nullptr;
    switch (EVP_CIPHER_get_nid(constant)) {
    case NID_des_ede3_cbc:
        kept = &tripleDes;
        break;
    case NID_aes_128_cbc:
        kept = &aes128;
        break;
    case NID_aes_192_cbc:
        kept = &aes192;
        break;
    case NID_aes_256_cbc:
        kept = &aes256;
        break;
    default:
        return constant;
    }
    return mayKeepImplementations() ? kept->of(constant) : constant;
}

} // namespace Norvane::Crypto::openssl
