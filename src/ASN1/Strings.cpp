#include <norvcrypto/ASN1.h>

#include "ASN1/Support.h"
#include "openssl/Decode.h"

#include <algorithm>

namespace Norvane::Crypto {

template <detail::Asn1Kind Kind> void detail::Asn1StringTraits<Kind>::free(asn1_string_st* string) noexcept {
    switch (Kind) {
    case Asn1Kind::integer:
        return ASN1_INTEGER_free(string);
    case Asn1Kind::octetString:
        return ASN1_OCTET_STRING_free(string);
    case Asn1Kind::ia5String:
        return ASN1_IA5STRING_free(string);
    case Asn1Kind::bitString:
        return ASN1_BIT_STRING_free(string);
    case Asn1Kind::generalizedTime:
        return ASN1_GENERALIZEDTIME_free(string);
    }
}

template <detail::Asn1Kind Kind>
asn1_string_st* detail::Asn1StringTraits<Kind>::duplicate(const asn1_string_st* string) {
    const openssl::ErrorMark mark;
    return ASN1_STRING_dup(string);
}

template struct detail::Asn1StringTraits<detail::Asn1Kind::integer>;
template struct detail::Asn1StringTraits<detail::Asn1Kind::octetString>;
template struct detail::Asn1StringTraits<detail::Asn1Kind::ia5String>;
template struct detail::Asn1StringTraits<detail::Asn1Kind::bitString>;
template struct detail::Asn1StringTraits<detail::Asn1Kind::generalizedTime>;

namespace ASN1 {

namespace {

template <detail::Asn1Kind Kind> asn1_string_st* decodeString(const unsigned char* der, unsigned int length) {
    if constexpr (Kind == detail::Asn1Kind::octetString) {
        return openssl::decode<d2i_ASN1_OCTET_STRING>(der, length);
    } else if constexpr (Kind == detail::Asn1Kind::ia5String) {
        return openssl::decode<d2i_ASN1_IA5STRING>(der, length);
    } else {
        return openssl::decode<d2i_ASN1_BIT_STRING>(der, length);
    }
}

} // namespace

template <detail::Asn1Kind Kind> StringValue<Kind>::StringValue() = default;

template <detail::Asn1Kind Kind> StringValue<Kind>::StringValue(const asn1_string_st* string)
    : m_object(detail::Asn1String<Kind>::borrow(string)) {}

template <detail::Asn1Kind Kind> StringValue<Kind>::StringValue(const unsigned char* der, unsigned int length)
    : m_object(detail::Asn1String<Kind>::adopt(decodeString<Kind>(der, length))) {}

template <detail::Asn1Kind Kind> StringValue<Kind>::StringValue(const StringValue& other) = default;
template <detail::Asn1Kind Kind> StringValue<Kind>& StringValue<Kind>::operator=(const StringValue& other) = default;
template <detail::Asn1Kind Kind> StringValue<Kind>::~StringValue() = default;

template <detail::Asn1Kind Kind> const unsigned char* StringValue<Kind>::data() const noexcept {
    return m_object ? ASN1_STRING_get0_data(m_object.get()) : nullptr;
}

template <detail::Asn1Kind Kind> unsigned int StringValue<Kind>::length() const noexcept {
    return m_object ? static_cast<unsigned int>(ASN1_STRING_length(m_object.get())) : 0;
}

template <detail::Asn1Kind Kind> bool StringValue<Kind>::operator==(const StringValue& other) const {
    return m_object && other.m_object &&
           std::equal(data(), data() + length(), other.data(), other.data() + other.length());
}

template class StringValue<detail::Asn1Kind::octetString>;
template class StringValue<detail::Asn1Kind::ia5String>;
template class StringValue<detail::Asn1Kind::bitString>;

OctetString::OctetString(const unsigned char* der, unsigned int length) : StringValue(der, length) {}
OctetString::~OctetString() = default;
_OctetString::_OctetString(const unsigned char* der, unsigned int length) : OctetString(der, length) {}
_OctetString::~_OctetString() = default;

IA5String::IA5String(const unsigned char* der, unsigned int length) : StringValue(der, length) {}
IA5String::~IA5String() = default;
_IA5String::_IA5String(const unsigned char* der, unsigned int length) : IA5String(der, length) {}
_IA5String::~_IA5String() = default;

BitString::BitString(const unsigned char* der, unsigned int length) : StringValue(der, length) {}
BitString::~BitString() = default;
_BitString::_BitString(const unsigned char* der, unsigned int length) : BitString(der, length) {}
_BitString::~_BitString() = default;

RefOctetString::RefOctetString() = default;
RefOctetString::RefOctetString(const asn1_string_st* string) : Ref(makeReference<_OctetString>(string)) {}
RefOctetString::RefOctetString(const unsigned char* der, unsigned int length)
    : Ref(makeReference<_OctetString>(der, length)) {}
RefOctetString::RefOctetString(const RefOctetString& other) = default;
RefOctetString& RefOctetString::operator=(const RefOctetString& other) = default;
RefOctetString::~RefOctetString() = default;

bool RefOctetString::operator==(const RefOctetString& other) const {
    return sameValue(bodyOrNull(), other.bodyOrNull());
}

RefIA5String::RefIA5String() = default;
RefIA5String::RefIA5String(const asn1_string_st* string) : Ref(makeReference<_IA5String>(string)) {}
RefIA5String::RefIA5String(const unsigned char* der, unsigned int length)
    : Ref(makeReference<_IA5String>(der, length)) {}
RefIA5String::RefIA5String(const RefIA5String& other) = default;
RefIA5String& RefIA5String::operator=(const RefIA5String& other) = default;
RefIA5String::~RefIA5String() = default;

bool RefIA5String::operator==(const RefIA5String& other) const {
    return sameValue(bodyOrNull(), other.bodyOrNull());
}

RefBitString::RefBitString() = default;
RefBitString::RefBitString(const asn1_string_st* string) : Ref(makeReference<_BitString>(string)) {}
RefBitString::RefBitString(const unsigned char* der, unsigned int length)
    : Ref(makeReference<_BitString>(der, length)) {}
RefBitString::RefBitString(const RefBitString& other) = default;
RefBitString& RefBitString::operator=(const RefBitString& other) = default;
RefBitString::~RefBitString() = default;

bool RefBitString::operator==(const RefBitString& other) const {
    return !isNull() && !other.isNull();
}

} // namespace ASN1

} // namespace Norvane::Crypto

template class Norvane::RefCounted<Norvane::Crypto::ASN1::_OctetString>;
template class Norvane::Ref<Norvane::Crypto::ASN1::_OctetString>;
template class Norvane::RefCounted<Norvane::Crypto::ASN1::_IA5String>;
template class Norvane::Ref<Norvane::Crypto::ASN1::_IA5String>;
template class Norvane::RefCounted<Norvane::Crypto::ASN1::_BitString>;
template class Norvane::Ref<Norvane::Crypto::ASN1::_BitString>;
