#include "openssl/Pkcs7.h"

#include "framing/Elements.h"
#include "openssl/Decode.h"
#include "openssl/Encode.h"

#include <openssl/asn1t.h>
#include <openssl/objects.h>

#include <climits>

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

/// The elements that end where `der` ends, from the outermost to the primitive one; empty when there is none such.
std::vector<framing::Element> lastElements(framing::Octets der) {
    std::vector<framing::Element> elements;
    framing::Elements level(der);
    while (const auto element = level.next()) {
        if (!level.atEnd()) {
            continue;
        }
        elements.push_back(*element);
        if (!element->header.constructed) {
            return elements;
        }
        level = framing::Elements(*element);
    }
    return {};
}

} // namespace

Pkcs7Ptr decodePkcs7(BIO* source) noexcept {
    return decodeAcceptedFrom<Pkcs7Ptr, d2i_PKCS7>(source, "d2i_PKCS7_bio");
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
    return encodeItem(signer->auth_attr, ASN1_ITEM_rptr(PKCS7_ATTR_VERIFY), length);
}

std::vector<unsigned char> encodeHead(const PKCS7* structure, std::size_t contentLength) {
    unsigned char* encoded = nullptr;
    const int encodedLength = i2d_PKCS7(structure, &encoded);
    const OwnedMemory<unsigned char> owner(encoded);
    if (encodedLength <= 0) {
        return {};
    }
    const auto elements = lastElements({encoded, static_cast<std::size_t>(encodedLength)});
    // Lengths from the innermost element outwards: each encloses what follows its header, the next element included.
    std::vector<std::size_t> lengths(elements.size());
    std::size_t length = contentLength;
    for (std::size_t i = elements.size(); i-- != 0 && length <= INT_MAX;) {
        if (i + 1 != elements.size()) {
            length += static_cast<std::size_t>(elements[i + 1].whole.data() - elements[i].content.data());
        }
        lengths[i] = length;
        length += framing::headerSize(elements[i].header.tag, length);
    }
    if (elements.empty() || length > INT_MAX) { // more than OpenSSL counts
        queueError("i2d_PKCS7", ERR_LIB_ASN1, ASN1_R_TOO_LONG);
        return {};
    }
    std::vector<unsigned char> head;
    head.reserve(length - contentLength);
    for (std::size_t i = 0; i != elements.size(); ++i) {
        const auto& [header, whole, content] = elements[i];
        framing::appendHeader(head, header.tagClass, header.constructed, header.tag, lengths[i]);
        if (i + 1 != elements.size()) {
            head.insert(head.end(), content.data(), elements[i + 1].whole.data());
        }
    }
    return head;
}

const ASN1_OCTET_STRING* encryptedContent(const PKCS7* structure) noexcept {
    const PKCS7_ENVELOPE* envelope = envelopedContent(structure);
    return envelope == nullptr || envelope->enc_data == nullptr ? nullptr : envelope->enc_data->enc_data;
}

bool namesCertificate(const PKCS7_ISSUER_AND_SERIAL* name, const X509* certificate) noexcept {
    return certificate != nullptr && name != nullptr &&
           X509_NAME_cmp(X509_get_issuer_name(certificate), name->issuer) == 0 &&
           ASN1_INTEGER_cmp(X509_get0_serialNumber(certificate), name->serial) == 0;
}

bool namesRecipient(const X509* certificate, const PKCS7_RECIP_INFO* recipient) noexcept {
    return recipient != nullptr && namesCertificate(recipient->issuer_and_serial, certificate);
}

bool haveOneName(const PKCS7_RECIP_INFO* left, const PKCS7_RECIP_INFO* right) noexcept {
    const PKCS7_ISSUER_AND_SERIAL* leftName = left == nullptr ? nullptr : left->issuer_and_serial;
    const PKCS7_ISSUER_AND_SERIAL* rightName = right == nullptr ? nullptr : right->issuer_and_serial;
    return leftName != nullptr && rightName != nullptr && ASN1_INTEGER_cmp(leftName->serial, rightName->serial) == 0 &&
           X509_NAME_cmp(leftName->issuer, rightName->issuer) == 0;
}

} // namespace Norvane::Crypto::openssl
