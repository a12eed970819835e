// Keys: the first byte chooses the kind and the form.
#include "Driver.h"

#include <norvcrypto/Key.h>

using namespace Norvane;
using namespace Norvane::Crypto;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) {
        return 0;
    }
    const std::uint8_t choice = data[0];
    return fuzz::run(data + 1, size - 1,
                     [choice](const Buffer& input) {
                         const RefKey key((choice & 1U) != 0 ? Key::PUBLIC_KEY : Key::PRIVATE_KEY);
                         if ((choice & 2U) != 0) {
                             key->readPEM(input, "passphrase");
                         } else {
                             key->read(input, (choice & 4U) != 0);
                         }
                         Buffer out;
                         key->write(out, false);
                     },
                     {.constant = fuzz::passwords});
}
