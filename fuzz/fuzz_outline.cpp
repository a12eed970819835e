// The outline of encrypted messages, read without a key; what is left of a message must be readable.
#include "Driver.h"

#include <norvcmsg/Escape.h>
#include <norvcmsg/Media.h>
#include <norvcrypto/CMS.h>
#include <norvcrypto/CMSEnvelopeOutline.h>

using namespace Norvane;
using namespace Norvane::Crypto;
using CMS::EnvelopeOutline;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto look = [](const Buffer& input) {
        const EnvelopeOutline outline(input);
        fuzz::require(outline.unsupported().size() <= 17);
        for (const std::string& feature : outline.unsupported()) {
            fuzz::require(!feature.empty() && isDisplayable(feature));
        }
        fuzz::require(outline.kind() != EnvelopeOutline::Damaged || outline.unsupported().empty());
        const Buffer rest = outline.readable(input);
        fuzz::require(outline.isReadable() == !rest.empty());
        if (!outline.isReadable()) {
            return;
        }
        fuzz::require(outline.kind() == EnvelopeOutline::EnvelopedData);
        const EnvelopeOutline again(rest);
        fuzz::require(again.isReadable() && again.readable(rest) == rest);
        MemoryMediaIn source(rest);
        static_cast<void>(CMS::RefContentInfo(source).isNull()); // throws for what is damaged within
    };
    return fuzz::run(data, size, look);
}
