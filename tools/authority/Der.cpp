#include "Der.h"

#include <openssl/bn.h>
#include <openssl/crypto.h>
#include <openssl/objects.h>

#include <algorithm>
#include <memory>
#include <stdexcept>

namespace norvauthority {

Bytes bytes(std::string_view text) {
    return {text.begin(), text.end()};
}

namespace {

int digitValue(char digit) {
    if (digit >= '0' && digit <= '9')
        return digit - '0';
    if (digit >= 'a' && digit <= 'f')
        return digit - 'a' + 10;
    if (digit >= 'A' && digit <= 'F')
        return digit - 'A' + 10;
    throw std::invalid_argument(std::string("not a hexadecimal digit: ") + digit);
}

/// The magnitude, most significant byte first, at least one byte, no leading zeroes.
Bytes magnitudeOf(std::string_view hexNumber) {
    std::string padded(hexNumber.size() % 2, '0');
    padded += hexNumber;
    Bytes number = fromHex(padded);
    const auto first = std::find_if(number.begin(), number.end(), [](unsigned char byte) { return byte != 0; });
    number.erase(number.begin(), first);
    if (number.empty())
        number.push_back(0);
    return number;
}

/// Two's complement of a magnitude: every bit flipped, then one added.
void negate(Bytes& number) {
    unsigned int carry = 1;
    for (auto byte = number.rbegin(); byte != number.rend(); ++byte) {
        const unsigned int sum = (~static_cast<unsigned int>(*byte) & 0xFFU) + carry;
        *byte = static_cast<unsigned char>(sum & 0xFFU);
        carry = sum >> 8U;
    }
}

} // namespace

Bytes fromHex(std::string_view digits) {
    std::string plain;
    // cppcheck-suppress invalidLifetime ; it takes a caller's text for one of its own
    std::copy_if(digits.begin(), digits.end(), std::back_inserter(plain),
                 [](char digit) { return digit != ' ' && digit != '\n'; });
    if (plain.size() % 2 != 0)
        throw std::invalid_argument("an odd number of hexadecimal digits");
    Bytes content;
    for (std::size_t at = 0; at < plain.size(); at += 2)
        content.push_back(static_cast<unsigned char>(digitValue(plain[at]) * 16 + digitValue(plain[at + 1])));
    return content;
}

std::string toHex(const Bytes& content) {
    static constexpr char digits[] = "0123456789abcdef";
    std::string text;
    for (const unsigned char byte : content) {
        text += digits[byte >> 4U];
        text += digits[byte & 15U];
    }
    return text;
}

namespace der {

void append(Bytes& target, const Bytes& more) {
    target.insert(target.end(), more.begin(), more.end());
}

Bytes concat(const std::vector<Bytes>& parts) {
    Bytes all;
    std::size_t length = 0;
    for (const Bytes& part : parts)
        length += part.size();
    all.reserve(length);
    for (const Bytes& part : parts)
        append(all, part);
    return all;
}

Bytes element(unsigned char tag, const Bytes& content) {
    Bytes encoded{tag};
    encoded.reserve(content.size() + 10);
    if (content.size() < 0x80) {
        encoded.push_back(static_cast<unsigned char>(content.size()));
    } else {
        Bytes length;
        for (std::size_t rest = content.size(); rest != 0; rest >>= 8U)
            length.insert(length.begin(), static_cast<unsigned char>(rest & 0xFFU));
        encoded.push_back(static_cast<unsigned char>(0x80U | length.size()));
        append(encoded, length);
    }
    append(encoded, content);
    return encoded;
}

Bytes sequence(const std::vector<Bytes>& parts) {
    return element(sequenceTag, concat(parts));
}

Bytes set(const std::vector<Bytes>& parts) {
    return element(setTag, concat(parts));
}

Bytes integer(std::string_view hexNumber) {
    const bool negative = hexNumber.starts_with('-');
    Bytes number = magnitudeOf(negative ? hexNumber.substr(1) : hexNumber);
    number.insert(number.begin(), 0);
    if (negative)
        negate(number);
    // The byte in front is needed only when the sign would be read wrongly without it.
    if ((number[0] == 0x00 && number[1] < 0x80) || (number[0] == 0xFF && number[1] >= 0x80))
        number.erase(number.begin());
    return element(integerTag, number);
}

Bytes oid(const std::string& dottedOrName) {
    const std::unique_ptr<ASN1_OBJECT, decltype(&ASN1_OBJECT_free)> object(OBJ_txt2obj(dottedOrName.c_str(), 0),
                                                                           ASN1_OBJECT_free);
    if (!object)
        throw std::invalid_argument("not an object identifier: " + dottedOrName);
    const unsigned char* content = OBJ_get0_data(object.get());
    return rawOid(Bytes(content, content + OBJ_length(object.get())));
}

Bytes rawOid(const Bytes& contentOctets) {
    return element(oidTag, contentOctets);
}

Bytes octetString(const Bytes& content) {
    return element(octetStringTag, content);
}

Bytes bitString(const Bytes& bits, unsigned int unusedBits) {
    Bytes content{static_cast<unsigned char>(unusedBits)};
    append(content, bits);
    return element(bitStringTag, content);
}

Bytes namedBits(unsigned int mask) {
    Bytes bits{static_cast<unsigned char>(mask & 0xFFU), static_cast<unsigned char>((mask >> 8U) & 0xFFU)};
    while (!bits.empty() && bits.back() == 0)
        bits.pop_back();
    unsigned int unused = 0;
    while (!bits.empty() && ((bits.back() >> unused) & 1U) == 0)
        ++unused;
    return bitString(bits, unused);
}

Bytes boolValue(bool value) {
    return element(boolean, {static_cast<unsigned char>(value ? 0xFF : 0x00)});
}

Bytes null() {
    return element(nullTag, {});
}

} // namespace der
} // namespace norvauthority
