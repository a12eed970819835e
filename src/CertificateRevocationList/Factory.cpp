#include "Certificate/FileContent.h"
#include "openssl/Decode.h"
#include "openssl/ErrorQueue.h"
#include "openssl/Pem.h"
#include "openssl/Pointers.h"

#include <norvcrypto/BIO.h>
#include <norvcrypto/CertificateRevocationList.h>

#include <openssl/pem.h>

#include <limits>
#include <memory>

namespace Norvane::Crypto::NVX509 {

CertificateRevocationListFactory::CertificateRevocationListFactory() = default;
CertificateRevocationListFactory::~CertificateRevocationListFactory() = default;

RefCertificateRevocationList CertificateRevocationListFactory::operator()(X509_crl_st* list, bool own) const {
    openssl::CrlPtr taken(own ? list : nullptr); // taken over even if there is no memory for the body
    auto body = std::make_unique<CertificateRevocationList>(list);
    body->m_owned = own;
    static_cast<void>(taken.release());
    return RefCertificateRevocationList(body.release());
}

RefCertificateRevocationList CertificateRevocationListFactory::readPEM(const Buffer& pem) const {
    if (pem.length() > static_cast<unsigned int>(std::numeric_limits<int>::max())) {
        return {}; // more than a memory BIO takes
    }
    const openssl::ErrorMark mark;
    MemoryBIO source(pem);
    openssl::CrlPtr list(PEM_read_bio_X509_CRL(source, nullptr, openssl::refusePassphrase, nullptr));
    return list ? operator()(list.release(), true) : RefCertificateRevocationList();
}

RefCertificateRevocationList CertificateRevocationListFactory::readDER(const Buffer& der) const {
    X509_CRL* list = openssl::decode<d2i_X509_CRL>(der.data(), der.length());
    return list != nullptr ? operator()(list, true) : RefCertificateRevocationList();
}

RefCertificateRevocationList CertificateRevocationListFactory::read(const Buffer& bytes) const {
    return startsAsDer(bytes) ? readDER(bytes) : readPEM(bytes);
}

RefCertificateRevocationList CertificateRevocationListFactory::read(const File::Path& path) const {
    const auto content = fileContent(path);
    return content ? read(*content) : RefCertificateRevocationList();
}

RefCertificateRevocationList CertificateRevocationListFactory::read(const std::string& path) const {
    return read(File::Path(path));
}

} // namespace Norvane::Crypto::NVX509
