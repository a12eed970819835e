#include <norvcrypto/ASN1.h>

#include "ASN1/Support.h"
#include "failures/Raise.h"
#include "openssl/Decode.h"

#include <algorithm>

namespace Norvane::Crypto::ASN1 {

using detail::Asn1Kind;
using Object = detail::Asn1String<Asn1Kind::integer>;

Integer::Integer() = default;

Integer::Integer(const asn1_string_st* integer) : m_object(Object::borrow(integer)) {
    takeContent();
}

Integer::Integer(const unsigned char* der, unsigned int length)
    : m_object(Object::adopt(openssl::decode<d2i_ASN1_INTEGER>(der, length))) {
    takeContent();
}

Integer::Integer(const Integer& other) = default;
Integer& Integer::operator=(const Integer& other) = default;
Integer::~Integer() = default;

void Integer::takeContent() {
    if (!m_object) {
        return;
    }
    if (ASN1_STRING_type(m_object.get()) != V_ASN1_INTEGER) {
        failures::raise(failures::integerType, "Parameter value is not an ASN1 Integer");
    }
    m_content = openssl::integerContent(m_object.get());
}

Buffer Integer::encoded() const {
    return m_object ? openssl::encodeInteger(m_object.get()) : Buffer();
}

int Integer::asInt() const {
    if (!m_object) {
        failures::raise(failures::integerNull, "Encoding value is Null");
    }
    if (!m_valueKnown) {
        const openssl::ErrorMark mark;
        m_value = static_cast<int>(ASN1_INTEGER_get(m_object.get()));
        m_valueKnown = true;
    }
    return m_value;
}

std::string Integer::hex() const {
    if (!m_object) {
        return {};
    }
    return hexText(ASN1_STRING_get0_data(m_object.get()), ASN1_STRING_length(m_object.get()));
}

bool Integer::operator==(const Integer& other) const {
    return m_object && other.m_object && m_content == other.m_content;
}

bool Integer::operator<(const Integer& other) const {
    if (!m_object || !other.m_object) {
        return !m_object && other.m_object;
    }
    if (m_content.length() < other.m_content.length()) {
        return true;
    }
    if (m_content.length() > sizeof(std::int32_t)) {
        return ASN1_INTEGER_cmp(m_object.get(), other.m_object.get()) < 0;
    }
    return asInt() < other.asInt();
}

bool Integer::operator<=(const Integer& other) const {
    return *this == other || *this < other;
}

_Integer::_Integer(const unsigned char* der, unsigned int length) : Integer(der, length) {}
_Integer::~_Integer() = default;

RefInteger::RefInteger() = default;

RefInteger::RefInteger(const Integer& value) {
    if (value.object() != nullptr) {
        const Buffer der = value.encoded();
        reset(makeReference<_Integer>(der.data(), der.length()));
    }
}

RefInteger::RefInteger(const asn1_string_st* integer) : Ref(makeReference<_Integer>(integer)) {}
RefInteger::RefInteger(const unsigned char* der, unsigned int length) : Ref(makeReference<_Integer>(der, length)) {}
RefInteger::RefInteger(const RefInteger& other) = default;
RefInteger& RefInteger::operator=(const RefInteger& other) = default;
RefInteger::~RefInteger() = default;

bool RefInteger::operator==(const RefInteger& other) const {
    return !isNull() && !other.isNull();
}

} // namespace Norvane::Crypto::ASN1

template class Norvane::RefCounted<Norvane::Crypto::ASN1::_Integer>;
template class Norvane::Ref<Norvane::Crypto::ASN1::_Integer>;
