#pragma once

/// \file
/// What norvcrypt verify tells of the signatures of a structure.

#include "cms/Judging.h"
#include "show/Description.h"
#include "trust/TrustJudge.h"

#include <optional>
#include <string>
#include <vector>

namespace norvcrypt {

/// What is judged.
struct Subject {
    std::string signature;
    std::optional<std::string> body; ///< its file; without it standard input, or the content
    bool embedded = false;           ///< the content
    std::string noBody{};            ///< why a detached signature has none; empty: it has
};

/// What became of one signer.
struct JudgedSigner {
    Norvane::Crypto::CMS::SignatureResult result;
    std::optional<TrustAnswer> trust; ///< when that was asked, and the signature is good
};

/// What became of a structure.
struct JudgedStructure {
    const Norvane::Crypto::CMS::SignedReader& message;
    std::vector<JudgedSigner> signers{};
    Norvane::Crypto::SMime::Diagnosis diagnosis{};
    std::optional<JudgedBody> body{}; ///< nothing when there was no signer to judge

    /// Of all signers together; refused when there is none.
    [[nodiscard]] Norvane::Crypto::CMS::SignatureVerdict verdict() const;
};

/// Tells it on standard output.
void tellVerdict(const JudgedStructure& judged, const Subject& subject, bool trustAsked);
/// What docs/json.md says. \param judge null: trust was not asked
Description verdictFacts(const JudgedStructure& judged, const Subject& subject, const TrustJudge* judge);
/// In one line, to be shown as it is.
std::string verdictInOneLine(const JudgedStructure& judged, const Subject& subject, bool trustAsked);

} // namespace norvcrypt
