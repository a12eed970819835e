#include <norvcrypto/CRLDistributionPoint.h>

#include "Extension/Names.h"
#include "Extension/TypedRef.h"
#include "openssl/Decode.h"

#include <norvcrypto/detail/Lazy.h>

#include <openssl/x509v3.h>

namespace Norvane::Crypto {

void detail::DistributionPointTraits::free(DIST_POINT_st* point) noexcept {
    DIST_POINT_free(point);
}

void detail::DistributionPointsTraits::free(stack_st_DIST_POINT* points) noexcept {
    CRL_DIST_POINTS_free(points);
}

namespace NVX509 {

CRLDistributionPoint::CRLDistributionPoint(const DIST_POINT_st* point)
    : m_structure(decltype(m_structure)::borrow(point)) {}
CRLDistributionPoint::CRLDistributionPoint(const unsigned char* der, unsigned int length)
    : m_structure(openssl::decode<d2i_DIST_POINT>(der, length), true) {}
CRLDistributionPoint::~CRLDistributionPoint() = default;

const std::list<GeneralName>& CRLDistributionPoint::issuers() const {
    return fillNames(m_issuers, m_structure ? m_structure.get()->CRLissuer : nullptr);
}

unsigned int CRLDistributionPoint::reasons() const {
    if (!m_structure || m_reasons != 0) {
        return m_reasons;
    }
    const ASN1_BIT_STRING* bits = m_structure.get()->reasons;
    if (bits == nullptr) {
        m_reasons = CRLDP_ALL_REASONS;
        return m_reasons;
    }
    const unsigned char* octets = ASN1_STRING_get0_data(bits);
    const int length = ASN1_STRING_length(bits);
    unsigned int reasons = length >= 1 ? octets[0] : 0;
    if (length >= 2) {
        reasons |= static_cast<unsigned int>(octets[1]) << 8U;
    }
    if (reasons != 0) {
        m_reasons = reasons;
    }
    return reasons;
}

const CRLDistributionPointName& CRLDistributionPoint::distributionPointName() const {
    if (m_structure && m_pointName.isNull() && m_structure.get()->distpoint != nullptr) {
        m_pointName = CRLDistributionPointName(m_structure.get()->distpoint);
    }
    return m_pointName;
}

RefCRLDistributionPoint::RefCRLDistributionPoint() = default;
RefCRLDistributionPoint::RefCRLDistributionPoint(const DIST_POINT_st* point)
    : Ref(makeReference<CRLDistributionPoint>(point)) {}
RefCRLDistributionPoint::RefCRLDistributionPoint(const unsigned char* der, unsigned int length)
    : Ref(makeReference<CRLDistributionPoint>(der, length)) {}
RefCRLDistributionPoint::RefCRLDistributionPoint(const RefCRLDistributionPoint& other) = default;
RefCRLDistributionPoint& RefCRLDistributionPoint::operator=(const RefCRLDistributionPoint& other) = default;
RefCRLDistributionPoint::~RefCRLDistributionPoint() = default;

CRLDistributionPoints::CRLDistributionPoints(const unsigned char* der, unsigned int length)
    : Extension("2.5.29.31"),
      m_structure(openssl::decode<d2i_CRL_DIST_POINTS>(der, length), true) {}
CRLDistributionPoints::~CRLDistributionPoints() = default;

const std::list<RefCRLDistributionPoint>& CRLDistributionPoints::distributionPoints() const {
    return Crypto::detail::fillWhenEmpty(m_points, [this](auto& points) {
        for (int i = 0; i < sk_DIST_POINT_num(m_structure.get()); ++i) {
            points.emplace_back(sk_DIST_POINT_value(m_structure.get(), i));
        }
    });
}

RefCRLDistributionPoints::RefCRLDistributionPoints() = default;
RefCRLDistributionPoints::RefCRLDistributionPoints(const unsigned char* der, unsigned int length)
    : TypedRefExtension(makeReference<CRLDistributionPoints, Extension>(der, length)) {}
RefCRLDistributionPoints::RefCRLDistributionPoints(const RefCRLDistributionPoints& other) = default;
RefCRLDistributionPoints& RefCRLDistributionPoints::operator=(const RefCRLDistributionPoints& other) = default;
RefCRLDistributionPoints::~RefCRLDistributionPoints() = default;

template class TypedRefExtension<CRLDistributionPoints>;

IssuingDistributionPoint::IssuingDistributionPoint(const ISSUING_DIST_POINT_st* point) : m_point(point) {}
IssuingDistributionPoint::IssuingDistributionPoint(const IssuingDistributionPoint& other) = default;
IssuingDistributionPoint& IssuingDistributionPoint::operator=(const IssuingDistributionPoint& other) = default;
IssuingDistributionPoint::~IssuingDistributionPoint() = default;

bool IssuingDistributionPoint::onlyUser() const {
    return m_point != nullptr && m_point->onlyuser != 0;
}

bool IssuingDistributionPoint::onlyCA() const {
    return m_point != nullptr && m_point->onlyCA != 0;
}

bool IssuingDistributionPoint::indirectCRL() const {
    return m_point != nullptr && m_point->indirectCRL != 0;
}

bool IssuingDistributionPoint::onlyAttr() const {
    return m_point != nullptr && m_point->onlyattr != 0;
}

const CRLDistributionPointName& IssuingDistributionPoint::distributionPointName() const {
    if (m_point != nullptr && m_pointName.isNull() && m_point->distpoint != nullptr) {
        m_pointName = CRLDistributionPointName(m_point->distpoint);
    }
    return m_pointName;
}

} // namespace NVX509

} // namespace Norvane::Crypto

template class Norvane::RefCounted<Norvane::Crypto::NVX509::CRLDistributionPoint>;
template class Norvane::Ref<Norvane::Crypto::NVX509::CRLDistributionPoint>;
