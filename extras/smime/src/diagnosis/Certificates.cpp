#include "diagnosis/Certificates.h"

#include <norvcmsg/Exception.h>
#include <norvcrypto/CMSIdentifier.h>

#include <openssl/x509.h>

#include <algorithm>

namespace Norvane::Crypto::SMime::diagnosis {

namespace {

using CMS::SignatureReason;
using CMS::SignatureVerdict;
using CMS::SignedReader;

constexpr std::size_t mostGiven = 1000;
/// For one signer: with certificates of the issuer that it names first.
constexpr std::size_t mostTries = 32;

X509* x509Of(const NVX509::RefCertificate& certificate) {
    return certificate;
}

bool isSame(const NVX509::RefCertificate& left, const NVX509::RefCertificate& right) {
    return X509_cmp(x509Of(left), x509Of(right)) == 0;
}

std::string described(const NVX509::RefCertificate& certificate) {
    try {
        const CMS::CertificateIdentifier name(certificate, CMS::NamedBy::issuerAndSerialNumber);
        return "of " + NVX509::displayName(certificate->subject()) + ", " + name.asString();
    } catch (const Exception&) {
        return "of " + NVX509::displayName(certificate->subject());
    }
}

Finding findingOf(const NVX509::RefCertificate& certificate, const CMS::CertificateIdentifier& named, bool sameIssuer,
                  const NVX509::RefCertificate& namedCertificate) {
    const std::string who = described(certificate);
    const bool isHere = x509Of(namedCertificate) != nullptr;
    if (sameIssuer && !isHere) {
        return {
            Change::certificateRenewed,
            "the signer names the certificate with " + named.asString() +
                ", which is not here; the signature was made with the key of the one " + who +
                ": one of the two is the renewal of the other",
            "ask the sender, or the authority, for the certificate that is named; check that both are of one person"};
    }
    return {Change::otherCertificate,
            "the signer names the certificate with " + named.asString() + (isHere ? "" : ", which is not here") +
                "; the signature was made with the key of the one " + who,
            "the sender's program uses a key beside another certificate: have the sender choose the certificate that "
            "belongs to the key"};
}

} // namespace

bool VerificationBudget::take() noexcept {
    if (m_taken == m_most) {
        m_isSpent = true;
        return false;
    }
    ++m_taken;
    return true;
}

std::optional<CMS::CertificateIdentifier> identifierOf(const SignedReader::Signer& signer) {
    try {
        return signer.identifier();
    } catch (const Exception&) {
        return std::nullopt;
    }
}

bool keyFits(const CMS::SignatureResult& result) noexcept {
    return result.verdict == SignatureVerdict::good || result.reason == SignatureReason::signingCertificateDiffers;
}

bool isAboutCertificate(SignatureReason reason) noexcept {
    switch (reason) {
    case SignatureReason::signatureWrong:
    case SignatureReason::certificateMissing:
    case SignatureReason::keyUnusable:
    case SignatureReason::algorithmDiffers:
    case SignatureReason::certificateDamaged:
        return true;
    default:
        return false;
    }
}

CertificateSearch::CertificateSearch(const SignedReader& message, const DiagnosisOptions& options,
                                     VerificationBudget& budget)
    : m_message(message),
      m_budget(budget) {
    for (const NVX509::RefCertificate& certificate : options.certificates) {
        if (m_certificates.size() < mostGiven && x509Of(certificate) != nullptr) {
            m_certificates.push_back(certificate);
        }
    }
    try {
        const auto& carried = message.certificates();
        m_certificates.insert(m_certificates.end(), carried.begin(), carried.end());
    } catch (const Exception&) { // NOLINT(bugprone-empty-catch): too many of them; then those given are what there is
    }
}

NVX509::RefCertificate CertificateSearch::named(const SignedReader::Signer& signer) const {
    const auto name = identifierOf(signer);
    const auto found = std::ranges::find_if(
        m_certificates, [&](const NVX509::RefCertificate& certificate) { return name && name->names(certificate); });
    return found == m_certificates.end() ? NVX509::RefCertificate() : *found;
}

std::optional<FittingCertificate> CertificateSearch::find(const SignedReader::Signer& signer) {
    const auto name = identifierOf(signer);
    if (!name) {
        return std::nullopt;
    }
    const NVX509::RefCertificate namedOne = named(signer);
    // The named ones, then those of the same issuer, then the others.
    std::vector<std::pair<int, const NVX509::RefCertificate*>> candidates;
    for (const NVX509::RefCertificate& certificate : m_certificates) {
        const bool sameIssuer = name->issuer() && *name->issuer() == certificate->issuer();
        candidates.emplace_back(name->names(certificate) ? 0 : (sameIssuer ? 1 : 2), &certificate);
    }
    std::ranges::stable_sort(candidates, {}, [](const auto& candidate) { return candidate.first; });
    std::vector<const NVX509::RefCertificate*> tried;
    for (const auto& candidate : candidates) {
        const int rank = candidate.first;
        const NVX509::RefCertificate* const certificate = candidate.second;
        const auto isTried = [&](const NVX509::RefCertificate* one) { return isSame(*one, *certificate); };
        if (std::ranges::any_of(tried, isTried)) {
            continue;
        }
        if (tried.size() == mostTries || !m_budget.take()) {
            break;
        }
        tried.push_back(certificate);
        const CMS::SignatureResult result = signer.hasSignedAttributes()
                                                ? m_message.verdictOnAttributes(signer, *certificate)
                                                : m_message.verdict(signer, *certificate);
        if (rank == 0 ? result.verdict == SignatureVerdict::good : keyFits(result)) {
            FittingCertificate fitting{*certificate, std::nullopt};
            if (rank != 0) {
                fitting.finding = findingOf(*certificate, *name, rank == 1, namedOne);
            }
            return fitting;
        }
    }
    return std::nullopt;
}

} // namespace Norvane::Crypto::SMime::diagnosis
