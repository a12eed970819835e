#pragma once

/// \file
/// DER of OpenSSL's objects, in memory of ours.

#include "openssl/Pointers.h"

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

} // namespace Norvane::Crypto::openssl
