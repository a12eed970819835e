#include <norvcrypto/Certificate.h>

#include <openssl/x509.h>

#include <boost/make_shared.hpp>

namespace Norvane::Crypto::NVX509 {

StackOfCertificate::StackOfCertificate() : m_stack(sk_X509_new_null()) {}

StackOfCertificate::~StackOfCertificate() {
    sk_X509_free(m_stack);
}

const std::list<RefCertificate>& StackOfCertificate::certificates() const {
    return m_certificates;
}

void StackOfCertificate::add(const RefCertificate& certificate) {
    if (m_stack == nullptr) {
        return;
    }
    m_certificates.push_back(certificate);
    if (x509_st* x509 = certificate; x509 != nullptr) {
        sk_X509_push(m_stack, x509);
    }
}

stack_st_X509* StackOfCertificate::stack() const {
    return m_stack;
}

RefStackOfCertificate::RefStackOfCertificate()
    : boost::shared_ptr<StackOfCertificate>(boost::make_shared<StackOfCertificate>()) {}

RefStackOfCertificate::RefStackOfCertificate(const std::list<RefCertificate>& certificates) : RefStackOfCertificate() {
    for (const auto& certificate : certificates) {
        get()->add(certificate);
    }
}

RefStackOfCertificate::operator stack_st_X509*() const {
    return get() == nullptr ? nullptr : get()->stack();
}

} // namespace Norvane::Crypto::NVX509
