// Private keys as a server reads them: the first byte chooses whether there is a passphrase. Nobody is ever asked for one.
#include "Driver.h"

#include "support/Interpose.h"

#include <norvcrypto/Key.h>

#include <openssl/evp.h>

using namespace Norvane;
using namespace Norvane::Crypto;

namespace {

bool s_reading = false; ///< other targets in the same program may ask

} // namespace

extern "C" __attribute__((visibility("default"))) int EVP_read_pw_string_min(char* out, int least, int most,
                                                                             const char* prompt, int verify) {
    fuzz::require(!s_reading);
    return norvtest::next<&EVP_read_pw_string_min>("EVP_read_pw_string_min")(out, least, most, prompt, verify);
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) {
        return 0;
    }
    const Buffer passphrase("secret", 6, false);
    const auto* const given = (data[0] & 1U) != 0 ? &passphrase : nullptr;
    const auto read = [given](const Buffer& input) {
        const norvtest::During<bool> here(s_reading, true);
        PrivateKey key(nullptr);
        key.readUnattended(input, given);
        Buffer out;
        key.write(out, false);
    };
    return fuzz::run(data + 1, size - 1, read, {.constant = given == nullptr ? fuzz::longNumbers : fuzz::passwords});
}
