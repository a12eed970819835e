// How a structure names a certificate.
#include "failures/Raise.h"
#include "framing/Elements.h"
#include "openssl/ErrorQueue.h"
#include "openssl/Pkcs7.h"

#include <norvcrypto/CMSIdentifier.h>

#include <array>
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

Buffer issuerAndSerialNumberOf(const X509* certificate) {
    std::array<openssl::OwnedMemory<unsigned char>, 2> memory;
    const auto take = [](openssl::OwnedMemory<unsigned char>& into, unsigned char* encoded, int length) {
        into.reset(encoded);
        return framing::Octets(encoded, length < 0 ? 0 : static_cast<std::size_t>(length));
    };
    unsigned char* encoded = nullptr;
    int length = i2d_X509_NAME(X509_get_issuer_name(certificate), &encoded);
    const framing::Octets issuer = take(memory[0], encoded, length);
    encoded = nullptr;
    length = i2d_ASN1_INTEGER(X509_get0_serialNumber(certificate), &encoded);
    const framing::Octets serial = take(memory[1], encoded, length);
    const std::array<framing::Octets, 2> parts{issuer, serial};
    if (issuer.empty() || serial.empty()) {
        failures::raiseWithErrors(failures::certificateIdentifier);
    }
    return bufferOf(framing::constructed(framing::TagClass::universal, framing::sequence, parts));
}

openssl::OctetStringPtr keyIdentifierOf(const X509* certificate) {
    const openssl::ErrorMark mark;
    return openssl::OctetStringPtr(
        static_cast<ASN1_OCTET_STRING*>(X509_get_ext_d2i(certificate, NID_subject_key_identifier, nullptr, nullptr)));
}

framing::Octets octetsOf(const ASN1_OCTET_STRING* string) noexcept {
    return {ASN1_STRING_get0_data(string), static_cast<std::size_t>(ASN1_STRING_length(string))};
}

Buffer octetsNaming(const NVX509::RefCertificate& certificate, NamedBy namedBy) {
    const X509* x509 = certificate;
    if (x509 == nullptr) {
        failures::raise(failures::certificateIdentifier, "there is no certificate");
    }
    if (namedBy == NamedBy::issuerAndSerialNumber) {
        return issuerAndSerialNumberOf(x509);
    }
    const openssl::OctetStringPtr identifier = keyIdentifierOf(x509);
    if (identifier == nullptr) {
        failures::raise(failures::certificateIdentifier, "the certificate has no subject key identifier");
    }
    return bufferOf(octetsOf(identifier.get()));
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
    const openssl::OctetStringPtr identifier = keyIdentifierOf(x509);
    return identifier != nullptr && m_octets == bufferOf(octetsOf(identifier.get()));
}

std::string CertificateIdentifier::asString() const {
    if (m_parts == nullptr) {
        return "key identifier " + inHex(m_octets);
    }
    const std::string serial = m_serialNumber.isNull() ? "(negative)" : m_serialNumber->hex();
    return "serial number " + serial + " of " + NVX509::displayName(*m_issuer);
}

} // namespace Norvane::Crypto::CMS
