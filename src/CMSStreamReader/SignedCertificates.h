#pragma once

/// \file
/// The certificates of a message, which are not decoded before somebody needs them.

#include "CMSStreamReader/SignedParts.h"
#include "openssl/Pointers.h"

#include <norvcrypto/Certificate.h>

#include <vector>

namespace Norvane::Crypto::CMS {

/// The certificates that a signer names.
struct NamedCertificates {
    std::vector<NVX509::RefCertificate> certificates; ///< `maximumTries` at most, each once
    bool hasMore = false;
    std::optional<SignatureResult> fault; ///< of one that cannot be used
};

class SignedCertificates {
public:
    /// \param certificates the elements of a CertificateSet (RFC 5652, 10.2.3)
    explicit SignedCertificates(framing::Octets certificates) noexcept : m_octets(certificates) {}

    /// Whether there are more than are looked at.
    [[nodiscard]] bool areTooMany();
    /// Compares names and key identifiers in place, and decodes what fits.
    NamedCertificates namedBy(const SignerParts& signer);
    /// All X.509 certificates among them that decode; `areTooMany` is asked first.
    std::list<NVX509::RefCertificate> all();

private:
    struct Entry {
        framing::Octets whole;
        framing::Octets issuer;
        framing::Octets serialNumber;
        framing::Octets keyIdentifier;
        openssl::NamePtr issuerName;
        bool issuerDecoded = false;
        NVX509::RefCertificate certificate;
        bool decoded = false;
        bool isCopy = false; ///< of another one
    };

    void list();
    void findKeyIdentifiers();
    static bool isIssuer(Entry& entry, const SignerParts& signer, std::optional<openssl::NamePtr>& issuer);
    static const NVX509::RefCertificate& decode(Entry& entry);

    framing::Octets m_octets;
    std::vector<Entry> m_entries;
    bool m_listed = false;
    bool m_tooMany = false;
    bool m_identifiersFound = false;
};

} // namespace Norvane::Crypto::CMS
