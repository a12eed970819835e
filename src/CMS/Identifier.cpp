// How a structure names a certificate.
#include "failures/Raise.h"
#include "framing/Elements.h"
#include "openssl/CertificateNames.h"
#include "openssl/ErrorQueue.h"
#include "openssl/Pkcs7.h"

#include <norvcrypto/CMSIdentifier.h>

#include <limits>
#include <string_view>
#include <utility>

namespace Norvane::Crypto::CMS {

namespace {

using IssuerAndSerialPtr = openssl::Owned<PKCS7_ISSUER_AND_SERIAL, PKCS7_ISSUER_AND_SERIAL_free>;

framing::Octets octetsOf(const Buffer& buffer) noexcept {
    return {buffer.data(), buffer.length()};
}

Buffer bufferOf(framing::Octets octets) {
    return {octets.data(), static_cast<unsigned int>(octets.size()), false};
}

Buffer octetsNaming(const NVX509::RefCertificate& certificate, NamedBy namedBy) {
    const X509* x509 = certificate;
    if (x509 == nullptr) {
        failures::raise(failures::certificateIdentifier, "there is no certificate");
    }
    if (namedBy == NamedBy::issuerAndSerialNumber) {
        const framing::Encoded name = openssl::issuerAndSerialNumber(x509);
        if (name.empty()) {
            failures::raiseWithErrors(failures::certificateIdentifier);
        }
        return bufferOf(name);
    }
    const framing::Encoded identifier = openssl::subjectKeyIdentifier(x509);
    if (identifier.empty()) {
        failures::raise(failures::certificateIdentifier, "the certificate has no subject key identifier");
    }
    return bufferOf(identifier);
}

std::string inHex(const Buffer& octets) {
    constexpr std::string_view digits = "0123456789abcdef";
    std::string text;
    for (const unsigned char octet : octetsOf(octets)) {
        text += digits[octet >> 4U];
        text += digits[octet & 0xFU];
    }
    return text;
}

/// A negative number is none that a value of ours holds.
ASN1::RefInteger serialNumberOf(const PKCS7_ISSUER_AND_SERIAL& name) {
    return ASN1_STRING_type(name.serial) == V_ASN1_NEG_INTEGER ? ASN1::RefInteger()
                                                               : ASN1::RefInteger(ASN1::Integer(name.serial));
}

} // namespace

/// A decoded IssuerAndSerialNumber, and its issuer as a value that borrows from it.
struct CertificateIdentifier::Parts {
    explicit Parts(IssuerAndSerialPtr decoded) : name(std::move(decoded)), issuer(name->issuer) {}

    IssuerAndSerialPtr name;
    NVX509::DistinguishedName issuer;
};

CertificateIdentifier::CertificateIdentifier(NamedBy namedBy, const Buffer& octets)
    : m_namedBy(namedBy),
      m_octets(octets) {
    if (namedBy != NamedBy::issuerAndSerialNumber) {
        return;
    }
    const openssl::ErrorMark mark;
    const unsigned char* at = m_octets.data();
    if (m_octets.length() > static_cast<unsigned int>(std::numeric_limits<int>::max())) {
        failures::raise(failures::certificateIdentifier, "no issuer and serial number");
    }
    IssuerAndSerialPtr name(d2i_PKCS7_ISSUER_AND_SERIAL(nullptr, &at, static_cast<long>(m_octets.length())));
    if (name == nullptr) {
        mark.throwWithoutMemory();
    }
    if (name == nullptr || at != std::as_const(m_octets).data() + m_octets.length()) {
        failures::raise(failures::certificateIdentifier, "no issuer and serial number");
    }
    m_serialNumber = serialNumberOf(*name);
    const auto parts = std::make_shared<Parts>(std::move(name));
    m_parts = parts;
    static_cast<boost::shared_ptr<NVX509::DistinguishedName>&>(m_issuer) =
        boost::shared_ptr<NVX509::DistinguishedName>(&parts->issuer, [parts](NVX509::DistinguishedName*) {});
}

CertificateIdentifier::CertificateIdentifier(const NVX509::RefCertificate& certificate, NamedBy namedBy)
    : CertificateIdentifier(namedBy, octetsNaming(certificate, namedBy)) {}

CertificateIdentifier CertificateIdentifier::fromIssuerAndSerialNumber(const Buffer& encoded) {
    return {NamedBy::issuerAndSerialNumber, encoded};
}

CertificateIdentifier CertificateIdentifier::fromSubjectKeyIdentifier(const Buffer& octets) {
    return {NamedBy::subjectKeyIdentifier, octets};
}

bool CertificateIdentifier::names(const NVX509::RefCertificate& certificate) const {
    const X509* x509 = certificate;
    if (x509 == nullptr) {
        return false;
    }
    if (m_parts != nullptr) {
        return openssl::namesCertificate(m_parts->name.get(), x509);
    }
    const framing::Encoded identifier = openssl::subjectKeyIdentifier(x509);
    return !identifier.empty() && m_octets == bufferOf(identifier);
}

std::string CertificateIdentifier::asString() const {
    if (m_parts == nullptr) {
        return "key identifier " + inHex(m_octets);
    }
    const std::string serial = m_serialNumber.isNull() ? "(negative)" : m_serialNumber->hex();
    return "serial number " + serial + " of " + NVX509::displayName(*m_issuer);
}

} // namespace Norvane::Crypto::CMS
