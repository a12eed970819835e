#pragma once

/// \file
/// What owns the objects of OpenSSL here, and keeps its error queue clean.

#include <norvcmsg/Buffer.h>

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

#include <memory>
#include <new>

namespace Norvane::Crypto::NVX509::keystore {

struct Freeing {
    void operator()(BIO* bio) const noexcept { BIO_free(bio); }
    void operator()(X509* certificate) const noexcept { X509_free(certificate); }
    void operator()(EVP_PKEY* key) const noexcept { EVP_PKEY_free(key); }
};
template <class T> using Owned = std::unique_ptr<T, Freeing>;

/// Leaves OpenSSL's error queue as it was.
class QuietQuestion {
public:
    QuietQuestion() noexcept { ERR_set_mark(); }
    ~QuietQuestion() { ERR_pop_to_mark(); }
    QuietQuestion(const QuietQuestion&) = delete;
    QuietQuestion& operator=(const QuietQuestion&) = delete;
};

/// Reads the bytes where they are, so that no copy of a key stays behind.
inline Owned<BIO> sourceOver(const Buffer& bytes) {
    Owned<BIO> source(BIO_new_mem_buf(bytes.data(), static_cast<int>(bytes.length())));
    if (!source) {
        throw std::bad_alloc();
    }
    return source;
}

} // namespace Norvane::Crypto::NVX509::keystore
