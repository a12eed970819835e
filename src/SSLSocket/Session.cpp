#include "NorvSSL/HostName.h"
#include "failures/Raise.h"
#include "openssl/SessionValues.h"

#include <norvcrypto/SSLSocket.h>

namespace Norvane::Crypto::NVSSL {

namespace {

HostCheck checked(const std::string& hostName, const NVX509::RefCertificate& certificate) {
    if (hostName.empty()) {
        return HostCheck::notAsked;
    }
    if (certificate.isNull()) {
        return HostCheck::noCertificate;
    }
    return isIssuedTo(certificate, hostName) ? HostCheck::matches : HostCheck::differs;
}

} // namespace

SessionFacts SSLSocketImpl::session() const {
    if (m_ssl == nullptr || SSL_is_init_finished(m_ssl) == 0) {
        failures::raise<SocketException>(failures::sslNotConnected, "not connected");
    }
    const NVX509::CertificateFactory certificates;
    SessionFacts facts;
    facts.protocol = SSL_get_version(m_ssl);
    facts.cipher = SSL_get_cipher_name(m_ssl);
    facts.cipherBits = SSL_get_cipher_bits(m_ssl, nullptr);
    facts.group = openssl::groupOf(m_ssl);
    if (X509* peer = SSL_get0_peer_certificate(m_ssl); peer != nullptr) {
        X509_up_ref(peer);
        facts.certificate = certificates(peer, true);
    }
    for (auto& certificate : openssl::certificatesOf(m_ssl)) {
        facts.chain.push_back(certificates(certificate.release(), true));
    }
    facts.verifyResult = SSL_get_verify_result(m_ssl);
    facts.verifyText = X509_verify_cert_error_string(facts.verifyResult);
    facts.hostCheck = checked(SSL_is_server(m_ssl) != 0 ? "" : options().hostName, facts.certificate);
    facts.serverName = openssl::serverNameOf(m_ssl);
    facts.applicationProtocol = openssl::applicationProtocolOf(m_ssl);
    facts.isResumed = SSL_session_reused(m_ssl) == 1;
    return facts;
}

} // namespace Norvane::Crypto::NVSSL
