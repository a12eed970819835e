#include "Platform.h"
#include "openssl/ErrorQueue.h"
#include "openssl/Idea.h"

#include <norvcrypto/Crypto.h>

#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/ssl.h>

namespace Norvane {

template class RefCounted<Crypto::Tracer>;
template class Ref<Crypto::Tracer>;

} // namespace Norvane

namespace Norvane::Crypto {

void initialize() {
    openssl_init_with_rng();
    OpenSSL_add_all_ciphers();
    openssl::addIdea();
    OpenSSL_add_all_digests();
    SSL_library_init();
    SSL_load_error_strings();
}

void cleanup() {
    // All three do nothing in the installed OpenSSL. OPENSSL_cleanup() would do more, but nothing could start again.
    ERR_free_strings();
    EVP_cleanup();
    CRYPTO_cleanup_all_ex_data();
}

std::string getErrString() {
    return openssl::drainErrorQueue();
}

Tracer::Tracer() = default;
Tracer::~Tracer() = default;

TracerRef::TracerRef() = default;
TracerRef::~TracerRef() = default;
TracerRef::TracerRef(const TracerRef& other) = default;
TracerRef& TracerRef::operator=(const TracerRef& other) = default;

} // namespace Norvane::Crypto
