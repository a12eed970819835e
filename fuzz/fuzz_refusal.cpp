// What is refused before OpenSSL decodes it: what is refused is not decoded, and what is let through holds nothing of what
// must be refused.
#include "Driver.h"

#include "openssl/Acceptance.h"
#include "openssl/Pointers.h"

#include <norvcrypto/Acceptance.h>
#include <norvcrypto/Certificate.h>
#include <norvcrypto/Key.h>

#include <openssl/core_names.h>

using namespace Norvane;
using namespace Norvane::Crypto;

namespace {

bool isOnSpelledOutCurve(const EVP_PKEY* key) {
    int spelledOut = 0;
    return key != nullptr && EVP_PKEY_is_a(key, "EC") == 1 &&
           EVP_PKEY_get_int_param(key, OSSL_PKEY_PARAM_EC_DECODED_FROM_EXPLICIT_PARAMS, &spelledOut) == 1 &&
           spelledOut != 0;
}

/// OpenSSL's own opinion of what was let through.
void lookInto(const Buffer& input) {
    const fuzz::Uncounted aside;
    const unsigned char* at = input.data();
    const auto length = static_cast<long>(input.length());
    if (const openssl::CertificatePtr certificate{d2i_X509(nullptr, &at, length)}) {
        fuzz::require(!isOnSpelledOutCurve(X509_get0_pubkey(certificate.get())));
        fuzz::require(!openssl::hasTooManyRelativePoints(certificate.get()));
    }
    at = input.data();
    const openssl::KeyPtr key(d2i_PUBKEY(nullptr, &at, length));
    fuzz::require(!isOnSpelledOutCurve(key.get()));
    ERR_clear_error();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto ask = [](const Buffer& input) {
        const std::string reason = refusal(input);
        fuzz::require(reason.empty() || reason.rfind("refused: ", 0) == 0);
        const auto refused = openssl::refusalOf(input.data(), input.length());
        const bool isRead = !NVX509::CertificateFactory().readDER(input).isNull();
        fuzz::require(!isRead || refused == openssl::Refusal::none);
        if (refused == openssl::Refusal::none) {
            lookInto(input);
        } else {
            fuzz::require(reason == openssl::textOf(refused) || input.length() == 0 || input.data()[0] != 0x30);
        }
    };
    return fuzz::run(data, size, ask);
}
