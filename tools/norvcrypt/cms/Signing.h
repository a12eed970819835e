#pragma once

/// \file
/// Signing a body, in the form that every reader of PKCS#7 knows or in today's forms.

#include "files/Body.h"

#include <norvcrypto/Hasher.h>
#include <norvcrypto/KeyStore.h>

#include <optional>
#include <string>
#include <vector>

namespace norvcrypt {

/// What a signature is to be like. As it stands: detached, over the body itself, RSA keys with PKCS#1 1.5, named by
/// issuer and serial number.
struct SignatureForm {
    /// Unset: SHA-256, or what the key demands (Ed25519, Ed448).
    std::optional<Norvane::Crypto::Hasher::Type> digest{};
    bool attached = false;         ///< with the body in the structure
    bool signedAttributes = false; ///< always so with keys on Edwards curves
    bool pss = false;              ///< of RSA keys
    bool keyIdentifier = false;    ///< names signers by it

    /// Whether that is what PKCS#7 has. Such structures have one signer, with a key for RSA with PKCS#1 1.5, DSA or ECDSA.
    [[nodiscard]] bool isPkcs7(const std::vector<Norvane::Crypto::NVX509::KeyCertificatePair>& signers) const;
};

/// Writes the structure to `target` and ends that: DER, or BER where DER would have to wait for the end of the body (attached
/// bodies of unknown length, or signed with ECDSA). Messages call the body `name`.
/// \throws Failure: it cannot be signed so; or it is itself a set of attributes, and a signature over it would be one over
///         another body that has them
void sign(Body& body, const std::string& name, const std::vector<Norvane::Crypto::NVX509::KeyCertificatePair>& signers,
          const SignatureForm& form, Norvane::MediaOut& target);

} // namespace norvcrypt
