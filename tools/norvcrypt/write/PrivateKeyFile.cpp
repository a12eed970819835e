#include "write/PrivateKeyFile.h"
#include "base/Failure.h"
#include "openssl/OpenSsl.h"

#include <norvcrypto/Crypto.h>

#include <openssl/pem.h>

namespace norvcrypt {

void writePrivateKey(const Norvane::Crypto::RefKey& key, const std::optional<std::string_view>& passphrase,
                     OutputFile& out) {
    const BioPtr pem(BIO_new(BIO_s_mem()));
    const EVP_CIPHER* const cipher = passphrase ? EVP_aes_256_cbc() : nullptr;
    const std::string_view secret = passphrase.value_or("");
    if (!pem || PEM_write_bio_PKCS8PrivateKey(pem.get(), key, cipher, secret.data(), static_cast<int>(secret.size()),
                                              nullptr, nullptr) != 1)
        throw Failure("cannot encode the private key: " + inPlainWords(Norvane::Crypto::getErrString()));
    // OpenSSL wipes its buffer when it goes.
    char* text = nullptr;
    const long length = BIO_get_mem_data(pem.get(), &text);
    out.write(text, static_cast<std::size_t>(length));
}

} // namespace norvcrypt
