#include "openssl/AttributeValues.h"

#include "openssl/Encode.h"

#include <openssl/ess.h>

#include <ctime>

namespace Norvane::Crypto::openssl {

std::vector<unsigned char> timeElement(std::int64_t seconds) {
    static constexpr std::int64_t yearZero = -62167219200;
    static constexpr std::int64_t lastSecond = 253402300799; // of the year 9999
    if (seconds < yearZero || seconds > lastSecond) {
        return {};
    }
    const Owned<ASN1_TIME, ASN1_TIME_free> time(ASN1_TIME_set(nullptr, static_cast<std::time_t>(seconds)));
    return encode<i2d_ASN1_TIME>(time.get());
}

std::vector<unsigned char> signingCertificateElement(const X509* certificate, const EVP_MD* digest) {
    const Owned<ESS_SIGNING_CERT_V2, ESS_SIGNING_CERT_V2_free> value(
        OSSL_ESS_signing_cert_v2_new_init(digest, certificate, nullptr, 1));
    return encode<i2d_ESS_SIGNING_CERT_V2>(value.get());
}

} // namespace Norvane::Crypto::openssl
