#pragma once

// OpenSSL's strings and numbers, for what wraps them.

#include "support/HostileDer.h"
#include "support/Thrown.h"

#include <norvcrypto/ASN1.h>

#include <authority/Der.h>

#include <openssl/asn1.h>
#include <openssl/bn.h>
#include <openssl/objects.h>
#include <openssl/x509.h>

#include <gtest/gtest.h>

#include <memory>
#include <sstream>
#include <string>

namespace asn1testing {

using namespace Norvane::Crypto::ASN1;
using norvauthority::Bytes;
using norvauthority::fromHex;
using norvauthority::toHex;
using norvtest::errorQueueIsEmpty;
using norvtest::lengthOf;
namespace der = norvauthority::der;

struct FreeString {
    void operator()(ASN1_STRING* string) const { ASN1_STRING_free(string); }
};
using StringPtr = std::unique_ptr<ASN1_STRING, FreeString>;

inline StringPtr string(int type, const std::string& content) {
    StringPtr made(ASN1_STRING_type_new(type));
    ASN1_STRING_set(made.get(), content.data(), static_cast<int>(content.size()));
    return made;
}

/// An OpenSSL integer from "-" and hexadecimal digits.
inline StringPtr integer(const std::string& digits) {
    BIGNUM* number = nullptr;
    BN_hex2bn(&number, digits.c_str());
    StringPtr made(BN_to_ASN1_INTEGER(number, nullptr));
    BN_free(number);
    return made;
}

inline std::string hexOf(const Norvane::Buffer& buffer) {
    return toHex(Bytes(buffer.data(), buffer.data() + buffer.length()));
}

template <class Value> std::string printed(const Value& value) {
    std::ostringstream out;
    out << value;
    return out.str();
}

} // namespace asn1testing
