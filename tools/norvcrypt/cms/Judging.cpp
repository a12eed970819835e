#include "cms/Judging.h"
#include "openssl/CertificateDetails.h"

#include <norvcmsg/Exception.h>

#include <algorithm>

namespace norvcrypt {

namespace NVX509 = Norvane::Crypto::NVX509;
namespace CMS = Norvane::Crypto::CMS;
namespace SMime = Norvane::Crypto::SMime;
using CMS::SignatureReason;
using CMS::SignatureResult;
using CMS::SignatureVerdict;
using CMS::SignedReader;

namespace {

SignatureResult unsupported(SignatureReason reason) {
    SignatureResult result;
    result.verdict = SignatureVerdict::unsupported;
    result.reason = reason;
    return result;
}

/// What signers are looked for in the lists that the user gave.
class Search {
public:
    /// Whether one more may be looked for among so many certificates: the first one always.
    [[nodiscard]] bool mayCompare(std::size_t certificates) noexcept {
        const bool isFirst = m_comparisons == 0;
        m_comparisons += certificates;
        return isFirst || m_comparisons <= CMS::maximumComparisons;
    }

private:
    std::uint64_t m_comparisons = 0;
};

/// The certificates that a signer names, each once, and one more than are tried at the most.
std::vector<NVX509::RefCertificate> namedBy(const SignedReader::Signer& signer,
                                            const std::list<NVX509::RefCertificate>& certificates) {
    std::vector<NVX509::RefCertificate> named;
    const auto name = nameOfCertificate(signer);
    for (const NVX509::RefCertificate& certificate : certificates) {
        const auto isSame = [&](const NVX509::RefCertificate& one) { return isSameCertificate(one, certificate); };
        if (!name || named.size() > CMS::maximumTries)
            break;
        if (name->names(certificate) && std::ranges::none_of(named, isSame))
            named.push_back(certificate);
    }
    return named;
}

/// The verdict with the certificates given: that of the first good one, else of one that leaves the question open, else of
/// the first.
SignatureResult judgeWith(const SignedReader& message, const SignedReader::Signer& signer,
                          const std::list<NVX509::RefCertificate>& certificates, Search& search) {
    if (!search.mayCompare(certificates.size()))
        return unsupported(SignatureReason::tooMuchWork);
    const std::vector<NVX509::RefCertificate> named = namedBy(signer, certificates);
    if (named.empty())
        return message.verdict(signer, NVX509::RefCertificate());
    std::optional<SignatureResult> best;
    std::size_t tries = 0;
    for (const NVX509::RefCertificate& certificate : named) {
        if (tries++ == CMS::maximumTries)
            return unsupported(SignatureReason::tooManyCertificates);
        SignatureResult result = message.verdict(signer, certificate);
        if (result.verdict == SignatureVerdict::good)
            return result;
        if (!best || (best->verdict == SignatureVerdict::refused && result.verdict != SignatureVerdict::refused))
            best = result;
    }
    return *best;
}

} // namespace

std::list<NVX509::RefCertificate> SignerCertificates::all() const {
    std::list<NVX509::RefCertificate> certificates = given.value_or(std::list<NVX509::RefCertificate>());
    certificates.insert(certificates.end(), ofStore.begin(), ofStore.end());
    return certificates;
}

std::optional<CMS::CertificateIdentifier> nameOfCertificate(const SignedReader::Signer& signer) {
    try {
        return signer.identifier();
    } catch (const Norvane::Exception&) {
        return std::nullopt;
    }
}

std::vector<SignatureResult> judgeSigners(const SignedReader& message, const JudgedBody& body,
                                          const SignerCertificates& certificates) {
    std::vector<SignatureResult> results;
    Search search;
    for (const SignedReader::Signer& signer : message.signers()) {
        SignatureResult result =
            certificates.given ? judgeWith(message, signer, *certificates.given, search) : message.verdict(signer);
        if (result.reason == SignatureReason::certificateMissing && !certificates.ofStore.empty())
            result = judgeWith(message, signer, certificates.ofStore, search);
        if (!body.isContent.value_or(true)) {
            result.verdict = SignatureVerdict::refused;
            result.reason = SignatureReason::contentDiffers;
            result.algorithm.clear();
        }
        results.push_back(result);
    }
    return results;
}

SMime::Diagnosis diagnosisOf(const SignedReader& message, StructureFile& file, RepeatableBody* body,
                             const std::vector<SignatureResult>& results, const SignerCertificates& certificates) {
    const auto isRefused = [](const SignatureResult& result) {
        return result.verdict == SignatureVerdict::refused && result.reason != SignatureReason::contentDiffers;
    };
    if (std::ranges::none_of(results, isRefused))
        return {};
    SMime::DiagnosisOptions options;
    options.certificates = certificates.all();
    if (body == nullptr)
        return SMime::explainSigners(message, options);
    if (!body->canRepeat()) {
        SMime::Diagnosis diagnosis = SMime::explainSigners(message, options);
        diagnosis.notLooked = "the body has more than " + std::to_string(options.budget.body) +
                              " bytes: what may have happened to it was not tried";
        return diagnosis;
    }
    Norvane::MediaIn structure = file.structure();
    Norvane::Buffer octets;
    // One byte more than is looked at tells that there are more.
    structure.read(octets, static_cast<unsigned int>(options.budget.structure + 1));
    return SMime::explain(
        octets, [body] { return body->again(); }, options);
}

} // namespace norvcrypt
