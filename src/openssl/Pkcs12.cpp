#include "openssl/Pkcs12.h"

#include "openssl/Decode.h"

#include <openssl/err.h>
#include <openssl/pkcs12.h>

#include <limits>

namespace Norvane::Crypto::openssl {

Pkcs12Ptr decodePkcs12(BIO* source) noexcept {
    return decodeFrom<Pkcs12Ptr, d2i_PKCS12_bio>(source, "d2i_PKCS12_bio");
}

bool verifyPassword(PKCS12_st* structure, const std::string& password) noexcept {
    // OpenSSL takes the length as an int, and a negative one as "measure the text".
    if (password.length() > static_cast<std::size_t>(std::numeric_limits<int>::max())) {
        queueError("PKCS12_verify_mac", ERR_LIB_PKCS12, ERR_R_PASSED_INVALID_ARGUMENT);
        return false;
    }
    return queueingOnlyFailure(
        [&] { return PKCS12_verify_mac(structure, password.c_str(), static_cast<int>(password.length())) == 1; });
}

bool parsePkcs12(PKCS12_st* structure, const std::string& password, Identity& found) noexcept {
    EVP_PKEY* key = nullptr;
    X509* certificate = nullptr;
    const bool parsed = queueingOnlyFailure(
        [&] { return PKCS12_parse(structure, password.c_str(), &key, &certificate, nullptr) == 1; });
    found.key.reset(key);
    found.certificate.reset(certificate);
    return parsed;
}

} // namespace Norvane::Crypto::openssl
