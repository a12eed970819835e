#pragma once

/// \file
/// Owning pointers for what the tool asks OpenSSL directly.

#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <memory>

namespace norvcrypt {

template <auto Free> struct Freeing {
    template <class T> void operator()(T* object) const noexcept { static_cast<void>(Free(object)); }
};
template <class T, auto Free> using Owned = std::unique_ptr<T, Freeing<Free>>;

using BioPtr = Owned<BIO, BIO_free>;
using BignumPtr = Owned<BIGNUM, BN_free>;
using KeyPtr = Owned<EVP_PKEY, EVP_PKEY_free>;
using NamesPtr = Owned<GENERAL_NAMES, GENERAL_NAMES_free>;
using PointsPtr = Owned<CRL_DIST_POINTS, CRL_DIST_POINTS_free>;
using IntegerPtr = Owned<ASN1_INTEGER, ASN1_INTEGER_free>;
using CertificatePtr = Owned<X509, X509_free>;
using ListPtr = Owned<X509_CRL, X509_CRL_free>;

/// Drops what OpenSSL queues while it lives: a question that may be answered with "no" leaves no trace.
class QuietQuestion {
public:
    QuietQuestion() noexcept { ERR_set_mark(); }
    ~QuietQuestion() { ERR_pop_to_mark(); }
    QuietQuestion(const QuietQuestion&) = delete;
    QuietQuestion& operator=(const QuietQuestion&) = delete;
};

} // namespace norvcrypt
