#include <norvcrypto/CertificateRevocationList.h>

#include "Certificate/ExtensionWarming.h"
#include "Certificate/Writing.h"
#include "openssl/CrlFields.h"
#include "openssl/ErrorQueue.h"

#include <openssl/pem.h>

namespace Norvane {
template class RefCounted<Crypto::NVX509::CertificateRevocationList>;
template class Ref<Crypto::NVX509::CertificateRevocationList>;
} // namespace Norvane

namespace Norvane::Crypto::NVX509 {

CertificateRevocationList::CertificateRevocationList(X509_crl_st* list)
    : m_list(list),
      m_info(nullptr),
      m_idp(nullptr) {
    auto scope = openssl::crlScope(m_list);
    m_idpFlags = scope.flags;
    m_idpReasons = scope.reasons;
    m_decodedIdp.reset(scope.point.release());
    m_idp = IssuingDistributionPoint(m_decodedIdp.get());
    m_idp.reasons(m_idpReasons);
}

CertificateRevocationList::~CertificateRevocationList() {
    if (m_owned) {
        X509_CRL_free(m_list);
    }
}

const CertificateRevocationListInfo& CertificateRevocationList::crlInfo() const {
    if (m_info.isNull() && m_list != nullptr) {
        m_info = CertificateRevocationListInfo(m_list);
    }
    return m_info;
}

const IssuingDistributionPoint& CertificateRevocationList::issuingDistributionPoint() const {
    return m_idp;
}

const ASN1::Integer& CertificateRevocationList::number(ASN1::RefInteger& cache, int nid) const {
    detail::fillWhenEmpty(cache, [&](auto& slot) {
        if (const auto decoded = openssl::crlInteger(m_list, nid)) {
            slot = ASN1::RefInteger(ASN1::Integer(decoded.get())); // a copy that owns
        }
    });
    return cache.isNull() ? m_noNumber : static_cast<const ASN1::Integer&>(*cache);
}

const ASN1::Integer& CertificateRevocationList::crlNumber() const {
    return number(m_crlNumber, NID_crl_number);
}

const ASN1::Integer& CertificateRevocationList::baseCRLNumber() const {
    return number(m_baseCRLNumber, NID_delta_crl);
}

namespace {

template <class GetTime>
const ASN1::RefGeneralizedTime& updateTime(ASN1::RefGeneralizedTime& cache, const X509_CRL* list, GetTime getTime) {
    return detail::fillWhenEmpty(cache, [&](auto& slot) {
        if (const ASN1_TIME* time = list == nullptr ? nullptr : getTime(list); time != nullptr) {
            slot = ASN1::RefGeneralizedTime(time, false);
        }
    });
}

} // namespace

const ASN1::RefGeneralizedTime& CertificateRevocationList::lastUpdate() const {
    return updateTime(m_lastUpdate, m_list, X509_CRL_get0_lastUpdate);
}

const ASN1::RefGeneralizedTime& CertificateRevocationList::nextUpdate() const {
    return updateTime(m_nextUpdate, m_list, X509_CRL_get0_nextUpdate);
}

bool CertificateRevocationList::carries(detail::TriState& cache, const char* identifier) const {
    if (m_list == nullptr) {
        return false;
    }
    return detail::answerOnce(
        cache, [&] { return !crlInfo().find(ASN1::RefObjectIdentifier(std::string(identifier))).isNull(); });
}

bool CertificateRevocationList::isDeltaCRL() const {
    return carries(m_delta, "2.5.29.27");
}

bool CertificateRevocationList::isFreshestCRL() const {
    return carries(m_freshest, "2.5.29.46");
}

bool CertificateRevocationList::issuedBy(const RefCertificate& issuer, bool checkKeyUsage) const {
    const auto& info = crlInfo();
    if (info.isNull() || issuer.isNull() || info.issuer() != issuer->subject()) {
        return false;
    }
    const auto& authorityKey = info.authorityKeyIdentifier();
    if (!authorityKey.isNull() && authorityKey->keyId() != issuer->subjectKeyIdentifier()) {
        return false;
    }
    return !checkKeyUsage || (issuer->keyUsage() & KU_CRL_SIGN) != 0;
}

void CertificateRevocationList::writeDER(MediaOut& out) {
    writeTo<X509_CRL>(out, m_list, i2d_X509_CRL_bio);
}

void CertificateRevocationList::writePEM(MediaOut& out) {
    writeTo<X509_CRL>(out, m_list, PEM_write_bio_X509_CRL);
}

void CertificateRevocationList::warm() const {
    const Synchronized lock(Certificate::m_Mutex);
    const openssl::ErrorMark mark;
    const auto& info = crlInfo();
    warmName(info.issuer());
    warmExtensionList(info.extensions());
    warmExtension(info.authorityKeyIdentifier());
    warmPointName(m_idp.distributionPointName());
    warmInteger(crlNumber());
    warmInteger(baseCRLNumber());
    warmTime(lastUpdate());
    warmTime(nextUpdate());
    static_cast<void>(isDeltaCRL());
    static_cast<void>(isFreshestCRL());
}

RefCertificateRevocationList::RefCertificateRevocationList() = default;
RefCertificateRevocationList::RefCertificateRevocationList(CertificateRevocationList* list) : Ref(adoptBody(list)) {}
RefCertificateRevocationList::RefCertificateRevocationList(const RefCertificateRevocationList& other) = default;
RefCertificateRevocationList& RefCertificateRevocationList::operator=(const RefCertificateRevocationList& other) =
    default;
RefCertificateRevocationList::~RefCertificateRevocationList() = default;

RefCertificateRevocationList::operator X509_crl_st*() const {
    const auto* list = bodyOrNull();
    return list == nullptr ? nullptr : list->m_list;
}

bool RefCertificateRevocationList::operator==(const RefCertificateRevocationList& /*other*/) const {
    return false;
}

} // namespace Norvane::Crypto::NVX509
