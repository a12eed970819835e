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

} // namespace Norvane::Crypto::openssl
