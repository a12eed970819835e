// SignedReader beside OpenSSL: they agree, or differ in what is on a list (differential/Differential.h). What a message says
// of its signers is read without an answer of OpenSSL's to compare it with.
#include "Driver.h"
#include "differential/Differential.h"

#include <norvcmsg/Media.h>
#include <norvcrypto/CMSSignedReader.h>

namespace CMS = Norvane::Crypto::CMS;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::start();
    const fuzz::Bytes octets(data, data + size);
    const auto read = [&octets](const Norvane::Buffer& input) {
        {
            const fuzz::Uncounted aside;
            fuzz::require(fuzz::compareSigned(octets), octets);
        }
        Norvane::MemoryMediaIn in(input);
        CMS::SignedReader reader(in);
        Norvane::NullMediaOut out;
        reader.write(out);
        for (const CMS::SignedReader::Signer& signer : reader.signers()) {
            static_cast<void>(reader.verdict(signer));
            static_cast<void>(signer.signingTime());
            static_cast<void>(signer.capabilities());
            static_cast<void>(signer.signingCertificates());
            for (const CMS::SignedReader::Signer& another : signer.countersigners()) {
                static_cast<void>(reader.verdict(another));
            }
        }
        static_cast<void>(reader.certificates());
        static_cast<void>(reader.revocationLists());
    };
    return fuzz::run(data, size, read, {.constant = 2 * CMS::maximumWork * 2 * 16 * 16, .perOctet = 20'000});
}
