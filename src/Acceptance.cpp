#include <norvcrypto/Acceptance.h>

#include "openssl/Acceptance.h"
#include "openssl/Pem.h"

namespace Norvane::Crypto {

std::string refusal(const Buffer& encoded) {
    constexpr unsigned char sequence = 0x30; // what everything starts with that the readers take as DER
    const bool isText = !encoded.empty() && encoded.at(0) != sequence;
    const auto* octets = encoded.data();
    const char* text = openssl::textOf(isText ? openssl::pemRefusalOf(octets, encoded.length())
                                              : openssl::refusalOf(octets, encoded.length()));
    return text == nullptr ? std::string() : std::string(text);
}

} // namespace Norvane::Crypto
