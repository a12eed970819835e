// The small parsers of the common library: addresses, patterns, base64, URIs, escaping.
#include "Driver.h"

#include <norvcmsg/EmailAddress.h>
#include <norvcmsg/Escape.h>
#include <norvcmsg/IPAddress.h>
#include <norvcmsg/StringPattern.h>
#include <norvcmsg/Uri.h>

#include <cstdlib>

using namespace Norvane;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    return fuzz::run(data, size, [](const Buffer& input) {
        const std::string text = fuzz::text(input);
        static_cast<void>(EmailAddress::rfc5321Parse(text, true).address());
        static_cast<void>(Uri(text.data(), static_cast<unsigned int>(text.size())).isNull());
        static_cast<void>(IPAddress(text).isV4());
        const std::size_t half = text.size() / 2;
        static_cast<void>(StringPattern(text.substr(0, half)).matches(text.substr(half)));
        Buffer decoded;
        if (input.decodeBase64(decoded)) {
            Buffer again;
            const std::string encoded = decoded.toBase64String();
            if (!Buffer(encoded.data(), static_cast<unsigned int>(encoded.size()), true).decodeBase64(again) ||
                !(again == decoded)) {
                std::abort();
            }
        }
        const std::string shown = escapeForDisplay(text);
        for (const char byte : shown) {
            if (static_cast<unsigned char>(byte) < 0x20) {
                std::abort();
            }
        }
        if (!isDisplayable(shown)) {
            std::abort();
        }
    });
}
