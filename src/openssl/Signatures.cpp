#include "openssl/Signatures.h"

#include "openssl/ErrorQueue.h"
#include "openssl/KeyComparison.h"

#include <openssl/err.h>
#include <openssl/evp.h>

#include <array>
#include <memory>
#include <new>
#include <utility>

namespace Norvane::Crypto::openssl {

bool isLengthOfSignature(EVP_PKEY* key, std::size_t length) noexcept {
    return length != 0 && std::cmp_less_equal(length, EVP_PKEY_get_size(key));
}

bool isRsa(EVP_PKEY* key) noexcept {
    return isOfType(key, "RSA") || isOfType(key, "RSA-PSS");
}

void renewBlinding(EVP_PKEY* key) noexcept {
    static constexpr int uses = 33; // one more than there are between two blindings
    static constexpr std::array<unsigned char, 32> digest{};
    if (!isRsa(key)) {
        return;
    }
    const ErrorMark mark;
    // Without memory the next caller finds the blinding as it is, and comes here again.
    std::unique_ptr<unsigned char[]> signature(
        new (std::nothrow) unsigned char[static_cast<std::size_t>(EVP_PKEY_get_size(key))]);
    for (int use = 0; use < uses && signature != nullptr; ++use) {
        const KeyContextPtr signing(EVP_PKEY_CTX_new(key, nullptr));
        const KeyContextPtr checking(EVP_PKEY_CTX_new(key, nullptr));
        auto length = static_cast<std::size_t>(EVP_PKEY_get_size(key));
        if (signing != nullptr && checking != nullptr && EVP_PKEY_sign_init(signing.get()) == 1 &&
            EVP_PKEY_verify_init(checking.get()) == 1 &&
            EVP_PKEY_sign(signing.get(), signature.get(), &length, digest.data(), digest.size()) == 1 &&
            EVP_PKEY_verify(checking.get(), signature.get(), length, digest.data(), digest.size()) == 1) {
            return;
        }
    }
}

bool isSound(EVP_MD_CTX* context, const unsigned char* signature, std::size_t length, EVP_PKEY* key) noexcept {
    const ErrorMark mark;
    if (isLengthOfSignature(key, length) &&
        (!isRsa(key) || verifyFinal(context, signature, static_cast<unsigned int>(length), key) == 1)) {
        return true;
    }
    renewBlinding(key);
    return false;
}

bool signFinal(EVP_MD_CTX* context, unsigned char* signature, unsigned int& length, EVP_PKEY* key) {
    if (key == nullptr) {
        queueError("EVP_SignFinal", ERR_LIB_EVP, ERR_R_PASSED_NULL_PARAMETER);
        return false;
    }
    // Twice, since a wrong signature renews what made it wrong.
    for (int turn = 0; turn < 2; ++turn) {
        if (EVP_SignFinal(context, signature, &length, key) == 0) {
            return false;
        }
        if (isSound(context, signature, length, key)) {
            return true;
        }
    }
    queueError("EVP_SignFinal", ERR_LIB_EVP, ERR_R_INTERNAL_ERROR);
    return false;
}

int verifyFinal(EVP_MD_CTX* context, const unsigned char* signature, unsigned int length, EVP_PKEY* key) noexcept {
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
