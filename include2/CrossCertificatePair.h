#ifndef NORVCRYPTO_CROSS_CERTIFICATE_PAIR_H
#define NORVCRYPTO_CROSS_CERTIFICATE_PAIR_H

/// \file
/// Cross-certificate pairs (X.509, 11.2.3; RFC 4523, 2.3): the directory attribute that holds the certificate that one
/// authority issued to another, and the one it got in return.
///
/// \code
/// using namespace Norvane::Crypto;
/// const NVX509::RefCrossCertificatePair pair(der);    // the value of a crossCertificatePair attribute
/// if (!pair->forward().isNull()) {
///     std::cout << pair->forward()->issuer().asString() << '\n';
/// }
/// \endcode
///
/// Nothing throws for bad input. Threads: the getters fill caches on first use without a lock. Use a pair from one
/// thread, or call both getters, and `warm()` on what they give, once before sharing it.

#include <norvcmsg/Buffer.h>
#include <norvcrypto/Certificate.h>
#include <norvcrypto/Export.h>
#include <norvcrypto/NorvRefcounted>
#include <norvcrypto/detail/MaybeOwned.h>

namespace Norvane::Crypto {

namespace openssl {
struct CertificatePair;
}

namespace detail {
/// How a pair is freed; it is never copied.
struct NORVCRYPTO_EXPORT CertificatePairTraits {
    static void free(openssl::CertificatePair* pair) noexcept;
    static openssl::CertificatePair* duplicate(const openssl::CertificatePair*) noexcept { return nullptr; }
};
} // namespace detail

namespace NVX509 {

/// The body of a pair. Use it through `RefCrossCertificatePair`.
class NORVCRYPTO_EXPORT CrossCertificatePair : public RefImpl, private NonCopyable {
public:
    /// No pair: `decoded()` is false and both certificates are empty handles.
    CrossCertificatePair();
    /// Decodes the pair at the start of `der`; bytes after it are ignored. When the bytes are none, or one of the two
    /// certificates is refused (see Acceptance.h), this is as the one above, and OpenSSL's error queue is left as it was.
    explicit CrossCertificatePair(const Buffer& der);
    ~CrossCertificatePair() override;

    /// Whether there is a pair.
    [[nodiscard]] bool decoded() const noexcept;

    /// The certificate that was issued to the authority in whose directory entry the pair stands (tag 0), by another
    /// one; an empty handle when the pair has none. The same handle each time.
    ///
    /// It borrows from the pair: keep a handle on the pair for as long as you use the certificate, and copies of its
    /// handle.
    [[nodiscard]] const RefCertificate& forward() const;
    /// The certificate that this authority issued to the other one (tag 1); otherwise as `forward()`.
    [[nodiscard]] const RefCertificate& reverse() const;

private:
    detail::MaybeOwned<openssl::CertificatePair, detail::CertificatePairTraits> m_pair;
    mutable RefCertificate m_forward;
    mutable RefCertificate m_reverse;
};

} // namespace NVX509
} // namespace Norvane::Crypto

namespace Norvane {
extern template class RefCounted<Crypto::NVX509::CrossCertificatePair>;
extern template class Ref<Crypto::NVX509::CrossCertificatePair>;
} // namespace Norvane

namespace Norvane::Crypto::NVX509 {

/// A handle on a pair. Copies share the pair.
class NORVCRYPTO_EXPORT RefCrossCertificatePair : public Ref<CrossCertificatePair> {
public:
    /// An empty handle.
    RefCrossCertificatePair();
    /// A handle on a new pair, also when the bytes do not decode: ask `decoded()`.
    explicit RefCrossCertificatePair(const Buffer& der);
    RefCrossCertificatePair(const RefCrossCertificatePair& other);
    RefCrossCertificatePair& operator=(const RefCrossCertificatePair& other);
    ~RefCrossCertificatePair() override;
};

} // namespace Norvane::Crypto::NVX509

#endif
