#include <norvcrypto/CRLDistributionPoint.h>

#include "Extension/Names.h"
#include "openssl/GeneralNames.h"

#include <norvcmsg/Strings.h>

#include <openssl/x509v3.h>

#include <algorithm>
#include <utility>

namespace Norvane::Crypto::NVX509 {

namespace {

constexpr int fullNameType = 0;
constexpr int relativeNameType = 1;

} // namespace

CRLDistributionPointName::CRLDistributionPointName() = default;
CRLDistributionPointName::CRLDistributionPointName(const DIST_POINT_NAME_st* name) : m_name(name) {}
CRLDistributionPointName::CRLDistributionPointName(const CRLDistributionPointName& other) = default;
CRLDistributionPointName& CRLDistributionPointName::operator=(const CRLDistributionPointName& other) = default;
CRLDistributionPointName::~CRLDistributionPointName() = default;

int CRLDistributionPointName::type() const {
    if (m_type == -1 && m_name != nullptr) {
        m_type = m_name->type;
    }
    return m_type;
}

const std::list<GeneralName>& CRLDistributionPointName::fullName() const {
    if (type() != fullNameType) {
        return m_fullName;
    }
    return fillNames(m_fullName, m_name->name.fullname);
}

const std::string& CRLDistributionPointName::relativeName() const {
    if (type() == relativeNameType && m_relativeName.empty()) {
        const DistinguishedName relative(m_name->name.relativename);
        if (!relative.asString().empty()) {
            m_relativeName = relative.asString();
        }
    }
    return m_relativeName;
}

bool CRLDistributionPointName::operator==(const DistinguishedName& name) const {
    if (name.isNull() || type() != fullNameType) {
        return false;
    }
    return std::any_of(fullName().begin(), fullName().end(),
                       [&](const GeneralName& own) { return own.type() == GEN_DIRNAME && own.dn() == name; });
}

/// Looks the names of the shorter list up in the order of the longer one, which is made once: whoever wrote the lists
/// has them compared in a loop, every point of a certificate with the one of a list.
bool CRLDistributionPointName::sharesNameWith(const CRLDistributionPointName& other) const {
    const auto count = [](const CRLDistributionPointName& name) {
        return sk_GENERAL_NAME_num(name.m_name->name.fullname);
    };
    const bool mineIsShorter = count(*this) < count(other);
    const auto* shorter = (mineIsShorter ? m_name : other.m_name)->name.fullname;
    const auto& longer = (mineIsShorter ? other : *this).orderedNames();
    for (int i = 0; i < sk_GENERAL_NAME_num(shorter); ++i) {
        if (openssl::contains(longer, sk_GENERAL_NAME_value(shorter, i))) {
            return true;
        }
    }
    return false;
}

const std::vector<const GENERAL_NAME_st*>& CRLDistributionPointName::orderedNames() const {
    if (m_orderedNames.empty() && type() == fullNameType) {
        if (auto ordered = openssl::orderedNames(m_name->name.fullname); !ordered.empty()) {
            m_orderedNames = std::move(ordered);
        }
    }
    return m_orderedNames;
}

void CRLDistributionPointName::warm() const {
    static_cast<void>(relativeName());
    static_cast<void>(fullName());
    static_cast<void>(orderedNames());
}

bool CRLDistributionPointName::operator==(const CRLDistributionPointName& other) const {
    if (m_name == nullptr || other.m_name == nullptr) {
        return false;
    }
    if (m_name == other.m_name) {
        return true;
    }
    if (type() == fullNameType && other.type() == fullNameType) {
        return sharesNameWith(other);
    }
    return type() == relativeNameType && other.type() == relativeNameType &&
           stringCompareNoCase(other.relativeName(), relativeName(), 0);
}

} // namespace Norvane::Crypto::NVX509
