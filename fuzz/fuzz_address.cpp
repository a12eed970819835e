// Addresses and hosts as certificates, mails and configurations write them: the form in which they are compared is the same
// however the ASCII letters of the domain are written.
#include "Driver.h"

#include "config/AddressPattern.h"

#include <norvcmsg/EmailAddress.h>
#include <norvcrypto-trust/TrustSender.h>
#include <norvcrypto/SSLConnection.h>

#include <cstddef>
#include <string>

using namespace Norvane;
using Norvane::Crypto::NVSSL::asciiHostName;
using Norvane::Crypto::Trust::comparableAddress;

namespace {

/// With the ASCII letters of the domain in upper case.
std::string loud(std::string text) {
    for (std::size_t at = text.rfind('@'); at < text.size(); ++at) {
        if (text[at] >= 'a' && text[at] <= 'z') {
            text[at] = static_cast<char>(text[at] - 'a' + 'A');
        }
    }
    return text;
}

void compare(const std::string& text) {
    fuzz::require(comparableAddress(text) == comparableAddress(loud(text)));
    const EmailAddress address = EmailAddress::rfc5321Parse(text, true);
    if (!address.isNull() && !address.isEmptyAddress()) {
        const EmailAddress again = EmailAddress::rfc5321Parse(address.address(), true);
        fuzz::require(again == address && again.address() == address.address());
    }
    const std::string host = asciiHostName(text);
    fuzz::require(host.empty() || asciiHostName(host) == host);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    return fuzz::run(data, size, [](const Buffer& input) {
        const std::string text = fuzz::text(input);
        compare(text);
        const std::size_t line = text.find('\n');
        if (line != std::string::npos) { // a pattern, and an address
            const norvmilter::AddressPattern pattern(text.substr(0, line));
            const std::string address = text.substr(line + 1);
            fuzz::require(pattern.matches(address) == pattern.matches(norvmilter::AddressForms(address)));
            static_cast<void>(norvmilter::NamePattern(text.substr(0, line)).matches(address));
        }
        static_cast<void>(Crypto::Trust::matchSender(Crypto::NVX509::RefCertificate(), {text}, text));
    });
}
