// The text form of distinguished names: parsed, printed, parsed again.
#include "Driver.h"

#include <norvcrypto/DistinguishedName.h>

using namespace Norvane::Crypto::NVX509;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    return fuzz::run(data, size, [](const Norvane::Buffer& input) {
        const DistinguishedName name(fuzz::text(input));
        const DistinguishedName again(name.asString());
        static_cast<void>(again.hash());
        static_cast<void>(name < again);
        static_cast<void>(getParent(name));
    });
}
