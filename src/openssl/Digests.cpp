#include "openssl/Digests.h"

#include "openssl/ErrorQueue.h"

#include <openssl/objects.h>

#include <array>
#include <atomic>
#include <cstddef>

namespace Norvane::Crypto::openssl {

std::string shortName(int nid) {
    const ErrorMark quiet;
    const char* name = OBJ_nid2sn(nid);
    return name == nullptr ? "" : name;
}

const EVP_MD* digestByNid(int nid) {
    // A digest found by name is a constant of OpenSSL's. It is remembered: looking it up takes as long as a tenth of
    // digesting a short text. The numbers above are those that programs add.
    static std::array<std::atomic<const EVP_MD*>, 1200> found;
    const auto index = static_cast<std::size_t>(nid);
    const bool isRemembered = nid > 0 && index < found.size();
    if (isRemembered) {
        if (const EVP_MD* digest = found[index].load(std::memory_order_relaxed)) {
            return digest;
        }
    }
    const ErrorMark quiet;
    const char* name = OBJ_nid2sn(nid);
    const EVP_MD* digest = name == nullptr || *name == '\0' ? nullptr : EVP_get_digestbyname(name);
    if (isRemembered) {
        found[index].store(digest, std::memory_order_relaxed);
    }
    return digest;
}

} // namespace Norvane::Crypto::openssl
