#pragma once

/// \file
/// A DER writer small enough to check by eye. Certificates and lists are put together from it, so that odd forms cost
/// no more than proper ones: no encoder stands in between that would refuse or repair them.

#include <string>
#include <string_view>
#include <vector>

namespace norvauthority {

using Bytes = std::vector<unsigned char>;

/// The bytes of a text.
Bytes bytes(std::string_view text);
/// The bytes behind hexadecimal digits; blanks are skipped. \throws std::invalid_argument
Bytes fromHex(std::string_view digits);
/// Lower-case hexadecimal digits of bytes.
std::string toHex(const Bytes& content);

namespace der {

inline constexpr unsigned char boolean = 0x01;
inline constexpr unsigned char integerTag = 0x02;
inline constexpr unsigned char bitStringTag = 0x03;
inline constexpr unsigned char octetStringTag = 0x04;
inline constexpr unsigned char nullTag = 0x05;
inline constexpr unsigned char oidTag = 0x06;
inline constexpr unsigned char enumeratedTag = 0x0A;
inline constexpr unsigned char utcTimeTag = 0x17;
inline constexpr unsigned char generalizedTimeTag = 0x18;
inline constexpr unsigned char sequenceTag = 0x30;
inline constexpr unsigned char setTag = 0x31;

/// Context-specific tags [number], primitive and constructed.
constexpr unsigned char context(unsigned int number) {
    return static_cast<unsigned char>(0x80U | number);
}
constexpr unsigned char contextConstructed(unsigned int number) {
    return static_cast<unsigned char>(0xA0U | number);
}

void append(Bytes& target, const Bytes& more);
/// All of them, one after another.
Bytes concat(const std::vector<Bytes>& parts);
/// Tag, minimal length, content.
Bytes element(unsigned char tag, const Bytes& content);
Bytes sequence(const std::vector<Bytes>& parts);
/// Parts in the order given; DER wants a SET OF sorted, which is the caller's affair.
Bytes set(const std::vector<Bytes>& parts);
/// An INTEGER from a hexadecimal number of any length, "-" for a negative one: "-1f", "0123456789abcdef0123".
Bytes integer(std::string_view hexNumber);
/// An object identifier from its dotted form or a name that OpenSSL knows ("CN", "serverAuth").
Bytes oid(const std::string& dottedOrName);
/// An object identifier from its content octets as they stand, wrapped arcs included.
Bytes rawOid(const Bytes& contentOctets);
Bytes octetString(const Bytes& content);
/// A BIT STRING with the given count of unused bits in its last byte.
Bytes bitString(const Bytes& bits, unsigned int unusedBits = 0);
/// A named bit list: trailing zero bits are left out. Bit 0 is 0x80 of the low byte of `mask`, bit 8 is 0x8000, as
/// OpenSSL counts key usage and reasons.
Bytes namedBits(unsigned int mask);
Bytes boolValue(bool value);
Bytes null();

} // namespace der
} // namespace norvauthority
