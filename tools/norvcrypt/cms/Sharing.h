#pragma once

/// \file
/// What is read once and used by several threads: certificates keep what their accessors were asked for, and have all of it
/// before they are shared.

#include <norvcrypto/Certificate.h>
#include <norvcrypto/KeyStore.h>

namespace norvcrypt {

/// Of a list of certificates.
template <class Certificates> void warmAll(const Certificates& certificates) {
    for (const Norvane::Crypto::NVX509::RefCertificate& certificate : certificates)
        certificate->warm();
}

inline void warm(const Norvane::Crypto::NVX509::KeyCertificatePair& pair) {
    if (!pair->certificate.isNull())
        pair->certificate->warm();
    warmAll(pair->chain);
}

} // namespace norvcrypt
