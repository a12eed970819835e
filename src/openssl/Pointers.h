#pragma once

/// \file
/// One owning alias for every OpenSSL type that the library holds.

#include <openssl/asn1.h>
#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/pkcs12.h>
#include <openssl/pkcs7.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <memory>

namespace Norvane::Crypto::openssl {

/// Frees with the function that belongs to the type.
template <auto Free> struct Freeing {
    template <class T> void operator()(T* object) const noexcept { static_cast<void>(Free(object)); }
};
template <class T, auto Free> using Owned = std::unique_ptr<T, Freeing<Free>>;

/// Frees memory that OpenSSL allocated with OPENSSL_malloc.
struct FreeingMemory {
    void operator()(void* memory) const noexcept { OPENSSL_free(memory); }
};
template <class T> using OwnedMemory = std::unique_ptr<T, FreeingMemory>;

using BioPtr = Owned<BIO, BIO_free>;
using BioChainPtr = Owned<BIO, BIO_free_all>;
using BioMethodPtr = Owned<BIO_METHOD, BIO_meth_free>;
using BignumPtr = Owned<BIGNUM, BN_free>;
using CipherContextPtr = Owned<EVP_CIPHER_CTX, EVP_CIPHER_CTX_free>;
using DigestContextPtr = Owned<EVP_MD_CTX, EVP_MD_CTX_free>;
using KeyPtr = Owned<EVP_PKEY, EVP_PKEY_free>;
using KeyContextPtr = Owned<EVP_PKEY_CTX, EVP_PKEY_CTX_free>;
using CertificatePtr = Owned<X509, X509_free>;
using CrlPtr = Owned<X509_CRL, X509_CRL_free>;
using NamePtr = Owned<X509_NAME, X509_NAME_free>;
using Pkcs7Ptr = Owned<PKCS7, PKCS7_free>;
using Pkcs12Ptr = Owned<PKCS12_st, PKCS12_free>; // inside the library PKCS12 is a namespace
using IntegerPtr = Owned<ASN1_INTEGER, ASN1_INTEGER_free>;
using ObjectPtr = Owned<ASN1_OBJECT, ASN1_OBJECT_free>;
using OctetStringPtr = Owned<ASN1_OCTET_STRING, ASN1_OCTET_STRING_free>;
using GeneralizedTimePtr = Owned<ASN1_GENERALIZEDTIME, ASN1_GENERALIZEDTIME_free>;
using IssuingDistPointPtr = Owned<ISSUING_DIST_POINT, ISSUING_DIST_POINT_free>;

} // namespace Norvane::Crypto::openssl
