#define OPENSSL_SUPPRESS_DEPRECATED

#include "openssl/RsaGeneration.h"

#include "openssl/ErrorQueue.h"

#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>

namespace Norvane::Crypto::openssl {

namespace {

bool isPresent(const rsa_st* rsa, const char* function) {
    if (rsa != nullptr) {
        return true;
    }
    queueError(function, ERR_LIB_RSA, ERR_R_PASSED_NULL_PARAMETER);
    return false;
}

} // namespace

void FreeingRsa::operator()(rsa_st* rsa) const noexcept {
    RSA_free(rsa);
}

RsaPtr generateRsa(unsigned int bits, unsigned int exponent) {
    return RsaPtr(RSA_generate_key(static_cast<int>(bits), exponent, nullptr, nullptr));
}

bool writeRsaPublicPem(BIO* out, rsa_st* rsa) {
    return isPresent(rsa, "PEM_write_bio_RSA_PUBKEY") && PEM_write_bio_RSA_PUBKEY(out, rsa) != 0;
}

bool writeRsaPrivatePem(BIO* out, rsa_st* rsa) {
    return isPresent(rsa, "PEM_write_bio_RSAPrivateKey") &&
           PEM_write_bio_RSAPrivateKey(out, rsa, nullptr, nullptr, 0, nullptr, nullptr) != 0;
}

} // namespace Norvane::Crypto::openssl
