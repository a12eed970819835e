#include "recognise/DigestNames.h"
#include "base/Failure.h"
#include "openssl/Start.h"

#include <openssl/evp.h>

namespace norvcrypt {

Norvane::Crypto::Hasher::Type digestType(const std::string& name) {
    needAllAlgorithms();
    const EVP_MD* digest = EVP_get_digestbyname(name.c_str());
    if (digest == nullptr)
        throw Failure("unknown digest: " + name);
    return static_cast<Norvane::Crypto::Hasher::Type>(EVP_MD_get_type(digest));
}

} // namespace norvcrypt
