#include <norvcrypto/CrossCertificatePair.h>

#include "openssl/CertificatePair.h"
#include "openssl/Decode.h"

#include <norvcrypto/detail/Lazy.h>

namespace Norvane {
template class RefCounted<Crypto::NVX509::CrossCertificatePair>;
template class Ref<Crypto::NVX509::CrossCertificatePair>;
} // namespace Norvane

namespace Norvane::Crypto {

void detail::CertificatePairTraits::free(openssl::CertificatePair* pair) noexcept {
    openssl::freeCertificatePair(pair);
}

namespace NVX509 {

namespace {

/// The certificate `member` of the pair, which goes on owning it.
const RefCertificate& certificateOf(RefCertificate& cache, const openssl::CertificatePair* pair,
                                    X509* openssl::CertificatePair::*member) {
    return detail::fillWhenEmpty(cache, [&](auto& slot) {
        if (pair != nullptr && pair->*member != nullptr) {
            slot = CertificateFactory()(pair->*member, false);
        }
    });
}

} // namespace

CrossCertificatePair::CrossCertificatePair() = default;

CrossCertificatePair::CrossCertificatePair(const Buffer& der) {
    if (auto* pair = openssl::decodeAccepted<openssl::decodeCertificatePair>(der.data(), der.length())) {
        m_pair = decltype(m_pair)::adopt(pair);
    }
}

CrossCertificatePair::~CrossCertificatePair() = default;

bool CrossCertificatePair::decoded() const noexcept {
    return static_cast<bool>(m_pair);
}

const RefCertificate& CrossCertificatePair::forward() const {
    return certificateOf(m_forward, m_pair.get(), &openssl::CertificatePair::forward);
}

const RefCertificate& CrossCertificatePair::reverse() const {
    return certificateOf(m_reverse, m_pair.get(), &openssl::CertificatePair::reverse);
}

RefCrossCertificatePair::RefCrossCertificatePair() = default;
RefCrossCertificatePair::RefCrossCertificatePair(const Buffer& der) : Ref(makeReference<CrossCertificatePair>(der)) {}
RefCrossCertificatePair::RefCrossCertificatePair(const RefCrossCertificatePair& other) = default;
RefCrossCertificatePair& RefCrossCertificatePair::operator=(const RefCrossCertificatePair& other) = default;
RefCrossCertificatePair::~RefCrossCertificatePair() = default;

} // namespace NVX509
} // namespace Norvane::Crypto
