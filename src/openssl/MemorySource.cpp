#include "openssl/MemorySource.h"

#include "openssl/ErrorQueue.h"

#include <openssl/bioerr.h>
#include <openssl/err.h>

#include <limits>

namespace Norvane::Crypto::openssl {

BioPtr memorySource(const void* bytes, unsigned int length) {
    if (length > static_cast<unsigned int>(std::numeric_limits<int>::max())) {
        queueError("BIO_new_mem_buf", ERR_LIB_BIO, BIO_R_INVALID_ARGUMENT);
        return nullptr;
    }
    return BioPtr(BIO_new_mem_buf(bytes, static_cast<int>(length)));
}

} // namespace Norvane::Crypto::openssl
