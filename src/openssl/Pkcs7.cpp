#include "openssl/Pkcs7.h"

#include "openssl/Decode.h"

#include <openssl/asn1t.h>
#include <openssl/objects.h>

namespace Norvane::Crypto::openssl {

namespace {

int typeOf(const PKCS7* structure) noexcept {
    return structure == nullptr || structure->type == nullptr ? NID_undef : OBJ_obj2nid(structure->type);
}

/// True for the types whose content the structure's union holds decoded.
bool isPkcs7Type(int nid) noexcept {
    switch (nid) {
    case NID_pkcs7_data:
    case NID_pkcs7_signed:
    case NID_pkcs7_enveloped:
    case NID_pkcs7_signedAndEnveloped:
    case NID_pkcs7_digest:
    case NID_pkcs7_encrypted:
        return true;
    default:
        return false;
    }
}

} // namespace

Pkcs7Ptr decodePkcs7(BIO* source) noexcept {
    return decodeFrom<Pkcs7Ptr, d2i_PKCS7_bio>(source, "d2i_PKCS7_bio");
}

PKCS7_SIGNED* signedContent(const PKCS7* structure) noexcept {
    return typeOf(structure) == NID_pkcs7_signed ? structure->d.sign : nullptr;
}

PKCS7_ENVELOPE* envelopedContent(const PKCS7* structure) noexcept {
    return typeOf(structure) == NID_pkcs7_enveloped ? structure->d.enveloped : nullptr;
}

const ASN1_OCTET_STRING* dataOctets(const PKCS7* structure) noexcept {
    const int nid = typeOf(structure);
    if (nid == NID_pkcs7_data) {
        return structure->d.data;
    }
    if (structure == nullptr || isPkcs7Type(nid)) {
        return nullptr;
    }
    const ASN1_TYPE* other = structure->d.other;
    return other != nullptr && other->type == V_ASN1_OCTET_STRING ? other->value.octet_string : nullptr;
}

const ASN1_OBJECT* algorithmIdentifier(const X509_ALGOR* algorithm) noexcept {
    return algorithm == nullptr ? nullptr : algorithm->algorithm;
}

int digestNid(const PKCS7_SIGNER_INFO* signer) noexcept {
    const ASN1_OBJECT* identifier = signer == nullptr ? nullptr : algorithmIdentifier(signer->digest_alg);
    return identifier == nullptr ? NID_undef : OBJ_obj2nid(identifier);
}

bool hasSignedAttributes(const PKCS7_SIGNER_INFO* signer) noexcept {
    return signer != nullptr && sk_X509_ATTRIBUTE_num(signer->auth_attr) > 0;
}

const ASN1_OCTET_STRING* messageDigest(const PKCS7_SIGNER_INFO* signer) noexcept {
    const int index = X509at_get_attr_by_NID(signer->auth_attr, NID_pkcs9_messageDigest, -1);
    if (index < 0) {
        return nullptr;
    }
    const ASN1_TYPE* value = X509_ATTRIBUTE_get0_type(X509at_get_attr(signer->auth_attr, index), 0);
    return value != nullptr && value->type == V_ASN1_OCTET_STRING ? value->value.octet_string : nullptr;
}

OwnedMemory<unsigned char> encodeSignedAttributes(const PKCS7_SIGNER_INFO* signer, int& length) noexcept {
    unsigned char* encoded = nullptr;
    const int written = ASN1_item_i2d(reinterpret_cast<const ASN1_VALUE*>(signer->auth_attr), &encoded,
                                      ASN1_ITEM_rptr(PKCS7_ATTR_VERIFY));
    length = encoded == nullptr || written < 0 ? 0 : written;
    return OwnedMemory<unsigned char>(encoded);
}

} // namespace Norvane::Crypto::openssl
