#pragma once

/// \file
/// The recipient for whom the corpus of enveloped structures is encrypted, and a key store with that key for whoever is
/// named.

#include "differential/StoredKey.h"

#include <norvcrypto/Certificate.h>
#include <norvcrypto/KeyStore.h>

#include <authority/Authority.h>

namespace fuzz {

inline norvauthority::Identity envelopeIdentity() {
    return norvauthority::issue({.subject = {{"CN", "Bob"}}, .key = storedKey("bob"), .serial = "b0b"});
}

/// Answers every question with one pair.
class OneKey : public Norvane::Crypto::NVX509::KeyStorePlugin {
public:
    Norvane::Crypto::NVX509::KeyCertificatePair find(const Norvane::Crypto::NVX509::DistinguishedName& /*issuer*/,
                                                     const Norvane::Crypto::ASN1::Integer& /*serial*/) override {
        return m_pair;
    }
    Norvane::Crypto::NVX509::RefCertificate findEncryptionCertificate(
        const Norvane::EmailAddress& /*address*/) override {
        return {};
    }
    Norvane::Crypto::NVX509::KeyCertificatePair findSigningKey(const Norvane::EmailAddress& /*address*/) override {
        return m_pair;
    }
    Norvane::Crypto::NVX509::KeyCertificatePair findDecryptionKey(const Norvane::EmailAddress& /*address*/) override {
        return m_pair;
    }

private:
    static Norvane::Crypto::NVX509::KeyCertificatePair pair() {
        const norvauthority::Identity identity = envelopeIdentity();
        return {Norvane::Crypto::RefKey(new Norvane::Crypto::PrivateKey(identity.key.newReference())),
                Norvane::Crypto::NVX509::CertificateFactory()(identity.certificate.x509().release(), true)};
    }
    Norvane::Crypto::NVX509::KeyCertificatePair m_pair = pair();
};

/// Has a certificate for everybody, too: that of the pair.
class Everybody : public OneKey {
public:
    Norvane::Crypto::NVX509::RefCertificate findEncryptionCertificate(const Norvane::EmailAddress& address) override {
        return findSigningKey(address)->certificate;
    }
};

/// A store that answers every question with that pair.
inline Norvane::Crypto::NVX509::RefKeyStore envelopeStore() {
    Norvane::Crypto::NVX509::RefKeyStore store(true);
    store->add(Norvane::Crypto::NVX509::RefKeyStorePlugin(new OneKey));
    return store;
}

/// Likewise, and with its certificate.
inline const Norvane::Crypto::NVX509::RefKeyStore& everybody() {
    static const Norvane::Crypto::NVX509::RefKeyStore store = [] {
        Norvane::Crypto::NVX509::RefKeyStore made(true);
        made->add(Norvane::Crypto::NVX509::RefKeyStorePlugin(new Everybody));
        return made;
    }();
    return store;
}

} // namespace fuzz
