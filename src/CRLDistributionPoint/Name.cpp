#include <norvcrypto/CRLDistributionPoint.h>

#include "Extension/Names.h"

#include <norvcmsg/Strings.h>

#include <openssl/x509v3.h>

#include <algorithm>

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

bool CRLDistributionPointName::operator==(const CRLDistributionPointName& other) const {
    if (m_name == nullptr || other.m_name == nullptr) {
        return false;
    }
    if (m_name == other.m_name) {
        return true;
    }
    if (type() == fullNameType && other.type() == fullNameType) {
        const auto& theirs = other.fullName();
        return std::any_of(fullName().begin(), fullName().end(), [&](const GeneralName& own) {
            return std::find(theirs.begin(), theirs.end(), own) != theirs.end();
        });
    }
    return type() == relativeNameType && other.type() == relativeNameType &&
           stringCompareNoCase(other.relativeName(), relativeName(), 0);
}

} // namespace Norvane::Crypto::NVX509
