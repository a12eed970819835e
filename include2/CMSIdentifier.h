#ifndef NORVCRYPTO_CMS_IDENTIFIER_H
#define NORVCRYPTO_CMS_IDENTIFIER_H

/// \file
/// How CMS names whose key is meant: the issuer and serial number of a certificate, or a key identifier (RFC 5652,
/// 5.3 and 6.2.1).

#include <norvcmsg/Buffer.h>
#include <norvcrypto/ASN1.h>
#include <norvcrypto/Certificate.h>
#include <norvcrypto/DistinguishedName.h>
#include <norvcrypto/Export.h>

#include <memory>
#include <string>

namespace Norvane::Crypto::CMS {

/// By what a signer or recipient names its certificate. The numbers are fixed.
enum class NamedBy : int {
    issuerAndSerialNumber = 0,
    subjectKeyIdentifier = 1, ///< the octets of the certificate's extension (RFC 5280, 4.2.1.2)
};

/// The name of a certificate in a CMS structure. A value: copies share parts that never change, and may be used by several
/// threads at once, each its own. It lives on without the structure or certificate that it came from.
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

    /// Whether this names that certificate: its issuer as RFC 5280, 7.1 compares names and its serial number, or the octets
    /// of its extension. False for an empty handle.
    [[nodiscard]] bool names(const NVX509::RefCertificate& certificate) const;

    /// For people: "serial number 1f3c of CN=Alice,O=Example", the name as `NVX509::displayName` writes it, or
    /// "key identifier 0a1b2c".
    [[nodiscard]] std::string asString() const;

    /// Equal octets. Two encodings of one name (BER, or the case of letters) are not equal.
    friend bool operator==(const CertificateIdentifier& left, const CertificateIdentifier& right) noexcept {
        return left.m_namedBy == right.m_namedBy && left.m_octets == right.m_octets;
    }
    friend bool operator!=(const CertificateIdentifier& left, const CertificateIdentifier& right) noexcept {
        return !(left == right);
    }

private:
    struct Parts;

    CertificateIdentifier(NamedBy namedBy, const Buffer& octets);

    NamedBy m_namedBy;
    Buffer m_octets;
    std::shared_ptr<const Parts> m_parts; // shared by copies; none for a key identifier
    NVX509::RefDistinguishedName m_issuer;
    ASN1::RefInteger m_serialNumber;
};

} // namespace Norvane::Crypto::CMS

#endif
