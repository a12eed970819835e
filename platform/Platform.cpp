// The RSA structure is the currency of the key generator's interface, deprecated as it is in OpenSSL 3.0.
#define OPENSSL_SUPPRESS_DEPRECATED

#include "Platform.h"
#include "Providers.h"

#include <openssl/crypto.h>
#include <openssl/objects.h>
#include <openssl/rand.h>
#include <openssl/rsa.h>
#include <openssl/ssl.h>

#include <array>
#include <vector>

extern "C" {

__attribute__((weak)) int openssl_init_with_rng() {
    return Norvane::Crypto::platform::loadProviders() && RAND_status() == 1 ? 1 : 0;
}

__attribute__((weak)) int fips_rsa_consistency_test(rsa_st* rsa) {
    if (rsa == nullptr) {
        return 0;
    }
    static constexpr std::array<unsigned char, 32> digest{0x5a, 0xa5};
    std::vector<unsigned char> signature(static_cast<std::size_t>(RSA_size(rsa)));
    unsigned int length = 0;
    const bool agrees = RSA_sign(NID_sha256, digest.data(), static_cast<unsigned int>(digest.size()), signature.data(),
                                 &length, rsa) == 1 &&
                        RSA_verify(NID_sha256, digest.data(), static_cast<unsigned int>(digest.size()),
                                   signature.data(), length, rsa) == 1;
    return agrees ? 1 : 0;
}

__attribute__((weak)) unsigned long ssl_version_options() {
    return SSL_OP_NO_SSLv2 | SSL_OP_NO_SSLv3 | SSL_OP_NO_TLSv1 | SSL_OP_NO_TLSv1_1;
}
}
