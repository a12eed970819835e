#pragma once

/// \file
/// The authority that certifies the people of the tests of mail, and those people as the library has them.

#include "support/Keys.h"
#include "support/Places.h"
#include "support/Streams.h"

#include <authority/Authority.h>
#include <norvcrypto/Certificate.h>
#include <norvcrypto/KeyStore.h>

namespace norvtest {

inline const norvauthority::Identity& mailAuthority() {
    static const norvauthority::Identity made =
        norvauthority::issue({.subject = {{"CN", "Mail CA"}, {"O", "Example"}},
                              .key = norvauthority::Key::fromPem(storedKeyPem("authority")),
                              .ca = true,
                              .keyUsage = 0x06});
    return made;
}

inline Norvane::Crypto::NVX509::RefCertificate certificateOf(const norvauthority::Identity& identity) {
    return Norvane::Crypto::NVX509::CertificateFactory().readDER(bufferOf(identity.certificate.der));
}
inline Norvane::Crypto::NVX509::KeyCertificatePair pairOf(const norvauthority::Identity& identity) {
    return {privateKeyOf(identity.key), certificateOf(identity)};
}

} // namespace norvtest
