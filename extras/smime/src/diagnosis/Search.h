#pragma once

/// \file
/// The search for what makes the signatures of a detached message fit.

#include "diagnosis/BodyFacts.h"
#include "diagnosis/Certificates.h"
#include "diagnosis/OtherDigests.h"
#include "diagnosis/Recipes.h"
#include "diagnosis/TryOutput.h"

#include <norvcrypto-smime/SMimeDiagnosis.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace Norvane::Crypto::SMime::diagnosis {

/// A signer whose signature does not fit the body as it is.
struct OpenSigner {
    std::size_t index = 0;
    bool hasAttributes = false;
    NVX509::RefCertificate certificate{}; ///< to judge with
    std::vector<Finding> about{};         ///< the certificate
    std::optional<Explanation> explanation{};
};

/// One change that is undone while the body passes.
struct Try {
    const Recipe* recipe = nullptr; ///< none: only line ends are changed
    EndMode mode = EndMode::asIs;
    std::unique_ptr<TryOutput> out{};
    UndoingPtr undoing{};
};

class Search : private BodyJudge {
public:
    Search(const Buffer& structure, const BodySource& body, const DiagnosisOptions& options);
    Diagnosis run();

private:
    bool pass(bool isFirst);
    void findOpenSigners();
    void open(std::size_t index, const CMS::SignatureResult& result, CertificateSearch& certificates);
    void tryRecipes(const std::vector<Recipe>& recipes);
    void finishAll();
    void finish(Try& one);
    [[nodiscard]] Try started(const Recipe* recipe, EndMode mode) const;
    [[nodiscard]] bool isAnyOpen() const noexcept;
    [[nodiscard]] std::vector<EndMode> modes() const;
    void judge(const CMS::SignedReader& message, const EndChange& change) override;
    bool fits(const CMS::SignedReader& message, const OpenSigner& open);
    bool explainDigest(const OpenSigner& open, const CMS::SignedReader::Signer& signer);
    void notLooked(const std::string& what);

    const Buffer& m_structure;
    const BodySource& m_source;
    const DiagnosisOptions& m_options;
    VerificationBudget m_budget;
    CMS::SignedReader m_message;
    std::size_t m_digests = 0; ///< algorithms that each try digests by
    BodyFacts m_facts;
    std::vector<Try> m_tries;
    OtherDigests m_otherDigests;
    std::vector<OpenSigner> m_open;
    std::vector<Finding> m_findings; ///< of the try that is being judged
    bool m_isRecipe = false;         ///< more than line ends is undone in it
    Diagnosis m_diagnosis;
};

} // namespace Norvane::Crypto::SMime::diagnosis
