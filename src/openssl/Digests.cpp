#include "openssl/Digests.h"

#include "openssl/ErrorQueue.h"

#include <openssl/objects.h>

namespace Norvane::Crypto::openssl {

std::string shortName(int nid) {
    const ErrorMark quiet;
    const char* name = OBJ_nid2sn(nid);
    return name == nullptr ? "" : name;
}

const EVP_MD* digestByNid(int nid) {
    const ErrorMark quiet;
    const std::string name = shortName(nid);
    return name.empty() ? nullptr : EVP_get_digestbyname(name.c_str());
}

} // namespace Norvane::Crypto::openssl
