#include "openssl/CmsNames.h"
#include "openssl/CertificateDetails.h"
#include "openssl/OpenSsl.h"

#include <norvcrypto/DistinguishedName.h>

#include <openssl/pkcs7.h>

namespace norvcrypt {

using Norvane::Crypto::CMS::CertificateIdentifier;
using Norvane::Crypto::CMS::NamedBy;

std::string hexText(const Norvane::Buffer& octets) {
    static constexpr char digits[] = "0123456789abcdef";
    std::string text;
    for (unsigned int at = 0; at < octets.length(); ++at)
        text.append({digits[octets.data()[at] >> 4U], digits[octets.data()[at] & 15U]});
    return text;
}

std::string serialNumberOf(const CertificateIdentifier& name) {
    if (name.namedBy() != NamedBy::issuerAndSerialNumber)
        return {};
    // The library's number is never negative, and those of others are.
    const QuietQuestion quiet;
    const unsigned char* at = name.octets().data();
    const Owned<PKCS7_ISSUER_AND_SERIAL, PKCS7_ISSUER_AND_SERIAL_free> decoded(
        d2i_PKCS7_ISSUER_AND_SERIAL(nullptr, &at, static_cast<long>(name.octets().length())));
    return decoded ? hexNumber(decoded->serial) : std::string();
}

std::string nameOf(const CertificateIdentifier& name) {
    if (name.namedBy() == NamedBy::subjectKeyIdentifier)
        return "key identifier " + hexText(name.octets());
    return "issuer " + displayName(*name.issuer()) + " serial number " + serialNumberOf(name);
}

} // namespace norvcrypt
