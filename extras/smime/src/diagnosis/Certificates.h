#pragma once

/// \file
/// Whose key a signature was made with, when it is not that of the certificate that the signer names.

#include <norvcrypto-smime/SMimeDiagnosis.h>

#include <optional>
#include <vector>

namespace Norvane::Crypto::SMime::diagnosis {

/// Counts verifications.
class VerificationBudget {
public:
    explicit VerificationBudget(std::size_t most) : m_most(most) {}
    /// False when none is left.
    [[nodiscard]] bool take() noexcept;
    [[nodiscard]] std::size_t taken() const noexcept { return m_taken; }
    [[nodiscard]] bool isSpent() const noexcept { return m_isSpent; }

private:
    std::size_t m_most;
    std::size_t m_taken = 0;
    bool m_isSpent = false;
};

/// A certificate whose key made a signature.
struct FittingCertificate {
    NVX509::RefCertificate certificate;
    std::optional<Finding> finding; ///< none when the signer names it
};

/// The certificates that may be meant: those given, and those in a message.
class CertificateSearch {
public:
    CertificateSearch(const CMS::SignedReader& message, const DiagnosisOptions& options, VerificationBudget& budget);

    /// The one whose key signed the attributes or, when there are none, the body that was written into the message.
    std::optional<FittingCertificate> find(const CMS::SignedReader::Signer& signer);
    /// One that the signer names.
    [[nodiscard]] NVX509::RefCertificate named(const CMS::SignedReader::Signer& signer) const;

private:
    const CMS::SignedReader& m_message;
    std::vector<NVX509::RefCertificate> m_certificates;
    VerificationBudget& m_budget;
};

/// The identifier of a signer's certificate; nothing when it does not decode.
std::optional<CMS::CertificateIdentifier> identifierOf(const CMS::SignedReader::Signer& signer);
/// Whether a verdict says that the key made the signature.
bool keyFits(const CMS::SignatureResult& result) noexcept;
/// Whether another certificate may give another verdict.
bool isAboutCertificate(CMS::SignatureReason reason) noexcept;

} // namespace Norvane::Crypto::SMime::diagnosis
