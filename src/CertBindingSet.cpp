#include "failures/Raise.h"

#include <norvcrypto/CertBindingSet.h>

namespace Norvane {

template class RefCounted<Crypto::CertBindingSet>;
template class Ref<Crypto::CertBindingSet>;

} // namespace Norvane

namespace Norvane::Crypto {

namespace {

/// Asks about a handle of its own, which the filter may keep apart from the set's.
bool matches(CertBindingSetFilter& filter, const RefCertBinding& binding, const failures::Failure& failure) {
    try {
        return filter.match(RefCertBinding(binding));
    } catch (const Exception& cause) {
        failures::raiseBecause(failure, cause);
    }
}

} // namespace

CertBindingSetFilter::CertBindingSetFilter() = default;
CertBindingSetFilter::~CertBindingSetFilter() = default;

CertBindingOwnerFilter::CertBindingOwnerFilter(const EmailAddress& owner) : m_owner(owner) {}
CertBindingOwnerFilter::~CertBindingOwnerFilter() = default;

bool CertBindingOwnerFilter::match(const RefCertBinding& binding) {
    return binding->namePattern().matches(m_owner.address()); // which is empty for the null address
}

bool CertBindingOwnerFilter::done() const {
    return true;
}

CertBindingCertificateFilter::CertBindingCertificateFilter(const NVX509::DistinguishedName& issuer,
                                                           const ASN1::Integer& serial)
    : m_issuer(issuer),
      m_serial(serial) {}
CertBindingCertificateFilter::~CertBindingCertificateFilter() = default;

bool CertBindingCertificateFilter::match(const RefCertBinding& binding) {
    const NVX509::KeyCertificatePair pair = binding->keyPairX509();
    return pair && !pair->certificate.isNull() && m_issuer == pair->certificate->issuer() &&
           m_serial == pair->certificate->serialNumber();
}

bool CertBindingCertificateFilter::done() const {
    return true;
}

CertBindingSet::CertBindingSet(const std::string& name) : m_name(name) {}
CertBindingSet::~CertBindingSet() = default;

void CertBindingSet::add(const RefCertBinding& binding) {
    m_bindings.insert_or_assign(binding->Id(), binding);
}

const RefCertBinding& CertBindingSet::find(int id) const noexcept {
    const auto found = m_bindings.find(id);
    return found == m_bindings.end() ? m_none : found->second;
}

const RefCertBinding& CertBindingSet::find(CertBindingSetFilter& filter) const {
    for (const auto& [id, binding] : m_bindings) {
        if (matches(filter, binding, failures::bindingSetFind)) {
            return filter.done() ? binding : m_none;
        }
    }
    return m_none;
}

std::set<RefCertBinding> CertBindingSet::findSet(CertBindingSetFilter& filter) const {
    std::set<RefCertBinding> found;
    for (const auto& [id, binding] : m_bindings) {
        if (matches(filter, binding, failures::bindingSetFindSet)) {
            found.insert(binding);
        }
    }
    return found;
}

void CertBindingSet::warm() const {
    for (const auto& [id, binding] : m_bindings) {
        const NVX509::KeyCertificatePair pair = binding->keyPairX509();
        if (!pair) {
            continue;
        }
        if (!pair->certificate.isNull()) {
            pair->certificate->warm();
        }
        for (const auto& certificate : pair->chain) {
            if (!certificate.isNull()) {
                certificate->warm();
            }
        }
    }
}

RefCertBindingSet::RefCertBindingSet() = default;
RefCertBindingSet::RefCertBindingSet(const std::string& name) : Ref(makeReference<CertBindingSet>(name)) {}
RefCertBindingSet::RefCertBindingSet(const RefCertBindingSet& other) = default;
RefCertBindingSet& RefCertBindingSet::operator=(const RefCertBindingSet& other) = default;
RefCertBindingSet::~RefCertBindingSet() = default;

bool RefCertBindingSet::operator<(const RefCertBindingSet& other) const {
    if (isNull() || other.isNull()) {
        return isNull() && !other.isNull();
    }
    return (**this).name() < (*other).name(); // bytes are compared unsigned
}

bool RefCertBindingSet::operator==(const RefCertBindingSet& other) const {
    if (isNull() || other.isNull()) {
        return isNull() && other.isNull();
    }
    return (**this).name() == (*other).name();
}

} // namespace Norvane::Crypto
