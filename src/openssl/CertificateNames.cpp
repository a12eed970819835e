#include "openssl/CertificateNames.h"

#include "openssl/ErrorQueue.h"
#include "openssl/Pointers.h"

#include <openssl/x509v3.h>

namespace Norvane::Crypto::openssl {

framing::Encoded issuerAndSerialNumber(const X509* certificate) {
    const unsigned char* issuer = nullptr;
    std::size_t issuerLength = 0;
    unsigned char* serial = nullptr;
    if (X509_NAME_get0_der(X509_get_issuer_name(certificate), &issuer, &issuerLength) != 1) {
        return {};
    }
    const int serialLength = i2d_ASN1_INTEGER(X509_get0_serialNumber(certificate), &serial);
    const OwnedMemory<unsigned char> owner(serial);
    if (serialLength <= 0) {
        return {};
    }
    return framing::sequenceOf(
        {framing::Octets(issuer, issuerLength), framing::Octets(serial, static_cast<std::size_t>(serialLength))});
}

framing::Encoded subjectKeyIdentifier(const X509* certificate) {
    const ErrorMark mark;
    const OctetStringPtr identifier(
        static_cast<ASN1_OCTET_STRING*>(X509_get_ext_d2i(certificate, NID_subject_key_identifier, nullptr, nullptr)));
    if (identifier == nullptr) {
        return {};
    }
    const unsigned char* octets = ASN1_STRING_get0_data(identifier.get());
    return {octets, octets + ASN1_STRING_length(identifier.get())};
}

} // namespace Norvane::Crypto::openssl
