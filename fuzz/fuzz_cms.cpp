// CMS structures: decoded from a stream, every view walked, every signer verified over a short body.
#include "Driver.h"

#include <norvcmsg/Media.h>
#include <norvcrypto/CMSSignerMedia.h>

using namespace Norvane;
using namespace Norvane::Crypto;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    return fuzz::run(data, size, [](const Buffer& input) {
        MemoryMediaIn source(input);
        CMS::CMSVerifier verifier(source);
        static_cast<void>(verifier.contentInfo()->typeAsEnum());
        const CMS::SignedData content = CMS::signedData(verifier.contentInfo());
        for (const CMS::SignerInfo& signer : content.signerInfo()) {
            for (const NVX509::RefCertificate& certificate : content.certificates()) {
                MemoryMediaIn body(std::string("body"));
                static_cast<void>(verifier.isValid(body, signer, certificate));
            }
        }
    });
}
