#include "failures/Raise.h"

#include <norvcrypto/Certificate.h>

namespace Norvane::Crypto::NVX509 {

CertificateVerifier* CertificateVerifier::s_instance = nullptr;

CertificateVerifier::CertificateVerifier() = default;
CertificateVerifier::~CertificateVerifier() = default;

bool CertificateVerifier::isValid(const RefCertificate& /*certificate*/, int, bool) {
    failures::raise(failures::verifierIsValid);
}

CertificateVerifier* CertificateVerifier::instance() {
    if (s_instance == nullptr) {
        failures::raise(failures::verifierInstance);
    }
    return s_instance;
}

CertificateFilter::CertificateFilter(const RefCertificate& reference) : m_reference(reference) {}
CertificateFilter::~CertificateFilter() = default;

ExactMatchFilter::ExactMatchFilter(const RefCertificate& reference) : CertificateFilter(reference) {}
ExactMatchFilter::~ExactMatchFilter() = default;

bool ExactMatchFilter::operator()(const RefCertificate& candidate) {
    return reference() == candidate;
}

SameEncodingFilter::SameEncodingFilter(const RefCertificate& reference) : CertificateFilter(reference) {}
SameEncodingFilter::~SameEncodingFilter() = default;

bool SameEncodingFilter::operator()(const RefCertificate& candidate) {
    return sameEncoding(reference(), candidate);
}

IssuerFilter::IssuerFilter(const RefCertificate& subject) : CertificateFilter(subject) {}
IssuerFilter::~IssuerFilter() = default;

bool IssuerFilter::operator()(const RefCertificate& candidate) {
    const auto& subject = reference();
    if (subject.isNull() || candidate.isNull() || subject->issuer() != candidate->subject()) {
        return false;
    }
    const auto& candidateKey = candidate->subjectKeyIdentifier();
    const auto& authorityKey = subject->authorityKeyIdentifier();
    if (candidateKey.isNull() || authorityKey.isNull()) {
        return true;
    }
    return authorityKey->keyId() == candidateKey;
}

} // namespace Norvane::Crypto::NVX509
