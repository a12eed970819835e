// Cross-certificate pairs: both certificates, then put together and read again.
#include "Driver.h"

#include <norvcmsg/Media.h>
#include <norvcrypto/CrossCertificatePair.h>

#include <authority/Authority.h>

#include <openssl/err.h>
#include <openssl/x509.h>

using namespace Norvane;
using namespace Norvane::Crypto::NVX509;

namespace {

/// The certificate as it is written; none where OpenSSL does not read what it writes, as of one in BER whose algorithm is of
/// indefinite length, with a parameter whose own length takes more octets than it needs.
norvauthority::Certificate look(const RefCertificate& certificate) {
    if (certificate.isNull()) {
        return {};
    }
    certificate->warm();
    MemoryMediaOut der;
    certificate->writeDER(der);
    const Buffer bytes = der.content();
    const fuzz::Uncounted aside;
    const unsigned char* at = bytes.data();
    X509* const again = d2i_X509(nullptr, &at, static_cast<long>(bytes.length()));
    X509_free(again);
    ERR_clear_error();
    if (again == nullptr) {
        return {};
    }
    return {{bytes.data(), bytes.data() + bytes.length()}};
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    return fuzz::run(data, size, [](const Buffer& input) {
        const RefCrossCertificatePair pair(input);
        const auto forward = look(pair->forward());
        const auto reverse = look(pair->reverse());
        const auto again = norvauthority::crossPair(forward.der.empty() ? nullptr : &forward,
                                                    reverse.der.empty() ? nullptr : &reverse);
        const CrossCertificatePair second(Buffer(again.data(), static_cast<unsigned int>(again.size()), false));
        if (pair->decoded()) {
            fuzz::require(second.decoded() && second.forward().isNull() == forward.der.empty() &&
                          second.reverse().isNull() == reverse.der.empty());
        }
    });
}
