#include "openssl/SessionValues.h"

#include "openssl/ErrorQueue.h"

namespace Norvane::Crypto::openssl {

namespace {

CertificatePtr shared(X509* certificate) {
    X509_up_ref(certificate);
    return CertificatePtr(certificate);
}

} // namespace

std::string groupOf(SSL* ssl) {
    const ErrorMark quiet;
    const auto group = static_cast<int>(SSL_get_negotiated_group(ssl));
    const char* name = group == NID_undef ? nullptr : SSL_group_to_name(ssl, group);
    return name == nullptr ? "" : name;
}

std::string serverNameOf(const SSL* ssl) {
    const char* name = SSL_get_servername(ssl, TLSEXT_NAMETYPE_host_name);
    return name == nullptr ? "" : name;
}

std::string applicationProtocolOf(const SSL* ssl) {
    const unsigned char* name = nullptr;
    unsigned int length = 0;
    SSL_get0_alpn_selected(ssl, &name, &length);
    return {reinterpret_cast<const char*>(name), length};
}

std::vector<CertificatePtr> certificatesOf(const SSL* ssl) {
    std::vector<CertificatePtr> all;
    X509* own = SSL_get0_peer_certificate(ssl);
    STACK_OF(X509)* const sent = SSL_get_peer_cert_chain(ssl);
    // Clients are given the server's own certificate as the first of its chain, servers are given the rest alone.
    if (own != nullptr && SSL_is_server(ssl) != 0 && sent != nullptr) {
        all.push_back(shared(own));
    }
    for (int i = 0; i < sk_X509_num(sent); ++i) {
        all.push_back(shared(sk_X509_value(sent, i)));
    }
    return all;
}

} // namespace Norvane::Crypto::openssl
