#include "openssl/Encode.h"

#include "openssl/ErrorQueue.h"

#include <openssl/err.h>

#include <algorithm>

namespace Norvane::Crypto::openssl {

OwnedMemory<unsigned char> encodeItem(const void* value, const ASN1_ITEM* item, int& length) noexcept {
    const auto* const object = static_cast<const ASN1_VALUE*>(value);
    length = object == nullptr ? 0 : std::max(ASN1_item_i2d(object, nullptr, item), 0);
    if (length == 0) {
        return nullptr;
    }
    OwnedMemory<unsigned char> encoded(static_cast<unsigned char*>(OPENSSL_malloc(static_cast<std::size_t>(length))));
    unsigned char* end = encoded.get();
    if (encoded == nullptr || ASN1_item_i2d(object, &end, item) != length || end != encoded.get() + length) {
        queueError("ASN1_item_i2d", ERR_LIB_ASN1, ERR_R_MALLOC_FAILURE);
        length = 0;
    }
    return encoded;
}

} // namespace Norvane::Crypto::openssl
