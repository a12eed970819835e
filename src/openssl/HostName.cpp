#include "openssl/HostName.h"

#include <openssl/x509_vfy.h>
#include <openssl/x509v3.h>

#include <cstdint>

namespace Norvane::Crypto::openssl {

namespace {

constexpr unsigned int flags = X509_CHECK_FLAG_NEVER_CHECK_SUBJECT | X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS;

const unsigned char* bytesOf(const std::string& octets) {
    return reinterpret_cast<const unsigned char*>(octets.data());
}

} // namespace

bool isIssuedTo(X509* certificate, const Host& host) {
    return (host.name.empty() ? X509_check_ip(certificate, bytesOf(host.octets), host.octets.size(), 0)
                              : X509_check_host(certificate, host.name.data(), host.name.size(), flags, nullptr)) == 1;
}

bool expectHost(SSL* ssl, const Host& host, bool send) {
    X509_VERIFY_PARAM* expected = SSL_get0_param(ssl);
    X509_VERIFY_PARAM_set_hostflags(expected, flags);
    if (host.name.empty()) {
        return X509_VERIFY_PARAM_set1_ip(expected, bytesOf(host.octets), host.octets.size()) == 1;
    }
    return X509_VERIFY_PARAM_set1_host(expected, host.name.data(), host.name.size()) == 1 &&
           (!send || SSL_set_tlsext_host_name(ssl, host.name.c_str()) == 1);
}

void insistOnCertificate(SSL* ssl, bool client) {
    SSL_set_verify(ssl, client ? SSL_VERIFY_PEER : SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT,
                   SSL_get_verify_callback(ssl));
    if (!client) {
        const auto context = reinterpret_cast<std::uintptr_t>(SSL_get_SSL_CTX(ssl));
        SSL_set_session_id_context(ssl, reinterpret_cast<const unsigned char*>(&context), sizeof context);
    }
}

void forgetSession(SSL* ssl) {
    SSL_CTX_remove_session(SSL_get_SSL_CTX(ssl), SSL_get_session(ssl));
}

} // namespace Norvane::Crypto::openssl
