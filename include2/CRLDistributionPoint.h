#ifndef NORVCRYPTO_CRL_DISTRIBUTION_POINT_H
#define NORVCRYPTO_CRL_DISTRIBUTION_POINT_H

/// \file
/// Where revocation lists are found, as a certificate tells it (cRLDistributionPoints, RFC 5280, 4.2.1.13), and what a
/// list says of its own scope (issuingDistributionPoint, RFC 5280, 5.2.5).
///
/// \code
/// using namespace Norvane::Crypto::NVX509;
/// const RefCRLDistributionPoints points = certificate->crlDistributionPoints();
/// if (!points.isNull()) {
///     for (const RefCRLDistributionPoint& point : points->distributionPoints()) {
///         for (const GeneralName& name : point->distributionPointName().fullName()) {
///             if (name.type() == 6) { fetch(name.uri()); }
///         }
///         if (point->distributionPointName() == list->issuingDistributionPoint().distributionPointName()) { ... }
///     }
/// }
/// \endcode
///
/// Who owns what, failures and threads are as told in Extension.h: what was made from an OpenSSL pointer borrows it,
/// what was decoded owns it, whatever a getter gives borrows from the object that gave it (the handles in
/// `distributionPoints()` too), and DER that does not decode gives null structures and empty answers. Nothing here
/// throws but the use of a null handle.

#include <norvcrypto/Export.h>
#include <norvcrypto/Extension.h>

#include <list>
#include <string>
#include <vector>

struct DIST_POINT_NAME_st;
struct DIST_POINT_st;
struct ISSUING_DIST_POINT_st;
struct stack_st_DIST_POINT;

namespace Norvane::Crypto::detail {

struct NORVCRYPTO_EXPORT DistributionPointTraits {
    static void free(DIST_POINT_st* point) noexcept;
};
struct NORVCRYPTO_EXPORT DistributionPointsTraits {
    static void free(stack_st_DIST_POINT* points) noexcept;
};

} // namespace Norvane::Crypto::detail

namespace Norvane::Crypto::NVX509 {

/// The name of a distribution point: general names, or a name relative to the issuer of the list. A view on a structure
/// that it borrows.
class NORVCRYPTO_EXPORT CRLDistributionPointName {
public:
    /// The null name.
    CRLDistributionPointName();
    /// Borrows a structure, which may be null.
    explicit CRLDistributionPointName(const DIST_POINT_NAME_st* name);
    CRLDistributionPointName(const CRLDistributionPointName& other);
    CRLDistributionPointName& operator=(const CRLDistributionPointName& other);
    virtual ~CRLDistributionPointName();

    /// 0 for a full name, 1 for one relative to the issuer of the list; -1 for the null name.
    [[nodiscard]] int type() const;
    /// Of type 0, the general names in their order; else none.
    [[nodiscard]] const std::list<GeneralName>& fullName() const;
    /// Of type 1, the text of the attributes as `DistinguishedName::asString()` writes it, without the issuer's name
    /// that they follow; else the empty text.
    [[nodiscard]] const std::string& relativeName() const;
    /// True for the null name.
    [[nodiscard]] bool isNull() const noexcept { return m_name == nullptr; }

    /// True when a directory name of the full name equals `name`. False for the null name, for the null
    /// DistinguishedName, and for type 1.
    bool operator==(const DistinguishedName& name) const;
    bool operator!=(const DistinguishedName& name) const { return !(*this == name); }
    /// True for one and the same structure, for full names that share a general name, and for relative names whose
    /// texts are equal without regard to letter case (the issuers that they are relative to are not compared). Two null
    /// names are not equal. The first comparison puts the names of the longer list in order and keeps that, so that n
    /// names are compared with m others in about n log m steps, the comparisons in a loop over points too.
    bool operator==(const CRLDistributionPointName& other) const;
    bool operator!=(const CRLDistributionPointName& other) const { return !(*this == other); }

    /// Fills what the accessors and comparisons keep, so that the name can be shared between threads. `warm()` of a
    /// certificate or list does it for its own; the general names' own values are filled there too.
    void warm() const;

private:
    [[nodiscard]] bool sharesNameWith(const CRLDistributionPointName& other) const;
    [[nodiscard]] const std::vector<const GENERAL_NAME_st*>& orderedNames() const;

    const DIST_POINT_NAME_st* m_name = nullptr;
    mutable int m_type = -1;
    mutable std::list<GeneralName> m_fullName;
    mutable std::string m_relativeName;
    mutable std::vector<const GENERAL_NAME_st*> m_orderedNames;
};

/// One distribution point.
class NORVCRYPTO_EXPORT CRLDistributionPoint : public RefImpl, private NonCopyable {
public:
    /// Borrows a structure, which may be null.
    explicit CRLDistributionPoint(const DIST_POINT_st* point);
    /// Decodes DER.
    CRLDistributionPoint(const unsigned char* der, unsigned int length);
    ~CRLDistributionPoint() override;

    /// Who issues the list, when that is not the issuer of the certificate.
    [[nodiscard]] const std::list<GeneralName>& issuers() const;
    /// The reasons that the list covers: the first octet of the bit string, and the second one shifted by eight, so
    /// that 0x80 is `unused`, 0x40 keyCompromise and 0x8000 aACompromise. Unused bits are not masked away. 0x807F (all
    /// reasons) when the point names none; 0 without a structure and for an empty bit string.
    [[nodiscard]] unsigned int reasons() const;
    /// The name; the null name when the point has none.
    [[nodiscard]] const CRLDistributionPointName& distributionPointName() const;

private:
    detail::MaybeOwned<DIST_POINT_st, detail::DistributionPointTraits> m_structure;
    mutable std::list<GeneralName> m_issuers;
    mutable unsigned int m_reasons = 0;
    mutable CRLDistributionPointName m_pointName;
};

} // namespace Norvane::Crypto::NVX509

namespace Norvane {
extern template class RefCounted<Crypto::NVX509::CRLDistributionPoint>;
extern template class Ref<Crypto::NVX509::CRLDistributionPoint>;
} // namespace Norvane

namespace Norvane::Crypto::NVX509 {

/// A handle on a distribution point.
class NORVCRYPTO_EXPORT RefCRLDistributionPoint : public Ref<CRLDistributionPoint> {
public:
    RefCRLDistributionPoint();
    /// A new body that borrows the structure, which may be null.
    explicit RefCRLDistributionPoint(const DIST_POINT_st* point);
    /// A new body decoded from DER.
    RefCRLDistributionPoint(const unsigned char* der, unsigned int length);
    RefCRLDistributionPoint(const RefCRLDistributionPoint& other);
    RefCRLDistributionPoint& operator=(const RefCRLDistributionPoint& other);
    ~RefCRLDistributionPoint() override;
};

/// The extension 2.5.29.31 of a certificate.
class NORVCRYPTO_EXPORT CRLDistributionPoints : public Extension {
public:
    /// Decodes DER.
    CRLDistributionPoints(const unsigned char* der, unsigned int length);
    ~CRLDistributionPoints() override;

    /// The points in their order. Each handle borrows its point from this extension and must not outlive it.
    [[nodiscard]] const std::list<RefCRLDistributionPoint>& distributionPoints() const;

private:
    detail::MaybeOwned<stack_st_DIST_POINT, detail::DistributionPointsTraits> m_structure;
    mutable std::list<RefCRLDistributionPoint> m_points;
};

extern template class TypedRefExtension<CRLDistributionPoints>;

/// A handle on the distribution points of a certificate.
class NORVCRYPTO_EXPORT RefCRLDistributionPoints : public TypedRefExtension<CRLDistributionPoints> {
public:
    RefCRLDistributionPoints();
    RefCRLDistributionPoints(const unsigned char* der, unsigned int length);
    RefCRLDistributionPoints(const RefCRLDistributionPoints& other);
    RefCRLDistributionPoints& operator=(const RefCRLDistributionPoints& other);
    ~RefCRLDistributionPoints() override;
};

/// The scope of a revocation list: a view on a structure that it borrows.
class NORVCRYPTO_EXPORT IssuingDistributionPoint {
public:
    /// Borrows a structure; null for a list that does not tell.
    explicit IssuingDistributionPoint(const ISSUING_DIST_POINT_st* point = nullptr);
    IssuingDistributionPoint(const IssuingDistributionPoint& other);
    IssuingDistributionPoint& operator=(const IssuingDistributionPoint& other);
    virtual ~IssuingDistributionPoint();

    /// Only certificates of end entities; false without a structure, as are the next three.
    [[nodiscard]] bool onlyUser() const;
    /// Only certificates of CAs.
    [[nodiscard]] bool onlyCA() const;
    /// Certificates of other issuers too.
    [[nodiscard]] bool indirectCRL() const;
    /// Only attribute certificates.
    [[nodiscard]] bool onlyAttr() const;
    /// The reasons that the list covers, as its reader has set them; 0 before.
    [[nodiscard]] unsigned int reasons() const noexcept { return m_reasons; }
    void reasons(unsigned int mask) noexcept { m_reasons = mask; }
    /// The name of the distribution point; the null name when there is none.
    [[nodiscard]] const CRLDistributionPointName& distributionPointName() const;

private:
    const ISSUING_DIST_POINT_st* m_point;
    unsigned int m_reasons = 0;
    mutable CRLDistributionPointName m_pointName;
};

} // namespace Norvane::Crypto::NVX509

#endif
