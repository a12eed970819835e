#include "openssl/KeyComparison.h"

#include "openssl/ErrorQueue.h"

namespace Norvane::Crypto::openssl {

bool isOfType(const EVP_PKEY* key, const char* name) noexcept {
    const ErrorMark mark;
    bool answer = false;
    for (int turn = 0; turn < 2 && !answer; ++turn) {
        answer = EVP_PKEY_is_a(key, name) == 1;
    }
    return answer;
}

bool keyMatchesCertificate(const X509* certificate, const EVP_PKEY* key) {
    const ErrorMark mark;
    if (certificate == nullptr || key == nullptr) {
        return false;
    }
    if (X509_check_private_key(certificate, key) == 1) {
        return true;
    }
    mark.throwWithoutMemory();
    return X509_check_private_key(certificate, key) == 1;
}

} // namespace Norvane::Crypto::openssl
