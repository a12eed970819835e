#include "openssl/HexDigits.h"

#include "openssl/OpenSsl.h"

#include <openssl/crypto.h>

namespace norvcrypt {

Norvane::Buffer octetsFromHex(const std::string& digits) {
    const std::size_t needed = digits.size() / 2;
    Norvane::Buffer octets(static_cast<int>(needed), static_cast<int>(needed));
    std::size_t count = 0;
    const QuietQuestion quiet;
    // Without a terminator in between, which OpenSSL would take for the end of the digits.
    if (digits.find('\0') != std::string::npos || digits.size() % 2 != 0 || needed == 0 ||
        OPENSSL_hexstr2buf_ex(octets.data(), needed, &count, digits.c_str(), '\0') != 1 || count != needed)
        return {};
    return octets;
}

} // namespace norvcrypt
