#ifndef NORVCRYPTO_TRUST_TRUST_H
#define NORVCRYPTO_TRUST_TRUST_H

/// \file
/// Whether to believe a certificate, and if not, why: chains are built and checked by OpenSSL (RFC 5280, section 6), every
/// reason is told, not only the first, and strangers cannot make it costly. A library of its own, libnorvcrypto-trust; no
/// network access.
///
/// \code
/// using namespace Norvane::Crypto;
/// initialize();
///
/// auto material = std::make_shared<Trust::Material>();
/// material->addAnchors("roots.pem");
/// material->addLists("lists");
/// const Trust::Verifier verifier(material);
///
/// Trust::Options options;
/// options.purpose = Trust::Purpose::sign;
/// options.revocation = Trust::Revocation::required;
/// const Trust::Verdict verdict = verifier.judge(signer, certificatesOfTheMessage, listsOfTheMessage, options);
/// if (!verdict.accepted) {
///     for (const Trust::Reason& reason : verdict.reasons) {
///         std::cerr << reason.text << ": " << reason.advice << '\n';
///     }
/// }
/// \endcode
///
/// What a stranger chooses, and what it costs at most: docs/costs.md.

#include <norvcrypto-trust/TrustMaterial.h>
#include <norvcrypto-trust/TrustVerdict.h>
#include <norvcrypto/Certificate.h>
#include <norvcrypto/CertificateRevocationList.h>
#include <norvcrypto/Export.h>

#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>

namespace Norvane::Crypto::Trust {

namespace detail {
class Cache;
} // namespace detail

inline constexpr std::size_t maximumCandidates = 2500;  ///< certificates of a message that are looked at
inline constexpr std::size_t maximumNamesakes = 64;     ///< of these, certificates of one name
inline constexpr std::size_t maximumMessageLists = 100; ///< lists of a message that are looked at
/// What checking the signatures of a chain may take, with those of other chains that are tried in its place, in the unit of
/// `CMS::maximumKeyWork`: 128 signatures with keys on P-256, 15 on P-521, 1900 of RSA with 2048 bits. Each is checked twice when
/// lists are looked at.
inline constexpr std::uint64_t maximumVerdictWork = 131072;

/// What a verifier keeps of the verdicts that it reached.
struct CacheLimits {
    std::size_t entries = 4096;     ///< verdicts; 0 keeps none
    std::size_t bytes = 16U << 20U; ///< certificates and texts of all of them, about
    unsigned int seconds = 600;     ///< how long a verdict that was reached for the present moment is kept at most
};

/// How often a verdict was at hand.
struct CacheCounts {
    std::size_t hits = 0;
    std::size_t misses = 0;
    std::size_t entries = 0;
    std::size_t bytes = 0;
};

/// Judges certificates. Everything may be called from any number of threads at once.
///
/// Verdicts are kept and given again for the same certificate, the same options, the same certificates and lists of the
/// message as far as they can matter, and unchanged material: until a certificate or a list in it begins or ends, at the
/// latest.
class NORVCRYPTO_EXPORT Verifier : public NVX509::CertificateVerifier {
public:
    /// \param material shared with others, which may change it; null is none at all
    /// \param defaults what `isValid` and the short `judge` go by
    explicit Verifier(std::shared_ptr<const Material> material, const Options& defaults = Options(),
                      const CacheLimits& limits = CacheLimits());
    ~Verifier() override;
    Verifier(const Verifier&) = delete;
    Verifier& operator=(const Verifier&) = delete;

    /// Judges a certificate. The handles must not be used by another thread meanwhile unless they are warmed; those of the
    /// chain are warmed here.
    /// \param fromMessage      certificates that may help to build the chain; nothing in them is believed. Empty handles are
    ///                         left out, and so are those beyond `maximumCandidates`
    /// \param listsFromMessage lists that are used when the issuer in the chain, or a certificate of the material, signed them
    /// \throws Exception "Trust::Verifier", code 4, source "Trust": a policy that is no object identifier
    /// \throws std::bad_alloc where there is no memory, which OpenSSL takes for something wrong without saying so: a refusal is
    ///                        reached twice, and is none when the second one has other reasons
    [[nodiscard]] Verdict judge(const NVX509::RefCertificate& certificate,
                                const std::list<NVX509::RefCertificate>& fromMessage,
                                const std::list<NVX509::RefCertificateRevocationList>& listsFromMessage,
                                const Options& options) const;
    /// Likewise, without a message and by the defaults.
    [[nodiscard]] Verdict judge(const NVX509::RefCertificate& certificate) const;

    /// Whether the certificate is accepted, with the defaults but for:
    /// \param purpose 0 any, 1 sign, 2 encrypt, 3 authority (`Purpose`); for any other number it is not
    /// \param online  true: revocation lists are `Revocation::required`; false: as the defaults have it. Nothing is fetched
    ///                either way
    bool isValid(const NVX509::RefCertificate& certificate, int purpose, bool online) override;

    [[nodiscard]] const Options& defaults() const noexcept { return m_defaults; }
    [[nodiscard]] const std::shared_ptr<const Material>& material() const noexcept { return m_material; }
    [[nodiscard]] CacheCounts cacheCounts() const;

private:
    std::shared_ptr<const Material> m_material;
    Options m_defaults;
    std::unique_ptr<detail::Cache> m_cache;
};

} // namespace Norvane::Crypto::Trust

#endif
