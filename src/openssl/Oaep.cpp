#include "openssl/Oaep.h"

#include <openssl/rsa.h>

namespace Norvane::Crypto::openssl {

bool setOaep(EVP_PKEY_CTX* context, const Oaep& oaep) {
    if (EVP_PKEY_CTX_set_rsa_padding(context, RSA_PKCS1_OAEP_PADDING) <= 0 ||
        EVP_PKEY_CTX_set_rsa_oaep_md(context, oaep.digest) <= 0 ||
        EVP_PKEY_CTX_set_rsa_mgf1_md(context, oaep.maskDigest) <= 0) {
        return false;
    }
    if (oaep.label.empty()) {
        return true;
    }
    OwnedMemory<void> label(OPENSSL_memdup(oaep.label.data(), oaep.label.size()));
    if (label == nullptr ||
        EVP_PKEY_CTX_set0_rsa_oaep_label(context, label.get(), static_cast<int>(oaep.label.size())) <= 0) {
        return false;
    }
    static_cast<void>(label.release()); // the context's from now on
    return true;
}

} // namespace Norvane::Crypto::openssl
