#include "openssl/KeyComparison.h"

#include "openssl/ErrorQueue.h"
#include "openssl/Pointers.h"

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

bool keyDecodesNow(const X509* certificate) {
    const ErrorMark mark;
    unsigned char* octets = nullptr;
    const int length = i2d_X509_PUBKEY(X509_get_X509_PUBKEY(certificate), &octets);
    const OwnedMemory<unsigned char> owned(octets);
    const unsigned char* at = octets;
    const bool decodes = length > 0 && KeyPtr(d2i_PUBKEY(nullptr, &at, length)) != nullptr;
    if (!decodes) {
        mark.throwWithoutMemory();
    }
    return decodes;
}

} // namespace Norvane::Crypto::openssl
