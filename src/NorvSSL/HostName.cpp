#include "NorvSSL/HostName.h"

#include "failures/Raise.h"

#include <norvcmsg/Escape.h>
#include <norvcmsg/IPAddress.h>
#include <norvcrypto/SSLConnection.h>

#include <dlfcn.h>
#include <idn2.h>

#include <algorithm>
#include <memory>
#include <string_view>

namespace Norvane::Crypto::NVSSL {

namespace {

constexpr std::size_t longestName = 253; // RFC 1035: 255 octets with the length of the first label and the root
constexpr std::size_t longestLabel = 63;
constexpr std::size_t longestText = 1024; // of a name that is still to be converted: more letters than ASCII ones need

[[noreturn]] void refuse(const std::string& why, const std::string& name) {
    failures::raise(failures::noHostName, why + ": " + escapeForDisplay(name.substr(0, longestName)));
}

/// The functions of libidn2 that are used. It is loaded by the first name in another script: few processes meet one.
class Idn2 {
public:
    /// Null without libidn2.
    static const Idn2* instance() {
        static const Idn2 loaded;
        return loaded.convert != nullptr && loaded.free != nullptr && loaded.text != nullptr ? &loaded : nullptr;
    }

    decltype(&idn2_to_ascii_8z) convert = nullptr;
    decltype(&idn2_free) free = nullptr;
    decltype(&idn2_strerror) text = nullptr;

private:
    Idn2() {
        if (void* const library = dlopen("libidn2.so.0", RTLD_NOW | RTLD_LOCAL); library != nullptr) {
            convert = reinterpret_cast<decltype(convert)>(dlsym(library, "idn2_to_ascii_8z"));
            free = reinterpret_cast<decltype(free)>(dlsym(library, "idn2_free"));
            text = reinterpret_cast<decltype(text)>(dlsym(library, "idn2_strerror"));
        }
    }
};

std::string converted(const std::string& name) {
    const Idn2* const idn2 = Idn2::instance();
    if (idn2 == nullptr) {
        refuse("needs libidn2, which is not installed", name);
    }
    char* ascii = nullptr;
    const int answer = idn2->convert(name.c_str(), &ascii, IDN2_NFC_INPUT | IDN2_NONTRANSITIONAL);
    const std::unique_ptr<char, decltype(&idn2_free)> owned(ascii, idn2->free);
    if (answer != IDN2_OK) {
        refuse(std::string("no host name (") + idn2->text(answer) + ")", name);
    }
    return ascii;
}

bool isAscii(std::string_view text) {
    return std::all_of(text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) < 0x80; });
}

bool isInLabels(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '_';
}

bool isHostName(std::string_view name) {
    if (name.empty() || name.size() > longestName) {
        return false;
    }
    while (true) {
        const auto label = name.substr(0, name.find('.'));
        if (label.empty() || label.size() > longestLabel || !std::all_of(label.begin(), label.end(), isInLabels)) {
            return false;
        }
        if (label.size() == name.size()) {
            return true;
        }
        name.remove_prefix(label.size() + 1);
    }
}

} // namespace

openssl::Host hostOf(const std::string& name) {
    if (const auto address = IPAddress::fromText(name); !address.isNull()) {
        return {{}, address.octets()};
    }
    if (name.size() > longestText || name.find('\0') != std::string::npos) {
        refuse("no host name", name);
    }
    std::string ascii = isAscii(name) ? name : converted(name);
    if (!ascii.empty() && ascii.back() == '.') {
        ascii.pop_back();
    }
    // With a dot behind it, or in letters of another script, it is an address still, which wildcards must not match.
    if (const auto address = IPAddress::fromText(ascii); !address.isNull()) {
        return {{}, address.octets()};
    }
    if (!isHostName(ascii)) {
        refuse("no host name", name);
    }
    return {ascii, {}};
}

std::string asciiHostName(const std::string& name) {
    const openssl::Host host = hostOf(name);
    return host.name.empty() ? IPAddress::fromOctets(host.octets).asString() : host.name;
}

bool isIssuedTo(const NVX509::RefCertificate& certificate, const std::string& hostName) {
    const openssl::Host host = hostOf(hostName);
    x509_st* const x509 = certificate;
    const openssl::ErrorMark quiet;
    return x509 != nullptr && openssl::isIssuedTo(x509, host);
}

} // namespace Norvane::Crypto::NVSSL
