#include "Address.h"

#include <norvcrypto-trust/TrustSender.h>

#include <norvcmsg/Utf8.h>

#include <algorithm>
#include <idn2.h>
#include <memory>
#include <new>

namespace Norvane::Crypto::Trust {

namespace detail {

namespace {

constexpr std::size_t longestAddress = 1024; // RFC 5321, 4.5.3.1, has 320 octets, before letters of other scripts
constexpr std::size_t longestDomain = 255;
constexpr std::size_t longestLabel = 63;

bool isControl(char c) {
    constexpr unsigned char space = 0x20;
    constexpr unsigned char del = 0x7F;
    const auto octet = static_cast<unsigned char>(c);
    return octet < space || octet == del;
}

/// What stands in a local part without quotes; dots in places where RFC 5321 forbids them are in use.
bool isAtom(char c) {
    return !isControl(c) && std::string_view(" ()<>[]:;@\\,\"").find(c) == std::string_view::npos;
}

char lower(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

bool isHostName(std::string_view domain) {
    std::size_t label = 0;
    for (const char c : domain) {
        const bool letter = (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' || c == '_';
        if (c == '.' ? label == 0 : (!letter || label == longestLabel)) {
            return false;
        }
        label = c == '.' ? 0 : label + 1;
    }
    return label > 0 && domain.size() <= longestDomain;
}

/// The local part in quotes at the start; the rest is what stands behind it.
std::optional<std::string> quoted(std::string_view& rest) {
    std::string local;
    for (std::size_t i = 1; i < rest.size(); ++i) {
        if (rest[i] == '"') {
            rest.remove_prefix(i + 1);
            return local;
        }
        i += rest[i] == '\\' ? 1U : 0U;
        if (i == rest.size() || isControl(rest[i])) {
            break;
        }
        local += rest[i];
    }
    return std::nullopt;
}

} // namespace

bool isInternational(std::string_view text) {
    constexpr unsigned char ascii = 0x7F;
    return std::any_of(text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) > ascii; });
}

std::optional<Address> parsed(std::string_view address) {
    if (address.size() > longestAddress || !utf8::isWellFormed(address)) {
        return std::nullopt;
    }
    Address parts;
    std::string_view rest = address;
    if (!rest.empty() && rest.front() == '"') {
        auto local = quoted(rest);
        if (!local) {
            return std::nullopt;
        }
        parts.local = std::move(*local);
    } else {
        const std::size_t end = std::min(rest.find('@'), rest.size());
        parts.local = rest.substr(0, end);
        rest.remove_prefix(end);
        if (parts.local.empty() || !std::all_of(parts.local.begin(), parts.local.end(), isAtom)) {
            return std::nullopt;
        }
    }
    if (rest.size() < 2 || rest.front() != '@') {
        return std::nullopt;
    }
    parts.domain = rest.substr(1);
    return parts;
}

std::string comparableDomain(const std::string& domain) {
    std::string ascii = domain;
    if (isInternational(domain)) {
        if (domain.find('\0') != std::string::npos) {
            return {};
        }
        char* converted = nullptr;
        const int answer = idn2_to_ascii_8z(domain.c_str(), &converted, IDN2_NFC_INPUT | IDN2_NONTRANSITIONAL);
        const std::unique_ptr<char, void (*)(char*)> owned(converted, [](char* text) { idn2_free(text); });
        if (answer == IDN2_MALLOC) {
            throw std::bad_alloc(); // which says nothing of the domain, and whoever excludes it counts on the answer
        }
        if (answer != IDN2_OK) {
            return {};
        }
        ascii = converted;
    }
    std::transform(ascii.begin(), ascii.end(), ascii.begin(), lower);
    const bool literal =
        ascii.size() > 2 && ascii.front() == '[' && ascii.back() == ']' && ascii.size() <= longestDomain;
    if (literal) {
        const auto inside = std::string_view(ascii).substr(1, ascii.size() - 2);
        const bool proper = std::none_of(inside.begin(), inside.end(), [](char c) {
            return isControl(c) || c == ' ' || c == '[' || c == ']' || c == '\\' || c == '@';
        });
        return proper && !isInternational(domain) ? ascii : std::string();
    }
    return isHostName(ascii) ? ascii : std::string();
}

} // namespace detail

std::string comparableAddress(const std::string& address) {
    const auto parts = detail::parsed(address);
    const std::string domain = parts ? detail::comparableDomain(parts->domain) : std::string();
    return domain.empty() ? std::string() : parts->local + "@" + domain;
}

} // namespace Norvane::Crypto::Trust
