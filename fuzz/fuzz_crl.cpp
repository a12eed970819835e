// Revocation lists, DER or PEM: every accessor, then written and read again.
#include "Driver.h"

#include <norvcmsg/Media.h>
#include <norvcrypto/CertificateRevocationList.h>

#include <cstdlib>

using namespace Norvane;
using namespace Norvane::Crypto::NVX509;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    return fuzz::run(data, size, [](const Buffer& input) {
        const CertificateRevocationListFactory factory;
        const RefCertificateRevocationList list = factory.read(input);
        if (list.isNull()) {
            return;
        }
        list->warm();
        static_cast<void>(list->issuingDistributionPoint().distributionPointName().fullName());
        static_cast<void>(list->issuingDistributionPoint().distributionPointName().relativeName());
        MemoryMediaOut der;
        list->writeDER(der);
        if (factory.readDER(der.content()).isNull()) {
            std::abort();
        }
    });
}
