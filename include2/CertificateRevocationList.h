#ifndef NORVCRYPTO_CERTIFICATE_REVOCATION_LIST_H
#define NORVCRYPTO_CERTIFICATE_REVOCATION_LIST_H

/// \file
/// Certificate revocation lists (RFC 5280, section 5): reading them, and asking who issued them, when, with which
/// number and for which scope. Whether a certificate is revoked is not answered here: that takes chain verification.
///
/// \code
/// using namespace Norvane::Crypto;
/// initialize();
///
/// const auto list = NVX509::CertificateRevocationListFactory().read(std::string("ca.crl"));
/// if (list.isNull() || !list->issuedBy(authority, true)) {      // by names and key identifiers, no signature
///     return;
/// }
/// const bool isDelta = list->isDeltaCRL();
/// \endcode
///
/// Nothing throws for bad input. Threads: accessors fill caches on first use without a lock. Use a list from one
/// thread, or call `warm()` once before sharing it.

#include <norvcmsg/Buffer.h>
#include <norvcmsg/File.h>
#include <norvcmsg/Media.h>
#include <norvcrypto/ASN1.h>
#include <norvcrypto/CRLDistributionPoint.h>
#include <norvcrypto/Certificate.h>
#include <norvcrypto/DistinguishedName.h>
#include <norvcrypto/Export.h>
#include <norvcrypto/Extension.h>
#include <norvcrypto/NorvRefcounted>
#include <norvcrypto/detail/Lazy.h>
#include <norvcrypto/detail/Owned.h>

#include <list>
#include <string>

struct X509_crl_st;

namespace Norvane::Crypto::NVX509 {

/// A view on the signed part of a list: issuer and extensions. It borrows the list, which must outlive it and its
/// copies.
class NORVCRYPTO_EXPORT CertificateRevocationListInfo {
public:
    /// \param list borrowed; null gives a view of empty answers
    explicit CertificateRevocationListInfo(const X509_crl_st* list);
    CertificateRevocationListInfo(const CertificateRevocationListInfo& other);
    CertificateRevocationListInfo& operator=(const CertificateRevocationListInfo& other);
    virtual ~CertificateRevocationListInfo();

    /// The issuer's name; an empty one without list.
    [[nodiscard]] const DistinguishedName& issuer() const;
    /// The extensions of the list (not those of its entries), in order.
    [[nodiscard]] const std::list<RefExtension>& extensions() const;
    /// The first extension with this identifier, or an empty handle.
    [[nodiscard]] const RefExtension& find(const ASN1::RefObjectIdentifier& identifier) const;
    /// The authority key identifier, or an empty handle.
    [[nodiscard]] const RefAuthorityKeyIdentifier& authorityKeyIdentifier() const;

    /// True when there is no list behind the view.
    [[nodiscard]] bool isNull() const noexcept { return m_list == nullptr; }

private:
    /// What `find` answers when nothing matches.
    static const RefExtension m_empty;

    const X509_crl_st* m_list;
    mutable DistinguishedName m_issuer;
    mutable std::list<RefExtension> m_extensions;
    mutable RefAuthorityKeyIdentifier m_authorityKeyIdentifier;
    mutable bool m_withoutAuthorityKey = false;
};

/// The body of a list: owns or borrows one OpenSSL `X509_CRL`. Use it through `RefCertificateRevocationList`. What the
/// accessors return by reference borrows from the list: keep a handle on it for as long as you use that, and copies of
/// it. Every answer is kept once it was found; the `X509_CRL` must not change under the list.
class NORVCRYPTO_EXPORT CertificateRevocationList : public RefImpl, private NonCopyable {
public:
    /// Bits of `idpFlags()`, as OpenSSL numbers them.
    enum ScopeFlag : int {
        scopePresent = 0x01,       ///< there is an issuing distribution point
        scopeInvalid = 0x02,       ///< it contradicts itself, or (alone) it cannot be read or occurs twice
        scopeUserOnly = 0x04,      ///< only user certificates
        scopeAuthorityOnly = 0x08, ///< only CA certificates
        scopeAttributeOnly = 0x10, ///< only attribute certificates
        scopeIndirect = 0x20,      ///< an indirect list: entries may belong to other issuers
        scopeReasons = 0x40        ///< only some revocation reasons
    };

    /// \param list borrowed, and has to outlive the body; may be null, which gives a list of empty answers. Use
    ///             `CertificateRevocationListFactory::operator()` for a body that owns its `X509_CRL`.
    explicit CertificateRevocationList(X509_crl_st* list);
    /// Frees the `X509_CRL` if it is owned.
    ~CertificateRevocationList() override;

    /// The view on the signed part.
    [[nodiscard]] const CertificateRevocationListInfo& crlInfo() const;
    /// The scope that the list declares for itself, with its reasons mask: 0x807F (all reasons) for a list that
    /// declares none.
    [[nodiscard]] const IssuingDistributionPoint& issuingDistributionPoint() const;
    /// The scope as `ScopeFlag` bits; 0 for a list that declares none.
    [[nodiscard]] unsigned int idpFlags() const noexcept { return m_idpFlags; }
    /// The reasons that the list covers: the first byte of the reasons bit string, the second one shifted left by 8,
    /// within 0x807F; 0x807F when it names none.
    [[nodiscard]] unsigned int idpReasons() const noexcept { return m_idpReasons; }

    /// The number of the list (RFC 5280, 5.2.3); an integer without value when it has none, or one that is not a
    /// non-negative integer.
    [[nodiscard]] const ASN1::Integer& crlNumber() const;
    /// The number of the list that a delta list builds on (RFC 5280, 5.2.4), as `crlNumber`.
    [[nodiscard]] const ASN1::Integer& baseCRLNumber() const;
    /// When the list was issued, in UTC; an empty handle when it does not say.
    [[nodiscard]] const ASN1::RefGeneralizedTime& lastUpdate() const;
    /// When the next list is due, in UTC; an empty handle when it does not say.
    [[nodiscard]] const ASN1::RefGeneralizedTime& nextUpdate() const;

    /// Whether the list carries a delta list indicator, readable or not.
    [[nodiscard]] bool isDeltaCRL() const;
    /// Whether the list points to delta lists (RFC 5280, 5.2.6).
    [[nodiscard]] bool isFreshestCRL() const;
    /// Whether `issuer` may have issued this list, by names and key identifiers; no signature is verified.
    /// \param issuer        an empty handle has issued nothing
    /// \param checkKeyUsage true demands in addition that the issuer's key usage has cRLSign, so that an issuer without
    ///                      key usage extension is refused
    [[nodiscard]] bool issuedBy(const RefCertificate& issuer, bool checkKeyUsage) const;

    /// Writes the list as DER. `out` is not ended. Nothing is written without `X509_CRL`, and an encoder's failure is
    /// not reported. \throws whatever `out` throws
    void writeDER(MediaOut& out);
    /// Writes the list as PEM ("-----BEGIN X509 CRL-----"); otherwise as `writeDER`.
    void writePEM(MediaOut& out);

    /// Fills every cache, so that the list can be shared between threads; may itself be called from several threads at
    /// once. As with certificates, `GeneralName::emailAddress()` stays for one thread at a time.
    void warm() const;

private:
    friend class CertificateRevocationListFactory;
    friend class RefCertificateRevocationList;

    const ASN1::Integer& number(ASN1::RefInteger& cache, int nid) const;
    bool carries(detail::TriState& cache, const char* identifier) const;

    X509_crl_st* m_list;
    bool m_owned = false;
    mutable CertificateRevocationListInfo m_info;
    detail::OwnedIssuingPoint m_decodedIdp;
    IssuingDistributionPoint m_idp;
    ASN1::Integer m_noNumber;
    mutable ASN1::RefInteger m_baseCRLNumber;
    mutable ASN1::RefInteger m_crlNumber;
    mutable detail::TriState m_delta = detail::TriState::unknown;
    mutable detail::TriState m_freshest = detail::TriState::unknown;
    mutable ASN1::RefGeneralizedTime m_lastUpdate;
    mutable ASN1::RefGeneralizedTime m_nextUpdate;
    unsigned int m_idpFlags = 0;
    unsigned int m_idpReasons = 0;
};

} // namespace Norvane::Crypto::NVX509

namespace Norvane {
extern template class RefCounted<Crypto::NVX509::CertificateRevocationList>;
extern template class Ref<Crypto::NVX509::CertificateRevocationList>;
} // namespace Norvane

namespace Norvane::Crypto::NVX509 {

/// A handle on a list. Copies share the list.
class NORVCRYPTO_EXPORT RefCertificateRevocationList : public Ref<CertificateRevocationList> {
public:
    /// An empty handle.
    RefCertificateRevocationList();
    /// Takes over a body that was just made with `new`.
    /// \throws Exception "RefCounted constructor for RefImpl failed.", code 4, no file, line 0: a null body
    explicit RefCertificateRevocationList(CertificateRevocationList* list);
    RefCertificateRevocationList(const RefCertificateRevocationList& other);
    RefCertificateRevocationList& operator=(const RefCertificateRevocationList& other);
    ~RefCertificateRevocationList() override;

    /// The `X509_CRL`, which stays the list's; null for an empty handle.
    operator X509_crl_st*() const; // NOLINT(google-explicit-constructor): handed to C functions as it is
    /// Deliberate: false for every pair, a handle and itself included. To tell lists apart compare their encodings.
    bool operator==(const RefCertificateRevocationList& other) const;
};

/// Makes lists from bytes and files. Bad input gives an empty handle, never an exception; the OpenSSL error queue is
/// left as it was. Stateless: one factory may be used from several threads.
class NORVCRYPTO_EXPORT CertificateRevocationListFactory {
public:
    CertificateRevocationListFactory();
    CertificateRevocationListFactory(const CertificateRevocationListFactory& other) = default;
    CertificateRevocationListFactory& operator=(const CertificateRevocationListFactory& other) = default;
    virtual ~CertificateRevocationListFactory();

    /// A body around an `X509_CRL`, which may be null.
    /// \param own true: the body frees it; false: the caller keeps it and lets it outlive the body
    RefCertificateRevocationList operator()(X509_crl_st* list, bool own) const;
    /// The first list of PEM text. No pass phrase is ever asked for: a block with an encryption header is not read.
    [[nodiscard]] RefCertificateRevocationList readPEM(const Buffer& pem) const;
    /// The list at the start of `der`; bytes after it are ignored.
    [[nodiscard]] RefCertificateRevocationList readDER(const Buffer& der) const;
    /// The list of DER bytes when the first one is 0x30 (the character "0"), of PEM text otherwise.
    [[nodiscard]] RefCertificateRevocationList read(const Buffer& bytes) const;
    /// The list of a whole file, as above. An empty handle also for a path that does not exist, or that cannot be read
    /// to its end: a directory, missing permission, a file of 2 GiB or more, one that vanishes.
    [[nodiscard]] RefCertificateRevocationList read(const File::Path& path) const;
    [[nodiscard]] RefCertificateRevocationList read(const std::string& path) const;
};

} // namespace Norvane::Crypto::NVX509

#endif
