#include <norvcrypto/ASN1.h>

#include "ASN1/Support.h"
#include "openssl/Decode.h"
#include "openssl/ObjectText.h"

#include <openssl/objects.h>

#include <algorithm>
#include <cstdint>

namespace Norvane::Crypto {

void detail::Asn1ObjectTraits::free(asn1_object_st* object) noexcept {
    ASN1_OBJECT_free(object);
}

asn1_object_st* detail::Asn1ObjectTraits::duplicate(const asn1_object_st* object) {
    const openssl::ErrorMark mark;
    return OBJ_dup(object);
}

namespace ASN1 {

namespace {

void appendNumber(std::string& text, std::uint32_t number) {
    if (!text.empty()) {
        text += '.';
    }
    text += std::to_string(number);
}

} // namespace

std::string dottedText(const unsigned char* octets, std::size_t length) {
    std::string text;
    std::uint32_t number = 0;
    bool inside = false;
    for (std::size_t i = 0; i < length; ++i) {
        number = number * 128 + (octets[i] & 0x7FU);
        inside = (octets[i] & 0x80U) != 0;
        if (inside) {
            continue;
        }
        if (text.empty()) {
            const bool wide = number >= 80;
            appendNumber(text, wide ? 2 : number / 40);
            number = wide ? number - 80 : number % 40;
        }
        appendNumber(text, number);
        number = 0;
    }
    return inside ? std::string() : text;
}

ObjectIdentifier::ObjectIdentifier() = default;

ObjectIdentifier::ObjectIdentifier(const asn1_object_st* object) : m_object(detail::Asn1Object::borrow(object)) {}

ObjectIdentifier::ObjectIdentifier(const std::string& text)
    : m_text(text),
      m_object(detail::Asn1Object::adopt(openssl::identifierFromText(text))) {}

ObjectIdentifier::ObjectIdentifier(const unsigned char* der, unsigned int length)
    : m_object(detail::Asn1Object::adopt(openssl::decode<d2i_ASN1_OBJECT>(der, length))) {}

ObjectIdentifier::ObjectIdentifier(const ObjectIdentifier& other) = default;
ObjectIdentifier& ObjectIdentifier::operator=(const ObjectIdentifier& other) = default;
ObjectIdentifier::~ObjectIdentifier() = default;

const std::string& ObjectIdentifier::asString() const {
    if (m_text.empty() && m_object) {
        m_text = dottedText(OBJ_get0_data(m_object.get()), OBJ_length(m_object.get()));
    }
    return m_text;
}

bool ObjectIdentifier::operator==(const ObjectIdentifier& other) const {
    if (!m_object || !other.m_object) {
        return false;
    }
    const unsigned char* mine = OBJ_get0_data(m_object.get());
    const unsigned char* theirs = OBJ_get0_data(other.m_object.get());
    return std::equal(mine, mine + OBJ_length(m_object.get()), theirs, theirs + OBJ_length(other.m_object.get()));
}

_ObjectIdentifier::_ObjectIdentifier(const std::string& text) : ObjectIdentifier(text) {}
_ObjectIdentifier::_ObjectIdentifier(const unsigned char* der, unsigned int length) : ObjectIdentifier(der, length) {}
_ObjectIdentifier::~_ObjectIdentifier() = default;

RefObjectIdentifier::RefObjectIdentifier() = default;
RefObjectIdentifier::RefObjectIdentifier(const asn1_object_st* object)
    : Ref(object == nullptr ? nullptr : makeReference<_ObjectIdentifier>(object)) {}
RefObjectIdentifier::RefObjectIdentifier(const std::string& text) : Ref(makeReference<_ObjectIdentifier>(text)) {}
RefObjectIdentifier::RefObjectIdentifier(const unsigned char* der, unsigned int length)
    : Ref(makeReference<_ObjectIdentifier>(der, length)) {}
RefObjectIdentifier::RefObjectIdentifier(const RefObjectIdentifier& other) = default;
RefObjectIdentifier& RefObjectIdentifier::operator=(const RefObjectIdentifier& other) = default;
RefObjectIdentifier::~RefObjectIdentifier() = default;

RefObjectIdentifier RefObjectIdentifier::clone() const {
    return RefObjectIdentifier((*this)->asString());
}

bool RefObjectIdentifier::operator==(const RefObjectIdentifier& other) const {
    return sameValue(bodyOrNull(), other.bodyOrNull());
}

} // namespace ASN1

} // namespace Norvane::Crypto

template class Norvane::RefCounted<Norvane::Crypto::ASN1::_ObjectIdentifier>;
template class Norvane::Ref<Norvane::Crypto::ASN1::_ObjectIdentifier>;
