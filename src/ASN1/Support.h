#pragma once

#include <string>

namespace Norvane::Crypto::ASN1 {

/// Lower-case hexadecimal, two digits a byte.
[[nodiscard]] std::string hexText(const unsigned char* bytes, int length);

/// The dotted text of an object identifier's content octets; empty when they end inside a number.
[[nodiscard]] std::string dottedText(const unsigned char* octets, std::size_t length);

/// How most handles compare: by body, then by value; without a body nothing is equal.
template <class Body> [[nodiscard]] bool sameValue(const Body* left, const Body* right) {
    return left != nullptr && right != nullptr && (left == right || *left == *right);
}

} // namespace Norvane::Crypto::ASN1
