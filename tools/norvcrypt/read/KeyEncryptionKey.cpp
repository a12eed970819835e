#include "read/KeyEncryptionKey.h"
#include "base/Failure.h"

#include <algorithm>
#include <cctype>

namespace norvcrypt {

namespace {

bool isKeyLength(std::size_t length) {
    return length == 16 || length == 24 || length == 32;
}

unsigned char valueOf(unsigned char digit) {
    return static_cast<unsigned char>(digit <= '9' ? digit - '0' : std::tolower(digit) - 'a' + 10);
}

} // namespace

Norvane::Buffer readKeyEncryptionKey(Inputs& inputs, const std::string& path) {
    Norvane::Buffer content = inputs.readAll(path, true);
    const unsigned char* const start = content.data();
    const std::size_t length = content.length();
    const auto isDigit = [](unsigned char character) { return std::isxdigit(character) != 0; };
    std::size_t digits = length;
    if (digits != 0 && start[digits - 1] == '\n')
        --digits;
    if (digits != 0 && digits != length && start[digits - 1] == '\r')
        --digits;
    if (digits % 2 == 0 && isKeyLength(digits / 2) && std::all_of(start, start + digits, isDigit)) {
        Norvane::Buffer key(0, static_cast<int>(digits / 2));
        key.protect();
        for (std::size_t at = 0; at < digits; at += 2)
            key.data()[at / 2] = static_cast<unsigned char>(valueOf(start[at]) << 4U | valueOf(start[at + 1]));
        return key;
    }
    if (!isKeyLength(length))
        throw Failure("no key-encryption key in " + inputName(path) +
                      ": it has 16, 24 or 32 bytes, or as many in hexadecimal digits");
    return content;
}

} // namespace norvcrypt
