// PKCS#12: what follows the first byte is given a MAC that fits when that byte is odd, so that damage reaches the parser.
#include "Driver.h"

#include <norvcrypto/BIO.h>
#include <norvcrypto/PKCS12.h>

#include <openssl/pkcs12.h>

using namespace Norvane;
using namespace Norvane::Crypto;

namespace {

constexpr const char* password = "secret";

Buffer withMac(const Buffer& input) {
    const unsigned char* at = input.data();
    PKCS12_st* structure = d2i_PKCS12(nullptr, &at, static_cast<long>(input.length()));
    unsigned char* encoded = nullptr;
    int length = 0;
    if (structure != nullptr && PKCS12_set_mac(structure, password, -1, nullptr, 0, 1, nullptr) == 1) {
        length = i2d_PKCS12(structure, &encoded);
    }
    PKCS12_free(structure);
    const Buffer result = length > 0 ? Buffer(encoded, static_cast<unsigned int>(length), false) : input;
    OPENSSL_free(encoded);
    ERR_clear_error();
    return result;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) {
        return 0;
    }
    const bool fits = (data[0] & 1U) != 0;
    return fuzz::run(data + 1, size - 1,
                     [fits](const Buffer& input) {
                         MemoryBIO source(fits ? withMac(input) : input);
                         Norvane::Crypto::PKCS12::Store store(source);
                         store.read(password);
                         if (!store.certificate().isNull()) {
                             NVX509::CertificateFactory()(store.certificate(), true)->warm();
                         }
                         Buffer out;
                         if (!store.privateKey().isNull()) {
                             store.privateKey()->write(out, false);
                         }
                     },
                     {.constant = fuzz::passwords});
}
