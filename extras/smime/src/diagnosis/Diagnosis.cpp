#include "diagnosis/Search.h"

namespace Norvane::Crypto::SMime {

using namespace diagnosis;

Diagnosis explain(const Buffer& structure, const BodySource& body, const DiagnosisOptions& options) {
    if (structure.length() > options.budget.structure) {
        Diagnosis diagnosis;
        diagnosis.notLooked = "the signature has more than " + std::to_string(options.budget.structure) +
                              " bytes: why it does not fit was not looked into";
        return diagnosis;
    }
    return Search(structure, body, options).run();
}

Diagnosis explainSigners(const CMS::SignedReader& message, const DiagnosisOptions& options) {
    Diagnosis diagnosis;
    VerificationBudget budget(options.budget.verifications);
    CertificateSearch certificates(message, options, budget);
    const auto& signers = message.signers();
    std::size_t refused = 0;
    for (std::size_t index = 0; index != signers.size(); ++index) {
        const CMS::SignatureResult result = message.verdict(signers[index]);
        if (!isAboutCertificate(result.reason)) {
            continue;
        }
        if (++refused > options.budget.signers) {
            diagnosis.notLooked = "of the signers whose signature does not fit, only the first " +
                                  std::to_string(options.budget.signers) + " were looked at";
            break;
        }
        const auto fitting = certificates.find(signers[index]);
        if (fitting && fitting->finding && keyFits(message.verdict(signers[index], fitting->certificate))) {
            diagnosis.explanations.push_back({index, {*fitting->finding}, fitting->certificate});
        }
    }
    if (budget.isSpent()) {
        diagnosis.notLooked += diagnosis.notLooked.empty() ? "" : "; ";
        diagnosis.notLooked +=
            "more than " + std::to_string(options.budget.verifications) + " signatures would have had to be verified";
    }
    diagnosis.verifications = budget.taken();
    return diagnosis;
}

} // namespace Norvane::Crypto::SMime
