// Cross-certificate pairs: both certificates, then put together and read again.
#include "Driver.h"

#include <norvcmsg/Media.h>
#include <norvcrypto/CrossCertificatePair.h>

#include <authority/Authority.h>

using namespace Norvane;
using namespace Norvane::Crypto::NVX509;

namespace {

norvauthority::Certificate look(const RefCertificate& certificate) {
    if (certificate.isNull()) {
        return {};
    }
    certificate->warm();
    MemoryMediaOut der;
    certificate->writeDER(der);
    const Buffer bytes = der.content();
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
        if (pair->decoded() && (!second.decoded() || second.forward().isNull() != pair->forward().isNull() ||
                                second.reverse().isNull() != pair->reverse().isNull())) {
            std::abort();
        }
    });
}
