#include "openssl/ObjectText.h"

#include "openssl/ErrorQueue.h"

#include <openssl/objects.h>

#include <algorithm>
#include <cstddef>

namespace Norvane::Crypto::openssl {

namespace {

constexpr std::size_t longestNumber = 256;

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

} // namespace

bool mayBeIdentifier(const std::string& text) {
    std::size_t digits = 0;
    return std::all_of(text.begin(), text.end(), [&](char c) {
        digits = isDigit(c) ? digits + 1 : 0;
        return c != '\0' && digits <= longestNumber;
    });
}

asn1_object_st* identifierFromText(const std::string& text) {
    if (!mayBeIdentifier(text)) {
        return nullptr;
    }
    const ErrorMark mark;
    return OBJ_txt2obj(text.c_str(), 0);
}

} // namespace Norvane::Crypto::openssl
