#include "tls/Context.h"
#include "base/Failure.h"
#include "openssl/OpenSsl.h"
#include "openssl/Reasons.h"
#include "read/CertificateFile.h"
#include "read/PrivateKeyFile.h"

#include <filesystem>
#include <list>
#include <memory>
#include <sys/socket.h>
#include <system_error>

namespace norvcrypt {

namespace NVSSL = Norvane::Crypto::NVSSL;
namespace NVX509 = Norvane::Crypto::NVX509;

namespace {

/// As the appliance does: an issuer that has no list on file passes.
int passMissingList(int ok, X509_STORE_CTX* store) {
    if (ok == 0 && X509_STORE_CTX_get_error(store) == X509_V_ERR_UNABLE_TO_GET_CRL) {
        X509_STORE_CTX_set_error(store, X509_V_OK);
        return 1;
    }
    return ok;
}

/// As the appliance does: the handshake goes on, and the result is told.
int verifyAndGoOn(X509_STORE_CTX* store, void* /*argument*/) {
    static_cast<void>(X509_verify_cert(store));
    return 1;
}

/// The text of an alert; OpenSSL's table of alerts is older than some, its errors name all.
const char* alertText(int value) {
    const int reason = SSL_AD_REASON_OFFSET + (value & 0xFF);
    const char* const text = ERR_reason_error_string(ERR_PACK(ERR_LIB_SSL, 0, reason));
    return text != nullptr ? text : SSL_alert_desc_string_long(value);
}

/// A connection whose start cannot be told ends there: no exception may pass through OpenSSL, which calls this.
void tellStart(SSL* connection) noexcept {
    try {
        (*static_cast<const TlsStart*>(SSL_CTX_get_app_data(SSL_get_SSL_CTX(connection))))(connection);
    } catch (...) {
        ::shutdown(SSL_get_fd(connection), SHUT_RDWR);
    }
}

/// Watches a connection: tells of its start, and remembers the alert with which a peer gives up, which reads like an
/// orderly end.
void watch(const SSL* connection, int where, int value) {
    SSL* const changed = const_cast<SSL*>(connection);
    const auto flags = static_cast<unsigned int>(where);
    if ((flags & SSL_CB_HANDSHAKE_START) != 0)
        tellStart(changed);
    const bool isFatal = value >> 8 == SSL3_AL_FATAL;
    if ((flags & SSL_CB_READ_ALERT) == SSL_CB_READ_ALERT && isFatal)
        SSL_set_app_data(changed, const_cast<char*>(alertText(value)));
}

void loadIdentity(const NVSSL::RefContext& context, const TlsFiles& files) {
    Inputs inputs;
    const Passphrase passphrase(inputs, files.passphraseFile);
    try {
        const std::list<NVX509::RefCertificate> chain = readCertificates(inputs, *files.certificate);
        context->privateKey(readPrivateKey(inputs, *files.key, passphrase));
        context->certificate(chain.front());
        for (auto at = std::next(chain.begin()); at != chain.end(); ++at) {
            context->appendToCertificatePath(*at);
            (*at)->relinquishOwnerShip(); // the context frees it now
        }
    } catch (const Norvane::Exception& failure) {
        throw Failure("cannot use the certificate in " + inputName(*files.certificate), failure);
    }
    if (!context->privateKeyIsValid())
        throw Failure("the private key in " + inputName(*files.key) + " is not that of the certificate in " +
                      inputName(*files.certificate));
}

void loadTrust(SSL_CTX* context, const TlsFiles& files, TlsSide side) {
    ERR_clear_error();
    if (files.ca) {
        static_cast<void>(Inputs().open(*files.ca)); // OpenSSL tells of no file only that it is none
        if (SSL_CTX_load_verify_file(context, files.ca->c_str()) != 1)
            throw Failure("cannot read the trusted certificates in " + *files.ca + ": " + openSslReasons());
        if (side == TlsSide::server)
            SSL_CTX_set_client_CA_list(context, SSL_load_client_CA_file(files.ca->c_str()));
    } else if (side == TlsSide::client) {
        SSL_CTX_set_default_verify_paths(context);
    }
    if (files.crl) {
        // OpenSSL would find no list in what is no directory, and say nothing.
        std::error_code error;
        const std::filesystem::directory_iterator readable(*files.crl, error);
        if (error)
            throw Failure("cannot read the lists in " + *files.crl + ": " + error.message());
        if (SSL_CTX_load_verify_dir(context, files.crl->c_str()) != 1)
            throw Failure("cannot read the lists in " + *files.crl + ": " + openSslReasons());
        X509_STORE* const store = SSL_CTX_get_cert_store(context);
        X509_STORE_set_flags(store, X509_V_FLAG_CRL_CHECK | X509_V_FLAG_CRL_CHECK_ALL);
        X509_STORE_set_verify_cb(store, passMissingList);
    }
}

} // namespace

NVSSL::RefContext tlsContext(const TlsFiles& files, TlsSide side, const TlsStart& start) {
    NVSSL::ContextFactory factory;
    factory.init();
    NVSSL::RefContext context = factory.create(NVSSL::ContextFactory::SSL_V23, side == TlsSide::client);
    if (files.certificate)
        loadIdentity(context, files);
    loadTrust(context, files, side);
    SSL_CTX_set_session_cache_mode(context, SSL_SESS_CACHE_OFF);
    SSL_CTX_set_verify(context, SSL_VERIFY_PEER, nullptr);
    SSL_CTX_set_cert_verify_callback(context, verifyAndGoOn, nullptr);
    SSL_CTX_set_app_data(context, const_cast<TlsStart*>(&start));
    SSL_CTX_set_info_callback(context, watch);
    return context;
}

} // namespace norvcrypt
