#ifndef NORVCRYPTO_CERT_BINDING_SET_H
#define NORVCRYPTO_CERT_BINDING_SET_H

/// \file
/// Named sets of certificate bindings, and the ways to search them: by identifier, by owner (which binding belongs to this
/// address) and by certificate (which binding holds the certificate that a received message names).
///
/// \code
/// using namespace Norvane::Crypto;
/// const RefCertBindingSet set("outgoing");
/// set->add(RefCertBinding(3, Norvane::StringPattern("*@example.com"), CertBinding::X509, usage, 1, 0, ...));
///
/// const auto owner = Norvane::EmailAddress::rfc5321Parse("alice@example.com", false);
/// CertBindingOwnerFilter ofOwner(owner);
/// const RefCertBinding& first = set->find(ofOwner);               // smallest identifier, or a null handle
/// for (const RefCertBinding& binding : set->findSet(ofOwner)) {   // all of them, lowest position first
///     use(binding->keyPairX509());
/// }
/// \endcode
///
/// Cost: `find(int)` is logarithmic in the number of bindings. The other searches walk the bindings once, in ascending
/// order of identifiers, and ask the filter about each; `find` stops at the first match.
///
/// Threads: a set to which nobody adds may be searched from several threads at once, each with a filter of its own.
/// `CertBindingCertificateFilter` reads the certificates of the bindings, and certificates fill their caches on first
/// use without a lock: call `warm()` once after the last `add`, before the set is shared.

#include <norvcmsg/EmailAddress.h>
#include <norvcrypto/ASN1.h>
#include <norvcrypto/CertBinding.h>
#include <norvcrypto/DistinguishedName.h>
#include <norvcrypto/Export.h>
#include <norvcrypto/NorvRefcounted>

#include <map>
#include <set>
#include <string>

namespace Norvane::Crypto {

/// What a search looks for.
class NORVCRYPTO_EXPORT CertBindingSetFilter {
public:
    CertBindingSetFilter();
    CertBindingSetFilter(const CertBindingSetFilter& other) = default;
    CertBindingSetFilter& operator=(const CertBindingSetFilter& other) = default;
    virtual ~CertBindingSetFilter();

    /// Whether the search is for this binding. Must not change the set that is searched. An `Exception` ends the search
    /// and becomes the cause of the search's own.
    virtual bool match(const RefCertBinding& binding) = 0;
    /// Whether the binding that just matched is the answer of `CertBindingSet::find`.
    [[nodiscard]] virtual bool done() const = 0;
};

/// The bindings whose pattern matches an address.
class NORVCRYPTO_EXPORT CertBindingOwnerFilter : public CertBindingSetFilter {
public:
    /// \param owner has to outlive the filter. The null address is searched for as the empty text: it matches the empty
    ///              pattern, and "*".
    explicit CertBindingOwnerFilter(const EmailAddress& owner);
    explicit CertBindingOwnerFilter(const EmailAddress&& owner) = delete;
    ~CertBindingOwnerFilter() override;

    bool match(const RefCertBinding& binding) override;
    /// True.
    [[nodiscard]] bool done() const override;

private:
    const EmailAddress& m_owner;
};

/// The bindings whose certificate has this issuer and serial number. Chains are not searched, and a binding without
/// certificate never matches.
///
/// Deliberate: a certificate of that issuer with a negative serial number makes the search throw, since its serial
/// number does (`Certificate::serialNumber()`). Do not put such a certificate into a set.
class NORVCRYPTO_EXPORT CertBindingCertificateFilter : public CertBindingSetFilter {
public:
    /// \param issuer has to outlive the filter
    /// \param serial has to outlive the filter; the empty integer matches nothing
    CertBindingCertificateFilter(const NVX509::DistinguishedName& issuer, const ASN1::Integer& serial);
    CertBindingCertificateFilter(const NVX509::DistinguishedName&& issuer, const ASN1::Integer& serial) = delete;
    CertBindingCertificateFilter(const NVX509::DistinguishedName& issuer, const ASN1::Integer&& serial) = delete;
    CertBindingCertificateFilter(const NVX509::DistinguishedName&& issuer, const ASN1::Integer&& serial) = delete;
    ~CertBindingCertificateFilter() override;

    bool match(const RefCertBinding& binding) override;
    /// True.
    [[nodiscard]] bool done() const override;

private:
    const NVX509::DistinguishedName& m_issuer;
    const ASN1::Integer& m_serial;
};

/// The body of a set. References that its operations return live as long as the set; what a reference to a binding's
/// handle shows changes when `add` replaces that binding.
class NORVCRYPTO_EXPORT CertBindingSet : public virtual RefImpl, public NonCopyable {
public:
    explicit CertBindingSet(const std::string& name);
    ~CertBindingSet() override;

    [[nodiscard]] const std::string& name() const noexcept { return m_name; }
    /// The bindings by identifier.
    [[nodiscard]] const std::map<int, RefCertBinding>& CertBindings() const noexcept { return m_bindings; }
    [[nodiscard]] bool empty() const noexcept { return m_bindings.empty(); }

    /// Adds a binding under its identifier. Deliberate: one that is stored under it already is replaced without a word.
    /// \throws Exception "operator->", code 1: a null handle
    void add(const RefCertBinding& binding);

    /// The binding with this identifier, or a null handle. Never throws.
    [[nodiscard]] const RefCertBinding& find(int id) const noexcept;
    /// Of the bindings that match, the one with the smallest identifier, or a null handle. Deliberate: the search ends
    /// there; when the filter is not `done()` then, a null handle is returned and no further binding looked at.
    /// \throws Exception "CertBindingSet::find", code 4, source "CertBindingSet", line 106, caused by what
    ///         `filter.match` threw
    const RefCertBinding& find(CertBindingSetFilter& filter) const;
    /// All bindings that match, by ascending position; `done()` is not asked. Deliberate: of those with one position
    /// only the one with the smallest identifier is kept.
    /// \throws Exception "CertBindingSet::find" (deliberately named so), code 4, source "CertBindingSet", line 127,
    ///         caused by what `filter.match` threw
    std::set<RefCertBinding> findSet(CertBindingSetFilter& filter) const;

    /// Warms the certificates of all bindings, chains included, so that threads can share the set. Never throws for a
    /// malformed certificate.
    void warm() const;

private:
    std::string m_name;
    std::map<int, RefCertBinding> m_bindings;
    RefCertBinding m_none;
};

} // namespace Norvane::Crypto

namespace Norvane {
extern template class RefCounted<Crypto::CertBindingSet>;
extern template class Ref<Crypto::CertBindingSet>;
} // namespace Norvane

namespace Norvane::Crypto {

/// A handle on a set. Copies share the set. Deliberate, for both comparisons: only the names count, never the bindings;
/// two different sets of one name are equal.
class NORVCRYPTO_EXPORT RefCertBindingSet : public Ref<CertBindingSet> {
public:
    /// A null handle.
    RefCertBindingSet();
    /// A new, empty set.
    explicit RefCertBindingSet(const std::string& name);
    RefCertBindingSet(const RefCertBindingSet& other);
    RefCertBindingSet& operator=(const RefCertBindingSet& other);
    ~RefCertBindingSet() override;

    /// The order of the names' bytes (unsigned; a name comes before those that it begins), a null handle first.
    bool operator<(const RefCertBindingSet& other) const;
    /// Equal names, or both null.
    bool operator==(const RefCertBindingSet& other) const;
};

} // namespace Norvane::Crypto

#endif
