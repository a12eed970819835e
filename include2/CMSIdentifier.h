#pragma once

/// \file
/// How CMS names whose key is meant: the issuer and serial number of a certificate, or a key identifier (RFC 5652,
/// 5.3 and 6.2.1).

#include <norvcmsg/Buffer.h>
#include <norvcrypto/ASN1.h>
#include <norvcrypto/Certificate.h>
#include <norvcrypto/DistinguishedName.h>
#include <norvcrypto/Export.h>

#include <string>

namespace Norvane::Crypto::CMS {

/// By what a signer or recipient names its certificate. The numbers are fixed.
enum class NamedBy : int {
    issuerAndSerialNumber = 0,
    subjectKeyIdentifier = 1, ///< the octets of the certificate's extension (RFC 5280, 4.2.1.2)
};

/// The name of a certificate in a CMS structure. A value that owns its parts; copies are independent. Comparing takes
/// time in proportion to the octets.
class NORVCRYPTO_EXPORT CertificateIdentifier {
public:
    /// Names a certificate. \throws Exception "CMS::CertificateIdentifier::CertificateIdentifier", code 4, file
    /// CMSIdentifier, with the reason as detail: the handle is empty, or the certificate has no subject key identifier and
    /// is to be named by it
    CertificateIdentifier(const NVX509::RefCertificate& certificate, NamedBy namedBy);

    /// The name that is the DER or BER of an IssuerAndSerialNumber, which is kept as it is.
    /// \throws Exception as above: the octets are no such name
    static CertificateIdentifier fromIssuerAndSerialNumber(const Buffer& encoded);
    /// The name that is the octets of a key identifier (without their header).
    static CertificateIdentifier fromSubjectKeyIdentifier(const Buffer& octets);

    [[nodiscard]] NamedBy namedBy() const noexcept { return m_namedBy; }
    /// The encoded IssuerAndSerialNumber, or the octets of the key identifier.
    [[nodiscard]] const Buffer& octets() const noexcept { return m_octets; }
    /// The issuer; a null handle for a key identifier.
    [[nodiscard]] const NVX509::RefDistinguishedName& issuer() const noexcept { return m_issuer; }
    /// The serial number; a null handle for a key identifier, and for a negative number, which `ASN1::Integer` does not hold.
    [[nodiscard]] const ASN1::RefInteger& serialNumber() const noexcept { return m_serialNumber; }

    /// Whether this names that certificate: issuer and serial number as RFC 5280, 7.1 compares them, or the octets of its
    /// extension. False for an empty handle.
    [[nodiscard]] bool names(const NVX509::RefCertificate& certificate) const;

    /// For people: "CN=Alice, O=Example, serial number 1234", or "key identifier 0A:1B:2C". Control characters do not
    /// show; see `NVX509::displayName`.
    [[nodiscard]] std::string asString() const;

    friend bool operator==(const CertificateIdentifier& left, const CertificateIdentifier& right) noexcept {
        return left.m_namedBy == right.m_namedBy && left.m_octets == right.m_octets;
    }
    friend bool operator!=(const CertificateIdentifier& left, const CertificateIdentifier& right) noexcept {
        return !(left == right);
    }

private:
    CertificateIdentifier(NamedBy namedBy, const Buffer& octets);

    NamedBy m_namedBy;
    Buffer m_octets;
    NVX509::RefDistinguishedName m_issuer;
    ASN1::RefInteger m_serialNumber;
};

} // namespace Norvane::Crypto::CMS
