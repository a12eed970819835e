#include "Certificate/FileContent.h"

#include "openssl/Decode.h"
#include "openssl/ErrorQueue.h"
#include "openssl/Pem.h"
#include "openssl/Pointers.h"

#include <norvcrypto/BIO.h>
#include <norvcrypto/Certificate.h>

#include <limits>
#include <memory>

namespace Norvane::Crypto::NVX509 {

CertificateFactory::CertificateFactory() = default;
CertificateFactory::~CertificateFactory() = default;

RefCertificate CertificateFactory::operator()(x509_st* x509, bool own) const {
    openssl::CertificatePtr taken(own ? x509 : nullptr); // taken over even if there is no memory for the body
    auto body = std::make_unique<Certificate>(x509);
    if (body->m_x509 != nullptr) { // else the body refused it
        body->m_owned = own;
        static_cast<void>(taken.release());
    }
    return RefCertificate(body.release());
}

RefCertificate CertificateFactory::readDER(const Buffer& der) const {
    X509* x509 = openssl::decodeAccepted<d2i_X509>(der.data(), der.length());
    return x509 != nullptr ? operator()(x509, true) : RefCertificate();
}

void CertificateFactory::readPem(const Buffer& pem, std::list<RefCertificate>& certificates) const {
    if (pem.length() > static_cast<unsigned int>(std::numeric_limits<int>::max())) {
        return; // more than a memory BIO takes
    }
    const openssl::ErrorMark mark;
    MemoryBIO source(pem);
    for (;;) {
        openssl::CertificatePtr x509 = openssl::readCertificatePem(source);
        if (!x509) {
            return;
        }
        certificates.push_back(operator()(x509.release(), true));
    }
}

void CertificateFactory::read(const Buffer& bytes, std::list<RefCertificate>& certificates) const {
    if (!startsAsDer(bytes)) {
        readPem(bytes, certificates);
    }
    certificates.push_back(readDER(bytes));
}

void CertificateFactory::read(const File::Path& path, std::list<RefCertificate>& certificates) const {
    if (const auto content = fileContent(path)) {
        read(*content, certificates);
    }
}

void CertificateFactory::read(const std::string& path, std::list<RefCertificate>& certificates) const {
    read(File::Path(path), certificates);
}

} // namespace Norvane::Crypto::NVX509
