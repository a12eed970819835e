#pragma once

/// \file
/// What owns the objects of OpenSSL here, keeps its error queue clean, and asks it small questions.

#include <openssl/asn1.h>
#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <array>
#include <ctime>
#include <memory>
#include <new>
#include <optional>
#include <string>

namespace Norvane::Crypto::Trust::detail {

struct Freeing {
    void operator()(AUTHORITY_KEYID* key) const noexcept { AUTHORITY_KEYID_free(key); }
    void operator()(BIO* bio) const noexcept { BIO_free(bio); }
    void operator()(X509_OBJECT* object) const noexcept { X509_OBJECT_free(object); }
    void operator()(X509_STORE* store) const noexcept { X509_STORE_free(store); }
    void operator()(X509_STORE_CTX* context) const noexcept { X509_STORE_CTX_free(context); }
    /// The certificates belong to their handles.
    void operator()(STACK_OF(X509) * stack) const noexcept { sk_X509_free(stack); }
    void operator()(STACK_OF(X509_CRL) * stack) const noexcept { sk_X509_CRL_pop_free(stack, X509_CRL_free); }
    void operator()(CRL_DIST_POINTS* points) const noexcept { CRL_DIST_POINTS_free(points); }
    void operator()(NAME_CONSTRAINTS* constraints) const noexcept { NAME_CONSTRAINTS_free(constraints); }
    void operator()(GENERAL_NAMES* names) const noexcept { GENERAL_NAMES_free(names); }
    void operator()(ASN1_OBJECT* object) const noexcept { ASN1_OBJECT_free(object); }
    void operator()(EVP_MD* digest) const noexcept { EVP_MD_free(digest); }
    void operator()(ASN1_STRING* text) const noexcept { ASN1_STRING_free(text); }
    void operator()(CERTIFICATEPOLICIES* policies) const noexcept { CERTIFICATEPOLICIES_free(policies); }
    void operator()(POLICY_CONSTRAINTS* constraints) const noexcept { POLICY_CONSTRAINTS_free(constraints); }
    void operator()(BIGNUM* number) const noexcept { BN_free(number); }
    void operator()(unsigned char* memory) const noexcept { OPENSSL_free(memory); }
    void operator()(char* memory) const noexcept { OPENSSL_free(memory); }
};
template <class T> using Owned = std::unique_ptr<T, Freeing>;

/// What OpenSSL made, or std::bad_alloc.
template <class T> Owned<T> made(T* object) {
    if (object == nullptr) {
        throw std::bad_alloc();
    }
    return Owned<T>(object);
}

/// Leaves OpenSSL's error queue as it was.
class QuietQuestion {
public:
    QuietQuestion() noexcept : m_onlyOurs(ERR_peek_error() == 0) { ERR_set_mark(); }
    ~QuietQuestion() { ERR_pop_to_mark(); }
    QuietQuestion(const QuietQuestion&) = delete;
    QuietQuestion& operator=(const QuietQuestion&) = delete;

    /// To be asked once OpenSSL said no: whether it did for lack of memory, which says nothing of what was looked at. Takes
    /// the entries out of the queue.
    [[nodiscard]] bool ranOutOfMemory() const noexcept;
    /// \throws std::bad_alloc where that is so
    void throwWithoutMemory() const {
        if (ranOutOfMemory()) {
            throw std::bad_alloc();
        }
    }

private:
    bool m_onlyOurs; ///< nothing was in the queue before; otherwise only its last entry can be looked at
};

using Fingerprint = std::array<unsigned char, 32>; ///< SHA-256 of an encoding

Fingerprint fingerprintOf(const X509* certificate);
Fingerprint fingerprintOf(const X509_CRL* list);
Fingerprint fingerprintOf(const std::string& bytes);

/// The distribution points of a certificate; null when it has none that decode.
Owned<CRL_DIST_POINTS> distributionPointsOf(const X509* certificate);

/// Seconds since 1970; nothing for a time that cannot be read.
std::optional<std::time_t> secondsOf(const ASN1_TIME* time);

/// "2026-01-02 03:04:05 UTC".
std::string dateOf(std::time_t seconds);

/// The dotted form of an identifier, or its name where OpenSSL has one.
std::string textOf(const ASN1_OBJECT* object);

} // namespace Norvane::Crypto::Trust::detail
