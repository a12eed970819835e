#include <norvcrypto/CertificateRevocationList.h>

#include <openssl/x509.h>

namespace Norvane::Crypto::NVX509 {

const RefExtension CertificateRevocationListInfo::m_empty;

CertificateRevocationListInfo::CertificateRevocationListInfo(const X509_crl_st* list) : m_list(list) {}
CertificateRevocationListInfo::CertificateRevocationListInfo(const CertificateRevocationListInfo& other) = default;
CertificateRevocationListInfo& CertificateRevocationListInfo::operator=(const CertificateRevocationListInfo& other) =
    default;
CertificateRevocationListInfo::~CertificateRevocationListInfo() = default;

const DistinguishedName& CertificateRevocationListInfo::issuer() const {
    return detail::fillWhenEmpty(m_issuer, [this](auto& name) {
        if (m_list != nullptr) {
            name = DistinguishedName(X509_CRL_get_issuer(m_list));
        }
    });
}

const std::list<RefExtension>& CertificateRevocationListInfo::extensions() const {
    return detail::fillWhenEmpty(m_extensions, [this](auto& list) {
        const int count = m_list == nullptr ? 0 : X509_CRL_get_ext_count(m_list);
        for (int i = 0; i < count; ++i) {
            list.emplace_back(X509_CRL_get_ext(m_list, i));
        }
    });
}

const RefExtension& CertificateRevocationListInfo::find(const ASN1::RefObjectIdentifier& identifier) const {
    for (const auto& extension : extensions()) {
        if (!extension.isNull() && extension->identifier() == identifier) {
            return extension;
        }
    }
    return m_empty;
}

const RefAuthorityKeyIdentifier& CertificateRevocationListInfo::authorityKeyIdentifier() const {
    return detail::fillWhenEmpty(m_authorityKeyIdentifier, [this](auto& identifier) {
        if (m_withoutAuthorityKey) {
            return; // whoever made the list chose how many extensions would be searched; a warmed list is only read
        }
        if (const auto& extension = find(ASN1::RefObjectIdentifier(std::string("2.5.29.35"))); !extension.isNull()) {
            identifier = extension;
        } else {
            m_withoutAuthorityKey = true;
        }
    });
}

} // namespace Norvane::Crypto::NVX509
