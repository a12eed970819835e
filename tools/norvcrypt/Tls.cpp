#include "Tls.h"
#include "Facts.h"
#include "Material.h"
#include "OpenSsl.h"

#include <norvcmsg/Escape.h>
#include <norvcmsg/IPAddress.h>
#include <norvcrypto/Crypto.h>

#include <filesystem>
#include <list>
#include <memory>
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

/// Watches a connection: tells of its start, and remembers the alert with which a peer gives up, which reads like an
/// orderly end.
void watch(const SSL* connection, int where, int value) {
    SSL* const changed = const_cast<SSL*>(connection);
    const auto flags = static_cast<unsigned int>(where);
    if ((flags & SSL_CB_HANDSHAKE_START) != 0)
        (*static_cast<const TlsStart*>(SSL_CTX_get_app_data(SSL_get_SSL_CTX(connection))))(changed);
    const bool isFatal = value >> 8 == SSL3_AL_FATAL;
    if ((flags & SSL_CB_READ_ALERT) == SSL_CB_READ_ALERT && isFatal)
        SSL_set_app_data(changed, const_cast<char*>(alertText(value)));
}

void loadIdentity(const NVSSL::RefContext& context, const TlsFiles& files) {
    Inputs inputs;
    const auto passphrase = files.passphraseFile ? std::make_unique<Passphrase>(inputs, *files.passphraseFile)
                                                 : std::make_unique<Passphrase>();
    try {
        const std::list<NVX509::RefCertificate> chain = readCertificates(inputs, *files.certificate);
        context->privateKey(readPrivateKey(inputs, *files.key, *passphrase));
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

std::string certificateLine(std::size_t number, X509* certificate) {
    const NVX509::RefCertificate handle = NVX509::CertificateFactory()(certificate, false);
    return "peer certificate " + std::to_string(number) + ": " + handle->subject().asString() + ", issuer " +
           handle->issuer().asString() + ", valid until " +
           isoTime(X509_get0_notAfter(certificate)).value_or("no proper time") + ", SHA-256 " + fingerprint(handle);
}

/// The peer's own certificate first; a client's chain holds it, a server's does not.
std::vector<X509*> peerChain(SSL* connection) {
    std::vector<X509*> chain;
    if (X509* const own = SSL_get0_peer_certificate(connection); own != nullptr)
        chain.push_back(own);
    const STACK_OF(X509)* const sent = SSL_get_peer_cert_chain(connection);
    for (int at = 0; at < sk_X509_num(sent); ++at)
        if (X509* const each = sk_X509_value(sent, at); at > 0 || chain.empty() || X509_cmp(each, chain.front()) != 0)
            chain.push_back(each);
    return chain;
}

} // namespace

void addTlsFiles(CLI::App& command, TlsFiles& files, TlsSide side) {
    CLI::Option* const certificate =
        command
            .add_option("--cert", files.certificate, "The own certificate; further ones in the file are sent with it")
            ->type_name("FILE");
    CLI::Option* const key =
        command.add_option("--key", files.key, "The private key of the certificate")->type_name("FILE");
    certificate->needs(key)->required(side == TlsSide::server);
    key->needs(certificate)->required(side == TlsSide::server);
    command.add_option("--passphrase-file", files.passphraseFile, "The key's passphrase is this file's first line")
        ->type_name("FILE")
        ->needs(key);
    command
        .add_option("--ca", files.ca,
                    side == TlsSide::client
                        ? "The trusted certificates, PEM; without it those that this machine trusts"
                        : "The trusted certificates, PEM; their names are sent to clients; without it none is trusted")
        ->type_name("FILE");
    command
        .add_option("--crl", files.crl,
                    "A directory of revocation lists as openssl rehash files them; who has no list passes")
        ->type_name("DIR");
}

void addTimeLimit(CLI::App& command, unsigned int& seconds, const std::string& help) {
    command.add_option("--time-limit", seconds, help)
        ->type_name("SECONDS")
        ->check(CLI::Range(0U, 86400U))
        ->capture_default_str();
}

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

std::string openSslReasons() {
    const std::string reasons = Norvane::Crypto::getErrString();
    return reasons.substr(0, reasons.find_last_not_of("; ") + 1); // they end like a list that goes on
}

std::string reasonOf(const Norvane::Exception& failure) {
    const std::string reasons = openSslReasons();
    const std::string text = failure.asString();
    return text.substr(0, text.find_last_not_of("; ") + 1) + (reasons.empty() ? "" : ": " + reasons);
}

std::vector<std::string> describePeer(SSL* connection) {
    std::vector<std::string> lines{std::string("protocol ") + SSL_get_version(connection) + ", cipher " +
                                   SSL_get_cipher_name(connection)};
    const std::vector<X509*> chain = peerChain(connection);
    for (std::size_t at = 0; at < chain.size(); ++at)
        lines.push_back(certificateLine(at + 1, chain[at]));
    if (chain.empty()) {
        lines.emplace_back("no peer certificate");
    } else {
        const long result = SSL_get_verify_result(connection);
        lines.push_back("verify result " + std::to_string(result) + ": " + X509_verify_cert_error_string(result));
    }
    return lines;
}

bool isTrusted(SSL* connection) {
    return SSL_get0_peer_certificate(connection) != nullptr && SSL_get_verify_result(connection) == X509_V_OK;
}

bool isForHost(SSL* connection, const std::string& host) {
    const QuietQuestion quiet;
    X509* const certificate = SSL_get0_peer_certificate(connection);
    if (certificate == nullptr)
        return false;
    return Norvane::IPAddress::fromText(host).isNull()
               ? X509_check_host(certificate, host.data(), host.size(), 0, nullptr) == 1
               : X509_check_ip_asc(certificate, host.c_str(), 0) == 1;
}

TlsEnd endOf(const SSL* connection) {
    const auto* const alert = static_cast<const char*>(SSL_get_app_data(connection));
    if (alert != nullptr)
        return {false, alert};
    return {(SSL_get_shutdown(connection) & SSL_RECEIVED_SHUTDOWN) != 0, {}};
}

void addTls(CLI::App& app, Action& action) {
    CLI::App* tls = app.add_subcommand("tls", "Talks TLS as a client or a server, and checks the files of the server");
    tls->require_subcommand(1);
    addTlsConnect(*tls, action);
    addTlsServe(*tls, action);
    addTlsCheck(*tls, action);
}

} // namespace norvcrypt
