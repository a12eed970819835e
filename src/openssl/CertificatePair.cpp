#include "openssl/CertificatePair.h"

#include <openssl/asn1t.h>

namespace Norvane::Crypto::openssl {

namespace {

// CertificatePair ::= SEQUENCE { forward [0] Certificate OPTIONAL, reverse [1] Certificate OPTIONAL }, tagged explicitly
ASN1_SEQUENCE(CertificatePair) = {
    ASN1_EXP_OPT(CertificatePair, forward, X509, 0),
    ASN1_EXP_OPT(CertificatePair, reverse, X509, 1),
} static_ASN1_SEQUENCE_END(CertificatePair)

} // namespace

void freeCertificatePair(CertificatePair* pair) noexcept {
    ASN1_item_free(reinterpret_cast<ASN1_VALUE*>(pair), ASN1_ITEM_rptr(CertificatePair));
}

CertificatePair* decodeCertificatePair(CertificatePair** reused, const unsigned char** der, long length) noexcept {
    return reinterpret_cast<CertificatePair*>(
        ASN1_item_d2i(reinterpret_cast<ASN1_VALUE**>(reused), der, length, ASN1_ITEM_rptr(CertificatePair)));
}

} // namespace Norvane::Crypto::openssl
