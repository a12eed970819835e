#pragma once

/// \file
/// The pair of cross-certificates, X509_CERT_PAIR in the old interface, which the installed one has no longer.

#include "openssl/Pointers.h"

namespace Norvane::Crypto::openssl {

/// Two certificates, each of which may be null. They belong to the pair.
struct CertificatePair {
    X509* forward;
    X509* reverse;
};

void freeCertificatePair(CertificatePair* pair) noexcept;

using CertificatePairPtr = Owned<CertificatePair, freeCertificatePair>;

/// Decodes as the `d2i_` functions do.
CertificatePair* decodeCertificatePair(CertificatePair** reused, const unsigned char** der, long length) noexcept;

} // namespace Norvane::Crypto::openssl
