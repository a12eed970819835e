#include "Platform.h"
#include "openssl/Locking.h"
#include "openssl/Tls.h"

#include <norvcrypto/NorvSSL.h>

#include <openssl/x509_vfy.h>

#include <vector>

namespace Norvane {

namespace {

namespace openssl = Crypto::openssl;

constexpr const char* keyFile = "/migadmin/etc/cert/server/apps/server.key";
constexpr const char* chainFile = "/migadmin/etc/cert/server/apps/server.crt";
constexpr const char* trustedFile = "/etc/cacert.pem";
constexpr const char* trustedDirectory = "/migadmin/etc/cert/server/ca";
constexpr const char* crlDirectory = "/migadmin/etc/cert/server/crl";

SSL_CTX* s_shared = nullptr;
norvSSL_CTX::NORV_SSL_CTX_TYPE s_type = norvSSL_CTX::NORV_SSL_CTX_SERVER;

/// Every context that was ever shared, so that those that were replaced stay within reach: connections may be made on
/// one in this moment.
std::vector<SSL_CTX*>& sharedContexts() {
    static auto& all = *new std::vector<SSL_CTX*>;
    return all;
}

/// An issuer that has no list on file passes; whatever else is wrong stays wrong.
int passMissingCrl(int ok, X509_STORE_CTX* store) {
    if (ok == 0 && X509_STORE_CTX_get_error(store) == X509_V_ERR_UNABLE_TO_GET_CRL) {
        X509_STORE_CTX_set_error(store, X509_V_OK);
        return 1;
    }
    return ok;
}

/// Verifies the chain, and lets the handshake go on when that failed: SSL_get_verify_result tells.
int verifyLeniently(X509_STORE_CTX* store, void* /*argument*/) {
    const int result = X509_verify_cert(store);
    return result != 0 ? result : 1;
}

void checkRevocation(SSL_CTX* context) {
    X509_STORE* store = SSL_CTX_get_cert_store(context);
    X509_STORE_set_flags(store, X509_V_FLAG_CRL_CHECK | X509_V_FLAG_CRL_CHECK_ALL);
    X509_STORE_set_verify_cb(store, passMissingCrl);
    SSL_CTX_load_verify_locations(context, nullptr, crlDirectory); // without the directory no issuer has a list
}

bool loadIdentity(SSL_CTX* context) {
    return SSL_CTX_use_PrivateKey_file(context, keyFile, SSL_FILETYPE_PEM) == 1 &&
           SSL_CTX_use_certificate_chain_file(context, chainFile) == 1 && SSL_CTX_check_private_key(context) == 1;
}

/// Asks peers for their certificates; without the trusted ones it asks for none.
void verifyPeers(SSL_CTX* context) {
    if (SSL_CTX_load_verify_locations(context, trustedFile, trustedDirectory) != 1) {
        return;
    }
    SSL_CTX_set_verify(context, SSL_VERIFY_PEER, nullptr);
    SSL_CTX_set_cert_verify_callback(context, verifyLeniently, nullptr);
    SSL_CTX_set_client_CA_list(context, SSL_load_client_CA_file(trustedFile));
}

} // namespace

int norvSSL_CTX::init(NORV_SSL_CTX_TYPE type) {
    openssl::installLocking();
    s_type = type;
    s_shared = nullptr;
    auto context = openssl::newSslContext(
        openssl::Protocol::negotiated, s_type == NORV_SSL_CTX_SERVER ? openssl::Side::server : openssl::Side::client);
    if (context == nullptr) {
        return 0;
    }
    checkRevocation(context.get());
    SSL_CTX_set_options(context.get(), ssl_version_options());
    if (!loadIdentity(context.get())) {
        return 0;
    }
    SSL_CTX_set_options(context.get(), SSL_OP_ALL);
    SSL_CTX_set_session_cache_mode(context.get(), SSL_SESS_CACHE_OFF);
    verifyPeers(context.get());
    sharedContexts().push_back(context.get());
    s_shared = context.release();
    return 0;
}

ssl_st* norvSSL_CTX::norvSSL_new() {
    return s_shared == nullptr ? nullptr : SSL_new(s_shared);
}

} // namespace Norvane
