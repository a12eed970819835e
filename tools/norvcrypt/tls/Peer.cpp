#include "tls/Peer.h"
#include "openssl/CertificateDetails.h"
#include "openssl/OpenSsl.h"

#include <norvcmsg/Exception.h>
#include <norvcrypto/SSLConnection.h>

namespace norvcrypt {

namespace NVX509 = Norvane::Crypto::NVX509;

namespace {

std::string certificateLine(std::size_t number, X509* certificate) {
    const NVX509::RefCertificate handle = NVX509::CertificateFactory()(certificate, false);
    return "peer certificate " + std::to_string(number) + ": " + displayName(handle->subject()) + ", issuer " +
           displayName(handle->issuer()) + ", valid until " +
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
    X509* const certificate = SSL_get0_peer_certificate(connection);
    if (certificate == nullptr)
        return false;
    try {
        return Norvane::Crypto::NVSSL::isIssuedTo(NVX509::CertificateFactory()(certificate, false), host);
    } catch (const Norvane::Exception&) {
        return false; // no host name: an address with an interface
    }
}

TlsEnd endOf(const SSL* connection) {
    const auto* const alert = static_cast<const char*>(SSL_get_app_data(connection));
    if (alert != nullptr)
        return {false, alert};
    return {(SSL_get_shutdown(connection) & SSL_RECEIVED_SHUTDOWN) != 0, {}};
}

} // namespace norvcrypt
