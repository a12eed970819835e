#include "openssl/KeyCoding.h"

#include "openssl/Decode.h"
#include "openssl/ErrorQueue.h"

#include <openssl/err.h>
#include <openssl/pem.h>

namespace Norvane::Crypto::openssl {

namespace {

/// Whether OpenSSL, which measures a passphrase with strlen, will take all of it.
bool isWhole(const std::string& passphrase) {
    if (passphrase.find('\0') == std::string::npos) {
        return true;
    }
    queueError("PEM_def_callback", ERR_LIB_PEM, PEM_R_BAD_PASSWORD_READ);
    return false;
}

/// The user data of OpenSSL's own passphrase callback: null makes it prompt.
void* userData(const std::string& passphrase) {
    return passphrase.empty() ? nullptr : const_cast<char*>(passphrase.c_str());
}

bool isPresent(const EVP_PKEY* key, const char* function) {
    if (key != nullptr) {
        return true;
    }
    queueError(function, ERR_LIB_EVP, ERR_R_PASSED_NULL_PARAMETER);
    return false;
}

} // namespace

KeyPtr readPublicPem(BIO* in, const std::string& passphrase) {
    return KeyPtr(isWhole(passphrase) ? PEM_read_bio_PUBKEY(in, nullptr, nullptr, userData(passphrase)) : nullptr);
}

KeyPtr readPublicDer(BIO* in) noexcept {
    return decodeAcceptedFrom<KeyPtr, d2i_PUBKEY>(in, "d2i_PUBKEY_bio");
}

PrivateKeyReading readPrivatePem(BIO* in, const std::string& passphrase) {
    return isWhole(passphrase) ? readPrivatePem(in, PassphraseSource{nullptr, userData(passphrase)})
                               : PrivateKeyReading();
}

bool writePublicPem(BIO* out, EVP_PKEY* key) {
    return isPresent(key, "PEM_write_bio_PUBKEY") && PEM_write_bio_PUBKEY(out, key) != 0;
}

bool writePrivatePem(BIO* out, EVP_PKEY* key, const std::string& passphrase) {
    if (!isPresent(key, "PEM_write_bio_PrivateKey") || !isWhole(passphrase)) {
        return false;
    }
    // An explicit text of length 0 is an empty password; a null text without user data would prompt.
    static constexpr unsigned char emptyPassword[] = "";
    const unsigned char* text = passphrase.empty() ? emptyPassword : nullptr;
    return PEM_write_bio_PrivateKey(out, key, EVP_des_ede3_cbc(), text, 0, nullptr, userData(passphrase)) != 0;
}

bool writePublicDer(BIO* out, EVP_PKEY* key) {
    return isPresent(key, "i2d_PUBKEY_bio") && i2d_PUBKEY_bio(out, key) != 0;
}

bool writePrivateDer(BIO* out, EVP_PKEY* key) {
    return isPresent(key, "i2d_PrivateKey_bio") && i2d_PrivateKey_bio(out, key) != 0;
}

} // namespace Norvane::Crypto::openssl
