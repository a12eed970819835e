#pragma once

// PKCS#12 structures for tests, made by OpenSSL.

#include "support/X509Testing.h"

#include <norvcrypto/BIO.h>
#include <norvcrypto/PKCS12.h>

#include <authority/Authority.h>

#include <openssl/pkcs12.h>

#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace norvtest {

/// What a structure shall hold.
struct Pkcs12Request {
    const norvauthority::Identity* key = nullptr;         ///< whose private key; null: none
    const norvauthority::Identity* certificate = nullptr; ///< null: none
    std::vector<const norvauthority::Identity*> chain{};
    std::string password = "secret";
    int keyCipher = 0;         ///< NID; 0 for OpenSSL's choice (AES-256-CBC under PBES2), -1 for none
    int certificateCipher = 0; ///< likewise
    int iterations = 1;
    bool mac = true;
    std::optional<std::string> macPassword{}; ///< all of its bytes count; `password` when unset
    bool macUnderNullPassword = false;        ///< no password at all, which is not the empty one
    bool allUnderNullPassword = false;        ///< likewise, contents and MAC
    int macIterations = 1;
};

namespace detail {
struct FreeingPkcs12 {
    void operator()(PKCS12_st* structure) const noexcept { PKCS12_free(structure); }
};
inline norvauthority::Bytes encoded(PKCS12_st& structure) {
    unsigned char* bytes = nullptr;
    const int length = i2d_PKCS12(&structure, &bytes);
    norvauthority::Bytes der(bytes, bytes + length);
    OPENSSL_free(bytes);
    return der;
}
} // namespace detail

/// `der` with a MAC of our own making: what an attacker who knows the password sends.
inline norvauthority::Bytes withMac(const norvauthority::Bytes& der, const std::string& password) {
    const unsigned char* at = der.data();
    const std::unique_ptr<PKCS12_st, detail::FreeingPkcs12> structure(
        d2i_PKCS12(nullptr, &at, static_cast<long>(der.size())));
    if (!structure || PKCS12_set_mac(structure.get(), password.data(), static_cast<int>(password.size()), nullptr, 0, 1,
                                     nullptr) != 1) {
        ERR_clear_error();
        return {};
    }
    return detail::encoded(*structure);
}

inline norvauthority::Bytes pkcs12(const Pkcs12Request& request) {
    std::vector<norvauthority::X509Ptr> kept;
    STACK_OF(X509)* chain = sk_X509_new_null();
    for (const auto* identity : request.chain) {
        kept.push_back(identity->certificate.x509());
        sk_X509_push(chain, kept.back().get());
    }
    const norvauthority::X509Ptr certificate =
        request.certificate == nullptr ? nullptr : request.certificate->certificate.x509();
    const std::unique_ptr<PKCS12_st, detail::FreeingPkcs12> structure(
        PKCS12_create(request.allUnderNullPassword ? nullptr : request.password.c_str(), nullptr,
                      request.key == nullptr ? nullptr : request.key->key.get(), certificate.get(), chain,
                      request.keyCipher, request.certificateCipher, request.iterations, -1, 0));
    sk_X509_free(chain);
    if (!structure) {
        throw std::runtime_error("PKCS12_create");
    }
    if (request.mac || request.macUnderNullPassword) {
        const bool underNull = request.macUnderNullPassword || request.allUnderNullPassword;
        const std::string password = request.macPassword.value_or(request.password);
        if (PKCS12_set_mac(structure.get(), underNull ? nullptr : password.data(),
                           underNull ? 0 : static_cast<int>(password.size()), nullptr, 0, request.macIterations,
                           nullptr) != 1) {
            throw std::runtime_error("PKCS12_set_mac");
        }
    }
    return detail::encoded(*structure);
}

/// A store over bytes.
inline std::unique_ptr<Norvane::Crypto::PKCS12::Store> storeOf(const norvauthority::Bytes& der) {
    Norvane::Crypto::MemoryBIO source(x509testing::buffer(der));
    return std::make_unique<Norvane::Crypto::PKCS12::Store>(source);
}

/// The certificate of the latest successful `read`, owned: what callers do so that it is freed. Once for each read.
inline Norvane::Crypto::NVX509::RefCertificate owned(const Norvane::Crypto::PKCS12::Store& store) {
    return store.certificate().isNull() ? Norvane::Crypto::NVX509::RefCertificate()
                                        : Norvane::Crypto::NVX509::CertificateFactory()(store.certificate(), true);
}

} // namespace norvtest
