#include "openssl/ErrorQueue.h"
#include "openssl/Pointers.h"

#include <norvcrypto/Certificate.h>

#include <algorithm>
#include <cstddef>

namespace Norvane::Crypto::NVX509 {

namespace {

/// The DER of a certificate; null, of length 0, for none.
struct Encoding {
    explicit Encoding(const X509* x509) {
        unsigned char* encoded = nullptr;
        const int result = x509 == nullptr ? 0 : i2d_X509(x509, &encoded);
        bytes.reset(encoded);
        length = static_cast<std::size_t>(std::max(0, result));
    }

    openssl::OwnedMemory<unsigned char> bytes;
    std::size_t length;
};

} // namespace

bool sameEncoding(const RefCertificate& left, const RefCertificate& right) {
    const openssl::ErrorMark mark;
    const Encoding mine(left);
    const Encoding theirs(right);
    return mine.length > 0 && std::equal(mine.bytes.get(), mine.bytes.get() + mine.length, theirs.bytes.get(),
                                         theirs.bytes.get() + theirs.length);
}

} // namespace Norvane::Crypto::NVX509
