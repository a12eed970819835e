#include <norvcrypto/ASN1.h>

#include "ASN1/Support.h"
#include "openssl/ErrorQueue.h"

#include <norvcrypto/BIO.h>

#include <openssl/asn1.h>

#include <array>
#include <charconv>
#include <ostream>

namespace Norvane::Crypto::ASN1 {

namespace {

constexpr std::string_view digits = "0123456789abcdef";

std::string timeText(const asn1_string_st& time) {
    const openssl::ErrorMark mark;
    MemoryBIO bio;
    ASN1_TIME_print(bio, &time);
    const Buffer text = bio;
    return {reinterpret_cast<const char*>(text.data()), text.length()};
}

/// A byte as a C++ stream of old printed it in hexadecimal: widened with its sign.
void appendEscaped(std::string& text, unsigned char byte) {
    const auto value = static_cast<unsigned int>(static_cast<int>(static_cast<signed char>(byte)));
    std::array<char, 2 * sizeof value> number{};
    const auto end = std::to_chars(number.data(), number.data() + number.size(), value, 16).ptr;
    text.append("0x").append(number.data(), end);
}

std::string printableText(const unsigned char* bytes, int length) {
    std::string text;
    for (int i = 0; i < length; ++i) {
        if (bytes[i] >= 0x20 && bytes[i] <= 0x7E) {
            text += static_cast<char>(bytes[i]);
        } else {
            appendEscaped(text, bytes[i]);
        }
    }
    return text;
}

} // namespace

std::string hexText(const unsigned char* bytes, int length) {
    std::string text;
    text.reserve(2 * static_cast<std::size_t>(length));
    for (int i = 0; i < length; ++i) {
        text += digits[bytes[i] >> 4U];
        text += digits[bytes[i] & 0x0FU];
    }
    return text;
}

std::ostream& operator<<(std::ostream& out, const OctetString& value) {
    return out << value.object();
}

std::ostream& operator<<(std::ostream& out, const Integer& value) {
    return out << value.object();
}

std::ostream& operator<<(std::ostream& out, const RefOctetString& handle) {
    return handle.isNull() ? out : out << handle->object();
}

std::ostream& operator<<(std::ostream& out, const RefInteger& handle) {
    return handle.isNull() ? out : out << handle->object();
}

} // namespace Norvane::Crypto::ASN1

std::ostream& operator<<(std::ostream& out, const asn1_string_st* string) {
    return string == nullptr ? out : out << *string;
}

std::ostream& operator<<(std::ostream& out, const asn1_string_st& string) {
    using namespace Norvane::Crypto::ASN1;
    const unsigned char* bytes = ASN1_STRING_get0_data(&string);
    const int length = ASN1_STRING_length(&string);
    out << std::hex; // callers find the stream in hexadecimal after a value
    switch (ASN1_STRING_type(&string)) {
    case V_ASN1_OCTET_STRING:
    case V_ASN1_INTEGER:
        return out << hexText(bytes, length);
    case V_ASN1_UTCTIME:
    case V_ASN1_GENERALIZEDTIME:
        return out << timeText(string);
    default:
        return out << printableText(bytes, length);
    }
}
