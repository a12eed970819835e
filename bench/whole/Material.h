#pragma once

/// \file
/// What all contestants work on: one identity that lies in a folder in the forms that each of them reads, and messages made by
/// OpenSSL.

#include "../Bodies.h"

#include <norvcrypto/Certificate.h>
#include <norvcrypto/KeyStore.h>

#include <openssl/cms.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

namespace bench {

using Bytes = std::vector<unsigned char>;

template <auto Free> struct With {
    template <class Object> void operator()(Object* object) const noexcept { Free(object); }
};
using KeyPtr = std::unique_ptr<EVP_PKEY, With<EVP_PKEY_free>>;
using X509Ptr = std::unique_ptr<X509, With<X509_free>>;

/// The folder holds certificate.pem, key.pem (RSA), a GnuPG home "gnupg" and an NSS database "nss", both with the same key under
/// the name "bench".
struct Material {
    explicit Material(const std::string& folder);

    std::string folder;
    X509Ptr certificate;
    KeyPtr key;
    Bytes certificateDer;
    Bytes keyDer; ///< PKCS#8

    /// As the library holds it.
    [[nodiscard]] const Norvane::Crypto::NVX509::KeyCertificatePair& pair() const { return *m_pair; }
    [[nodiscard]] const Norvane::Crypto::NVX509::RefKeyStore& store() const { return *m_store; }

    /// SignedData over a body of a size, with signed attributes: DER, or BER in segments of 4096 bytes. `signers` and
    /// `certificates` tell how many of each.
    [[nodiscard]] Bytes signedMessage(std::size_t size, bool detached, bool streamed = false, std::size_t signers = 1,
                                      std::size_t certificates = 1) const;
    /// EnvelopedData for `recipients`, of which the last one is this identity; AES-256-CBC, or GCM (AuthEnvelopedData).
    [[nodiscard]] Bytes envelopedMessage(std::size_t size, bool streamed = false, std::size_t recipients = 1,
                                         bool authenticated = false) const;

    /// A list with a number and so many entries, in DER.
    [[nodiscard]] static Bytes revocationList(std::size_t entries);

private:
    std::unique_ptr<Norvane::Crypto::NVX509::KeyCertificatePair> m_pair;
    std::unique_ptr<Norvane::Crypto::NVX509::RefKeyStore> m_store;
};

} // namespace bench
