#include "failures/Raise.h"
#include "openssl/PeerMessages.h"

#include <norvcrypto/NorvSSL.h>

#include <openssl/err.h>
#include <openssl/ssl.h>

#include <utility>

namespace Norvane {
template class RefCounted<Crypto::NVSSL::Context>;
template class Ref<Crypto::NVSSL::Context>;
} // namespace Norvane

namespace Norvane::Crypto::NVSSL {

namespace {

/// Calls `function` with the context and what is to be loaded into it. OpenSSL would crash on a null context, and keep
/// a null certificate in the chain to crash on it later: both are refused here, in OpenSSL's own words.
template <class Function, class Object>
void load(const char* name, Function function, SSL_CTX* context, Object* object, const failures::Failure& failure) {
    ERR_clear_error();
    if (context == nullptr || object == nullptr) {
        openssl::queueError(name, ERR_LIB_SSL, ERR_R_PASSED_NULL_PARAMETER);
        failures::raiseWithErrors(failure);
    }
    if (function(context, object) != 1) {
        failures::raiseWithErrors(failure);
    }
}

} // namespace

Context::Context(ssl_ctx_st* context) : m_context(context) {}

Context::~Context() {
    SSL_CTX_free(std::exchange(m_context, nullptr));
}

bool Context::privateKeyIsValid() const {
    const openssl::ErrorMark quiet;
    return SSL_CTX_check_private_key(m_context) == 1;
}

void Context::privateKey(const RefKey& key) {
    load("SSL_CTX_use_PrivateKey", SSL_CTX_use_PrivateKey, m_context, static_cast<evp_pkey_st*>(key),
         failures::contextPrivateKey);
}

void Context::certificate(const NVX509::RefCertificate& certificate) {
    load("SSL_CTX_use_certificate", SSL_CTX_use_certificate, m_context, static_cast<x509_st*>(certificate),
         failures::contextCertificate);
}

void Context::appendToCertificatePath(const NVX509::RefCertificate& certificate) {
    const auto append = [](SSL_CTX* context, X509* x509) { return SSL_CTX_add_extra_chain_cert(context, x509); };
    load("SSL_CTX_ctrl", append, m_context, static_cast<x509_st*>(certificate), failures::contextAppendToPath);
}

void Context::certificatePath(const std::list<NVX509::RefCertificate>& path) {
    for (auto at = path.begin(); at != path.end(); ++at) {
        if (at == path.begin()) {
            certificate(*at);
        } else {
            appendToCertificatePath(*at);
        }
    }
}

void refuseCostlyMessages(int isWritten, int /*version*/, int contentType, const void* bytes, std::size_t length,
                          ssl_st* connection, void* /*argument*/) noexcept {
    openssl::refuseCostlyMessage(isWritten != 0, contentType, bytes, length, connection);
}

RefContext::RefContext() = default;
RefContext::RefContext(Context* body) : Ref(adoptBody(body)) {}
RefContext::RefContext(const RefContext& other) = default;
RefContext& RefContext::operator=(const RefContext& other) = default;
RefContext::~RefContext() = default;

RefContext::operator ssl_ctx_st*() const {
    const Context* body = bodyOrNull();
    return body == nullptr ? nullptr : body->sslContext();
}

} // namespace Norvane::Crypto::NVSSL
