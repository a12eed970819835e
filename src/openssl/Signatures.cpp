#include "openssl/Signatures.h"

#include "openssl/ErrorQueue.h"

#include <openssl/err.h>

namespace Norvane::Crypto::openssl {

bool signFinal(EVP_MD_CTX* context, unsigned char* signature, unsigned int& length, EVP_PKEY* key) {
    if (key == nullptr) {
        queueError("EVP_SignFinal", ERR_LIB_EVP, ERR_R_PASSED_NULL_PARAMETER);
        return false;
    }
    return EVP_SignFinal(context, signature, &length, key) != 0;
}

int verifyFinal(EVP_MD_CTX* context, const unsigned char* signature, unsigned int length, EVP_PKEY* key) {
    if (key == nullptr) {
        queueError("EVP_VerifyFinal", ERR_LIB_EVP, ERR_R_PASSED_NULL_PARAMETER);
        return -1;
    }
    ERR_set_mark();
    const int result = EVP_VerifyFinal(context, signature, length, key);
    if (result < 0) {
        ERR_clear_last_mark();
    } else {
        ERR_pop_to_mark();
    }
    return result;
}

Verified verifyDigest(const unsigned char* digest, const EVP_MD* algorithm, const ASN1_OCTET_STRING* signature,
                      EVP_PKEY* key) {
    const ErrorMark mark;
    const KeyContextPtr context(EVP_PKEY_CTX_new(key, nullptr));
    if (context == nullptr || EVP_PKEY_verify_init(context.get()) != 1 ||
        EVP_PKEY_CTX_set_signature_md(context.get(), algorithm) != 1) {
        return Verified::impossible;
    }
    if (signature == nullptr) {
        return Verified::wrong;
    }
    const int result = EVP_PKEY_verify(context.get(), ASN1_STRING_get0_data(signature),
                                       static_cast<std::size_t>(ASN1_STRING_length(signature)), digest,
                                       static_cast<std::size_t>(EVP_MD_get_size(algorithm)));
    return result == 1 ? Verified::good : Verified::wrong;
}

} // namespace Norvane::Crypto::openssl
