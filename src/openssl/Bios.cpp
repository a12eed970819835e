#include "openssl/Bios.h"

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

BioPtr fileBio(const std::string& path, const std::string& mode) {
    if (path.find('\0') != std::string::npos) {
        queueError("BIO_new_file", ERR_LIB_BIO, BIO_R_INVALID_ARGUMENT);
        return nullptr;
    }
    return BioPtr(BIO_new_file(path.c_str(), mode.c_str()));
}

} // namespace Norvane::Crypto::openssl
