#pragma once

/// \file
/// Owning pointers for what the tool asks OpenSSL directly, where the public surface of the library has no answer:
///
/// | where                  | what is asked, and why                                                                     |
/// |------------------------|--------------------------------------------------------------------------------------------|
/// | CertificateDetails     | numbers, times and names as they stand in a structure, also those that the library refuses |
/// |                        | (negative serial numbers, improper times): whoever inspects them wants to see just these   |
/// | GeneralNames           | names of every kind beside the subject's                                                    |
/// | PemEncoder             | base64 in lines, piece by piece: the library has PEM of whole objects                      |
/// | Reasons                | OpenSSL's errors in the text form of the library, for calls that the tool makes itself     |
/// | ../recognise/DerAndPem | the blocks of PEM texts of any kind, and where one object in DER ends and another begins     |
/// | ../recognise/DigestNames | OpenSSL's names of digests; the library takes their numbers                              |
/// | HexDigits              | bytes from hexadecimal digits                                                              |
/// | ../show/Description    | the parts of structures that nothing but a display needs, and why an object is malformed   |
/// | ../write/PrivateKeyFile | keys in clear or under AES; the library writes them encrypted with triple DES only        |
/// | ../commands/Cipher     | bytes from hexadecimal digits, wiped where they were in between                            |
/// | ../demo/Message        | base64                                                                                     |
/// | ../tls, ../commands/Tls... | versions, ciphers, alerts and verify results of a connection; files of trusted            |
/// |                        | certificates and lists as OpenSSL finds them                                               |

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

struct FreeingMemory {
    void operator()(void* memory) const noexcept { OPENSSL_free(memory); }
};

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
