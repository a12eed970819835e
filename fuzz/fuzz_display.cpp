// What people are shown of names and texts that strangers chose: no two look the same, and nothing is hidden in them. A
// target that reads back what is shown tells that no second thing is shown alike.
#include "Driver.h"

#include "openssl/Name.h"
#include "openssl/Pointers.h"

#include <norvcmsg/Escape.h>
#include <norvcrypto/DistinguishedName.h>

#include <openssl/x509.h>

using namespace Norvane;
using Norvane::Crypto::NVX509::displayName;
using Norvane::Crypto::NVX509::DistinguishedName;

namespace {

unsigned char digit(char c) {
    static const std::string digits = "0123456789ABCDEF";
    const auto at = digits.find(c);
    fuzz::require(at != std::string::npos);
    return static_cast<unsigned char>(at);
}

char byteAt(const std::string& text, std::size_t at) {
    fuzz::require(at + 1 < text.size());
    return static_cast<char>(digit(text[at]) << 4U | digit(text[at + 1]));
}

std::string unescaped(const std::string& shown) {
    std::string text;
    for (std::size_t i = 0; i < shown.size(); ++i) {
        if (shown[i] != '\\') {
            text += shown[i];
        } else if (shown.at(i + 1) == '\\') {
            text += shown[++i];
        } else {
            fuzz::require(shown[i + 1] == 'x');
            text += byteAt(shown, i + 2);
            i += 3;
        }
    }
    return text;
}

/// Reads one value of the text of a name, up to what ends it.
std::string valueAt(const std::string& shown, std::size_t& at) {
    std::string value;
    for (; at < shown.size() && shown[at] != ',' && shown[at] != '+'; ++at) {
        if (shown[at] != '\\') {
            value += shown[at];
        } else if (++at; std::string(",+\"\\<>; #").find(shown.at(at)) != std::string::npos) {
            value += shown[at];
        } else {
            value += byteAt(shown, at++);
        }
    }
    return value;
}

std::string hexValueAt(const std::string& shown, std::size_t& at) {
    std::string value;
    for (++at; at < shown.size() && shown[at] != ',' && shown[at] != '+'; at += 2) {
        value += byteAt(shown, at);
    }
    return value;
}

void readBack(const X509_NAME* name) {
    const std::string shown = displayName(DistinguishedName(name));
    fuzz::require(isDisplayable(shown));
    const auto attributes = Crypto::openssl::attributesOf(name);
    std::size_t at = 0;
    bool joins = false;
    for (auto attribute = attributes.rbegin(); attribute != attributes.rend(); ++attribute) {
        if (attribute != attributes.rbegin()) {
            fuzz::require(shown.at(at++) == (joins ? '+' : ','));
        }
        joins = attribute->joinsPreceding;
        const auto equals = shown.find('=', at);
        fuzz::require(equals != std::string::npos && shown.substr(at, equals - at) == attribute->type);
        at = equals + 1;
        const bool isHex = at < shown.size() && shown[at] == '#';
        fuzz::require(isHex == !attribute->der.empty());
        fuzz::require(isHex ? hexValueAt(shown, at) == attribute->der : valueAt(shown, at) == attribute->text);
    }
    fuzz::require(at == shown.size());
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto show = [](const Buffer& input) {
        const std::string text = fuzz::text(input);
        const std::string shown = escapeForDisplay(text);
        fuzz::require(isDisplayable(shown) && unescaped(shown) == text);
        fuzz::require(text.find('\\') != std::string::npos || isDisplayable(text) == (shown == text));
        const unsigned char* at = input.data();
        const Crypto::openssl::NamePtr name(d2i_X509_NAME(nullptr, &at, static_cast<long>(input.length())));
        ERR_clear_error();
        if (name) {
            readBack(name.get());
        }
    };
    return fuzz::run(data, size, show, {.constant = 2'000'000, .perOctet = 3'000});
}
