#pragma once

/// \file
/// DER of OpenSSL's objects, in memory of ours.

#include "openssl/Pointers.h"

#include <openssl/asn1t.h>

#include <vector>

namespace Norvane::Crypto::openssl {

/// Encodes with the `i2d_` function `Encode`. Empty, with the reasons in the error queue, for what it refuses; a null
/// object is that.
template <auto Encode, class T> std::vector<unsigned char> encode(T* object) {
    unsigned char* octets = nullptr;
    const int length = object == nullptr ? 0 : Encode(object, &octets);
    const OwnedMemory<unsigned char> owner(octets);
    return length <= 0 ? std::vector<unsigned char>() : std::vector<unsigned char>(octets, octets + length);
}

/// Encodes by a template. `length` is 0, with the reasons in the error queue, for what it refuses; a null object is that.
/// Where OpenSSL has no memory to sort a SET OF, it leaves that out and tells the length that there would have been: here
/// that is a failure, too. It is not seen of a SET OF within another that is sorted.
OwnedMemory<unsigned char> encodeItem(const void* value, const ASN1_ITEM* item, int& length) noexcept;

} // namespace Norvane::Crypto::openssl
