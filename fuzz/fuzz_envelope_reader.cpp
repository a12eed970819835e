// EnvelopeReader beside OpenSSL: they agree, or differ in what is on a list (differential/Differential.h).
#include "Driver.h"
#include "differential/Differential.h"

#include <norvcmsg/Media.h>
#include <norvcrypto/CMSEnvelopeReader.h>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::start();
    const fuzz::Bytes octets(data, data + size);
    const auto read = [&octets](const Norvane::Buffer& input) {
        {
            const fuzz::Uncounted aside;
            fuzz::require(fuzz::compareEnvelope(octets), octets);
        }
        Norvane::MemoryMediaIn in(input);
        const Norvane::Crypto::CMS::EnvelopeReader reader(in);
        for (const auto& recipient : reader.recipients()) {
            static_cast<void>(recipient.algorithm());
            static_cast<void>(recipient.unsupported());
            static_cast<void>(recipient.identifier());
            static_cast<void>(recipient.keyIdentifier());
        }
    };
    return fuzz::run(data, size, read);
}
